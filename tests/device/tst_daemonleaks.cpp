// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#include "device/authd.h"
#include "device/clientfixture.h"
#include "support/testdevice.h"
#include "support/wiper.h"

#include <QDBusConnectionInterface>
#include <QDir>
#include <QFile>
#include <QTest>

#include <algorithm>
#include <array>
#include <csignal>
#include <memory>

using namespace TestDevice;

namespace {

constexpr int loginsByDefault = 1000;
constexpr int loginsPerCount = 100;
constexpr int loginsPerSession = 25;
constexpr int warmUp = 100; ///< Logins before the first count, which fill caches.
constexpr int timeLimit = 20000; ///< Milliseconds.
constexpr int logTail = 4000;

const QString password = QStringLiteral("right");
/// Its hash with the fewest rounds.
const QString hash = QStringLiteral("$5$rounds=1000$salt$jmWlX.WMmU0.rE0RvWQVpnv3gAtcUKsIbtS2DDkjkW.");

enum Kind { Objects, Timers, Bytes, Descriptors, Watches, MatchRules, KindCount };
constexpr std::array<const char *, KindCount> kinds = {"objects",     "running timers",  "bytes",
                                                       "descriptors", "inotify watches", "match rules"};
using Holdings = std::array<qint64, KindCount>;
/// The allocator rounds. A byte that each of 1,000 logins leaves behind is more than this.
constexpr Holdings tolerances = {0, 0, 999, 0, 0, 0};

QString growth(const Holdings &before, const Holdings &after)
{
    QStringList texts;
    for (size_t kind = 0; kind < KindCount; ++kind) {
        if (after[kind] > before[kind] + tolerances[kind])
            texts
                << QStringLiteral("%1 %2, then %3").arg(before[kind]).arg(QLatin1String(kinds[kind])).arg(after[kind]);
    }
    return texts.join(QStringLiteral("; "));
}

} // namespace

/// Counts what logins leave behind in the daemon. KAVET_LEAKS is the number of logins.
class TstDaemonLeaks : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void logins_data();
    void logins();
    void cleanup();
    void cleanupTestCase();

private:
    void logIn(int times);
    void logInOnce();
    Holdings holdings();
    qint64 matchRules() const;

    Authd m_authd;
    std::unique_ptr<BusUser> m_root;
    Holdings m_before = {};
};

void TstDaemonLeaks::initTestCase()
{
    QVERIFY(startSystemBus());
    reset();
    ClientFixture::prepare();
    QVERIFY(ClientFixture::setSetting(QStringLiteral("password-hash"), hash));
    QVERIFY(ClientFixture::takeLaunchersPlace());
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert(QStringLiteral("LD_PRELOAD"), Installed::holdings);
    // The sanitizer wants to be the first library.
    environment.insert(QStringLiteral("ASAN_OPTIONS"), QStringLiteral("verify_asan_link_order=0"));
    // Makes glibc count freed memory as free.
    environment.insert(QStringLiteral("GLIBC_TUNABLES"), QStringLiteral("glibc.malloc.tcache_count=0"));
    m_authd.process().setProcessEnvironment(environment);
    QVERIFY(m_authd.start());
    m_root = std::make_unique<BusUser>(0);
    logIn(warmUp);
    if (QTest::currentTestFailed())
        return;
    m_before = holdings();
    for (const Kind kind : {Objects, Bytes, Descriptors, Watches, MatchRules})
        QVERIFY2(m_before[kind] > 0, kinds[kind]);
}

void TstDaemonLeaks::logins_data()
{
    QTest::addColumn<int>("count");
    const int total =
        qEnvironmentVariableIsSet("KAVET_LEAKS") ? qEnvironmentVariableIntValue("KAVET_LEAKS") : loginsByDefault;
    QVERIFY(total > 0);
    for (int done = 0; done < total; done += loginsPerCount)
        QTest::addRow("from %d", done) << std::min(total - done, loginsPerCount);
}

void TstDaemonLeaks::logins()
{
    QFETCH(int, count);
    logIn(count);
    if (QTest::currentTestFailed())
        return;
    // The daemon may not have closed the last program's connection yet.
    QTRY_COMPARE_WITH_TIMEOUT(growth(m_before, holdings()), QString(), timeLimit);
}

/// Lets the rows after a failed one fail at once. They would only wait for the same.
void TstDaemonLeaks::cleanup()
{
    if (QTest::currentTestFailed())
        m_authd.stop(SIGKILL);
}

void TstDaemonLeaks::cleanupTestCase()
{
    if (m_authd.isRunning())
        QCOMPARE(m_authd.stop(SIGTERM), 0);
}

/// Logs alice in, in sessions with a launch of the client, a change of the policy, and the client's end. Does not end
/// the last session, because the bus library keeps some of the messages about it, more or fewer, until there are
/// others.
void TstDaemonLeaks::logIn(int times)
{
    const QString children = QStringLiteral("/proc/%1/task/%1/children").arg(m_authd.pid());
    for (int number = 0; number < times; ++number) {
        if (number % loginsPerSession == 0) {
            QCOMPARE(m_root->error(QStringLiteral("SessionStopped"), {alice, true}), QString());
            QTRY_COMPARE_WITH_TIMEOUT(readFile(children), QByteArray(), timeLimit);
            m_authd.process().readAllStandardError(); // Do not keep the log of all sessions.
            QCOMPARE(m_root->error(QStringLiteral("SessionStarted"), {alice, true}), QString());
            if (!QFile::remove(currentPolicy))
                QVERIFY(writeSetting(currentPolicy, QStringLiteral("max-attempts"), QStringLiteral("7")));
        }
        logInOnce();
        if (QTest::currentTestFailed())
            return;
    }
}

/// Enters a wrong and the right password, as programs do: on a connection of their own.
void TstDaemonLeaks::logInOnce()
{
    const BusUser program(0);
    Reports reports(program);
    const auto submit = [&program](const QString &text) {
        return program.error(QStringLiteral("Authenticate"),
                             {alice, QStringLiteral("kavet"), QVariantMap{{QStringLiteral("password"), text}}});
    };
    const auto log = [this] {
        return m_authd.log().right(logTail);
    };
    const auto isReported = [&reports](const QString &text) {
        return QTest::qWaitFor([&] { return !reports.texts.filter(text).isEmpty(); }, timeLimit);
    };
    QCOMPARE(program.error(QStringLiteral("RequestChallenge"), {alice, QStringLiteral("kavet")}), QString());
    QVERIFY2(isReported(QStringLiteral("challenge")), log().constData());
    QCOMPARE(submit(QStringLiteral("wrong")), QString());
    QVERIFY2(isReported(QStringLiteral("AuthFailed")), log().constData());
    QCOMPARE(submit(password), QString());
    QVERIFY2(isReported(QStringLiteral("Authenticated")), log().constData());
}

Holdings TstDaemonLeaks::holdings()
{
    Holdings now = {};
    m_authd.process().write("?");
    QByteArray answer;
    const auto isAnswered = [&] {
        answer += m_authd.process().readAllStandardOutput();
        return answer.endsWith('\n');
    };
    if (!QTest::qWaitFor(isAnswered, timeLimit))
        qFatal("The daemon does not print what it holds");
    const QList<QByteArray> numbers = answer.trimmed().split(' ');
    for (const Kind kind : {Objects, Timers, Bytes})
        now[kind] = numbers.at(kind).toLongLong();
    const QDir descriptors(QStringLiteral("/proc/%1/fdinfo").arg(m_authd.pid()));
    const QStringList names = descriptors.entryList(QDir::Files);
    now[Descriptors] = names.size();
    for (const QString &name : names)
        now[Watches] += readFile(descriptors.filePath(name)).count("inotify wd:");
    now[MatchRules] = matchRules();
    return now;
}

/// The number of match rules of the daemon's connections to the bus.
qint64 TstDaemonLeaks::matchRules() const
{
    qint64 rules = 0;
    QDBusConnectionInterface *const bus = m_root->connection().interface();
    const QStringList names = bus->registeredServiceNames();
    for (const QString &name : names) {
        if (!name.startsWith(QLatin1Char(':')) || bus->servicePid(name).value() != m_authd.pid())
            continue;
        QDBusMessage call = QDBusMessage::createMethodCall(bus->service(), QStringLiteral("/org/freedesktop/DBus"),
                                                           QStringLiteral("org.freedesktop.DBus.Debug.Stats"),
                                                           QStringLiteral("GetConnectionStats"));
        call << name;
        const QDBusReply<QVariantMap> statistics = m_root->connection().call(call);
        const QVariant count = statistics.value().value(QStringLiteral("MatchRules"));
        if (!count.isValid())
            qFatal("The bus does not count match rules: %s", qPrintable(statistics.error().message()));
        rules += count.toLongLong();
    }
    return rules;
}

QTEST_GUILESS_MAIN(TstDaemonLeaks)

#include "tst_daemonleaks.moc"
