// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#include "methodfixture.h"
#include "support/logcapture.h"
#include "support/wiper.h"

#include <QDir>
#include <QFile>
#include <QProcess>
#include <QTest>

#include <csignal>
#include <memory>

#include <unistd.h>

using namespace TestDevice;

namespace {

const QString passwdFile = QStringLiteral("/etc/passwd");
const QString aliceFile = sharedDirectory + QStringLiteral("/1000.conf");
const QString carolHome = QStringLiteral("/home/carol");
const QString carolMarker = QStringLiteral("/home/carol/.qarv-startupwizard-usersession-done");
const QString methodOptions = QStringLiteral("/var/lib/authd/methods/kavet/current.conf");
const QString delayedDeletion = QStringLiteral("delayed-deletion");
constexpr uint unknownUser = 4242;

QStringList watched(const MethodKavetPrivate *d)
{
    QStringList paths = d->watcher.directories() + d->watcher.files();
    paths.sort();
    return paths;
}

QStringList sorted(QStringList paths)
{
    paths.sort();
    return paths;
}

RecordingDaemon::Call limitChanged(const QVariant &limit)
{
    return {QStringLiteral("optionChanged"), {0u, QStringLiteral("max-attempts"), limit, false}};
}

/// Records the watched paths when an option changes.
class Onlooker : public RecordingDaemon
{
public:
    explicit Onlooker(MethodKavetPrivate *method)
        : d(method)
    {
    }
    void optionChanged(const QString &method, uint uid, const QString &option, const QVariant &value,
                       bool computed) override
    {
        RecordingDaemon::optionChanged(method, uid, option, value, computed);
        watchedThen << watched(d);
    }

    QVector<QStringList> watchedThen;

private:
    MethodKavetPrivate *const d;
};

} // namespace

class TstSession : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void init();
    void cleanup();

    void startWithoutManifest_data();
    void startWithoutManifest();
    void startReadsManifestThatHasAppeared();
    void startBringsWatchesAndPoliciesUpToDate();
    void startKeepsTheDaemonsLimit();
    void startWithoutPolicies();
    void startWithoutManaging();
    void startKillsRunningClient_data();
    void startKillsRunningClient();
    void startOfUnknownUser();
    void startAfterFirstStart();
    void startBeforeFirstStart();
    void homeIsTheDatabases();
    void databaseIsLatin1();
    void delayedDeletionCallsTheWiper();

    void stopWithoutManifest();
    void stopWithoutManaging();
    void stopWithoutClient();
    void stopTerminates();
    void stopNeverKills();
    void stopOfProcessThatIsNotMarked();
    void stopOfMarkThatHasNoProcess();

    void homeChangedForNobody();
    void homeChangedWithoutMarker();
    void markerIsADirectory();
    void markerIsNotFollowed();
    void delayedLaunch();
    void delayedLaunchWithoutAuthentication();
    void homeOfClientThatIsGone();

private:
    QByteArray m_passwords;
    std::unique_ptr<Wiper> m_wiper;
};

void TstSession::initTestCase()
{
    m_passwords = readFile(passwdFile);
    QVERIFY(startSystemBus());
}

void TstSession::init()
{
    reset();
    m_wiper = std::make_unique<Wiper>();
    const QString success = QStringLiteral("success");
    m_wiper->setScript({{QStringLiteral("alice"), success},
                        {QStringLiteral("bob"), success},
                        {QString::fromLatin1("b\xc3\xb6"), success}});
    QVERIFY(m_wiper->start());
}

void TstSession::cleanup()
{
    QVERIFY(writeFile(passwdFile, m_passwords));
}

void TstSession::startWithoutManifest_data()
{
    QTest::addColumn<bool>("damaged");
    QTest::newRow("missing") << false;
    QTest::newRow("damaged") << true;
}

void TstSession::startWithoutManifest()
{
    QFETCH(bool, damaged);

    QVERIFY(writeSetting(packagedPolicy, QStringLiteral("max-attempts"), QStringLiteral("5")));
    QVERIFY(writeSetting(currentPolicy, QStringLiteral("max-attempts"), QStringLiteral("3")));
    QVERIFY(QFile::remove(manifest));
    if (damaged)
        QVERIFY(writeFile(manifest, "noise"));
    MethodFixture f;
    // As if the manifest had once been usable.
    f.d->child.sharedDirectory = sharedDirectory;
    f.d->child.clientRunning = true;
    const QStringList before = watched(f.d);

    LogCapture log(true);
    f.method.handleUserSessionTriggered(carol, true, true);
    f.method.handleUserSessionTriggered(unknownUser, true, true);
    QCOMPARE(watched(f.d), before);
    QVERIFY(f.daemon.calls.isEmpty());
    QVERIFY(log.lines().isEmpty());
    QCOMPARE(f.d->child.uid, 0u);
    QCOMPARE(f.d->child.homeDirectory, QString());
    f.d->child.clientRunning = false;
}

void TstSession::startReadsManifestThatHasAppeared()
{
    const QString target = QStringLiteral("/srv/late.desktop");
    QVERIFY(QFile::rename(manifest, target));
    const QByteArray content = readFile(target);
    QVERIFY(QFile::remove(target));
    QVERIFY(QFile::link(target, manifest));
    QVERIFY(QDir().mkpath(sharedDirectory));
    MethodFixture f;
    QCOMPARE(watched(f.d), QStringList{clientDirectory});

    QVERIFY(writeFile(target, content));
    f.method.handleUserSessionTriggered(alice, true, false);
    QCOMPARE(watched(f.d), sorted({clientDirectory, sharedDirectory}));
    QVERIFY(QFile::remove(target));
}

void TstSession::startBringsWatchesAndPoliciesUpToDate()
{
    MethodFixture f;
    QCOMPARE(watched(f.d), QStringList{clientDirectory});
    QVERIFY(writeSetting(packagedPolicy, QStringLiteral("max-attempts"), QStringLiteral("5")));
    QVERIFY(writeSetting(currentPolicy, QStringLiteral("max-attempts"), QStringLiteral("3")));
    Onlooker onlooker(f.d);
    f.method.setNotificator(&onlooker);

    LogCapture log(true);
    f.method.handleUserSessionTriggered(alice, true, false);
    // The packaged limit is only the initial one; the current policy takes precedence.
    QCOMPARE(onlooker.calls,
             (QVector<RecordingDaemon::Call>{limitChanged(QStringLiteral("5")), limitChanged(QStringLiteral("3"))}));
    const QStringList shared = sorted({clientDirectory, sharedDirectory});
    QCOMPARE(onlooker.watchedThen, (QVector<QStringList>{shared, sorted(shared + QStringList{currentPolicy})}));
    QCOMPARE(f.method.getOptionInternal(0, QStringLiteral("max-attempts")), QVariant(QStringLiteral("3")));
    QCOMPARE(watched(f.d), sorted({clientDirectory, sharedDirectory, currentPolicy}));

    // Nothing is watched twice.
    f.method.handleUserSessionTriggered(alice, true, false);
    QCOMPARE(watched(f.d), sorted({clientDirectory, sharedDirectory, currentPolicy}));
    QVERIFY(log.lines().isEmpty());
    f.method.setNotificator(&f.daemon);
}

void TstSession::startKeepsTheDaemonsLimit()
{
    MethodFixture f;
    QVERIFY(f.method.setOptionInternal(0, QStringLiteral("max-attempts"), 9));
    QVERIFY(QFile::exists(methodOptions));
    QVERIFY(writeSetting(packagedPolicy, QStringLiteral("max-attempts"), QStringLiteral("5")));
    f.daemon.calls.clear();

    f.method.handleUserSessionTriggered(alice, true, true);
    QVERIFY(f.daemon.calls.isEmpty());
    // The current policy is always applied.
    QVERIFY(writeSetting(currentPolicy, QStringLiteral("max-attempts"), QStringLiteral("3")));
    f.method.handleUserSessionTriggered(alice, true, true);
    QCOMPARE(f.daemon.calls, QVector<RecordingDaemon::Call>{limitChanged(QStringLiteral("3"))});
}

void TstSession::startWithoutPolicies()
{
    MethodFixture f;
    // The method watches the shared directory without checking whether it exists.
    LogCapture log(true);
    f.method.handleUserSessionTriggered(alice, true, true);
    QCOMPARE(watched(f.d), QStringList{clientDirectory});
    QVERIFY(QDir().mkpath(sharedDirectory));
    f.method.handleUserSessionTriggered(alice, true, true);
    QCOMPARE(watched(f.d), sorted({clientDirectory, sharedDirectory}));
    QVERIFY(f.daemon.calls.isEmpty());
    QVERIFY(log.lines().isEmpty());

    // Without a name, the shared directory is not watched either.
    f.d->watcher.removePath(sharedDirectory);
    f.d->child.sharedDirectory.clear();
    f.method.handleUserSessionTriggered(alice, true, true);
    QCOMPARE(watched(f.d), QStringList{clientDirectory});
    QVERIFY(log.lines().isEmpty());
    QVERIFY(log.otherLines().isEmpty());
}

void TstSession::startWithoutManaging()
{
    MethodFixture f;
    QVERIFY(f.link());
    const qint64 pid = f.d->child.processId();
    QVERIFY(f.method.setOptionInternal(alice, delayedDeletion, true));
    f.daemon.calls.clear();
    const QStringList before = watched(f.d);

    LogCapture log(true);
    for (const uint user : {alice, carol, unknownUser})
        f.method.handleUserSessionTriggered(user, true, false);
    QVERIFY(log.lines().isEmpty());
    QCOMPARE(watched(f.d), before);
    QCOMPARE(f.d->child.uid, alice);
    QCOMPARE(f.d->child.homeDirectory, QString());

    // The client is still running, and the wiper was not called.
    f.method.authenticate(alice, MethodFixture::passwordData(QStringLiteral("success")));
    QTRY_COMPARE(f.daemon.outcomes(), QVector<RecordingDaemon::Call>{RecordingDaemon::succeeded()});
    QCOMPARE(f.d->child.processId(), pid);
    QVERIFY(m_wiper->calls().isEmpty());
}

void TstSession::startKillsRunningClient_data()
{
    QTest::addColumn<uint>("user");
    QTest::addColumn<QString>("next");
    QTest::addColumn<uint>("uid");
    QTest::newRow("before the first start") << carol << QStringLiteral("Delaying child launch for 1002") << carol;
    QTest::newRow("after the first start") << bob << QString() << alice;
    QTest::newRow("unknown user") << unknownUser << QStringLiteral("Cannot get name for 4242") << alice;
}

void TstSession::startKillsRunningClient()
{
    QFETCH(uint, user);
    QFETCH(QString, next);
    QFETCH(uint, uid);

    MethodFixture f;
    QVERIFY(f.link({{QStringLiteral("ignoreTerm"), true}}));
    f.method.reset();

    LogCapture log;
    f.method.handleUserSessionTriggered(user, true, true);
    // The method does not wait for the client's end; the session start continues at once.
    QCOMPARE(f.d->child.state(), QProcess::Running);
    QVERIFY(f.d->child.clientRunning);
    QStringList atOnce = {QStringLiteral("handleUserSessionStarted Kavet client is already running, terminate...")};
    if (!next.isEmpty())
        atOnce << next;
    QCOMPARE(log.warnings(), atOnce);
    QCOMPARE(f.d->child.uid, uid);

    QTRY_COMPARE(f.d->child.state(), QProcess::NotRunning);
    QTRY_COMPARE(log.warnings(),
                 atOnce + QStringList{QStringLiteral("onChildFinished Client has terminated exitCode 9 exitStatus 1")});
    QCOMPARE(log.lines().size(), atOnce.size() + 1);
    QCOMPARE(TestDevice::launches().size(), 1);
}

void TstSession::startOfUnknownUser()
{
    MethodFixture f;
    LogCapture log(true);
    f.method.handleUserSessionTriggered(unknownUser, true, true);
    QCOMPARE(log.warnings(), QStringList{QStringLiteral("Cannot get name for 4242")});
    QCOMPARE(log.lines().size(), 1);
    QCOMPARE(watched(f.d), QStringList{clientDirectory});
    QCOMPARE(f.d->child.uid, 0u);
    QCOMPARE(f.d->child.homeDirectory, QString());
}

void TstSession::startAfterFirstStart()
{
    MethodFixture f;
    LogCapture log(true);
    f.method.handleUserSessionTriggered(alice, true, true);
    QVERIFY(log.lines().isEmpty());
    QCOMPARE(watched(f.d), QStringList{clientDirectory});
    QCOMPARE(f.d->child.uid, 0u);
    QCOMPARE(f.d->child.homeDirectory, QString());
    QCOMPARE(f.d->child.state(), QProcess::NotRunning);
    QCOMPARE(f.d->launchBudget, 11u);
}

void TstSession::startBeforeFirstStart()
{
    MethodFixture f;
    LogCapture log(true);
    f.method.handleUserSessionTriggered(carol, true, true);
    QCOMPARE(log.warnings(), QStringList{QStringLiteral("Delaying child launch for 1002")});
    QCOMPARE(log.lines().size(), 1);
    QCOMPARE(watched(f.d), sorted({clientDirectory, carolHome}));
    QCOMPARE(f.d->child.uid, carol);
    QCOMPARE(f.d->child.homeDirectory, carolHome);
    QCOMPARE(f.d->child.state(), QProcess::NotRunning);
    QCOMPARE(f.d->launchBudget, 11u);
    QCOMPARE(f.d->currentUid, 0u);
}

void TstSession::homeIsTheDatabases()
{
    const QString home = QStringLiteral("/srv/homes/carol");
    QVERIFY(writeFile(passwdFile, QByteArray(m_passwords).replace(":/home/carol:", ":/srv/homes/carol:")));
    QVERIFY(QDir().mkpath(home));
    // The directory is no longer the home.
    QVERIFY(writeFile(carolMarker, {}));

    MethodFixture f;
    f.method.handleUserSessionTriggered(carol, true, true);
    QCOMPARE(f.d->child.homeDirectory, home);
    QCOMPARE(watched(f.d), sorted({clientDirectory, home}));
    QVERIFY(QDir(QStringLiteral("/srv/homes")).removeRecursively());
}

void TstSession::databaseIsLatin1()
{
    QByteArray passwords = m_passwords;
    passwords.replace(":/home/carol:", ":/srv/homes/c\xc3\xa4rol:").replace("\nbob:", "\nb\xc3\xb6:");
    QVERIFY(writeFile(passwdFile, passwords));
    MethodFixture f;
    QVERIFY(f.method.setOptionInternal(bob, delayedDeletion, true));

    f.method.handleUserSessionTriggered(carol, true, true);
    QCOMPARE(f.d->child.homeDirectory, QString::fromLatin1("/srv/homes/c\xc3\xa4rol"));
    f.method.handleUserSessionTriggered(bob, true, true);
    QTRY_COMPARE(m_wiper->calls(), QVector<QJsonObject>{Wiper::callFor(QString::fromLatin1("b\xc3\xb6"))});
}

void TstSession::delayedDeletionCallsTheWiper()
{
    MethodFixture f;
    QVERIFY(f.method.setOptionInternal(alice, delayedDeletion, true));
    QVERIFY(f.method.setOptionInternal(carol, delayedDeletion, true));
    f.daemon.calls.clear();

    // No data is removed without a mark, after the mark is cleared, before the first start, or without managing the
    // client.
    f.method.handleUserSessionTriggered(bob, true, true);
    QVERIFY(f.method.setOptionInternal(bob, delayedDeletion, false));
    f.method.handleUserSessionTriggered(bob, true, true);
    f.method.handleUserSessionTriggered(carol, true, true);
    f.method.handleUserSessionTriggered(alice, true, false);
    f.daemon.calls.clear();

    f.method.handleUserSessionTriggered(alice, true, true);
    // The bus keeps calls in order, so earlier calls would be listed too.
    QTRY_COMPARE(m_wiper->calls(), QVector<QJsonObject>{Wiper::callFor(QStringLiteral("alice"))});
    QTRY_COMPARE(f.daemon.calls, (QVector<RecordingDaemon::Call>{
                                     {QStringLiteral("optionChanged"), {alice, delayedDeletion, false, false}}}));

    f.method.handleUserSessionTriggered(alice, true, true);
    // Any value that converts to true is a mark.
    QVERIFY(f.method.setOptionInternal(bob, delayedDeletion, QStringLiteral("yes")));
    f.method.handleUserSessionTriggered(bob, true, true);
    QTRY_COMPARE(m_wiper->calls(), (QVector<QJsonObject>{Wiper::callFor(QStringLiteral("alice")),
                                                         Wiper::callFor(QStringLiteral("bob"))}));
}

void TstSession::stopWithoutManifest()
{
    MethodFixture f;
    QVERIFY(writeFile(aliceFile, {}));
    f.d->child.userConfigPath = aliceFile;
    f.d->watcher.addPath(aliceFile);
    f.d->child.manifestExists = false;

    LogCapture log(true);
    f.method.handleUserSessionTriggered(alice, false, true);
    QVERIFY(log.lines().isEmpty());
    QCOMPARE(f.d->watcher.files(), QStringList{aliceFile});
}

void TstSession::stopWithoutManaging()
{
    MethodFixture f;
    QVERIFY(f.link());
    const qint64 pid = f.d->child.processId();
    QCOMPARE(f.d->watcher.files(), QStringList{aliceFile});

    LogCapture log(true);
    f.method.handleUserSessionTriggered(alice, false, false);
    QCOMPARE(f.d->watcher.files(), QStringList());
    QCOMPARE(f.d->child.userConfigPath, aliceFile);
    QCOMPARE(watched(f.d), sorted({clientDirectory, sharedDirectory}));
    QVERIFY(log.lines().isEmpty());

    f.method.authenticate(alice, MethodFixture::passwordData(QStringLiteral("success")));
    QTRY_COMPARE(f.daemon.outcomes(), QVector<RecordingDaemon::Call>{RecordingDaemon::succeeded()});
    QCOMPARE(f.d->child.processId(), pid);
}

void TstSession::stopWithoutClient()
{
    MethodFixture f;
    LogCapture log(true);
    f.method.handleUserSessionTriggered(alice, false, true);
    QCOMPARE(log.warnings(), (QStringList{QStringLiteral("handleUserSessionStopped Kavet client is not launched"),
                                          QStringLiteral("handleUserSessionStopped Kavet client is not running")}));
    QCOMPARE(log.lines().size(), 2);
    // An empty path is not passed to the watcher.
    QVERIFY(log.otherLines().isEmpty());

    log.clear();
    f.method.handleUserSessionTriggered(alice, false, false);
    QVERIFY(log.lines().isEmpty());

    // Only a process can be told to end.
    f.d->child.clientUid = alice;
    f.method.handleUserSessionTriggered(alice, false, true);
    QCOMPARE(f.d->child.clientUid, alice);
}

void TstSession::stopTerminates()
{
    MethodFixture f;
    QVERIFY(f.link());
    f.method.reset();

    LogCapture log;
    f.method.handleUserSessionTriggered(alice, false, true);
    QCOMPARE(f.d->child.clientUid, 0u);
    QCOMPARE(f.d->watcher.files(), QStringList());
    QCOMPARE(f.d->child.userConfigPath, aliceFile);
    // The method does not wait for the client's end.
    QCOMPARE(f.d->child.state(), QProcess::Running);
    QTRY_COMPARE(f.d->child.state(), QProcess::NotRunning);
    QTRY_COMPARE(log.warnings(),
                 QStringList{QStringLiteral("onChildFinished Client has terminated exitCode 15 exitStatus 1")});
    QCOMPARE(log.lines().size(), 1);
    QCOMPARE(TestDevice::launches().size(), 1);
}

void TstSession::stopNeverKills()
{
    MethodFixture f;
    QVERIFY(f.link({{QStringLiteral("ignoreTerm"), true}}));
    LogCapture log(true);
    f.method.handleUserSessionTriggered(alice, false, true);
    QVERIFY(log.lines().isEmpty());
    // The client still replies to calls.
    QCOMPARE(f.d->getCertList(), QStringList{QStringLiteral(".")});
    QTRY_VERIFY(!f.d->certListInFlight);
    QVERIFY(MethodFixture::calledMethods().contains(QLatin1String("getCertList")));
    QCOMPARE(f.d->child.state(), QProcess::Running);
}

void TstSession::stopOfProcessThatIsNotMarked()
{
    MethodFixture f;
    QVERIFY(f.link());
    f.method.reset();
    f.d->child.clientRunning = false;

    LogCapture log;
    f.method.handleUserSessionTriggered(alice, false, true);
    QCOMPARE(log.warnings(), QStringList{QStringLiteral("handleUserSessionStopped Kavet client is not launched")});
    QTRY_COMPARE(f.d->child.state(), QProcess::NotRunning);
    QCOMPARE(log.warnings().constLast(),
             QStringLiteral("onChildFinished Client has terminated exitCode 15 exitStatus 1"));
}

void TstSession::stopOfMarkThatHasNoProcess()
{
    MethodFixture f;
    f.d->child.clientRunning = true;
    LogCapture log(true);
    f.method.handleUserSessionTriggered(alice, false, true);
    QCOMPARE(log.warnings(), QStringList{QStringLiteral("handleUserSessionStopped Kavet client is not running")});
    QCOMPARE(log.lines().size(), 1);
}

void TstSession::homeChangedForNobody()
{
    MethodFixture f;
    f.d->child.homeDirectory = carolHome;
    QVERIFY(f.d->watcher.addPath(carolHome));
    LogCapture log(true);
    // Even with the marker, no client is launched.
    QVERIFY(writeFile(carolMarker, {}));
    QTRY_COMPARE(log.lines().size(), 1);
    QCOMPARE(log.warnings(),
             QStringList{QStringLiteral("handleHomeDirectory unexpected home directory change \"/home/carol\"")});
    QCOMPARE(watched(f.d), QStringList{clientDirectory});
    QCOMPARE(f.d->child.homeDirectory, carolHome);
    QCOMPARE(f.d->launchBudget, 11u);

    // The warning names the changed directory, but the method stops watching the recorded one.
    QVERIFY(f.d->watcher.addPath(carolHome));
    f.d->handleHomeDirectory(QStringLiteral("/else where"));
    QCOMPARE(log.warnings().constLast(),
             QStringLiteral("handleHomeDirectory unexpected home directory change \"/else where\""));
    QCOMPARE(watched(f.d), QStringList{clientDirectory});
}

void TstSession::homeChangedWithoutMarker()
{
    MethodFixture f;
    f.method.handleUserSessionTriggered(carol, true, true);
    f.d->currentUid = alice;
    LogCapture log(true);
    f.d->handleHomeDirectory(carolHome);
    QVERIFY(writeFile(carolHome + QStringLiteral("/.qarv-startupwizard"), {}));
    f.d->handleHomeDirectory(carolHome);
    QVERIFY(log.lines().isEmpty());
    QCOMPARE(watched(f.d), sorted({clientDirectory, carolHome}));
    QCOMPARE(f.d->launchBudget, 11u);
    QCOMPARE(f.d->child.uid, carol);
    QVERIFY(QFile::remove(carolHome + QStringLiteral("/.qarv-startupwizard")));
}

// Any file at this path is the marker, even a directory or a dangling link.
void TstSession::markerIsADirectory()
{
    MethodFixture f;
    f.method.handleUserSessionTriggered(carol, true, true);
    QVERIFY(QDir().mkdir(carolMarker));
    f.d->handleHomeDirectory(carolHome);
    QVERIFY(!f.d->watcher.directories().contains(carolHome));
    f.method.handleUserSessionTriggered(carol, true, true);
    QVERIFY(!f.d->watcher.directories().contains(carolHome));
    QVERIFY(QDir().rmdir(carolMarker));
}

void TstSession::markerIsNotFollowed()
{
    MethodFixture f;
    f.method.handleUserSessionTriggered(carol, true, true);
    QVERIFY(leaveLink(carolMarker, carol));
    f.d->handleHomeDirectory(carolHome);
    QVERIFY(!f.d->watcher.directories().contains(carolHome));
    f.method.handleUserSessionTriggered(carol, true, true);
    QVERIFY(!f.d->watcher.directories().contains(carolHome));
    QVERIFY(!wasFollowed(carolMarker));
}

void TstSession::delayedLaunch()
{
    MethodFixture f;
    f.method.handleUserSessionTriggered(carol, true, true);
    f.d->currentUid = alice;
    LogCapture log;
    QVERIFY(writeFile(carolMarker, {}));
    QTRY_COMPARE(TestDevice::launches().size(), 1);

    // The launch is for the user being authenticated.
    QCOMPARE(f.d->child.uid, alice);
    QCOMPARE(TestDevice::launches().constFirst().value(QLatin1String("uids")).toArray(),
             (QJsonArray{1000, 1000, 1000}));
    QCOMPARE(f.d->launchBudget, 10u);
    QVERIFY(!f.d->watcher.directories().contains(carolHome));
    QCOMPARE(f.d->child.homeDirectory, carolHome);
    QVERIFY(log.lines().isEmpty());
}

void TstSession::delayedLaunchWithoutAuthentication()
{
    MethodFixture f;
    f.method.handleUserSessionTriggered(carol, true, true);
    LogCapture log(true);
    QVERIFY(writeFile(carolMarker, {}));
    QTRY_COMPARE(f.d->launchBudget, 10u);

    QCOMPARE(log.warnings(), QStringList{QStringLiteral("handleHomeDirectory Couldn't start Kavet client")});
    QCOMPARE(log.lines().size(), 1);
    QCOMPARE(watched(f.d), QStringList{clientDirectory});
    QCOMPARE(f.d->child.homeDirectory, carolHome);
    QCOMPARE(f.d->child.uid, 0u);
    QCOMPARE(f.d->child.state(), QProcess::NotRunning);
    QVERIFY(TestDevice::launches().isEmpty());

    // The next authentication launches the client.
    f.method.authenticate(carol, {});
    QTRY_COMPARE(TestDevice::launches().size(), 1);
    QCOMPARE(f.d->child.uid, carol);
}

void TstSession::homeOfClientThatIsGone()
{
    MethodFixture f;
    QVERIFY(f.link());
    f.method.reset();
    f.method.handleUserSessionTriggered(carol, true, true);
    // Killing the client also clears the recorded user.
    QTRY_COMPARE(f.d->child.state(), QProcess::NotRunning);
    QTRY_COMPARE(f.d->child.uid, 0u);
    LogCapture log;
    QVERIFY(writeFile(carolMarker, {}));
    QTRY_COMPARE(log.warnings(),
                 QStringList{QStringLiteral("handleHomeDirectory unexpected home directory change \"/home/carol\"")});
    QVERIFY(!f.d->watcher.directories().contains(carolHome));
}

QTEST_GUILESS_MAIN(TstSession)
#include "tst_session.moc"
