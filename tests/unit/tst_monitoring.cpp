// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#include "methodfixture.h"
#include "support/logcapture.h"
#include "support/waiting.h"

#include <QFile>
#include <QFileInfo>
#include <QPointer>
#include <QProcess>
#include <QTest>

#include <functional>

#include <csignal>

#include <sys/stat.h>
#include <unistd.h>

namespace {

using Call = RecordingDaemon::Call;

const QString restarted = QStringLiteral("restartAuth");
const QString goFile = QStringLiteral("/tmp/scripted-client/go");
const QString secondName = QStringLiteral("/run/aux-auth/second-name");
const QString userConfig = QStringLiteral("/srv/shared/tarsk/kavet_client/1000.conf");
const QString lockingScreen = QStringLiteral("setChildUnavailable locking the screen");
const QString clientStarting = QStringLiteral("onChildStateChanged \"Client is starting\"");
const QString clientStarted = QStringLiteral("onChildStateChanged \"Client has started\"");
const QString clientNotRunning = QStringLiteral("onChildStateChanged \"Client is not running\"");

QString terminated(int exitCode, int exitStatus)
{
    return QStringLiteral("onChildFinished Client has terminated exitCode %1 exitStatus %2")
        .arg(exitCode)
        .arg(exitStatus);
}

Call restart(uint uid)
{
    return {restarted, {uid}};
}

// The state that monitoring maintains.
struct State
{
    explicit State(const MethodKavetPrivate *d)
        : clientStarting(d->child.clientStarting)
        , clientRunning(d->child.clientRunning)
        , socketPresent(d->child.socketPresent)
        , connected(d->connection.isConnected())
        , stage(d->clientStage)
        , uid(d->child.uid)
        , gid(d->child.gid)
        , userConfigPath(d->child.userConfigPath)
        , watchedFiles(d->watcher.files())
        , watchedDirectories(d->watcher.directories())
        , socketExists(QFileInfo::exists(TestDevice::socketPath))
        , proxy(d->clientInterface.data())
    {
        watchedFiles.sort();
        watchedDirectories.sort();
    }

    bool operator==(const State &other) const
    {
        return clientStarting == other.clientStarting && clientRunning == other.clientRunning
               && socketPresent == other.socketPresent && connected == other.connected && stage == other.stage
               && uid == other.uid && gid == other.gid && userConfigPath == other.userConfigPath
               && watchedFiles == other.watchedFiles && watchedDirectories == other.watchedDirectories
               && socketExists == other.socketExists && proxy == other.proxy;
    }

    bool clientStarting;
    bool clientRunning;
    bool socketPresent;
    bool connected;
    int stage;
    uint uid;
    uint gid;
    QString userConfigPath;
    QStringList watchedFiles;
    QStringList watchedDirectories;
    bool socketExists;
    const void *proxy;
};

// A daemon that records the state when it is told to restart the authentication.
struct LookingDaemon : RecordingDaemon
{
    std::function<void()> look;
    void restartAuth(const QString &method, uint uid) override
    {
        RecordingDaemon::restartAuth(method, uid);
        look();
    }
};

std::function<void(const QString &)> lineWritten;
QtMessageHandler nextHandler = nullptr;

void handleLine(QtMsgType level, const QMessageLogContext &context, const QString &text)
{
    if (lineWritten)
        lineWritten(text);
    nextHandler(level, context, text);
}

// The log lines except those about the socket, whose directory changes owner at a launch.
QStringList texts(const LogCapture &log)
{
    QStringList texts;
    const QVector<LogCapture::Line> lines = log.lines();
    for (const LogCapture::Line &line : lines) {
        if (!line.text.startsWith(QLatin1String("handleChildSocket ")))
            texts << line.text;
    }
    return texts;
}

bool kill(const MethodKavetPrivate *d, int signal)
{
    return d->child.processId() > 0 && ::kill(pid_t(d->child.processId()), signal) == 0;
}

// Creates both files that a launch watches.
bool linkWithPolicy(MethodFixture &fixture)
{
    return TestDevice::writeSetting(TestDevice::currentPolicy, QStringLiteral("max-attempts"), QStringLiteral("0"))
           && fixture.link() && waitUntil([&fixture] {
                  QStringList files = fixture.d->watcher.files();
                  files.sort();
                  return files == QStringList({userConfig, TestDevice::currentPolicy});
              });
}

bool changeState(MethodKavetPrivate *d, int state)
{
    return QMetaObject::invokeMethod(d, "onChildStateChanged", Qt::DirectConnection,
                                     Q_ARG(QProcess::ProcessState, QProcess::ProcessState(state)));
}

bool finish(MethodKavetPrivate *d, int exitCode, QProcess::ExitStatus status)
{
    return QMetaObject::invokeMethod(d, "onChildFinished", Qt::DirectConnection, Q_ARG(int, exitCode),
                                     Q_ARG(QProcess::ExitStatus, status));
}

} // namespace

class TstMonitoring : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init();

    void error_data();
    void error();
    void output_data();
    void output();
    void outputUnreadWithoutDebug();
    void outputBeyondTheLimit();
    void noOutput();

    void starting();
    void startingWhileRunning();
    void running();
    void exits();
    void exitsWithoutRequest();
    void crashes();
    void cannotBeStarted_data();
    void cannotBeStarted();
    void startedAfterAFailedStart();
    void unknownState_data();
    void unknownState();
    void notRunningWithoutClient();

    void finishedWhileRunning();
    void finishedWithoutClient();
    void finishedResumesRequest();

    void unavailable();
    void unavailableInOrder();
    void unavailableWithoutFiles();
    void unavailableWithoutClient();
    void linkIsClosed_data();
    void linkIsClosed();

    void relaunched();
    void relaunchesAreBounded();
};

void TstMonitoring::init()
{
    TestDevice::reset();
    QFile::remove(secondName);
}

void TstMonitoring::error_data()
{
    QTest::addColumn<int>("error");
    QTest::newRow("failed to start") << 0;
    QTest::newRow("crashed") << 1;
    QTest::newRow("timed out") << 2;
    QTest::newRow("read") << 3;
    QTest::newRow("write") << 4;
    QTest::newRow("unknown") << 5;
}

void TstMonitoring::error()
{
    QFETCH(int, error);
    MethodFixture fixture;
    QVERIFY(linkWithPolicy(fixture));
    const auto report = [&fixture, error] {
        return QMetaObject::invokeMethod(fixture.d, "onChildErrorOccurred", Qt::DirectConnection,
                                         Q_ARG(QProcess::ProcessError, QProcess::ProcessError(error)));
    };
    const State before(fixture.d);
    {
        LogCapture log;
        QVERIFY(report());
        QVERIFY(log.lines().isEmpty());
    }
    {
        LogCapture log(true);
        QVERIFY(report());
        QCOMPARE(log.debugs(), QStringList{QStringLiteral("onChildErrorOccurred error %1").arg(error)});
        QCOMPARE(log.lines().size(), 1);
    }
    QVERIFY(State(fixture.d) == before);
    QVERIFY(fixture.told().isEmpty());
}

void TstMonitoring::output_data()
{
    QTest::addColumn<QString>("channel");
    QTest::addColumn<QString>("text");
    QTest::addColumn<QString>("line");
    QTest::newRow("stdout") << QStringLiteral("stdout") << QStringLiteral("hello\n")
                            << QStringLiteral(R"(onReadyStdout client stdout: "hello\n")");
    QTest::newRow("stderr") << QStringLiteral("stderr") << QStringLiteral("hello\n")
                            << QStringLiteral(R"(onReadyStderr client stderr: "hello\n")");
    const QString odd = QStringLiteral("a \"b\"\\\t\u0001\u007fä");
    QTest::newRow("stdout, odd bytes") << QStringLiteral(
        "stdout") << odd << QStringLiteral(R"(onReadyStdout client stdout: "a \"b\"\\\t\x01\x7F\xC3\xA4")");
    QTest::newRow("stderr, odd bytes") << QStringLiteral(
        "stderr") << odd << QStringLiteral(R"(onReadyStderr client stderr: "a \"b\"\\\t\x01\x7F\xC3\xA4")");
}

void TstMonitoring::output()
{
    QFETCH(QString, channel);
    QFETCH(QString, text);
    QFETCH(QString, line);
    TestDevice::setScript({{channel, text}, {QStringLiteral("socket"), QStringLiteral("never")}});
    MethodFixture fixture;
    LogCapture log(true);
    fixture.method.authenticate(TestDevice::alice, {});
    QTRY_VERIFY(log.debugs().contains(line));
    QTRY_VERIFY(log.debugs().contains(clientStarted));
    QStringList lines = texts(log);
    lines.sort();
    QCOMPARE(lines, QStringList({clientStarted, clientStarting, line}));
    QVERIFY(log.debugs().contains(line));

    fixture.d->child.setReadChannel(channel == QLatin1String("stdout") ? QProcess::StandardOutput
                                                                       : QProcess::StandardError);
    QCOMPARE(fixture.d->child.bytesAvailable(), 0);
}

void TstMonitoring::outputUnreadWithoutDebug()
{
    TestDevice::setScript({{QStringLiteral("stdout"), QStringLiteral("to stdout\n")},
                           {QStringLiteral("stderr"), QStringLiteral("to stderr\n")},
                           {QStringLiteral("socket"), QStringLiteral("never")}});
    MethodFixture fixture;
    LogCapture log;
    fixture.method.authenticate(TestDevice::alice, {});
    QTRY_VERIFY(fixture.d->child.clientRunning);
    fixture.d->child.setReadChannel(QProcess::StandardError);
    QTRY_COMPARE(fixture.d->child.bytesAvailable(), 10);
    fixture.d->child.setReadChannel(QProcess::StandardOutput);
    QTRY_COMPARE(fixture.d->child.bytesAvailable(), 10);

    QVERIFY(QMetaObject::invokeMethod(fixture.d, "onReadyStdout", Qt::DirectConnection));
    QVERIFY(QMetaObject::invokeMethod(fixture.d, "onReadyStderr", Qt::DirectConnection));
    QCOMPARE(fixture.d->child.readAllStandardOutput(), QByteArray("to stdout\n"));
    QCOMPARE(fixture.d->child.readAllStandardError(), QByteArray("to stderr\n"));
    QVERIFY(log.lines().isEmpty());
}

void TstMonitoring::outputBeyondTheLimit()
{
    constexpr int limit = 1024 * 1024;
    TestDevice::setScript({{QStringLiteral("stdout"), QString(QLatin1Char('a') + QString(limit, QLatin1Char('x')))},
                           {QStringLiteral("socket"), QStringLiteral("never")}});
    MethodFixture fixture;
    fixture.method.authenticate(TestDevice::alice, {});
    fixture.d->child.setReadChannel(QProcess::StandardOutput);
    // Only the first byte is one too many.
    QTRY_COMPARE(fixture.d->child.peek(1), QByteArray("x"));
    QCOMPARE(fixture.d->child.bytesAvailable(), qint64(limit));
}

void TstMonitoring::noOutput()
{
    TestDevice::setScript({{QStringLiteral("socket"), QStringLiteral("never")}});
    MethodFixture fixture;
    fixture.method.authenticate(TestDevice::alice, {});
    QTRY_VERIFY(fixture.d->child.clientRunning);
    LogCapture log(true);
    QVERIFY(QMetaObject::invokeMethod(fixture.d, "onReadyStdout", Qt::DirectConnection));
    QVERIFY(QMetaObject::invokeMethod(fixture.d, "onReadyStderr", Qt::DirectConnection));
    QCOMPARE(log.debugs(), QStringList({QStringLiteral(R"(onReadyStdout client stdout: "")"),
                                        QStringLiteral(R"(onReadyStderr client stderr: "")")}));
}

void TstMonitoring::starting()
{
    TestDevice::setScript({{QStringLiteral("socket"), QStringLiteral("never")}});
    MethodFixture fixture;
    auto *d = fixture.d;
    LogCapture log(true);
    d->currentUid = TestDevice::alice;
    d->clientStage = MethodKavetPrivate::Linked;
    d->child.socketPresent = true;
    QVERIFY(TestDevice::writeFile(TestDevice::socketPath, {}));

    QVERIFY(d->launchChild());
    QVERIFY(d->child.clientStarting);
    QVERIFY(!d->child.clientRunning);
    QVERIFY(!d->child.socketPresent);
    QCOMPARE(d->clientStage, 1);
    QCOMPARE(d->child.uid, TestDevice::alice);
    QCOMPARE(d->child.userConfigPath, userConfig);
    QVERIFY(d->watcher.files().contains(userConfig));
    QVERIFY(QFileInfo::exists(TestDevice::socketPath));
    QVERIFY(fixture.told().isEmpty());
    QCOMPARE(log.debugs(), QStringList{clientStarting});
}

void TstMonitoring::startingWhileRunning()
{
    LookingDaemon daemon;
    bool startingSeen = false;
    MethodFixture fixture;
    QVERIFY(linkWithPolicy(fixture));
    LogCapture log(true);
    daemon.look = [&] {
        startingSeen = fixture.d->child.clientStarting;
    };
    fixture.method.setNotificator(&daemon);

    QVERIFY(changeState(fixture.d, QProcess::Starting));
    QVERIFY(startingSeen);
    QVERIFY(fixture.d->child.clientStarting);
    QVERIFY(!fixture.d->child.clientRunning);
    QCOMPARE(fixture.d->clientStage, 1);
    QCOMPARE(daemon.calls, QVector<Call>{restart(TestDevice::alice)});
    QCOMPARE(log.debugs(), QStringList({lockingScreen, clientStarting}));
}

void TstMonitoring::running()
{
    TestDevice::setScript({{QStringLiteral("socket"), QStringLiteral("never")}});
    MethodFixture fixture;
    auto *d = fixture.d;
    LogCapture log(true);
    d->currentUid = TestDevice::alice;
    QVERIFY(d->launchChild());
    // Stage and socket stay unchanged, and the request is not resumed: at this stage it would ask for input.
    d->clientStage = MethodKavetPrivate::Linked;
    d->child.socketPresent = true;
    QTRY_VERIFY(d->child.clientRunning);
    QVERIFY(!d->child.clientStarting);
    QVERIFY(d->child.socketPresent);
    QCOMPARE(d->clientStage, 3);
    QVERIFY(fixture.told().isEmpty());
    QCOMPARE(texts(log), QStringList({clientStarting, clientStarted}));
    QVERIFY(log.debugs().contains(clientStarting) && log.debugs().contains(clientStarted));
}

void TstMonitoring::exits()
{
    LogCapture log;
    LookingDaemon daemon;
    std::optional<State> seen;
    QProcess::ProcessState processState = QProcess::Running;
    QStringList warnings;
    MethodFixture fixture;
    auto *d = fixture.d;
    QVERIFY(linkWithPolicy(fixture));
    TestDevice::setScript({{QStringLiteral("socket"), QStringLiteral("never")}});
    daemon.look = [&] {
        seen.emplace(d);
        processState = d->child.state();
        warnings = log.warnings();
    };
    fixture.method.setNotificator(&daemon);
    const QPointer<KavetAuthInterface> proxy = d->clientInterface.data();

    d->checkPassword(QStringLiteral("die"));
    QTRY_COMPARE(TestDevice::launches().size(), 2);
    QTRY_VERIFY(d->child.clientRunning);
    QCOMPARE(daemon.callsOf(restarted), QVector<Call>{restart(TestDevice::alice)});

    // All of it had been done when the state change was reported, before finished().
    QVERIFY(seen);
    QCOMPARE(processState, QProcess::NotRunning);
    QVERIFY(!warnings.contains(terminated(0, 0)));
    QVERIFY(!seen->clientStarting);
    QVERIFY(!seen->clientRunning);
    QVERIFY(!seen->socketPresent);
    QVERIFY(!seen->connected);
    QCOMPARE(seen->stage, 1);
    QCOMPARE(seen->uid, 0U);
    QCOMPARE(seen->gid, 0U);
    QCOMPARE(seen->userConfigPath, QString());
    QCOMPARE(seen->watchedFiles, QStringList());
    QVERIFY(!seen->socketExists);
    QCOMPARE(seen->proxy, static_cast<const void *>(proxy.data()));
    QVERIFY(proxy);

    QCOMPARE(log.warnings().count(terminated(0, 0)), 1);
    QCOMPARE(d->launchBudget, 9U);
    QCOMPARE(d->clientStage, 2);
}

void TstMonitoring::exitsWithoutRequest()
{
    MethodFixture fixture;
    auto *d = fixture.d;
    QVERIFY(linkWithPolicy(fixture));
    fixture.method.reset();
    LogCapture log(true);
    QVERIFY(kill(d, SIGTERM));
    QTRY_COMPARE(log.warnings(), QStringList{terminated(SIGTERM, 1)});

    QCOMPARE(fixture.told(), QVector<Call>{restart(0)});
    const State state(d);
    QVERIFY(!state.clientStarting && !state.clientRunning && !state.socketPresent && !state.socketExists);
    QCOMPARE(state.stage, 1);
    QCOMPARE(state.uid, 0U);
    QCOMPARE(state.gid, 0U);
    QCOMPARE(state.userConfigPath, QString());
    QCOMPARE(d->child.state(), QProcess::NotRunning);
    QCOMPARE(d->launchBudget, 11U);
    QCOMPARE(TestDevice::launches().size(), 1);
}

void TstMonitoring::crashes()
{
    MethodFixture fixture;
    QVERIFY(fixture.link());
    fixture.method.reset();
    LogCapture log(true);
    QVERIFY(kill(fixture.d, SIGKILL));
    QTRY_COMPARE(log.warnings(), QStringList{terminated(SIGKILL, 1)});

    const QString crashed = QStringLiteral("onChildErrorOccurred error 1");
    QStringList lines = texts(log);
    QVERIFY(lines.removeOne(crashed));
    QCOMPARE(lines, QStringList({lockingScreen, clientNotRunning, terminated(SIGKILL, 1)}));
    QCOMPARE(fixture.told(), QVector<Call>{restart(0)});
}

void TstMonitoring::cannotBeStarted_data()
{
    QTest::addColumn<bool>("missing");
    QTest::newRow("launcher missing") << true;
    QTest::newRow("launcher not executable") << false;
}

void TstMonitoring::cannotBeStarted()
{
    QFETCH(bool, missing);
    const QByteArray launcher = QFile::encodeName(TestDevice::launcher);
    const QByteArray aside = launcher + ".aside";
    MethodFixture fixture;
    auto *d = fixture.d;
    QVERIFY(TestDevice::writeFile(TestDevice::socketPath, {}));
    QVERIFY(TestDevice::writeSetting(TestDevice::currentPolicy, QStringLiteral("max-attempts"), QStringLiteral("0")));
    QCOMPARE(missing ? rename(launcher.constData(), aside.constData()) : chmod(launcher.constData(), 0644), 0);
    LogCapture log(true);

    fixture.method.authenticate(TestDevice::alice, MethodFixture::passwordData(QStringLiteral("success")));
    QVERIFY(d->child.clientStarting);
    QCOMPARE(d->clientStage, 2);
    d->child.socketPresent = true;
    QTRY_COMPARE(d->child.state(), QProcess::NotRunning);
    QTRY_VERIFY(log.debugs().contains(clientNotRunning));
    QCoreApplication::sendPostedEvents(d, QEvent::MetaCall); // A failed start is also handled by a queued call.

    QStringList lines = texts(log);
    QVERIFY(lines.removeOne(QStringLiteral("onChildErrorOccurred error 0")));
    QCOMPARE(lines, QStringList({clientStarting, clientNotRunning}));
    QVERIFY(log.warnings().isEmpty());
    QVERIFY(!d->child.clientStarting);
    QVERIFY(!d->child.clientRunning);
    QVERIFY(!d->child.socketPresent);
    QCOMPARE(d->clientStage, 1);
    // Nothing is cleaned up, and the request waits.
    QCOMPARE(d->child.uid, TestDevice::alice);
    QVERIFY(d->child.gid != 0);
    QCOMPARE(d->child.userConfigPath, userConfig);
    QVERIFY(d->watcher.files().contains(userConfig));
    QVERIFY(d->watcher.files().contains(TestDevice::currentPolicy));
    QVERIFY(QFileInfo::exists(TestDevice::socketPath));
    QVERIFY(fixture.daemon.outcomes().isEmpty());
    QVERIFY(fixture.daemon.callsOf(restarted).isEmpty());
    QVERIFY(d->pendingAuthData);
    QCOMPARE(d->launchBudget, 10U);

    QCOMPARE(missing ? rename(aside.constData(), launcher.constData()) : chmod(launcher.constData(), 0755), 0);
    TestDevice::setScript({{QStringLiteral("socket"), QStringLiteral("never")}});
    d->makeAuth();
    QTRY_VERIFY(d->child.clientRunning);
    QCOMPARE(d->launchBudget, 9U);
}

// The report of a failed start comes late, so the client may be running again and have been told to end.
void TstMonitoring::startedAfterAFailedStart()
{
    MethodFixture fixture;
    auto *d = fixture.d;
    const auto start = [d](const QString &program) {
        d->child.start(program, QStringList());
        return d->child.waitForStarted();
    };
    QVERIFY(!start(QStringLiteral("/nowhere")));
    QVERIFY(start(QStringLiteral("/bin/cat")));
    d->child.clientUid = 0;
    d->currentUid = TestDevice::alice;
    const quint64 link = d->guard.link();
    QCoreApplication::sendPostedEvents(d, QEvent::MetaCall);
    // Killing the client would close the link.
    QCOMPARE(d->guard.link(), link);
}

void TstMonitoring::unknownState_data()
{
    QTest::addColumn<int>("state");
    // The only other value that the enumeration can hold.
    QTest::newRow("3") << 3;
}

void TstMonitoring::unknownState()
{
    QFETCH(int, state);
    MethodFixture fixture;
    QVERIFY(linkWithPolicy(fixture));
    const State before(fixture.d);
    fixture.d->child.clientStarting = true;
    LogCapture log(true);
    QVERIFY(changeState(fixture.d, state));
    QCOMPARE(log.debugs(), QStringList{QStringLiteral("onChildStateChanged \"<unknown>\"")});
    QCOMPARE(log.lines().size(), 1);
    QVERIFY(!fixture.d->child.clientStarting);
    QVERIFY(State(fixture.d) == before);
    QVERIFY(fixture.told().isEmpty());
}

void TstMonitoring::notRunningWithoutClient()
{
    MethodFixture fixture;
    auto *d = fixture.d;
    d->child.clientStarting = true;
    d->child.socketPresent = true;
    d->clientStage = MethodKavetPrivate::Linked;
    LogCapture log(true);
    QVERIFY(changeState(d, QProcess::NotRunning));
    QVERIFY(!d->child.clientStarting);
    QVERIFY(!d->child.socketPresent);
    QCOMPARE(d->clientStage, 1);
    QVERIFY(fixture.told().isEmpty());
    QCOMPARE(log.debugs(), QStringList{clientNotRunning});
}

void TstMonitoring::finishedWhileRunning()
{
    MethodFixture fixture;
    auto *d = fixture.d;
    QVERIFY(linkWithPolicy(fixture));
    d->launchBudget = 0;
    LogCapture log(true);
    QVERIFY(finish(d, 1, QProcess::NormalExit));

    // The cleanup comes before the request.
    QCOMPARE(fixture.told(),
             (QVector<Call>{restart(TestDevice::alice),
                            RecordingDaemon::failed(SettingsKavet::Connecting, SettingsKavet::CannotStartClient)}));
    QVector<LogCapture::Line> lines = log.lines();
    QCOMPARE(lines.size(), 2);
    QCOMPARE(lines.at(0).text, terminated(1, 0));
    QCOMPARE(lines.at(0).level, QtWarningMsg);
    QCOMPARE(lines.at(1).text, lockingScreen);
    QCOMPARE(lines.at(1).level, QtDebugMsg);
    QVERIFY(!d->child.clientRunning);
    QVERIFY(!QFileInfo::exists(TestDevice::socketPath));
    QCOMPARE(d->watcher.files(), QStringList());
}

void TstMonitoring::finishedWithoutClient()
{
    MethodFixture fixture;
    auto *d = fixture.d;
    QVERIFY(TestDevice::writeFile(TestDevice::socketPath, {}));
    d->child.clientStarting = true;
    d->child.socketPresent = true;
    d->clientStage = MethodKavetPrivate::Linked;
    d->currentUid = TestDevice::alice;
    LogCapture log(true);
    QVERIFY(finish(d, -7, QProcess::CrashExit));
    QCOMPARE(log.warnings(), QStringList{terminated(-7, 1)});
    QCOMPARE(log.lines().size(), 1);
    QVERIFY(d->child.clientStarting);
    QVERIFY(!d->child.socketPresent);
    QCOMPARE(d->clientStage, 1);
    QVERIFY(fixture.told().isEmpty());
    QVERIFY(QFileInfo::exists(TestDevice::socketPath));
}

void TstMonitoring::finishedResumesRequest()
{
    TestDevice::setScript({{QStringLiteral("socket"), QStringLiteral("never")}});
    MethodFixture fixture;
    fixture.d->clientStage = MethodKavetPrivate::Linked;
    fixture.d->currentUid = TestDevice::alice;
    QVERIFY(finish(fixture.d, 0, QProcess::NormalExit));
    QVERIFY(fixture.d->child.clientStarting);
    QCOMPARE(fixture.d->clientStage, 2);
    QCOMPARE(fixture.d->launchBudget, 10U);
    QTRY_COMPARE(TestDevice::launches().size(), 1);
}

void TstMonitoring::unavailable()
{
    MethodFixture fixture;
    auto *d = fixture.d;
    QVERIFY(linkWithPolicy(fixture));
    const QPointer<KavetAuthInterface> proxy = d->clientInterface.data();
    const QStringList directories = d->watcher.directories();
    QVERIFY(directories.contains(TestDevice::sharedDirectory));
    QVERIFY(d->child.gid != 0);
    LogCapture log(true);

    d->setChildUnavailable(true);
    QCOMPARE(d->clientStage, 1);
    QVERIFY(!d->child.clientRunning);
    QVERIFY(!d->child.socketPresent);
    QVERIFY(!d->connection.isConnected());
    QVERIFY(!QDBusConnection(QStringLiteral("kavet_p2p_service")).isConnected());
    QVERIFY(proxy);
    QCOMPARE(d->clientInterface.data(), proxy.data());
    QCOMPARE(d->watcher.files(), QStringList());
    QCOMPARE(d->watcher.directories(), directories);
    QCOMPARE(d->child.userConfigPath, QString());
    QCOMPARE(d->child.uid, 0U);
    QCOMPARE(d->child.gid, 0U);
    QVERIFY(!QFileInfo::exists(TestDevice::socketPath));
    QVERIFY(QFileInfo::exists(userConfig));
    QVERIFY(QFileInfo::exists(TestDevice::currentPolicy));
    QCOMPARE(log.debugs(), QStringList{lockingScreen});
    QCOMPARE(log.lines().size(), 1);
    QCOMPARE(fixture.told(), QVector<Call>{restart(TestDevice::alice)});
    QCOMPARE(d->currentUid, TestDevice::alice);
}

void TstMonitoring::unavailableInOrder()
{
    MethodFixture fixture;
    auto *d = fixture.d;
    QVERIFY(linkWithPolicy(fixture));
    LogCapture log(true);

    // Logging is the last step but one, the call to the daemon the last.
    QVector<State> atLine;
    int toldAtLine = -1;
    nextHandler = qInstallMessageHandler(handleLine);
    lineWritten = [&](const QString &text) {
        if (text == lockingScreen) {
            atLine << State(d);
            toldAtLine = fixture.told().size();
        }
    };
    d->setChildUnavailable(true);
    lineWritten = nullptr;
    qInstallMessageHandler(nextHandler);

    QCOMPARE(atLine.size(), 1);
    QCOMPARE(toldAtLine, 0);
    QVERIFY(!atLine.first().connected);
    QCOMPARE(atLine.first().watchedFiles, QStringList());
    QCOMPARE(atLine.first().userConfigPath, QString());
    QCOMPARE(atLine.first().uid, 0U);
    QCOMPARE(atLine.first().gid, 0U);
    QVERIFY(!atLine.first().socketExists);
    QCOMPARE(fixture.told(), QVector<Call>{restart(TestDevice::alice)});
}

void TstMonitoring::unavailableWithoutFiles()
{
    // Files that are already gone do not matter.
    MethodFixture fixture;
    QVERIFY(fixture.link());
    QVERIFY(QFile::remove(TestDevice::socketPath));
    QVERIFY(fixture.dropLink());
    LogCapture log;
    fixture.d->setChildUnavailable(true);
    QCOMPARE(fixture.told(), QVector<Call>{restart(TestDevice::alice)});
    QVERIFY(log.lines().isEmpty());
    QVERIFY(log.otherLines().isEmpty());
}

void TstMonitoring::unavailableWithoutClient()
{
    MethodFixture fixture;
    auto *d = fixture.d;
    QVERIFY(linkWithPolicy(fixture));
    State expected(d);
    expected.stage = 1;
    expected.clientRunning = false;
    expected.socketPresent = false;
    LogCapture log(true);
    d->setChildUnavailable(false);
    QVERIFY(State(d) == expected);
    QVERIFY(expected.socketExists && expected.connected);
    QVERIFY(log.lines().isEmpty());
    QVERIFY(fixture.told().isEmpty());
}

void TstMonitoring::linkIsClosed_data()
{
    QTest::addColumn<bool>("certList");
    QTest::newRow("checkPassword outstanding") << false;
    QTest::newRow("getCertList outstanding") << true;
}

void TstMonitoring::linkIsClosed()
{
    QFETCH(bool, certList);
    // A client that survives its launcher is not called again.
    MethodFixture fixture;
    auto *d = fixture.d;
    QVERIFY(fixture.link(
        {{QStringLiteral("certs"), QJsonArray()}, {QStringLiteral("certsAnswer"), QStringLiteral("late")}}));
    const QPointer<KavetAuthInterface> proxy = d->clientInterface.data();
    QCOMPARE(::link(QFile::encodeName(TestDevice::socketPath).constData(), QFile::encodeName(secondName).constData()),
             0);
    if (certList)
        d->getCertList();
    else
        d->checkPassword(QStringLiteral("late"));
    QTRY_COMPARE(MethodFixture::calledMethods().size(), 1);
    d->setChildUnavailable(true);
    QVERIFY(!d->connection.isConnected());
    QCOMPARE(fixture.told(), QVector<Call>{restart(TestDevice::alice)});

    // The pending call ends at once, with exactly one error.
    const Call certs = {QStringLiteral("optionChanged"), {0U, QStringLiteral("certs"), QStringList(), true}};
    const Call broken =
        RecordingDaemon::failed(SettingsKavet::EnterPasswordOrPin, SettingsKavet::CannotCommunicateClient);
    QTRY_COMPARE(fixture.told(), (QVector<Call>{restart(TestDevice::alice), certList ? certs : broken}));
    QTRY_VERIFY(!fixture.isWaiting());
    QVERIFY(!d->certListInFlight);
    fixture.daemon.calls.clear();

    QVERIFY(QFile::rename(secondName, TestDevice::socketPath));
    d->child.clientRunning = true;
    d->child.socketPresent = true;
    QVERIFY(d->connectToChild());
    QVERIFY(d->connection.isConnected());
    QVERIFY(!proxy);
    d->checkPassword(QStringLiteral("failed"));
    const Call failed = RecordingDaemon::failed(SettingsKavet::EnterPasswordOrPin, SettingsKavet::AuthFailed);
    QTRY_COMPARE(fixture.told(), QVector<Call>{failed});
}

void TstMonitoring::relaunched()
{
    MethodFixture fixture;
    auto *d = fixture.d;
    QVERIFY(fixture.link());
    TestDevice::setScript({{QStringLiteral("socket"), goFile}});
    LogCapture log(true);
    QVERIFY(kill(d, SIGKILL));
    QTRY_COMPARE(TestDevice::launches().size(), 2);
    QTRY_VERIFY(d->child.clientRunning);
    QCOMPARE(fixture.told(), QVector<Call>{restart(TestDevice::alice)});

    // The method connects again, to the new client.
    QVERIFY(TestDevice::writeFile(goFile, {}));
    QTRY_COMPARE(fixture.told(), (QVector<Call>{restart(TestDevice::alice),
                                                RecordingDaemon::asked(SettingsKavet::EnterPasswordOrPin)}));
    fixture.method.authenticate(TestDevice::alice, MethodFixture::passwordData(QStringLiteral("success")));
    QTRY_COMPARE(fixture.told().size(), 3);
    QCOMPARE(fixture.told().constLast(), RecordingDaemon::succeeded());

    QStringList lines = texts(log);
    QVERIFY(lines.removeOne(QStringLiteral("onChildErrorOccurred error 1")));
    QCOMPARE(lines,
             QStringList({lockingScreen, clientNotRunning, terminated(SIGKILL, 1), clientStarting, clientStarted}));
}

void TstMonitoring::relaunchesAreBounded()
{
    TestDevice::setScript({{QStringLiteral("exit"), 1}});
    MethodFixture fixture;
    const Call cannotStart = RecordingDaemon::failed(SettingsKavet::Connecting, SettingsKavet::CannotStartClient);
    for (int round = 1; round <= 2; ++round) {
        fixture.daemon.calls.clear();
        LogCapture log;
        fixture.method.authenticate(TestDevice::alice, MethodFixture::passwordData(QStringLiteral("success")));
        QTRY_COMPARE(fixture.daemon.outcomes(), QVector<Call>{cannotStart});
        QCOMPARE(TestDevice::launches().size(), 11 * round);
        QCOMPARE(fixture.d->launchBudget, 0U);
        QVector<Call> expected(11, restart(TestDevice::alice));
        expected << cannotStart;
        QCOMPARE(fixture.told(), expected);
        QStringList warnings;
        for (int i = 0; i < 11; ++i)
            warnings << terminated(1, 0);
        QCOMPARE(log.warnings(), warnings);

        // Without a reset, the client is not started again.
        fixture.method.authenticate(TestDevice::alice, {});
        QCOMPARE(fixture.daemon.outcomes(), (QVector<Call>{cannotStart, cannotStart}));
        QCOMPARE(fixture.d->child.state(), QProcess::NotRunning);
        QCOMPARE(TestDevice::launches().size(), 11 * round);
        fixture.method.reset();
        QCOMPARE(fixture.d->launchBudget, 11U);
    }
}

QTEST_GUILESS_MAIN(TstMonitoring)
#include "tst_monitoring.moc"
