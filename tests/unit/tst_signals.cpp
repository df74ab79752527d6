// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#include "signals.h"

#include <QTest>

#include <csignal>

class TstSignals : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void flood();
};

void TstSignals::flood()
{
    constexpr int exitCode = 3;
    constexpr int count = 70000; // more than a pipe takes bytes
    QVERIFY(Signals::endEventLoop(exitCode));
    // While the event loop is busy, signals must not make the daemon wait.
    for (int i = 0; i < count; ++i)
        raise(SIGTERM);
    QCOMPARE(QCoreApplication::exec(), exitCode);
}

QTEST_GUILESS_MAIN(TstSignals)
#include "tst_signals.moc"
