// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include "reply.h"

/// Checks and keeps what callers send. All limits are far above what an honest caller needs.
namespace RequestData {

/// The longest name of a method or an option, in characters.
constexpr int NameLimit = 255;
/// The longest text among the data of an attempt and the values of options, in characters; bytes for byte arrays.
constexpr int TextLimit = 16 * 1024;
/// The most entries of the data of an attempt and of a list.
constexpr int EntryLimit = 64;

/// An error for a name that is too long.
Reply checkName(const QString &name);
/// An error for data that are too large or hold something else than plain values: truth values, numbers, texts, lists
/// of texts and byte arrays.
Reply checkData(const QVariantMap &data);
/// An error for an option's value that is too large; what it is, is for the option's rules to say.
Reply checkValue(const QVariant &value);

/// Overwrites the texts and byte arrays in the data, also for all who share them.
void wipe(QVariantMap &data);

/// What came with a call, until an attempt takes it over; wiped with the object.
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
