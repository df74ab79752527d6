// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#include "secretprompt.h"

#include <cerrno>
#include <cstdio>
#include <termios.h>
#include <unistd.h>

namespace {

constexpr char Interrupt = 'C' - '@';

/// Switches echo and the keys that raise signals off while it lives, so that no signal leaves the terminal mute. Ctrl-C
/// ends the line instead.
class SilentTerminal
{
public:
    SilentTerminal()
    {
        tcgetattr(STDIN_FILENO, &m_before);
        termios silent = m_before;
        silent.c_lflag &= ~static_cast<tcflag_t>(ECHO | ISIG);
        silent.c_cc[VEOL] = Interrupt;
        tcsetattr(STDIN_FILENO, TCSAFLUSH, &silent);
    }
    ~SilentTerminal() { tcsetattr(STDIN_FILENO, TCSAFLUSH, &m_before); }

private:
    Q_DISABLE_COPY(SilentTerminal)
    termios m_before = {};
};

std::optional<QString> readLine()
{
    QByteArray line;
    for (;;) {
        // No further than the line: what follows is not ours.
        char c = 0;
        const ssize_t count = read(STDIN_FILENO, &c, 1);
        if (count < 0 && errno == EINTR)
            continue;
        if (count <= 0 && line.isEmpty())
            return std::nullopt;
        if (count <= 0 || c == '\n')
            return QString::fromUtf8(line);
        if (c == Interrupt)
            return std::nullopt;
        line += c;
    }
}

} // namespace

std::optional<QString> readSecret(const QString &prompt)
{
    if (!isatty(STDIN_FILENO))
        return readLine();

    std::optional<QString> secret;
    {
        const SilentTerminal terminal;
        std::fputs(qUtf8Printable(prompt), stderr);
        secret = readLine();
    }
    std::fputc('\n', stderr);
    return secret;
}
