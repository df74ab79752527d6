// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#include "device/authctl.h"

#include <QJsonDocument>
#include <QProcess>
#include <QTest>

#include <cstdlib>
#include <fcntl.h>
#include <poll.h>
#include <pty.h>
#include <sys/wait.h>
#include <unistd.h>
#include <utmp.h>

namespace {

constexpr int Patience = 60000; // milliseconds

} // namespace

QVector<QJsonObject> Authctl::Result::objects() const
{
    QVector<QJsonObject> objects;
    const QStringList lines = output.split(QLatin1Char('\n'), Qt::SkipEmptyParts);
    for (const QString &line : lines)
        objects << QJsonDocument::fromJson(line.toUtf8()).object();
    return objects;
}

QStringList Authctl::Result::events() const
{
    QStringList events;
    const QVector<QJsonObject> all = objects();
    for (const QJsonObject &object : all)
        events << object.value(QLatin1String("event")).toString();
    return events;
}

Authctl::Result Authctl::runAs(uint uid, const QString &arguments, const QByteArray &input)
{
    QProcess process;
    process.start(QStringLiteral("setpriv"), QStringList{QStringLiteral("--reuid=%1").arg(uid),
                                                         QStringLiteral("--clear-groups"), Installed::authctl}
                                                 + arguments.split(QLatin1Char(' '), Qt::SkipEmptyParts));
    process.write(input);
    process.closeWriteChannel();
    if (!process.waitForFinished(Patience) || process.exitStatus() != QProcess::NormalExit) {
        qWarning("authctl %s has not ended by itself; it wrote: %s%s", qPrintable(arguments),
                 process.readAllStandardOutput().constData(), process.readAllStandardError().constData());
        return {-1, {}, {}};
    }
    return {process.exitCode(), QString::fromUtf8(process.readAllStandardOutput()),
            QString::fromUtf8(process.readAllStandardError())};
}

Authctl::Result Authctl::run(const QString &arguments, const QByteArray &input)
{
    return runAs(0, arguments, input);
}

Authctl::OnTerminal::OnTerminal(const QStringList &arguments, uint uid)
{
    QVector<QByteArray> texts{Installed::authctl.toLocal8Bit()};
    for (const QString &argument : arguments)
        texts << argument.toLocal8Bit();
    QVector<char *> argv;
    for (QByteArray &text : texts)
        argv << text.data();
    argv << nullptr;

    char name[64];
    if (openpty(&m_terminal, &m_programSide, name, nullptr, nullptr) != 0)
        qFatal("No terminal");
    fcntl(m_terminal, F_SETFD, FD_CLOEXEC);
    m_pid = fork();
    if (m_pid == 0) {
        if (login_tty(m_programSide) == 0 && setresuid(uid, uid, uid) == 0)
            execv(argv.constFirst(), argv.data());
        _exit(127);
    }
}

Authctl::OnTerminal::~OnTerminal()
{
    if (!m_status) {
        kill(m_pid, SIGKILL);
        waitpid(m_pid, nullptr, 0);
    }
    close(m_programSide);
    close(m_terminal);
}

void Authctl::OnTerminal::readScreen()
{
    int status = 0;
    if (!m_status && waitpid(m_pid, &status, WNOHANG) == m_pid)
        m_status = status;
    pollfd terminal = {m_terminal, POLLIN, 0};
    while (poll(&terminal, 1, 0) > 0) {
        char buffer[1024];
        const ssize_t count = read(m_terminal, buffer, sizeof buffer);
        if (count <= 0)
            qFatal("Cannot read what is on the terminal");
        screen.append(buffer, int(count));
    }
}

bool Authctl::OnTerminal::waitFor(const QByteArray &text)
{
    const auto isShown = [&] {
        readScreen();
        return screen.contains(text);
    };
    if (QTest::qWaitFor([&] { return isShown() || m_status; }, Patience) && screen.contains(text))
        return true;
    qWarning("No '%s' on the screen: %s", text.constData(), screen.constData());
    return false;
}

bool Authctl::OnTerminal::waitForEnd()
{
    return QTest::qWaitFor(
        [this] {
            readScreen();
            return m_status.has_value();
        },
        Patience);
}

void Authctl::OnTerminal::type(const QByteArray &text)
{
    if (write(m_terminal, text.constData(), size_t(text.size())) != text.size())
        qFatal("Cannot type");
}

bool Authctl::OnTerminal::echoes() const
{
    termios settings;
    return tcgetattr(m_terminal, &settings) == 0 && (settings.c_lflag & ECHO) && (settings.c_lflag & ISIG);
}

int Authctl::OnTerminal::exitCode() const
{
    return m_status && WIFEXITED(*m_status) ? WEXITSTATUS(*m_status) : -1;
}

int Authctl::OnTerminal::endSignal() const
{
    return m_status && WIFSIGNALED(*m_status) ? WTERMSIG(*m_status) : -1;
}
