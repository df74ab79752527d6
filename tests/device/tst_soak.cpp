// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#include "device/authd.h"
#include "support/testdevice.h"
#include "support/wiper.h"

#include <QDBusArgument>
#include <QDir>
#include <QFile>
#include <QHash>
#include <QJsonArray>
#include <QSet>
#include <QTest>

#include <csignal>
#include <memory>
#include <random>

/// Many consecutive logins while clients are killed at random moments, the policy is rewritten, sessions start and
/// stop, and the bus is restarted. KAVET_SOAK is the number of logins, KAVET_SEED the seed of the random moments.
class TstSoak : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void soak();
    void cleanupTestCase();

private:
    void login(int number);
    void disturb();
    void killClient();
    void connectToBus();
    void restartBus();
    int random(int below) { return std::uniform_int_distribution<int>(0, below - 1)(m_random); }

    Authd m_authd;
    std::unique_ptr<BusUser> m_root;
    std::unique_ptr<Reports> m_reports;
    std::mt19937 m_random;
    QHash<QString, int> m_outcomes; // By certificate; each login has its own.
    QSet<QString> m_disturbed; // Certificates of the logins whose client may have ended meanwhile.
    bool m_isSettled = false; // The client answered the last login and was not disturbed since.
    int m_succeeded = 0;
    int m_failed = 0;
    int m_backAtChallenge = 0;
};

namespace {

const QString method = QStringLiteral("kavet");
constexpr int loginsByDefault = 1000;
constexpr int loginsPerBus = 250;
constexpr int warmUp = 50;
constexpr int logTail = 4000;
constexpr int outcomeLimit = 20000; // Milliseconds.
constexpr qint64 memoryTolerance = 4096; // Kilobytes, for what the allocator keeps. tst_daemonleaks counts bytes.

/// The resources that the daemon holds.
struct Holdings
{
    int descriptors = 0;
    int watches = 0;
    int children = 0;
    qint64 memory = 0; ///< Kilobytes.
};

Holdings holdingsOf(qint64 pid)
{
    const QString process = QStringLiteral("/proc/%1/").arg(pid);
    Holdings holdings;
    const QStringList descriptors = QDir(process + QStringLiteral("fdinfo")).entryList(QDir::Files);
    holdings.descriptors = descriptors.size();
    for (const QString &descriptor : descriptors)
        holdings.watches += TestDevice::readFile(process + QStringLiteral("fdinfo/") + descriptor).count("inotify wd:");
    const QByteArray children = TestDevice::readFile(process + QStringLiteral("task/%1/children").arg(pid));
    holdings.children = children.simplified().isEmpty() ? 0 : children.simplified().count(' ') + 1;
    const QList<QByteArray> status = TestDevice::readFile(process + QStringLiteral("status")).split('\n');
    for (const QByteArray &line : status) {
        if (line.startsWith("RssAnon:"))
            holdings.memory = line.mid(8).simplified().split(' ').first().toLongLong();
    }
    return holdings;
}

} // namespace

void TstSoak::initTestCase()
{
    QVERIFY(startSystemBus());
    TestDevice::reset();
    // The scripted client may show its socket before the daemon knows that it has started.
    TestDevice::setScript({{QStringLiteral("announce"), true}});
    QVERIFY(m_authd.start());
    connectToBus();

    const QByteArray givenSeed = qgetenv("KAVET_SEED");
    const uint seed = givenSeed.isEmpty() ? std::random_device()() : givenSeed.toUInt();
    m_random.seed(seed);
    qInfo("KAVET_SEED=%u", seed);
}

void TstSoak::connectToBus()
{
    m_reports.reset();
    m_root = std::make_unique<BusUser>(0);
    m_reports = std::make_unique<Reports>(*m_root);
}

void TstSoak::soak()
{
    const int logins =
        qEnvironmentVariableIsSet("KAVET_SOAK") ? qEnvironmentVariableIntValue("KAVET_SOAK") : loginsByDefault;
    QVERIFY(logins > 0);

    Holdings before;
    for (int number = 0; number < logins; ++number) {
        const int sinceRestart = number % loginsPerBus;
        if (number > 0 && sinceRestart == 0) {
            restartBus();
            if (QTest::currentTestFailed())
                return;
        }
        login(number);
        if (QTest::currentTestFailed())
            return;

        const bool isLast = sinceRestart == loginsPerBus - 1 || number == logins - 1;
        if (sinceRestart != warmUp && !isLast)
            continue;
        // Compare the same state each time: after an undisturbed login.
        QVERIFY(m_root->error(QStringLiteral("SessionStopped"), {TestDevice::alice, true}).isEmpty());
        QTRY_COMPARE_WITH_TIMEOUT(holdingsOf(m_authd.pid()).children, 0, outcomeLimit);
        m_isSettled = true;
        if (sinceRestart == warmUp) {
            before = holdingsOf(m_authd.pid());
        } else if (sinceRestart > warmUp) {
            // The daemon may not have closed the last client's descriptors yet.
            Holdings after;
            const auto isSettled = [this, &after, &before] {
                after = holdingsOf(m_authd.pid());
                return after.descriptors <= before.descriptors + 2;
            };
            (void)!QTest::qWaitFor(isSettled, outcomeLimit);
            // A leak in each login would be far larger.
            QVERIFY2(
                after.descriptors <= before.descriptors + 2,
                qPrintable(QStringLiteral("%1 descriptors, then %2").arg(before.descriptors).arg(after.descriptors)));
            QVERIFY2(after.watches <= before.watches + 2,
                     qPrintable(QStringLiteral("%1 watches, then %2").arg(before.watches).arg(after.watches)));
            QVERIFY2(after.memory <= before.memory + memoryTolerance,
                     qPrintable(QStringLiteral("%1 kB, then %2 kB").arg(before.memory).arg(after.memory)));
        }
    }

    // Each request reached a client at most once and had one outcome, unless its client ended before it replied.
    QHash<QString, int> forwarded;
    const QVector<QJsonArray> calls = TestDevice::calls();
    for (const QJsonArray &call : calls) {
        if (call.first() == QLatin1String("validateCert"))
            ++forwarded[call.at(1).toString()];
    }
    for (auto cert = forwarded.cbegin(); cert != forwarded.cend(); ++cert) {
        QVERIFY2(cert.value() == 1, qPrintable(cert.key()));
        QVERIFY2(m_outcomes.value(cert.key()) == 1 || m_disturbed.contains(cert.key()), qPrintable(cert.key()));
    }
    qInfo("%d logins: %d succeeded, %d failed, %d back at the challenge; %d forwarded, %d launches", logins,
          m_succeeded, m_failed, m_backAtChallenge, forwarded.size(), TestDevice::launches().size());
    QVERIFY(m_succeeded > logins / 4);
    QVERIFY(m_failed > 0);
    QVERIFY(forwarded.size() >= m_succeeded);
}

void TstSoak::login(int number)
{
    const QString cert = QStringLiteral("cert %1").arg(number);
    const bool isRight = random(3) != 0;
    const QString pin = isRight ? QStringLiteral("success") : QStringLiteral("failed");

    const bool isDisturbed = random(4) == 0;
    if (isDisturbed)
        disturb();
    m_reports->all.clear();
    const QDBusMessage reply = m_root->call(
        QStringLiteral("Authenticate"),
        {TestDevice::alice, method, QVariantMap{{QStringLiteral("cert"), cert}, {QStringLiteral("pin"), pin}}});
    const QString error = reply.errorName();
    const QVariant attempt = reply.arguments().value(0);
    if (!error.isEmpty() && !QTest::qWaitFor([] { return false; }, 1500))
        qWarning("%s", m_authd.log().right(logTail).constData());
    QVERIFY2(error.isEmpty(), qPrintable(QStringLiteral("Login %1: %2").arg(number).arg(error)));
    const bool isKilled = random(10) == 0;
    if (isKilled) {
        QTest::qWait(random(40)); // The moment is random on purpose.
        killClient();
    }
    if (isKilled || isDisturbed)
        m_disturbed << cert;

    // The first of these signals is the outcome; no other may follow.
    QStringList outcomes;
    const auto look = [&] {
        outcomes.clear();
        for (const QDBusMessage &report : qAsConst(m_reports->all)) {
            if (report.member() == QLatin1String("Authenticated"))
                outcomes << QStringLiteral("success");
            else if (report.member() == QLatin1String("AuthenticationFailed"))
                outcomes << report.arguments().at(4).toString();
        }
        return !outcomes.isEmpty();
    };
    const auto isBackAtChallenge = [&] {
        const QDBusMessage state = m_root->call(QStringLiteral("GetState"), {TestDevice::alice});
        const QVariantMap details = qdbus_cast<QVariantMap>(state.arguments().value(2));
        return state.arguments().value(1).toString() == QLatin1String("challenge")
               && !details.value(QStringLiteral("restarted")).toBool();
    };
    const bool hasEnded = QTest::qWaitFor([&] { return look() || isBackAtChallenge(); }, outcomeLimit);
    if (!hasEnded)
        qWarning("%s", m_authd.log().right(logTail).constData());
    QVERIFY2(hasEnded, qPrintable(QStringLiteral("Login %1 is stuck").arg(number)));
    // Signals sent before the reply with the state have arrived, but the event loop has not delivered them yet.
    QCoreApplication::processEvents();
    look();
    QVERIFY2(outcomes.size() <= 1, qPrintable(outcomes.join(QLatin1Char(' '))));

    if (outcomes.isEmpty()) {
        // The client exited before it replied.
        QVERIFY2(isKilled || isDisturbed || !m_isSettled,
                 qPrintable(QStringLiteral("Login %1 has no outcome").arg(number)));
        ++m_backAtChallenge;
        m_root->call(QStringLiteral("Cancel"), {attempt});
    } else {
        ++m_outcomes[cert];
        ++(outcomes.first() == QLatin1String("success") ? m_succeeded : m_failed);
    }
    // After a disturbed login, the client may still be starting and not accept connections yet.
    const bool isAnswered = outcomes == QStringList{isRight ? QStringLiteral("success") : QStringLiteral("AuthFailed")};
    const bool isSettled = m_isSettled && !isKilled && !isDisturbed;
    QVERIFY2(isAnswered || !isSettled,
             qPrintable(QStringLiteral("Login %1: ").arg(number) + outcomes.join(QLatin1Char(' '))));
    m_isSettled = isAnswered && !isKilled;
}

void TstSoak::disturb()
{
    switch (random(4)) {
    case 0:
        killClient();
        break;
    case 1:
        TestDevice::writeSetting(TestDevice::currentPolicy, QStringLiteral("max-attempts"),
                                 QString::number(2 + random(5)));
        break;
    case 2:
        QFile::remove(TestDevice::currentPolicy);
        break;
    default:
        m_root->call(QStringLiteral("SessionStopped"), {TestDevice::alice, true});
        m_root->call(QStringLiteral("SessionStarted"), {TestDevice::alice, random(2) == 0});
        break;
    }
}

void TstSoak::killClient()
{
    const QVector<QJsonObject> launches = TestDevice::launches();
    if (!launches.isEmpty())
        kill(launches.constLast().value(QLatin1String("pid")).toInt(), SIGKILL);
}

void TstSoak::restartBus()
{
    const int starts = m_authd.log().count("event=ready");
    const pid_t bus = TestDevice::readFile(QStringLiteral("/run/dbus/pid")).trimmed().toInt();
    QVERIFY(bus > 0);
    kill(bus, SIGTERM);
    QTRY_VERIFY(kill(bus, 0) != 0);
    QFile::remove(QStringLiteral("/run/dbus/pid"));
    QCOMPARE(QProcess::execute(QStringLiteral("dbus-daemon"), {QStringLiteral("--system"), QStringLiteral("--fork")}),
             0);
    QVERIFY(m_authd.waitForLog("event=ready", starts + 1));
    connectToBus();
}

void TstSoak::cleanupTestCase()
{
    if (m_authd.isRunning())
        QCOMPARE(m_authd.stop(SIGTERM), 0);
}

QTEST_GUILESS_MAIN(TstSoak)

#include "tst_soak.moc"
