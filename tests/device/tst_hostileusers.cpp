// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#include "device/authd.h"
#include "support/longestwait.h"
#include "support/testdevice.h"
#include "support/wiper.h"

#include <QDBusArgument>
#include <QDBusConnectionInterface>
#include <QDBusPendingCall>
#include <QDeadlineTimer>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QJsonArray>
#include <QScopedPointer>
#include <QTest>

#include <csignal>
#include <cstdio>
#include <cstring>
#include <memory>
#include <random>
#include <unistd.h>

namespace {

const QString kavetMethod = QStringLiteral("kavet");
const uint alice = TestDevice::alice;
const uint bob = TestDevice::bob;
const uint wwwData = 33;
const uint dave = 1003; // Has no login shell.
const QString serviceError = QStringLiteral("qarv.AuthService.Error.");
const QString limitsExceeded = QStringLiteral("org.freedesktop.DBus.Error.LimitsExceeded");
constexpr char flood[] = "--flood";
const QString callsFlood = QStringLiteral("calls");
const QString fastFlood = QStringLiteral("calls as fast as the bus takes them");
const QString attemptsFlood = QStringLiteral("attempts");
const QString hugeFlood = QStringLiteral("huge calls");
const QString numbersFlood = QStringLiteral("long lists of a type that no call accepts");
constexpr int callsByDefault = 3000;

QVariantMap password(const QString &text)
{
    return {{QStringLiteral("password"), text}};
}

QVariant variant(const QVariant &value)
{
    return QVariant::fromValue(QDBusVariant(value));
}

/// Sends calls endlessly, without waiting for replies, in one of the ways below.
int floodService(uint uid, const QString &way)
{
    const QDBusConnection bus = QDBusConnection::systemBus();
    QVector<QDBusMessage> calls = {
        BusUser::message(QStringLiteral("GetMethods"), {}),
        BusUser::message(QStringLiteral("GetState"), {uid}),
        BusUser::message(QStringLiteral("GetMethodOptions"), {kavetMethod}),
        BusUser::message(QStringLiteral("GetUserMethodOptions"), {uid, kavetMethod}),
        BusUser::message(QStringLiteral("Unlock"), {uid}),
        BusUser::message(QStringLiteral("Subscribe"), {}),
        BusUser::message(QStringLiteral("Cancel"), {qulonglong(1)}),
        QDBusMessage::createMethodCall(QStringLiteral("qarv.AuthService"), QStringLiteral("/qarv/AuthService"),
                                       QStringLiteral("org.freedesktop.DBus.Introspectable"),
                                       QStringLiteral("Introspect")),
    };
    // The rate that the service must withstand.
    int callsPerSecond = 10000;
    if (way == fastFlood) {
        callsPerSecond = 10000000;
        calls.resize(4);
    } else if (way == attemptsFlood) {
        calls << BusUser::message(QStringLiteral("Authenticate"),
                                  {uid, kavetMethod, password(QStringLiteral("never"))});
    } else if (way == numbersFlood) {
        callsPerSecond = 20;
#ifdef __SANITIZE_ADDRESS__ // It sets freed memory aside, and takes long over large blocks.
        constexpr int count = 20000;
#else
        constexpr int count = 1000000;
#endif
        QDBusArgument numbers;
        numbers.beginArray(QMetaType::Int);
        for (int i = 0; i < count; ++i)
            numbers << i;
        numbers.endArray();
        calls = {BusUser::message(QStringLiteral("SetUserMethodOption"), {uid, kavetMethod, QStringLiteral("attempts"),
                                                                          variant(QVariant::fromValue(numbers))})};
    } else if (way == hugeFlood) {
        callsPerSecond = 20;
        QVariantMap entries;
        QStringList list;
        for (int i = 0; i < 100000; ++i) {
            entries.insert(QString::number(i), uchar(1));
            list << QString();
        }
        calls = {BusUser::message(QStringLiteral("Authenticate"), {uid, kavetMethod, entries}),
                 BusUser::message(QStringLiteral("SetUserMethodOption"),
                                  {uid, kavetMethod, QStringLiteral("attempts"), variant(list)}),
                 BusUser::message(QStringLiteral("GetMethodInfo"), {QString(1000000, QLatin1Char('x'))})};
    }
    QElapsedTimer clock;
    clock.start();
    for (qint64 sent = 0;; ++sent) {
        bus.send(calls.at(int(sent % calls.size())));
        if (sent == qMin(callsPerSecond, 10000)) {
            std::puts("flooding");
            std::fflush(stdout);
        }
        const qint64 ahead = sent * 1000 / callsPerSecond - clock.elapsed();
        if (ahead > 1)
            usleep(useconds_t(ahead * 1000));
    }
}

/// How many calls of one user the daemon may have answered since `clock` started.
int mostCalls(const QElapsedTimer &clock)
{
    constexpr int burst = 1000;
    constexpr int perSecond = 200;
    return burst + perSecond * int(clock.elapsed() / 1000 + 1);
}

} // namespace

/// Attacks of a user on others, from processes of that user.
class TstHostileUsers : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase()
    {
        QVERIFY(startSystemBus());
        // The first entry counts: the machine may have a user of the same number.
        const QString accounts = QStringLiteral("/etc/passwd");
        QVERIFY(TestDevice::writeFile(accounts, "dave:x:1003:1003::/home/dave:/usr/sbin/nologin\n"
                                                    + TestDevice::readFile(accounts)));
    }

    void init()
    {
        TestDevice::reset();
        setClientScript();
        QVERIFY(m_authd.start());
        m_root.reset(new BusUser(0));
    }

    void cleanup()
    {
        const int exitCode = m_authd.isRunning() ? m_authd.stop(SIGTERM) : 0;
        if (exitCode != 0 || QTest::currentTestFailed())
            qWarning("The daemon wrote:\n%s", m_authd.log().right(20000).constData());
        QCOMPARE(exitCode, 0);
    }

    void stoppedClient();
    void factsOfOthers();
    void certificatesOfOthers();
    void unpluggedTokenAtTheLimit();
    void plantedDirectoryAtTheLimit();
    void accountsWithoutLogin();
    void accountRulesChange_data();
    void accountRulesChange();
    void defaultRange();
    void everyAccount();
    void tooManyCalls();
    void tooManyWaitingCalls();
    void firstCallsOfConnections();
    void refusalsInTheLog();
    void tooManySubscribers();
    void tooMuchData_data();
    void tooMuchData();
    void enoughData();
    void repeatedKey();
    void flooding_data();
    void flooding();
    void randomCalls();

private:
    QString authenticate(const BusUser &caller, uint uid, const QString &text) const
    {
        return caller.error(QStringLiteral("Authenticate"), {uid, kavetMethod, password(text)});
    }
    /// Sends `times` calls at once, at most the 128 that the bus allows. Returns how many of them are not refused.
    int answered(const BusUser &user, const QDBusMessage &call, int times) const
    {
        QVector<QDBusPendingCall> calls = m_authd.sendAtOnce(user, QVector<QDBusMessage>(times, call));
        int count = 0;
        for (QDBusPendingCall &pending : calls) {
            pending.waitForFinished();
            count += pending.error().name() != limitsExceeded
                     || pending.error().message() != QLatin1String("The caller makes too many calls");
        }
        return count;
    }
    QString state(uint uid) const
    {
        return m_root->call(QStringLiteral("GetState"), {uid}).arguments().value(1).toString();
    }

    Authd m_authd;
    QScopedPointer<BusUser> m_root;
};

void TstHostileUsers::stoppedClient()
{
    const BusUser user(alice);
    QCOMPARE(authenticate(user, alice, QStringLiteral("never")), QString());
    QTRY_COMPARE(TestDevice::calls().size(), 1);
    const int client = TestDevice::launches().constLast().value(QLatin1String("pid")).toInt();
    QCOMPARE(QProcess::execute(QStringLiteral("setpriv"),
                               {QStringLiteral("--reuid=alice"), QStringLiteral("--clear-groups"),
                                QStringLiteral("kill"), QStringLiteral("-STOP"), QString::number(client)}),
             0);
    Reports reports(*m_root);
    QElapsedTimer clock;
    clock.start();
    QCOMPARE(authenticate(*m_root, bob, QStringLiteral("success")), QString());
    QTRY_VERIFY(reports.texts.contains(QStringLiteral("StateChanged(1001, pending, {method=kavet})")));
    QVERIFY2(clock.elapsed() < 5000, qPrintable(QString::number(clock.elapsed())));
    QTRY_VERIFY_WITH_TIMEOUT(reports.texts.contains(QStringLiteral("Authenticated(1001, kavet)")), 20000);
}

void TstHostileUsers::factsOfOthers()
{
    const BusUser user(bob);
    Reports all(*m_root);
    // A user's match rules do not receive signals that are sent to others.
    const Reports ofBob(user);
    const BusUser unsubscribed(alice);
    int heard = 0;
    for (int i = 0; i < 3; ++i) {
        QCOMPARE(authenticate(unsubscribed, alice, i == 1 ? QStringLiteral("failed") : QStringLiteral("success")),
                 QString());
        QTRY_COMPARE(state(alice), i == 1 ? QStringLiteral("challenge") : QStringLiteral("authenticated"));
    }
    QTRY_VERIFY((heard = all.all.size()) > 9);
    QCOMPARE(user.error(QStringLiteral("GetMethods")), QString());
    QCoreApplication::processEvents();
    for (const QDBusMessage &report : ofBob.all)
        QVERIFY2(report.member() == QLatin1String("MethodOptionChanged")
                     && report.arguments().at(1).toString() != QLatin1String("certs"),
                 qPrintable(report.member()));
}

void TstHostileUsers::certificatesOfOthers()
{
    setClientScript(QJsonObject{{QStringLiteral("certs"), QJsonArray{QStringLiteral("serial 4711")}}});
    const BusUser ofAlice(alice);
    const BusUser ofBob(bob);
    const Reports toAlice(ofAlice);
    const Reports toBob(ofBob);
    QCOMPARE(authenticate(ofAlice, alice, QStringLiteral("success")), QString());
    QTRY_COMPARE(state(alice), QStringLiteral("authenticated"));

    const auto certs = [](const BusUser &reader) {
        return reader.call(QStringLiteral("GetMethodOption"), {kavetMethod, QStringLiteral("certs")})
            .arguments()
            .value(0)
            .value<QDBusVariant>()
            .variant()
            .toStringList();
    };
    const auto isTold = [](const Reports &reports) {
        for (const QDBusMessage &report : reports.all) {
            if (report.member() == QLatin1String("MethodOptionChanged")
                && report.arguments().at(1).toString() == QLatin1String("certs"))
                return true;
        }
        return false;
    };
    const int calls = TestDevice::calls().size();
    QCOMPARE(certs(ofBob), QStringList());
    const QDBusMessage all = ofBob.call(QStringLiteral("GetMethodOptions"), {kavetMethod});
    QCOMPARE(qdbus_cast<QVariantMap>(all.arguments().constFirst()).value(QStringLiteral("certs")).toStringList(),
             QStringList());
    QCOMPARE(TestDevice::calls().size(), calls); // The refused calls did not reach alice's client.
    for (const BusUser *reader : {&ofAlice, static_cast<const BusUser *>(m_root.data())}) {
        QCOMPARE(certs(*reader), QStringList{QStringLiteral(".")});
        QTRY_VERIFY(isTold(toAlice));
    }
    QVERIFY(!isTold(toBob));
}

void TstHostileUsers::unpluggedTokenAtTheLimit()
{
    QCOMPARE(
        m_root->error(QStringLiteral("SetMethodOption"), {kavetMethod, QStringLiteral("max-attempts"), variant(1)}),
        QString());
    Reports reports(*m_root);
    for (const char *answer : {"nousb", "connerr", "error", "errauthtype", "firstcererr"}) {
        reports.texts.clear();
        QCOMPARE(authenticate(*m_root, bob, QString::fromLatin1(answer)), QString());
        QTRY_VERIFY(!reports.texts.filter(QStringLiteral("AuthenticationFailed(1001")).isEmpty());
        QCOMPARE(state(bob), QStringLiteral("challenge"));
    }
    const QDBusMessage mark =
        m_root->call(QStringLiteral("GetUserMethodOption"), {bob, kavetMethod, QStringLiteral("delayed-deletion")});
    QCOMPARE(reportText(mark.arguments().value(0)), QStringLiteral("false"));
}

void TstHostileUsers::plantedDirectoryAtTheLimit()
{
    // alice's client was started first. alice writes the policy and plants a file at bob's path.
    QCOMPARE(authenticate(*m_root, alice, QStringLiteral("success")), QString());
    QTRY_COMPARE(state(alice), QStringLiteral("authenticated"));
    QCOMPARE(QProcess::execute(QStringLiteral("setpriv"),
                               {QStringLiteral("--reuid=alice"), QStringLiteral("--regid=auth-factor"),
                                QStringLiteral("--clear-groups"), QStringLiteral("sh"), QStringLiteral("-c"),
                                QStringLiteral("cd %1 && printf '[General]\\nmax-attempts=1\\n' >current.conf && "
                                               "rm -f 1001.conf && mkdir -p 1001.conf/full")
                                    .arg(TestDevice::sharedDirectory)}),
             0);
    QTRY_COMPARE(
        reportText(m_root->call(QStringLiteral("GetMethodOption"), {kavetMethod, QStringLiteral("max-attempts")})
                       .arguments()
                       .value(0)),
        QStringLiteral("1"));
    Reports reports(*m_root);
    QCOMPARE(authenticate(*m_root, bob, QStringLiteral("success")), QString());
    QTRY_VERIFY_WITH_TIMEOUT(!reports.texts.filter(QStringLiteral("(1001, kavet")).isEmpty(), 20000);
    QVERIFY(state(bob) != QLatin1String("locked"));
    const QDBusMessage mark =
        m_root->call(QStringLiteral("GetUserMethodOption"), {bob, kavetMethod, QStringLiteral("delayed-deletion")});
    QCOMPARE(reportText(mark.arguments().value(0)), QStringLiteral("false"));
}

void TstHostileUsers::accountsWithoutLogin()
{
    const QVariant value = variant(1);
    for (const uint uid : {wwwData, dave}) {
        const BusUser user(uid);
        for (const BusUser *caller : {&user, static_cast<const BusUser *>(m_root.data())}) {
            for (const auto &call : {BusUser::message(QStringLiteral("Authenticate"), {uid, kavetMethod, password({})}),
                                     BusUser::message(QStringLiteral("RequestChallenge"), {uid, kavetMethod}),
                                     BusUser::message(QStringLiteral("GetState"), {uid}),
                                     BusUser::message(QStringLiteral("GetUserMethodOptions"), {uid, kavetMethod}),
                                     BusUser::message(QStringLiteral("SetUserMethodOption"),
                                                      {uid, kavetMethod, QStringLiteral("attempts"), value})})
                QCOMPARE(caller->error(call.member(), call.arguments()), serviceError + QStringLiteral("NoSuchUser"));
        }
        QCOMPARE(m_root->error(QStringLiteral("SessionStarted"), {uid, true}),
                 serviceError + QStringLiteral("NoSuchUser"));
    }
    QCOMPARE(TestDevice::launches().size(), 0);
    QVERIFY(!QFile::exists(TestDevice::sharedDirectory));
}

void TstHostileUsers::accountRulesChange_data()
{
    QTest::addColumn<QString>("path");
    QTest::addColumn<QByteArray>("content");
    QTest::addColumn<uint>("user");
    QTest::addColumn<uint>("other");
    QTest::newRow("shells") << QStringLiteral("/etc/shells") << QByteArray("/usr/sbin/nologin\n") << dave << bob;
    QTest::newRow("range") << QStringLiteral("/etc/login.defs") << QByteArray("UID_MIN 1001\nUID_MAX 1001\n") << bob
                           << alice;
    QTest::newRow("end of the range") << QStringLiteral("/etc/login.defs")
                                      << QByteArray("UID_MIN\nUID_MIN many\nUID_MAX 1000\nUID_MAX many\n") << alice
                                      << bob;
    QTest::newRow("hexadecimal") << QStringLiteral("/etc/login.defs") << QByteArray("UID_MIN 0x3e9\n") << bob << alice;
}

void TstHostileUsers::accountRulesChange()
{
    QFETCH(QString, path);
    QFETCH(QByteArray, content);
    QFETCH(uint, user);
    QFETCH(uint, other);
    QCOMPARE(m_root->error(QStringLiteral("GetState"), {other}), QString());
    const QByteArray before = TestDevice::readFile(path);
    QVERIFY(QFile::remove(path)); // In an ordinary user's device, nobody may write to the system's file.
    QVERIFY(TestDevice::writeFile(path, content));
    const QString ofUser = m_root->error(QStringLiteral("GetState"), {user});
    const QString ofOther = m_root->error(QStringLiteral("GetState"), {other});
    QVERIFY(TestDevice::writeFile(path, before));
    QCOMPARE(ofUser, QString());
    QCOMPARE(ofOther, serviceError + QStringLiteral("NoSuchUser"));
    QCOMPARE(m_root->error(QStringLiteral("GetState"), {other}), QString());
}

void TstHostileUsers::defaultRange()
{
    const QString definitions = QStringLiteral("/etc/login.defs");
    const QString accounts = QStringLiteral("/etc/passwd");
    const QByteArray formerDefinitions = TestDevice::readFile(definitions);
    const QByteArray formerAccounts = TestDevice::readFile(accounts);
    const auto write = [](const QString &path, const QByteArray &content) {
        return QFile::remove(path) && TestDevice::writeFile(path, content);
    };
    QVERIFY(write(definitions, "MAIL_DIR /var/mail\n"));
    QVERIFY(write(accounts, "before:x:999:999::/:/bin/sh\n" + formerAccounts
                                + "last:x:60000:60000::/:/bin/sh\nbeyond:x:60001:60001::/:/bin/sh\n"));
    const QString ofBefore = m_root->error(QStringLiteral("GetState"), {999u});
    const QString ofFirst = m_root->error(QStringLiteral("GetState"), {alice});
    const QString ofLast = m_root->error(QStringLiteral("GetState"), {60000u});
    const QString ofBeyond = m_root->error(QStringLiteral("GetState"), {60001u});
    QVERIFY(write(definitions, formerDefinitions));
    QVERIFY(write(accounts, formerAccounts));
    QCOMPARE(ofFirst, QString());
    QCOMPARE(ofLast, QString());
    QCOMPARE(ofBefore, serviceError + QStringLiteral("NoSuchUser"));
    QCOMPARE(ofBeyond, serviceError + QStringLiteral("NoSuchUser"));
}

void TstHostileUsers::tooManyCalls()
{
    const QDBusMessage introspect = QDBusMessage::createMethodCall(
        QStringLiteral("qarv.AuthService"), QStringLiteral("/qarv/AuthService"),
        QStringLiteral("org.freedesktop.DBus.Introspectable"), QStringLiteral("Introspect"));
    const BusUser user(bob);
    const BusUser another(bob);
    // Let the daemon look up the owners of the connections.
    QCOMPARE(user.error(QStringLiteral("GetMethods")), QString());
    QCOMPARE(another.error(QStringLiteral("GetMethods")), QString());
    QTest::qWait(5000); // Idle users save up no more than the burst.
    QElapsedTimer clock;
    clock.start();
    // Calls that the D-Bus library answers count too, and so do calls on the user's other connections.
    int calls = 0;
    for (int i = 0; i < 20; ++i)
        calls += answered(user, introspect, 100);
    QVERIFY2(calls >= 900, qPrintable(QString::number(calls)));
    for (int i = 0; i < 20; ++i)
        calls += answered(another, BusUser::message(QStringLiteral("GetMethods")), 100);
    QVERIFY2(calls <= mostCalls(clock), qPrintable(QString::number(calls)));
    QCOMPARE(BusUser(alice).error(QStringLiteral("GetMethods")), QString());
}

void TstHostileUsers::everyAccount()
{
    QCOMPARE(m_authd.stop(SIGTERM), 0);
    QVERIFY(m_authd.start(Installed::methods, {QStringLiteral("--any-account")}));
    QCOMPARE(BusUser(wwwData).error(QStringLiteral("GetState"), {wwwData}), QString());
    QCOMPARE(m_root->error(QStringLiteral("GetState"), {uint(4711)}), serviceError + QStringLiteral("NoSuchUser"));
    QCOMPARE(m_root->error(QStringLiteral("GetState"), {uint(0)}), serviceError + QStringLiteral("NoSuchUser"));
    QCOMPARE(m_root->error(QStringLiteral("Unlock"), {uint(0)}), serviceError + QStringLiteral("NoSuchUser"));
}

void TstHostileUsers::tooManyWaitingCalls()
{
    const BusUser user(bob);
    QCOMPARE(answered(user, BusUser::message(QStringLiteral("RequestChallenge"), {bob, kavetMethod}), 20), 16);
    // Refused calls have no effect.
    QCOMPARE(m_root->error(QStringLiteral("GetMethods")), QString());
    QCOMPARE(m_authd.log().count("event=attempt-opened"), 16);
}

void TstHostileUsers::firstCallsOfConnections()
{
    // Calls count even if they arrive before the daemon knows whose connection it is.
    const QDBusMessage call = BusUser::message(QStringLiteral("GetMethods"));
    QElapsedTimer clock;
    clock.start();
    int calls = 0;
    for (int i = 0; i < 60; ++i)
        calls += answered(BusUser(bob), call, 16);
    const BusUser user(bob);
    for (int i = 0; i < 10; ++i)
        calls += answered(user, call, 100);
    QVERIFY2(calls <= mostCalls(clock), qPrintable(QString::number(calls)));
}

void TstHostileUsers::refusalsInTheLog()
{
    const BusUser user(bob);
    QElapsedTimer time;
    time.start();
    int calls = 0;
    const auto refuse = [&] {
        ++calls;
        return user.error(QStringLiteral("Cancel"), {qulonglong(4711)}) == serviceError + QStringLiteral("NoAttempt");
    };
    while (calls < 300)
        QVERIFY(refuse());
    const QByteArray line =
        "level=notice event=refused call=Cancel caller=1001 error=qarv.AuthService.Error.NoAttempt\n";
    QVERIFY(m_authd.log().count(line) >= 100);
    QVERIFY(m_authd.log().count(line) <= 100 + 5 * (time.elapsed() / 1000 + 1));
    // Later lines count the ones left out.
    const QDeadlineTimer deadline(30000);
    for (int logged = 0; logged < 2 && !deadline.hasExpired();) {
        QTest::qWait(50); // More calls would exceed another limit.
        const int before = m_authd.log().count("event=refused");
        QVERIFY(refuse());
        logged += m_authd.log().count("event=refused") > before;
    }
    QCOMPARE(m_authd.log().count("event=refused") + unloggedBefore(m_authd.log()), calls);
}

void TstHostileUsers::tooManySubscribers()
{
    std::vector<std::unique_ptr<BusUser>> users;
    for (int i = 0; i < 16; ++i) {
        users.push_back(std::make_unique<BusUser>(bob));
        QCOMPARE(users.back()->error(QStringLiteral("Subscribe")), QString());
        QCOMPARE(users.back()->error(QStringLiteral("Subscribe")), QString());
    }
    const BusUser another(bob);
    const QDBusMessage refused = another.call(QStringLiteral("Subscribe"));
    QCOMPARE(refused.errorName(), limitsExceeded);
    QCOMPARE(refused.errorMessage(), QStringLiteral("Too many programs of the user have subscribed"));
    // Other users have their own limits, and the daemon forgets users who have left.
    QCOMPARE(BusUser(alice).error(QStringLiteral("Subscribe")), QString());
    QCOMPARE(users.front()->error(QStringLiteral("Unsubscribe")), QString());
    QCOMPARE(another.error(QStringLiteral("Subscribe")), QString());
    users.clear();
    const BusUser later(bob);
    QTRY_COMPARE(later.error(QStringLiteral("Subscribe")), QString());
    // Root's programs have no limit.
    for (int i = 0; i < 17; ++i) {
        users.push_back(std::make_unique<BusUser>(0));
        QCOMPARE(users.back()->error(QStringLiteral("Subscribe")), QString());
    }
}

void TstHostileUsers::tooMuchData_data()
{
    QTest::addColumn<QString>("member");
    QTest::addColumn<QVariantList>("arguments");

    const QString text(16 * 1024 + 1, QLatin1Char('x'));
    QVariantMap entries;
    QStringList list;
    for (int i = 0; i <= 64; ++i) {
        entries.insert(QString::number(i), QString());
        list << QString();
    }
    const auto row = [](const char *title, const char *member, const QVariantList &arguments) {
        QTest::newRow(title) << QString::fromLatin1(member) << arguments;
    };
    row("password", "Authenticate", {bob, kavetMethod, password(text)});
    row("bytes", "Authenticate",
        {bob, kavetMethod, QVariantMap{{QStringLiteral("password"), QByteArray(text.size(), 'x')}}});
    row("text in a list", "Authenticate",
        {bob, kavetMethod, QVariantMap{{QStringLiteral("password"), QStringList{text}}}});
    const QString name(256, QLatin1Char('x'));
    row("key", "Authenticate", {bob, kavetMethod, QVariantMap{{name, QString()}}});
    row("entries", "Authenticate", {bob, kavetMethod, entries});
    row("list", "Authenticate", {bob, kavetMethod, QVariantMap{{QStringLiteral("password"), list}}});
    row("method's name", "GetMethodInfo", {QString(4 * 16 * 1024 + 1, QLatin1Char('x'))});
    row("option's name", "SetMethodOption", {kavetMethod, name, variant(1)});
    row("option's value", "SetMethodOption", {kavetMethod, QStringLiteral("max-attempts"), variant(text)});
}

void TstHostileUsers::tooMuchData()
{
    QFETCH(QString, member);
    QFETCH(QVariantList, arguments);
    for (const uint uid : {bob, uint(0)})
        QCOMPARE(BusUser(uid).error(member, arguments), limitsExceeded);
    QCOMPARE(TestDevice::launches().size(), 0);
}

void TstHostileUsers::enoughData()
{
    const QString longest(16 * 1024, QLatin1Char('x'));
    QVariantMap entries = {{QString(255, QLatin1Char('k')), longest},
                           {QStringLiteral("bytes"), QByteArray(longest.size(), 'x')}};
    QStringList list;
    for (int i = 0; i < 64; ++i)
        list << QString();
    list.last() = longest;
    entries.insert(QStringLiteral("list"), list);
    while (entries.size() < 64)
        entries.insert(QString::number(entries.size()), QString());
    QCOMPARE(m_root->error(QStringLiteral("Authenticate"), {bob, kavetMethod, entries}), QString());
    QCOMPARE(
        m_root->error(QStringLiteral("SetMethodOption"), {kavetMethod, QString(255, QLatin1Char('x')), variant(1)}),
        serviceError + QStringLiteral("NoSuchOption"));
    QCOMPARE(m_root->error(QStringLiteral("GetMethodInfo"), {QString(4 * 16 * 1024, QLatin1Char('x'))}),
             serviceError + QStringLiteral("NoSuchMethod"));
}

void TstHostileUsers::repeatedKey()
{
    // Otherwise no limit would apply to the number of entries.
    QDBusArgument data;
    data.beginMap(QMetaType::QString, qMetaTypeId<QDBusVariant>());
    for (int i = 0; i < 2; ++i) {
        data.beginMapEntry();
        data << QStringLiteral("password") << QDBusVariant(QString());
        data.endMapEntry();
    }
    data.endMap();
    QCOMPARE(m_root->error(QStringLiteral("Authenticate"), {bob, kavetMethod, QVariant::fromValue(data)}),
             QStringLiteral("org.freedesktop.DBus.Error.InvalidArgs"));
}

void TstHostileUsers::flooding_data()
{
    QTest::addColumn<int>("limit"); // Until another user's login begins, in milliseconds.
    QTest::newRow(qPrintable(callsFlood)) << 200;
#ifndef __SANITIZE_ADDRESS__ // It makes the daemon slower than the bus, which then queues the flood for it.
    QTest::newRow(qPrintable(fastFlood)) << 200;
#endif
    QTest::newRow(qPrintable(hugeFlood)) << 200;
    QTest::newRow(qPrintable(numbersFlood)) << 200;
    // A user may keep the turn for a while.
    QTest::newRow(qPrintable(attemptsFlood)) << 5000;
}

void TstHostileUsers::flooding()
{
    QFETCH(int, limit);
    // The client already runs, so a login waits for the daemon only.
    Reports reports(*m_root);
    const auto login = [&] {
        reports.texts.clear();
        QElapsedTimer clock;
        clock.start();
        if (!authenticate(*m_root, alice, QStringLiteral("success")).isEmpty())
            return qint64(-1);
        const bool isDone = QTest::qWaitFor(
            [&reports] {
                return reports.texts.contains(QStringLiteral("StateChanged(1000, pending, {method=kavet})"));
            },
            20000);
        const qint64 elapsed = clock.elapsed();
        const bool hasEnded = QTest::qWaitFor([this] { return state(alice) == QLatin1String("authenticated"); }, 20000);
        return isDone && hasEnded ? elapsed : qint64(-1);
    };
    const auto memory = [this] {
        const QByteArray status = TestDevice::readFile(QStringLiteral("/proc/%1/status").arg(m_authd.pid()));
        return status.mid(status.indexOf("VmRSS:") + 6, 32).simplified().split(' ').first().toInt(); // KiB
    };
    const auto middle = [](QVector<qint64> values) {
        std::sort(values.begin(), values.end());
        return values.at(values.size() / 2);
    };
    QVERIFY(login() >= 0);
    const int memoryBefore = memory();

    QProcess attacker;
    attacker.start(QStringLiteral("setpriv"), {QStringLiteral("--reuid=bob"), QStringLiteral("--clear-groups"),
                                               QCoreApplication::applicationFilePath(), QString::fromLatin1(flood),
                                               QString::fromLatin1(QTest::currentDataTag())});
    QVERIFY(attacker.waitForStarted());
    QVERIFY(QTest::qWaitFor([&attacker] { return attacker.readAllStandardOutput().contains("flooding"); }, 60000));
    QVector<qint64> answers;
    QVector<qint64> logins;
    qint64 longest = 0; // In nanoseconds.
    for (int i = 0; i < 5; ++i) {
        for (int j = 0; j < 5; ++j) {
            QElapsedTimer clock;
            clock.start();
            QCOMPARE(m_root->error(QStringLiteral("GetState"), {alice}), QString());
            answers << clock.elapsed();
            longest = qMax(longest, clock.nsecsElapsed());
        }
        logins << login();
        QVERIFY(logins.constLast() >= 0);
    }
    QCOMPARE(attacker.state(), QProcess::Running);
    const int growth = memory() - memoryBefore;
    attacker.kill();
    attacker.waitForFinished();
    qInfo("half of the calls took %lld ms, half of the logins began after %lld ms; %d KiB more", middle(answers),
          middle(logins), growth);
    reportLongestWait(double(longest) / 1e6);
    // Medians, because single values depend on the machine's other load.
#ifdef __SANITIZE_ADDRESS__ // It makes the daemon several times slower, and sets 256 MiB of freed memory aside.
    constexpr int answerLimit = 800;
    constexpr int growthLimit = (256 + 16) * 1024;
#else
    constexpr int answerLimit = 200;
    constexpr int growthLimit = 16 * 1024;
#endif
    QVERIFY2(middle(answers) < answerLimit, qPrintable(QString::number(middle(answers))));
    QVERIFY2(middle(logins) < qMax(limit, answerLimit), qPrintable(QString::number(middle(logins))));
    QVERIFY2(growth < growthLimit, qPrintable(QString::number(growth)));
    QVERIFY2(m_authd.log().size() < 1024 * 1024, "The log has been flooded, too");
}

void TstHostileUsers::randomCalls()
{
    const int count =
        qEnvironmentVariableIsSet("KAVET_CALLS") ? qEnvironmentVariableIntValue("KAVET_CALLS") : callsByDefault;
    const QByteArray givenSeed = qgetenv("KAVET_SEED");
    const uint seed = givenSeed.isEmpty() ? std::random_device()() : givenSeed.toUInt();
    qInfo("KAVET_SEED=%u", seed);
    std::mt19937 random(seed);
    const auto pick = [&random](const auto &from) {
        return from.at(int(random() % uint(from.size())));
    };
    const QVector<QVariant> values = {
        QVariant(alice),
        QVariant(bob),
        QVariant(uint(0)),
        QVariant(uint(4294967295)),
        QVariant(qulonglong(1)),
        QVariant(-1),
        QVariant(true),
        QVariant(QString(100000, QLatin1Char('x'))),
        QVariant(QString()),
        QVariant(kavetMethod),
        QVariant(QStringLiteral("max-attempts")),
        QVariant(QStringLiteral("certs")),
        QVariant(QStringLiteral("\n\t\x01%s%n\u202e\u009b")),
        QVariant(QStringList{QStringLiteral("a"), QString()}),
        QVariant(QByteArray(100000, '\0')),
        QVariant(password(QStringLiteral("failed"))),
        QVariant(password(QStringLiteral("success"))),
        QVariant(QVariantMap{{QStringLiteral("password"), QVariantMap{{QString(), QVariantList{1, true}}}}}),
        QVariant(QVariantMap{{QStringLiteral("cert"), 7}, {QStringLiteral("pin"), QByteArray("x")}}),
        QVariant(QVariantList{1, QStringLiteral("two"), 3.0}),
        variant(QVariant(1)),
        variant(variant(QVariantMap())),
        QVariant::fromValue(QDBusObjectPath(QStringLiteral("/"))),
        QVariant::fromValue(QDBusSignature(QStringLiteral("a{sv}"))),
        QVariant(1e308),
    };
    struct Member
    {
        const char *name;
        const char *types;
    };
    // The interface's members. Every other call has arguments of the right types.
    const QVector<Member> members = {{"GetMethods", ""},
                                     {"GetMethodInfo", "s"},
                                     {"Subscribe", ""},
                                     {"Unsubscribe", ""},
                                     {"RequestChallenge", "us"},
                                     {"Authenticate", "usa"},
                                     {"Cancel", "t"},
                                     {"GetState", "u"},
                                     {"Unlock", "u"},
                                     {"SessionStarted", "ub"},
                                     {"SessionStopped", "ub"},
                                     {"GetMethodOption", "ss"},
                                     {"GetMethodOptions", "s"},
                                     {"SetMethodOption", "ssv"},
                                     {"GetUserMethodOption", "uss"},
                                     {"GetUserMethodOptions", "us"},
                                     {"SetUserMethodOption", "ussv"},
                                     {"Authenticated", "tus"},
                                     {"StateChanged", "tusa"},
                                     {"deleteLater", ""}};
    const auto typeOf = [](const QVariant &value) {
        switch (value.userType()) {
        case QMetaType::UInt:
            return 'u';
        case QMetaType::ULongLong:
            return 't';
        case QMetaType::Bool:
            return 'b';
        case QMetaType::QString:
            return 's';
        case QMetaType::QVariantMap:
            return 'a';
        default:
            return value.userType() == qMetaTypeId<QDBusVariant>() ? 'v' : '?';
        }
    };

    const BusUser ofRoot(0);
    const BusUser ofAlice(alice);
    const BusUser ofBob(bob);
    const BusUser ofService(wwwData);
    const QVector<const BusUser *> users = {&ofRoot, &ofAlice, &ofBob, &ofService};
    for (int i = 0; i < count; ++i) {
        const BusUser &user = *pick(users);
        const Member member = pick(members);
        QVariantList arguments;
        if (random() % 2 == 0) {
            for (const char *type = member.types; *type; ++type) {
                QVariant value;
                do
                    value = pick(values);
                while (typeOf(value) != *type);
                arguments << value;
            }
        } else {
            for (auto number = random() % 5; number > 0; --number)
                arguments << pick(values);
        }
        user.connection().send(BusUser::message(QString::fromLatin1(member.name), arguments));
        // Stay below the bus's limit of pending replies, and empty the log's pipe.
        if (i % 50 == 0) {
            m_authd.log();
            QCOMPARE(ofRoot.error(QStringLiteral("GetMethods")), QString());
        }
    }
    // The D-Bus library refuses wrong signatures. Nothing may end the daemon or stop it from serving.
    QCOMPARE(ofRoot.error(QStringLiteral("GetMethods")), QString());
    QVERIFY(m_authd.isRunning());
    QCOMPARE(m_authd.log().count("event=ready"), 1);
    for (const uint uid : {alice, bob})
        QCOMPARE(ofRoot.error(QStringLiteral("Unlock"), {uid}), QString());
    // The last random call may have made the method start the client again.
    QVERIFY(logIn(ofRoot, alice));
}

int main(int argc, char *argv[])
{
    QCoreApplication application(argc, argv);
    if (argc == 3 && std::strcmp(argv[1], flood) == 0)
        return floodService(getuid(), QString::fromLatin1(argv[2]));
    TstHostileUsers test;
    return QTest::qExec(&test, argc, argv);
}

#include "tst_hostileusers.moc"
