// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <QPair>
#include <QString>
#include <QVariant>
#include <QVector>

/// The daemon's log: one line per event, "event=NAME key=value ...". A value that is not plain is quoted, and what
/// could break the line or do harm on a terminal is escaped. It goes to the journal where standard error is connected
/// to it, with the event and its values as fields of their own besides. Elsewhere it goes to standard error; before it
/// stands "level=NAME", or in the journal's form the priority, "<N>".
namespace Log {

/// syslog's priorities.
enum Priority { Critical = 2, Error = 3, Warning = 4, Notice = 5, Info = 6, Debug = 7 };

using Fields = QVector<QPair<const char *, QVariant>>;

/// Begins to log; in the journal's form with `journal` and where standard error is connected to the journal. Qt's
/// messages are written as the event "message".
void start(bool journal);
/// Writes a line. Values are texts, numbers and truth values; never anything secret.
void write(Priority priority, const char *event, const Fields &fields = {});

} // namespace Log
