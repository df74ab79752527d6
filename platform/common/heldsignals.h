// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <QtGlobal>

#include <csignal>
#include <initializer_list>
#include <sys/signalfd.h>
#include <unistd.h>

/// Holds back, while it lives, the signals by which the program is ended; those that came take effect at the end of its
/// life. It does so for the calling thread and for the threads started meanwhile, which go on without these signals.
class HeldSignals
{
public:
    HeldSignals()
    {
        sigset_t held;
        sigemptyset(&held);
        for (const int signal : {SIGHUP, SIGINT, SIGPIPE, SIGQUIT, SIGTERM})
            sigaddset(&held, signal);
        pthread_sigmask(SIG_BLOCK, &held, &m_before);
        m_descriptor = signalfd(-1, &held, SFD_CLOEXEC);
    }
    ~HeldSignals()
    {
        close(m_descriptor);
        pthread_sigmask(SIG_SETMASK, &m_before, nullptr);
    }

    /// Becomes readable when one of the signals has come.
    int descriptor() const { return m_descriptor; }

private:
    sigset_t m_before;
    int m_descriptor;

    Q_DISABLE_COPY(HeldSignals)
};
