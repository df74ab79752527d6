// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#include "wiper.h"

#include <QDBusConnection>
#include <QDBusMessage>
#include <QFile>
#include <QProcess>

#include <pwd.h>
#include <sys/stat.h>

namespace {

const QString errorPrefix = QStringLiteral("qarv.userdata.wiper.Error.");

/// Whether `directory` is a directory owned by user `uid`, and not a symbolic link to one.
bool isHomeOf(const QByteArray &directory, uid_t uid)
{
    struct stat status = {};
    return directory.startsWith('/') && lstat(directory.constData(), &status) == 0 && S_ISDIR(status.st_mode)
           && status.st_uid == uid;
}

} // namespace

void Wiper::ProcessTargetUser(const QString &user)
{
    const struct passwd *entry = user.isEmpty() ? nullptr : getpwnam(user.toUtf8().constData());
    if (!entry)
        return refuse("NoSuchUser", QStringLiteral("No such user"));
    if (entry->pw_uid == 0)
        return refuse("SystemUser", QStringLiteral("The data of root cannot be removed"));
    const QByteArray home(entry->pw_dir);
    if (!isHomeOf(home, entry->pw_uid))
        return refuse("NoHome", QStringLiteral("The user does not own the home directory"));

    setDelayedReply(true);
    // find does not follow links, even if the user moves directories while it runs.
    auto *find = new QProcess(this);
    const auto answer = [find, call = message(), bus = connection()](bool done) {
        const QDBusMessage reply =
            done ? call.createReply()
                 : call.createErrorReply(errorPrefix + QLatin1String("NotRemoved"),
                                         QString::fromLocal8Bit(find->readAllStandardError().left(1024)));
        bus.send(reply);
        find->deleteLater();
    };
    connect(find, QOverload<int, QProcess::ExitStatus>::of(&QProcess::finished), this,
            [answer](int exitCode, QProcess::ExitStatus status) {
                answer(status == QProcess::NormalExit && exitCode == 0);
            });
    connect(find, &QProcess::errorOccurred, this, [answer](QProcess::ProcessError error) {
        if (error == QProcess::FailedToStart)
            answer(false);
    });
    find->start(QStringLiteral("find"), {QFile::decodeName(home), QStringLiteral("-xdev"), QStringLiteral("-mindepth"),
                                         QStringLiteral("1"), QStringLiteral("-delete")});
}

void Wiper::refuse(const char *reason, const QString &text)
{
    sendErrorReply(errorPrefix + QLatin1String(reason), text);
}
