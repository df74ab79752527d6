// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <QString>

/// What a person enters and nobody else may see. Its memory is overwritten at the end of its life, for all copies that
/// share it.
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

/// Asks on the terminal with `prompt` and reads a line without showing it; when standard input is no terminal, reads
/// its first line without asking. Throws a Failure when there is no line: the input ends first, the person breaks off
/// with Ctrl-C, or the line is too long. A signal that ends the program does so when the terminal shows input again.
Secret readSecret(const QString &prompt);
