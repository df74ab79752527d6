// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <QByteArray>

#include <optional>
#include <sys/types.h>

namespace UserDatabase {

struct User
{
    QByteArray name;
    QByteArray shell;

    bool operator==(const User &other) const { return name == other.name && shell == other.shell; }
};

/// The user with the id `uid`. Remembers users of /etc/passwd until the file changes, because each request needs one,
/// and the C library reads the file from the beginning each time.
std::optional<User> find(uid_t uid);

} // namespace UserDatabase
