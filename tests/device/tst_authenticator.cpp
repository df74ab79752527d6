// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#include "device/authd.h"
#include "device/processmemory.h"
#include "support/testdevice.h"
#include "support/wiper.h"

#include <QDBusArgument>
#include <QDBusConnectionInterface>
#include <QDBusPendingCall>
#include <QDir>
#include <QFile>
#include <QScopedPointer>
#include <QTest>

#include <csignal>

namespace {

const QString puppet = QStringLiteral("puppet");
const uint alice = TestDevice::alice;
const uint bob = TestDevice::bob;
const uint serviceAccount = 33;
const QString accessDenied = QStringLiteral("org.freedesktop.DBus.Error.AccessDenied");
const QString invalidArgs = QStringLiteral("org.freedesktop.DBus.Error.InvalidArgs");
const QString limitsExceeded = QStringLiteral("org.freedesktop.DBus.Error.LimitsExceeded");
const QString storeFailed = QStringLiteral("qarv.AuthService.Error.StoreFailed");
const QString locksFile = QStringLiteral("/var/lib/authd/locks.conf");

QVariant variant(const QVariant &value)
{
    return QVariant::fromValue(QDBusVariant(value));
}

} // namespace

/// How the daemon calls a method and enforces its rules, with a scripted method.
class TstAuthenticator : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase() { QVERIFY(startSystemBus()); }

    void init()
    {
        TestDevice::reset();
        QVERIFY(m_directory.mkpath(QStringLiteral("/tmp/methods")));
        QFile::copy(Installed::oddMethods + QStringLiteral("/libpuppet.so"),
                    QStringLiteral("/tmp/methods/libpuppet.so"));
        QVERIFY(m_authd.start(QStringLiteral("/tmp/methods")));
        m_root.reset(new BusUser(0));
        m_user.reset(new BusUser(alice));
        m_reports.reset(new Reports(*m_root));
    }

    void cleanup()
    {
        m_reports.reset();
        QCOMPARE(m_authd.stop(SIGTERM), 0);
        // Reports from the methods' destructors are ignored.
        QVERIFY(m_authd.log().endsWith("event=stopping\n"));
    }

    void outcomes_data();
    void outcomes();
    void countedFailures();
    void outcomeComesFirst_data();
    void outcomeComesFirst();
    void unlockedAtOnce();
    void firstOutcomeCounts();
    void outcomeWithoutAttempt_data();
    void outcomeWithoutAttempt();
    void restart();
    void restartOfOthers();
    void challengeGoesOn();
    void givenUpRequestIsForgotten();
    void locks();
    void lockDuration();
    void longerLockStays();
    void methodUnlocks();
    void lockedDuringTheAttempt_data();
    void lockedDuringTheAttempt();
    void lockUntilTheEndOfTime();
    void nobodyIsLocked();
    void lockNotSaved();
    void sessions();
    void events();
    void messages_data();
    void messages();
    void attemptsInTheLog();
    void computedOptions();
    void typesOfValues();
    void clientsOptions();
    void rules_data();
    void rules();
    void ownOptions();
    void valueThatCannotBeStored();
    void charactersThatTheBusRefuses();
    void secretsAreWiped_data();
    void secretsAreWiped();

private:
    QString attempt(uint uid, const QString &script) const
    {
        return m_root->error(QStringLiteral("Authenticate"),
                             {uid, puppet, QVariantMap{{QStringLiteral("do"), script}}});
    }
    /// Makes the method act outside any request.
    void act(uint uid, const QString &script) const
    {
        QCOMPARE(
            m_root->error(QStringLiteral("SetUserMethodOption"), {uid, puppet, QStringLiteral("do"), variant(script)}),
            QString());
    }
    QStringList told() const { return option(QStringLiteral("told")).toStringList(); }
    QVariant option(const QString &name) const
    {
        const QDBusMessage reply = m_root->call(QStringLiteral("GetMethodOption"), {puppet, name});
        return reply.arguments().value(0).value<QDBusVariant>().variant();
    }
    QString state(uint uid) const
    {
        return m_root->call(QStringLiteral("GetState"), {uid}).arguments().value(1).toString();
    }

    QDir m_directory;
    Authd m_authd;
    QScopedPointer<BusUser> m_root;
    QScopedPointer<BusUser> m_user;
    QScopedPointer<Reports> m_reports;
};

void TstAuthenticator::outcomes_data()
{
    QTest::addColumn<QString>("script");
    QTest::addColumn<QStringList>("told");
    QTest::addColumn<QStringList>("reports");

    const QString pending = QStringLiteral("StateChanged(1000, pending, {method=puppet})");
    const QStringList success = {pending, QStringLiteral("Authenticated(1000, puppet)"),
                                 QStringLiteral("StateChanged(1000, authenticated, {method=puppet})")};
    const QStringList resetAttempts = {QStringLiteral("resetAttempts 1000")};
    const QStringList increaseAttempts = {QStringLiteral("increaseAttempts 1000")};
    QTest::newRow("succeed") << "succeed" << resetAttempts << success;
    QTest::newRow("finish with success") << "finish" << resetAttempts << success;
    QTest::newRow("failure with a code")
        << "fail:7" << increaseAttempts
        << QStringList{pending, QStringLiteral("AuthenticationFailed(1000, puppet, 7, Code7, true, 99)"),
                       QStringLiteral("StateChanged(1000, challenge, {method=puppet, result-code=7})")};
    QTest::newRow("failure without a code")
        << "fail" << increaseAttempts
        << QStringList{pending, QStringLiteral("AuthenticationFailed(1000, puppet, -1, , true, 99)"),
                       QStringLiteral("StateChanged(1000, challenge, {method=puppet})")};
    QTest::newRow("failure that does not count")
        << "fail:9" << QStringList{QStringLiteral("reset")}
        << QStringList{pending, QStringLiteral("AuthenticationFailed(1000, puppet, 9, Code9, false, 100)"),
                       QStringLiteral("StateChanged(1000, challenge, {method=puppet, result-code=9})")};
    QTest::newRow("input") << "input" << QStringList{QStringLiteral("reset")}
                           << QStringList{pending,
                                          QStringLiteral("StateChanged(1000, challenge, {input-request-type=2, "
                                                         "method=puppet})")};
}

void TstAuthenticator::outcomes()
{
    QFETCH(QString, script);
    QFETCH(QStringList, told);
    QFETCH(QStringList, reports);

    QCOMPARE(attempt(alice, script), QString());
    QVERIFY(m_reports->waitFor(reports.constLast()));
    QCOMPARE(m_reports->texts, reports);
    const QStringList request = {QStringLiteral("reset"), QStringLiteral("authenticate 1000")};
    QCOMPARE(this->told(), request + told);
    // The attempt has ended, so another can begin.
    QCOMPARE(attempt(bob, script), QString());
}

void TstAuthenticator::countedFailures()
{
    const QVector<int> counted = {1, 7, 8, 11};
    int left = 100;
    for (int code = 0; code <= 15; ++code) {
        left -= counted.contains(code);
        QCOMPARE(attempt(alice, QStringLiteral("fail:%1").arg(code)), QString());
        const QString report = QStringLiteral("AuthenticationFailed(1000, puppet, %1, Code%1, %2, %3)")
                                   .arg(code)
                                   .arg(QVariant(counted.contains(code)).toString())
                                   .arg(left);
        QTRY_VERIFY2(m_reports->texts.contains(report), qPrintable(report));
    }
}

void TstAuthenticator::outcomeComesFirst_data()
{
    QTest::addColumn<QString>("member"); // Empty: the caller leaves.
    QTest::addColumn<QVariantList>("arguments");
    QTest::addColumn<QString>("error");
    QTest::addColumn<QString>("lastState");

    QTest::newRow("another attempt") << "RequestChallenge" << QVariantList{alice, puppet} << QString() << "pending";
    QTest::newRow("cancelling") << "Cancel" << QVariantList{qulonglong(1)} << "qarv.AuthService.Error.NoAttempt"
                                << "authenticated";
    QTest::newRow("end of the session") << "SessionStopped" << QVariantList{alice, true} << QString() << "idle";
    QTest::newRow("caller leaves") << QString() << QVariantList() << QString() << "authenticated";
}

// The daemon reads the next message before it has handled the method's outcome.
void TstAuthenticator::outcomeComesFirst()
{
    QFETCH(QString, member);
    QFETCH(QVariantList, arguments);
    QFETCH(QString, error);
    QFETCH(QString, lastState);
    QCOMPARE(m_user->error(QStringLiteral("Authenticate"), {alice, puppet, QVariantMap()}), QString());
    QTRY_COMPARE(state(alice), QStringLiteral("pending"));
    const QDBusMessage outcome =
        BusUser::message(QStringLiteral("SetUserMethodOption"),
                         {alice, puppet, QStringLiteral("do"), variant(QStringLiteral("succeed"))});
    if (member.isEmpty()) {
        const QString name = m_user->connection().baseService();
        kill(pid_t(m_authd.pid()), SIGSTOP);
        m_root->connection().asyncCall(outcome);
        m_user.reset();
        QTRY_VERIFY(!m_root->connection().interface()->isServiceRegistered(name));
        kill(pid_t(m_authd.pid()), SIGCONT);
    } else {
        QVector<QDBusPendingCall> calls = m_authd.sendAtOnce(*m_root, {outcome, BusUser::message(member, arguments)});
        calls.last().waitForFinished();
        QCOMPARE(calls.last().error().name(), error.isEmpty() ? QDBusError().name() : error);
    }
    QTRY_VERIFY(m_reports->texts.contains(QStringLiteral("Authenticated(1000, puppet)")));
    QVERIFY(m_reports->texts.filter(QStringLiteral("AttemptGivenUp")).isEmpty());
    QTRY_COMPARE(state(alice), lastState);
}

void TstAuthenticator::unlockedAtOnce()
{
    m_authd.sendAtOnce(*m_root,
                       {BusUser::message(QStringLiteral("SetUserMethodOption"),
                                         {alice, puppet, QStringLiteral("do"), variant(QStringLiteral("lock:-1"))}),
                        BusUser::message(QStringLiteral("Unlock"), {alice})});
    QVERIFY(m_reports->waitFor(QStringLiteral("StateChanged(1000, idle, {})")));
    // The method learns of the lock before it learns of the end.
    QCOMPARE(told(),
             (QStringList{QStringLiteral("locked 1000 1 on strings 4294967295"), QStringLiteral("locked 1000 0  0")}));
}

void TstAuthenticator::firstOutcomeCounts()
{
    QCOMPARE(attempt(alice, QStringLiteral("fail:1 succeed input")), QString());
    QVERIFY(m_reports->waitFor(QStringLiteral("StateChanged(1000, challenge")));
    QCOMPARE(m_authd.log().count("event=outcome-without-attempt method=puppet"), 2);
    QVERIFY(!m_reports->texts.contains(QStringLiteral("Authenticated(1000, puppet)")));
    QCOMPARE(told().constLast(), QStringLiteral("increaseAttempts 1000"));
}

void TstAuthenticator::outcomeWithoutAttempt_data()
{
    QTest::addColumn<QString>("script");
    QTest::addColumn<QByteArray>("outcome");

    QTest::newRow("success") << "succeed" << QByteArray("success");
    QTest::newRow("finish") << "finish" << QByteArray("success");
    QTest::newRow("failure") << "fail:1" << QByteArray("failure");
    QTest::newRow("input") << "input" << QByteArray("input-request");
}

void TstAuthenticator::outcomeWithoutAttempt()
{
    QFETCH(QString, script);
    QFETCH(QByteArray, outcome);

    act(alice, script);
    QVERIFY(m_authd.waitForLog("level=notice event=outcome-without-attempt method=puppet outcome=" + outcome + '\n'));
    QCOMPARE(told(), QStringList());
    QCOMPARE(state(alice), QStringLiteral("idle"));
    QCOMPARE(m_reports->texts, QStringList());
}

void TstAuthenticator::restart()
{
    QCOMPARE(attempt(alice, QStringLiteral("restart")), QString());
    const QString restarted = QStringLiteral("StateChanged(1000, challenge, {method=puppet, restarted=true})");
    QVERIFY(m_reports->waitFor(restarted));
    // The daemon does not call the method again by itself.
    QCOMPARE(told(), (QStringList{QStringLiteral("reset"), QStringLiteral("authenticate 1000")}));

    // The outcome still counts ...
    act(alice, QStringLiteral("restart fail:7"));
    QVERIFY(m_reports->waitFor(QStringLiteral("StateChanged(1000, challenge, {method=puppet, result-code=7})")));
    QCOMPARE(m_reports->texts.count(restarted), 2);

    // ... and the user's next input continues the same attempt.
    QCOMPARE(attempt(alice, QStringLiteral("restart")), QString());
    QVERIFY(m_reports->waitFor(restarted));
    const qulonglong restartedAttempt = m_reports->attempts.constLast();
    QCOMPARE(attempt(alice, QStringLiteral("succeed")), QString());
    QVERIFY(m_reports->waitFor(QStringLiteral("StateChanged(1000, authenticated")));
    QCOMPARE(m_reports->attempts.constLast(), restartedAttempt);
    // The method forgets the previous input at once, because the daemon wipes it.
    const QString reset = QStringLiteral("reset");
    QCOMPARE(told().mid(5),
             (QStringList{reset, reset, QStringLiteral("authenticate 1000"), QStringLiteral("resetAttempts 1000")}));

    // A restarted attempt can be cancelled.
    QCOMPARE(attempt(alice, QStringLiteral("restart")), QString());
    QVERIFY(m_reports->waitFor(restarted));
    QCOMPARE(m_root->error(QStringLiteral("Cancel"), {m_reports->attempts.constLast()}), QString());
    QVERIFY(m_reports->waitFor(QStringLiteral("StateChanged(1000, idle, {})")));
}

void TstAuthenticator::restartOfOthers()
{
    // A restart without a user is not signalled, and one for another user leaves the attempt alone.
    QCOMPARE(attempt(alice, QString()), QString());
    QVERIFY(m_reports->waitFor(QStringLiteral("StateChanged(1000, pending")));
    act(alice, QStringLiteral("restart:0 restart:1001"));
    QVERIFY(m_reports->waitFor(QStringLiteral("StateChanged(1001, challenge, {method=puppet})")));
    QCOMPARE(m_reports->attempts.constLast(), qulonglong(0));
    QCOMPARE(m_reports->texts.size(), 2);
    QVERIFY(m_authd.waitForLog("event=restart method=puppet uid=0\n"));
    QCOMPARE(state(alice), QStringLiteral("pending"));
    // For a user whose attempt has not begun, nothing has changed.
    QCOMPARE(attempt(bob, QString()), QString());
    QVERIFY(m_reports->waitFor(QStringLiteral("StateChanged(1001, queued")));
    act(alice, QStringLiteral("restart:1001"));
    QVERIFY(m_authd.waitForLog("event=restart method=puppet uid=1001\n", 2));
    QCOMPARE(state(bob), QStringLiteral("queued"));
}

void TstAuthenticator::challengeGoesOn()
{
    // The method keeps what it has prepared, since there is no input that it must not use later.
    QCOMPARE(m_root->error(QStringLiteral("RequestChallenge"), {alice, puppet}), QString());
    QVERIFY(m_reports->waitFor(QStringLiteral("StateChanged(1000, pending")));
    act(alice, QStringLiteral("input"));
    QVERIFY(m_reports->waitFor(QStringLiteral("StateChanged(1000, challenge")));
    QCOMPARE(told(), (QStringList{QStringLiteral("reset"), QStringLiteral("authenticate 1000")}));
}

void TstAuthenticator::givenUpRequestIsForgotten()
{
    QCOMPARE(attempt(alice, QString()), QString());
    QVERIFY(m_reports->waitFor(QStringLiteral("StateChanged(1000, pending")));
    const qulonglong active = m_reports->attempts.constLast();
    // One that has not begun does not concern the method.
    QCOMPARE(attempt(bob, QString()), QString());
    QVERIFY(m_reports->waitFor(QStringLiteral("StateChanged(1001, queued")));
    QCOMPARE(m_root->error(QStringLiteral("Cancel"), {m_reports->attempts.constLast()}), QString());
    QCOMPARE(told(), (QStringList{QStringLiteral("reset"), QStringLiteral("authenticate 1000")}));
    QCOMPARE(m_root->error(QStringLiteral("Cancel"), {active}), QString());
    QCOMPARE(told(),
             (QStringList{QStringLiteral("reset"), QStringLiteral("authenticate 1000"), QStringLiteral("reset")}));
}

void TstAuthenticator::locks()
{
    act(alice, QStringLiteral("lock:-1"));
    QVERIFY(m_reports->waitFor(
        QStringLiteral("StateChanged(1000, locked, {duration=4294967295, method=puppet, reason=on strings})")));
    QVERIFY(m_authd.log().contains(
        "level=warning event=user-locked method=puppet uid=1000 reason=\"on strings\" duration=4294967295\n"));
    QCOMPARE(told(), QStringList{QStringLiteral("locked 1000 1 on strings 4294967295")});
    // A lock hides other states.
    act(alice, QStringLiteral("restart"));
    QVERIFY(m_authd.waitForLog("event=restart"));
    QCOMPARE(state(alice), QStringLiteral("locked"));

    QCOMPARE(m_root->error(QStringLiteral("Unlock"), {alice}), QString());
    QVERIFY(m_reports->waitFor(QStringLiteral("StateChanged(1000, idle, {})")));
    QCOMPARE(m_reports->texts.size(), 2);
    QCOMPARE(told().constLast(), QStringLiteral("locked 1000 0  0"));
    QVERIFY(!TestDevice::readFile(locksFile).contains("reason"));
}

void TstAuthenticator::lockDuration()
{
    // A lock ends with its last second.
    act(alice, QStringLiteral("lock:0"));
    QCOMPARE(state(alice), QStringLiteral("idle"));
    act(alice, QStringLiteral("lock:100"));
    act(bob, QStringLiteral("lock:2"));
    QVERIFY(m_reports->waitFor(QStringLiteral("StateChanged(1001, locked")));
    const QDBusMessage reply = m_user->call(QStringLiteral("GetState"), {alice});
    const uint left = qdbus_cast<QVariantMap>(reply.arguments().at(2)).value(QStringLiteral("duration")).toUInt();
    QVERIFY2(left > 50 && left <= 100, qPrintable(QString::number(left)));

    // Bob's lock expires, also in a restarted daemon.
    QTRY_COMPARE(state(bob), QStringLiteral("idle"));
    QCOMPARE(attempt(bob, QStringLiteral("succeed")), QString());
    act(alice, QStringLiteral("lock:200"));
    QTRY_VERIFY(!TestDevice::readFile(locksFile).contains("[1001]"));
    QVERIFY(TestDevice::readFile(locksFile).contains("[1000]"));
    QCOMPARE(m_root->error(QStringLiteral("Unlock"), {bob}), QString());
    QVERIFY(!m_authd.log().contains("event=user-unlocked"));
    QCOMPARE(m_authd.stop(SIGTERM), 0);
    QVERIFY(m_authd.start(QStringLiteral("/tmp/methods")));
    QCOMPARE(state(alice), QStringLiteral("locked"));
    QCOMPARE(state(bob), QStringLiteral("idle"));
}

void TstAuthenticator::longerLockStays()
{
    act(alice, QStringLiteral("lock:-1 lock:10"));
    QTRY_COMPARE(m_reports->texts.size(), 1);
    QVERIFY(m_reports->texts.constLast().contains(QLatin1String("duration=4294967295")));
    act(bob, QStringLiteral("lock:10 lock:1000"));
    QTRY_COMPARE(m_reports->texts.size(), 2);
    const QDBusMessage reply = m_root->call(QStringLiteral("GetState"), {bob});
    QVERIFY(qdbus_cast<QVariantMap>(reply.arguments().at(2)).value(QStringLiteral("duration")).toUInt() > 500);
}

void TstAuthenticator::methodUnlocks()
{
    act(alice, QStringLiteral("lock:-1"));
    QVERIFY(m_reports->waitFor(QStringLiteral("StateChanged(1000, locked")));
    act(alice, QStringLiteral("unlock"));
    QVERIFY(m_reports->waitFor(QStringLiteral("StateChanged(1000, idle, {})")));
    QCOMPARE(told().constLast(), QStringLiteral("locked 1000 0  0"));
    QCOMPARE(attempt(alice, QStringLiteral("succeed")), QString());
}

void TstAuthenticator::lockedDuringTheAttempt_data()
{
    QTest::addColumn<QString>("script");
    for (const char *script : {"succeed lock:-1", "lock:-1 succeed", "restart lock:-1 succeed"})
        QTest::newRow(script) << script;
}

void TstAuthenticator::lockedDuringTheAttempt()
{
    // The lock takes effect at once, even before a success that the method has just reported.
    QFETCH(QString, script);
    QCOMPARE(attempt(alice, script), QString());
    QTRY_VERIFY(m_reports->texts.contains(QStringLiteral("AttemptGivenUp(1000, puppet, locked)")));
    QVERIFY(m_reports->waitFor(QStringLiteral("StateChanged(1000, locked")));
    QVERIFY(m_authd.waitForLog("event=success-of-locked-user method=puppet uid=1000\n"));
    QVERIFY(!m_reports->texts.contains(QStringLiteral("Authenticated(1000, puppet)")));
    QVERIFY(!told().contains(QStringLiteral("resetAttempts 1000")));
    QCOMPARE(attempt(alice, QStringLiteral("succeed")), QStringLiteral("qarv.AuthService.Error.UserLocked"));
    // Unlocking does not restore the state of the interrupted attempt.
    act(alice, QStringLiteral("unlock"));
    QVERIFY(m_reports->waitFor(QStringLiteral("StateChanged(1000, idle, {})")));
}

void TstAuthenticator::lockUntilTheEndOfTime()
{
    QCOMPARE(m_authd.stop(SIGTERM), 0);
    QVERIFY(TestDevice::writeFile(locksFile, "[1000]\nmethod=m\nreason=r\nuntil=9000000000000000000\n"));
    QVERIFY(m_authd.start(QStringLiteral("/tmp/methods")));
    const QVariant details = m_root->call(QStringLiteral("GetState"), {alice}).arguments().value(2);
    QCOMPARE(reportText(details), QStringLiteral("{duration=4294967294, method=m, reason=r}"));
}

void TstAuthenticator::nobodyIsLocked()
{
    act(alice, QStringLiteral("lock0 lock:10"));
    QVERIFY(m_reports->waitFor(QStringLiteral("StateChanged(1000, locked")));
    QCOMPARE(m_reports->texts.size(), 1);
    QCOMPARE(m_authd.log().count("event=user-locked"), 1);
    QVERIFY(!TestDevice::readFile(locksFile).contains("[0]"));
}

void TstAuthenticator::lockNotSaved()
{
    // A directory at the file's path prevents saving.
    QVERIFY(m_directory.mkpath(locksFile + QStringLiteral("/full")));
    act(alice, QStringLiteral("lock:10 lock:20 lock:-1"));
    QVERIFY(m_authd.waitForLog("level=error event=locks-not-saved file=/var/lib/authd/locks.conf"));
    QVERIFY(!m_authd.log().contains("error=\"\""));
    // This is not logged again for each change.
    QVERIFY(m_authd.waitForLog(" duration=20\nlevel=warning event=user-locked "));
    QCOMPARE(state(alice), QStringLiteral("locked"));
    // The lock survives the daemon, however it ends ...
    m_authd.stop(SIGKILL);
    QVERIFY(m_authd.start(QStringLiteral("/tmp/methods")));
    QCOMPARE(state(alice), QStringLiteral("locked"));
    // ... and is saved as soon as saving works again.
    QVERIFY(QDir(locksFile).removeRecursively());
    QTRY_VERIFY(TestDevice::readFile(locksFile).contains("[1000]"));
    QTRY_VERIFY(!QFile::exists(QStringLiteral("/run/authd/locks.conf")));
}

void TstAuthenticator::sessions()
{
    QCOMPARE(m_root->error(QStringLiteral("SessionStarted"), {alice, true}), QString());
    QCOMPARE(m_root->error(QStringLiteral("SessionStarted"), {alice, false}), QString());
    QCOMPARE(m_root->error(QStringLiteral("SessionStopped"), {alice, false}), QString());
    QCOMPARE(m_root->error(QStringLiteral("SessionStopped"), {alice, true}), QString());
    QCOMPARE(told(), (QStringList{QStringLiteral("session 1000 1 1"), QStringLiteral("session 1000 1 0"),
                                  QStringLiteral("session 1000 0 0"), QStringLiteral("session 1000 0 1")}));

    // Another user's attempt continues when a session stops.
    QCOMPARE(attempt(bob, QString()), QString());
    QTRY_COMPARE(state(bob), QStringLiteral("pending"));
    QCOMPARE(m_root->error(QStringLiteral("SessionStopped"), {alice, true}), QString());
    QCOMPARE(state(bob), QStringLiteral("pending"));
    QCOMPARE(told().count(QStringLiteral("reset")), 1);
    QCOMPARE(m_root->error(QStringLiteral("SessionStopped"), {bob, true}), QString());
    QCOMPARE(state(bob), QStringLiteral("idle"));
    QCOMPARE(told().count(QStringLiteral("reset")), 2);

    // The method's last request belongs to the session, even if the attempt has ended.
    QCOMPARE(attempt(alice, QStringLiteral("succeed")), QString());
    QVERIFY(m_reports->waitFor(QStringLiteral("StateChanged(1000, authenticated")));
    for (int i = 0; i < 2; ++i) {
        QCOMPARE(m_root->error(QStringLiteral("SessionStopped"), {alice, true}), QString());
        QVERIFY(m_reports->waitFor(QStringLiteral("StateChanged(1000, idle, {})")));
        QCOMPARE(told().count(QStringLiteral("reset")), 4);
    }
}

void TstAuthenticator::events()
{
    act(alice, QStringLiteral("event unknown"));
    QVERIFY(m_authd.waitForLog("level=notice event=method-event method=puppet level=INFO_LEVEL name=played "
                               "details=\"one\\u000alevel=error event=\\\"two\\\\\\u007f\"\n"));
    // A value that the bus cannot carry is not signalled.
    QVERIFY(m_authd.waitForLog("event=option-changed method=puppet uid=0 option=number computed=true\n"));
    act(alice, QString());
    QTRY_COMPARE(m_reports->all.size(), 2);
    for (const QDBusMessage &report : qAsConst(m_reports->all))
        QCOMPARE(report.member(), QStringLiteral("UserMethodOptionChanged"));
    // The daemon does not even try, because the library would log a warning.
    QVERIFY(!m_authd.log().contains("event=message"));
}

void TstAuthenticator::messages_data()
{
    QTest::addColumn<QStringList>("arguments");
    QTest::addColumn<QByteArrayList>("levels");
    QTest::newRow("levels") << QStringList() << QByteArrayList{"level=debug ", "level=info ",   "level=warning ",
                                                               "level=error ", "level=notice ", "level=critical "};
    QTest::newRow("journal's form") << QStringList{QStringLiteral("--journal")}
                                    << QByteArrayList{"<7>", "<6>", "<4>", "<3>", "<5>", "<2>"};
}

void TstAuthenticator::messages()
{
    QFETCH(QStringList, arguments);
    QFETCH(QByteArrayList, levels);
    QCOMPARE(m_authd.stop(SIGTERM), 0);
    QVERIFY(m_authd.start(QStringLiteral("/tmp/methods"), arguments));
    act(alice, QStringLiteral("messages event"));
    const QByteArray message = "event=message category=default text=";
    const QByteArrayList lines = {message + "debug\n", message + "info\n", message + "warning\n",
                                  message + "critical\n", "event=method-event "};
    for (int i = 0; i < lines.size(); ++i)
        QVERIFY(m_authd.waitForLog(levels.at(i) + lines.at(i)));
    m_root->connection().asyncCall(
        BusUser::message(QStringLiteral("SetUserMethodOption"),
                         {alice, puppet, QStringLiteral("do"), variant(QStringLiteral("fatal"))}));
    QTRY_VERIFY(!m_authd.isRunning());
    QVERIFY(m_authd.log().endsWith(levels.constLast() + message + "fatal\n"));
    QVERIFY(m_authd.start(QStringLiteral("/tmp/methods")));
}

void TstAuthenticator::attemptsInTheLog()
{
    QVERIFY(m_authd.waitForLog("event=ready"));
    const int before = m_authd.log().size();
    QCOMPARE(attempt(alice, QStringLiteral("fail:7")), QString());
    QVERIFY(m_reports->waitFor(QStringLiteral("StateChanged(1000, challenge, {method=puppet, result-code=7})")));
    QCOMPARE(attempt(alice, QStringLiteral("input")), QString());
    QVERIFY(m_reports->waitFor(QStringLiteral("StateChanged(1000, challenge, {input-request-type=2, method=puppet})")));
    QCOMPARE(m_root->error(QStringLiteral("Cancel"), {qulonglong(2)}), QString());
    QCOMPARE(attempt(alice, QStringLiteral("succeed")), QString());
    QVERIFY(m_reports->waitFor(QStringLiteral("StateChanged(1000, authenticated")));
    QCOMPARE(m_user->error(QStringLiteral("RequestChallenge"), {alice, puppet}), QString());
    QVERIFY(m_authd.waitForLog("event=attempt-begun", 4));
    for (const bool isStart : {true, false})
        QCOMPARE(m_root->error(isStart ? QStringLiteral("SessionStarted") : QStringLiteral("SessionStopped"),
                               {alice, isStart}),
                 QString());
    act(alice, QStringLiteral("lock:-1 unlock lock:-1"));
    QCOMPARE(m_root->error(QStringLiteral("Unlock"), {alice}), QString());
    QCOMPARE(m_authd.log().mid(before),
             QByteArray("level=info event=attempt-opened attempt=1 method=puppet uid=1000 caller=0 challenge=false\n"
                        "level=info event=attempt-begun attempt=1 method=puppet uid=1000\n"
                        "level=notice event=authentication-failed attempt=1 method=puppet uid=1000 code=7 name=Code7 "
                        "counted=true attempts-left=99\n"
                        "level=info event=attempt-opened attempt=2 method=puppet uid=1000 caller=0 challenge=false\n"
                        "level=info event=attempt-begun attempt=2 method=puppet uid=1000\n"
                        "level=info event=input-requested attempt=2 method=puppet uid=1000\n"
                        "level=notice event=attempt-given-up attempt=2 method=puppet uid=1000 reason=cancelled\n"
                        "level=info event=attempt-opened attempt=3 method=puppet uid=1000 caller=0 challenge=false\n"
                        "level=info event=attempt-begun attempt=3 method=puppet uid=1000\n"
                        "level=notice event=authenticated attempt=3 method=puppet uid=1000\n"
                        "level=info event=attempt-opened attempt=4 method=puppet uid=1000 caller=1000 challenge=true\n"
                        "level=info event=attempt-begun attempt=4 method=puppet uid=1000\n"
                        "level=info event=session-started uid=1000 manage-client=true\n"
                        "level=info event=session-stopped uid=1000 manage-client=false\n"
                        "level=info event=option-changed method=puppet uid=1000 option=do computed=false\n"
                        "level=warning event=user-locked method=puppet uid=1000 reason=\"on strings\" "
                        "duration=4294967295\n"
                        "level=notice event=user-unlocked method=puppet uid=1000\n"
                        "level=warning event=user-locked method=puppet uid=1000 reason=\"on strings\" "
                        "duration=4294967295\n"
                        "level=notice event=option-set method=puppet uid=1000 option=do by=0\n"
                        "level=notice event=attempt-given-up attempt=4 method=puppet uid=1000 reason=locked\n"
                        "level=notice event=user-unlocked uid=1000\n"));
}

void TstAuthenticator::computedOptions()
{
    QCOMPARE(option(QStringLiteral("computed")), QVariant(42));
    // A computed value may differ in type from the default.
    QCOMPARE(option(QStringLiteral("computed odd")), QVariant(1));
    // A computed option that others may write.
    QCOMPARE(option(QStringLiteral("computed open")), QVariant(1));
    QCOMPARE(m_user->error(QStringLiteral("SetMethodOption"), {puppet, QStringLiteral("computed open"), variant(5)}),
             QString());
    QCOMPARE(option(QStringLiteral("computed open")), QVariant(5));

    const QDBusMessage all = m_root->call(QStringLiteral("GetMethodOptions"), {puppet});
    const QVariantMap values = qdbus_cast<QVariantMap>(all.arguments().constFirst());
    QCOMPARE(values.size(), 14);
    QCOMPARE(values.value(QStringLiteral("computed")), QVariant(42));
    QCOMPARE(values.value(QStringLiteral("computed open")), QVariant(5));
    QCOMPARE(values.value(QStringLiteral("list")).toStringList(), QStringList());
}

void TstAuthenticator::typesOfValues()
{
    const QVector<QVariant> stored = {true,
                                      -7,
                                      4294967295U,
                                      qlonglong(-5000000000),
                                      qulonglong(18446744073709551615U),
                                      0.5,
                                      QStringLiteral("text"),
                                      QStringList{QStringLiteral("a"), QStringLiteral("b")},
                                      QByteArray("a\0b", 3)};
    const QString anything = QStringLiteral("anything");
    for (const QVariant &value : stored) {
        QCOMPARE(m_root->error(QStringLiteral("SetMethodOption"), {puppet, anything, variant(value)}), QString());
        QCOMPARE(option(anything), value);
        QCOMPARE(option(anything).userType(), value.userType());
    }
    // Only the method itself has options of these types.
    QCOMPARE(option(QStringLiteral("byte")), QVariant::fromValue(uchar(200)));
    QCOMPARE(option(QStringLiteral("short")), QVariant::fromValue(short(-7)));
    QCOMPARE(option(QStringLiteral("unsigned short")), QVariant::fromValue(ushort(65000)));

    QVariantMap data = {{QStringLiteral("do"), QStringLiteral("succeed")},
                        {QStringLiteral("byte"), QVariant::fromValue(uchar(200))},
                        {QStringLiteral("short"), QVariant::fromValue(short(-7))},
                        {QStringLiteral("unsigned short"), QVariant::fromValue(ushort(65000))}};
    for (const QVariant &value : stored)
        data.insert(QString::fromLatin1(value.typeName()), value);
    QCOMPARE(m_root->error(QStringLiteral("Authenticate"), {alice, puppet, data}), QString());
}

void TstAuthenticator::clientsOptions()
{
    const QString name = QStringLiteral("computed");
    const auto read = [&] {
        return reportText(m_user->call(QStringLiteral("GetMethodOption"), {puppet, name}).arguments().value(0));
    };
    const QString computed = QStringLiteral("42");
    const QString ofNobody = QStringLiteral("1");
    QCOMPARE(read(), ofNobody);
    // The user's own option of this name does not depend on a client.
    const QDBusMessage own = m_user->call(QStringLiteral("GetUserMethodOption"), {alice, puppet, name});
    QCOMPARE(reportText(own.arguments().value(0)), computed);
    act(alice, QStringLiteral("launch:1000"));
    QTRY_COMPARE(read(), computed);
    act(alice, QStringLiteral("launch:1001"));
    QTRY_COMPARE(read(), ofNobody);
}

void TstAuthenticator::rules_data()
{
    QTest::addColumn<QString>("name");
    QTest::addColumn<QVariant>("value");
    QTest::addColumn<QString>("errorOfUser");
    QTest::addColumn<QString>("errorOfRoot");
    QTest::addColumn<QVariant>("stored");

    const auto row = [](const char *title, const char *name, const QVariant &value, const QString &errorOfUser,
                        const QString &errorOfRoot, const QVariant &stored) {
        QTest::newRow(title) << QString::fromLatin1(name) << value << errorOfUser << errorOfRoot << stored;
    };
    const auto good = [row](const char *title, const char *name, const QVariant &value, const QVariant &stored) {
        row(title, name, value, {}, {}, stored);
    };
    const auto wrong = [row](const char *title, const char *name, const QVariant &value, const QVariant &present) {
        row(title, name, value, invalidArgs, invalidArgs, present);
    };
    good("int", "number", 7, 7);
    good("negative int", "number", -7, -7);
    good("unsigned as int", "number", 7U, 7);
    good("64 bits as int", "number", qlonglong(7), 7);
    good("whole double as int", "number", 7.0, 7);
    good("text as int", "number", QStringLiteral("7"), 7);
    good("16 bits as int", "number", QVariant::fromValue(short(-7)), -7);
    good("unsigned 16 bits as int", "number", QVariant::fromValue(ushort(65000)), 65000);
    good("unsigned 64 bits as int", "number", qulonglong(7), 7);
    wrong("too large unsigned", "number", 4294967295U, 1);
    wrong("too large 64 bits", "number", qlonglong(4294967297), 1);
    wrong("fraction", "number", 7.5, 1);
    wrong("other text", "number", QStringLiteral("7x"), 1);
    wrong("text with zeros", "number", QStringLiteral("007"), 1);
    wrong("empty text", "number", QString(), 1);
    wrong("list as int", "number", QStringList{QStringLiteral("a"), QStringLiteral("b")}, 1);
    wrong("bool as int", "number", true, 1);
    wrong("map as int", "number", QVariantMap(), 1);
    wrong("no rule, variant", "anything", variant(7), 0);
    good("bool", "switch", true, true);
    good("text as bool", "switch", QStringLiteral("true"), true);
    wrong("other text as bool", "switch", QStringLiteral("yes"), false);
    wrong("int as bool", "switch", 2, false);
    good("text", "text", QStringLiteral("a\nb"), QStringLiteral("a\nb"));
    good("int as text", "text", 7, QStringLiteral("7"));
    const QString longest(4096, QLatin1Char('x'));
    good("longest text", "text", longest, longest);
    const auto tooLong = [row](const char *title, const char *name, const QVariant &value, const QVariant &present) {
        row(title, name, value, limitsExceeded, limitsExceeded, present);
    };
    tooLong("too long text", "text", QString(longest + QLatin1Char('x')), QString());
    tooLong("too long bytes", "anything", QByteArray(4097, 'x'), 0);
    tooLong("too long list", "list", QStringList{longest.left(2047), longest.left(2048)}, QStringList());
    tooLong("too long text as list", "list", longest, QStringList());
    QStringList manyTexts;
    for (int i = 0; i <= 64; ++i)
        manyTexts << QString();
    tooLong("list of too many", "list", manyTexts, QStringList());
    good("long list", "list", QStringList(manyTexts.mid(1)), QStringList(manyTexts.mid(1)));
    good("list", "list", QStringList{QStringLiteral("a"), QStringLiteral("b")},
         QStringList{QStringLiteral("a"), QStringLiteral("b")});
    good("text as list", "list", QStringLiteral("a"), QStringList{QStringLiteral("a")});
    wrong("int as list", "list", 7, QStringList());
    good("no rule", "anything", QStringLiteral("text"), QStringLiteral("text"));
    row("no rule, not to be stored", "anything", QVariant::fromValue(short(7)), storeFailed, storeFailed, 0);
    wrong("no rule, map", "anything", QVariantMap(), 0);
    row("root only", "root", 7, accessDenied, {}, 7);
    row("root only, wrong type", "root", QStringLiteral("x"), accessDenied, invalidArgs, 1);
    row("method only", "computed", 7, accessDenied, accessDenied, 42);
    row("in no rule", "unlisted", 7, accessDenied, accessDenied, 1);
    const QString noSuchOption = QStringLiteral("qarv.AuthService.Error.NoSuchOption");
    row("unknown", "mine", 7, noSuchOption, noSuchOption, QVariant());
}

void TstAuthenticator::rules()
{
    QFETCH(QString, name);
    QFETCH(QVariant, value);

    QTEST(m_user->error(QStringLiteral("SetMethodOption"), {puppet, name, variant(value)}), "errorOfUser");
    QTEST(m_root->error(QStringLiteral("SetMethodOption"), {puppet, name, variant(value)}), "errorOfRoot");
    QTEST(option(name), "stored");
}

void TstAuthenticator::ownOptions()
{
    const QString member = QStringLiteral("SetUserMethodOption");
    const QString mine = QStringLiteral("mine");
    QCOMPARE(m_user->error(member, {alice, puppet, mine, variant(7)}), QString());
    QCOMPARE(m_user->error(member, {bob, puppet, mine, variant(8)}), accessDenied);
    QCOMPARE(m_root->error(member, {bob, puppet, mine, variant(9)}), QString());
    QTRY_COMPARE(m_reports->all.size(), 2);
    QCOMPARE(m_reports->all.at(0).member(), QStringLiteral("UserMethodOptionChanged"));
    QCOMPARE(m_reports->all.at(0).arguments().mid(0, 3), (QVariantList{alice, puppet, mine}));
    QCOMPARE(reportText(m_reports->all.at(0).arguments().at(3)), QStringLiteral("7"));
    QCOMPARE(m_reports->all.at(1).arguments().constFirst().toUInt(), bob);
    const auto read = [&](uint uid) {
        return reportText(
            m_root->call(QStringLiteral("GetUserMethodOption"), {uid, puppet, mine}).arguments().constFirst());
    };
    QCOMPARE(read(alice), QStringLiteral("7"));
    QCOMPARE(read(bob), QStringLiteral("9"));
    QCOMPARE(m_root->error(member, {uint(4711), puppet, mine, variant(7)}),
             QStringLiteral("qarv.AuthService.Error.NoSuchUser"));
    QVERIFY(m_authd.log().contains("event=option-set method=puppet uid=1001 option=mine by=0\n"));
    QVERIFY(m_authd.log().contains("event=option-set method=puppet uid=1000 option=mine by=1000\n"));
    const QVariantList guarded = {alice, puppet, QStringLiteral("guarded"), variant(7)};
    QCOMPARE(m_user->error(member, guarded), accessDenied);
    QCOMPARE(m_root->error(member, guarded), QString());
    // A service account may not even write what every user may.
    const QVariantList number = {puppet, QStringLiteral("number"), variant(7)};
    QCOMPARE(BusUser(serviceAccount).error(QStringLiteral("SetMethodOption"), number), accessDenied);
    QCOMPARE(option(QStringLiteral("number")), QVariant(1));
}

void TstAuthenticator::valueThatCannotBeStored()
{
    QVERIFY(TestDevice::writeFile(QStringLiteral("/var/lib/authd/methods"), "in the way"));
    const QDBusMessage reply =
        m_root->call(QStringLiteral("SetMethodOption"), {puppet, QStringLiteral("number"), variant(7)});
    QCOMPARE(reply.errorName(), storeFailed);
    QCOMPARE(reply.errorMessage(), QStringLiteral("The value cannot be stored"));
    QCOMPARE(option(QStringLiteral("number")), QVariant(1));
}

void TstAuthenticator::charactersThatTheBusRefuses()
{
    // They can only come from a method or a file.
    const QString text = QStringLiteral("text");
    const QString file = QStringLiteral("/var/lib/authd/methods/puppet/current.conf");
    QCOMPARE(m_root->error(QStringLiteral("SetMethodOption"), {puppet, text, variant(QStringLiteral("former"))}),
             QString());
    QCOMPARE(m_authd.stop(SIGTERM), 0);
    QByteArray content = TestDevice::readFile(file);
    QVERIFY(content.contains("former"));
    QVERIFY(TestDevice::writeFile(file, content.replace("former", "\xef\xbf\xbe😀a\xf0\x9f\xbf\xbf\xf0\x9f\xbf\xbe")));
    QVERIFY(m_authd.start(QStringLiteral("/tmp/methods")));
    QCOMPARE(option(text).toString(), QStringLiteral("\ufffd😀a\ufffd\ufffd\ufffd\ufffd"));
}

void TstAuthenticator::secretsAreWiped_data()
{
    QTest::addColumn<QString>("script");
    QTest::addColumn<QString>("end");
    const auto row = [](const char *name, const char *script, const char *end) {
        QTest::newRow(name) << QString::fromLatin1(script) << QString::fromLatin1(end);
    };
    row("success", "succeed", "authenticated");
    row("counted failure", "fail:7", "challenge");
    row("other failure", "fail:9", "challenge");
    row("input", "input", "challenge");
    row("locked", "succeed lock:-1", "locked");
    row("given up", "", "pending");
    row("given up in the queue", "", "queued");
    row("entered again", "restart", "challenge");
}

void TstAuthenticator::secretsAreWiped()
{
    QFETCH(QString, script);
    QFETCH(QString, end);
    const QString secret = QStringLiteral("wiped-secret-of-") + QString::fromLatin1(QTest::currentDataTag());
    const QByteArray inMemory(reinterpret_cast<const char *>(secret.utf16()), secret.size() * int(sizeof(ushort)));
    const QByteArray inBytes = "bytes-" + secret.toUtf8();
    if (TestDevice::isOrdinaryUsers())
        QSKIP(noMemory);
    QVERIFY(!processMemory(m_authd.pid()).isNull());
    if (end == QLatin1String("queued"))
        QCOMPARE(attempt(bob, QString()), QString());
    const QDBusMessage reply = m_root->call(QStringLiteral("Authenticate"),
                                            {alice, puppet,
                                             QVariantMap{{QStringLiteral("do"), script},
                                                         {QStringLiteral("password"), secret},
                                                         {QStringLiteral("list"), QStringList{QString(), secret}},
                                                         {QStringLiteral("bytes"), inBytes}}});
    QTRY_COMPARE(state(alice), end);
    if (script == QLatin1String("restart")) {
        QVERIFY(processMemory(m_authd.pid()).contains(inMemory));
        QCOMPARE(attempt(alice, QStringLiteral("input")), QString());
    }
    if (script.isEmpty()) {
        QVERIFY(processMemory(m_authd.pid()).contains(inMemory));
        QCOMPARE(m_root->error(QStringLiteral("Cancel"), reply.arguments()), QString());
    }
    QTRY_VERIFY(!processMemory(m_authd.pid()).contains(inMemory));
    QTRY_VERIFY(!processMemory(m_authd.pid()).contains(inBytes));
}

QTEST_GUILESS_MAIN(TstAuthenticator)

#include "tst_authenticator.moc"
