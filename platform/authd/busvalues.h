// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <QVariant>

#include <systemd/sd-bus.h>

/// Reads and writes values in messages: booleans, numbers, strings, lists of strings, byte arrays (QByteArray),
/// dictionaries of strings to values (QVariantMap) and variants (QDBusVariant).
namespace BusValues {

/// Signatures of the elements of arrays.
constexpr char TextList[] = "s";
constexpr char Map[] = "{sv}";

/// Reads the arguments of a message. Returns a negative error as soon as something cannot be read, so that a huge
/// message takes no longer than others: -E2BIG for a value beyond the limits, -EINVAL for a value of another type. Then
/// `arguments` holds what has been read.
int read(sd_bus_message *message, QVariantList &arguments);

/// Whether a value of this type can be written. A QDBusVariant inside a QDBusVariant cannot.
bool isWritable(const QVariant &value);
/// Appends writable values. Returns a negative error.
int append(sd_bus_message *message, const QVariantList &values);

} // namespace BusValues
