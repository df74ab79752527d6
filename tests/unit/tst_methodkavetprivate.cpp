// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#include "plugin/methodkavet.h"
#include "plugin/methodkavetprivate.h"
#include "support/logcapture.h"
#include "support/recordingdaemon.h"
#include "support/testdevice.h"
#include "support/waiting.h"

#include <QDBusConnection>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonObject>
#include <QMetaMethod>
#include <QSignalSpy>
#include <QTest>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <memory>
#include <type_traits>

namespace {

const QString maxAttempts = QStringLiteral("max-attempts");
const QString methodOptions = QStringLiteral("/var/lib/authd/methods/kavet/current.conf");

MethodKavetPrivate *privateOf(const MethodKavet &method)
{
    return method.findChild<MethodKavetPrivate *>(QString(), Qt::FindDirectChildrenOnly);
}

/// The calls to the daemon when the limit of attempts is applied.
RecordingDaemon::Call limitTaken(const QVariant &limit)
{
    return {QStringLiteral("optionChanged"), {0U, maxAttempts, limit, false}};
}

bool removeManifest()
{
    return QFile::remove(TestDevice::manifest);
}

/// The number of slots that are connected to `signal`.
int slotsConnected(const QObject &sender, const char *signal)
{
    struct Access : QObject
    {
        using QObject::receivers;
    };
    return (sender.*&Access::receivers)(signal);
}

/// Runs a shell script as the client's process until it ends.
bool runInChild(ChildProcess &child, const QString &script)
{
    child.start(QStringLiteral("/bin/sh"), {QStringLiteral("-c"), script});
    return waitUntil([&child] { return child.state() == QProcess::NotRunning; });
}

/// Changes the client's directory, which has a socket of alice's, and waits for the watcher's signal.
bool placeSocket(MethodKavetPrivate &d)
{
    QSignalSpy changed(&d.watcher, &QFileSystemWatcher::directoryChanged);
    const QString socket = QStringLiteral("/run/aux-auth/kavet.socket");
    return TestDevice::leaveSocket(socket, TestDevice::alice)
           && (QFile::remove(TestDevice::socketPath), QFile::rename(socket, TestDevice::socketPath)) && changed.wait();
}

} // namespace

/// The private object's members, its wiring, its construction and its destruction.
class TstMethodKavetPrivate : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init() { TestDevice::reset(); }

    // --- Members

    void initialValues_data()
    {
        QTest::addColumn<bool>("manifest");

        QTest::newRow("manifest") << true;
        QTest::newRow("no manifest") << false;
    }

    void initialValues()
    {
        QFETCH(bool, manifest);

        QVERIFY(manifest || removeManifest());
        const MethodKavet method;
        const MethodKavetPrivate *const d = privateOf(method);
        QVERIFY(d);
        QCOMPARE(d->parent(), &method);
        QCOMPARE(d->q, &method);
        QCOMPARE(d->connection.name(), QString());
        QVERIFY(!d->connection.isConnected());
        QVERIFY(d->clientInterface.isNull());
        QCOMPARE(d->clientStage, 1);
        QCOMPARE(d->currentUid, 0U);
        QVERIFY(!d->pendingAuthData.has_value());
        QCOMPARE(d->watcher.parent(), &method);
        QCOMPARE(d->watcher.directories(), manifest ? QStringList(TestDevice::clientDirectory) : QStringList());
        QVERIFY(d->watcher.files().isEmpty());
        QCOMPARE(d->child.parent(), d);
        QCOMPARE(d->child.manifestParsed, manifest);
        QCOMPARE(d->child.uid, 0U);
        QVERIFY(!d->child.clientRunning);
        QCOMPARE(d->launchBudget, 11U);
        QVERIFY(!d->certListInFlight);
        QVERIFY(!d->certListPending);
    }

    void memberOrder()
    {
        const MethodKavet method;
        const MethodKavetPrivate *const d = privateOf(method);
        const QVector<const void *> members = {
            &d->connection, &d->clientInterface, &d->clientStage,  &d->currentUid,       &d->pendingAuthData,
            &d->watcher,    &d->child,           &d->launchBudget, &d->certListInFlight, &d->certListPending,
            &d->q};
        QVERIFY(std::is_sorted(members.cbegin(), members.cend()));
    }

    void stages()
    {
        QVERIFY((std::is_same_v<std::underlying_type_t<MethodKavetPrivate::Stage>, qint32>));
        QCOMPARE(int(MethodKavetPrivate::MustLaunch), 1);
        QCOMPARE(int(MethodKavetPrivate::MustConnect), 2);
        QCOMPARE(int(MethodKavetPrivate::Linked), 3);
    }

    // --- Without a manifest

    void inertWithoutManifest_data()
    {
        QTest::addColumn<bool>("malformed");

        QTest::newRow("missing") << false;
        QTest::newRow("malformed") << true;
    }

    void inertWithoutManifest()
    {
        QFETCH(bool, malformed);

        QVERIFY(removeManifest());
        QVERIFY(!malformed || TestDevice::writeFile(TestDevice::manifest, "noise"));
        QVERIFY(TestDevice::writeSetting(TestDevice::packagedPolicy, maxAttempts, QStringLiteral("5")));
        QVERIFY(QDir().mkpath(TestDevice::sharedDirectory));

        LogCapture log(true);
        RecordingDaemon daemon;
        MethodKavet method;
        method.setNotificator(&daemon);
        MethodKavetPrivate *const d = privateOf(method);
        QCOMPARE(log.lines().size(), malformed ? 1 : 0);
        log.clear();
        QVERIFY(!QFile::exists(TestDevice::clientDirectory));
        QVERIFY(!QFile::exists(methodOptions));
        QVERIFY(d->watcher.directories().isEmpty());
        QVERIFY(d->watcher.files().isEmpty());

        // No signal of the process reaches a slot.
        QVERIFY(runInChild(d->child, QStringLiteral("echo out; echo err >&2; exit 3")));
        d->child.start(QStringLiteral("/nonexistent"), QStringList());
        QVERIFY(!d->child.waitForStarted());
        QVERIFY(!d->child.clientRunning);
        QVERIFY(log.lines().isEmpty());

        // Changes of watched directories and files reach no handler either.
        QVERIFY(QDir().mkpath(TestDevice::clientDirectory));
        QVERIFY(d->watcher.addPath(TestDevice::clientDirectory));
        d->child.clientRunning = true;
        d->child.uid = TestDevice::alice;
        QVERIFY(placeSocket(*d));
        QVERIFY(!d->child.socketPresent);

        QVERIFY(TestDevice::writeSetting(TestDevice::currentPolicy, maxAttempts, QStringLiteral("5")));
        QVERIFY(d->watcher.addPath(TestDevice::currentPolicy));
        QSignalSpy changed(&d->watcher, &QFileSystemWatcher::fileChanged);
        QVERIFY(TestDevice::writeSetting(TestDevice::currentPolicy, maxAttempts, QStringLiteral("6")));
        QVERIFY(changed.wait());
        QVERIFY(daemon.calls.isEmpty());
        QVERIFY(log.lines().isEmpty());
    }

    // --- The wiring

    void errorIsConnected()
    {
        const LogCapture log(true);
        const MethodKavet method;
        ChildProcess &child = privateOf(method)->child;
        child.start(QStringLiteral("/nonexistent"), QStringList());
        QTRY_COMPARE(child.state(), QProcess::NotRunning);
        QCOMPARE(log.debugs().count(QStringLiteral("onChildErrorOccurred error 0")), 1);
    }

    void outputIsConnected()
    {
        const LogCapture log(true);
        const MethodKavet method;
        QVERIFY(runInChild(privateOf(method)->child, QStringLiteral("printf out; printf err >&2")));
        QCOMPARE(log.debugs().count(QStringLiteral("onReadyStdout client stdout: \"out\"")), 1);
        QCOMPARE(log.debugs().count(QStringLiteral("onReadyStderr client stderr: \"err\"")), 1);
    }

    void stateIsConnected()
    {
        const LogCapture log(true);
        const MethodKavet method;
        QVERIFY(runInChild(privateOf(method)->child, QStringLiteral("exit 0")));
        QCOMPARE(log.debugs().filter(QStringLiteral("onChildStateChanged")),
                 QStringList({QStringLiteral("onChildStateChanged \"Client is starting\""),
                              QStringLiteral("onChildStateChanged \"Client has started\""),
                              QStringLiteral("onChildStateChanged \"Client is not running\"")}));
    }

    void finishedIsConnected()
    {
        const LogCapture log;
        const MethodKavet method;
        QVERIFY(runInChild(privateOf(method)->child, QStringLiteral("exit 3")));
        QCOMPARE(log.warnings(),
                 QStringList(QStringLiteral("onChildFinished Client has terminated exitCode 3 exitStatus 0")));
    }

    void signalsAreConnectedOnce()
    {
        const MethodKavet method;
        const MethodKavetPrivate *const d = privateOf(method);
        QCOMPARE(slotsConnected(d->child, SIGNAL(readyReadStandardOutput())), 1);
        QCOMPARE(slotsConnected(d->child, SIGNAL(readyReadStandardError())), 1);
        QCOMPARE(slotsConnected(d->child, SIGNAL(stateChanged(QProcess::ProcessState))), 1);
        QCOMPARE(slotsConnected(d->child, SIGNAL(finished(int, QProcess::ExitStatus))), 1);
        // Two slots: one logs the error, the other continues a request.
        QCOMPARE(slotsConnected(d->child, SIGNAL(errorOccurred(QProcess::ProcessError))), 2);
        QCOMPARE(slotsConnected(d->watcher, SIGNAL(directoryChanged(QString))), 1);
        QCOMPARE(slotsConnected(d->watcher, SIGNAL(fileChanged(QString))), 1);
    }

    void connectionsAreDirect()
    {
        const LogCapture log(true);
        QVector<bool> running;
        QStringList lastLines;
        QVector<bool> told;
        RecordingDaemon daemon;
        MethodKavet method;
        method.setNotificator(&daemon);
        MethodKavetPrivate *const d = privateOf(method);
        // These are connected later, so they run after the private object's slots.
        const auto noteLine = [&] {
            lastLines << log.lines().constLast().text;
        };
        connect(&d->child, &QProcess::stateChanged, this,
                [&] { running << d->child.clientRunning; }); // clazy:exclude=lambda-in-connect
        connect(&d->child, &QProcess::errorOccurred, this, noteLine);
        connect(&d->child, &QProcess::readyReadStandardOutput, this, noteLine);
        connect(&d->child, &QProcess::readyReadStandardError, this, noteLine);
        connect(&d->watcher, &QFileSystemWatcher::fileChanged, this,
                [&] { told << !daemon.calls.isEmpty(); }); // clazy:exclude=lambda-in-connect

        QVERIFY(runInChild(d->child, QStringLiteral("printf out")));
        QVERIFY(runInChild(d->child, QStringLiteral("printf err >&2")));
        QCOMPARE(running, QVector<bool>({false, true, false, false, true, false}));
        d->child.start(QStringLiteral("/nonexistent"), QStringList());
        QTRY_COMPARE(d->child.state(), QProcess::NotRunning);
        QCOMPARE(lastLines, QStringList({QStringLiteral("onReadyStdout client stdout: \"out\""),
                                         QStringLiteral("onReadyStderr client stderr: \"err\""),
                                         QStringLiteral("onChildErrorOccurred error 0")}));

        QVERIFY(TestDevice::writeSetting(TestDevice::currentPolicy, maxAttempts, QStringLiteral("5")));
        QVERIFY(d->watcher.addPath(TestDevice::currentPolicy));
        daemon.calls.clear();
        QVERIFY(TestDevice::writeSetting(TestDevice::currentPolicy, maxAttempts, QStringLiteral("7")));
        QTRY_VERIFY(!told.isEmpty());
        QVERIFY(told.constFirst());
    }

    void directoryChangeIsConnected()
    {
        const LogCapture log(true);
        const MethodKavet method;
        MethodKavetPrivate *const d = privateOf(method);
        d->child.clientRunning = true;
        d->child.uid = TestDevice::alice;
        QVERIFY(placeSocket(*d));
        QVERIFY(d->child.socketPresent);
        QCOMPARE(log.debugs(), QStringList(QStringLiteral("handleChildSocket kavet client socket appeared")));
    }

    void fileChangeIsConnected()
    {
        RecordingDaemon daemon;
        MethodKavet method;
        method.setNotificator(&daemon);
        MethodKavetPrivate *const d = privateOf(method);
        QVERIFY(TestDevice::writeSetting(TestDevice::currentPolicy, maxAttempts, QStringLiteral("5")));
        QVERIFY(d->watcher.addPath(TestDevice::currentPolicy));
        QVERIFY(TestDevice::writeSetting(TestDevice::currentPolicy, maxAttempts, QStringLiteral("7")));
        QTRY_VERIFY(daemon.calls.contains(limitTaken(QStringLiteral("7"))));
    }

    void wiredWhileTheManifestIsADanglingLink()
    {
        const QString target = QStringLiteral("/opt/manifests/client.desktop");
        QFile::remove(target);
        QVERIFY(removeManifest());
        QVERIFY(QFile::link(target, TestDevice::manifest));
        QVERIFY(QDir().mkpath(TestDevice::sharedDirectory));
        QVERIFY(TestDevice::writeSetting(TestDevice::packagedPolicy, maxAttempts, QStringLiteral("5")));
        const LogCapture log;
        MethodKavet method;
        MethodKavetPrivate *const d = privateOf(method);
        // The shared directory is not known yet.
        QCOMPARE(d->watcher.directories(), QStringList(TestDevice::clientDirectory));
        QCOMPARE(method.getOptionInternal(0, maxAttempts).toInt(), 5);
        QVERIFY(log.lines().isEmpty());
        QVERIFY(runInChild(d->child, QStringLiteral("exit 3")));
        QCOMPARE(log.warnings().size(), 1);
    }

    // --- Directories

    void clientDirectoryIsMade()
    {
        QVERIFY(!QFile::exists(QStringLiteral("/run/aux-auth/tarsk")));
        const LogCapture log(true);
        const MethodKavet method;
        QVERIFY(QFileInfo(TestDevice::clientDirectory).isDir());
        QVERIFY(privateOf(method)->watcher.directories().contains(TestDevice::clientDirectory));
        QVERIFY(log.lines().isEmpty());
    }

    void clientDirectoryIsThere()
    {
        const QString file = TestDevice::clientDirectory + QStringLiteral("/file");
        QVERIFY(TestDevice::writeFile(file, "content"));
        const LogCapture log(true);
        const MethodKavet method;
        QCOMPARE(TestDevice::readFile(file), QByteArray("content"));
        QVERIFY(privateOf(method)->watcher.directories().contains(TestDevice::clientDirectory));
        QVERIFY(log.lines().isEmpty());
    }

    void clientDirectoryCannotBeMade()
    {
        QVERIFY(TestDevice::writeFile(QStringLiteral("/run/aux-auth/tarsk"), {}));
        QVERIFY(QDir().mkpath(TestDevice::sharedDirectory));
        QVERIFY(TestDevice::writeSetting(TestDevice::packagedPolicy, maxAttempts, QStringLiteral("5")));
        LogCapture log;
        RecordingDaemon daemon;
        MethodKavet method;
        method.setNotificator(&daemon);
        MethodKavetPrivate *const d = privateOf(method);
        QCOMPARE(log.lines(),
                 QVector<LogCapture::Line>(
                     {{QtCriticalMsg, QStringLiteral("authd.method.kavet"),
                       QStringLiteral("Cannot create auxiliary directory \"/run/aux-auth/tarsk/kavet_client\"")}}));

        // Everything else is unchanged.
        QCOMPARE(d->watcher.directories(), QStringList(TestDevice::sharedDirectory));
        QCOMPARE(method.getOptionInternal(0, maxAttempts).toInt(), 5);
        QVERIFY(runInChild(d->child, QStringLiteral("exit 3")));
        QCOMPARE(log.warnings(),
                 QStringList(QStringLiteral("onChildFinished Client has terminated exitCode 3 exitStatus 0")));
        QVERIFY(TestDevice::writeSetting(TestDevice::currentPolicy, maxAttempts, QStringLiteral("7")));
        QTRY_VERIFY(daemon.calls.contains(limitTaken(QStringLiteral("7"))));
        QCOMPARE(log.criticals().size(), 1);
    }

    void clientDirectoryIsWatchedAllTheSame()
    {
        // A file at this path prevents creating the directory, but can be watched.
        QVERIFY(TestDevice::writeFile(TestDevice::clientDirectory, {}));
        const LogCapture log;
        const MethodKavet method;
        QCOMPARE(log.criticals().size(), 1);
        QCOMPARE(privateOf(method)->watcher.files(), QStringList(TestDevice::clientDirectory));
    }

    void sharedDirectory_data()
    {
        QTest::addColumn<bool>("exists");
        QTest::addColumn<QString>("application");
        QTest::addColumn<bool>("watched");

        QTest::newRow("there") << true << QStringLiteral("kavet_client") << true;
        QTest::newRow("not there") << false << QStringLiteral("kavet_client") << false;
        QTest::newRow("another's") << true << QStringLiteral("other") << false;
        QTest::newRow("not named") << true << QString() << false;
    }

    void sharedDirectory()
    {
        QFETCH(bool, exists);
        QFETCH(QString, application);
        QFETCH(bool, watched);

        QVERIFY(TestDevice::writeManifest(QStringLiteral("tarsk"), application, QStringLiteral("/usr/bin/client"), {}));
        QVERIFY(!exists || QDir().mkpath(TestDevice::sharedDirectory));
        const LogCapture log(true);
        const MethodKavet method;
        QStringList expected(TestDevice::clientDirectory);
        if (watched)
            expected << TestDevice::sharedDirectory;
        QStringList directories = privateOf(method)->watcher.directories();
        directories.sort();
        QCOMPARE(directories, expected);
        QCOMPARE(QFile::exists(TestDevice::sharedDirectory), exists);
        QVERIFY(log.lines().isEmpty());
        QVERIFY(log.otherLines().isEmpty());
    }

    // --- Policy

    void packagedPolicy()
    {
        QVERIFY(TestDevice::writeSetting(TestDevice::packagedPolicy, maxAttempts, QStringLiteral("5")));
        MethodKavet method;
        QCOMPARE(method.getOptionInternal(0, maxAttempts).toInt(), 5);
    }

    void packagedPolicyIsADirectory()
    {
        // It exists, so the limit is set, but it has none.
        QVERIFY(QDir().mkpath(TestDevice::packagedPolicy));
        MethodKavet method;
        QCOMPARE(method.getOptionInternal(0, maxAttempts), QVariant(0));
        QVERIFY(QFile::exists(methodOptions));
    }

    void packagedPolicyComesSecond()
    {
        {
            MethodKavet method;
            QVERIFY(method.setOptionInternal(0, maxAttempts, 3));
        }
        QVERIFY(TestDevice::writeSetting(TestDevice::packagedPolicy, maxAttempts, QStringLiteral("5")));
        MethodKavet method;
        QCOMPARE(method.getOptionInternal(0, maxAttempts).toInt(), 3);
    }

    void noPackagedPolicy()
    {
        QVERIFY(TestDevice::writeSetting(TestDevice::currentPolicy, maxAttempts, QStringLiteral("5")));
        const MethodKavet method;
        QVERIFY(!QFile::exists(methodOptions));
    }

    void currentPolicyAtTheEnd_data()
    {
        QTest::addColumn<bool>("manifest");

        QTest::newRow("manifest") << true;
        QTest::newRow("no manifest") << false;
    }

    void currentPolicyAtTheEnd()
    {
        QFETCH(bool, manifest);

        QVERIFY(manifest || removeManifest());
        RecordingDaemon daemon;
        {
            MethodKavet method;
            // From now on there are settings, which take precedence over a policy that is not forced.
            QVERIFY(method.setOptionInternal(0, maxAttempts, 3));
            QVERIFY(TestDevice::writeSetting(TestDevice::packagedPolicy, maxAttempts, QStringLiteral("4")));
            QVERIFY(TestDevice::writeSetting(TestDevice::currentPolicy, maxAttempts, QStringLiteral("5")));
            method.setNotificator(&daemon);
        }
        QCOMPARE(daemon.calls, QVector<RecordingDaemon::Call>{limitTaken(QStringLiteral("5"))});
        QCOMPARE(daemon.methods, QStringList(QStringLiteral("kavet")));
    }

    void currentPolicyIsADirectoryAtTheEnd()
    {
        // It exists and is root's, but it has no limit.
        RecordingDaemon daemon;
        {
            MethodKavet method;
            QVERIFY(method.setOptionInternal(0, maxAttempts, 3));
            QVERIFY(QDir().mkpath(TestDevice::currentPolicy));
            method.setNotificator(&daemon);
        }
        QCOMPARE(daemon.calls, QVector<RecordingDaemon::Call>{limitTaken(0)});
    }

    void noCurrentPolicyAtTheEnd()
    {
        RecordingDaemon daemon;
        {
            MethodKavet method;
            QVERIFY(TestDevice::writeSetting(TestDevice::packagedPolicy, maxAttempts, QStringLiteral("4")));
            method.setNotificator(&daemon);
        }
        QVERIFY(daemon.calls.isEmpty());
        QVERIFY(!QFile::exists(methodOptions));
    }

    // --- Destruction

    void destructionOrder()
    {
        RecordingDaemon daemon;
        auto method = std::make_unique<MethodKavet>();
        QVERIFY(logIn(*method, daemon));
        MethodKavetPrivate *const d = privateOf(*method);

        QStringList order;
        const auto record = [this, &order](const QObject *object, const char *name) {
            connect(object, &QObject::destroyed, this,
                    [&order, name] { order << QString::fromLatin1(name); }); // clazy:exclude=lambda-in-connect
        };
        record(&d->child, "child");
        record(&d->watcher, "watcher");
        record(d->clientInterface.data(), "clientInterface");
        record(d, "private object");
        record(method.get(), "method");
        // An object held by value leaves its parent's children before that deletes them.
        QObject *const parent = method.get();
        QObject *const watcher = &d->watcher;
        QVERIFY(parent->children().contains(watcher));
        connect(d, &QObject::destroyed, this, [=] { QVERIFY(!parent->children().contains(watcher)); });
        method.reset();
        QCOMPARE(order,
                 QStringList({QStringLiteral("child"), QStringLiteral("watcher"), QStringLiteral("clientInterface"),
                              QStringLiteral("private object"), QStringLiteral("method")}));
    }

    void destructionEndsTheClient()
    {
        RecordingDaemon daemon;
        auto method = std::make_unique<MethodKavet>();
        QVERIFY(logIn(*method, daemon));
        const qint64 pid = privateOf(*method)->child.processId();
        QVERIFY(pid > 0);
        QCOMPARE(kill(pid_t(pid), 0), 0);
        QVERIFY(QFile::exists(TestDevice::socketPath));
        daemon.calls.clear();

        const LogCapture log(true);
        method.reset();
        QCOMPARE(kill(pid_t(pid), 0), -1);
        QCOMPARE(errno, ESRCH);

        // Nothing remains that could react to the client's end.
        QVERIFY(daemon.calls.isEmpty());
        QVERIFY(log.lines().isEmpty());
        QVERIFY(QFile::exists(TestDevice::socketPath));
        QCOMPARE(TestDevice::launches().size(), 1);

        // The library keeps the link's name, but no link.
        const QString name = QStringLiteral("kavet_p2p_service");
        const QDBusConnection connection(name);
        QTRY_VERIFY(!connection.isConnected());
        QCOMPARE(connection.name(), name);
    }

    void destructionWhileTheClientStarts()
    {
        RecordingDaemon daemon;
        const LogCapture log(true);
        auto method = std::make_unique<MethodKavet>();
        method->setNotificator(&daemon);
        method->authenticate(TestDevice::alice, {{QStringLiteral("password"), QStringLiteral("success")}});
        QCOMPARE(privateOf(*method)->child.state(), QProcess::Starting);
        method.reset();
        QVERIFY(daemon.outcomes().isEmpty());
        QCOMPARE(daemon.callsOf(QStringLiteral("restartAuth")).size(), 0);
        QCOMPARE(log.debugs(), QStringList(QStringLiteral("onChildStateChanged \"Client is starting\"")));
    }

    // --- The meta-object

    void metaObjectTable()
    {
        const QMetaObject &meta = MethodKavetPrivate::staticMetaObject;
        QCOMPARE(meta.className(), "MethodKavetPrivate");
        QCOMPARE(meta.superClass(), &QObject::staticMetaObject);
        QCOMPARE(meta.propertyCount(), meta.propertyOffset());
        QCOMPARE(meta.enumeratorCount(), meta.enumeratorOffset());
        QCOMPARE(meta.classInfoCount(), meta.classInfoOffset());
        QCOMPARE(meta.constructorCount(), 0);

        struct Slot
        {
            QByteArray signature;
            QList<QByteArray> parameters;
        };
        const QVector<Slot> expected = {{"onChildErrorOccurred(QProcess::ProcessError)", {"error"}},
                                        {"onReadyStdout()", {}},
                                        {"onReadyStderr()", {}},
                                        {"onChildStateChanged(QProcess::ProcessState)", {"newState"}},
                                        {"onChildFinished(int,QProcess::ExitStatus)", {"exitCode", "exitStatus"}}};
        QCOMPARE(meta.methodCount() - meta.methodOffset(), expected.size());
        for (int i = 0; i < expected.size(); ++i) {
            const QMetaMethod method = meta.method(meta.methodOffset() + i);
            QCOMPARE(method.methodSignature(), expected[i].signature);
            QCOMPARE(method.parameterNames(), expected[i].parameters);
            QCOMPARE(method.methodType(), QMetaMethod::Slot);
            QCOMPARE(method.access(), QMetaMethod::Private);
            QCOMPARE(method.typeName(), "void");
        }
    }

    void castByName()
    {
        const MethodKavet method;
        QObject *const d = privateOf(method);
        QCOMPARE(d->metaObject(), &MethodKavetPrivate::staticMetaObject);
        QCOMPARE(d->qt_metacast("MethodKavetPrivate"), static_cast<void *>(d));
        QCOMPARE(d->qt_metacast("QObject"), static_cast<void *>(d));
        QCOMPARE(d->qt_metacast("MethodKavet"), nullptr);
        QCOMPARE(d->qt_metacast(nullptr), nullptr);
    }

    void callByIndex()
    {
        LogCapture log(true);
        const MethodKavet method;
        QObject *const d = privateOf(method);
        const int offset = MethodKavetPrivate::staticMetaObject.methodOffset();

        QProcess::ProcessError error = QProcess::Timedout;
        QProcess::ProcessState state = QProcess::Running;
        int exitCode = 4;
        QProcess::ExitStatus exitStatus = QProcess::CrashExit;
        void *errorArguments[] = {nullptr, &error};
        void *noArguments[] = {nullptr};
        void *stateArguments[] = {nullptr, &state};
        void *exitArguments[] = {nullptr, &exitCode, &exitStatus};
        void **const arguments[] = {errorArguments, noArguments, noArguments, stateArguments, exitArguments};
        const QVector<QStringList> lines = {
            {QStringLiteral("onChildErrorOccurred error 2")},
            {QStringLiteral("onReadyStdout client stdout: \"\"")},
            {QStringLiteral("onReadyStderr client stderr: \"\"")},
            {QStringLiteral("onChildStateChanged \"Client has started\"")},
            {QStringLiteral("onChildFinished Client has terminated exitCode 4 exitStatus 1"),
             QStringLiteral("setChildUnavailable locking the screen")},
        };
        for (int i = 0; i < lines.size(); ++i) {
            log.clear();
            // A negative index means that the call was handled.
            QVERIFY(d->qt_metacall(QMetaObject::InvokeMetaMethod, offset + i, arguments[i]) < 0);
            QCOMPARE(log.debugs() + log.warnings(), i < 4 ? lines[i] : QStringList({lines[i][1], lines[i][0]}));
        }
        log.clear();
        QCOMPARE(d->qt_metacall(QMetaObject::InvokeMetaMethod, offset + 5, noArguments), 0);
        QVERIFY(log.lines().isEmpty());
    }

    void argumentMetaTypes()
    {
        const MethodKavet method;
        QObject *const d = privateOf(method);
        const int offset = MethodKavetPrivate::staticMetaObject.methodOffset();
        for (int i = 0; i < 5; ++i) {
            for (int argument : {0, 1}) {
                int type = 42;
                void *arguments[] = {&type, &argument};
                QVERIFY(d->qt_metacall(QMetaObject::RegisterMethodArgumentMetaType, offset + i, arguments) < 0);
                QCOMPARE(type, -1);
            }
        }
    }

private:
    /// Launches the client and authenticates alice.
    static bool logIn(MethodKavet &method, RecordingDaemon &daemon)
    {
        // The socket counts only once the process is known to run.
        const QString go = QStringLiteral("/tmp/scripted-client/go");
        TestDevice::setScript({{QStringLiteral("socket"), go}});
        method.setNotificator(&daemon);
        method.authenticate(TestDevice::alice, {{QStringLiteral("password"), QStringLiteral("success")}});
        return waitUntil([&method] { return privateOf(method)->child.clientRunning; }) && TestDevice::writeFile(go, {})
               && waitUntil([&daemon] { return !daemon.outcomes().isEmpty(); })
               && daemon.outcomes() == QVector<RecordingDaemon::Call>{RecordingDaemon::succeeded()};
    }
};

QTEST_GUILESS_MAIN(TstMethodKavetPrivate)
#include "tst_methodkavetprivate.moc"
