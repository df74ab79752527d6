// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <QByteArray>
#include <QString>

/// Salted password hashes in the format of the system's crypt(3).
namespace PasswordHash {

/// The longest password, in bytes.
extern const int maximumLength;

/// The hash of a password by the system's preferred method with a fresh salt; empty when the password is empty, longer
/// than maximumLength, or the system has no randomness.
QByteArray make(const QByteArray &password);

/// Whether a password has this hash; keeps no copy of it. The time it takes tells nothing about where two hashes
/// differ.
bool matches(const char *password, const QByteArray &hash);

} // namespace PasswordHash
