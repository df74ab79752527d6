// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#include "support/testdevice.h"

#include <authd/libauthd.h>

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QThread>

#include <csignal>
#include <cstring>

#include <fcntl.h>
#include <grp.h>
#include <linux/magic.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

const QString stateDirectory = QStringLiteral("/tmp/scripted-client");
const QString scriptFile = stateDirectory + QStringLiteral("/script.json");
const QString launchesFile = stateDirectory + QStringLiteral("/launches");
const QString callsFile = stateDirectory + QStringLiteral("/calls");
const QString calleesFile = stateDirectory + QStringLiteral("/callees");

QVector<QJsonDocument> journal(const QString &path)
{
    QVector<QJsonDocument> entries;
    QList<QByteArray> lines = TestDevice::readFile(path).split('\n');
    lines.removeLast(); // Empty or an incomplete line.
    for (const QByteArray &line : qAsConst(lines))
        entries << QJsonDocument::fromJson(line);
    return entries;
}

} // namespace

bool TestDevice::isDevice()
{
    // The device's root is an overlay, or a tmpfs for an ordinary user. Only in the device does the adapter replace the
    // launcher.
    struct statfs root = {};
    return statfs("/", &root) == 0 && (root.f_type == OVERLAYFS_SUPER_MAGIC || root.f_type == TMPFS_MAGIC)
           && QFileInfo::exists(QStringLiteral("/usr/bin/firejail.stock"))
           && LibAuthd::userName(alice) == QLatin1String("alice");
}

bool TestDevice::isOrdinaryUsers()
{
    // Only the initial user namespace maps all user ids.
    return !readFile(QStringLiteral("/proc/self/uid_map")).contains("4294967295");
}

void TestDevice::reset()
{
    if (!isDevice())
        qFatal("This test changes the system it runs on. Run it in the disposable device: device/enter %s",
               qPrintable(QFileInfo(QStringLiteral("/proc/self/exe")).canonicalFilePath()));

    const QVector<QJsonObject> running = launches();
    for (const QJsonObject &launch : running) {
        const pid_t pid = launch.value(QLatin1String("pid")).toInt();
        const QString program = QFileInfo(QStringLiteral("/proc/%1/exe").arg(pid)).symLinkTarget();
        if (program == launcher || program.startsWith(launcher + QLatin1Char(' ')))
            kill(pid, SIGKILL);
    }

    for (const QString &directory :
         {QStringLiteral("/run/aux-auth"), QStringLiteral("/srv/shared"), QStringLiteral("/var/lib/authd"),
          QStringLiteral("/var/lib/varnet"), QStringLiteral("/etc/varnet/permissions"),
          QStringLiteral("/usr/share/tarsk.kavet_client"), QStringLiteral("/run/authd"), stateDirectory}) {
        const QFileInfo info(directory);
        if (info.isSymLink() || (info.exists() && !info.isDir()))
            QFile::remove(directory);
        QDir(directory).removeRecursively();
    }
    QDir().mkpath(QStringLiteral("/srv/shared"));
    QDir().mkpath(QStringLiteral("/var/lib/authd"));
    QDir(manifest).removeRecursively();
    QFile::remove(manifest);
    writeManifest(QStringLiteral("tarsk"), QStringLiteral("kavet_client"),
                  QStringLiteral("/usr/bin/tarsk.kavet_client"), {});

    for (const char *user : {"alice", "bob", "carol"}) {
        const QString marker = QStringLiteral("/home/%1/.qarv-startupwizard-usersession-done").arg(QLatin1String(user));
        QFile::remove(marker);
        if (qstrcmp(user, "carol") != 0)
            writeFile(marker, {});
    }

    // World-writable, because the client runs as the user.
    QDir().mkpath(stateDirectory);
    chmod(QFile::encodeName(stateDirectory).constData(), 01777);
    for (const QString &file : {launchesFile, callsFile, calleesFile}) {
        writeFile(file, {});
        chmod(QFile::encodeName(file).constData(), 0666);
    }
    setScript({});
    QFile::remove(launcher);
    QFile::copy(QCoreApplication::applicationDirPath() + QStringLiteral("/" SCRIPTED_CLIENT), launcher);
    chmod(QFile::encodeName(launcher).constData(), 0755);
}

bool TestDevice::setOwner(const QString &path, uint uid, uint gid)
{
    return lchown(QFile::encodeName(path).constData(), uid, gid) == 0;
}

bool TestDevice::leaveSocket(const QString &path, uint uid)
{
    const QByteArray name = QFile::encodeName(path);
    const int descriptor = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, name.constData(), sizeof address.sun_path - 1);
    const bool bound = bind(descriptor, reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0;
    close(descriptor);
    return bound && setOwner(path, uid, uid);
}

bool TestDevice::leaveLink(const QString &path, uint uid)
{
    const QByteArray name = QFile::encodeName(path);
    // Following a link updates its access time, if that is older than the link's modification time.
    const timespec longAgo[] = {{1, 0}, {1, 0}};
    return symlink("/etc/hostname", name.constData()) == 0 && setOwner(path, uid, uid)
           && utimensat(AT_FDCWD, name.constData(), longAgo, AT_SYMLINK_NOFOLLOW) == 0;
}

bool TestDevice::wasFollowed(const QString &path)
{
    struct stat status = {};
    return lstat(QFile::encodeName(path).constData(), &status) == -1 || status.st_atim.tv_sec != 1;
}

bool TestDevice::writeManifest(const QString &organization, const QString &application, const QString &command,
                               const QStringList &permissions)
{
    QString content = QStringLiteral("[X-Application]\n");
    if (!organization.isNull())
        content += QStringLiteral("OrganizationName=%1\n").arg(organization);
    if (!application.isNull())
        content += QStringLiteral("ApplicationName=%1\n").arg(application);
    if (!command.isNull())
        content += QStringLiteral("ExecCmd=%1\n").arg(command);
    if (!permissions.isEmpty())
        content += QStringLiteral("Permissions=%1;\n").arg(permissions.join(QLatin1Char(';')));
    return writeFile(manifest, content.toUtf8());
}

bool TestDevice::writeSetting(const QString &path, const QString &key, const QString &value)
{
    return writeFile(path, QStringLiteral("[General]\n%1=%2\n").arg(key, value).toUtf8());
}

uint TestDevice::groupId(const char *name)
{
    const struct group *entry = getgrnam(name);
    return entry ? entry->gr_gid : 0;
}

pid_t TestDevice::idleProcess(const std::function<bool()> &prepare)
{
    int ready[2] = {};
    if (pipe(ready) != 0)
        return -1;
    const pid_t process = fork();
    if (process == 0) {
        signal(SIGCHLD, SIG_DFL); // QProcess's handler would reap the children of others.
        if (!prepare())
            _exit(1);
        (void)!write(ready[1], "x", 1);
        for (;;)
            pause();
    }
    close(ready[1]);
    char byte = 0;
    const bool isPrepared = read(ready[0], &byte, 1) == 1;
    close(ready[0]);
    if (!isPrepared)
        waitpid(process, nullptr, 0);
    return isPrepared ? process : -1;
}

void TestDevice::setScript(const QJsonObject &script)
{
    writeFile(scriptFile, QJsonDocument(script).toJson());
}

QVector<QJsonObject> TestDevice::launches()
{
    QVector<QJsonObject> launches;
    const QVector<QJsonDocument> entries = journal(launchesFile);
    for (const QJsonDocument &entry : entries)
        launches << entry.object();
    return launches;
}

QVector<uint> TestDevice::callees()
{
    QVector<uint> uids;
    const QVector<QJsonDocument> entries = journal(calleesFile);
    for (const QJsonDocument &entry : entries)
        uids << uint(entry.array().at(0).toInt());
    return uids;
}

QVector<QJsonArray> TestDevice::calls()
{
    QVector<QJsonArray> calls;
    const QVector<QJsonDocument> entries = journal(callsFile);
    for (const QJsonDocument &entry : entries)
        calls << entry.array();
    return calls;
}
