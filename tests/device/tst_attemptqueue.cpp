// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#include "device/authd.h"
#include "device/polltimeout.h"
#include "support/testdevice.h"
#include "support/wiper.h"

#include <QDBusConnectionInterface>
#include <QDBusPendingCallWatcher>
#include <QDBusPendingReply>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QScopedPointer>
#include <QTest>
#include <QTimer>

#include <csignal>
#include <pwd.h>

namespace {

const QString puppet = QStringLiteral("puppet");
const uint alice = TestDevice::alice;
const uint bob = TestDevice::bob;
const uint carol = 1002;
const QString serviceError = QStringLiteral("qarv.AuthService.Error.");
/// The longest delay, in milliseconds, that one user can cause before another user's attempt begins.
constexpr qint64 longestWait = 5000;

QVariantMap script(const char *text)
{
    return {{QStringLiteral("do"), QString::fromLatin1(text)}};
}

} // namespace

/// The ownership, lifetime and queueing of attempts, with a scripted method.
class TstAttemptQueue : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase()
    {
        QVERIFY(startSystemBus());
        QVERIFY(QDir().mkpath(QStringLiteral("/tmp/methods")));
        QVERIFY(QFile::copy(Installed::oddMethods + QStringLiteral("/libpuppet.so"),
                            QStringLiteral("/tmp/methods/libpuppet.so")));
    }

    void init()
    {
        TestDevice::reset();
        start();
    }

    void cleanup()
    {
        m_reports.reset();
        QCOMPARE(m_authd.stop(SIGTERM), 0);
        if (QTest::currentTestFailed())
            qWarning("The daemon wrote:\n%s", m_authd.log().constData());
    }

    void numbers();
    void replyComesFirst();
    void stateComesWithTheReply();
    void challengeGoesOn();
    void anotherChallenge();
    void challengeOfAnother();
    void secondAttempt();
    void secondAttemptOfAnother();
    void cancelling();
    void onlyTheBusSaysWhoLeaves();
    void callerGoes_data();
    void callerGoes();
    void timeLimit_data();
    void timeLimit();
    void timeLimitByDefault();
    void enteringRenewsTheTime();
    void lockEndsTheAttempt();
    void queue();
    void waitsAgain();
    void rootComesFirst();
    void rootTriesAgainFirst();
    void rootTriesAgainAfterItsTurn();
    void rootDoesNotWaitForChallenges();
    void longAttemptIsCutShort_data();
    void longAttemptIsCutShort();
    void outcomeJustInTime_data();
    void outcomeJustInTime();
    void aloneNobodyIsCutShort();
    void eachTurnWithoutWaitersIsNew();
    void reopeningKeepsNobodyOut_data();
    void reopeningKeepsNobodyOut();
    void tooManyAttempts();

private:
    void start(const QStringList &arguments = {})
    {
        if (m_authd.isRunning())
            QCOMPARE(m_authd.stop(SIGTERM), 0);
        QVERIFY(m_authd.start(QStringLiteral("/tmp/methods"), arguments));
        m_root.reset(new BusUser(0));
        m_reports.reset(new Reports(*m_root));
    }
    static qulonglong open(const BusUser &caller, uint uid, const char *text)
    {
        const QDBusMessage reply = caller.call(QStringLiteral("Authenticate"), {uid, puppet, script(text)});
        if (reply.type() == QDBusMessage::ErrorMessage)
            qWarning("%s", qPrintable(reply.errorName()));
        return reply.arguments().value(0).toULongLong();
    }
    static qulonglong request(const BusUser &caller, uint uid)
    {
        return caller.call(QStringLiteral("RequestChallenge"), {uid, puppet}).arguments().value(0).toULongLong();
    }
    /// The signals about the attempt, without option changes.
    QStringList told(qulonglong attempt) const
    {
        QStringList texts;
        for (int i = 0; i < m_reports->texts.size(); ++i) {
            if (m_reports->attempts.at(i) == attempt)
                texts << m_reports->texts.at(i);
        }
        return texts;
    }
    bool isTold(qulonglong attempt, const QString &text) const { return !told(attempt).filter(text).isEmpty(); }
    QString state(uint uid) const
    {
        return m_root->call(QStringLiteral("GetState"), {uid}).arguments().value(1).toString();
    }

    Authd m_authd;
    QScopedPointer<BusUser> m_root;
    QScopedPointer<Reports> m_reports;
};

void TstAttemptQueue::numbers()
{
    const BusUser user(alice);
    const qulonglong first = open(user, alice, "succeed");
    QTRY_VERIFY(isTold(first, QStringLiteral("StateChanged(1000, authenticated")));
    const qulonglong second = open(user, alice, "fail:11");
    QTRY_VERIFY(isTold(second, QStringLiteral("StateChanged(1000, challenge")));
    QVERIFY(first != 0 && second != 0 && first != second);
    const QString pending = QStringLiteral("StateChanged(1000, pending, {method=puppet})");
    QCOMPARE(told(first), (QStringList{pending, QStringLiteral("Authenticated(1000, puppet)"),
                                       QStringLiteral("StateChanged(1000, authenticated, {method=puppet})")}));
    QCOMPARE(told(second),
             (QStringList{pending, QStringLiteral("AuthenticationFailed(1000, puppet, 11, Code11, true, 99)"),
                          QStringLiteral("StateChanged(1000, challenge, {method=puppet, result-code=11})")}));
    QCOMPARE(user.call(QStringLiteral("GetState"), {alice}).arguments().value(0).toULongLong(), second);
    QCOMPARE(m_root->call(QStringLiteral("GetState"), {bob}).arguments().value(0).toULongLong(), qulonglong(0));
}

void TstAttemptQueue::replyComesFirst()
{
    const BusUser user(alice);
    const Reports reports(user);
    for (int i = 0; i < 20; ++i) {
        QDBusMessage call =
            QDBusMessage::createMethodCall(QStringLiteral("qarv.AuthService"), QStringLiteral("/qarv/AuthService"),
                                           QStringLiteral("qarv.AuthService"), QStringLiteral("Authenticate"));
        call.setArguments({alice, puppet, script("succeed")});
        QDBusPendingCallWatcher watcher(user.connection().asyncCall(call));
        qulonglong attempt = 0;
        connect(&watcher, &QDBusPendingCallWatcher::finished, &watcher, [&](QDBusPendingCallWatcher *finished) {
            attempt = QDBusPendingReply<qulonglong>(*finished).value();
            QVERIFY(!reports.attempts.contains(attempt));
        });
        QTRY_VERIFY(attempt != 0 && reports.attempts.count(attempt) == 3);
    }
}

void TstAttemptQueue::stateComesWithTheReply()
{
    // A state read right after the reply is not that of the previous attempt.
    const BusUser user(alice);
    const qulonglong first = open(user, alice, "fail:11");
    QTRY_VERIFY(isTold(first, QStringLiteral("StateChanged(1000, challenge")));
    const qulonglong second = open(user, alice, "");
    const QVariantList answer = user.call(QStringLiteral("GetState"), {alice}).arguments();
    QCOMPARE(answer.at(0).toULongLong(), second);
    QVERIFY(answer.at(1) == QLatin1String("queued") || answer.at(1) == QLatin1String("pending"));

    // This also holds before the daemon has begun to work on the attempt, and for one that goes on.
    const QDBusMessage ask = BusUser::message(QStringLiteral("GetState"), {alice});
    for (const char *text : {"input", "fail:11"}) {
        QVector<QDBusPendingCall> calls = m_authd.sendAtOnce(
            user, {BusUser::message(QStringLiteral("Authenticate"), {alice, puppet, script(text)}), ask});
        calls.last().waitForFinished();
        QCOMPARE(calls.last().reply().arguments().value(1).toString(), QStringLiteral("queued"));
        QTRY_COMPARE(state(alice), QStringLiteral("challenge"));
    }
}

void TstAttemptQueue::challengeGoesOn()
{
    const BusUser user(alice);
    const qulonglong attempt = request(user, alice);
    QTRY_COMPARE(state(alice), QStringLiteral("pending")); // The method has begun it.
    m_root->error(QStringLiteral("SetUserMethodOption"),
                  {alice, puppet, QStringLiteral("do"), QVariant::fromValue(QDBusVariant(QStringLiteral("input")))});
    QTRY_COMPARE(state(alice), QStringLiteral("challenge"));
    QCOMPARE(open(user, alice, "succeed"), attempt);
    QTRY_VERIFY(isTold(attempt, QStringLiteral("StateChanged(1000, authenticated")));
    QCOMPARE(m_reports->texts.filter(QStringLiteral("AttemptGivenUp")), QStringList());
}

void TstAttemptQueue::anotherChallenge()
{
    // A request without input does not continue an attempt that waits for input.
    const BusUser user(alice);
    const qulonglong attempt = open(user, alice, "input");
    QTRY_COMPARE(state(alice), QStringLiteral("challenge"));
    QVERIFY(request(user, alice) != attempt);
    QTRY_VERIFY(isTold(attempt, QStringLiteral("AttemptGivenUp(1000, puppet, replaced)")));
}

void TstAttemptQueue::challengeOfAnother()
{
    // One of root's programs cannot continue the attempt of another.
    const BusUser other(0);
    const qulonglong attempt = open(*m_root, alice, "input");
    QTRY_COMPARE(state(alice), QStringLiteral("challenge"));
    QVERIFY(open(other, alice, "succeed") != attempt);
    QTRY_VERIFY(isTold(attempt, QStringLiteral("AttemptGivenUp(1000, puppet, replaced)")));
}

void TstAttemptQueue::secondAttempt()
{
    const BusUser user(alice);
    const qulonglong first = open(user, alice, "");
    QTRY_COMPARE(state(alice), QStringLiteral("pending"));
    const qulonglong second = open(user, alice, "");
    QVERIFY(second != first);
    QTRY_COMPARE(told(first).mid(1), (QStringList{QStringLiteral("AttemptGivenUp(1000, puppet, replaced)"),
                                                  QStringLiteral("StateChanged(1000, idle, {})")}));
    QTRY_COMPARE(told(second).size(), 1); // otherwise it might be replaced before it begins
    // Root replaces any other caller's attempt.
    const qulonglong third = open(*m_root, alice, "succeed");
    QTRY_VERIFY(isTold(second, QStringLiteral("AttemptGivenUp(1000, puppet, replaced)")));
    QTRY_VERIFY(isTold(third, QStringLiteral("Authenticated(1000, puppet)")));
    QTRY_COMPARE(told(second).size(), 3);
}

void TstAttemptQueue::secondAttemptOfAnother()
{
    const BusUser user(alice);
    const BusUser other(alice);
    const qulonglong attempt = open(user, alice, "");
    for (const char *member : {"Authenticate", "RequestChallenge"}) {
        QVariantList arguments = {alice, puppet};
        if (qstrcmp(member, "Authenticate") == 0)
            arguments << script("succeed");
        QCOMPARE(other.error(QString::fromLatin1(member), arguments), serviceError + QStringLiteral("Busy"));
    }
    // The same holds while root's program waits for the user's input.
    open(*m_root, alice, "input");
    QTRY_COMPARE(state(alice), QStringLiteral("challenge"));
    const QDBusMessage refused = user.call(QStringLiteral("Authenticate"), {alice, puppet, script("succeed")});
    QCOMPARE(refused.errorName(), serviceError + QStringLiteral("Busy"));
    QCOMPARE(refused.errorMessage(), QStringLiteral("Another program has an open attempt for this user"));
    QTRY_VERIFY(isTold(attempt, QStringLiteral("replaced")));
}

void TstAttemptQueue::cancelling()
{
    const BusUser user(alice);
    const BusUser same(alice);
    const BusUser other(bob);
    const qulonglong attempt = open(user, alice, "");
    for (const BusUser *stranger : {&same, &other})
        QCOMPARE(stranger->error(QStringLiteral("Cancel"), {attempt}), serviceError + QStringLiteral("NoAttempt"));
    QCOMPARE(user.error(QStringLiteral("Cancel"), {attempt}), QString());
    QTRY_VERIFY(isTold(attempt, QStringLiteral("AttemptGivenUp(1000, puppet, cancelled)")));
    QCOMPARE(user.error(QStringLiteral("Cancel"), {attempt}), serviceError + QStringLiteral("NoAttempt"));
    // Root can also cancel a queued attempt.
    open(other, bob, "");
    const qulonglong waiting = open(user, alice, "");
    QTRY_COMPARE(state(alice), QStringLiteral("queued"));
    QCOMPARE(m_root->error(QStringLiteral("Cancel"), {waiting}), QString());
    QTRY_COMPARE(state(alice), QStringLiteral("idle"));
    QCOMPARE(state(bob), QStringLiteral("pending"));
}

void TstAttemptQueue::onlyTheBusSaysWhoLeaves()
{
    const BusUser user(alice);
    const BusUser other(bob);
    open(user, alice, "");
    QTRY_COMPARE(state(alice), QStringLiteral("pending"));
    const QString name = user.connection().baseService();
    QDBusMessage claim =
        QDBusMessage::createTargetedSignal(QStringLiteral("qarv.AuthService"), QStringLiteral("/org/freedesktop/DBus"),
                                           QStringLiteral("org.freedesktop.DBus"), QStringLiteral("NameOwnerChanged"));
    claim.setArguments({name, name, QString()});
    QVERIFY(other.connection().send(claim));
    // The daemon handles messages in order.
    QCOMPARE(other.error(QStringLiteral("GetMethods")), QString());
    QCOMPARE(state(alice), QStringLiteral("pending"));
}

void TstAttemptQueue::callerGoes_data()
{
    QTest::addColumn<uint>("caller");
    QTest::addColumn<QByteArray>("script");
    QTest::addColumn<QString>("state");

    QTest::newRow("at work") << alice << QByteArray() << "pending";
    QTest::newRow("waiting for input") << alice << QByteArray("input") << "challenge";
    QTest::newRow("root's at work") << uint(0) << QByteArray() << "pending";
}

void TstAttemptQueue::callerGoes()
{
    QFETCH(uint, caller);
    QFETCH(QByteArray, script);
    qulonglong attempt = 0;
    {
        const BusUser user(caller);
        attempt = open(user, alice, script.constData());
        QFETCH(QString, state);
        QTRY_COMPARE(this->state(alice), state);
    }
    QTRY_VERIFY(isTold(attempt, QStringLiteral("AttemptGivenUp(1000, puppet, caller-gone)")));
    QTRY_COMPARE(state(alice), QStringLiteral("idle"));
    // A late outcome is ignored.
    m_root->error(QStringLiteral("SetUserMethodOption"),
                  {alice, puppet, QStringLiteral("do"), QVariant::fromValue(QDBusVariant(QStringLiteral("succeed")))});
    QCOMPARE(state(alice), QStringLiteral("idle"));
    QTRY_COMPARE(told(attempt).constLast(), QStringLiteral("StateChanged(1000, idle, {})"));
}

void TstAttemptQueue::timeLimit_data()
{
    QTest::addColumn<QByteArray>("script");
    QTest::addColumn<QString>("state");

    QTest::newRow("at work") << QByteArray() << "pending";
    QTest::newRow("started again") << QByteArray("restart") << "challenge";
    QTest::newRow("waiting for input") << QByteArray("input") << "challenge";
}

void TstAttemptQueue::timeLimit()
{
    QFETCH(QByteArray, script);
    start({QStringLiteral("--attempt-timeout=2")});
    const BusUser user(alice);
    const qulonglong attempt = open(user, alice, script.constData());
    QFETCH(QString, state);
    QTRY_COMPARE(this->state(alice), state);
    QTRY_VERIFY(isTold(attempt, QStringLiteral("AttemptGivenUp(1000, puppet, timed-out)")));
    QTRY_COMPARE(told(attempt).constLast(), QStringLiteral("StateChanged(1000, idle, {})"));
}

void TstAttemptQueue::timeLimitByDefault()
{
    const BusUser user(alice);
    // At ten moments of a second, because a timer that rounds to seconds is late after some of them only.
    for (int i = 0; i < 10; ++i, QTest::qWait(100)) {
        open(user, alice, "input"); // which also renews the time
        QTRY_COMPARE(state(alice), QStringLiteral("challenge"));
        QTRY_VERIFY(pollTimeout(m_authd.pid()) > 50000);
        QVERIFY(pollTimeout(m_authd.pid()) <= 60000);
    }
}

void TstAttemptQueue::enteringRenewsTheTime()
{
    start({QStringLiteral("--attempt-timeout=3")});
    const BusUser user(alice);
    QElapsedTimer clock;
    clock.start();
    const qulonglong attempt = open(user, alice, "input");
    // The time itself is what is tested here.
    QTest::qWait(2000);
    QCOMPARE(open(user, alice, ""), attempt);
    QTRY_VERIFY(isTold(attempt, QStringLiteral("timed-out")));
    QVERIFY2(clock.elapsed() >= 5000, qPrintable(QString::number(clock.elapsed())));
}

void TstAttemptQueue::lockEndsTheAttempt()
{
    const BusUser user(alice);
    const qulonglong attempt = open(user, alice, "input");
    QTRY_COMPARE(state(alice), QStringLiteral("challenge"));
    m_root->error(QStringLiteral("SetUserMethodOption"),
                  {alice, puppet, QStringLiteral("do"), QVariant::fromValue(QDBusVariant(QStringLiteral("lock:-1")))});
    QTRY_VERIFY(isTold(attempt, QStringLiteral("AttemptGivenUp(1000, puppet, locked)")));
    QTRY_VERIFY(told(attempt).constLast().startsWith(QStringLiteral("StateChanged(1000, locked")));
    QCOMPARE(user.error(QStringLiteral("Cancel"), {attempt}), serviceError + QStringLiteral("NoAttempt"));
}

void TstAttemptQueue::queue()
{
    const BusUser callerOfAlice(alice);
    const BusUser callerOfBob(bob);
    const BusUser callerOfCarol(carol);
    const qulonglong first = open(callerOfAlice, alice, "");
    const qulonglong second = open(callerOfBob, bob, "");
    const qulonglong third = open(callerOfCarol, carol, "succeed");
    QTRY_COMPARE(state(carol), QStringLiteral("queued"));
    QCOMPARE(state(bob), QStringLiteral("queued"));
    QTRY_COMPARE(told(third), QStringList{QStringLiteral("StateChanged(1002, queued, {method=puppet})")});

    // Users take turns, and a user who has just had a turn goes to the back of the queue.
    QCOMPARE(callerOfAlice.error(QStringLiteral("Cancel"), {first}), QString());
    const qulonglong again = open(callerOfAlice, alice, "succeed");
    QTRY_COMPARE(state(bob), QStringLiteral("pending"));
    QCOMPARE(state(alice), QStringLiteral("queued"));
    QCOMPARE(callerOfBob.error(QStringLiteral("Cancel"), {second}), QString());
    QTRY_VERIFY(isTold(again, QStringLiteral("Authenticated(1000, puppet)")));
    const int ofCarol = m_reports->texts.indexOf(QStringLiteral("Authenticated(1002, puppet)"));
    const int ofAlice = m_reports->texts.indexOf(QStringLiteral("Authenticated(1000, puppet)"));
    QVERIFY(ofCarol >= 0 && ofCarol < ofAlice);
    QCOMPARE(m_reports->attempts.at(ofAlice), again);
    // The method was never called for the attempt that was given up in the queue.
    QCOMPARE(m_authd.log().count("event=attempt-begun"), 4);
    // Waiting was reported only once.
    QCOMPARE(told(third).filter(QStringLiteral("queued")).size(), 1);
}

void TstAttemptQueue::waitsAgain()
{
    const BusUser callerOfAlice(alice);
    const BusUser callerOfBob(bob);
    const BusUser callerOfCarol(carol);
    const qulonglong first = open(callerOfBob, bob, "");
    const qulonglong attempt = open(callerOfAlice, alice, "input");
    const QString queued = QStringLiteral("StateChanged(1000, queued, {method=puppet})");
    QTRY_COMPARE(told(attempt), QStringList{queued});
    QCOMPARE(callerOfBob.error(QStringLiteral("Cancel"), {first}), QString());
    QTRY_COMPARE(state(alice), QStringLiteral("challenge"));
    const qulonglong second = open(callerOfBob, bob, "");
    QTRY_COMPARE(state(bob), QStringLiteral("pending"));
    open(callerOfCarol, carol, "succeed");
    QCOMPARE(open(callerOfAlice, alice, "succeed"), attempt);
    QTRY_COMPARE(told(attempt).count(queued), 2);
    // The user who has had no turn yet comes first.
    callerOfBob.call(QStringLiteral("Cancel"), {second});
    QTRY_VERIFY(isTold(attempt, QStringLiteral("Authenticated")));
    const int ofCarol = m_reports->texts.indexOf(QStringLiteral("Authenticated(1002, puppet)"));
    QVERIFY(ofCarol >= 0 && ofCarol < m_reports->texts.indexOf(QStringLiteral("Authenticated(1000, puppet)")));
}

void TstAttemptQueue::rootComesFirst()
{
    const BusUser callerOfAlice(alice);
    const BusUser callerOfBob(bob);
    QElapsedTimer turn;
    turn.start();
    const qulonglong first = open(callerOfAlice, alice, "");
    open(callerOfBob, bob, "succeed");
    QTRY_COMPARE(state(bob), QStringLiteral("queued"));
    QElapsedTimer clock;
    clock.start();
    open(*m_root, carol, "succeed");
    QTRY_VERIFY(isTold(first, QStringLiteral("AttemptGivenUp(1000, puppet, cut-short)")));
    QTRY_COMPARE(state(carol), QStringLiteral("authenticated"));
    QVERIFY2(turn.elapsed() >= 3000, qPrintable(QString::number(turn.elapsed())));
    QVERIFY2(clock.elapsed() < 4000, qPrintable(QString::number(clock.elapsed())));
    QTRY_VERIFY(m_reports->texts.contains(QStringLiteral("Authenticated(1001, puppet)")));
    QVERIFY(m_reports->texts.indexOf(QStringLiteral("Authenticated(1002, puppet)"))
            < m_reports->texts.indexOf(QStringLiteral("Authenticated(1001, puppet)")));
}

void TstAttemptQueue::rootTriesAgainFirst()
{
    // As long as the user's turn lasts.
    const BusUser user(bob);
    const qulonglong first = open(*m_root, alice, "");
    QTRY_COMPARE(told(first).size(), 1); // It has begun.
    open(user, bob, "succeed");
    open(*m_root, alice, "succeed");
    QTRY_VERIFY(m_reports->texts.contains(QStringLiteral("Authenticated(1001, puppet)")));
    const int ofAlice = m_reports->texts.indexOf(QStringLiteral("Authenticated(1000, puppet)"));
    QVERIFY(ofAlice >= 0 && ofAlice < m_reports->texts.indexOf(QStringLiteral("Authenticated(1001, puppet)")));
}

void TstAttemptQueue::rootTriesAgainAfterItsTurn()
{
    // Then another user comes first, even one who has not waited yet.
    const BusUser user(bob);
    QCOMPARE(user.error(QStringLiteral("GetMethods")), QString()); // The daemon need not ask the bus who calls.
    const qulonglong first = open(*m_root, alice, "");
    QTRY_COMPARE(told(first).size(), 1); // It has begun.
    // The time itself is what is tested here.
    QTest::qWait(4500); // A turn lasts 4 seconds.
    const auto attempt = [](uint uid) {
        return BusUser::message(QStringLiteral("Authenticate"), {uid, puppet, script("succeed")});
    };
    kill(pid_t(m_authd.pid()), SIGSTOP);
    user.connection().asyncCall(attempt(bob));
    // The bus keeps messages in order, so after this reply it has accepted the call.
    QVERIFY(user.connection().interface()->isServiceRegistered(user.connection().baseService()));
    m_authd.sendAtOnce(*m_root, {attempt(alice)});
    QTRY_VERIFY(m_reports->texts.contains(QStringLiteral("Authenticated(1000, puppet)")));
    const int ofBob = m_reports->texts.indexOf(QStringLiteral("Authenticated(1001, puppet)"));
    QVERIFY(ofBob >= 0 && ofBob < m_reports->texts.indexOf(QStringLiteral("Authenticated(1000, puppet)")));
}

void TstAttemptQueue::rootDoesNotWaitForChallenges()
{
    const BusUser user(alice);
    const qulonglong attempt = open(user, alice, "input");
    QTRY_COMPARE(state(alice), QStringLiteral("challenge"));
    const qulonglong other = open(*m_root, bob, "succeed");
    QTRY_VERIFY(isTold(other, QStringLiteral("Authenticated(1001, puppet)")));
    QVERIFY(!isTold(attempt, QStringLiteral("AttemptGivenUp")));
    QVERIFY(m_reports->texts.filter(QStringLiteral("queued")).isEmpty());
    QCOMPARE(open(user, alice, "succeed"), attempt);
    QTRY_COMPARE(state(alice), QStringLiteral("authenticated"));
}

void TstAttemptQueue::longAttemptIsCutShort_data()
{
    QTest::addColumn<uint>("holder");
    QTest::addColumn<uint>("waiter");
    QTest::addColumn<int>("shortest"); // How long it lasts at least, in milliseconds.

    QTest::newRow("a user's for a user's") << alice << bob << 4000;
    QTest::newRow("a user's for root's") << alice << uint(0) << 3000;
    QTest::newRow("root's for a user's") << uint(0) << bob << 4000;
    QTest::newRow("root's for root's") << uint(0) << uint(0) << 4000;
}

void TstAttemptQueue::longAttemptIsCutShort()
{
    QFETCH(uint, holder);
    QFETCH(uint, waiter);
    const BusUser holding(holder);
    const BusUser waiting(waiter);
    QElapsedTimer turn;
    turn.start();
    const qulonglong attempt = open(holding, alice, "restart");
    QTRY_COMPARE(state(alice), QStringLiteral("challenge"));
    QElapsedTimer clock;
    clock.start();
    const qulonglong next = open(waiting, bob, "succeed");
    QTRY_VERIFY_WITH_TIMEOUT(isTold(next, QStringLiteral("Authenticated")), 20000);
    QVERIFY2(clock.elapsed() < longestWait, qPrintable(QString::number(clock.elapsed())));
    QFETCH(int, shortest);
    QVERIFY2(turn.elapsed() >= shortest, qPrintable(QString::number(turn.elapsed())));
    QTRY_VERIFY(isTold(attempt, QStringLiteral("AttemptGivenUp(1000, puppet, cut-short)")));
}

void TstAttemptQueue::outcomeJustInTime_data()
{
    QTest::addColumn<QStringList>("arguments");
    QTest::addColumn<bool>("isAwaited");
    QTest::newRow("for the time limit") << QStringList{QStringLiteral("--attempt-timeout=4")} << false;
    QTest::newRow("for the turn") << QStringList() << true;
}

// The daemon reads a message with the outcome when it finds that the time is up.
void TstAttemptQueue::outcomeJustInTime()
{
    QFETCH(QStringList, arguments);
    QFETCH(bool, isAwaited);
    start(arguments);
    const BusUser user(alice);
    const BusUser other(bob);
    const qulonglong attempt = open(user, alice, "");
    QTRY_COMPARE(told(attempt).size(), 1); // It has begun.
    if (isAwaited)
        open(other, bob, "");
    kill(pid_t(m_authd.pid()), SIGSTOP);
    m_root->connection().asyncCall(BusUser::message(
        QStringLiteral("SetUserMethodOption"),
        {alice, puppet, QStringLiteral("do"), QVariant::fromValue(QDBusVariant(QStringLiteral("succeed")))}));
    // The time itself is what is tested here.
    QTest::qWait(4000);
    kill(pid_t(m_authd.pid()), SIGCONT);
    QTRY_VERIFY(isTold(attempt, QStringLiteral("Authenticated")));
    QVERIFY(!isTold(attempt, QStringLiteral("AttemptGivenUp")));
}

void TstAttemptQueue::aloneNobodyIsCutShort()
{
    const BusUser user(alice);
    const qulonglong attempt = open(user, alice, "");
    // The time itself is what is tested here.
    QTest::qWait(6000);
    QCOMPARE(state(alice), QStringLiteral("pending"));
    // Another user's request does not end it at once either.
    const BusUser other(bob);
    QElapsedTimer clock;
    clock.start();
    open(other, bob, "succeed");
    QTRY_VERIFY(isTold(attempt, QStringLiteral("cut-short")));
    QVERIFY2(clock.elapsed() > 3500, qPrintable(QString::number(clock.elapsed())));
}

void TstAttemptQueue::eachTurnWithoutWaitersIsNew()
{
    const BusUser user(alice);
    open(user, alice, "");
    // The time itself is what is tested here.
    QTest::qWait(4000);
    QElapsedTimer turn;
    turn.start();
    const qulonglong attempt = open(user, alice, "");
    QTRY_COMPARE(told(attempt).size(), 1); // It has begun.
    open(*m_root, bob, "succeed");
    QTRY_VERIFY(isTold(attempt, QStringLiteral("cut-short")));
    QVERIFY2(turn.elapsed() >= 3000, qPrintable(QString::number(turn.elapsed())));
}

void TstAttemptQueue::reopeningKeepsNobodyOut_data()
{
    QTest::addColumn<uint>("reopener");
    QTest::addColumn<uint>("waiter");

    QTest::newRow("a user's, another user's") << alice << bob;
    QTest::newRow("a user's, root's") << alice << uint(0);
    // Programs that root runs on a user's behalf, such as a console login.
    QTest::newRow("root's, another user's") << uint(0) << bob;
    QTest::newRow("root's, root's") << uint(0) << uint(0);
}

void TstAttemptQueue::reopeningKeepsNobodyOut()
{
    QFETCH(uint, reopener);
    QFETCH(uint, waiter);
    const BusUser reopening(reopener);
    const BusUser waiting(waiter);
    QTimer timer;
    connect(&timer, &QTimer::timeout, &timer, [&reopening] { open(reopening, alice, ""); });
    open(reopening, alice, "");
    timer.start(250);
    for (int round = 0; round < 4; ++round) {
        QElapsedTimer clock;
        clock.start();
        const qulonglong attempt = open(waiting, bob, "succeed");
        QTRY_VERIFY_WITH_TIMEOUT(isTold(attempt, QStringLiteral("Authenticated")), 20000);
        QVERIFY2(clock.elapsed() < longestWait, qPrintable(QString::number(clock.elapsed())));
    }
}

void TstAttemptQueue::tooManyAttempts()
{
    start({QStringLiteral("--any-account")});
    QVector<uint> uids;
    setpwent();
    while (const passwd *entry = getpwent()) {
        if (entry->pw_uid != 0 && entry->pw_uid != alice && entry->pw_uid != bob)
            uids << entry->pw_uid;
    }
    endpwent();
    QVERIFY(uids.size() >= 16);
    uids.resize(16);
    for (const uint uid : qAsConst(uids))
        QVERIFY2(open(*m_root, uid, "") != 0, qPrintable(QString::number(uid)));
    const QString limitsExceeded = QStringLiteral("org.freedesktop.DBus.Error.LimitsExceeded");
    const QVariantList another = {alice, puppet, script("succeed")};
    const auto isRefused = [&limitsExceeded](const QDBusMessage &reply, const char *why) {
        return reply.errorName() == limitsExceeded && reply.errorMessage() == QLatin1String(why);
    };
    QVERIFY(isRefused(m_root->call(QStringLiteral("Authenticate"), another), "The caller has too many open attempts"));
    // Other callers have their own limits.
    QCOMPARE(BusUser(0).error(QStringLiteral("Authenticate"), another), QString());

    // The rate at which an ordinary user can open attempts is limited.
    const BusUser user(bob);
    QVERIFY(open(user, bob, "") != 0);
    // A pause allows no more than the burst. The time itself is what is tested here.
    QTest::qWait(4000);
    QElapsedTimer clock;
    clock.start();
    qint64 opened = 0;
    while (open(user, bob, "") != 0) // Without pauses, because the allowance grows by a few every second.
        ++opened;
    QVERIFY(isRefused(user.call(QStringLiteral("Authenticate"), {bob, puppet, script("")}),
                      "The user opens too many attempts"));
    QVERIFY2(opened >= 50 && opened <= 50 + 5 * (clock.elapsed() / 1000 + 1), qPrintable(QString::number(opened)));
}

QTEST_GUILESS_MAIN(TstAttemptQueue)

#include "tst_attemptqueue.moc"
