// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#include "device/authd.h"
#include "device/inheritable.h"
#include "device/polltimeout.h"
#include "support/testdevice.h"
#include "support/waiting.h"
#include "support/wiper.h"

#include <QDBusConnectionInterface>
#include <QDeadlineTimer>
#include <QDir>
#include <QDirIterator>
#include <QElapsedTimer>
#include <QFile>
#include <QJsonArray>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <QTest>
#include <QXmlStreamReader>

#include <algorithm>
#include <csignal>
#include <sys/ptrace.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

const QString kavetMethod = QStringLiteral("kavet");
const uint alice = TestDevice::alice;
const uint bob = TestDevice::bob;
const QString accessDenied = QStringLiteral("org.freedesktop.DBus.Error.AccessDenied");
const QString invalidArgs = QStringLiteral("org.freedesktop.DBus.Error.InvalidArgs");
const QString serviceError = QStringLiteral("qarv.AuthService.Error.");
const QString locksFile = QStringLiteral("/var/lib/authd/locks.conf");
const QString testMethods = Installed::oddMethods;

QVariantMap password(const QString &text)
{
    return {{QStringLiteral("password"), text}};
}

/// The methods, signals and arguments in an interface description, one per line, without comments and annotations.
QStringList membersOf(const QByteArray &description, const QString &interface)
{
    QStringList members;
    QXmlStreamReader reader(description);
    bool isInside = false;
    while (!reader.atEnd()) {
        reader.readNext();
        if (reader.name() == QLatin1String("interface"))
            isInside = reader.isStartElement() && reader.attributes().value(QLatin1String("name")) == interface;
        if (!isInside || !reader.isStartElement() || reader.name() == QLatin1String("annotation"))
            continue;
        QString line = reader.name().toString();
        for (const char *attribute : {"name", "type", "direction"})
            line += QLatin1Char(' ') + reader.attributes().value(QLatin1String(attribute)).toString();
        members << line.trimmed();
    }
    return members;
}

QByteArray everythingIn(const QString &directory)
{
    QByteArray content;
    QDirIterator files(directory, QDir::Files | QDir::Hidden, QDirIterator::Subdirectories);
    while (files.hasNext())
        content += TestDevice::readFile(files.next());
    return content;
}

/// Command lines and environments of all processes.
QByteArray commandLinesAndEnvironments()
{
    QByteArray content;
    const QStringList processes = QDir(QStringLiteral("/proc")).entryList({QStringLiteral("[0-9]*")}, QDir::Dirs);
    for (const QString &process : processes) {
        for (const char *file : {"cmdline", "environ"})
            content += TestDevice::readFile(QStringLiteral("/proc/%1/%2").arg(process, QLatin1String(file))) + '\n';
    }
    return content;
}

void endBus()
{
    const pid_t pid = TestDevice::readFile(QStringLiteral("/run/dbus/pid")).trimmed().toInt();
    kill(pid, SIGTERM);
    QTRY_VERIFY(kill(pid, 0) != 0);
    QFile::remove(QStringLiteral("/run/dbus/pid"));
}

void startBusAgain()
{
    QCOMPARE(QProcess::execute(QStringLiteral("dbus-daemon"), {QStringLiteral("--system"), QStringLiteral("--fork")}),
             0);
}

} // namespace

/// The daemon with the kavet method and a scripted client.
class TstAuthd : public AuthdTest
{
    Q_OBJECT

private Q_SLOTS:
    // --- Starting and stopping ---

    void wrongUsageAndHelp_data();
    void wrongUsageAndHelp();
    void methodsAreChosenFromTheDirectory();
    void missingDirectory();
    void nameTaken();
    void nameNotAllowed();
    void noBus();
    void damagedLocks_data();
    void damagedLocks();
    void signalsEndIt_data();
    void signalsEndIt();
    void signalWhileAnAttemptIsOpen();
    void signalsItSurvives();
    void closesOnExec();
    void journalForm();
    void quotedInTheLog();
    void busRestart();
    void signalWhileItRestarts();
    void childrenOfTheFormerProgram();

    // --- The service ---

    void description();
    void methodInfo();
    void sleepsAfterCalls();

    // --- Attempts ---

    void success();
    void failures_data();
    void failures();
    void certificate();
    void challenge();
    void refusedRequests();
    void methodsAreKeptApart();
    void optionStormInTheLog();
    void cancelAndRetry();
    void nothingToCancel();
    void dyingClient();
    void clientEndsAfterwards();
    void lockAtTheLimit();
    void sessionStop();
    void sessionStart();

    // --- Options ---

    void optionsOfTheMethod();
    void certificateList();

    // --- Access rights ---

    void access_data();
    void access();
    void errorMessages_data();
    void errorMessages();
    void callerHasGone();
    void secretsStayInTheMessage();

private:
    QString authenticate(const BusUser &user, uint uid, const QString &text) const
    {
        return user.error(QStringLiteral("Authenticate"), {uid, kavetMethod, password(text)});
    }
    QString stateText(const BusUser &user, uint uid) const
    {
        QStringList texts;
        const QVariantList values = user.call(QStringLiteral("GetState"), {uid}).arguments().mid(1);
        for (const QVariant &value : values)
            texts << reportText(value);
        return texts.join(QLatin1Char(' '));
    }

    /// The attempt that the user's state belongs to.
    qulonglong attemptOf(const BusUser &user, uint uid) const
    {
        return user.call(QStringLiteral("GetState"), {uid}).arguments().value(0).toULongLong();
    }
};

void TstAuthd::wrongUsageAndHelp_data()
{
    QTest::addColumn<QStringList>("arguments");
    QTest::addColumn<int>("exitCode");
    QTest::addColumn<QByteArray>("text");

    QTest::newRow("unknown option") << QStringList{QStringLiteral("--nonsense")} << 2 << QByteArray("nonsense");
    QTest::newRow("argument") << QStringList{QStringLiteral("nonsense")} << 2 << QByteArray("No arguments expected");
    QTest::newRow("option without value") << QStringList{QStringLiteral("--methods")} << 2 << QByteArray("--methods");
    for (const char *value : {"0", "86401", "-1", "soon"})
        QTest::newRow(qPrintable(QStringLiteral("timeout of ") + QLatin1String(value)))
            << QStringList{QStringLiteral("--attempt-timeout=") + QLatin1String(value)} << 2
            << QByteArray("authd: --attempt-timeout must be between 1 and 86400 seconds.\nSee authd --help.\n");
    QTest::newRow("longest timeout") << QStringList{QStringLiteral("--attempt-timeout=86400"),
                                                    QStringLiteral("--version")}
                                     << 0 << QByteArray("authd 0.0.1\n");
    QTest::newRow("help") << QStringList{QStringLiteral("--help")} << 0 << QByteArray("--wait-for-bus");
    QTest::newRow("version") << QStringList{QStringLiteral("--version")} << 0 << QByteArray("authd 0.0.1\n");
}

void TstAuthd::wrongUsageAndHelp()
{
    QFETCH(QStringList, arguments);
    QFETCH(QByteArray, text);

    const auto result = Authd::run(arguments);
    QTEST(result.first, "exitCode");
    if (text.endsWith('\n')) // all of it
        QCOMPARE(result.second, text);
    else
        QVERIFY2(result.second.contains(text), result.second.constData());
    if (arguments == QStringList{QStringLiteral("--help")}) {
        const QString manual = QString::fromUtf8(TestDevice::readFile(QStringLiteral(DAEMON_SOURCE_DIR "/authd.8")));
        QCOMPARE(longOptions(manual), longOptions(QString::fromUtf8(result.second)));
    }
}

void TstAuthd::methodsAreChosenFromTheDirectory()
{
    QCOMPARE(m_authd.stop(SIGTERM), 0);
    QTemporaryDir directory;
    const QString to = directory.path() + QLatin1Char('/');
    QVERIFY(QFile::copy(Installed::plugin, to + QStringLiteral("a.so")));
    for (const char *name : {"libpuppet.so", "libimpostor.so", "libtaken.so", "libstranger.so", "libincomplete.so",
                             "libnameless.so", "libnometadata.so"})
        QVERIFY(QFile::copy(testMethods + QLatin1Char('/') + QLatin1String(name), to + QLatin1String(name)));
    QVERIFY(QFile::copy(testMethods + QStringLiteral("/libpuppet.so"), to + QStringLiteral("second.so")));
    QVERIFY(TestDevice::writeFile(to + QStringLiteral("readme.txt"), "no library"));
    QVERIFY(TestDevice::writeFile(to + QStringLiteral("text.so"), "no library"));
    QVERIFY(QDir(to).mkdir(QStringLiteral("directory.so")));
    QCOMPARE(mkfifo(QFile::encodeName(to + QStringLiteral("fifo.so")).constData(), 0600), 0);
    QVERIFY(QFile::link(QStringLiteral("/nowhere"), to + QStringLiteral("link.so")));

    // Of the same priority as libpuppet.so's; the names come before the files' names.
    QVERIFY(QFile::rename(to + QStringLiteral("libimpostor.so"), to + QStringLiteral("z.so")));

    QVERIFY(m_authd.start(directory.path()));
    QCOMPARE(BusUser(0).call(QStringLiteral("GetMethods")).arguments().constFirst().toStringList(),
             (QStringList{QStringLiteral("puppet"), kavetMethod}));
    const QByteArray log = m_authd.log();
    for (const char *line : {
             "readme.txt reason=\"not a library\"",
             "text.so reason=\"no plugin metadata\"",
             "libnometadata.so reason=\"no plugin metadata\"",
             "libnameless.so reason=\"no name in the metadata\"",
             "libtaken.so reason=\"name already taken\"",
             "second.so reason=\"name already taken\"",
             "libstranger.so reason=\"another interface\" details=\"wanted qarv.authplugin\"",
             "libincomplete.so reason=\"cannot be loaded\"",
             "z.so reason=\"name differs from the metadata\"",
         })
        QCOMPARE(log.count(QByteArray("/") + line), 1);
    QCOMPARE(log.count("event=method-refused"), 9);
    QCOMPARE(log.count("event=method-loaded"), 2);
    QVERIFY(log.indexOf("z.so reason=") < log.indexOf("event=method-loaded method=puppet"));
    QVERIFY(log.contains("level=info event=method-loaded method=kavet priority=50 file=" + to.toUtf8() + "a.so\n"));
    for (const char *other : {"directory.so", "fifo.so", "link.so"})
        QVERIFY(!log.contains(other));
}

void TstAuthd::missingDirectory()
{
    const auto result = Authd::run({QStringLiteral("--methods"), QStringLiteral("/nowhere")});
    QCOMPARE(result.first, 1);
    QVERIFY(result.second.contains("event=no-methods-directory directory=/nowhere"));

    // An empty directory is not an error.
    QCOMPARE(m_authd.stop(SIGTERM), 0);
    QTemporaryDir directory;
    QVERIFY(m_authd.start(directory.path()));
    QVERIFY(m_authd.log().contains("event=no-methods "));
    QCOMPARE(BusUser(0).call(QStringLiteral("GetMethods")).arguments().constFirst().toStringList(), QStringList());
}

void TstAuthd::nameTaken()
{
    QTemporaryDir directory;
    const auto result = Authd::run({QStringLiteral("--methods"), directory.path()});
    QCOMPARE(result.first, 4);
    QVERIFY(result.second.contains("event=name-taken"));
}

void TstAuthd::nameNotAllowed()
{
    QCOMPARE(m_authd.stop(SIGTERM), 0);
    QProcess process;
    process.start(QStringLiteral("setpriv"), {QStringLiteral("--reuid=%1").arg(alice), QStringLiteral("--clear-groups"),
                                              Installed::authd, QStringLiteral("--methods"), QStringLiteral("/tmp")});
    QVERIFY(process.waitForFinished());
    const QByteArray log = process.readAllStandardError();
    QVERIFY2(process.exitCode() == 4, log.constData());
    QVERIFY2(log.contains("event=name-refused"), log.constData());
}

void TstAuthd::noBus()
{
    QCOMPARE(m_authd.stop(SIGTERM), 0);
    endBus();
    QTemporaryDir directory;
    const auto result = Authd::run({QStringLiteral("--methods"), directory.path()});
    startBusAgain();
    QCOMPARE(result.first, 3);
    QVERIFY2(result.second.contains("level=error event=no-bus"), result.second.constData());
}

void TstAuthd::damagedLocks_data()
{
    QTest::addColumn<QByteArray>("content");

    QTest::newRow("noise") << QByteArray("\xff\xfe\0\n[", 5);
    QTest::newRow("no user id") << QByteArray("[alice]\nmethod=m\nreason=r\nuntil=0\n");
    QTest::newRow("no time") << QByteArray("[1000]\nmethod=m\nreason=r\n");
    QTest::newRow("no reason") << QByteArray("[1000]\nmethod=m\nuntil=0\n");
    QTest::newRow("no method") << QByteArray("[1000]\nreason=r\nuntil=0\n");
    QTest::newRow("negative time") << QByteArray("[1000]\nmethod=m\nreason=r\nuntil=-1\n");
    QTest::newRow("no number of unlocks") << QByteArray("[1000]\nunlocks=many\n");
    for (const char *part : {"method=m", "reason=r", "until=0"})
        QTest::addRow("unlocks and %s", part) << "[1000]\nunlocks=1\n" + QByteArray(part) + '\n';
}

void TstAuthd::damagedLocks()
{
    QFETCH(QByteArray, content);
    QCOMPARE(m_authd.stop(SIGTERM), 0);
    QVERIFY(TestDevice::writeFile(locksFile, content));

    QTemporaryDir directory;
    const auto result = Authd::run({QStringLiteral("--methods"), directory.path()});
    QCOMPARE(result.first, 1);
    QVERIFY2(result.second.contains("event=locks-damaged file=/var/lib/authd/locks.conf"), result.second.constData());
    QVERIFY2(!result.second.contains("error=\"\""), result.second.constData());
    QVERIFY2(!result.second.contains("GLib"), result.second.constData());
    QCOMPARE(TestDevice::readFile(locksFile), content);

    // The same holds for the copy of what could not be saved.
    const QString unsaved = QStringLiteral("/run/authd/locks.conf");
    QVERIFY(QFile::remove(locksFile));
    QVERIFY(TestDevice::writeFile(unsaved, content));
    const auto ofCopy = Authd::run({QStringLiteral("--methods"), directory.path()});
    QVERIFY(QFile::rename(unsaved, locksFile));
    QCOMPARE(ofCopy.first, 1);
    QVERIFY2(ofCopy.second.contains("event=locks-damaged file=/run/authd/locks.conf"), ofCopy.second.constData());

    // A symbolic link is not followed.
    QVERIFY(QFile::rename(locksFile, locksFile + QStringLiteral(".real")));
    QVERIFY(QFile::link(locksFile + QStringLiteral(".real"), locksFile));
    const auto refused = Authd::run({QStringLiteral("--methods"), directory.path()});
    QCOMPARE(refused.first, 1);
    QVERIFY(refused.second.contains("level=error event=locks-unreadable file=/var/lib/authd/locks.conf "
                                    "error=\"Invalid argument\"\n"));
}

void TstAuthd::signalsEndIt_data()
{
    QTest::addColumn<int>("signal");
    QTest::addColumn<bool>("withBus");

    QTest::newRow("SIGTERM") << SIGTERM << true;
    QTest::newRow("SIGINT") << SIGINT << true;
    QTest::newRow("SIGHUP") << SIGHUP << true;
    QTest::newRow("SIGTERM while waiting for the bus") << SIGTERM << false;
}

void TstAuthd::signalsEndIt()
{
    QFETCH(int, signal);
    QFETCH(bool, withBus);
    const BusUser root(0);
    Reports reports(root);
    QCOMPARE(authenticate(root, alice, QStringLiteral("success")), QString());
    QVERIFY(reports.waitFor(QStringLiteral("StateChanged(1000, authenticated")));
    const pid_t client = TestDevice::launches().constLast().value(QLatin1String("pid")).toInt();
    QCOMPARE(kill(client, 0), 0);

    if (!withBus) {
        endBus();
        QVERIFY(m_authd.waitForLog("event=no-bus"));
    }
    const int exitCode = m_authd.stop(signal);
    if (!withBus)
        startBusAgain();
    QCOMPARE(exitCode, 0);
    // The daemon ends its client.
    QTRY_VERIFY(kill(client, 0) != 0);
}

void TstAuthd::signalWhileAnAttemptIsOpen()
{
    const BusUser root(0);
    QCOMPARE(authenticate(root, alice, QStringLiteral("never")), QString());
    QTRY_COMPARE(TestDevice::calls().size(), 1);
    const pid_t client = TestDevice::launches().constLast().value(QLatin1String("pid")).toInt();
    QCOMPARE(m_authd.stop(SIGTERM), 0);
    QTRY_VERIFY(kill(client, 0) != 0);

    // The next daemon starts without a trace of the attempt.
    QVERIFY(m_authd.start());
    QCOMPARE(stateText(root, alice), QStringLiteral("idle {}"));
    Reports reports(root);
    QCOMPARE(authenticate(root, alice, QStringLiteral("success")), QString());
    QVERIFY(reports.waitFor(QStringLiteral("StateChanged(1000, authenticated")));
}

void TstAuthd::signalsItSurvives()
{
    QCOMPARE(m_authd.stop(SIGTERM), 0);
    // SIGPIPE comes when the log's reader exits, and SIGHUP when the terminal closes under nohup.
    QProcess daemon;
    daemon.start(QStringLiteral("sh"),
                 {QStringLiteral("-c"),
                  QStringLiteral("trap '' HUP; exec %1 --methods %2").arg(Installed::authd, Installed::methods)});
    QVERIFY(daemon.waitForStarted());
    const BusUser root(0);
    QTRY_COMPARE(root.error(QStringLiteral("GetMethods")), QString());
    for (const int signal : {SIGPIPE, SIGHUP}) {
        kill(pid_t(daemon.processId()), signal);
        QCOMPARE(root.error(QStringLiteral("SessionStarted"), {alice, false}), QString());
    }
    QCOMPARE(daemon.state(), QProcess::Running);

    // The client does not inherit ignored signals.
    QCOMPARE(authenticate(root, alice, QStringLiteral("never")), QString());
    QTRY_COMPARE(TestDevice::calls().size(), 1);
    const pid_t client = TestDevice::launches().constLast().value(QLatin1String("pid")).toInt();
    const QByteArray status = TestDevice::readFile(QStringLiteral("/proc/%1/status").arg(client));
    const int ignored = status.indexOf("SigIgn:");
    QVERIFY(ignored >= 0);
    const quint64 mask = status.mid(ignored + 7, 18).trimmed().toULongLong(nullptr, 16);
    QCOMPARE(mask & (quint64(1) << (SIGPIPE - 1)), quint64(0));
    kill(pid_t(daemon.processId()), SIGTERM);
    QVERIFY(daemon.waitForFinished());
    QCOMPARE(daemon.exitCode(), 0);
}

void TstAuthd::closesOnExec()
{
    const BusUser root(0);
    Reports reports(root);
    QCOMPARE(authenticate(root, alice, QStringLiteral("success")), QString());
    QVERIFY(reports.waitFor(QStringLiteral("StateChanged(1000, authenticated")));
    QCOMPARE(inheritable(QString::number(m_authd.pid())), inheritable(QStringLiteral("self")));
}

void TstAuthd::journalForm()
{
    QCOMPARE(m_authd.stop(SIGTERM), 0);
    QProcess process;
    process.start(Installed::authd,
                  {QStringLiteral("--journal"), QStringLiteral("--methods"), QStringLiteral("/nowhere")});
    QVERIFY(process.waitForFinished());
    QCOMPARE(process.readAllStandardError(), QByteArray("<3>event=no-methods-directory directory=/nowhere\n"));

    // JOURNAL_STREAM identifies the journal's stream by device and inode; the test uses a file instead.
    const QString file = QStringLiteral("/tmp/journal");
    for (const bool isJournal : {true, false}) {
        process.start(QStringLiteral("sh"),
                      {QStringLiteral("-c"),
                       QStringLiteral("exec 2>%1; JOURNAL_STREAM=$(stat -c %d:%i %1)%2 exec %3 --methods /nowhere")
                           .arg(file, isJournal ? QString() : QStringLiteral("0"), Installed::authd)});
        QVERIFY(process.waitForFinished());
        QCOMPARE(TestDevice::readFile(file), isJournal ? "<3>event=no-methods-directory directory=/nowhere\n"
                                                       : "level=error event=no-methods-directory directory=/nowhere\n");
    }
}

void TstAuthd::quotedInTheLog()
{
    QCOMPARE(m_authd.stop(SIGTERM), 0);
    QTemporaryDir directory;
    const QByteArray prefix = directory.path().toUtf8() + "/x";
    QByteArrayList expected;
    for (char c = ' '; c <= '~'; ++c) {
        if (c == '/')
            continue;
        const QByteArray path = prefix + c;
        QVERIFY(TestDevice::writeFile(QString::fromUtf8(path), {}));
        const bool isPlain = QByteArray("_.:+,@-").contains(c) || QChar::isLetterOrNumber(uint(c));
        const QByteArray quoted = prefix + (c == '"' || c == '\\' ? "\\" : "") + c;
        expected << " file=" + (isPlain ? path : '"' + quoted + '"') + " reason=";
    }
    QVERIFY(m_authd.start(directory.path()));
    const QByteArray log = m_authd.log();
    for (const QByteArray &file : qAsConst(expected))
        QVERIFY2(log.contains(file), file.constData());
}

void TstAuthd::busRestart()
{
    const qint64 pid = m_authd.pid();
    for (int i = 1; i <= 3; ++i) {
        endBus();
        startBusAgain();
        QVERIFY(m_authd.waitForLog("event=ready", i + 1));
        QCOMPARE(m_authd.pid(), pid);

        const BusUser root(0);
        Reports reports(root);
        QCOMPARE(authenticate(root, alice, QStringLiteral("success")), QString());
        QVERIFY(reports.waitFor(QStringLiteral("StateChanged(1000, authenticated")));
    }
    QCOMPARE(m_authd.log().count("level=warning event=bus-lost\n"), 3);
    // The daemon adds the option only once.
    QCOMPARE(TestDevice::readFile(QStringLiteral("/proc/%1/cmdline").arg(pid)).count("--wait-for-bus"), 1);
}

void TstAuthd::signalWhileItRestarts()
{
    const auto daemon = pid_t(m_authd.pid());
    QCOMPARE(ptrace(PTRACE_SEIZE, daemon, nullptr, PTRACE_O_TRACEEXEC), 0L);
    endBus();
    int status = 0;
    for (;;) {
        QCOMPARE(waitpid(daemon, &status, __WALL), daemon);
        QVERIFY(WIFSTOPPED(status));
        if (status >> 8 == (SIGTRAP | PTRACE_EVENT_EXEC << 8))
            break;
        QCOMPARE(ptrace(PTRACE_CONT, daemon, nullptr, WSTOPSIG(status)), 0L);
    }
    // The new program has no handler yet.
    QCOMPARE(kill(daemon, SIGTERM), 0);
    QCOMPARE(ptrace(PTRACE_DETACH, daemon, nullptr, nullptr), 0L);
    QTRY_VERIFY(!m_authd.isRunning());
    QCOMPARE(m_authd.process().exitStatus(), QProcess::NormalExit);
    QCOMPARE(m_authd.process().exitCode(), 0);
    startBusAgain();
}

void TstAuthd::childrenOfTheFormerProgram()
{
    QCOMPARE(m_authd.stop(SIGTERM), 0);
    QVERIFY(m_authd.start(testMethods));
    QCOMPARE(BusUser(0).error(QStringLiteral("SetUserMethodOption"),
                              {alice, QStringLiteral("puppet"), QStringLiteral("do"),
                               QVariant::fromValue(QDBusVariant(QStringLiteral("fork:1001")))}),
             QString());
    endBus();
    startBusAgain();
    QVERIFY(m_authd.waitForLog("event=ready", 2));
    // The daemon ended the method's child and did not leave it a zombie, nor did it wait for that one.
    QVERIFY(m_authd.log().contains("event=leftovers-ended"));
    QVERIFY(!m_authd.log().contains("event=leftovers-remain"));
    QCOMPARE(TestDevice::readFile(QStringLiteral("/proc/%1/task/%1/children").arg(m_authd.pid())), QByteArray());
}

void TstAuthd::description()
{
    QDBusMessage call = QDBusMessage::createMethodCall(
        QStringLiteral("qarv.AuthService"), QStringLiteral("/qarv/AuthService"),
        QStringLiteral("org.freedesktop.DBus.Introspectable"), QStringLiteral("Introspect"));
    const BusUser user(alice);
    const QDBusMessage reply = user.connection().call(call);
    QCOMPARE(reply.type(), QDBusMessage::ReplyMessage);
    const QString interface = QStringLiteral("qarv.AuthService");
    const QStringList running = membersOf(reply.arguments().constFirst().toByteArray(), interface);
    const QStringList described = membersOf(TestDevice::readFile(QStringLiteral(AUTHSERVICE_XML)), interface);
    QVERIFY(described.size() > 60);
    QCOMPARE(running, described);
}

void TstAuthd::methodInfo()
{
    const BusUser user(alice);
    const QString expected =
        QStringLiteral("{auth-page=MethodPageKavet, available=%1, description=Kavet authentication method, "
                       "info-page=KavetInfo, pre-page=PreMethodPageKavet, priority=50, types=20, version=0.0.1}");
    const auto info = [&user] {
        return reportText(user.call(QStringLiteral("GetMethodInfo"), {kavetMethod}).arguments().constFirst());
    };
    QCOMPARE(info(), expected.arg(QLatin1String("true")));
    const ClientAside aside;
    QCOMPARE(info(), expected.arg(QLatin1String("false")));
    QCOMPARE(user.error(QStringLiteral("GetMethodInfo"), {QStringLiteral("other")}),
             serviceError + QStringLiteral("NoSuchMethod"));
}

void TstAuthd::sleepsAfterCalls()
{
    // The daemon asks the bus who calls, with a timeout.
    const BusUser user(bob);
    QCOMPARE(user.error(QStringLiteral("GetMethods")), QString());
    QVERIFY(waitUntil([this] { return pollTimeout(m_authd.pid()) == -1; }));
}

void TstAuthd::success()
{
    const BusUser user(alice);
    Reports reports(user);
    QCOMPARE(stateText(user, alice), QStringLiteral("idle {}"));
    QCOMPARE(authenticate(user, alice, QStringLiteral("success")), QString());
    QVERIFY(reports.waitFor(QStringLiteral("StateChanged(1000, authenticated")));
    QCOMPARE(reports.texts, (QStringList{QStringLiteral("StateChanged(1000, pending, {method=kavet})"),
                                         QStringLiteral("Authenticated(1000, kavet)"),
                                         QStringLiteral("StateChanged(1000, authenticated, {method=kavet})")}));
    QCOMPARE(stateText(user, alice), QStringLiteral("authenticated {method=kavet}"));
    QCOMPARE(TestDevice::calls(), (QVector<QJsonArray>{{QStringLiteral("checkPassword"), QStringLiteral("alice"),
                                                        QStringLiteral("success")}}));
    // The count is reset.
    QVERIFY(TestDevice::readFile(QStringLiteral("/var/lib/authd/users/1000.conf")).contains("attempts=0"));
}

void TstAuthd::failures_data()
{
    QTest::addColumn<QString>("answer");
    QTest::addColumn<QString>("result");
    QTest::addColumn<bool>("isCounted");

    const auto row = [](const char *answer, const char *result, bool isCounted) {
        QTest::newRow(answer) << QString::fromLatin1(answer) << QString::fromLatin1(result) << isCounted;
    };
    row("failed", "11, AuthFailed", true);
    row("anything else", "11, AuthFailed", true);
    row("remove", "7, TooManyAttempts", true);
    row("lock", "6, UserLocked", false);
    row("nousb", "9, NoUsbDevice", false);
    row("connerr", "10, ConnectionError", false);
    row("firstcererr", "12, BadDefaultCert", false);
    row("errauthtype", "14, ErrAuthType", false);
    row("error", "5, CannotCommunicateClient", false);
    row("die", "5, CannotCommunicateClient", false);
}

void TstAuthd::failures()
{
    QFETCH(QString, answer);
    QFETCH(QString, result);
    QFETCH(bool, isCounted);
    const BusUser root(0);
    QCOMPARE(root.error(QStringLiteral("SetMethodOption"),
                        {kavetMethod, QStringLiteral("max-attempts"), QVariant::fromValue(QDBusVariant(5))}),
             QString());
    Reports reports(root);
    QCOMPARE(authenticate(root, bob, answer), QString());
    QTRY_VERIFY(reports.texts.contains(
        QStringLiteral("AuthenticationFailed(1001, kavet, %1, %2, 5)").arg(result, QVariant(isCounted).toString())));
    QTRY_VERIFY(reports.texts.contains(
        QStringLiteral("StateChanged(1001, challenge, {input-request-type=2, method=kavet, result-code=%1})")
            .arg(result.section(QLatin1Char(','), 0, 0))));
    // Only the client's verdict on the password is counted. The value is a string if it comes from the client's file.
    QCOMPARE(QRegularExpression(QStringLiteral("attempts='?1"))
                 .match(QString::fromUtf8(TestDevice::readFile(QStringLiteral("/var/lib/authd/users/1001.conf"))))
                 .hasMatch(),
             isCounted);

    // The next attempt succeeds once the method has noticed that its client has exited.
    if (answer == QLatin1String("die")) {
        QVERIFY(m_authd.waitForLog("event=restart method=kavet"));
        QVERIFY(logIn(root, bob));
        return;
    }
    QCOMPARE(authenticate(root, bob, QStringLiteral("success")), QString());
    QVERIFY(reports.waitFor(QStringLiteral("StateChanged(1001, authenticated")));
}

void TstAuthd::certificate()
{
    const BusUser user(alice);
    Reports reports(user);
    QCOMPARE(
        user.error(QStringLiteral("Authenticate"), {alice, kavetMethod,
                                                    QVariantMap{{QStringLiteral("cert"), QStringLiteral("pkcs11:a")},
                                                                {QStringLiteral("pin"), QStringLiteral("success")}}}),
        QString());
    QVERIFY(reports.waitFor(QStringLiteral("StateChanged(1000, authenticated")));
    QCOMPARE(TestDevice::calls(), (QVector<QJsonArray>{{QStringLiteral("validateCert"), QStringLiteral("pkcs11:a"),
                                                        QStringLiteral("alice"), QStringLiteral("success")}}));
}

void TstAuthd::challenge()
{
    const BusUser user(alice);
    Reports reports(user);
    const QString challenge =
        QStringLiteral("StateChanged(1000, challenge, {input-request-type=2, method=kavet, result-code=0})");
    QCOMPARE(user.error(QStringLiteral("RequestChallenge"), {alice, kavetMethod}), QString());
    QVERIFY(reports.waitFor(challenge));
    QCOMPARE(TestDevice::launches().size(), 1);
    QCOMPARE(TestDevice::calls().size(), 0);

    // A certificate without a PIN is not sent to the client.
    QCOMPARE(user.error(QStringLiteral("Authenticate"),
                        {alice, kavetMethod, QVariantMap{{QStringLiteral("cert"), QStringLiteral("c")}}}),
             QString());
    QTRY_COMPARE(reports.texts.count(challenge), 2);
    // All of this is one attempt, and it is still open.
    QCOMPARE(QSet<qulonglong>(reports.attempts.cbegin(), reports.attempts.cend()).size(), 1);
    QVERIFY(reports.texts.filter(QStringLiteral("AttemptGivenUp")).isEmpty());
    QCOMPARE(TestDevice::calls().size(), 0);
}

void TstAuthd::refusedRequests()
{
    const BusUser root(0);
    const QString member = QStringLiteral("Authenticate");
    QCOMPARE(root.error(member, {uint(4711), kavetMethod, password({})}), serviceError + QStringLiteral("NoSuchUser"));
    QCOMPARE(root.error(member, {uint(0), kavetMethod, password({})}), serviceError + QStringLiteral("NoSuchUser"));
    QCOMPARE(root.error(member, {alice, QStringLiteral("other"), password({})}),
             serviceError + QStringLiteral("NoSuchMethod"));
    QCOMPARE(root.error(member, {alice, kavetMethod,
                                 QVariantMap{{QStringLiteral("password"), QVariantMap{{QStringLiteral("a"), 1}}}}}),
             invalidArgs);
    QCOMPARE(TestDevice::launches().size(), 0);
    QCOMPARE(stateText(root, alice), QStringLiteral("idle {}"));
}

void TstAuthd::methodsAreKeptApart()
{
    QCOMPARE(m_authd.stop(SIGTERM), 0);
    QTemporaryDir directory;
    QVERIFY(QFile::copy(Installed::plugin, directory.filePath(QStringLiteral("kavet.so"))));
    QVERIFY(
        QFile::copy(testMethods + QStringLiteral("/libpuppet.so"), directory.filePath(QStringLiteral("puppet.so"))));
    QVERIFY(m_authd.start(directory.path()));
    const BusUser root(0);
    Reports reports(root);
    const QString puppet = QStringLiteral("puppet");
    const auto act = [&](const char *script) {
        return root.error(
            QStringLiteral("SetUserMethodOption"),
            {alice, puppet, QStringLiteral("do"), QVariant::fromValue(QDBusVariant(QString::fromLatin1(script)))});
    };

    // A method neither ends nor restarts an attempt with another.
    QCOMPARE(authenticate(root, alice, QStringLiteral("never")), QString());
    QTRY_COMPARE(TestDevice::calls().size(), 1);
    QCOMPARE(act("succeed restart"), QString());
    QVERIFY(m_authd.waitForLog("event=outcome-without-attempt method=puppet outcome=success\n"));
    QVERIFY(m_authd.waitForLog("event=restart method=puppet uid=1000\n"));
    QCOMPARE(stateText(root, alice), QStringLiteral("pending {method=kavet}"));

    // Input for a method does not go to another that waits for some.
    QCOMPARE(root.error(QStringLiteral("Authenticate"),
                        {alice, puppet, QVariantMap{{QStringLiteral("do"), QStringLiteral("input")}}}),
             QString());
    QTRY_COMPARE(stateText(root, alice), QStringLiteral("challenge {input-request-type=2, method=puppet}"));
    const qulonglong attempt = attemptOf(root, alice);
    QCOMPARE(authenticate(root, alice, QStringLiteral("success")), QString());
    QVERIFY(reports.waitFor(QStringLiteral("StateChanged(1000, authenticated, {method=kavet})")));
    QVERIFY(reports.attempts.constLast() != attempt);
}

void TstAuthd::optionStormInTheLog()
{
    // A user's file may change without end. Every change is signalled, but only some are logged.
    const BusUser root(0);
    Reports reports(root);
    const QString maxAttempts = QStringLiteral("max-attempts");
    constexpr int changes = 300;
    int count = 0;
    const auto change = [&] {
        QCOMPARE(root.error(QStringLiteral("SetMethodOption"),
                            {kavetMethod, maxAttempts, QVariant::fromValue(QDBusVariant(3 + ++count % 2))}),
                 QString());
    };
    QElapsedTimer time;
    time.start();
    while (count < changes)
        change();
    const auto isTold = [](const QDBusMessage &report) {
        return report.member() == QLatin1String("MethodOptionChanged");
    };
    QTRY_COMPARE(std::count_if(reports.all.cbegin(), reports.all.cend(), isTold), changes);
    const QByteArray line = "event=option-changed";
    QVERIFY(m_authd.log().count(line) >= 100);
    QVERIFY(m_authd.log().count(line) <= 100 + 5 * (time.elapsed() / 1000 + 1));
    QVERIFY(m_authd.log().count(line) < changes);
    // The next lines that fit the limit count the suppressed ones.
    const QDeadlineTimer deadline(30000);
    for (int logged = 0; logged < 2 && !deadline.hasExpired();) {
        const int before = m_authd.log().count(line);
        change();
        logged += m_authd.log().count(line) > before;
    }
    QCOMPARE(m_authd.log().count(line) + unloggedBefore(m_authd.log()), count);
    // Another user's changes are logged, and counted, apart.
    int before = 0;
    do {
        before = m_authd.log().count(line);
        change();
    } while (m_authd.log().count(line) > before);
    QCOMPARE(authenticate(root, alice, QStringLiteral("success")), QString());
    QVERIFY(m_authd.waitForLog("event=option-changed method=kavet uid=1000 option=attempts computed=false\n"));
}

void TstAuthd::cancelAndRetry()
{
    const BusUser user(alice);
    const BusUser root(0);
    Reports reports(user);
    QCOMPARE(authenticate(user, alice, QStringLiteral("late")), QString());
    QTRY_COMPARE(TestDevice::calls().size(), 1);
    QCOMPARE(user.error(QStringLiteral("Cancel"), {attemptOf(user, alice)}), QString());
    QVERIFY(reports.waitFor(QStringLiteral("StateChanged(1000, idle, {})")));
    QVERIFY(reports.texts.contains(QStringLiteral("AttemptGivenUp(1000, kavet, cancelled)")));

    // The pending reply of the cancelled attempt must authenticate nobody: neither alice nor the next user.
    QCOMPARE(authenticate(user, alice, QStringLiteral("never")), QString());
    QTRY_COMPARE(TestDevice::calls().size(), 2);
    QVERIFY(TestDevice::writeFile(QStringLiteral("/tmp/scripted-client/answer"), {}));
    QVERIFY(
        !QTest::qWaitFor([&] { return reports.texts.contains(QStringLiteral("Authenticated(1000, kavet)")); }, 500));
    QCOMPARE(stateText(user, alice), QStringLiteral("pending {method=kavet}"));

    QCOMPARE(authenticate(user, alice, QStringLiteral("success")), QString());
    QVERIFY(reports.waitFor(QStringLiteral("StateChanged(1000, authenticated")));
    QVERIFY(reports.texts.contains(QStringLiteral("AttemptGivenUp(1000, kavet, replaced)")));
}

void TstAuthd::nothingToCancel()
{
    const BusUser user(alice);
    const BusUser root(0);
    QCOMPARE(user.error(QStringLiteral("Cancel"), {qulonglong(0)}), serviceError + QStringLiteral("NoAttempt"));
    QCOMPARE(root.error(QStringLiteral("Cancel"), {qulonglong(4711)}), serviceError + QStringLiteral("NoAttempt"));
    // Knowing the number of another caller's attempt does not allow cancelling it.
    QCOMPARE(authenticate(root, bob, QStringLiteral("never")), QString());
    const qulonglong attempt = attemptOf(root, bob);
    QCOMPARE(user.error(QStringLiteral("Cancel"), {attempt}), serviceError + QStringLiteral("NoAttempt"));
    QCOMPARE(BusUser(bob).error(QStringLiteral("Cancel"), {attempt}), serviceError + QStringLiteral("NoAttempt"));
    QCOMPARE(stateText(root, bob), QStringLiteral("pending {method=kavet}"));
    QCOMPARE(root.error(QStringLiteral("Cancel"), {attempt}), QString());
}

void TstAuthd::dyingClient()
{
    setClientScript({{QStringLiteral("exit"), 1}});
    const BusUser user(alice);
    Reports reports(user);
    QCOMPARE(authenticate(user, alice, QStringLiteral("success")), QString());
    QVERIFY(reports.waitFor(QStringLiteral("StateChanged(1000, challenge, {input-request-type=1")));

    const QString restarted = QStringLiteral("StateChanged(1000, challenge, {method=kavet, restarted=true})");
    QCOMPARE(reports.texts.count(restarted), 11);
    QCOMPARE(reports.texts.filter(QStringLiteral("AuthenticationFailed")),
             QStringList{QStringLiteral("AuthenticationFailed(1000, kavet, 3, CannotStartClient, false, 1)")});
    QCOMPARE(TestDevice::launches().size(), 11);
    QCOMPARE(m_authd.log().count("event=attempt-opened"), 1);

    // The next request has a new budget of restarts.
    setClientScript();
    QCOMPARE(authenticate(user, alice, QStringLiteral("success")), QString());
    QVERIFY(reports.waitFor(QStringLiteral("StateChanged(1000, authenticated")));
}

void TstAuthd::clientEndsAfterwards()
{
    const BusUser root(0);
    Reports reports(root);
    QCOMPARE(authenticate(root, alice, QStringLiteral("success")), QString());
    QVERIFY(reports.waitFor(QStringLiteral("StateChanged(1000, authenticated")));

    kill(TestDevice::launches().constLast().value(QLatin1String("pid")).toInt(), SIGKILL);
    QVERIFY(reports.waitFor(QStringLiteral("StateChanged(1000, challenge, {method=kavet})")));
    // The method restarts the client and asks for input although no attempt is open.
    QVERIFY(m_authd.waitForLog("event=outcome-without-attempt method=kavet outcome=input-request"));
    QCOMPARE(stateText(root, alice), QStringLiteral("challenge {method=kavet}"));
    QVERIFY(reports.texts.constLast().startsWith(QStringLiteral("StateChanged(1000, challenge, {method=kavet})")));
}

void TstAuthd::lockAtTheLimit()
{
    const BusUser root(0);
    const BusUser user(alice);
    QCOMPARE(root.error(QStringLiteral("SetMethodOption"),
                        {kavetMethod, QStringLiteral("max-attempts"), QVariant::fromValue(QDBusVariant(1))}),
             QString());
    Reports reports(user);
    QCOMPARE(authenticate(user, alice, QStringLiteral("failed")), QString());
    const QString locked =
        QStringLiteral("StateChanged(1000, locked, {duration=4294967295, method=kavet, reason=kavet-max-attempts})");
    QVERIFY(reports.waitFor(locked));
    QCOMPARE(reports.texts,
             (QStringList{QStringLiteral("StateChanged(1000, pending, {method=kavet})"),
                          QStringLiteral("AuthenticationFailed(1000, kavet, 11, AuthFailed, true, 1)"), locked}));
    QVERIFY(m_authd.log().contains("level=warning event=method-event method=kavet level=WARN_LEVEL "
                                   "name=devlock-attempts-expired details=\"\"\n"));

    // A restarted daemon refuses the user too.
    for (int i = 0; i < 2; ++i) {
        const QDBusMessage refused =
            user.call(QStringLiteral("Authenticate"), {alice, kavetMethod, password(QStringLiteral("success"))});
        QCOMPARE(refused.errorName(), serviceError + QStringLiteral("UserLocked"));
        QVERIFY(refused.errorMessage().contains(QLatin1String("kavet-max-attempts")));
        QCOMPARE(user.error(QStringLiteral("RequestChallenge"), {alice, kavetMethod}),
                 serviceError + QStringLiteral("UserLocked"));
        QVERIFY(stateText(user, alice).startsWith(QLatin1String("locked {duration=4294967295")));
        QCOMPARE(stateText(root, bob), QStringLiteral("idle {}"));
        QCOMPARE(user.error(QStringLiteral("Unlock"), {alice}), accessDenied);
        QCOMPARE(QFile::permissions(locksFile) & ~(QFile::ReadUser | QFile::WriteUser),
                 QFile::ReadOwner | QFile::WriteOwner);
        if (i == 0) {
            QCOMPARE(m_authd.stop(SIGTERM), 0);
            QVERIFY(m_authd.start());
        }
    }
    QCOMPARE(TestDevice::calls().size(), 1);

    Reports later(user);
    QCOMPARE(root.error(QStringLiteral("Unlock"), {alice}), QString());
    QVERIFY(later.waitFor(QStringLiteral("StateChanged(1000, idle, {})")));
    QCOMPARE(root.error(QStringLiteral("Unlock"), {alice}), QString());
    QCOMPARE(root.error(QStringLiteral("Unlock"), {uint(4711)}), serviceError + QStringLiteral("NoSuchUser"));
    QCOMPARE(authenticate(user, alice, QStringLiteral("success")), QString());
    QVERIFY(later.waitFor(QStringLiteral("StateChanged(1000, authenticated")));
}

void TstAuthd::sessionStop()
{
    const BusUser root(0);
    Reports reports(root);
    QCOMPARE(authenticate(root, alice, QStringLiteral("late")), QString());
    QTRY_COMPARE(TestDevice::calls().size(), 1);
    const pid_t client = TestDevice::launches().constLast().value(QLatin1String("pid")).toInt();

    // The client and the attempt continue.
    QCOMPARE(root.error(QStringLiteral("SessionStopped"), {alice, false}), QString());
    QCOMPARE(stateText(root, alice), QStringLiteral("pending {method=kavet}"));
    QVERIFY(!m_authd.log().contains("event=attempt-given-up"));
    QCOMPARE(kill(client, 0), 0);

    QCOMPARE(root.error(QStringLiteral("SessionStopped"), {alice, true}), QString());
    QTRY_VERIFY(kill(client, 0) != 0);
    QVERIFY(m_authd.waitForLog("Client has terminated"));
    QVERIFY(m_authd.waitForLog("event=restart method=kavet uid=0"));
    // The client is not restarted.
    QCOMPARE(stateText(root, alice), QStringLiteral("idle {}"));
    QCOMPARE(TestDevice::launches().size(), 1);
    QCOMPARE(root.error(QStringLiteral("Cancel"), {attemptOf(root, alice)}),
             serviceError + QStringLiteral("NoAttempt"));
    QTRY_VERIFY(reports.texts.contains(QStringLiteral("AttemptGivenUp(1000, kavet, session-stopped)")));
}

void TstAuthd::sessionStart()
{
    const BusUser root(0);
    Wiper wiper;
    QVERIFY(wiper.start());
    QVERIFY(
        TestDevice::writeFile(QStringLiteral("/var/lib/authd/users/1000.conf"), "[kavet]\ndelayed-deletion=true\n"));
    QCOMPARE(root.error(QStringLiteral("SessionStarted"), {alice, false}), QString());
    QCOMPARE(root.error(QStringLiteral("SessionStarted"), {alice, true}), QString());
    QTRY_COMPARE(wiper.calls().size(), 1);
    QCOMPARE(root.error(QStringLiteral("SessionStarted"), {uint(4711), true}),
             serviceError + QStringLiteral("NoSuchUser"));
}

void TstAuthd::optionsOfTheMethod()
{
    const BusUser user(alice);
    const BusUser root(0);
    const auto variant = [](const QVariant &value) {
        return QVariant::fromValue(QDBusVariant(value));
    };
    const auto value = [](const QDBusMessage &reply) {
        return reportText(reply.arguments().value(0));
    };
    const QString maxAttempts = QStringLiteral("max-attempts");
    Reports reports(user);

    QCOMPARE(value(user.call(QStringLiteral("GetMethodOption"), {kavetMethod, maxAttempts})), QStringLiteral("0"));
    QCOMPARE(user.error(QStringLiteral("SetMethodOption"), {kavetMethod, maxAttempts, variant(3)}), accessDenied);
    QCOMPARE(root.error(QStringLiteral("SetMethodOption"), {kavetMethod, maxAttempts, variant(3)}), QString());
    QCOMPARE(value(user.call(QStringLiteral("GetMethodOption"), {kavetMethod, maxAttempts})), QStringLiteral("3"));
    QTRY_COMPARE(reports.all.size(), 1);
    QCOMPARE(reports.all.constFirst().member(), QStringLiteral("MethodOptionChanged"));
    QCOMPARE(reports.all.constFirst().arguments().mid(0, 2), (QVariantList{kavetMethod, maxAttempts}));
    QCOMPARE(reportText(reports.all.constFirst().arguments().at(2)), QStringLiteral("3"));

    for (const QVariant &wrong : {QVariant(QStringLiteral("many")), QVariant(3.5), QVariant(true)})
        QCOMPARE(root.error(QStringLiteral("SetMethodOption"), {kavetMethod, maxAttempts, variant(wrong)}),
                 invalidArgs);
    QCOMPARE(
        root.error(QStringLiteral("SetMethodOption"), {kavetMethod, QStringLiteral("certs"), variant(QStringList{})}),
        accessDenied);
    QCOMPARE(root.error(QStringLiteral("SetMethodOption"), {kavetMethod, QStringLiteral("other"), variant(1)}),
             serviceError + QStringLiteral("NoSuchOption"));
    QCOMPARE(root.error(QStringLiteral("GetMethodOption"), {kavetMethod, QStringLiteral("attempts")}),
             serviceError + QStringLiteral("NoSuchOption"));

    QCOMPARE(value(user.call(QStringLiteral("GetUserMethodOptions"), {alice, kavetMethod})),
             QStringLiteral("{attempts=0, delayed-deletion=false}"));
    QCOMPARE(value(user.call(QStringLiteral("GetUserMethodOption"), {alice, kavetMethod, QStringLiteral("attempts")})),
             QStringLiteral("0"));
    for (const BusUser *writer : {&user, &root})
        QCOMPARE(writer->error(QStringLiteral("SetUserMethodOption"),
                               {alice, kavetMethod, QStringLiteral("attempts"), variant(0)}),
                 accessDenied);
    QCOMPARE(root.error(QStringLiteral("GetUserMethodOption"), {uint(0), kavetMethod, QStringLiteral("certs")}),
             serviceError + QStringLiteral("NoSuchUser"));
    QCOMPARE(root.error(QStringLiteral("GetUserMethodOption"), {uint(4711), kavetMethod, QStringLiteral("attempts")}),
             serviceError + QStringLiteral("NoSuchUser"));
    QCOMPARE(root.error(QStringLiteral("GetMethodOptions"), {QStringLiteral("other")}),
             serviceError + QStringLiteral("NoSuchMethod"));
}

void TstAuthd::certificateList()
{
    setClientScript(QJsonObject{{QStringLiteral("certs"), QJsonArray{QStringLiteral("one"), QStringLiteral("two")}}});
    const BusUser user(alice);
    Reports reports(user);
    QCOMPARE(authenticate(user, alice, QStringLiteral("success")), QString());
    QVERIFY(reports.waitFor(QStringLiteral("StateChanged(1000, authenticated")));
    const int calls = TestDevice::calls().size();
    reports.all.clear();

    // Only reading the list itself calls the client.
    QCOMPARE(user.error(QStringLiteral("GetMethodOption"), {kavetMethod, QStringLiteral("max-attempts")}), QString());
    const QDBusMessage reply = user.call(QStringLiteral("GetMethodOption"), {kavetMethod, QStringLiteral("certs")});
    QCOMPARE(reply.arguments().constFirst().value<QDBusVariant>().variant().toStringList(),
             QStringList{QStringLiteral(".")});
    QTRY_COMPARE(reports.all.size(), 1);
    QCOMPARE(reports.all.constFirst().arguments().at(2).value<QDBusVariant>().variant().toStringList(),
             (QStringList{QStringLiteral("one"), QStringLiteral("two")}));
    QCOMPARE(TestDevice::calls().size(), calls + 1);
}

void TstAuthd::access_data()
{
    QTest::addColumn<QString>("member");
    QTest::addColumn<QVariantList>("arguments");
    QTest::addColumn<bool>("allowedForBob");

    const QVariant value = QVariant::fromValue(QDBusVariant(1));
    QTest::newRow("RequestChallenge") << "RequestChallenge" << QVariantList{alice, kavetMethod} << false;
    QTest::newRow("Authenticate") << "Authenticate" << QVariantList{alice, kavetMethod, password({})} << false;
    QTest::newRow("GetState") << "GetState" << QVariantList{alice} << false;
    QTest::newRow("GetUnlocks") << "GetUnlocks" << QVariantList{alice} << false;
    QTest::newRow("Unlock") << "Unlock" << QVariantList{bob} << false;
    QTest::newRow("SessionStarted") << "SessionStarted" << QVariantList{bob, true} << false;
    QTest::newRow("SessionStopped") << "SessionStopped" << QVariantList{bob, true} << false;
    QTest::newRow("SetMethodOption") << "SetMethodOption"
                                     << QVariantList{kavetMethod, QStringLiteral("max-attempts"), value} << false;
    QTest::newRow("GetUserMethodOption") << "GetUserMethodOption"
                                         << QVariantList{alice, kavetMethod, QStringLiteral("attempts")} << false;
    QTest::newRow("GetUserMethodOptions") << "GetUserMethodOptions" << QVariantList{alice, kavetMethod} << false;
    QTest::newRow("SetUserMethodOption") << "SetUserMethodOption"
                                         << QVariantList{alice, kavetMethod, QStringLiteral("attempts"), value}
                                         << false;
    QTest::newRow("uid 0") << "GetState" << QVariantList{uint(0)} << false;
    QTest::newRow("GetMethods") << "GetMethods" << QVariantList{} << true;
    QTest::newRow("GetMethodInfo") << "GetMethodInfo" << QVariantList{kavetMethod} << true;
    QTest::newRow("GetMethodOption") << "GetMethodOption" << QVariantList{kavetMethod, QStringLiteral("max-attempts")}
                                     << true;
    QTest::newRow("GetMethodOptions") << "GetMethodOptions" << QVariantList{kavetMethod} << true;
    QTest::newRow("Subscribe") << "Subscribe" << QVariantList{} << true;
    QTest::newRow("Unsubscribe") << "Unsubscribe" << QVariantList{} << true;
    QTest::newRow("own state") << "GetState" << QVariantList{bob} << true;
    QTest::newRow("own unlocks") << "GetUnlocks" << QVariantList{bob} << true;
}

void TstAuthd::access()
{
    QFETCH(QString, member);
    QFETCH(QVariantList, arguments);
    QFETCH(bool, allowedForBob);

    QCOMPARE(BusUser(bob).error(member, arguments), allowedForBob ? QString() : accessDenied);
    // Root may do everything except write options that only the method writes.
    const QString error = BusUser(0).error(member, arguments);
    QCOMPARE(error == accessDenied, member == QLatin1String("SetUserMethodOption"));
}

void TstAuthd::errorMessages_data()
{
    QTest::addColumn<uint>("caller");
    QTest::addColumn<QString>("member");
    QTest::addColumn<QVariantList>("arguments");
    QTest::addColumn<QString>("message");

    const QVariant value = QVariant::fromValue(QDBusVariant(1));
    const QVariant tooLong = QVariant::fromValue(QDBusVariant(QString(5000, QLatin1Char('a'))));
    const QVariant nested = QVariantMap{{QStringLiteral("key"), QVariantMap()}};
    const QString limit = QStringLiteral("max-attempts");
    QTest::newRow("another user") << bob << "GetState" << QVariantList{alice} << "Only the user and root may do this";
    QTest::newRow("root's state") << 0U << "GetState" << QVariantList{0U} << "User id 0 is not a user";
    QTest::newRow("for root") << bob << "Unlock" << QVariantList{bob} << "Only root may do this";
    QTest::newRow("nobody") << 0U << "GetState" << QVariantList{4711U}
                            << "No user with the id 4711 can be authenticated";
    QTest::newRow("no method") << bob << "GetMethodInfo" << QVariantList{QStringLiteral("nothing")} << "No such method";
    QTest::newRow("no attempt") << bob << "Cancel" << QVariantList{qulonglong(1)}
                                << "The caller has no such open attempt";
    QTest::newRow("no option") << bob << "GetMethodOption" << QVariantList{kavetMethod, QStringLiteral("nothing")}
                               << "The method has no such option";
    QTest::newRow("no option to write") << 0U << "SetMethodOption"
                                        << QVariantList{kavetMethod, QStringLiteral("nothing"), value}
                                        << "The method has no such option";
    QTest::newRow("option of the method")
        << 0U << "SetUserMethodOption" << QVariantList{alice, kavetMethod, QStringLiteral("attempts"), value}
        << "Only the method itself may write this option";
    QTest::newRow("option of root") << bob << "SetMethodOption" << QVariantList{kavetMethod, limit, value}
                                    << "Only root may write this option";
    QTest::newRow("a service writes") << 1U << "SetMethodOption" << QVariantList{kavetMethod, limit, value}
                                      << "Only users and root may write options";
    QTest::newRow("type") << 0U << "SetMethodOption"
                          << QVariantList{kavetMethod, limit, QVariant::fromValue(QDBusVariant(QStringLiteral("x")))}
                          << "The option's type is int";
    QTest::newRow("too long") << 0U << "SetMethodOption" << QVariantList{kavetMethod, limit, tooLong}
                              << "The value is too long";
    QTest::newRow("name too long") << 0U << "SetMethodOption"
                                   << QVariantList{kavetMethod, QString(10000, QLatin1Char('a')), value}
                                   << "The call has too much data";
    QTest::newRow("nested") << alice << "Authenticate" << QVariantList{alice, kavetMethod, nested}
                            << "No call takes such a value";
}

void TstAuthd::errorMessages()
{
    QFETCH(uint, caller);
    QFETCH(QString, member);
    QFETCH(QVariantList, arguments);
    QTEST(BusUser(caller).call(member, arguments).errorMessage(), "message");
}

void TstAuthd::callerHasGone()
{
    // By the time the daemon asks for the caller's user id, the caller has left the bus.
    const BusUser root(0);
    kill(pid_t(m_authd.pid()), SIGSTOP);
    QString name;
    {
        const BusUser user(bob);
        name = user.connection().baseService();
        QDBusMessage call =
            QDBusMessage::createMethodCall(QStringLiteral("qarv.AuthService"), QStringLiteral("/qarv/AuthService"),
                                           QStringLiteral("qarv.AuthService"), QStringLiteral("SetMethodOption"));
        call.setArguments({kavetMethod, QStringLiteral("max-attempts"), QVariant::fromValue(QDBusVariant(1))});
        user.connection().asyncCall(call);
        // The bus keeps messages in order, so after this reply it has accepted the call.
        QVERIFY(user.connection().interface()->isServiceRegistered(name));
    }
    QTRY_VERIFY(!root.connection().interface()->isServiceRegistered(name));
    kill(pid_t(m_authd.pid()), SIGCONT);

    const QDBusMessage reply =
        root.call(QStringLiteral("GetMethodOption"), {kavetMethod, QStringLiteral("max-attempts")});
    QCOMPARE(reportText(reply.arguments().value(0)), QStringLiteral("0"));
    QVERIFY(!m_authd.log().contains("event=option-set"));
}

void TstAuthd::secretsStayInTheMessage()
{
    setClientScript({{QStringLiteral("socket"), QStringLiteral("/tmp/scripted-client/go")}});
    const QByteArray secret = "late-s3cr3t";
    const BusUser user(alice);
    Reports reports(user);
    QCOMPARE(authenticate(user, alice, QString::fromLatin1(secret)), QString());
    QTRY_COMPARE(TestDevice::launches().size(), 1);
    QVERIFY(!commandLinesAndEnvironments().contains(secret));
    QVERIFY(TestDevice::writeFile(QStringLiteral("/tmp/scripted-client/go"), {}));
    QVERIFY(reports.waitFor(QStringLiteral("StateChanged(1000, challenge")));

    QCOMPARE(TestDevice::calls().constLast().last().toString(), QString::fromLatin1(secret));
    QVERIFY(!commandLinesAndEnvironments().contains(secret));
    QVERIFY(!m_authd.log().contains(secret));
    QVERIFY(!everythingIn(QStringLiteral("/var/lib/authd")).contains(secret));
    for (const QString &text : qAsConst(reports.texts))
        QVERIFY(!text.contains(QString::fromLatin1(secret)));
    // A secret sent in the wrong place does not leak when the call is refused either.
    for (const char *member : {"GetMethodInfo", "GetMethodOptions"})
        user.error(QLatin1String(member), {QString::fromLatin1(secret)});
    user.error(QStringLiteral("Authenticate"),
               {alice, kavetMethod, QVariantMap{{QString::fromLatin1(secret), QVariantMap()}}});
    QCOMPARE(m_authd.stop(SIGTERM), 0);
    QVERIFY(m_authd.log().contains("event=refused call=Authenticate"));
    QVERIFY(!m_authd.log().contains(secret));
}

QTEST_GUILESS_MAIN(TstAuthd)

#include "tst_authd.moc"
