// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#include "methodfixture.h"
#include "support/logcapture.h"
#include "support/longestwait.h"
#include "support/waiting.h"

#include <QBasicTimer>
#include <QDeadlineTimer>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QLoggingCategory>
#include <QTest>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <memory>

#include <grp.h>
#include <sys/ptrace.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

Q_DECLARE_METATYPE(RecordingDaemon::Call)

using namespace TestDevice;

namespace {

using Call = RecordingDaemon::Call;

const QString goFile = QStringLiteral("/tmp/scripted-client/go");
const QString answerFile = QStringLiteral("/tmp/scripted-client/answer");
const QString success = QStringLiteral("success");
const QString never = QStringLiteral("never");

const Call cannotConnect = RecordingDaemon::failed(SettingsKavet::Connecting, SettingsKavet::CannotConnectClient);
const Call cannotCommunicate =
    RecordingDaemon::failed(SettingsKavet::EnterPasswordOrPin, SettingsKavet::CannotCommunicateClient);
const Call authFailed = RecordingDaemon::failed(SettingsKavet::EnterPasswordOrPin, SettingsKavet::AuthFailed);

/// Measures the longest time for which the event loop was blocked.
class LoopWatch : public QObject
{
public:
    LoopWatch()
    {
        m_last.start();
        m_timer.start(1, this);
    }
    qint64 longestWait() const { return std::max(m_longest, m_last.elapsed()); }

protected:
    void timerEvent(QTimerEvent *) override { m_longest = std::max(m_longest, m_last.restart()); }

private:
    QElapsedTimer m_last;
    QBasicTimer m_timer;
    qint64 m_longest = 0;
};

// A blocking call waits for 25 s or forever. Load delays the loop far less.
constexpr qint64 tolerableWait = 2000;

qint64 residentPages()
{
    return readFile(QStringLiteral("/proc/self/statm")).split(' ').value(1).toLongLong();
}

int openDescriptors()
{
    return QDir(QStringLiteral("/proc/self/fd")).entryList(QDir::Files | QDir::System).size();
}

QVector<pid_t> launchedProcesses()
{
    QVector<pid_t> pids;
    const QVector<QJsonObject> all = launches();
    for (const QJsonObject &launch : all)
        pids << launch.value(QLatin1String("pid")).toInt();
    return pids;
}

// The wait status of a process; -1 if unknown.
int endOf(pid_t process)
{
    int status = -1;
    while (waitpid(process, &status, 0) == -1 && errno == EINTR) { } // another process has ended
    return status;
}

// The secrets that were sent to another user's client.
QVector<QJsonArray> misled()
{
    QVector<QJsonArray> found;
    const QVector<QJsonArray> sent = calls();
    const QVector<uint> to = callees();
    for (int i = 0; i < sent.size(); ++i) {
        if (sent.at(i).contains(QStringLiteral("alice")) && to.at(i) != alice)
            found << sent.at(i);
        if (sent.at(i).contains(QStringLiteral("bob")) && to.at(i) != bob)
            found << sent.at(i);
    }
    return found;
}

} // namespace

/// Hostile clients, each a process of its user. Whatever they do, they must not log in as another user or block the
/// daemon or other users.
class TstHostileClient : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init() { TestDevice::reset(); }

    void attack_data();
    void attack();
    void descriptors();
    void certListTooLong_data();
    void certListTooLong();
    void longErrorText_data();
    void longErrorText();
    void endlessOutput_data();
    void endlessOutput();

    void lateAnswer_data();
    void lateAnswer();
    void answerOfGivenUpClient();
    void answerOverClosedLink_data();
    void answerOverClosedLink();
    void launcherKilled();
    void launchFailsAfterKill();

    void secretOfAnotherUser_data();
    void secretOfAnotherUser();
    void clientStillStarting();
    void clientThatNeverStarts();
    void launchedAgainWhileStarting();
    void linkToClientBeingKilled();
    void tracedClient_data();
    void tracedClient();
    void loginAfterLogout();
    void loginOfTheSameUser_data();
    void loginOfTheSameUser();
    void delayedLaunchRecorded();
    void swappedSocket();
    void notASocket_data();
    void notASocket();
    void strangersSocket();

private:
    bool startAlice(MethodFixture &fixture, const QJsonObject &script, const QString &password);
    bool bobSucceeds(MethodFixture &fixture);
};

// Alice's client runs and has announced its socket, whoever serves it.
bool TstHostileClient::startAlice(MethodFixture &fixture, const QJsonObject &script, const QString &password)
{
    QJsonObject whole = script;
    whole.insert(QStringLiteral("socket"), goFile);
    setScript(whole);
    fixture.method.authenticate(alice, MethodFixture::passwordData(password));
    const auto isRunning = [&fixture] {
        return fixture.d->child.clientUid == alice && fixture.d->child.clientRunning;
    };
    return waitUntil(isRunning) && writeFile(goFile, {})
           && waitUntil([&fixture] { return fixture.d->child.socketPresent; });
}

// Bob logs in next, with a well-behaved client.
bool TstHostileClient::bobSucceeds(MethodFixture &fixture)
{
    QFile::remove(goFile);
    setScript({{QStringLiteral("socket"), goFile}});
    fixture.method.reset();
    fixture.daemon.calls.clear();
    fixture.method.authenticate(bob, MethodFixture::passwordData(success));
    return waitUntil([&fixture] { return fixture.d->child.clientUid == bob && fixture.d->child.clientRunning; })
           && writeFile(goFile, {}) && waitUntil([&fixture] {
                  return fixture.daemon.outcomes() == QVector<Call>{RecordingDaemon::succeeded()};
              });
}

void TstHostileClient::attack_data()
{
    // The library's replies to a flood may exceed a limit first.
    const QString dropping = QStringLiteral("Dropping the link to the client: it ");
    QTest::addColumn<QString>("attack");
    QTest::addColumn<bool>("ends"); // without the request's own timeout
    QTest::addColumn<Call>("outcome");
    QTest::addColumn<QString>("warning");
    QTest::newRow("never accepts") << QStringLiteral("full") << true << cannotConnect
                                   << QStringLiteral("Cannot connect to the Kavet client socket");
    QTest::newRow("silent after accepting") << QStringLiteral("silent") << false << Call() << QString();
    QTest::newRow("silent after the handshake") << QStringLiteral("mute") << false << Call() << QString();
    QTest::newRow("one byte a second") << QStringLiteral("trickle") << false << Call() << QString();
    QTest::newRow("random bytes") << QStringLiteral("noise") << true << cannotCommunicate << QString();
    QTest::newRow("flood") << QStringLiteral("flood") << true << cannotCommunicate << dropping;
    QTest::newRow("handshake without end")
        << QStringLiteral("greeting") << true << cannotCommunicate
        << QStringLiteral("Dropping the link to the client: its handshake is too long");
    const QString noReply =
        QStringLiteral("Dropping the link to the client: it has sent a message that is no valid reply");
    QTest::newRow("reply of many values") << QStringLiteral("values") << true << cannotCommunicate << noReply;
    QTest::newRow("many replies") << QStringLiteral("returns") << true << cannotCommunicate << noReply;
    QTest::newRow("reply of 100 MiB") << QStringLiteral("huge") << true << cannotCommunicate << dropping;
}

void TstHostileClient::attack()
{
    QFETCH(QString, attack);
    QFETCH(bool, ends);
    QFETCH(Call, outcome);
    QFETCH(QString, warning);
    MethodFixture fixture;
    LogCapture log;
    const qint64 pagesBefore = residentPages();
    LoopWatch watch;

    QVERIFY(startAlice(fixture, {{QStringLiteral("hostile"), attack}}, success));
    if (ends)
        QTRY_COMPARE_WITH_TIMEOUT(fixture.told(), QVector<Call>{outcome}, 30000);
    else
        QVERIFY(!QTest::qWaitFor([&] { return !fixture.told().isEmpty(); }, 1500));
    QCOMPARE(fixture.told().size(), ends ? 1 : 0);
    bool warned = warning.isEmpty();
    const QStringList warnings = log.warnings();
    for (const QString &line : warnings)
        warned = warned || line.startsWith(warning);
    QVERIFY(warned);

    QVERIFY(bobSucceeds(fixture));
    reportLongestWait(double(watch.longestWait()));
    QVERIFY2(watch.longestWait() < tolerableWait, qPrintable(QString::number(watch.longestWait())));
    QVERIFY((residentPages() - pagesBefore) * sysconf(_SC_PAGESIZE) < 64 * 1024 * 1024);
    QCOMPARE(misled(), QVector<QJsonArray>());
}

void TstHostileClient::descriptors()
{
    MethodFixture fixture;
    QVERIFY(fixture.link());
    QVERIFY(bobSucceeds(fixture));
    const int before = openDescriptors();
    fixture.method.reset();
    QFile::remove(goFile);
    QVERIFY(startAlice(fixture, {{QStringLiteral("hostile"), QStringLiteral("descriptors")}}, success));
    // A message without the descriptors that it announces, and an unexpected message; neither carries descriptors.
    QTest::qWait(500);
    QVERIFY(openDescriptors() <= before);
}

void TstHostileClient::certListTooLong_data()
{
    QTest::addColumn<int>("entries");
    QTest::addColumn<int>("size");
    QTest::addColumn<bool>("accepted");
    QTest::newRow("as many as may be") << 1000 << 10 << true;
    QTest::newRow("one too many") << 1001 << 10 << false;
    QTest::newRow("as long as may be") << 256 << 1024 << true;
    QTest::newRow("a byte too long") << 1 << 256 * 1024 + 1 << false;
    QTest::newRow("longer than the link allows") << 40 << 1024 * 1024 << false;
}

void TstHostileClient::certListTooLong()
{
    QFETCH(int, entries);
    QFETCH(int, size);
    QFETCH(bool, accepted);
    MethodFixture fixture;
    QJsonArray list;
    const QString entry = QString(size / 2, QChar(0xE4)) + QString(size % 2, QLatin1Char('x')); // of `size` bytes
    for (int i = 0; i < entries; ++i)
        list << entry;
    QVERIFY(fixture.link({{QStringLiteral("certs"), list}}));
    LogCapture log;
    QCOMPARE(fixture.d->getCertList(), QStringList{QStringLiteral(".")});
    QTRY_COMPARE(fixture.told().size(), 1);
    const Call told = fixture.told().constFirst();
    QCOMPARE(told.operation, QStringLiteral("optionChanged"));
    QCOMPARE(told.arguments.at(2).toStringList().size(), accepted ? entries : 0);
    QVERIFY(!fixture.d->certListInFlight);
    QCOMPARE(log.warnings().isEmpty(), accepted);
    if (!accepted && size < 1024 * 1024)
        QCOMPARE(log.warnings(),
                 QStringList{QStringLiteral("getCertList failed: \"The list of certificates is too long\"")});
}

void TstHostileClient::longErrorText_data()
{
    QTest::addColumn<QString>("start");
    QTest::newRow("cut after a character") << QString();
    QTest::newRow("cut within a character") << QStringLiteral("x");
}

void TstHostileClient::longErrorText()
{
    QFETCH(QString, start);
    const QString text = start + QString(5000, QChar(0xE4));
    MethodFixture fixture;
    QVERIFY(
        fixture.link({{QStringLiteral("errorText"), text}, {QStringLiteral("certsAnswer"), QStringLiteral("error")}}));
    LogCapture log;
    fixture.d->checkPassword(QStringLiteral("error"));
    QTRY_COMPARE(fixture.told(), QVector<Call>{cannotCommunicate});
    fixture.d->getCertList();
    QTRY_COMPARE(fixture.told().size(), 2);
    const QString kept = text.left(512); // at most 1024 bytes
    QCOMPARE(log.warnings(),
             QStringList({QStringLiteral("checkPassword failed: QDBusError(\"tarsk.Error\", \"%1\")").arg(kept),
                          QStringLiteral("getCertList failed: \"%1\"").arg(kept)}));
}

void TstHostileClient::endlessOutput_data()
{
    QTest::addColumn<int>("stream");
    QTest::newRow("standard output") << STDOUT_FILENO;
    QTest::newRow("standard error") << STDERR_FILENO;
}

void TstHostileClient::endlessOutput()
{
    QFETCH(int, stream);
    MethodFixture fixture;
    const qint64 pagesBefore = residentPages();
    LoopWatch watch;
    QVERIFY(startAlice(fixture, {{QStringLiteral("chatter"), stream}}, success));
    QTRY_COMPARE(fixture.told(), QVector<Call>{RecordingDaemon::succeeded()});
    const auto unread = [&fixture, stream] {
        auto &child = fixture.d->child;
        child.setReadChannel(stream == STDOUT_FILENO ? QProcess::StandardOutput : QProcess::StandardError);
        const qint64 bytes = child.bytesAvailable();
        child.setReadChannel(stream == STDOUT_FILENO ? QProcess::StandardError : QProcess::StandardOutput);
        return bytes;
    };
    QTRY_COMPARE(unread(), qint64(1024 * 1024));
    QTest::qWait(1000); // enough for gigabytes, if they were kept
    QCOMPARE(unread(), qint64(1024 * 1024));
    QVERIFY((residentPages() - pagesBefore) * sysconf(_SC_PAGESIZE) < 64 * 1024 * 1024);
    QVERIFY(bobSucceeds(fixture));
    QVERIFY2(watch.longestWait() < tolerableWait, qPrintable(QString::number(watch.longestWait())));
}

void TstHostileClient::lateAnswer_data()
{
    QTest::addColumn<QString>("after");
    QTest::newRow("reset") << QStringLiteral("reset");
    QTest::newRow("new attempt") << QStringLiteral("attempt");
    QTest::newRow("another user's attempt") << QStringLiteral("another");
    QTest::newRow("another user's attempt, after a session has started") << QStringLiteral("session");
}

void TstHostileClient::lateAnswer()
{
    QFETCH(QString, after);
    const bool isAnother = after == QLatin1String("another") || after == QLatin1String("session");
    MethodFixture fixture;
    QVERIFY(fixture.link());
    fixture.method.authenticate(alice, MethodFixture::passwordData(QStringLiteral("late")));
    QTRY_COMPARE(calls().size(), 1);

    LogCapture log(true);
    if (after == QLatin1String("reset"))
        fixture.method.reset();
    if (after == QLatin1String("attempt"))
        fixture.method.authenticate(alice, MethodFixture::passwordData(never));
    if (after == QLatin1String("session"))
        fixture.method.handleUserSessionTriggered(carol, true, true);
    if (isAnother) {
        // Carol's client creates no socket, so her attempt stays open.
        setScript({{QStringLiteral("socket"), never}});
        fixture.method.authenticate(carol, MethodFixture::passwordData(never));
        QTRY_COMPARE(fixture.d->child.clientUid, carol);
        QTRY_VERIFY(fixture.d->child.clientRunning);
    }
    QVERIFY(writeFile(answerFile, {}));
    if (!isAnother)
        QTRY_VERIFY(log.debugs().contains(
            QStringLiteral("checkPassword Dropped the reply to a request that is no longer current")));
    QCOMPARE(fixture.daemon.outcomes(), QVector<Call>());
    QVERIFY(log.warnings().filter(QStringLiteral("checkPassword")).isEmpty());

    // Each current request still gets its outcome.
    fixture.method.reset();
    QVERIFY(startAlice(fixture, {}, QStringLiteral("failed")));
    QTRY_COMPARE(fixture.daemon.outcomes(), QVector<Call>{authFailed});
    QCOMPARE(misled(), QVector<QJsonArray>());
}

void TstHostileClient::answerOfGivenUpClient()
{
    MethodFixture fixture;
    QVERIFY(fixture.link());
    const QVector<pid_t> processes = launchedProcesses();
    fixture.method.authenticate(alice, MethodFixture::passwordData(QStringLiteral("late")));
    QTRY_COMPARE(calls().size(), 1);

    // The reply has already arrived when the client is given up.
    QCOMPARE(::kill(processes.constFirst(), SIGSTOP), 0);
    QVERIFY(writeFile(answerFile, {}));
    fixture.d->setChildUnavailable(true);
    QCOMPARE(::kill(processes.constFirst(), SIGCONT), 0);
    QTRY_COMPARE(fixture.daemon.outcomes(), QVector<Call>{cannotCommunicate});
    QTRY_VERIFY(!fixture.isWaiting());
    QVERIFY(!QTest::qWaitFor([&] { return fixture.daemon.outcomes().size() > 1; }, 200));
    QCOMPARE(fixture.daemon.outcomes(), QVector<Call>{cannotCommunicate});
}

void TstHostileClient::answerOverClosedLink_data()
{
    QTest::addColumn<bool>("certList");
    QTest::newRow("password") << false;
    QTest::newRow("list of certificates") << true;
}

// The library has received the reply, but the plugin closes the link before the reply is delivered.
void TstHostileClient::answerOverClosedLink()
{
    QFETCH(bool, certList);
    MethodFixture fixture;
    QVERIFY(fixture.link({{QStringLiteral("certs"), QJsonArray{QStringLiteral("one")}}}));
    LogCapture log;
    if (certList)
        fixture.d->getCertList();
    else
        fixture.d->checkPassword(success);
    const auto *call = fixture.d->findChild<QDBusPendingCallWatcher *>();
    QVERIFY(call);
    // The library's thread continues while waitUntil() sleeps between its rounds of events.
    QVERIFY(waitUntil([call] { return call->isFinished(); }));
    QVERIFY(fixture.told().isEmpty());
    fixture.d->guard.close();

    QTRY_COMPARE(fixture.told().size(), 1);
    const Call noList = {QStringLiteral("optionChanged"), {0U, QStringLiteral("certs"), QStringList(), true}};
    QCOMPARE(fixture.told().constFirst(), certList ? noList : cannotCommunicate);
    QCOMPARE(log.warnings().size(), 1);
    QVERIFY(log.warnings().constFirst().startsWith(
        (certList ? QStringLiteral("getCertList") : QStringLiteral("checkPassword")) + QStringLiteral(" failed:")));
}

// Alice kills the launcher. Her client survives and replies later.
void TstHostileClient::launcherKilled()
{
    MethodFixture fixture;
    QVERIFY(fixture.link({{QStringLiteral("behind"), true}}));
    fixture.method.authenticate(alice, MethodFixture::passwordData(QStringLiteral("late")));
    QTRY_COMPARE(calls().size(), 1);
    fixture.daemon.calls.clear();
    QFile::remove(goFile);
    setScript({{QStringLiteral("socket"), goFile}});

    const pid_t launcherProcess = launchedProcesses().constFirst();
    const pid_t killer = fork();
    if (killer == 0)
        _exit(setresuid(alice, alice, alice) == 0 && ::kill(launcherProcess, SIGKILL) == 0 ? 0 : 1);
    const int status = endOf(killer);
    QVERIFY(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    QTRY_COMPARE(fixture.daemon.outcomes(), QVector<Call>{cannotCommunicate});
    QTRY_COMPARE(launches().size(), 2);

    // Her next request waits for her next client's reply.
    QTRY_VERIFY(fixture.d->child.clientRunning);
    QVERIFY(writeFile(goFile, {}));
    QTRY_COMPARE(fixture.d->clientStage, MethodKavetPrivate::Linked);
    fixture.daemon.calls.clear();
    fixture.method.authenticate(alice, MethodFixture::passwordData(never));
    QTRY_COMPARE(calls().size(), 2);
    QVERIFY(writeFile(answerFile, {}));
    QVERIFY(!QTest::qWaitFor([&] { return !fixture.daemon.outcomes().isEmpty(); }, 500));
    QVERIFY(bobSucceeds(fixture));
    QCOMPARE(misled(), QVector<QJsonArray>());
}

// Bob's request waits for the end of alice's client. The failure of his own launch is reported once.
void TstHostileClient::launchFailsAfterKill()
{
    MethodFixture fixture;
    QVERIFY(startAlice(fixture, {}, success));
    QTRY_COMPARE(fixture.told(), QVector<Call>{RecordingDaemon::succeeded()});
    fixture.method.reset();
    fixture.daemon.calls.clear();
    fixture.d->launchBudget = 0;
    fixture.method.authenticate(bob, MethodFixture::passwordData(success));
    QTRY_VERIFY(!fixture.daemon.outcomes().isEmpty());
    QCoreApplication::processEvents();
    QCOMPARE(fixture.daemon.outcomes(),
             QVector<Call>{RecordingDaemon::failed(SettingsKavet::Connecting, SettingsKavet::CannotStartClient)});
}

void TstHostileClient::secretOfAnotherUser_data()
{
    QTest::addColumn<QJsonObject>("script");
    QTest::addColumn<bool>("shown"); // the socket
    QTest::addColumn<bool>("stopped");
    QTest::addColumn<bool>("loggedOut");
    const QJsonObject ignoring = {{QStringLiteral("ignoreTerm"), true}};
    QTest::newRow("running") << QJsonObject() << true << false << false;
    QTest::newRow("ignores SIGTERM") << ignoring << true << false << true;
    QTest::newRow("stopped") << QJsonObject() << true << true << false;
    QTest::newRow("stopped, logged out") << QJsonObject() << true << true << true;
    QTest::newRow("shows no socket") << QJsonObject() << false << false << false;
    QTest::newRow("stopped before it shows its socket")
        << QJsonObject{{QStringLiteral("stop"), true}} << false << false << false;
}

void TstHostileClient::secretOfAnotherUser()
{
    QFETCH(QJsonObject, script);
    QFETCH(bool, shown);
    QFETCH(bool, stopped);
    QFETCH(bool, loggedOut);
    MethodFixture fixture;
    if (shown) {
        QVERIFY(startAlice(fixture, script, success));
        QTRY_COMPARE(fixture.told(), QVector<Call>{RecordingDaemon::succeeded()});
    } else {
        QJsonObject whole = script;
        whole.insert(QStringLiteral("socket"), never);
        setScript(whole);
        fixture.method.authenticate(alice, MethodFixture::passwordData(success));
        QTRY_VERIFY(fixture.d->child.clientRunning);
        QTRY_COMPARE(launches().size(), 1);
    }
    const pid_t process = launchedProcesses().constFirst();
    if (stopped)
        QCOMPARE(::kill(process, SIGSTOP), 0);
    if (loggedOut)
        fixture.method.handleUserSessionTriggered(alice, false, true);

    const uint budget = 11;
    QVERIFY(bobSucceeds(fixture));
    QCOMPARE(fixture.d->launchBudget, budget - 1);
    QCOMPARE(launches().size(), 2);
    QCOMPARE(calls().constLast(), (QJsonArray{QStringLiteral("checkPassword"), QStringLiteral("bob"), success}));
    QCOMPARE(misled(), QVector<QJsonArray>());
    QTRY_COMPARE(::kill(process, 0), -1);
}

void TstHostileClient::clientStillStarting()
{
    MethodFixture fixture;
    setScript({{QStringLiteral("socket"), never}});
    fixture.method.authenticate(alice, MethodFixture::passwordData(success));
    QCOMPARE(fixture.d->child.state(), QProcess::Starting);
    QVERIFY(bobSucceeds(fixture));
    QCOMPARE(misled(), QVector<QJsonArray>());
}

void TstHostileClient::clientThatNeverStarts()
{
    // Bob's request arrives before the method knows that alice's client cannot be started.
    const QString kept = launcher + QStringLiteral(".kept");
    QFile::remove(kept);
    QVERIFY(QFile::rename(launcher, kept));
    QVERIFY(writeFile(launcher, {}));
    MethodFixture fixture;
    fixture.method.authenticate(alice, MethodFixture::passwordData(success));
    QCOMPARE(fixture.d->child.state(), QProcess::Starting);
    const pid_t process = pid_t(fixture.d->child.processId());
    siginfo_t status = {};
    // QProcess's signal handler may reap the process first.
    QVERIFY(waitid(P_PID, id_t(process), &status, WEXITED | WNOWAIT) == 0 || errno == ECHILD);
    QVERIFY(QFile::remove(launcher));
    QVERIFY(QFile::rename(kept, launcher));

    LogCapture log(true);
    QVERIFY(bobSucceeds(fixture));
    QVERIFY(log.debugs().contains(QStringLiteral("onChildErrorOccurred error 0")));
    QCOMPARE(launches().size(), 1);
}

void TstHostileClient::launchedAgainWhileStarting()
{
    // A delayed launch comes due while alice's client starts. It must not start a second client.
    MethodFixture fixture;
    setScript({{QStringLiteral("socket"), never}});
    fixture.method.authenticate(alice, MethodFixture::passwordData(success));
    QCOMPARE(fixture.d->child.state(), QProcess::Starting);
    fixture.d->currentUid = bob;
    QVERIFY(fixture.d->launchChild());
    QCOMPARE(fixture.d->child.uid, bob);
    QCOMPARE(fixture.d->child.clientUid, alice);

    // So bob's request does not wait for a socket of his own client.
    QVERIFY(bobSucceeds(fixture));
    QCOMPARE(misled(), QVector<QJsonArray>());
}

void TstHostileClient::linkToClientBeingKilled()
{
    MethodFixture fixture;
    QVERIFY(startAlice(fixture, {}, success));
    QTRY_COMPARE(fixture.told(), QVector<Call>{RecordingDaemon::succeeded()});
    const pid_t process = launchedProcesses().constFirst();
    fixture.method.handleUserSessionTriggered(alice, true, true);
    QVERIFY(fixture.d->child.clientRunning);
    QVERIFY(fixture.d->child.socketPresent);
    const LogCapture log;
    // The list is fetched from the next client.
    QVERIFY(!fixture.d->connectToChild());
    fixture.method.reset();
    QVERIFY(!fixture.d->connectToChild());
    QVERIFY(log.warnings().isEmpty());
    QCOMPARE(fixture.d->getCertList(), QStringList());
    QVERIFY(fixture.d->certListPending);
    QVERIFY(!fixture.d->certListInFlight);
    QTRY_COMPARE(::kill(process, 0), -1);
}

void TstHostileClient::tracedClient_data()
{
    QTest::addColumn<bool>("started"); // as far as the plugin knows
    QTest::addColumn<bool>("stopped"); // the plugin, instead of a request of bob's
    QTest::newRow("bob's request") << true << false;
    QTest::newRow("daemon ends") << true << true;
    QTest::newRow("daemon ends before it notices the start") << false << true;
}

// A tracer could hide the end of alice's client forever.
void TstHostileClient::tracedClient()
{
    QFETCH(bool, started);
    QFETCH(bool, stopped);
    auto fixture = std::make_unique<MethodFixture>();
    if (started) {
        QVERIFY(startAlice(*fixture, {}, success));
        QTRY_COMPARE(fixture->told(), QVector<Call>{RecordingDaemon::succeeded()});
    } else {
        fixture->method.authenticate(alice, MethodFixture::passwordData(success));
        const QDeadlineTimer deadline(TestTimeout);
        while (launches().isEmpty() && !deadline.hasExpired()) // without the event loop
            QTest::qSleep(1);
        QVERIFY(!launches().isEmpty());
        QVERIFY(!fixture->d->child.clientRunning);
    }
    const pid_t process = launchedProcesses().constFirst();
    const uint group = groupId("auth-factor");
    const pid_t tracer = TestDevice::idleProcess([process, group] {
        const gid_t groups[] = {groupId("inet")};
        return setgroups(1, groups) == 0 && setresgid(group, group, group) == 0 && setresuid(alice, alice, alice) == 0
               && ptrace(PTRACE_SEIZE, process, nullptr, nullptr) == 0;
    });
    QVERIFY(tracer > 0);

    QElapsedTimer timer;
    timer.start();
    if (!stopped)
        QVERIFY(bobSucceeds(*fixture));
    else
        fixture.reset();
    QVERIFY(timer.elapsed() < 15000); // the process object would wait for 30 s
    const int status = endOf(tracer);
    QVERIFY(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL);
}

void TstHostileClient::loginAfterLogout()
{
    // Bob's request arrives after alice's client was told to end but before it has ended. The request waits and
    // succeeds.
    for (int i = 0; i < 5; ++i) {
        TestDevice::reset();
        MethodFixture fixture;
        QVERIFY(startAlice(fixture, {}, success));
        QTRY_COMPARE(fixture.told(), QVector<Call>{RecordingDaemon::succeeded()});
        fixture.method.reset();
        fixture.method.handleUserSessionTriggered(alice, false, true);
        QVERIFY(bobSucceeds(fixture));
        QCOMPARE(misled(), QVector<QJsonArray>());
    }
}

void TstHostileClient::loginOfTheSameUser_data()
{
    QTest::addColumn<bool>("stubborn");
    QTest::newRow("client that ends") << false;
    QTest::newRow("client that ignores SIGTERM") << true;
}

// A user who logs out and in at once does not reach the client that is ending.
void TstHostileClient::loginOfTheSameUser()
{
    QFETCH(bool, stubborn);
    MethodFixture fixture;
    QVERIFY(startAlice(fixture, {{QStringLiteral("ignoreTerm"), stubborn}}, success));
    QTRY_COMPARE(fixture.told(), QVector<Call>{RecordingDaemon::succeeded()});
    const qint64 first = fixture.d->child.processId();
    fixture.method.reset();
    fixture.daemon.calls.clear();
    QVERIFY(QFile::remove(goFile));
    setScript({{QStringLiteral("socket"), goFile}});
    fixture.method.handleUserSessionTriggered(alice, false, true);
    fixture.method.authenticate(alice, MethodFixture::passwordData(success));
    QTRY_VERIFY(fixture.d->child.clientRunning && fixture.d->child.processId() != first);
    QVERIFY(writeFile(goFile, {}));
    QTRY_COMPARE(fixture.daemon.outcomes(), QVector<Call>{RecordingDaemon::succeeded()});
}

void TstHostileClient::delayedLaunchRecorded()
{
    // With carol's launch waiting for her first start, alice's client is killed but has not ended yet.
    MethodFixture fixture;
    QVERIFY(startAlice(fixture, {}, success));
    QTRY_COMPARE(fixture.told(), QVector<Call>{RecordingDaemon::succeeded()});
    fixture.method.reset();
    fixture.method.handleUserSessionTriggered(carol, true, true);
    QCOMPARE(fixture.d->child.uid, carol);
    QVERIFY(fixture.d->child.clientRunning);
    fixture.daemon.calls.clear();

    setScript({{QStringLiteral("socket"), never}});
    fixture.method.authenticate(carol, MethodFixture::passwordData(success));
    QTRY_COMPARE(fixture.d->child.clientUid, carol);
    QCOMPARE(calls().size(), 1); // alice's
    QCOMPARE(fixture.daemon.outcomes(), QVector<Call>());
}

void TstHostileClient::swappedSocket()
{
    // Alice swaps a symbolic link between bob's file and her own socket as fast as she can.
    MethodFixture fixture;
    QVERIFY(startAlice(fixture, {}, success));
    QTRY_COMPARE(fixture.told(), QVector<Call>{RecordingDaemon::succeeded()});
    const QString kept = clientDirectory + QStringLiteral("/kept");
    QVERIFY(QFile::rename(socketPath, kept));
    QVERIFY(writeFile(QStringLiteral("/tmp/of-bob"), {}));
    QVERIFY(setOwner(QStringLiteral("/tmp/of-bob"), bob, bob));
    QTRY_VERIFY(!fixture.d->child.socketPresent);

    // Test the checks alone, as if alice could still write here while bob's client runs.
    fixture.d->setChildUnavailable(true);
    fixture.d->child.clientRunning = true;
    fixture.d->child.uid = bob;
    fixture.d->child.clientUid = bob;
    fixture.d->currentUid = bob;
    const pid_t swapper = fork();
    if (swapper == 0) {
        const QByteArray name = QFile::encodeName(socketPath);
        const QByteArray temporary = name + ".tmp";
        if (setgid(alice) == -1 || setuid(alice) == -1)
            _exit(1);
        for (;;) {
            for (const char *target : {"/tmp/of-bob", "kept"}) {
                unlink(temporary.constData());
                (void)!symlink(target, temporary.constData());
                rename(temporary.constData(), name.constData());
            }
            unlink(temporary.constData());
            (void)!::link(QFile::encodeName(kept).constData(), temporary.constData());
            rename(temporary.constData(), name.constData());
        }
    }
    QLoggingCategory::setFilterRules(QStringLiteral("authd.method.kavet.warning=false")); // 20,000 lines
    int refused = 0;
    for (int i = 0; i < 20000; ++i) {
        fixture.d->handleChildSocket(clientDirectory);
        fixture.d->child.socketPresent = true;
        refused += !fixture.d->connectToChild();
    }
    ::kill(swapper, SIGKILL);
    waitpid(swapper, nullptr, 0);
    QLoggingCategory::setFilterRules({});
    QCOMPARE(refused, 20000);
    QCOMPARE(misled(), QVector<QJsonArray>());
}

void TstHostileClient::notASocket_data()
{
    QTest::addColumn<QString>("kind");
    for (const char *kind : {"link", "dangling link", "file", "directory", "fifo"})
        QTest::newRow(kind) << QString::fromLatin1(kind);
}

void TstHostileClient::notASocket()
{
    QFETCH(QString, kind);
    MethodFixture fixture;
    QVERIFY(fixture.link());
    QVERIFY(fixture.dropLink());
    const QString kept = clientDirectory + QStringLiteral("/kept");
    QVERIFY(QFile::rename(socketPath, kept));
    QTRY_VERIFY(!fixture.d->child.socketPresent);

    // The file at the socket's path belongs to alice, or is a link to a socket that she serves.
    const QByteArray name = QFile::encodeName(socketPath);
    if (kind == QLatin1String("link"))
        QCOMPARE(symlink("kept", name.constData()), 0);
    else if (kind == QLatin1String("dangling link"))
        QCOMPARE(symlink("nothing", name.constData()), 0);
    else if (kind == QLatin1String("file"))
        QVERIFY(writeFile(socketPath, {}));
    else if (kind == QLatin1String("directory"))
        QVERIFY(QDir().mkdir(socketPath));
    else
        QCOMPARE(mkfifo(name.constData(), 0600), 0);
    QVERIFY(setOwner(socketPath, alice, alice));

    LogCapture log(true);
    QVERIFY(!fixture.d->handleChildSocket(clientDirectory));
    QVERIFY(!fixture.d->child.socketPresent);
    QVERIFY(log.debugs().contains(QStringLiteral("handleChildSocket Not a socket")));
    // A socket that was replaced after the check is refused too.
    fixture.d->child.socketPresent = true;
    QVERIFY(!fixture.d->connectToChild());
    QVERIFY(!fixture.d->connection.isConnected());
    QCOMPARE(log.warnings().size(), 1);
    QVERIFY(log.warnings().constFirst().contains(QStringLiteral("Connection refused")));
}

void TstHostileClient::strangersSocket()
{
    // The socket file belongs to bob, but alice's process serves it.
    MethodFixture fixture;
    QVERIFY(startAlice(fixture, {}, success));
    QTRY_COMPARE(fixture.told(), QVector<Call>{RecordingDaemon::succeeded()});
    // setChildUnavailable() removes the socket file.
    const QString kept = clientDirectory + QStringLiteral("/kept");
    QVERIFY(QFile::rename(socketPath, kept));
    fixture.d->setChildUnavailable(true);
    QVERIFY(QFile::rename(kept, socketPath));
    QVERIFY(setOwner(socketPath, bob, bob));
    fixture.d->child.clientRunning = true;
    fixture.d->child.uid = bob;
    fixture.d->child.clientUid = bob;
    fixture.daemon.calls.clear();
    LogCapture log;

    fixture.d->currentUid = bob;
    fixture.d->pendingAuthData = MethodFixture::passwordData(success);
    QVERIFY(fixture.d->handleChildSocket(clientDirectory));
    QCOMPARE(fixture.daemon.outcomes(), QVector<Call>{cannotConnect});
    QCOMPARE(log.warnings(),
             QStringList{QStringLiteral("Cannot connect to the Kavet client socket "
                                        "\"unix:path=/run/aux-auth/tarsk/kavet_client/kavet.socket\" "
                                        "QDBusError(\"org.freedesktop.DBus.Error.NoServer\", "
                                        "\"Failed to connect to socket "
                                        "/run/aux-auth/tarsk/kavet_client/kavet.socket: Operation not permitted\")")});
    QCOMPARE(misled(), QVector<QJsonArray>());
}

QTEST_GUILESS_MAIN(TstHostileClient)
#include "tst_hostileclient.moc"
