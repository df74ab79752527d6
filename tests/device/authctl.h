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

/// Runs of the command line, as a person or a script sees them.
namespace Authctl {

enum ExitCode { Success = 0, Refused = 1, WrongUsage = 2, Locked = 3, Unreachable = 4 };

struct Result
{
    int exitCode; ///< -1 when it has not ended by itself.
    QString output;
    QString errors;

    /// What it has told with --json, and the kinds of these events.
    QVector<QJsonObject> objects() const;
    QStringList events() const;
};

/// Runs it as user `uid`, with arguments separated by spaces, and with `input` on standard input.
Result runAs(uint uid, const QString &arguments, const QByteArray &input = {});
Result run(const QString &arguments, const QByteArray &input = {});

/// A run on a terminal of its own. Waiting for it handles events.
class OnTerminal
{
public:
    explicit OnTerminal(const QStringList &arguments, uint uid = 0);
    ~OnTerminal();

    /// Waits until the screen has `text`.
    bool waitFor(const QByteArray &text);
    bool waitForEnd();
    void type(const QByteArray &text);
    /// Whether the terminal shows what is typed, and its keys raise signals.
    bool echoes() const;
    pid_t pid() const { return m_pid; }
    /// Once it has ended; -1 when it has not, or otherwise: by itself, by a signal.
    int exitCode() const;
    int endSignal() const;

    QByteArray screen;

private:
    /// Takes note of the program's end, and then of what it has written.
    void readScreen();

    int m_terminal = -1;
    int m_programSide = -1; ///< Kept open: the settings of a terminal that nobody has open are reset.
    pid_t m_pid = -1;
    std::optional<int> m_status;

    Q_DISABLE_COPY(OnTerminal)
};

} // namespace Authctl
