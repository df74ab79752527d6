// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#include "passwordprompt.h"

#include "heldsignals.h"

#include <cstdio>
#include <iterator>

#include <poll.h>
#include <termios.h>
#include <unistd.h>

namespace {

/// Far longer than any password.
constexpr int maximumLine = 4096;

constexpr int noSignals = -1;

/// Turns echo off for its lifetime. Also disables the suspend key, which would leave the terminal without echo.
class HiddenInput
{
public:
    HiddenInput()
        : m_terminal(tcgetattr(STDIN_FILENO, &m_before) == 0)
    {
        struct termios hidden = m_before;
        hidden.c_lflag &= ~tcflag_t(ECHO);
        hidden.c_cc[VSUSP] = _POSIX_VDISABLE;
        if (m_terminal)
            tcsetattr(STDIN_FILENO, TCSAFLUSH, &hidden);
    }
    ~HiddenInput()
    {
        if (m_terminal) {
            tcsetattr(STDIN_FILENO, TCSAFLUSH, &m_before);
            std::fputc('\n', stderr);
        }
    }

private:
    struct termios m_before = {};
    const bool m_terminal;

    Q_DISABLE_COPY(HiddenInput)
};

/// Reads one line without its end, unbuffered, so that no copy stays in a stream's buffer. Returns false on error, when
/// the line is too long, or when `signals` becomes readable first.
bool readLine(QByteArray &line, int signals)
{
    line.reserve(maximumLine); // Reallocation would leave copies behind.
    while (line.size() < maximumLine) {
        struct pollfd sources[] = {{STDIN_FILENO, POLLIN, 0}, {signals, POLLIN, 0}};
        if (poll(sources, std::size(sources), -1) == -1)
            continue; // interrupted
        if (sources[1].revents != 0)
            return false;
        char character = 0;
        const ssize_t count = read(STDIN_FILENO, &character, 1);
        if (count == -1)
            return false;
        if (count == 0 || character == '\n')
            return true;
        line.append(character);
    }
    return false;
}

bool ask(const char *prompt, QByteArray &line)
{
    const HeldSignals held; // Destroyed last, after the terminal is restored.
    const HiddenInput hidden;
    std::fputs(prompt, stderr);
    return readLine(line, held.descriptor());
}

} // namespace

QString readNewPassword(SecretBytes &password)
{
    QString unreadable = QStringLiteral("Cannot read a password from standard input");
    if (!isatty(STDIN_FILENO))
        return readLine(password.bytes(), noSignals) ? QString() : unreadable;

    SecretBytes again;
    if (!ask("New password: ", password.bytes()) || !ask("Repeat new password: ", again.bytes()))
        return unreadable;
    return password.bytes() == again.bytes() ? QString()
                                             : QStringLiteral("The passwords differ; the password was not changed");
}
