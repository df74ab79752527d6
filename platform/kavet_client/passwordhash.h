// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <QByteArray>
#include <QString>

/// Salted password hashes in the format of the system's crypt(3).
namespace PasswordHash {

/// The maximum length of a password, in bytes.
extern const int maximumLength;

/// Hashes a password with the system's preferred method and a fresh salt. Returns an empty array when the password is
/// empty or longer than maximumLength, or when the system provides no random bytes.
QByteArray make(const QByteArray &password);

/// Whether a password matches a hash. Keeps no copy of the password. Compares in constant time.
bool matches(const char *password, const QByteArray &hash);

} // namespace PasswordHash
