// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <QStringList>
#include <QVector>

/// Captures log messages for its lifetime. Only one may exist at a time. Messages still reach standard error. A forked
/// child's messages are not captured; they only reach the child's standard error.
class LogCapture
{
public:
    struct Line
    {
        QtMsgType level;
        QString category;
        QString text;

        bool operator==(const Line &other) const
        {
            return level == other.level && category == other.category && text == other.text;
        }
    };

    /// With `debug`, also enables the debug messages of the plugin's category for its lifetime.
    explicit LogCapture(bool debug = false);
    ~LogCapture();

    /// The lines of the plugin's category so far.
    QVector<Line> lines() const;
    /// The lines of all other categories so far.
    QVector<Line> otherLines() const;
    /// The texts of the plugin's category at `level` so far.
    QStringList texts(QtMsgType level) const;
    QStringList warnings() const { return texts(QtWarningMsg); }
    QStringList criticals() const { return texts(QtCriticalMsg); }
    QStringList debugs() const { return texts(QtDebugMsg); }
    void clear();

private:
    QVector<Line> m_lines;

    static void handle(QtMsgType level, const QMessageLogContext &context, const QString &text);
};
