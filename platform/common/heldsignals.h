// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <QtGlobal>

#include <csignal>
#include <initializer_list>
#include <sys/signalfd.h>
#include <unistd.h>

/// Blocks the signals that terminate the program for the lifetime of the object. Signals that arrive meanwhile take
/// effect when the object is destroyed. Applies to the calling thread. A thread started meanwhile inherits the blocked
/// signals and keeps them blocked.
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

    /// A descriptor that becomes readable when one of the signals arrives.
    int descriptor() const { return m_descriptor; }

private:
    sigset_t m_before;
    int m_descriptor;

    Q_DISABLE_COPY(HeldSignals)
};
