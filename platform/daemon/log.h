// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <QPair>
#include <QString>
#include <QVariant>
#include <QVector>

/// The daemon's log on standard error: one line per event, "event=NAME key=value ...". A value that is not plain is
/// quoted, and what could break the line is escaped. Before it stands "level=NAME", or for the journal the priority in
/// its own form, "<N>".
namespace Log {

/// syslog's priorities.
enum Priority { Critical = 2, Error = 3, Warning = 4, Notice = 5, Info = 6, Debug = 7 };

using Fields = QVector<QPair<const char *, QVariant>>;

/// Whether standard error is connected to the journal.
bool isJournal();
/// Sets the form of the lines, and has Qt's messages written in it as the event "message".
void start(bool journal);
/// Writes a line. Values are texts, numbers and truth values; never anything secret.
void write(Priority priority, const char *event, const Fields &fields = {});

} // namespace Log
