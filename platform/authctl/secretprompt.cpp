// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#include "secretprompt.h"

#include "failure.h"
#include "harmlesstext.h"
#include "heldsignals.h"
#include "wipe.h"

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <iterator>
#include <poll.h>
#include <termios.h>
#include <unistd.h>

namespace {

constexpr char Interrupt = 'C' - '@';
constexpr size_t LongestSecret = 4096; // bytes, far more than any real password

Failure nothingEntered()
{
    return {Refused, QStringLiteral("No password or PIN was entered")};
}

/// Shows a prompt and turns echo off for its lifetime. No key raises a signal; Ctrl-C ends the line instead.
class SilentTerminal
{
public:
    explicit SilentTerminal(const QString &prompt)
    {
        tcgetattr(STDIN_FILENO, &m_before);
        termios silent = m_before;
        silent.c_lflag &= ~static_cast<tcflag_t>(ECHO | ISIG);
        silent.c_cc[VEOL] = Interrupt;
        tcsetattr(STDIN_FILENO, TCSAFLUSH, &silent);
        std::fputs(qUtf8Printable(harmless(prompt)), stderr);
    }
    ~SilentTerminal()
    {
        tcsetattr(STDIN_FILENO, TCSAFLUSH, &m_before);
        std::fputc('\n', stderr); // The typed newline was not echoed.
    }

private:
    Q_DISABLE_COPY(SilentTerminal)
    termios m_before = {};
};

/// A line in a buffer that never moves, so that it leaves no copies behind. The destructor overwrites it.
struct Line
{
    Line() = default;
    ~Line() { explicit_bzero(bytes.data(), bytes.size()); }

    Secret text() const { return Secret(QString::fromUtf8(bytes.data(), int(size))); }

    std::array<char, LongestSecret> bytes;
    size_t size = 0;

private:
    Q_DISABLE_COPY(Line)
};

/// Reads a character. Returns false at the end of input. Throws a Failure when `signals` becomes readable first.
bool readCharacter(char &character, int signals)
{
    for (;;) {
        pollfd sources[] = {{STDIN_FILENO, POLLIN, 0}, {signals, POLLIN, 0}};
        if (poll(sources, std::size(sources), -1) < 0)
            continue; // interrupted
        if (sources[1].revents != 0)
            throw nothingEntered();
        const ssize_t count = read(STDIN_FILENO, &character, 1);
        if (count < 0 && errno == EINTR)
            continue;
        return count > 0;
    }
}

/// Reads one line and nothing beyond it: the rest of the input belongs to somebody else.
Secret readLine(int signals)
{
    Line line;
    char character = 0;
    while (readCharacter(character, signals)) {
        if (character == '\n')
            return line.text();
        if (character == Interrupt)
            throw nothingEntered();
        if (line.size == line.bytes.size())
            throw Failure{Refused, QStringLiteral("The password or PIN is too long")};
        line.bytes[line.size++] = character;
    }
    if (line.size == 0)
        throw nothingEntered();
    return line.text();
}

} // namespace

Secret::~Secret()
{
    Wipe::text(m_text);
}

Secret readSecret(const QString &prompt)
{
    constexpr int NoSignals = -1;
    if (!isatty(STDIN_FILENO))
        return readLine(NoSignals);
    const HeldSignals held; // Destroyed last, after the terminal is restored.
    const SilentTerminal terminal(prompt);
    return readLine(held.descriptor());
}
