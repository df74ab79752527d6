// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#include "device/authctl.h"
#include "device/authd.h"
#include "support/testdevice.h"
#include "support/wiper.h"

#include <QElapsedTimer>
#include <QJsonArray>
#include <QJsonDocument>
#include <QMap>
#include <QRegularExpression>
#include <QSet>
#include <QTest>

#include <csignal>

using namespace Authctl;

namespace {

QStringList sorted(const QSet<QString> &texts)
{
    QStringList list = texts.values();
    list.sort();
    return list;
}

} // namespace

class TstAuthctl : public AuthdTest
{
    Q_OBJECT

private Q_SLOTS:
    void usage_data();
    void usage();
    void methods();
    void reportsStayInOrder();
    void options();
    void certs();
    void certsInTheEnd();
    void session();
    void cancel();
    void monitor();
    void monitorOfUser();
    void hostileTexts();
    void jsonFields();
    void unreachable_data();
    void unreachable();
    void silentDaemon();
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

void TstAuthctl::reportsStayInOrder()
{
    QProcess process;
    process.setProcessEnvironment(debuggedBus());
    process.start(Installed::authctl, {QStringLiteral("methods")});
    QVERIFY(process.waitForFinished());
    // Do not check the exit code: with QDBUS_DEBUG, the library may crash while the program exits.
    QVERIFY(process.readAllStandardOutput().startsWith("kavet "));
    QVERIFY(!heldSignalsBack(process.readAllStandardError()));
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
    QCOMPARE(wrong.errors, QStringLiteral("authctl: The option's type is int\n"));
    QCOMPARE(runAs(TestDevice::alice, QStringLiteral("options max-attempts 3")).exitCode, int(Refused));
    QCOMPARE(run(QStringLiteral("options --user alice attempts 0")).exitCode, int(Refused));
    QCOMPARE(runAs(TestDevice::bob, QStringLiteral("options --user alice")).exitCode, int(Refused));
    QCOMPARE(run(QStringLiteral("options other")).exitCode, int(Refused));
    QCOMPARE(run(QStringLiteral("options --user mallory")).exitCode, int(Refused));
    QCOMPARE(run(QStringLiteral("options --method other")).exitCode, int(Refused));
    // An empty value, as from a script's unset variable, is not a missing one.
    QCOMPARE(run(QStringLiteral("options max-attempts 9 --user=")).errors, QStringLiteral("authctl: No such user: \n"));
    QCOMPARE(run(QStringLiteral("options --user= max-attempts 9")).errors, QStringLiteral("authctl: No such user: \n"));
    QCOMPARE(run(QStringLiteral("options max-attempts 9 --method=")).exitCode, int(Refused));
    // The last of several values counts.
    QCOMPARE(run(QStringLiteral("options --user alice --user mallory")).errors,
             QStringLiteral("authctl: No such user: mallory\n"));
    QCOMPARE(run(QStringLiteral("options max-attempts")).output, QStringLiteral("max-attempts = 3\n"));
}

void TstAuthctl::certs()
{
    // There are no certificates before a client has been started.
    QCOMPARE(run(QStringLiteral("certs")).output, QString());
    setClientScript(QJsonObject{{QStringLiteral("certs"), QJsonArray{QStringLiteral("one"), QStringLiteral("two")}}});
    QCOMPARE(run(QStringLiteral("login alice"), "success\n").exitCode, int(Success));
    const Result text = runAs(TestDevice::alice, QStringLiteral("certs"));
    QCOMPARE(text.exitCode, int(Success));
    QCOMPARE(text.output, QStringLiteral("one\ntwo\n"));
    QCOMPARE(runAs(TestDevice::bob, QStringLiteral("certs")).output, QString());
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
    process.start(Installed::authctl, {QStringLiteral("certs")});
    QTRY_COMPARE(TestDevice::calls().size(), 2);
    // A change of another option meanwhile must not be taken for the list.
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
    text.start(Installed::authctl, {QStringLiteral("monitor")});
    QProcess json;
    json.start(Installed::authctl,
               {QStringLiteral("monitor"), QStringLiteral("--json"), QStringLiteral("--timeout=1")});
    QByteArray output;
    QByteArray objects;
    // The monitors do not report when they are ready, so change an option until both have seen a change.
    // Setting the stored value again would send no signal.
    int limit = 10;
    QTRY_VERIFY(run(QStringLiteral("options max-attempts %1").arg(++limit)).exitCode == Success
                && !(output += text.readAllStandardOutput()).isEmpty()
                && !(objects += json.readAllStandardOutput()).isEmpty());
    QVERIFY(output.startsWith("max-attempts = "));
    QCOMPARE(run(QStringLiteral("options max-attempts 4")).exitCode, int(Success));

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

    // The timeout applies to replies only; the monitors run until the service ends.
    QVERIFY(!QTest::qWaitFor([&json] { return json.state() == QProcess::NotRunning; }, 1500));
    QCOMPARE(m_authd.stop(SIGTERM), 0);
    for (QProcess *process : {&text, &json}) {
        QVERIFY(process->waitForFinished());
        QCOMPARE(process->exitCode(), int(Unreachable));
    }
}

void TstAuthctl::monitorOfUser()
{
    QProcess monitor;
    monitor.start(QStringLiteral("setpriv"), {QStringLiteral("--reuid=1001"), QStringLiteral("--clear-groups"),
                                              Installed::authctl, QStringLiteral("monitor")});
    QByteArray output;
    int limit = 10;
    QTRY_VERIFY(run(QStringLiteral("options max-attempts %1").arg(++limit)).exitCode == Success
                && !(output += monitor.readAllStandardOutput()).isEmpty());
    QCOMPARE(run(QStringLiteral("login alice"), "success\n").exitCode, int(Success));
    QCOMPARE(run(QStringLiteral("login bob"), "success\n").exitCode, int(Success));
    QTRY_VERIFY((output += monitor.readAllStandardOutput()).contains("bob: authenticated by kavet\n"));
    QVERIFY2(!output.contains("alice"), output.constData());
    monitor.kill();
    QVERIFY(monitor.waitForFinished());
}

void TstAuthctl::hostileTexts()
{
    const QString red = QStringLiteral("\x1b[31m");
    const QString override = QChar(0x202e) + QStringLiteral("nimda");
    const QString forged = QStringLiteral("one\nalice: success\x7f");
    const QString red8Bit = QChar(0x9b) + QStringLiteral("31m");
    const QStringList certs = {red, override, forged, red8Bit};
    const QStringList shown = {QStringLiteral("\\u001b[31m"), QStringLiteral("\\u202enimda"),
                               QStringLiteral("one\\u000aalice: success\\u007f"), QStringLiteral("\\u009b31m")};
    setClientScript(QJsonObject{{QStringLiteral("certs"), QJsonArray::fromStringList(certs)}});
    QCOMPARE(run(QStringLiteral("login alice"), "success\n").exitCode, int(Success));
    QProcess monitor;
    monitor.start(Installed::authctl, {QStringLiteral("monitor")});
    QByteArray monitored;
    int limit = 10;
    QTRY_VERIFY(run(QStringLiteral("options max-attempts %1").arg(++limit)).exitCode == Success
                && !(monitored += monitor.readAllStandardOutput()).isEmpty());

    QCOMPARE(run(QStringLiteral("certs")).output, shown.join(QLatin1Char('\n')) + QLatin1Char('\n'));
    const QString option = QStringLiteral("certs = ") + shown.join(QStringLiteral(", ")) + QLatin1Char('\n');
    QTRY_VERIFY((monitored += monitor.readAllStandardOutput()).contains(option.toUtf8()));

    // The values in JSON are the same and escaped too.
    const Result json = run(QStringLiteral("certs --json"));
    QStringList values;
    const QVector<QJsonObject> objects = json.objects();
    for (const QJsonObject &object : objects)
        values << object.value(QLatin1String("cert")).toString();
    QCOMPARE(values, certs);
    for (const QChar harmful : {QChar(0x1b), QChar(0x7f), QChar(0x9b), QChar(0x202e)})
        QVERIFY(!json.output.contains(harmful));

    // Arguments in error messages are escaped too.
    QCOMPARE(run(QStringLiteral("state ") + red).errors, QStringLiteral("authctl: No such user: \\u001b[31m\n"));
    QCOMPARE(run(QStringLiteral("methods ") + red).errors.count(QStringLiteral("\\u001b[31m")), 1);
    QVERIFY(!run(QStringLiteral("methods ") + red).errors.contains(red));
    monitor.kill();
    QVERIFY(monitor.waitForFinished());
}

void TstAuthctl::jsonFields()
{
    // The manual page lists each event's fields in one line.
    const QString manual = QString::fromUtf8(TestDevice::readFile(QStringLiteral(AUTHCTL_SOURCE_DIR "/authctl.1")));
    const int begin = manual.indexOf(QLatin1String(".SH JSON OUTPUT"));
    const QString section = manual.mid(begin, manual.indexOf(QLatin1String("The fields:")) - begin);
    QMap<QString, QSet<QString>> documented;
    auto event = QRegularExpression(QStringLiteral("\\.TP\n\\.B (.+)\n\\.IR (.+)\n")).globalMatch(section);
    while (event.hasNext()) {
        const QRegularExpressionMatch match = event.next();
        auto field = QRegularExpression(QStringLiteral("[a-zA-Z-]+")).globalMatch(match.captured(2));
        while (field.hasNext())
            documented[match.captured(1)] << field.next().captured();
    }

    setClientScript(QJsonObject{{QStringLiteral("certs"), QJsonArray{QStringLiteral("one")}}});
    QProcess monitor;
    monitor.start(Installed::authctl, {QStringLiteral("--json"), QStringLiteral("monitor")});
    QByteArray monitored;
    int limit = 10;
    QTRY_VERIFY(run(QStringLiteral("options max-attempts %1").arg(++limit)).exitCode == Success
                && !(monitored += monitor.readAllStandardOutput()).isEmpty());
    QCOMPARE(run(QStringLiteral("login alice"), "failed\n").exitCode, int(Refused));
    QCOMPARE(run(QStringLiteral("login alice --timeout 1"), "never\n").exitCode, int(Unreachable));
    QCOMPARE(run(QStringLiteral("login alice"), "success\n").exitCode, int(Success));
    QTRY_VERIFY((monitored += monitor.readAllStandardOutput()).contains("\"state\":\"authenticated\""));
    monitor.kill();
    QVERIFY(monitor.waitForFinished());
    QString output = QString::fromUtf8(monitored);
    for (const char *arguments : {"methods", "certs", "options --user alice", "unlock alice", "cancel alice"})
        output += run(QStringLiteral("--json ") + QString::fromLatin1(arguments)).output;

    QMap<QString, QSet<QString>> told;
    const QVector<QJsonObject> objects = Result{0, output, {}}.objects();
    for (const QJsonObject &object : objects) {
        QStringList fields = object.keys();
        fields.removeOne(QStringLiteral("event"));
        told[object.value(QLatin1String("event")).toString()] += QSet<QString>(fields.cbegin(), fields.cend());
    }
    QCOMPARE(told.keys(), documented.keys());
    for (auto fields = told.cbegin(); fields != told.cend(); ++fields)
        QCOMPARE(sorted(fields.value()), sorted(documented.value(fields.key())));
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
    process.start(Installed::authctl, QStringList{QStringLiteral("--json")} + arguments.split(QLatin1Char(' ')));
    process.write("success\n");
    process.closeWriteChannel();
    QVERIFY(process.waitForFinished());
    QCOMPARE(process.exitCode(), int(Unreachable));
    QCOMPARE(QJsonDocument::fromJson(process.readAllStandardOutput()).object().value(QLatin1String("event")).toString(),
             QStringLiteral("error"));
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
    QCOMPARE(result.errors, QStringLiteral("authctl: The authentication service does not reply\n"));
}

QTEST_GUILESS_MAIN(TstAuthctl)

#include "tst_authctl.moc"
