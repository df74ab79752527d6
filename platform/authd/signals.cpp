// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#include "signals.h"

#include <QCoreApplication>
#include <QFile>
#include <QSocketNotifier>
#include <QVector>

#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <unistd.h>

namespace {

int signalPipe[2];
pid_t ownPid;

void handleSignal(int number)
{
    // Between fork and exec, a child shares this handler and the pipe with the daemon. A signal for the child must not
    // end the daemon.
    if (getpid() != ownPid) {
        signal(number, SIG_DFL);
        raise(number);
        return;
    }
    const int error = errno;
    const char byte = 0;
    [[maybe_unused]] const ssize_t written = write(signalPipe[1], &byte, 1);
    errno = error;
}

/// Survive SIGPIPE: the log's reader may exit at any time. Do not ignore the signal, because programs that methods
/// start would inherit that.
void doNothing(int) { }

sigset_t terminationSignals()
{
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGTERM);
    sigaddset(&set, SIGINT);
    sigaddset(&set, SIGHUP);
    return set;
}

bool isIgnored(int signal)
{
    struct sigaction present = {};
    return sigaction(signal, nullptr, &present) == 0 && present.sa_handler == SIG_IGN;
}

} // namespace

bool Signals::endEventLoop(int exitCode)
{
    if (pipe2(signalPipe, O_CLOEXEC | O_NONBLOCK) != 0)
        return false;
    auto *notifier = new QSocketNotifier(signalPipe[0], QSocketNotifier::Read, qApp);
    QObject::connect(notifier, &QSocketNotifier::activated, qApp, [notifier, exitCode] {
        notifier->setEnabled(false);
        QCoreApplication::exit(exitCode);
    });
    ownPid = getpid();
    struct sigaction action = {};
    action.sa_handler = handleSignal;
    action.sa_flags = SA_RESTART;
    struct sigaction survival = {};
    survival.sa_handler = doNothing;
    survival.sa_flags = SA_RESTART;
    const sigset_t set = terminationSignals();
    return sigaction(SIGTERM, &action, nullptr) == 0
           && sigaction(SIGINT, &action, nullptr) == 0
           // Respect an ignored SIGHUP: the daemon may have been started to outlive its terminal.
           && (isIgnored(SIGHUP) || sigaction(SIGHUP, &action, nullptr) == 0)
           && sigaction(SIGPIPE, &survival, nullptr) == 0 && sigprocmask(SIG_UNBLOCK, &set, nullptr) == 0;
}

void Signals::startAnew(const QStringList &arguments)
{
    const sigset_t set = terminationSignals();
    sigprocmask(SIG_BLOCK, &set, nullptr);
    QVector<QByteArray> texts;
    for (const QString &argument : arguments)
        texts << QFile::encodeName(argument);
    QVector<char *> argv;
    for (QByteArray &text : texts)
        argv << text.data();
    argv << nullptr;
    execv("/proc/self/exe", argv.data());
}
