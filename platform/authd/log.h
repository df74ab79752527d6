// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <QPair>
#include <QString>
#include <QVariant>
#include <QVector>

/// The daemon's log: one line per event, "event=NAME key=value ...". Values are quoted if needed, and characters that
/// could break the line or harm a terminal are escaped.
///
/// If standard error is connected to the journal, the line goes to the journal, with the event and each value as
/// separate fields too. Otherwise it goes to standard error, prefixed with "level=NAME" or, in the journal's format,
/// with the priority "<N>".
namespace Log {

/// The priorities of syslog.
enum Priority { Critical = 2, Error = 3, Warning = 4, Notice = 5, Info = 6, Debug = 7 };

using Fields = QVector<QPair<const char *, QVariant>>;

/// Starts logging. Uses the journal's format if `journal` is true or standard error is connected to the journal. Logs
/// Qt's messages as the event "message".
void start(bool journal);
/// Writes a line. Values are strings, numbers and booleans, and must never be secret.
void write(Priority priority, const char *event, const Fields &fields = {});

} // namespace Log
