// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include "reply.h"

/// Checks and stores the data that callers send. All limits are far above what a legitimate caller needs.
namespace RequestData {

/// The maximum length of the name of a method or an option, in characters.
constexpr int NameLimit = 255;
/// The maximum length of a string in an attempt's data, in characters; in bytes for byte arrays.
constexpr int TextLimit = 16 * 1024;
/// The maximum number of entries in an attempt's data or in a list.
constexpr int EntryLimit = 64;

/// Returns an error for a name that is too long.
Reply checkName(const QString &name);
/// Returns an error for data that is too large. The bus reader lets only plain values pass: booleans, numbers, strings,
/// lists of strings and byte arrays.
Reply checkData(const QVariantMap &data);
/// Returns an error for an option's value that is too long to store. The option's rules check everything else.
Reply checkValue(const QVariant &value);

/// Overwrites the strings and byte arrays in the value, including copies that share them.
void wipe(const QVariant &value);
/// Overwrites those in the data, and clears it.
void wipe(QVariantMap &data);

/// The data of a call, until an attempt takes it over. The destructor wipes it.
struct Entered
{
    explicit Entered(const QVariantMap &entered)
        : data(entered)
    {
    }
    ~Entered() { wipe(data); }
    Entered(const Entered &) = delete;
    Entered &operator=(const Entered &) = delete;

    QVariantMap data;
};

} // namespace RequestData
