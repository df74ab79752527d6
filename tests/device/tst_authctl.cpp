// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#include "device/authd.h"
#include "support/testdevice.h"
#include "support/wiper.h"

#include <authd/authservice.h>

#include <QDBusConnectionInterface>
#include <QDBusVirtualObject>
#include <QElapsedTimer>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QScopeGuard>
#include <QTest>

#include <csignal>
#include <pty.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

enum ExitCode { Success = 0, Refused = 1, WrongUsage = 2, Locked = 3, Unreachable = 4 };

const QString program = Installed::authctl;

struct Result
{
    int exitCode;
    QString output;
    QString errors;

    QVector<QJsonObject> objects() const
    {
        QVector<QJsonObject> objects;
        const QStringList lines = output.split(QLatin1Char('\n'), Qt::SkipEmptyParts);
        for (const QString &line : lines)
            objects << QJsonDocument::fromJson(line.toUtf8()).object();
        return objects;
    }
    QStringList events() const
    {
        QStringList events;
        const QVector<QJsonObject> all = objects();
        for (const QJsonObject &object : all)
            events << object.value(QLatin1String("event")).toString();
        return events;
    }
};

Result runAs(uint uid, const QString &arguments, const QByteArray &input = {})
{
    QProcess process;
    process.start(QStringLiteral("setpriv"),
                  QStringList{QStringLiteral("--reuid=%1").arg(uid), QStringLiteral("--clear-groups"), program}
                      + arguments.split(QLatin1Char(' '), Qt::SkipEmptyParts));
    process.write(input);
    process.closeWriteChannel();
    if (!process.waitForFinished(60000) || process.exitStatus() != QProcess::NormalExit) {
        qWarning("authctl %s has not ended by itself; it wrote: %s%s", qPrintable(arguments),
                 process.readAllStandardOutput().constData(), process.readAllStandardError().constData());
        return {-1, {}, {}};
    }
    return {process.exitCode(), QString::fromUtf8(process.readAllStandardOutput()),
            QString::fromUtf8(process.readAllStandardError())};
}

Result run(const QString &arguments, const QByteArray &input = {})
{
    return runAs(0, arguments, input);
}

/// A service in the daemon's place that answers a request only after telling of the end of an earlier one and of what
/// another user does.
class LateService : public QDBusVirtualObject
{
public:
    LateService()
        : m_root(0)
    {
        QDBusConnection bus = m_root.connection();
        isRunning = bus.registerVirtualObject(LibAuthd::AuthService::ObjectPath, this)
                    && bus.interface()->registerService(LibAuthd::AuthService::Service)
                           == QDBusConnectionInterface::ServiceRegistered;
    }
    ~LateService() override { m_root.connection().unregisterObject(LibAuthd::AuthService::ObjectPath); }

    bool isRunning = false;

    QString introspect(const QString &) const override { return {}; }
    bool handleMessage(const QDBusMessage &call, const QDBusConnection &bus) override
    {
        if (call.member() == QLatin1String("GetState")) {
            bus.send(call.createReply({QStringLiteral("idle"), QVariantMap()}));
            return true;
        }
        const auto tell = [&bus](const char *member, uint uid, const QVariantList &arguments) {
            QDBusMessage signal = QDBusMessage::createSignal(
                LibAuthd::AuthService::ObjectPath, LibAuthd::AuthService::Interface, QString::fromLatin1(member));
            signal.setArguments(QVariantList{uid} + arguments);
            bus.send(signal);
        };
        const QString method = QStringLiteral("kavet");
        const QVariantMap details = {{QStringLiteral("method"), method}};
        const auto end = [&](uint uid) {
            tell("AuthenticationFailed", uid, {method, 11, QStringLiteral("AuthFailed"), 1});
            tell("Authenticated", uid, {method});
            tell("StateChanged", uid, {QStringLiteral("challenge"), details});
        };
        end(TestDevice::alice);
        end(TestDevice::bob);
        tell("StateChanged", TestDevice::bob, {QStringLiteral("pending"), details});
        tell("StateChanged", TestDevice::alice, {QStringLiteral("pending"), details});
        end(TestDevice::bob);
        bus.send(call.createReply());
        tell("StateChanged", TestDevice::alice, {QStringLiteral("authenticated"), details});
        return true;
    }

private:
    const BusUser m_root;
};

} // namespace

class TstAuthctl : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase() { QVERIFY(startSystemBus()); }

    void init()
    {
        TestDevice::reset();
        setClientScript();
        QVERIFY(m_authd.start());
    }

    void cleanup()
    {
        if (m_authd.isRunning())
            QCOMPARE(m_authd.stop(SIGTERM), 0);
        if (QTest::currentTestFailed())
            qWarning("The daemon wrote:\n%s", m_authd.log().constData());
    }

    void usage_data();
    void usage();
    void methods();
    void loginSucceeds();
    void loginFails();
    void loginWithCertificate();
    void loginIsRefused();
    void loginWithoutInput();
    void loginWantsOtherInput();
    void loginWithDyingClient();
    void loginWithoutOutcome();
    void loginGivenUpByOthers();
    void reportsStayInOrder();
    void reportsOfOthers();
    void lockAndUnlock();
    void passwordIsNotShown();
    void slowTypist();
    void lockedWhileAsked();
    void breakingOff();
    void options();
    void certs();
    void certsInTheEnd();
    void session();
    void cancel();
    void monitor();
    void unreachable_data();
    void unreachable();
    void daemonGoesAway();
    void silentDaemon();

private:
    Authd m_authd;
};

void TstAuthctl::usage_data()
{
    QTest::addColumn<QString>("arguments");
    QTest::addColumn<int>("exitCode");

    QTest::newRow("nothing") << "" << int(WrongUsage);
    QTest::newRow("unknown command") << "nonsense" << int(WrongUsage);
    QTest::newRow("help that there is not") << "--help-all" << int(WrongUsage);
    QTest::newRow("unknown option") << "methods --nonsense" << int(WrongUsage);
    QTest::newRow("too few") << "login" << int(WrongUsage);
    QTest::newRow("too many") << "methods all" << int(WrongUsage);
    QTest::newRow("too many options") << "options a b c" << int(WrongUsage);
    QTest::newRow("session without user") << "session start" << int(WrongUsage);
    QTest::newRow("session does what") << "session pause alice" << int(WrongUsage);
    QTest::newRow("time of zero") << "--timeout 0 methods" << int(WrongUsage);
    QTest::newRow("time of text") << "--timeout soon methods" << int(WrongUsage);
    QTest::newRow("time too long") << "--timeout 4000000 methods" << int(WrongUsage);
    QTest::newRow("flag with a value") << "--json=yes methods" << int(WrongUsage);
    QTest::newRow("option of another command") << "methods --cert c" << int(WrongUsage);
    QTest::newRow("option without its value") << "options --user" << int(WrongUsage);
    QTest::newRow("help") << "--help" << int(Success);
    QTest::newRow("help of a command") << "login --help" << int(Success);
    QTest::newRow("version") << "--version" << int(Success);
}

void TstAuthctl::usage()
{
    QFETCH(QString, arguments);
    QFETCH(int, exitCode);

    const Result result = run(arguments);
    QCOMPARE(result.exitCode, exitCode);
    QCOMPARE(result.output.isEmpty(), exitCode == WrongUsage);
    QCOMPARE(result.errors.startsWith(QLatin1String("authctl: ")), exitCode == WrongUsage);
    QCOMPARE(result.errors.contains(QLatin1String("authctl --help")), exitCode == WrongUsage);
    if (arguments == QLatin1String("--help")) {
        for (const char *word : {"methods", "login", "state", "cancel", "options", "certs", "session", "unlock",
                                 "monitor", "--json", "--timeout", "--method", "--cert", "--user", "--unmanaged"})
            QVERIFY2(result.output.contains(QLatin1String(word)), word);
        QVERIFY(result.output.contains(QLatin1String("3 the user is locked")));
        const QString manual = QString::fromUtf8(TestDevice::readFile(QStringLiteral(AUTHCTL_SOURCE_DIR "/authctl.1")));
        QCOMPARE(longOptions(manual), longOptions(result.output));
    }
    if (arguments == QLatin1String("--version"))
        QCOMPARE(result.output, QStringLiteral("authctl 0.0.1\n"));
}

void TstAuthctl::methods()
{
    const Result text = runAs(TestDevice::alice, QStringLiteral("methods"));
    QCOMPARE(text.exitCode, int(Success));
    QCOMPARE(text.output, QStringLiteral("kavet 0.0.1: Kavet authentication method, priority 50, available\n"));
    {
        const ClientAside aside;
        QCOMPARE(runAs(TestDevice::alice, QStringLiteral("methods")).output,
                 QStringLiteral("kavet 0.0.1: Kavet authentication method, priority 50, not available\n"));
    }

    const Result json = run(QStringLiteral("--json methods"));
    QCOMPARE(json.exitCode, int(Success));
    QCOMPARE(json.objects().size(), 1);
    const QJsonObject method = json.objects().constFirst();
    QCOMPARE(method.value(QLatin1String("event")).toString(), QStringLiteral("method"));
    QCOMPARE(method.value(QLatin1String("method")).toString(), QStringLiteral("kavet"));
    QCOMPARE(method.value(QLatin1String("priority")).toInt(), 50);
    QCOMPARE(method.value(QLatin1String("auth-page")).toString(), QStringLiteral("MethodPageKavet"));
}

void TstAuthctl::loginSucceeds()
{
    // By name, by user id, and by the user.
    const QString expected = QStringLiteral("alice: kavet is at work\nalice: success\nalice: authenticated by kavet\n");
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

void TstAuthctl::loginFails()
{
    QCOMPARE(run(QStringLiteral("options max-attempts 5")).exitCode, int(Success));
    const Result text = run(QStringLiteral("login alice"), "failed\n");
    QCOMPARE(text.exitCode, int(Refused));
    QCOMPARE(text.output, QStringLiteral("alice: kavet is at work\n"
                                         "alice: failed: auth failed (code 11); attempts left: 5\n"
                                         "alice: kavet waits for input\n"));

    const Result json = run(QStringLiteral("login alice --json"), "nousb\n");
    QCOMPARE(json.exitCode, int(Refused));
    QCOMPARE(json.events(), (QStringList{QStringLiteral("state"), QStringLiteral("failed"), QStringLiteral("state")}));
    const QJsonObject failed = json.objects().at(1);
    QCOMPARE(failed.value(QLatin1String("resultCode")).toInt(), 9);
    QCOMPARE(failed.value(QLatin1String("resultName")).toString(), QStringLiteral("NoUsbDevice"));
    QCOMPARE(failed.value(QLatin1String("attemptsLeft")).toInt(), 5);
}

void TstAuthctl::loginWithCertificate()
{
    QCOMPARE(run(QStringLiteral("login alice --cert pkcs11:token=a"), "success\n").exitCode, int(Success));
    QCOMPARE(TestDevice::calls().constLast(),
             (QJsonArray{QStringLiteral("validateCert"), QStringLiteral("pkcs11:token=a"), QStringLiteral("alice"),
                         QStringLiteral("success")}));
}

void TstAuthctl::loginIsRefused()
{
    const Result nobody = run(QStringLiteral("login mallory"), "x\n");
    QCOMPARE(nobody.exitCode, int(Refused));
    QCOMPARE(nobody.errors, QStringLiteral("authctl: There is no user mallory\n"));
    QCOMPARE(run(QStringLiteral("login state"), "x\n").errors, QStringLiteral("authctl: There is no user state\n"));
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

void TstAuthctl::loginWithoutInput()
{
    const Result result = run(QStringLiteral("login alice"));
    QCOMPARE(result.exitCode, int(Refused));
    QCOMPARE(result.errors, QStringLiteral("authctl: Nothing was entered\n"));
    QCOMPARE(TestDevice::launches().size(), 0);
    // An empty line is an empty password.
    QCOMPARE(run(QStringLiteral("login alice"), "\n").exitCode, int(Refused));
    QCOMPARE(TestDevice::calls().constLast().last().toString(), QString());
}

void TstAuthctl::loginWantsOtherInput()
{
    // While the encrypted partition is locked, the method only asks for input.
    const QString configuration = QStringLiteral("/etc/authd/luks.conf");
    QVERIFY(TestDevice::writeFile(configuration, "[Partition]\nDevice=no-such-mapping\n"));
    const auto remove = qScopeGuard([configuration] { QFile::remove(configuration); });
    const Result result = run(QStringLiteral("login alice"), "success\n");
    QCOMPARE(result.exitCode, int(Refused));
    QCOMPARE(result.output, QStringLiteral("alice: kavet is at work\nalice: kavet waits for input\n"));
}

void TstAuthctl::loginWithDyingClient()
{
    setClientScript({{QStringLiteral("exit"), 1}});
    const Result result = run(QStringLiteral("login alice"), "success\n");
    QCOMPARE(result.exitCode, int(Refused));
    QCOMPARE(result.output.count(QStringLiteral("alice: kavet had to start its client again\n")), 11);
    QVERIFY2(result.output.endsWith(QStringLiteral("alice: failed: cannot start client (code 3); attempts left: 1\n"
                                                   "alice: kavet waits for input\n")),
             qPrintable(result.output));
}

void TstAuthctl::loginWithoutOutcome()
{
    const Result result = run(QStringLiteral("login alice --timeout 1"), "never\n");
    QCOMPARE(result.exitCode, int(Unreachable));
    QCOMPARE(result.errors, QStringLiteral("authctl: No outcome in time\n"));
    // It has been given up, so that another may come.
    QVERIFY(m_authd.waitForLog("event=attempt-given-up method=kavet uid=1000\n"));
    QCOMPARE(run(QStringLiteral("login alice"), "success\n").exitCode, int(Success));
}

void TstAuthctl::loginGivenUpByOthers()
{
    QProcess login;
    login.start(program, {QStringLiteral("login"), QStringLiteral("alice")});
    login.write("never\n");
    login.closeWriteChannel();
    QTRY_COMPARE(TestDevice::calls().size(), 1);

    // Meanwhile nobody else has a turn.
    const Result busy = run(QStringLiteral("login bob"), "success\n");
    QCOMPARE(busy.exitCode, int(Refused));
    QVERIFY(busy.errors.contains(QLatin1String("another attempt open")));

    QCOMPARE(run(QStringLiteral("cancel alice")).exitCode, int(Success));
    QVERIFY(login.waitForFinished());
    QCOMPARE(login.exitCode(), int(Refused));
    QVERIFY(login.readAllStandardOutput().endsWith("alice: nothing under way\n"));
}

void TstAuthctl::reportsStayInOrder()
{
    QProcess process;
    process.setProcessEnvironment(debuggedBus());
    process.start(program, {QStringLiteral("methods")});
    QVERIFY(process.waitForFinished());
    // Not by its exit code: a library that tells what it does may crash when the program has ended.
    QVERIFY(process.readAllStandardOutput().startsWith("kavet "));
    QVERIFY(!heldSignalsBack(process.readAllStandardError()));
}

void TstAuthctl::reportsOfOthers()
{
    QCOMPARE(m_authd.stop(SIGTERM), 0);
    const LateService service;
    QVERIFY(service.isRunning);
    QProcess login;
    login.start(program, {QStringLiteral("login"), QStringLiteral("alice"), QStringLiteral("--method=kavet")});
    login.write("any\n");
    login.closeWriteChannel();
    QTRY_COMPARE_WITH_TIMEOUT(login.state(), QProcess::NotRunning, 30000);
    QCOMPARE(login.readAllStandardOutput(), QByteArray("alice: kavet is at work\nalice: authenticated by kavet\n"));
    QCOMPARE(login.exitCode(), int(Success));
}

void TstAuthctl::lockAndUnlock()
{
    QCOMPARE(run(QStringLiteral("options max-attempts 1")).exitCode, int(Success));
    const Result locking = run(QStringLiteral("login alice"), "failed\n");
    QCOMPARE(locking.exitCode, int(Locked));
    const QString locked = QStringLiteral("alice: locked by kavet (kavet-max-attempts), until root unlocks the user\n");
    QVERIFY(locking.output.endsWith(locked));

    // Nothing is asked for in vain.
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
    QCOMPARE(idle.output, QStringLiteral("alice: nothing under way\n"));
    QCOMPARE(run(QStringLiteral("login alice"), "success\n").exitCode, int(Success));
}

namespace {

/// authctl on a terminal of its own.
class OnTerminal
{
public:
    explicit OnTerminal(const QStringList &arguments)
    {
        m_pid = forkpty(&m_terminal, nullptr, nullptr, nullptr);
        if (m_pid == 0) {
            QVector<QByteArray> texts{program.toLocal8Bit()};
            for (const QString &argument : arguments)
                texts << argument.toLocal8Bit();
            QVector<char *> argv;
            for (QByteArray &text : texts)
                argv << text.data();
            argv << nullptr;
            execv(argv.constFirst(), argv.data());
            _exit(127);
        }
    }
    ~OnTerminal() { close(m_terminal); }

    /// Waits until the screen has `text`, or, with a null text, for the end.
    bool waitFor(const QByteArray &text)
    {
        while (text.isNull() || !screen.contains(text)) {
            char buffer[1024];
            const ssize_t count = read(m_terminal, buffer, sizeof buffer);
            if (count <= 0)
                return text.isNull();
            screen.append(buffer, int(count));
        }
        return true;
    }
    void type(const QByteArray &text)
    {
        QCOMPARE(write(m_terminal, text.constData(), size_t(text.size())), text.size());
    }
    bool echoes() const
    {
        termios settings;
        return tcgetattr(m_terminal, &settings) == 0 && (settings.c_lflag & ECHO) && (settings.c_lflag & ISIG);
    }
    int exitCode() const
    {
        int status = 0;
        return waitpid(m_pid, &status, 0) == m_pid && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }

    QByteArray screen;

private:
    int m_terminal = -1;
    pid_t m_pid = -1;
};

} // namespace

void TstAuthctl::passwordIsNotShown()
{
    OnTerminal login({QStringLiteral("login"), QStringLiteral("alice")});
    QVERIFY(login.waitFor("Password of alice: "));
    QVERIFY(!login.echoes());
    login.type("success\n");
    QVERIFY(login.waitFor("authenticated by kavet"));
    QVERIFY(login.echoes());
    QVERIFY(login.waitFor({}));
    QCOMPARE(login.exitCode(), int(Success));
    QCOMPARE(login.screen, QByteArray("Password of alice: \r\nalice: kavet is at work\r\nalice: success\r\n"
                                      "alice: authenticated by kavet\r\n"));

    OnTerminal withCertificate({QStringLiteral("login"), QStringLiteral("alice"), QStringLiteral("--cert=c")});
    QVERIFY(withCertificate.waitFor("PIN of c for alice: "));
    withCertificate.type("failed\n");
    QVERIFY(withCertificate.waitFor({}));
    QCOMPARE(withCertificate.exitCode(), int(Refused));
}

void TstAuthctl::slowTypist()
{
    // The time for an outcome begins when there is something to wait for; so the time must pass before.
    OnTerminal login({QStringLiteral("login"), QStringLiteral("alice"), QStringLiteral("--timeout=2")});
    QVERIFY(login.waitFor("Password of alice: "));
    QTest::qWait(2500);
    login.type("success\n");
    QVERIFY(login.waitFor({}));
    QCOMPARE(login.exitCode(), int(Success));
}

void TstAuthctl::lockedWhileAsked()
{
    QCOMPARE(run(QStringLiteral("options max-attempts 1")).exitCode, int(Success));
    OnTerminal login({QStringLiteral("login"), QStringLiteral("alice")});
    QVERIFY(login.waitFor("Password of alice: "));
    QCOMPARE(run(QStringLiteral("login alice"), "failed\n").exitCode, int(Locked));
    login.type("success\n");
    QVERIFY(login.waitFor("authctl: The user is locked: kavet-max-attempts"));
    QVERIFY(login.waitFor({}));
    QCOMPARE(login.exitCode(), int(Locked));
}

void TstAuthctl::breakingOff()
{
    OnTerminal login({QStringLiteral("login"), QStringLiteral("alice")});
    QVERIFY(login.waitFor("Password of alice: "));
    login.type("half a passw\x03");
    QVERIFY(login.waitFor("Nothing was entered"));
    QVERIFY(login.echoes());
    QVERIFY(login.waitFor({}));
    QCOMPARE(login.exitCode(), int(Refused));
    QCOMPARE(TestDevice::launches().size(), 0);
}

void TstAuthctl::options()
{
    QCOMPARE(runAs(TestDevice::alice, QStringLiteral("options --user alice")).output,
             QStringLiteral("attempts = 0\ndelayed-deletion = false\n"));
    QCOMPARE(run(QStringLiteral("options")).output, QStringLiteral("certs = \nmax-attempts = 0\n"));
    const Result set = run(QStringLiteral("options max-attempts 3 --json"));
    QCOMPARE(set.exitCode, int(Success));
    QCOMPARE(set.events(), QStringList{QStringLiteral("option")});
    QCOMPARE(set.objects().constFirst().value(QLatin1String("value")).toInt(), 3);
    QCOMPARE(runAs(TestDevice::alice, QStringLiteral("options max-attempts")).output,
             QStringLiteral("max-attempts = 3\n"));
    QCOMPARE(run(QStringLiteral("options --user alice attempts")).output, QStringLiteral("attempts = 0\n"));

    const Result wrong = run(QStringLiteral("options max-attempts many"));
    QCOMPARE(wrong.exitCode, int(Refused));
    QCOMPARE(wrong.errors, QStringLiteral("authctl: The option's values are of type int\n"));
    QCOMPARE(runAs(TestDevice::alice, QStringLiteral("options max-attempts 3")).exitCode, int(Refused));
    QCOMPARE(run(QStringLiteral("options --user alice attempts 0")).exitCode, int(Refused));
    QCOMPARE(runAs(TestDevice::bob, QStringLiteral("options --user alice")).exitCode, int(Refused));
    QCOMPARE(run(QStringLiteral("options other")).exitCode, int(Refused));
    QCOMPARE(run(QStringLiteral("options --user mallory")).exitCode, int(Refused));
    QCOMPARE(run(QStringLiteral("options --method other")).exitCode, int(Refused));
    // What is given and empty, as by a script's unset variable, is not the same as not given.
    QCOMPARE(run(QStringLiteral("options max-attempts 9 --user=")).errors,
             QStringLiteral("authctl: There is no user \n"));
    QCOMPARE(run(QStringLiteral("options --user= max-attempts 9")).errors,
             QStringLiteral("authctl: There is no user \n"));
    QCOMPARE(run(QStringLiteral("options max-attempts 9 --method=")).exitCode, int(Refused));
    // What is given twice counts as given last.
    QCOMPARE(run(QStringLiteral("options --user alice --user mallory")).errors,
             QStringLiteral("authctl: There is no user mallory\n"));
    QCOMPARE(run(QStringLiteral("options max-attempts")).output, QStringLiteral("max-attempts = 3\n"));
}

void TstAuthctl::certs()
{
    // Nobody to ask as long as no client has been started.
    QCOMPARE(run(QStringLiteral("certs")).output, QString());
    setClientScript(QJsonObject{{QStringLiteral("certs"), QJsonArray{QStringLiteral("one"), QStringLiteral("two")}}});
    QCOMPARE(run(QStringLiteral("login alice"), "success\n").exitCode, int(Success));
    const Result text = runAs(TestDevice::alice, QStringLiteral("certs"));
    QCOMPARE(text.exitCode, int(Success));
    QCOMPARE(text.output, QStringLiteral("one\ntwo\n"));
    const Result json = run(QStringLiteral("certs --json"));
    QCOMPARE(json.events(), (QStringList{QStringLiteral("cert"), QStringLiteral("cert")}));
    QCOMPARE(json.objects().constLast().value(QLatin1String("cert")).toString(), QStringLiteral("two"));
}

void TstAuthctl::certsInTheEnd()
{
    setClientScript(QJsonObject{{QStringLiteral("certs"), QJsonArray{QStringLiteral("one"), QStringLiteral("two")}},
                                {QStringLiteral("certsAnswer"), QStringLiteral("late")}});
    QCOMPARE(run(QStringLiteral("login alice"), "success\n").exitCode, int(Success));
    QProcess process;
    process.start(program, {QStringLiteral("certs")});
    QTRY_COMPARE(TestDevice::calls().size(), 2);
    // Meanwhile another option changes, which is no list of certificates.
    QCOMPARE(run(QStringLiteral("options max-attempts 3")).exitCode, int(Success));
    QVERIFY(TestDevice::writeFile(QStringLiteral("/tmp/scripted-client/answer"), {}));
    QVERIFY(process.waitForFinished());
    QCOMPARE(process.exitCode(), int(Success));
    QCOMPARE(process.readAllStandardOutput(), QByteArray("one\ntwo\n"));
}

void TstAuthctl::session()
{
    QCOMPARE(run(QStringLiteral("session start alice")).exitCode, int(Success));
    QVERIFY(m_authd.waitForLog("event=session-started uid=1000 manage-client=true\n"));
    QCOMPARE(run(QStringLiteral("session stop alice --unmanaged")).exitCode, int(Success));
    QVERIFY(m_authd.waitForLog("event=session-stopped uid=1000 manage-client=false\n"));
    QCOMPARE(runAs(TestDevice::alice, QStringLiteral("session start alice")).exitCode, int(Refused));
    QCOMPARE(run(QStringLiteral("session start mallory")).exitCode, int(Refused));
}

void TstAuthctl::cancel()
{
    const Result result = run(QStringLiteral("cancel alice --json"));
    QCOMPARE(result.exitCode, int(Refused));
    QCOMPARE(result.objects().constFirst().value(QLatin1String("error")).toString(),
             QStringLiteral("qarv.AuthService.Error.NoAttempt"));
}

void TstAuthctl::monitor()
{
    QProcess text;
    text.start(program, {QStringLiteral("monitor")});
    QProcess json;
    json.start(program, {QStringLiteral("monitor"), QStringLiteral("--json"), QStringLiteral("--timeout=1")});
    QByteArray output;
    QByteArray objects;
    // It tells nothing of its start, so something happens until both have seen it.
    QTRY_VERIFY(run(QStringLiteral("options max-attempts 4")).exitCode == Success
                && !(output += text.readAllStandardOutput()).isEmpty()
                && !(objects += json.readAllStandardOutput()).isEmpty());
    QVERIFY(output.startsWith("max-attempts = 4\n"));

    QCOMPARE(run(QStringLiteral("login alice"), "failed\n").exitCode, int(Refused));
    QCOMPARE(run(QStringLiteral("login bob"), "success\n").exitCode, int(Success));
    QTRY_VERIFY((output += text.readAllStandardOutput()).contains("bob: authenticated by kavet\n"));
    QTRY_VERIFY((objects += json.readAllStandardOutput()).contains("\"state\":\"authenticated\""));
    QVERIFY(output.contains("alice: failed: auth failed (code 11); attempts left: 4\n"));
    QVERIFY(output.contains("bob: success\n"));
    QVERIFY(output.contains("attempts = "));
    const Result parsed{0, QString::fromUtf8(objects), {}};
    const QStringList events = parsed.events();
    for (const char *event : {"option", "state", "failed", "authenticated"})
        QVERIFY2(events.contains(QLatin1String(event)), event);
    QVERIFY(!events.contains(QString()));

    // The time is for answers; they end with the service.
    QVERIFY(!QTest::qWaitFor([&json] { return json.state() == QProcess::NotRunning; }, 1500));
    QCOMPARE(m_authd.stop(SIGTERM), 0);
    for (QProcess *process : {&text, &json}) {
        QVERIFY(process->waitForFinished());
        QCOMPARE(process->exitCode(), int(Unreachable));
    }
}

void TstAuthctl::unreachable_data()
{
    QTest::addColumn<QString>("arguments");

    for (const char *arguments : {"methods", "login alice", "login alice --method kavet", "state alice", "cancel alice",
                                  "options", "options max-attempts 3 --method kavet", "certs", "session start alice",
                                  "session stop alice", "unlock alice", "monitor"})
        QTest::newRow(arguments) << QString::fromLatin1(arguments);
}

void TstAuthctl::unreachable()
{
    QFETCH(QString, arguments);
    QCOMPARE(m_authd.stop(SIGTERM), 0);

    const Result text = run(arguments, "success\n");
    QCOMPARE(text.exitCode, int(Unreachable));
    QCOMPARE(text.errors, QStringLiteral("authctl: The authentication service cannot be reached\n"));

    // The same without a bus.
    QProcess process;
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert(QStringLiteral("DBUS_SYSTEM_BUS_ADDRESS"), QStringLiteral("unix:path=/nowhere"));
    process.setProcessEnvironment(environment);
    process.start(program, QStringList{QStringLiteral("--json")} + arguments.split(QLatin1Char(' ')));
    process.write("success\n");
    process.closeWriteChannel();
    QVERIFY(process.waitForFinished());
    QCOMPARE(process.exitCode(), int(Unreachable));
    QCOMPARE(QJsonDocument::fromJson(process.readAllStandardOutput()).object().value(QLatin1String("event")).toString(),
             QStringLiteral("error"));
}

void TstAuthctl::daemonGoesAway()
{
    QProcess login;
    login.start(program, {QStringLiteral("login"), QStringLiteral("alice")});
    login.write("never\n");
    login.closeWriteChannel();
    QTRY_COMPARE(TestDevice::calls().size(), 1);
    m_authd.stop(SIGKILL);
    QVERIFY(login.waitForFinished());
    QCOMPARE(login.exitCode(), int(Unreachable));
    QCOMPARE(login.readAllStandardError(), QByteArray("authctl: The authentication service has gone\n"));
}

void TstAuthctl::silentDaemon()
{
    kill(pid_t(m_authd.pid()), SIGSTOP);
    QElapsedTimer clock;
    clock.start();
    const Result result = run(QStringLiteral("methods --timeout 1"));
    kill(pid_t(m_authd.pid()), SIGCONT);
    QVERIFY2(clock.elapsed() < 20000, "That was the library's time-out");
    QCOMPARE(result.exitCode, int(Unreachable));
    QCOMPARE(result.errors, QStringLiteral("authctl: The authentication service does not answer\n"));
}

QTEST_GUILESS_MAIN(TstAuthctl)

#include "tst_authctl.moc"
