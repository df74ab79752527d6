// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#include "userdatabase.h"

#include "filestamp.h"
#include "regularfile.h"

#include <QHash>
#include <QVarLengthArray>

#include <cerrno>
#include <pwd.h>

namespace UserDatabase {

namespace {

constexpr char usersFile[] = "/etc/passwd";
constexpr std::size_t largestFile = std::size_t(64) * 1024 * 1024;
constexpr int maximumRemembered = 64;

/// Asks all sources of users.
std::optional<User> ask(uid_t uid)
{
    passwd entry;
    passwd *found = nullptr;
    QVarLengthArray<char, 1024> buffer(1024);
    while (getpwuid_r(uid, &entry, buffer.data(), static_cast<size_t>(buffer.size()), &found) == ERANGE)
        buffer.resize(buffer.size() * 2);
    if (!found)
        return std::nullopt;
    return User{found->pw_name, found->pw_shell};
}

std::optional<User> inFile(uid_t uid)
{
    enum Field { Name, Uid = 2, Shell = 6, Count };
    const std::string content = readRegularFile(usersFile, 0, largestFile).value_or(std::string());
    const auto text = QByteArray::fromRawData(content.data(), int(content.size()));
    const QByteArray number = QByteArray::number(uid);
    const QByteArray field = ':' + number + ':';
    for (int at = text.indexOf(field); at != -1; at = text.indexOf(field, at + 1)) {
        const int begin = text.lastIndexOf('\n', at) + 1;
        const QList<QByteArray> fields = text.mid(begin, text.indexOf('\n', at) - begin).split(':');
        if (fields.size() == Count && fields.at(Uid) == number)
            return User{fields.at(Name), fields.at(Shell)};
    }
    return std::nullopt;
}

} // namespace

std::optional<User> find(uid_t uid)
{
    // The users of the file; none for those that come from other sources, which change unseen.
    thread_local QHash<uid_t, std::optional<User>> remembered;
    thread_local FileStamp lastStamp;
    const FileStamp stamp = fileStamp(usersFile);
    if (stamp != lastStamp || remembered.size() >= maximumRemembered) {
        remembered.clear();
        lastStamp = stamp;
    }
    const auto known = remembered.constFind(uid);
    if (known != remembered.cend())
        return *known ? *known : ask(uid);
    std::optional<User> user = ask(uid);
    remembered.insert(uid, user && user == inFile(uid) ? user : std::nullopt);
    return user;
}

} // namespace UserDatabase
