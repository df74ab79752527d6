// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#include "accounts.h"

#include "errors.h"

#include <QByteArray>
#include <QFile>
#include <QVarLengthArray>

#include <cerrno>
#include <pwd.h>
#include <unistd.h>

namespace {

const QString loginDefinitions = QStringLiteral("/etc/login.defs");

/// The user ids that the system gives to people; what shadow's programs assume when the file does not say.
struct UidRange
{
    uint first = 1000;
    uint last = 60000;
};

UidRange uidRange()
{
    UidRange range;
    QFile file(loginDefinitions);
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

bool isLoginShell(const char *shell)
{
    bool isListed = false;
    setusershell();
    while (const char *listed = getusershell()) {
        if (qstrcmp(listed, shell) == 0)
            isListed = true;
    }
    endusershell();
    return isListed;
}

} // namespace

bool Accounts::isUser(uint uid) const
{
    if (uid == 0)
        return false;
    passwd entry;
    passwd *found = nullptr;
    QVarLengthArray<char, 1024> buffer(1024);
    while (getpwuid_r(uid, &entry, buffer.data(), static_cast<size_t>(buffer.size()), &found) == ERANGE)
        buffer.resize(buffer.size() * 2);
    if (!found || m_rule == All)
        return found;
    const UidRange range = uidRange();
    return uid >= range.first && uid <= range.last && isLoginShell(entry.pw_shell);
}

Reply Accounts::check(uint uid) const
{
    if (!isUser(uid))
        return Reply(Errors::NoSuchUser, QStringLiteral("There is no user %1 to authenticate").arg(uid));
    return Reply();
}
