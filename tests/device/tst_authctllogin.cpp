// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#include "device/authctl.h"
#include "device/authd.h"
#include "device/processmemory.h"
#include "support/fakeservice.h"
#include "support/testdevice.h"
#include "support/wiper.h"

#include <authd/authservice.h>

#include <QDBusConnectionInterface>
#include <QFile>
#include <QJsonArray>
#include <QProcess>
#include <QScopeGuard>
#include <QTest>

#include <atomic>
#include <csignal>
#include <fcntl.h>
#include <unistd.h>

using namespace Authctl;

namespace {

/// A service in the daemon's place. All its users are idle; `authenticate` handles the other calls.
class IdleService : public FakeService
{
public:
    explicit IdleService(const Handler &authenticate)
        : FakeService(LibAuthd::AuthService::Service, LibAuthd::AuthService::ObjectPath,
                      [authenticate](const QDBusMessage &call, const QDBusConnection &bus) {
                          if (call.member() == QLatin1String("GetState"))
                              bus.send(call.createReply({qulonglong(0), QStringLiteral("idle"), QVariantMap()}));
                          else
                              authenticate(call, bus);
                      })
    {
    }
};

/// Sends signals about another attempt of the user before and after the reply.
void answerLate(const QDBusMessage &call, const QDBusConnection &bus)
{
    const auto tell = [&bus](const char *member, qulonglong attempt, const QVariantList &arguments) {
        QDBusMessage signal = QDBusMessage::createSignal(LibAuthd::AuthService::ObjectPath,
                                                         LibAuthd::AuthService::Interface, QString::fromLatin1(member));
        signal.setArguments(QVariantList{attempt, TestDevice::alice} + arguments);
        bus.send(signal);
    };
    const QString method = QStringLiteral("kavet");
    const QVariantMap details = {{QStringLiteral("method"), method}};
    const auto end = [&](qulonglong attempt) {
        tell("AuthenticationFailed", attempt, {method, 11, QStringLiteral("AuthFailed"), true, 1});
        tell("Authenticated", attempt, {method});
        tell("AttemptGivenUp", attempt, {method, QStringLiteral("replaced")});
        tell("StateChanged", attempt, {QStringLiteral("challenge"), details});
    };
    constexpr qulonglong Others = 1;
    constexpr qulonglong Opened = 2;
    end(Others);
    tell("StateChanged", Others, {QStringLiteral("pending"), details});
    bus.send(call.createReply(Opened));
    end(Others);
    tell("StateChanged", Opened, {QStringLiteral("pending"), details});
    end(Others);
    tell("StateChanged", Opened, {QStringLiteral("authenticated"), details});
}

/// Whether processes of user `uid` may read the environment of process `pid`.
bool isReadableFor(uint uid, pid_t pid)
{
    if (seteuid(uid) != 0)
        qFatal("Cannot become user %u", uid);
    const int file = open(QStringLiteral("/proc/%1/environ").arg(pid).toLatin1().constData(), O_RDONLY | O_CLOEXEC);
    if (seteuid(0) != 0)
        qFatal("Cannot become root again");
    if (file != -1)
        close(file);
    return file != -1;
}

} // namespace

class TstAuthctlLogin : public AuthdTest
{
    Q_OBJECT

private Q_SLOTS:
    void loginSucceeds();
    void loginFails();
    void loginWithCertificate();
    void loginIsRefused();
    void loginWithoutInput();
    void loginWantsOtherInput();
    void loginWithDyingClient();
    void loginWithoutOutcome();
    void loginTimesOut();
    void loginGivenUpByOthers();
    void queue();
    void interrupted();
    void forgedSignals();
    void reportsOfOthers();
    void lockAndUnlock();
    void passwordIsNotShown();
    void slowTypist();
    void lockedWhileAsked();
    void breakingOff();
    void signalsAtPrompt_data();
    void signalsAtPrompt();
    void tooMuchInput();
    void hostilePrompt();
    void isNotReadable();
    void secretIsWiped();
    void daemonGoesAway();
};

void TstAuthctlLogin::loginSucceeds()
{
    // By name, by user id, and by the user.
    const QString expected =
        QStringLiteral("alice: checking with kavet ...\nalice: success\nalice: authenticated by kavet\n");
    for (const Result &result :
         {run(QStringLiteral("login alice"), "success\n"), run(QStringLiteral("login 1000"), "success"),
          runAs(TestDevice::alice, QStringLiteral("login alice --method kavet"), "success\nmore\n")}) {
        QCOMPARE(result.exitCode, int(Success));
        QCOMPARE(result.output, expected);
        QCOMPARE(result.errors, QString());
    }
    const QVector<QJsonArray> calls = TestDevice::calls();
    for (const QJsonArray &call : calls)
        QCOMPARE(call,
                 (QJsonArray{QStringLiteral("checkPassword"), QStringLiteral("alice"), QStringLiteral("success")}));

    const Result json = run(QStringLiteral("--json login alice"), "success\n");
    QCOMPARE(json.exitCode, int(Success));
    QCOMPARE(json.events(),
             (QStringList{QStringLiteral("state"), QStringLiteral("authenticated"), QStringLiteral("state")}));
    const QJsonObject state = json.objects().constLast();
    QCOMPARE(state.value(QLatin1String("state")).toString(), QStringLiteral("authenticated"));
    QCOMPARE(state.value(QLatin1String("user")).toString(), QStringLiteral("alice"));
    QCOMPARE(state.value(QLatin1String("uid")).toInt(), 1000);
    QCOMPARE(state.value(QLatin1String("details")).toObject().value(QLatin1String("method")).toString(),
             QStringLiteral("kavet"));
}

void TstAuthctlLogin::loginFails()
{
    QCOMPARE(run(QStringLiteral("options max-attempts 5")).exitCode, int(Success));
    const Result text = run(QStringLiteral("login alice"), "failed\n");
    QCOMPARE(text.exitCode, int(Refused));
    QCOMPARE(text.output, QStringLiteral("alice: checking with kavet ...\n"
                                         "alice: failed: auth failed (code 11); attempts left: 5\n"
                                         "alice: kavet is waiting for input\n"));

    const Result json = run(QStringLiteral("login alice --json"), "nousb\n");
    QCOMPARE(json.exitCode, int(Refused));
    QCOMPARE(json.events(), (QStringList{QStringLiteral("state"), QStringLiteral("failed"), QStringLiteral("state")}));
    const QJsonObject failed = json.objects().at(1);
    QCOMPARE(failed.value(QLatin1String("resultCode")).toInt(), 9);
    QCOMPARE(failed.value(QLatin1String("resultName")).toString(), QStringLiteral("NoUsbDevice"));
    QCOMPARE(failed.value(QLatin1String("attemptsLeft")).toInt(), 5);
    QCOMPARE(failed.value(QLatin1String("counted")), QJsonValue(false));
    QVERIFY(run(QStringLiteral("login alice"), "nousb\n")
                .output.contains(QLatin1String("failed: no usb device (code 9), not counted; attempts left: 5\n")));
}

void TstAuthctlLogin::loginWithCertificate()
{
    QCOMPARE(run(QStringLiteral("login alice --cert pkcs11:token=a"), "success\n").exitCode, int(Success));
    QCOMPARE(TestDevice::calls().constLast(),
             (QJsonArray{QStringLiteral("validateCert"), QStringLiteral("pkcs11:token=a"), QStringLiteral("alice"),
                         QStringLiteral("success")}));
}

void TstAuthctlLogin::loginIsRefused()
{
    const Result nobody = run(QStringLiteral("login mallory"), "x\n");
    QCOMPARE(nobody.exitCode, int(Refused));
    QCOMPARE(nobody.errors, QStringLiteral("authctl: No such user: mallory\n"));
    QCOMPARE(run(QStringLiteral("login state"), "x\n").errors, QStringLiteral("authctl: No such user: state\n"));
    QCOMPARE(run(QStringLiteral("login 4711"), "x\n").exitCode, int(Refused));
    QCOMPARE(run(QStringLiteral("login 0"), "x\n").exitCode, int(Refused));

    const Result others = runAs(TestDevice::bob, QStringLiteral("login alice --json"), "success\n");
    QCOMPARE(others.exitCode, int(Refused));
    QCOMPARE(others.events(), QStringList{QStringLiteral("error")});
    QCOMPARE(others.objects().constFirst().value(QLatin1String("error")).toString(),
             QStringLiteral("org.freedesktop.DBus.Error.AccessDenied"));
    QCOMPARE(run(QStringLiteral("login alice --method other"), "x\n").exitCode, int(Refused));
    QCOMPARE(TestDevice::launches().size(), 0);
}

void TstAuthctlLogin::loginWithoutInput()
{
    const Result result = run(QStringLiteral("login alice"));
    QCOMPARE(result.exitCode, int(Refused));
    QCOMPARE(result.errors, QStringLiteral("authctl: No password or PIN was entered\n"));
    QCOMPARE(TestDevice::launches().size(), 0);
    // An empty line is an empty password.
    QCOMPARE(run(QStringLiteral("login alice"), "\n").exitCode, int(Refused));
    QCOMPARE(TestDevice::calls().constLast().last().toString(), QString());
}

void TstAuthctlLogin::loginWantsOtherInput()
{
    // While the encrypted partition is locked, the method only asks for input.
    const QString configuration = QStringLiteral("/etc/authd/luks.conf");
    QVERIFY(TestDevice::writeFile(configuration, "[Partition]\nDevice=no-such-mapping\n"));
    const auto remove = qScopeGuard([configuration] { QFile::remove(configuration); });
    const Result result = run(QStringLiteral("login alice"), "success\n");
    QCOMPARE(result.exitCode, int(Refused));
    QCOMPARE(result.output, QStringLiteral("alice: checking with kavet ...\nalice: kavet is waiting for input\n"));
}

void TstAuthctlLogin::loginWithDyingClient()
{
    setClientScript({{QStringLiteral("exit"), 1}});
    const Result result = run(QStringLiteral("login alice"), "success\n");
    QCOMPARE(result.exitCode, int(Refused));
    QCOMPARE(result.output.count(QStringLiteral("alice: the kavet client was restarted\n")), 11);
    QVERIFY2(result.output.endsWith(
                 QStringLiteral("alice: failed: cannot start client (code 3), not counted; attempts left: 1\n"
                                "alice: kavet is waiting for input\n")),
             qPrintable(result.output));
}

void TstAuthctlLogin::loginWithoutOutcome()
{
    const Result result = run(QStringLiteral("login alice --timeout 1"), "never\n");
    QCOMPARE(result.exitCode, int(Unreachable));
    QCOMPARE(result.errors, QStringLiteral("authctl: Timed out waiting for the outcome\n"));
    // The attempt has been given up, so the next one can begin.
    QVERIFY(m_authd.waitForLog("method=kavet uid=1000 reason=cancelled\n"));
    QCOMPARE(run(QStringLiteral("login alice"), "success\n").exitCode, int(Success));
}

void TstAuthctlLogin::loginTimesOut()
{
    QCOMPARE(m_authd.stop(SIGTERM), 0);
    QVERIFY(m_authd.start(Installed::methods, {QStringLiteral("--attempt-timeout"), QStringLiteral("1")}));
    const Result result = run(QStringLiteral("login alice"), "never\n");
    QCOMPARE(result.exitCode, int(Unreachable));
    QCOMPARE(
        result.output,
        QStringLiteral("alice: checking with kavet ...\nalice: given up: timed out\nalice: no attempt in progress\n"));
}

void TstAuthctlLogin::loginGivenUpByOthers()
{
    QProcess login;
    login.start(Installed::authctl, {QStringLiteral("login"), QStringLiteral("alice")});
    login.write("never\n");
    login.closeWriteChannel();
    QTRY_COMPARE(TestDevice::calls().size(), 1);

    QCOMPARE(run(QStringLiteral("cancel alice")).exitCode, int(Success));
    QVERIFY(login.waitForFinished());
    QCOMPARE(login.exitCode(), int(Refused));
    QVERIFY(login.readAllStandardOutput().endsWith("alice: given up: cancelled\nalice: no attempt in progress\n"));
}

void TstAuthctlLogin::queue()
{
    QProcess first;
    first.start(Installed::authctl, {QStringLiteral("login"), QStringLiteral("alice")});
    first.write("never\n");
    first.closeWriteChannel();
    QTRY_COMPARE(TestDevice::calls().size(), 1);

    const Result second = run(QStringLiteral("login bob"), "success\n");
    QCOMPARE(second.exitCode, int(Success));
    // Between these lines, bob's client replaces alice's.
    QVERIFY(second.output.startsWith(QLatin1String("bob: queued for kavet ...\nbob: checking with kavet ...\n")));
    QVERIFY(second.output.endsWith(QLatin1String("bob: success\nbob: authenticated by kavet\n")));
    QVERIFY(first.waitForFinished());
    QCOMPARE(first.exitCode(), int(Refused));
    QVERIFY(first.readAllStandardOutput().endsWith("alice: given up: cut short\nalice: no attempt in progress\n"));
}

void TstAuthctlLogin::interrupted()
{
    OnTerminal login({QStringLiteral("login"), QStringLiteral("alice")}, TestDevice::alice);
    QVERIFY(login.waitFor("Password for alice: "));
    login.type("never\n");
    QVERIFY(login.waitFor("alice: checking with kavet ..."));
    login.type("\x03");
    QVERIFY(login.waitForEnd());
    QCOMPARE(login.endSignal(), SIGINT);
    QVERIFY(m_authd.waitForLog("method=kavet uid=1000 reason=caller-gone\n"));
    QCOMPARE(runAs(TestDevice::alice, QStringLiteral("login alice"), "success\n").exitCode, int(Success));
}

void TstAuthctlLogin::forgedSignals()
{
    QProcess login;
    login.start(Installed::authctl, {QStringLiteral("login"), QStringLiteral("alice")});
    login.write("never\n");
    login.closeWriteChannel();
    QTRY_COMPARE(TestDevice::calls().size(), 1);

    // Another user broadcasts a forged success signal.
    const BusUser root(0);
    const BusUser bob(TestDevice::bob);
    const QVariant attempt = root.call(QStringLiteral("GetState"), {TestDevice::alice}).arguments().value(0);
    QVERIFY(attempt.toULongLong() > 0);
    const QVariantMap details = {{QStringLiteral("method"), QStringLiteral("kavet")}};
    const QStringList names = bob.connection().interface()->registeredServiceNames();
    for (const QString &name : names) {
        const auto tell = [&](const char *member, const QVariantList &arguments) {
            QDBusMessage signal = QDBusMessage::createTargetedSignal(
                name, LibAuthd::AuthService::ObjectPath, LibAuthd::AuthService::Interface, QString::fromLatin1(member));
            signal.setArguments(QVariantList{attempt, TestDevice::alice} + arguments);
            bob.connection().send(signal);
        };
        tell("Authenticated", {QStringLiteral("kavet")});
        tell("StateChanged", {QStringLiteral("authenticated"), details});
    }
    bob.call(QStringLiteral("GetMethods")); // After this reply, the bus has delivered the signals.

    QCOMPARE(run(QStringLiteral("cancel alice")).exitCode, int(Success));
    QVERIFY(login.waitForFinished());
    QCOMPARE(login.exitCode(), int(Refused));
    QCOMPARE(login.readAllStandardOutput(),
             QByteArray("alice: checking with kavet ...\nalice: given up: cancelled\nalice: no attempt in progress\n"));
}

void TstAuthctlLogin::reportsOfOthers()
{
    QCOMPARE(m_authd.stop(SIGTERM), 0);
    const IdleService service(answerLate);
    QVERIFY(service.isRunning());
    QProcess login;
    login.start(Installed::authctl,
                {QStringLiteral("login"), QStringLiteral("alice"), QStringLiteral("--method=kavet")});
    login.write("any\n");
    login.closeWriteChannel();
    QTRY_COMPARE_WITH_TIMEOUT(login.state(), QProcess::NotRunning, 30000);
    QCOMPARE(login.readAllStandardOutput(),
             QByteArray("alice: checking with kavet ...\nalice: authenticated by kavet\n"));
    QCOMPARE(login.exitCode(), int(Success));
}

void TstAuthctlLogin::lockAndUnlock()
{
    QCOMPARE(run(QStringLiteral("options max-attempts 1")).exitCode, int(Success));
    const Result locking = run(QStringLiteral("login alice"), "failed\n");
    QCOMPARE(locking.exitCode, int(Locked));
    const QString locked = QStringLiteral("alice: locked by kavet (kavet-max-attempts), until root unlocks the user\n");
    QVERIFY(locking.output.endsWith(locked));

    // A locked user is refused without a prompt.
    const Result refused = run(QStringLiteral("login alice"));
    QCOMPARE(refused.exitCode, int(Locked));
    QCOMPARE(refused.output, locked);
    const Result state = runAs(TestDevice::alice, QStringLiteral("--json state alice"));
    QCOMPARE(state.exitCode, int(Locked));
    const QJsonObject details = state.objects().constFirst().value(QLatin1String("details")).toObject();
    QCOMPARE(details.value(QLatin1String("reason")).toString(), QStringLiteral("kavet-max-attempts"));
    QCOMPARE(details.value(QLatin1String("duration")).toDouble(), 4294967295.0);

    QCOMPARE(runAs(TestDevice::alice, QStringLiteral("unlock alice")).exitCode, int(Refused));
    const Result unlocked = run(QStringLiteral("--json unlock alice"));
    QCOMPARE(unlocked.exitCode, int(Success));
    QCOMPARE(unlocked.events(), QStringList{QStringLiteral("done")});
    const Result idle = run(QStringLiteral("state alice"));
    QCOMPARE(idle.exitCode, int(Success));
    QCOMPARE(idle.output, QStringLiteral("alice: no attempt in progress\n"));
    QCOMPARE(run(QStringLiteral("login alice"), "success\n").exitCode, int(Success));
}

void TstAuthctlLogin::passwordIsNotShown()
{
    OnTerminal login({QStringLiteral("login"), QStringLiteral("alice")});
    QVERIFY(login.waitFor("Password for alice: "));
    QVERIFY(!login.echoes());
    login.type("success\n");
    QVERIFY(login.waitFor("authenticated by kavet"));
    QVERIFY(login.echoes());
    QVERIFY(login.waitForEnd());
    QCOMPARE(login.exitCode(), int(Success));
    QCOMPARE(login.screen, QByteArray("Password for alice: \r\nalice: checking with kavet ...\r\nalice: success\r\n"
                                      "alice: authenticated by kavet\r\n"));

    OnTerminal withCertificate({QStringLiteral("login"), QStringLiteral("alice"), QStringLiteral("--cert=c")});
    QVERIFY(withCertificate.waitFor("PIN of c for alice: "));
    withCertificate.type("failed\n");
    QVERIFY(withCertificate.waitForEnd());
    QCOMPARE(withCertificate.exitCode(), int(Refused));
}

void TstAuthctlLogin::slowTypist()
{
    // The timeout starts when the password has been sent. So exceed it at the prompt.
    OnTerminal login({QStringLiteral("login"), QStringLiteral("alice"), QStringLiteral("--timeout=2")});
    QVERIFY(login.waitFor("Password for alice: "));
    QTest::qWait(2500);
    login.type("success\n");
    QVERIFY(login.waitForEnd());
    QCOMPARE(login.exitCode(), int(Success));
}

void TstAuthctlLogin::lockedWhileAsked()
{
    QCOMPARE(run(QStringLiteral("options max-attempts 1")).exitCode, int(Success));
    OnTerminal login({QStringLiteral("login"), QStringLiteral("alice")});
    QVERIFY(login.waitFor("Password for alice: "));
    QCOMPARE(run(QStringLiteral("login alice"), "failed\n").exitCode, int(Locked));
    login.type("success\n");
    QVERIFY(login.waitFor("authctl: The user is locked: kavet-max-attempts"));
    QVERIFY(login.waitForEnd());
    QCOMPARE(login.exitCode(), int(Locked));
}

void TstAuthctlLogin::breakingOff()
{
    OnTerminal login({QStringLiteral("login"), QStringLiteral("alice")});
    QVERIFY(login.waitFor("Password for alice: "));
    login.type("half a passw\x03");
    QVERIFY(login.waitFor("No password or PIN was entered"));
    QVERIFY(login.echoes());
    QVERIFY(login.waitForEnd());
    QCOMPARE(login.exitCode(), int(Refused));
    QCOMPARE(TestDevice::launches().size(), 0);
}

void TstAuthctlLogin::signalsAtPrompt_data()
{
    QTest::addColumn<int>("signal");

    QTest::newRow("hangup") << SIGHUP;
    QTest::newRow("interrupt") << SIGINT;
    QTest::newRow("quit") << SIGQUIT;
    QTest::newRow("terminate") << SIGTERM;
}

void TstAuthctlLogin::signalsAtPrompt()
{
    QFETCH(int, signal);

    OnTerminal login({QStringLiteral("login"), QStringLiteral("alice")});
    QVERIFY(login.waitFor("Password for alice: "));
    QVERIFY(!login.echoes());
    login.type("half a passw");
    kill(login.pid(), signal);
    QVERIFY(login.waitForEnd());
    QCOMPARE(login.endSignal(), signal);
    QVERIFY(login.echoes());
    QVERIFY(!login.screen.contains("passw"));
    QCOMPARE(TestDevice::launches().size(), 0);
}

void TstAuthctlLogin::tooMuchInput()
{
    const Result longest = run(QStringLiteral("login alice"), QByteArray(4096, 'x'));
    QCOMPARE(longest.exitCode, int(Refused));
    QCOMPARE(TestDevice::calls().constLast().last().toString(), QString(4096, QLatin1Char('x')));

    const Result result = run(QStringLiteral("login alice"), QByteArray(4097, 'x'));
    QCOMPARE(result.exitCode, int(Refused));
    QCOMPARE(result.errors, QStringLiteral("authctl: The password or PIN is too long\n"));
    QCOMPARE(TestDevice::calls().size(), 1);
}

void TstAuthctlLogin::hostilePrompt()
{
    OnTerminal login({QStringLiteral("login"), QStringLiteral("alice"), QStringLiteral("--cert=c\n\x1b[31m")});
    QVERIFY(login.waitFor("PIN of c\\u000a\\u001b[31m for alice: "));
}

void TstAuthctlLogin::isNotReadable()
{
    OnTerminal login({QStringLiteral("login"), QStringLiteral("alice")}, TestDevice::alice);
    QVERIFY(login.waitFor("Password for alice: "));
    QVERIFY(!isReadableFor(TestDevice::alice, login.pid()));

    // Other processes of the user are readable.
    QProcess other;
    other.start(QStringLiteral("setpriv"), {QStringLiteral("--reuid=1000"), QStringLiteral("cat")});
    QTRY_VERIFY(isReadableFor(TestDevice::alice, pid_t(other.processId())));
    other.closeWriteChannel();
    QVERIFY(other.waitForFinished());
}

void TstAuthctlLogin::secretIsWiped()
{
    QCOMPARE(m_authd.stop(SIGTERM), 0);
    std::atomic_bool isAsked = false;
    const IdleService service([&](const QDBusMessage &, const QDBusConnection &) { isAsked = true; });
    QVERIFY(service.isRunning());
    OnTerminal login({QStringLiteral("login"), QStringLiteral("alice"), QStringLiteral("--method=kavet")});
    QVERIFY(login.waitFor("Password for alice: "));
    const QString secret = QStringLiteral("correct horse battery staple");
    login.type(secret.toUtf8() + '\n');
    QTRY_VERIFY(isAsked);
    // The text is wiped as soon as the library has copied it into a message.
    const QByteArray text(reinterpret_cast<const char *>(secret.utf16()), secret.size() * int(sizeof(QChar)));
    QTRY_VERIFY(!processMemory(login.pid()).contains(text));
    QVERIFY(processMemory(login.pid()).contains("--method=kavet"));
}

void TstAuthctlLogin::daemonGoesAway()
{
    QProcess login;
    login.start(Installed::authctl, {QStringLiteral("login"), QStringLiteral("alice")});
    login.write("never\n");
    login.closeWriteChannel();
    QTRY_COMPARE(TestDevice::calls().size(), 1);
    m_authd.stop(SIGKILL);
    QVERIFY(login.waitForFinished());
    QCOMPARE(login.exitCode(), int(Unreachable));
    QCOMPARE(login.readAllStandardError(), QByteArray("authctl: The authentication service left the bus\n"));
}

QTEST_GUILESS_MAIN(TstAuthctlLogin)

#include "tst_authctllogin.moc"
