// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#include "device/authd.h"
#include "device/polltimeout.h"
#include "device/processmemory.h"
#include "support/testdevice.h"
#include "support/wiper.h"

#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QJsonArray>
#include <QTest>

#include <climits>
#include <csignal>
#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

/// A datagram socket like those of the service manager and the journal.
class Listener
{
public:
    explicit Listener(const QString &path)
    {
        QDir().mkpath(QFileInfo(path).path());
        QFile::remove(path);
        sockaddr_un address = {};
        address.sun_family = AF_UNIX;
        qstrncpy(address.sun_path, QFile::encodeName(path).constData(), sizeof address.sun_path);
        m_socket = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
        if (bind(m_socket, reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0)
            qFatal("Cannot listen at %s", qPrintable(path));
    }
    ~Listener() { close(m_socket); }

    /// The datagrams so far, each between line ends.
    QByteArray received()
    {
        char buffer[65536];
        for (;;) {
            const ssize_t count = recv(m_socket, buffer, sizeof buffer, 0);
            if (count <= 0)
                return m_received;
            m_received += QByteArray(buffer, int(count)) + '\n';
        }
    }

private:
    Q_DISABLE_COPY(Listener)
    int m_socket = -1;
    QByteArray m_received = "\n";
};

const QString notifySocket = QStringLiteral("/run/test-notify");
const QString journalSocket = QStringLiteral("/run/systemd/journal/socket");

} // namespace

/// What the daemon sends to the service manager and the journal, and how it hides its memory.
class TstSystemd : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase() { QVERIFY(startSystemBus()); }
    void init() { TestDevice::reset(); }

    void readiness();
    void watchdog_data();
    void watchdog();
    void watchdogInterval();
    void journal();
    void unreadLog();
    void cutLine();
    void notDumpable();
    void secretsAreWiped();
};

void TstSystemd::readiness()
{
    Listener manager(notifySocket);
    QProcess daemon;
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert(QStringLiteral("NOTIFY_SOCKET"), notifySocket);
    daemon.setProcessEnvironment(environment);
    daemon.start(Installed::authd, {QStringLiteral("--methods"), Installed::methods});
    QTRY_VERIFY(manager.received().contains("\nREADY=1\n"));
    // The service answers once it has reported READY.
    QCOMPARE(BusUser(0).error(QStringLiteral("GetMethods")), QString());
    QVERIFY(!manager.received().contains("WATCHDOG"));
    kill(pid_t(daemon.processId()), SIGTERM);
    QVERIFY(daemon.waitForFinished());
    QVERIFY(manager.received().endsWith("\nSTOPPING=1\n"));
}

void TstSystemd::watchdog_data()
{
    QTest::addColumn<QString>("bus");
    QTest::newRow("ready") << QString();
    QTest::newRow("waiting for the bus") << QStringLiteral("unix:path=/nowhere");
}

void TstSystemd::watchdog()
{
    QFETCH(QString, bus);
    Listener manager(notifySocket);
    QProcess daemon;
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert(QStringLiteral("NOTIFY_SOCKET"), notifySocket);
    environment.insert(QStringLiteral("WATCHDOG_USEC"), QStringLiteral("200000"));
    if (!bus.isEmpty())
        environment.insert(QStringLiteral("DBUS_SYSTEM_BUS_ADDRESS"), bus);
    daemon.setProcessEnvironment(environment);
    daemon.start(Installed::authd, {QStringLiteral("--methods"), Installed::methods, QStringLiteral("--wait-for-bus")});
    QTRY_VERIFY(manager.received().count("\nWATCHDOG=1\n") > 3);
    // A hanging daemon sends no watchdog messages.
    kill(pid_t(daemon.processId()), SIGSTOP);
    const int count = manager.received().count("\nWATCHDOG=1\n");
    QVERIFY(!QTest::qWaitFor([&] { return manager.received().count("\nWATCHDOG=1\n") > count + 1; }, 1000));
    kill(pid_t(daemon.processId()), SIGCONT);
    kill(pid_t(daemon.processId()), SIGTERM);
    QVERIFY(daemon.waitForFinished());
}

void TstSystemd::watchdogInterval()
{
    // The service manager recommends half of the time that it allows.
    Authd daemon;
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert(QStringLiteral("WATCHDOG_USEC"), QStringLiteral("100000000"));
    daemon.process().setProcessEnvironment(environment);
    QVERIFY(daemon.start());
    QTRY_VERIFY(pollTimeout(daemon.pid()) > 40000);
    QVERIFY(pollTimeout(daemon.pid()) <= 51000); // The timer is not precise.
    QCOMPARE(daemon.stop(SIGTERM), 0);
}

void TstSystemd::journal()
{
    // JOURNAL_STREAM holds the device and inode of standard error; the test uses a file instead of the journal's
    // stream.
    Listener listener(journalSocket);
    const QString file = QStringLiteral("/tmp/journal-stream");
    QProcess daemon;
    const auto start = [&](const QString &methods) {
        daemon.start(QStringLiteral("sh"),
                     {QStringLiteral("-c"),
                      QStringLiteral("exec 2>%1; JOURNAL_STREAM=$(stat -c %d:%i %1) exec %2 --methods '%3'")
                          .arg(file, Installed::authd, methods)});
    };
    start(QStringLiteral("/no\u202ewhere"));
    QVERIFY(daemon.waitForFinished());
    const QByteArray received = listener.received();
    QVERIFY2(received.contains("\nMESSAGE=event=no-methods-directory directory=\"/no\\u202ewhere\"\n"),
             received.constData());
    QVERIFY(received.contains("\nPRIORITY=3\n"));
    QVERIFY(received.contains("\nSYSLOG_IDENTIFIER=authd\n"));
    QVERIFY(received.contains("\nAUTHD_EVENT=no-methods-directory\n"));
    QVERIFY(received.contains("\nAUTHD_DIRECTORY=/no"));

    // The journal drops a field whose name has a hyphen.
    start(Installed::methods);
    QTRY_VERIFY(listener.received().contains("\nAUTHD_EVENT=ready\n"));
    QCOMPARE(BusUser(0).error(QStringLiteral("SessionStarted"), {TestDevice::alice, false}), QString());
    QVERIFY(listener.received().contains("\nAUTHD_MANAGE_CLIENT=false\n"));
    kill(pid_t(daemon.processId()), SIGTERM);
    QVERIFY(daemon.waitForFinished());
    QCOMPARE(TestDevice::readFile(file), QByteArray());
    QFile::remove(journalSocket);
}

void TstSystemd::unreadLog()
{
    const QString path = QStringLiteral("/tmp/log");
    QCOMPARE(mkfifo(QFile::encodeName(path).constData(), S_IRUSR | S_IWUSR), 0);
    const int pipe = open(QFile::encodeName(path).constData(), O_RDWR | O_NONBLOCK | O_CLOEXEC);
    QVERIFY(pipe >= 0);
    QByteArray log;
    const auto readLog = [&log, pipe] {
        char buffer[65536];
        for (ssize_t count = 0; (count = read(pipe, buffer, sizeof buffer)) > 0;)
            log += QByteArray(buffer, int(count));
        return log;
    };
    QProcess daemon;
    daemon.setStandardErrorFile(path);
    daemon.start(Installed::authd, {QStringLiteral("--methods"), Installed::methods});
    QTRY_VERIFY(readLog().contains("event=ready"));

    // Each refused call of root is logged. The lines exceed the pipe's capacity by far.
    const BusUser root(0);
    const auto refused = [&root] {
        return root.error(QStringLiteral("Cancel"), {qulonglong(4711)});
    };
    QElapsedTimer clock;
    clock.start();
    for (int i = 0; i < 2000; ++i)
        QCOMPARE(refused(), QStringLiteral("qarv.AuthService.Error.NoAttempt"));
    // The daemon waits for the reader once, not for each line that does not fit.
    QVERIFY2(clock.elapsed() < 100000, qPrintable(QString::number(clock.elapsed())));
    log.clear();
    QVERIFY(!readLog().contains("lines-lost"));
    const int kept = log.count("event=refused");
    QCOMPARE(refused(), QStringLiteral("qarv.AuthService.Error.NoAttempt"));
    QTRY_VERIFY(readLog().count("event=refused") == kept + 1);
    QVERIFY2(log.contains("event=lines-lost lines=" + QByteArray::number(2000 - kept) + '\n'),
             log.right(500).constData());
    const QList<QByteArray> lines = log.split('\n');
    for (const QByteArray &line : lines)
        QVERIFY2(line.isEmpty() || line.startsWith("level=notice event="), line.constData());
    kill(pid_t(daemon.processId()), SIGTERM);
    QVERIFY(daemon.waitForFinished());
    close(pipe);
}

void TstSystemd::cutLine()
{
    const QString path = QStringLiteral("/tmp/cut-log");
    QCOMPARE(mkfifo(QFile::encodeName(path).constData(), S_IRUSR | S_IWUSR), 0);
    const int pipe = open(QFile::encodeName(path).constData(), O_RDWR | O_NONBLOCK | O_CLOEXEC);
    QVERIFY(fcntl(pipe, F_SETPIPE_SZ, 2 * PIPE_BUF) == 2 * PIPE_BUF);
    QByteArray log;
    const auto readLog = [&log, pipe] {
        char buffer[PIPE_BUF];
        for (ssize_t count = 0; (count = read(pipe, buffer, sizeof buffer)) > 0;)
            log += QByteArray(buffer, int(count));
        return log;
    };
    QVERIFY(QDir().mkpath(QStringLiteral("/tmp/methods")));
    QVERIFY(QFile::copy(Installed::oddMethods + QStringLiteral("/libpuppet.so"), QStringLiteral("/tmp/methods/p.so")));
    QProcess daemon;
    daemon.setStandardErrorFile(path);
    daemon.start(Installed::authd, {QStringLiteral("--methods"), QStringLiteral("/tmp/methods")});
    QTRY_VERIFY(readLog().contains("event=ready"));
    log.clear();

    // Of a line longer than the pipe, only the beginning arrives. The daemon does not wait for the reader.
    const BusUser root(0);
    const auto act = [&root](const char *script) {
        return root.error(QStringLiteral("SetUserMethodOption"),
                          {TestDevice::alice, QStringLiteral("puppet"), QStringLiteral("do"),
                           QVariant::fromValue(QDBusVariant(QString::fromLatin1(script)))});
    };
    QCOMPARE(act("long"), QString());
    QTRY_VERIFY(readLog().contains("event=method-event"));
    QVERIFY(log.endsWith("xxx"));
    QCOMPARE(act("nothing"), QString());
    QTRY_VERIFY(readLog().contains("xxx\nlevel=info event=lines-lost lines="));
    kill(pid_t(daemon.processId()), SIGTERM);
    QVERIFY(daemon.waitForFinished());
    close(pipe);
}

void TstSystemd::notDumpable()
{
    // Run as a user, because root can read every process anyway.
    QProcess daemon;
    daemon.setReadChannel(QProcess::StandardError);
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert(QStringLiteral("DBUS_SYSTEM_BUS_ADDRESS"), QStringLiteral("unix:path=/nowhere"));
    daemon.setProcessEnvironment(environment);
    daemon.start(QStringLiteral("setpriv"),
                 {QStringLiteral("--reuid=alice"), QStringLiteral("--clear-groups"), Installed::authd,
                  QStringLiteral("--methods"), QStringLiteral("/tmp"), QStringLiteral("--wait-for-bus")});
    QByteArray log;
    QTRY_VERIFY((log += daemon.readAllStandardError())
                    .contains("event=no-bus error=\"No such file or directory\" wait=true\n"));
    QCOMPARE(seteuid(TestDevice::alice), 0);
    const int file =
        open(QStringLiteral("/proc/%1/mem").arg(daemon.processId()).toLatin1().constData(), O_RDONLY | O_CLOEXEC);
    QCOMPARE(seteuid(0), 0);
    QVERIFY(file < 0);
    daemon.kill();
    QVERIFY(daemon.waitForFinished());
}

void TstSystemd::secretsAreWiped()
{
    const QString go = QStringLiteral("/tmp/scripted-client/go");
    // The answer must not repeat the secret.
    setClientScript({{QStringLiteral("socket"), go}, {QStringLiteral("answer"), QStringLiteral("failed")}});
    Authd daemon;
    QVERIFY(daemon.start());
    const BusUser root(0);
    const BusUser user(TestDevice::alice);
    const QString kavet = QStringLiteral("kavet");
    const auto enter = [&](const BusUser &caller, const QString &method, const QString &secret) {
        return caller.error(QStringLiteral("Authenticate"),
                            {TestDevice::alice, method, QVariantMap{{QStringLiteral("password"), secret}}});
    };
    const auto inQt = [](const QString &text) {
        return QByteArray(reinterpret_cast<const char *>(text.utf16()), text.size() * int(sizeof(ushort)));
    };

    // While the request waits for the client, the secret is in memory. This shows that the search works.
    const QString open = QStringLiteral("never-open-secret");
    QCOMPARE(enter(root, kavet, open), QString());
    QTRY_COMPARE(TestDevice::launches().size(), 1);
    if (TestDevice::isOrdinaryUsers())
        QSKIP(noMemory);
    QVERIFY(processMemory(daemon.pid()).contains(inQt(open)));

    // Nothing is left of a refused call, wherever its secret stood.
    const auto password = [](const char *secret) {
        return QVariantMap{{QStringLiteral("password"), QString::fromLatin1(secret)}};
    };
    const auto refuse = [&](const BusUser &caller, const QString &method, const QVariantMap &data) {
        return !caller.error(QStringLiteral("Authenticate"), {TestDevice::alice, method, data}).isEmpty();
    };
    QVariantMap tooMuch = password("too-much-secret");
    for (int i = 0; i < 64; ++i)
        tooMuch.insert(QStringLiteral("z%1").arg(i), i);
    QVERIFY(refuse(root, kavet, tooMuch));
    QVERIFY(refuse(root, kavet, {{QStringLiteral("nested"), password("nested-secret")}}));
    // The allocator overwrites parts of freed memory, but not of a long text.
    const QByteArray longSecret = QByteArray("long-secret").repeated(1000);
    QVERIFY(refuse(root, QStringLiteral("other"), password(longSecret.constData())));
    QVERIFY(refuse(root, QStringLiteral("other"), password("misdirected-secret")));
    QVERIFY(refuse(BusUser(TestDevice::bob), kavet, password("denied-secret")));
    QVariantMap partlyRead = password(QByteArray("partly-read-secret").repeated(800).constData());
    partlyRead.insert(QStringLiteral("z"), QVariantMap());
    QVERIFY(refuse(root, kavet, partlyRead));
    const auto holds = [&](const QString &text) {
        const QByteArray memory = processMemory(daemon.pid());
        return memory.contains(text.toUtf8()) || memory.contains(inQt(text));
    };
    for (const char *secret : {"too-much-secret", "nested-secret", "partly-read-secret", "long-secret",
                               "misdirected-secret", "denied-secret"})
        QTRY_VERIFY2(!holds(QString::fromLatin1(secret)), secret);

    // Of an accepted call, only the D-Bus library's buffers of the call to the client remain, which have UTF-8.
    QVERIFY(TestDevice::writeFile(go, {}));
    QTRY_COMPARE(TestDevice::calls().size(), 1);
    const QString answered = QStringLiteral("answered-secret");
    QCOMPARE(enter(root, kavet, answered), QString());
    QTRY_COMPARE(TestDevice::calls().size(), 2);
    QTRY_COMPARE(root.call(QStringLiteral("GetState"), {TestDevice::alice}).arguments().value(1).toString(),
                 QStringLiteral("challenge"));
    for (const QString &secret : {open, answered})
        QTRY_VERIFY2(!processMemory(daemon.pid()).contains(inQt(secret)), qPrintable(secret));
    QCOMPARE(daemon.stop(SIGTERM), 0);
}

QTEST_GUILESS_MAIN(TstSystemd)

#include "tst_systemd.moc"
