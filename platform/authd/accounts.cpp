// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#include "accounts.h"

#include "errors.h"
#include "filestamp.h"
#include "userdatabase.h"

#include <QByteArray>
#include <QFile>
#include <QSet>

#include <optional>
#include <unistd.h>

namespace {

constexpr char LoginDefinitions[] = "/etc/login.defs";
constexpr char Shells[] = "/etc/shells";

/// Returns what `read` makes of the file. Caches it until the file changes, because each call needs it.
template <typename Content>
const Content &contentOf(const char *path, Content (*read)())
{
    static std::optional<FileStamp> lastStamp;
    static Content content;
    const FileStamp stamp = fileStamp(path);
    if (lastStamp != stamp) {
        lastStamp = stamp;
        content = read();
    }
    return content;
}

/// The user ids of people. The defaults are those that shadow's programs use when the file does not say.
struct UidRange
{
    uint first = 1000;
    uint last = 60000;
};

UidRange readUidRange()
{
    UidRange range;
    QFile file(QString::fromLatin1(LoginDefinitions));
    if (!file.open(QIODevice::ReadOnly))
        return range;
    while (!file.atEnd()) {
        const QList<QByteArray> words = file.readLine().simplified().split(' ');
        if (words.size() < 2)
            continue;
        bool isNumber = false;
        const uint number = words.at(1).toUInt(&isNumber, 0);
        if (isNumber && words.first() == "UID_MIN")
            range.first = number;
        else if (isNumber && words.first() == "UID_MAX")
            range.last = number;
    }
    return range;
}

QSet<QByteArray> readShells()
{
    QSet<QByteArray> shells;
    setusershell();
    while (const char *shell = getusershell())
        shells << shell;
    endusershell();
    return shells;
}

} // namespace

bool Accounts::isUser(uint uid) const
{
    if (uid == 0)
        return false;
    const auto user = UserDatabase::find(uid);
    if (!user || m_rule == All)
        return user.has_value();
    const UidRange &range = contentOf(LoginDefinitions, readUidRange);
    return uid >= range.first && uid <= range.last && contentOf(Shells, readShells).contains(user->shell);
}

Reply Accounts::check(uint uid) const
{
    if (!isUser(uid))
        return Reply(Errors::NoSuchUser, QStringLiteral("No user with the id %1 can be authenticated").arg(uid));
    return Reply();
}
