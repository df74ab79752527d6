// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include "bench.h"
#include "plugin/methodkavet.h"
#include "plugin/methodkavetprivate.h"
#include "support/testdevice.h"

#include <authd/notificationhandler.h>

#include <QCoreApplication>

/// Runs the event loop until `isDone`, as the daemon does.
template <typename Condition>
void waitFor(const Condition &isDone)
{
    while (!isDone())
        QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents);
}

/// Takes the place of the daemon, and counts outcomes.
class Daemon : public NotificationHandler
{
public:
    void succeed(const QString &) override { ++successes; }
    void finish(const QString &, bool, const QMap<QString, QVariant> &) override { ++failures; }
    void inputRequested(const QString &, const QMap<QString, QVariant> &) override { }
    void restartAuth(const QString &, uint) override { }
    void lockUser(const QString &, uint, bool, const QString &, uint) override { }
    void logEvent(const QString &, const QString &, const QString &, const QString &) override { }
    void optionChanged(const QString &, uint, const QString &, const QVariant &, bool) override { }

    int successes = 0;
    int failures = 0;
};

/// The method with the reference client, which runs without its sandbox. No password has been set, so the client
/// answers at once that it does not take any.
class Method
{
public:
    Method()
    {
        m_method.setNotificator(&m_daemon);
        Bench::require(ask(), "the method does not work");
    }
    ~Method() { endClient(); }

    /// Ends the client, so that the next request starts it anew.
    void endClient()
    {
        m_method.reset(); // Allows more launches.
        d->child.kill();
        waitFor([this] { return !d->child.clientRunning && d->child.state() == QProcess::NotRunning; });
    }

    /// Authenticates alice, until the outcome.
    bool ask()
    {
        const int before = m_daemon.failures;
        m_method.authenticate(TestDevice::alice, {{QStringLiteral("password"), QStringLiteral("password")}});
        waitFor([this, before] { return m_daemon.failures > before || m_daemon.successes > 0; });
        return m_daemon.successes == 0 && d->clientStage == MethodKavetPrivate::Linked;
    }

    MethodKavetPrivate *parts() const { return d; }

private:
    Daemon m_daemon;
    MethodKavet m_method;
    MethodKavetPrivate *const d = m_method.findChild<MethodKavetPrivate *>();

    Q_DISABLE_COPY(Method)
};
