// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#include "heldsignals.h"

#include <QTest>

#include <fcntl.h>
#include <poll.h>

namespace {

volatile sig_atomic_t arrived;

void count(int)
{
    arrived = arrived + 1;
}

bool isReadable(int descriptor)
{
    pollfd entry{descriptor, POLLIN, 0};
    return poll(&entry, 1, 0) == 1 && entry.revents == POLLIN;
}

bool isBlocked(int signal)
{
    sigset_t blocked;
    pthread_sigmask(SIG_SETMASK, nullptr, &blocked);
    return sigismember(&blocked, signal) == 1;
}

} // namespace

class TstHeldSignals : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void holds_data();
    void holds();
    void letsOthersPass();
    void keepsWhatWasBlocked();
    void closesItsDescriptor();
};

void TstHeldSignals::holds_data()
{
    QTest::addColumn<int>("signal");

    QTest::newRow("hangup") << SIGHUP;
    QTest::newRow("interrupt") << SIGINT;
    QTest::newRow("broken pipe") << SIGPIPE;
    QTest::newRow("quit") << SIGQUIT;
    QTest::newRow("termination") << SIGTERM;
}

void TstHeldSignals::holds()
{
    QFETCH(int, signal);
    const auto former = std::signal(signal, count);
    arrived = 0;
    {
        const HeldSignals held;
        QVERIFY(!isReadable(held.descriptor()));
        QCOMPARE(raise(signal), 0);
        QCOMPARE(int(arrived), 0);
        QVERIFY(isReadable(held.descriptor()));
    }
    QCOMPARE(int(arrived), 1);
    QVERIFY(!isBlocked(signal));
    std::signal(signal, former);
}

void TstHeldSignals::letsOthersPass()
{
    const auto former = std::signal(SIGUSR1, count);
    arrived = 0;
    const HeldSignals held;
    QCOMPARE(raise(SIGUSR1), 0);
    QCOMPARE(int(arrived), 1);
    std::signal(SIGUSR1, former);
}

void TstHeldSignals::keepsWhatWasBlocked()
{
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGTERM);
    sigaddset(&set, SIGUSR1);
    pthread_sigmask(SIG_BLOCK, &set, nullptr);
    {
        const HeldSignals held;
        QVERIFY(isBlocked(SIGUSR1));
    }
    QVERIFY(isBlocked(SIGTERM));
    QVERIFY(!isBlocked(SIGINT));
    pthread_sigmask(SIG_UNBLOCK, &set, nullptr);
}

void TstHeldSignals::closesItsDescriptor()
{
    int descriptor = -1;
    {
        const HeldSignals held;
        descriptor = held.descriptor();
        QCOMPARE(fcntl(descriptor, F_GETFD), FD_CLOEXEC);
    }
    QCOMPARE(fcntl(descriptor, F_GETFD), -1);
}

QTEST_APPLESS_MAIN(TstHeldSignals)

#include "tst_heldsignals.moc"
