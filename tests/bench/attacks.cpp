// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#include "bench.h"
#include "benchmarks.h"
#include "support/longestwait.h"
#include "support/testdevice.h"

#include <QCoreApplication>
#include <QFile>
#include <QProcess>
#include <QRegularExpression>

#include <csignal>

using Bench::require;

namespace {

struct Attacks
{
    const char *test;
    const char *function;
    const char *first; ///< The only one that is run to see that the benchmark works.
};

/// Ends the test's system bus, so that the next test can start its own.
void endBus()
{
    const QString file = QStringLiteral("/run/dbus/pid");
    const pid_t bus = TestDevice::readFile(file).trimmed().toInt();
    if (bus > 0)
        kill(bus, SIGTERM);
    QFile::remove(file);
}

/// Runs a function of a test, and adds its longest waits by the names of the attacks.
void run(const Attacks &attacks, std::map<QString, std::vector<double>> &waits)
{
    QString function = QString::fromLatin1(attacks.function);
    if (Bench::once)
        function += QLatin1Char(':') + QLatin1String(attacks.first);
    QProcess test;
    test.setProcessChannelMode(QProcess::MergedChannels);
    test.start(QCoreApplication::applicationDirPath() + QLatin1Char('/') + QLatin1String(attacks.test), {function});
    constexpr int patience = 300000; // milliseconds
    // On a busy machine, the test may fail after it has reported, because it bounds these waits.
    require(test.waitForFinished(patience), "the test with the attacks does not end");
    endBus();
    const QRegularExpression line(QStringLiteral("::\\w+\\((.*)\\) %1([0-9.]+)").arg(QLatin1String(longestWait)));
    auto match = line.globalMatch(QString::fromUtf8(test.readAll()));
    require(match.hasNext(), "the test does not report how long others wait");
    while (match.hasNext()) {
        const QRegularExpressionMatch found = match.next();
        waits[found.captured(1)].push_back(found.captured(2).toDouble());
    }
}

} // namespace

void benchAttacks()
{
    constexpr int runs = 3;
    constexpr double goal = 50;
    for (const Attacks &attacks :
         {Attacks{"tst_hostileusers", "flooding", "calls"}, Attacks{"tst_planted", "storm", "rewritten"},
          Attacks{"tst_hostileclient", "attack", "flood"}}) {
        std::map<QString, std::vector<double>> waits;
        for (int i = 0; i < (Bench::once ? 1 : runs); ++i)
            run(attacks, waits);
        for (const auto &[attack, milliseconds] : waits)
            Bench::printValue({QStringLiteral("longest wait, %1: %2").arg(QLatin1String(attacks.function), attack),
                               {},
                               goal,
                               {},
                               QStringLiteral("ms")},
                              Bench::median(milliseconds));
    }
}
