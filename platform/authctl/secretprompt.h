// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <QString>

/// A secret that the user entered. The destructor overwrites its memory, including copies that share it.
class Secret
{
public:
    explicit Secret(const QString &text)
        : m_text(text)
    {
    }
    ~Secret();

    const QString &text() const { return m_text; }

private:
    const QString m_text;

    Q_DISABLE_COPY(Secret)
};

/// Prompts with `prompt` and reads one line without echo. If standard input is not a terminal, reads its first line
/// without a prompt. Throws a Failure when there is no line: on end of input, on Ctrl-C, or when the line is too long.
/// Signals that would terminate the program are held back until the terminal echoes again.
Secret readSecret(const QString &prompt);
