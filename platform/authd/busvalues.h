// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <QVariant>

#include <systemd/sd-bus.h>

/// Placeholder for a value of a type that no call accepts.
struct UnsupportedValue
{
};
Q_DECLARE_METATYPE(UnsupportedValue)

/// Reads and writes values in messages: booleans, numbers, strings, lists of strings, byte arrays (QByteArray),
/// dictionaries of strings to values (QVariantMap) and variants (QDBusVariant).
namespace BusValues {

/// Reads the arguments of a message. Returns a negative error. Returns -E2BIG as soon as a limit is exceeded, so that a
/// huge message takes no longer than others.
int read(sd_bus_message *message, QVariantList &arguments);

/// Whether a value of this type can be written. A QDBusVariant inside a QDBusVariant cannot.
bool isWritable(const QVariant &value);
/// Appends writable values. Returns a negative error.
int append(sd_bus_message *message, const QVariantList &values);

} // namespace BusValues
