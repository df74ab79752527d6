// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#include "bench.h"
#include "benchmarks.h"
#include "device/authd.h"
#include "device/sandboxed.h"
#include "device/softtokens.h"
#include "support/wiper.h"

#include <QDir>
#include <QElapsedTimer>
#include <QRegularExpression>
#include <QThread>

#include <csignal>

using Bench::require;

namespace {

const QString password = QStringLiteral("correct horse");

/// The processes with one of these names.
QVector<int> processes(const QByteArrayList &names)
{
    QVector<int> found;
    const QStringList all = QDir(QStringLiteral("/proc")).entryList({QStringLiteral("[0-9]*")});
    for (const QString &process : all) {
        if (names.contains(TestDevice::readFile(QStringLiteral("/proc/%1/comm").arg(process)).trimmed()))
            found << process.toInt();
    }
    return found;
}

/// How often the threads of the processes have gone to sleep or lost the processor.
qint64 switches(const QVector<int> &ofProcesses)
{
    static const QRegularExpression field(QStringLiteral("ctxt_switches:\\s*(\\d+)"));
    qint64 sum = 0;
    for (const int process : ofProcesses) {
        const QString directory = QStringLiteral("/proc/%1/task/").arg(process);
        const QStringList threads = QDir(directory).entryList({QStringLiteral("[0-9]*")});
        for (const QString &thread : threads) {
            const QByteArray status = TestDevice::readFile(directory + thread + QStringLiteral("/status"));
            auto match = field.globalMatch(QString::fromLatin1(status));
            while (match.hasNext())
                sum += match.next().captured(1).toLongLong();
        }
    }
    return sum;
}

/// Waits until the processes have done nothing for a while, and then prints how often each group of them wakes up.
void measure(const std::map<QString, QVector<int>> &groups)
{
    constexpr ulong aWhile = 3; // seconds
    const auto count = [&groups] {
        std::map<QString, qint64> sums;
        for (const auto &[name, members] : groups)
            sums[name] = switches(members);
        return sums;
    };
    QElapsedTimer timer;
    timer.start();
    auto before = count();
    for (bool isQuiet = false; !isQuiet;) {
        constexpr int patience = 30000; // milliseconds
        require(!timer.hasExpired(patience), "the processes do not come to rest");
        QThread::sleep(aWhile);
        const auto now = count();
        isQuiet = now == before;
        before = now;
    }
    const int seconds = Bench::once ? 1 : 60;
    QThread::sleep(ulong(seconds));
    const auto after = count();
    for (const auto &[name, members] : groups) {
        require(!members.isEmpty() && before.at(name) > 0, "a process is missing");
        Bench::printValue({QStringLiteral("wake-ups in %1 idle seconds, %2").arg(seconds).arg(name), {}, 0, {}, {}},
                          double(after.at(name) - before.at(name)));
    }
}

} // namespace

void benchIdle()
{
    QProcess sessionBus;
    require(startSystemBus() && Sandboxed::startSessionBus(sessionBus), "the buses do not start");
    ClientFixture::prepare();
    require(ClientFixture::setPassword(password), "cannot set the password");
    {
        Authd authd;
        require(authd.start(), "the daemon does not start");
        const BusUser root(0);
        Reports reports(root);
        const QVariantMap data = {{QStringLiteral("password"), password}};
        require(root.error(QStringLiteral("Authenticate"), {TestDevice::alice, QStringLiteral("kavet"), data}).isEmpty()
                    && reports.waitFor(QStringLiteral("StateChanged(1000, authenticated")),
                "the login fails");
        measure({{QStringLiteral("daemon"), {int(authd.pid())}},
                 {QStringLiteral("client"), {Sandboxed::clientPid()}},
                 {QStringLiteral("sandbox"), processes({"firejail", "xdg-dbus-proxy"})}});
        authd.stop(SIGTERM);
    }
    sessionBus.kill();
    sessionBus.waitForFinished();
    require(QTest::qWaitFor([] { return Sandboxed::clientPid() == 0; }), "the client does not end");

    // The client after it has used a token, without its sandbox.
    require(SoftTokens::reset() && SoftTokens::add(QStringLiteral("token"))
                && ClientFixture::setSetting(QStringLiteral("module"), SoftTokens::module),
            "cannot make a token");
    ClientFixture client;
    require(client.start(SoftTokens::environment()), "the client does not start");
    client.certList();
    measure({{QStringLiteral("client that has used a token"), processes({"tarsk.kavet_cli"})}});
}
