// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include "device/installed.h"

#include <QByteArray>
#include <QJsonObject>
#include <QStringList>
#include <QVector>

#include <optional>
#include <sys/types.h>

/// Runs the command line and captures what a person or a script would see.
namespace Authctl {

enum ExitCode { Success = 0, Refused = 1, WrongUsage = 2, Locked = 3, Unreachable = 4 };

struct Result
{
    int exitCode; ///< -1 if the program did not exit.
    QString output;
    QString errors;

    /// The events in the output of --json, and their "event" fields.
    QVector<QJsonObject> objects() const;
    QStringList events() const;
};

/// Runs authctl as user `uid`. Spaces separate the arguments; `input` is its standard input.
Result runAs(uint uid, const QString &arguments, const QByteArray &input = {});
Result run(const QString &arguments, const QByteArray &input = {});

/// A run on its own terminal. The wait functions process events.
class OnTerminal
{
public:
    explicit OnTerminal(const QStringList &arguments, uint uid = 0);
    ~OnTerminal();

    /// Waits until the screen shows `text`.
    bool waitFor(const QByteArray &text);
    bool waitForEnd();
    void type(const QByteArray &text);
    /// Whether the terminal echoes input and its keys raise signals.
    bool echoes() const;
    pid_t pid() const { return m_pid; }
    /// The exit code, or -1 if the program still runs or was ended by a signal; and the reverse.
    int exitCode() const;
    int endSignal() const;

    QByteArray screen;

private:
    /// Checks whether the program has ended before reading its output, so that no output is lost.
    void readScreen();

    int m_terminal = -1;
    int m_programSide = -1; ///< Kept open, because the kernel resets a terminal when its last descriptor is closed.
    pid_t m_pid = -1;
    std::optional<int> m_status;

    Q_DISABLE_COPY(OnTerminal)
};

} // namespace Authctl
