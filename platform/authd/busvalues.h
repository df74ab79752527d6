// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <QVariant>

#include <systemd/sd-bus.h>

/// What stands in a value from the bus for one of a kind that no call has use for.
struct OddValue
{
};
Q_DECLARE_METATYPE(OddValue)

/// Values in messages: truth values, numbers, texts, lists of texts, byte arrays (QByteArray), dictionaries of texts to
/// values (QVariantMap) and variants (QDBusVariant).
namespace BusValues {

/// Reads the arguments of a message. Negative on failure: -E2BIG as soon as something is beyond the limits, so that a
/// huge message takes no longer than others.
int read(sd_bus_message *message, QVariantList &arguments);

/// Whether values of this kind can be written; one inside a QDBusVariant cannot.
bool isWritable(const QVariant &value);
/// Appends values that can be written; negative on failure.
int append(sd_bus_message *message, const QVariantList &values);

} // namespace BusValues
