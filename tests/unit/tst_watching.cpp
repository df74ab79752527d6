// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#include "methodfixture.h"
#include "support/logcapture.h"
#include "support/processortime.h"

#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>
#include <QHash>
#include <QScopedValueRollback>
#include <QSettings>
#include <QTest>

#include <csignal>
#include <cstdio>

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

using namespace TestDevice;

namespace {

const QString aliceFile = sharedDirectory + QStringLiteral("/1000.conf");
const QString attempts = QStringLiteral("attempts");
const QString maxAttempts = QStringLiteral("max-attempts");
constexpr uint group = 960;
constexpr uint unknownOwner = 4294967294;
constexpr qint64 maximumLookup = 2000000; // nanoseconds
enum class Lookups { Fast, Working, Waiting };
Lookups lookups = Lookups::Fast;

QString owner(const QString &path)
{
    struct stat status = {};
    if (lstat(QFile::encodeName(path).constData(), &status) == -1)
        return QStringLiteral("none");
    return QStringLiteral("%1:%2").arg(status.st_uid).arg(status.st_gid);
}

RecordingDaemon::Call changed(uint uid, const QString &option, const QVariant &value)
{
    return {QStringLiteral("optionChanged"), {uid, option, value, false}};
}

using Calls = QVector<RecordingDaemon::Call>;

/// Rewrites the file at `path` in place.
bool rewrite(const QString &path, const QString &key, const QString &value)
{
    return writeSetting(path, key, value);
}

/// Replaces the file at `path` with a new one, as the client does.
bool replace(const QString &path, const QString &key, const QString &value)
{
    const QString next = QStringLiteral("/srv/shared/tarsk/next");
    return writeSetting(next, key, value) && setOwner(next, alice, alice)
           && rename(QFile::encodeName(next).constData(), QFile::encodeName(path).constData()) == 0;
}

/// A client that seems to run as alice, without a process.
struct WatchingFixture : MethodFixture
{
    WatchingFixture()
    {
        d->child.clientRunning = true;
        d->child.uid = alice;
        d->child.gid = group;
        d->child.userConfigPath = aliceFile;
        QDir().mkpath(sharedDirectory);
    }
};

/// Records the watched files and the owner of alice's file when an option changes.
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
        watched << d->watcher.files();
        owners << owner(aliceFile);
    }

    QVector<QStringList> watched;
    QStringList owners;

private:
    MethodKavetPrivate *const d;
};

} // namespace

/// The watcher calls this instead of the C library's function.
extern "C" __attribute__((visibility("default"))) int inotify_add_watch(int inotify, const char *path,
                                                                        uint32_t events) noexcept
{
    const qint64 begin = processorTime();
    while (lookups == Lookups::Working && processorTime() - begin <= maximumLookup) { }
    const timespec wait = {0, 2 * maximumLookup};
    if (lookups == Lookups::Waiting)
        nanosleep(&wait, nullptr);
    return int(syscall(SYS_inotify_add_watch, inotify, path, events));
}

class TstWatching : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init();

    void directoriesAreToldApart();
    void directoriesInOrder();

    void socketOfClientThatDoesNotRun();
    void socketRemoved();
    void socketOfWrongOwner_data();
    void socketOfWrongOwner();
    void socketIsAnotherKind_data();
    void socketIsAnotherKind();
    void socketAppeared();
    void socketAppearedDuringAuthentication();
    void socketIsSeen();

    void sharedDirectoryWithoutUser_data();
    void sharedDirectoryWithoutUser();
    void userFileIsTakenUp();
    void userFileCannotBeGiven_data();
    void userFileCannotBeGiven();
    void attemptsAsRead_data();
    void attemptsAsRead();
    void countIsOfTheFilesUser();
    void policyIsTakenUp();
    void userFileComesBeforePolicy();

    void fileChanged();
    void fileThatIsBoth();

    void filesAreFollowed_data();
    void filesAreFollowed();
    void replacedFilesAreFollowed_data();
    void replacedFilesAreFollowed();
    void linksAreNotFollowed();
    void watchedFileIsNowALink();
    void slowLookups_data();
    void slowLookups();
    void swappedForLinks();
    void noStorm_data();
    void noStorm();
    void nothingIsWatchedTwice();
};

void TstWatching::init()
{
    reset();
    QCOMPARE(groupId("auth-factor"), group);
}

void TstWatching::directoriesAreToldApart()
{
    MethodFixture f;
    const QString home = QStringLiteral("/home/carol");
    QVERIFY(writeSetting(currentPolicy, maxAttempts, QStringLiteral("4")));
    f.d->child.clientRunning = true;
    f.d->child.homeDirectory = home;
    LogCapture log(true);

    f.d->handleChildDirectoryChanged(clientDirectory);
    QCOMPARE(log.lines().size(), 1);
    QCOMPARE(log.debugs(), QStringList{QStringLiteral("handleChildSocket kavet client socket removed")});
    QVERIFY(f.daemon.calls.isEmpty());

    log.clear();
    f.d->handleChildDirectoryChanged(sharedDirectory);
    QVERIFY(log.lines().isEmpty());
    QCOMPARE(f.daemon.calls, Calls{changed(0, maxAttempts, QStringLiteral("4"))});

    f.daemon.calls.clear();
    f.d->handleChildDirectoryChanged(home);
    QCOMPARE(log.lines().size(), 1);
    QCOMPARE(log.warnings(),
             QStringList{QStringLiteral("handleHomeDirectory unexpected home directory change \"/home/carol\"")});
    QVERIFY(f.daemon.calls.isEmpty());

    log.clear();
    for (const QString &path : {clientDirectory, sharedDirectory, home}) {
        const QStringList others{path + QLatin1Char('/'), path + QStringLiteral("/more"), path.toUpper(),
                                 path.left(path.size() - 1), QLatin1Char('/') + path};
        for (const QString &other : others)
            f.d->handleChildDirectoryChanged(other);
    }
    QVERIFY(log.lines().isEmpty());
    QVERIFY(f.daemon.calls.isEmpty());
    f.d->child.clientRunning = false;
}

void TstWatching::directoriesInOrder()
{
    MethodFixture f;
    QVERIFY(writeSetting(currentPolicy, maxAttempts, QStringLiteral("4")));
    f.d->child.clientRunning = true;
    LogCapture log(true);

    f.d->child.sharedDirectory = clientDirectory;
    f.d->child.homeDirectory = clientDirectory;
    f.d->handleChildDirectoryChanged(clientDirectory);
    QCOMPARE(log.lines().size(), 1);
    QCOMPARE(log.debugs(), QStringList{QStringLiteral("handleChildSocket kavet client socket removed")});
    QVERIFY(f.daemon.calls.isEmpty());

    log.clear();
    f.d->child.sharedDirectory = sharedDirectory;
    f.d->child.homeDirectory = sharedDirectory;
    f.d->handleChildDirectoryChanged(sharedDirectory);
    QVERIFY(log.lines().isEmpty());
    QCOMPARE(f.daemon.calls.size(), 1);
    f.d->child.clientRunning = false;
}

void TstWatching::socketOfClientThatDoesNotRun()
{
    WatchingFixture f;
    f.d->child.clientRunning = false;
    f.d->currentUid = alice;
    LogCapture log(true);
    for (const bool present : {false, true}) {
        f.d->child.socketPresent = present;
        QFile::remove(socketPath);
        QVERIFY(!f.d->handleChildSocket(clientDirectory));
        QCOMPARE(f.d->child.socketPresent, present);
        QVERIFY(writeFile(socketPath, {}));
        QVERIFY(setOwner(socketPath, alice, group));
        QVERIFY(!f.d->handleChildSocket(clientDirectory));
        QCOMPARE(f.d->child.socketPresent, present);
    }
    QCOMPARE(f.d->clientStage, 1);
    QVERIFY(log.lines().isEmpty());
    QVERIFY(f.daemon.calls.isEmpty());
}

void TstWatching::socketRemoved()
{
    WatchingFixture f;
    f.d->child.socketPresent = true;
    f.d->clientStage = MethodKavetPrivate::Linked;
    f.d->currentUid = alice;
    LogCapture log(true);
    QVERIFY(!f.d->handleChildSocket(clientDirectory));
    QVERIFY(!f.d->child.socketPresent);
    QCOMPARE(log.debugs(), QStringList{QStringLiteral("handleChildSocket kavet client socket removed")});
    QCOMPARE(log.lines().size(), 1);
    // The link stays until its next use fails.
    QCOMPARE(f.d->clientStage, 3);
    QVERIFY(f.daemon.calls.isEmpty());

    // The method checks the directory in the argument.
    QVERIFY(QDir().mkpath(QStringLiteral("/srv/shared/else")));
    QVERIFY(leaveSocket(QStringLiteral("/srv/shared/else/kavet.socket"), alice));
    f.d->currentUid = 0;
    QVERIFY(f.d->handleChildSocket(QStringLiteral("/srv/shared/else")));
}

void TstWatching::socketOfWrongOwner_data()
{
    QTest::addColumn<uint>("owner");
    QTest::addColumn<uint>("user");
    QTest::newRow("another user") << bob << alice;
    QTest::newRow("root") << 0u << alice;
    QTest::newRow("nobody yet") << alice << 0u;
    QTest::newRow("unreadable") << unknownOwner << alice;
    QTest::newRow("unreadable, as it happens the user's") << unknownOwner << unknownOwner;
}

void TstWatching::socketOfWrongOwner()
{
    QFETCH(uint, owner);
    QFETCH(uint, user);

    WatchingFixture f;
    f.d->child.uid = user;
    f.d->currentUid = alice;
    QVERIFY(writeFile(socketPath, {}));
    if (owner == unknownOwner && TestDevice::isOrdinaryUsers())
        QSKIP("an ordinary user's device has no such user id");
    QVERIFY(setOwner(socketPath, owner, group));
    for (const bool present : {false, true}) {
        f.d->child.socketPresent = present;
        LogCapture log(true);
        QVERIFY(!f.d->handleChildSocket(clientDirectory));
        QCOMPARE(f.d->child.socketPresent, present);
        QCOMPARE(log.debugs(), QStringList{QStringLiteral("handleChildSocket Wrong socket owner %1").arg(owner)});
        QCOMPARE(log.lines().size(), 1);
    }
    QCOMPARE(f.d->clientStage, 1);
    QVERIFY(f.daemon.calls.isEmpty());
}

void TstWatching::socketIsAnotherKind_data()
{
    QTest::addColumn<QString>("kind");
    for (const char *kind : {"file", "directory", "FIFO", "link"})
        QTest::newRow(kind) << QString::fromLatin1(kind);
}

void TstWatching::socketIsAnotherKind()
{
    QFETCH(QString, kind);

    WatchingFixture f;
    const QByteArray name = QFile::encodeName(socketPath);
    const QString elsewhere = sharedDirectory + QStringLiteral("/socket");
    f.d->currentUid = alice;
    if (kind == QLatin1String("file")) {
        QVERIFY(writeFile(socketPath, {}));
    } else if (kind == QLatin1String("directory")) {
        QVERIFY(QDir().mkdir(socketPath));
    } else if (kind == QLatin1String("FIFO")) {
        QCOMPARE(mkfifo(name.constData(), 0600), 0);
    } else {
        QVERIFY(leaveSocket(elsewhere, alice));
        QVERIFY(QFile::link(elsewhere, socketPath));
    }
    QVERIFY(setOwner(socketPath, alice, group));
    LogCapture log(true);
    QVERIFY(!f.d->handleChildSocket(clientDirectory));
    QVERIFY(!f.d->child.socketPresent);
    QCOMPARE(log.debugs(), QStringList{QStringLiteral("handleChildSocket Not a socket")});
    QCOMPARE(f.d->clientStage, 1);
    QVERIFY(f.daemon.calls.isEmpty());
}

void TstWatching::socketAppeared()
{
    WatchingFixture f;
    QVERIFY(leaveSocket(socketPath, alice));
    LogCapture log(true);
    QVERIFY(f.d->handleChildSocket(clientDirectory));
    QVERIFY(f.d->child.socketPresent);
    QCOMPARE(log.debugs(), QStringList{QStringLiteral("handleChildSocket kavet client socket appeared")});
    QCOMPARE(log.lines().size(), 1);
    QCOMPARE(f.d->clientStage, 1);
    QVERIFY(f.daemon.calls.isEmpty());

    f.d->currentUid = alice;
    QVERIFY(!f.d->handleChildSocket(clientDirectory));
    QCOMPARE(log.lines().size(), 1);
    QCOMPARE(f.d->clientStage, 1);
    QVERIFY(f.daemon.calls.isEmpty());

    // Once the method has seen the socket disappear, the socket can appear again.
    f.d->currentUid = 0;
    QVERIFY(QFile::remove(socketPath));
    QVERIFY(!f.d->handleChildSocket(clientDirectory));
    QVERIFY(leaveSocket(socketPath, alice));
    QVERIFY(f.d->handleChildSocket(clientDirectory));
}

void TstWatching::socketAppearedDuringAuthentication()
{
    WatchingFixture f;
    QVERIFY(leaveSocket(socketPath, alice));
    f.d->currentUid = alice;
    f.d->clientStage = MethodKavetPrivate::Linked;
    // Nobody listens, so the flow stops at the second stage.
    QVERIFY(f.d->handleChildSocket(clientDirectory));
    QVERIFY(f.d->child.socketPresent);
    QCOMPARE(f.d->clientStage, 2);
    const Calls expected = {RecordingDaemon::failed(SettingsKavet::Connecting, SettingsKavet::CannotConnectClient)};
    QCOMPARE(f.daemon.calls, expected);

    QVERIFY(!f.d->handleChildSocket(clientDirectory));
    QCOMPARE(f.daemon.calls, expected);
    f.d->currentUid = 0;
}

void TstWatching::socketIsSeen()
{
    MethodFixture f;
    LogCapture log(true);
    QVERIFY(f.link());
    QVERIFY(f.d->child.socketPresent);
    QVERIFY(log.debugs().contains(QStringLiteral("handleChildSocket kavet client socket appeared")));

    QVERIFY(QFile::remove(socketPath));
    QTRY_VERIFY(!f.d->child.socketPresent);
    QVERIFY(f.d->connection.isConnected());

    log.clear();
    QVERIFY(leaveSocket(socketPath + QStringLiteral(".new"), bob));
    QVERIFY(QFile::rename(socketPath + QStringLiteral(".new"), socketPath));
    QTRY_VERIFY(log.debugs().contains(QStringLiteral("handleChildSocket Wrong socket owner 1001")));
    QVERIFY(!f.d->child.socketPresent);
}

void TstWatching::sharedDirectoryWithoutUser_data()
{
    QTest::addColumn<uint>("user");
    QTest::addColumn<QString>("path");
    QTest::addColumn<bool>("exists");
    QTest::newRow("no user") << 0u << aliceFile << true;
    QTest::newRow("no file's name") << alice << QString() << true;
    QTest::newRow("no file") << alice << aliceFile << false;
}

void TstWatching::sharedDirectoryWithoutUser()
{
    QFETCH(uint, user);
    QFETCH(QString, path);
    QFETCH(bool, exists);

    WatchingFixture f;
    f.d->child.uid = user;
    f.d->child.userConfigPath = path;
    if (exists)
        QVERIFY(writeSetting(aliceFile, attempts, QStringLiteral("2")));
    LogCapture log(true);
    f.d->handleChildSharedDirectory(sharedDirectory);
    QVERIFY(log.lines().isEmpty());
    QVERIFY(log.otherLines().isEmpty());
    QVERIFY(f.daemon.calls.isEmpty());
    QCOMPARE(f.d->watcher.files(), QStringList());
    QCOMPARE(owner(aliceFile), exists ? QStringLiteral("0:0") : QStringLiteral("none"));

    // The policy is still applied.
    QVERIFY(writeSetting(currentPolicy, maxAttempts, QStringLiteral("4")));
    f.d->handleChildSharedDirectory(sharedDirectory);
    QCOMPARE(f.daemon.calls, Calls{changed(0, maxAttempts, QStringLiteral("4"))});
    QCOMPARE(f.d->watcher.files(), QStringList{currentPolicy});
}

void TstWatching::userFileIsTakenUp()
{
    WatchingFixture f;
    QVERIFY(writeSetting(aliceFile, attempts, QStringLiteral("2")));
    QVERIFY(setOwner(aliceFile, alice, alice));
    Onlooker onlooker(f.d);
    f.method.setNotificator(&onlooker);
    LogCapture log(true);
    f.d->handleChildSharedDirectory(QStringLiteral("/whatever"));
    QCOMPARE(owner(aliceFile), QStringLiteral("1000:960"));
    // The file changes owner and is watched before it is read, so that no change is missed.
    QCOMPARE(onlooker.calls, Calls{changed(alice, attempts, QStringLiteral("2"))});
    QCOMPARE(onlooker.watched, QVector<QStringList>{QStringList{aliceFile}});
    QCOMPARE(onlooker.owners, QStringList{QStringLiteral("1000:960")});
    QCOMPARE(f.d->watcher.files(), QStringList{aliceFile});
    QVERIFY(log.lines().isEmpty());

    // The user is the client's, not the one being authenticated.
    f.d->currentUid = bob;
    f.d->child.uid = carol;
    f.d->child.userConfigPath = sharedDirectory + QStringLiteral("/1002.conf");
    QVERIFY(writeSetting(f.d->child.userConfigPath, attempts, QStringLiteral("2")));
    QVERIFY(setOwner(f.d->child.userConfigPath, carol, carol));
    f.d->handleChildSharedDirectory(sharedDirectory);
    QCOMPARE(onlooker.calls.constLast(), changed(carol, attempts, QStringLiteral("2")));
    f.method.setNotificator(&f.daemon);
    f.d->currentUid = 0;
}

void TstWatching::userFileCannotBeGiven_data()
{
    QTest::addColumn<uint>("user");
    QTest::addColumn<QVariant>("count");
    // Root's file counts, but does not change owner either.
    QTest::newRow("another user's") << bob << QVariant(0);
    QTest::newRow("root's") << 0u << QVariant(QStringLiteral("2"));
}

void TstWatching::userFileCannotBeGiven()
{
    QFETCH(uint, user);
    QFETCH(QVariant, count);

    WatchingFixture f;
    QVERIFY(writeSetting(aliceFile, attempts, QStringLiteral("2")));
    QVERIFY(setOwner(aliceFile, user, user));
    LogCapture log(true);
    f.d->handleChildSharedDirectory(sharedDirectory);
    QCOMPARE(log.warnings(),
             QStringList{QStringLiteral(
                 "Failed to change owner for \"/srv/shared/tarsk/kavet_client/1000.conf\" to 1000 960")});
    QCOMPARE(log.lines().size(), 1);
    QCOMPARE(owner(aliceFile), QStringLiteral("%1:%1").arg(user));
    // The file is still watched.
    QCOMPARE(f.d->watcher.files(), QStringList{aliceFile});
    QCOMPARE(f.daemon.calls, Calls{changed(alice, attempts, count)});

    // Logged once per launch, because the user could trigger it endlessly.
    for (int i = 0; i < 5; ++i)
        f.d->handleChildSharedDirectory(sharedDirectory);
    QCOMPARE(log.lines().size(), 1);
    // The user's own file is still taken up.
    QVERIFY(setOwner(aliceFile, alice, alice));
    f.d->handleChildSharedDirectory(sharedDirectory);
    QCOMPARE(owner(aliceFile), QStringLiteral("1000:960"));
    f.d->child.clientRunning = false;
    f.d->currentUid = alice;
    QVERIFY(f.d->launchChild());
    log.clear();
    QVERIFY(setOwner(aliceFile, user, user));
    f.d->handleChildSharedDirectory(sharedDirectory);
    QCOMPARE(log.warnings().size(), 1);
}

void TstWatching::attemptsAsRead_data()
{
    QTest::addColumn<QByteArray>("content");
    QTest::addColumn<QVariant>("value");
    QTest::newRow("number") << QByteArray("[General]\nattempts=12\n") << QVariant(QStringLiteral("12"));
    QTest::newRow("spaces") << QByteArray("[General]\nattempts = 12 \n") << QVariant(QStringLiteral("12"));
    QTest::newRow("quoted") << QByteArray("[General]\nattempts=\"1 2\"\n") << QVariant(QStringLiteral("1 2"));
    QTest::newRow("no number") << QByteArray("[General]\nattempts=many\n") << QVariant(QStringLiteral("many"));
    QTest::newRow("nothing") << QByteArray("[General]\nattempts=\n") << QVariant(QString());
    QTest::newRow("list") << QByteArray("[General]\nattempts=1, 2\n")
                          << QVariant(QStringList{QStringLiteral("1"), QStringLiteral("2")});
    QTest::newRow("no key") << QByteArray("[General]\nother=12\n") << QVariant(0);
    QTest::newRow("other group") << QByteArray("[Other]\nattempts=12\n") << QVariant(0);
    QTest::newRow("empty") << QByteArray() << QVariant(0);
    QTest::newRow("noise") << QByteArray(3000, '\xfe') << QVariant(0);
}

void TstWatching::attemptsAsRead()
{
    QFETCH(QByteArray, content);
    QFETCH(QVariant, value);

    WatchingFixture f;
    QVERIFY(writeFile(aliceFile, content));
    QVERIFY(setOwner(aliceFile, alice, alice));
    for (int i = 0; i < 2; ++i) {
        QVERIFY(f.method.setOptionInternal(alice, attempts, QStringLiteral("another")));
        f.daemon.calls.clear();
        if (i == 0)
            f.d->handleChildSharedDirectory(sharedDirectory);
        else
            f.d->handleChildFileChanged(aliceFile);
        QCOMPARE(f.daemon.calls, Calls{changed(alice, attempts, value)});
        QCOMPARE(f.daemon.calls.first().arguments.at(2).userType(), value.userType());
        QCOMPARE(f.method.getOptionInternal(alice, attempts), value);
    }
}

void TstWatching::countIsOfTheFilesUser()
{
    // Bob's launch is delayed while alice's client still runs.
    WatchingFixture f;
    QVERIFY(writeSetting(aliceFile, attempts, QStringLiteral("2")));
    QVERIFY(setOwner(aliceFile, alice, group));
    f.d->child.uid = bob;
    LogCapture log;
    f.d->handleChildSharedDirectory(sharedDirectory);
    QCOMPARE(f.method.getOptionInternal(alice, attempts), QVariant(QStringLiteral("2")));
    QVERIFY(writeSetting(aliceFile, attempts, QStringLiteral("4")));
    f.d->handleChildFileChanged(aliceFile);
    QCOMPARE(f.method.getOptionInternal(alice, attempts), QVariant(QStringLiteral("4")));
    QCOMPARE(f.method.getOptionInternal(bob, attempts), QVariant(0));
    QVERIFY(log.lines().isEmpty());
    // Bob's file applies to him only.
    QVERIFY(setOwner(aliceFile, bob, group));
    f.d->handleChildFileChanged(aliceFile);
    QCOMPARE(f.method.getOptionInternal(alice, attempts), QVariant(0));
    QCOMPARE(f.method.getOptionInternal(bob, attempts), QVariant(0));
    f.d->handleChildSharedDirectory(sharedDirectory);
    QCOMPARE(log.warnings(),
             QStringList{QStringLiteral("Failed to change owner for \"%1\" to 1000 960").arg(aliceFile)});
}

void TstWatching::policyIsTakenUp()
{
    WatchingFixture f;
    f.d->child.userConfigPath.clear();
    f.d->handleChildSharedDirectory(sharedDirectory);
    QVERIFY(f.daemon.calls.isEmpty());
    QCOMPARE(f.d->watcher.files(), QStringList());

    // The policy replaces the daemon's own limit.
    QVERIFY(f.method.setOptionInternal(0, maxAttempts, 8));
    QVERIFY(writeSetting(currentPolicy, maxAttempts, QStringLiteral("4")));
    Onlooker onlooker(f.d);
    f.method.setNotificator(&onlooker);
    f.d->handleChildSharedDirectory(sharedDirectory);
    QCOMPARE(onlooker.calls, Calls{changed(0, maxAttempts, QStringLiteral("4"))});
    QCOMPARE(onlooker.watched, QVector<QStringList>{QStringList{currentPolicy}});
    QCOMPARE(f.d->watcher.files(), QStringList{currentPolicy});
    f.method.setNotificator(&f.daemon);
}

void TstWatching::userFileComesBeforePolicy()
{
    WatchingFixture f;
    QVERIFY(writeSetting(aliceFile, attempts, QStringLiteral("2")));
    QVERIFY(writeSetting(currentPolicy, maxAttempts, QStringLiteral("4")));
    f.d->handleChildSharedDirectory(sharedDirectory);
    QCOMPARE(f.daemon.calls,
             (Calls{changed(alice, attempts, QStringLiteral("2")), changed(0, maxAttempts, QStringLiteral("4"))}));
    QCOMPARE(f.d->watcher.files(), (QStringList{aliceFile, currentPolicy}));
}

void TstWatching::fileChanged()
{
    WatchingFixture f;
    QVERIFY(writeSetting(aliceFile, attempts, QStringLiteral("2")));
    QVERIFY(writeSetting(currentPolicy, maxAttempts, QStringLiteral("4")));
    QVERIFY(f.method.setOptionInternal(0, maxAttempts, 8));
    f.daemon.calls.clear();
    LogCapture log(true);

    f.d->handleChildFileChanged(aliceFile);
    QCOMPARE(f.daemon.calls, Calls{changed(alice, attempts, QStringLiteral("2"))});
    f.daemon.calls.clear();
    f.d->handleChildFileChanged(currentPolicy);
    QCOMPARE(f.daemon.calls, Calls{changed(0, maxAttempts, QStringLiteral("4"))});
    f.daemon.calls.clear();

    const QStringList others{sharedDirectory + QStringLiteral("/1001.conf"),
                             aliceFile + QLatin1Char('/'),
                             currentPolicy.toUpper(),
                             sharedDirectory,
                             packagedPolicy,
                             QString()};
    for (const QString &path : others)
        f.d->handleChildFileChanged(path);
    f.d->child.uid = 0;
    f.d->handleChildFileChanged(aliceFile);
    QVERIFY(f.daemon.calls.isEmpty());

    // Nor does another user's link in the policy's place change anything.
    f.d->child.uid = alice;
    const QString aside = currentPolicy + QStringLiteral(".aside");
    QVERIFY(QFile::rename(currentPolicy, aside));
    QVERIFY(QFile::link(aside, currentPolicy));
    QVERIFY(setOwner(currentPolicy, bob, bob));
    f.d->handleChildFileChanged(currentPolicy);
    QVERIFY(f.daemon.calls.isEmpty());

    // A missing file counts as empty. This handler neither changes the owner nor watches again.
    QCOMPARE(owner(aliceFile), QStringLiteral("0:0"));
    QVERIFY(QFile::remove(aliceFile));
    QVERIFY(QFile::remove(currentPolicy));
    f.d->handleChildFileChanged(aliceFile);
    f.d->handleChildFileChanged(currentPolicy);
    QCOMPARE(f.daemon.calls, (Calls{changed(alice, attempts, 0), changed(0, maxAttempts, 0)}));
    QCOMPARE(f.d->watcher.files(), QStringList());
    QVERIFY(log.lines().isEmpty());
}

void TstWatching::fileThatIsBoth()
{
    WatchingFixture f;
    QVERIFY(writeFile(currentPolicy, "[General]\nattempts=2\nmax-attempts=4\n"));
    f.d->child.userConfigPath = currentPolicy;
    f.d->handleChildFileChanged(currentPolicy);
    QCOMPARE(f.daemon.calls, Calls{changed(alice, attempts, QStringLiteral("2"))});

    f.daemon.calls.clear();
    f.d->child.uid = 0;
    f.d->handleChildFileChanged(currentPolicy);
    QCOMPARE(f.daemon.calls, Calls{changed(0, maxAttempts, QStringLiteral("4"))});
}

void TstWatching::filesAreFollowed_data()
{
    // The watcher reports simultaneous changes in the order of a hash, which depends on the seed.
    QTest::addColumn<int>("seed");
    for (const int seed : {0, 1, 2, 3, 4, 7, 8, 15})
        QTest::newRow(qPrintable(QStringLiteral("seed %1").arg(seed))) << seed;
}

void TstWatching::filesAreFollowed()
{
    QFETCH(int, seed);

    qSetGlobalQHashSeed(seed);
    MethodFixture f;
    QVERIFY(f.link());
    const auto count = [&f] {
        return f.method.getOptionInternal(alice, attempts).toString();
    };
    const auto limit = [&f] {
        return f.method.getOptionInternal(0, maxAttempts).toString();
    };

    QVERIFY(rewrite(aliceFile, attempts, QStringLiteral("1")));
    QTRY_COMPARE(count(), QStringLiteral("1"));
    QVERIFY(replace(aliceFile, attempts, QStringLiteral("2")));
    QTRY_COMPARE(count(), QStringLiteral("2"));
    QTRY_COMPARE(owner(aliceFile), QStringLiteral("1000:960"));
    QVERIFY(rewrite(aliceFile, attempts, QStringLiteral("3")));
    QTRY_COMPARE(count(), QStringLiteral("3"));
    QVERIFY(QFile::remove(aliceFile));
    QVERIFY(rewrite(aliceFile, attempts, QStringLiteral("4")));
    QTRY_COMPARE(count(), QStringLiteral("4"));
    QVERIFY(rewrite(aliceFile, attempts, QStringLiteral("5")));
    QTRY_COMPARE(count(), QStringLiteral("5"));
    QVERIFY(QFile::remove(aliceFile));
    QTRY_COMPARE(count(), QStringLiteral("0"));
    QVERIFY(rewrite(aliceFile, attempts, QStringLiteral("6")));
    QTRY_COMPARE(count(), QStringLiteral("6"));
    {
        QSettings settings(aliceFile, QSettings::NativeFormat);
        settings.setValue(attempts, 7);
    }
    QTRY_COMPARE(count(), QStringLiteral("7"));
    QVERIFY(rewrite(aliceFile, attempts, QStringLiteral("8")));
    QTRY_COMPARE(count(), QStringLiteral("8"));

    QVERIFY(replace(currentPolicy, maxAttempts, QStringLiteral("11")));
    QTRY_COMPARE(limit(), QStringLiteral("11"));
    QVERIFY(rewrite(currentPolicy, maxAttempts, QStringLiteral("12")));
    QTRY_COMPARE(limit(), QStringLiteral("12"));
    QVERIFY(replace(currentPolicy, maxAttempts, QStringLiteral("13")));
    QTRY_COMPARE(limit(), QStringLiteral("13"));
    QVERIFY(rewrite(currentPolicy, maxAttempts, QStringLiteral("14")));
    QTRY_COMPARE(limit(), QStringLiteral("14"));
    QCOMPARE(f.d->watcher.files().size(), 2);
    qSetGlobalQHashSeed(-1);
}

void TstWatching::replacedFilesAreFollowed_data()
{
    QTest::addColumn<QString>("by");
    for (const char *by : {"launch", "session", "directory"})
        QTest::newRow(by) << QString::fromLatin1(by);
}

// The watcher has not reported yet that both files were replaced.
void TstWatching::replacedFilesAreFollowed()
{
    QFETCH(QString, by);

    MethodFixture f;
    QVERIFY(f.link());
    QVERIFY(rewrite(aliceFile, attempts, QStringLiteral("1")));
    QVERIFY(rewrite(currentPolicy, maxAttempts, QStringLiteral("11")));
    QTRY_VERIFY(f.d->watcher.files().contains(currentPolicy));
    QTRY_COMPARE(f.method.getOptionInternal(alice, attempts), QVariant(QStringLiteral("1")));
    QVERIFY(replace(aliceFile, attempts, QStringLiteral("1"))); // so that a launch keeps it
    QVERIFY(replace(currentPolicy, maxAttempts, QStringLiteral("12")));
    if (by == QLatin1String("launch")) {
        f.d->child.clientRunning = false;
        QVERIFY(f.d->launchChild());
        f.d->child.clientRunning = true;
    } else if (by == QLatin1String("session")) {
        f.method.handleUserSessionTriggered(alice, true, false);
    } else {
        f.d->handleChildSharedDirectory(sharedDirectory);
    }
    // From here on, only the watches of the files tell of their changes.
    QVERIFY(f.d->watcher.removePath(sharedDirectory));
    for (int limit = 13; limit < 16; ++limit) {
        QVERIFY(rewrite(currentPolicy, maxAttempts, QString::number(limit)));
        QTRY_COMPARE(f.method.getOptionInternal(0, maxAttempts), QVariant(QString::number(limit)));
    }
    if (by == QLatin1String("session"))
        return; // It does not watch the user's file.
    for (int count = 2; count < 5; ++count) {
        QVERIFY(rewrite(aliceFile, attempts, QString::number(count)));
        QTRY_COMPARE(f.method.getOptionInternal(alice, attempts), QVariant(QString::number(count)));
    }
}

void TstWatching::linksAreNotFollowed()
{
    QVERIFY(leaveLink(QStringLiteral("/tmp/followed"), alice));
    QVERIFY(QFile::exists(QStringLiteral("/tmp/followed")));
    QVERIFY(wasFollowed(QStringLiteral("/tmp/followed")));
    {
        MethodFixture f;
        QVERIFY(f.link());
        QVERIFY(QFile::remove(aliceFile));
        QTRY_VERIFY(!f.d->watcher.files().contains(aliceFile));
        for (const QString &path : {aliceFile, currentPolicy}) {
            QVERIFY(leaveLink(path, alice));
            f.d->handleChildSharedDirectory(sharedDirectory);
            f.d->handleChildFileChanged(path);
            f.method.handleUserSessionTriggered(alice, true, false);
            QVERIFY(!wasFollowed(path));
            QVERIFY(!f.d->watcher.files().contains(path));
        }
        f.d->child.clientRunning = false;
        QVERIFY(f.d->launchChild());
        f.d->child.clientRunning = true;
    }
    QVERIFY(!wasFollowed(currentPolicy));
}

// The watcher has not reported yet that the file was removed.
void TstWatching::watchedFileIsNowALink()
{
    WatchingFixture f;
    QVERIFY(writeSetting(aliceFile, attempts, QStringLiteral("0")));
    f.d->handleChildSharedDirectory(sharedDirectory);
    QCOMPARE(f.d->watcher.files(), QStringList{aliceFile});
    QVERIFY(QFile::remove(aliceFile));
    QVERIFY(leaveLink(aliceFile, alice));
    f.d->handleChildSharedDirectory(sharedDirectory);
    QCOMPARE(f.d->watcher.files(), QStringList());
}

void TstWatching::slowLookups_data()
{
    QTest::addColumn<bool>("working");
    QTest::newRow("working") << true;
    // On a busy machine, every lookup waits.
    QTest::newRow("waiting") << false;
}

void TstWatching::slowLookups()
{
    QFETCH(bool, working);

    WatchingFixture f;
    QVERIFY(writeSetting(aliceFile, attempts, QStringLiteral("0")));
    const QScopedValueRollback<Lookups> slow(lookups, working ? Lookups::Working : Lookups::Waiting);
    const QStringList watched(aliceFile);
    for (const QStringList &files : {watched, watched, working ? QStringList() : watched}) {
        f.d->handleChildSharedDirectory(sharedDirectory);
        QCOMPARE(f.d->watcher.files(), files);
    }
}

void TstWatching::swappedForLinks()
{
    // A chain of links with long paths, which takes tens of milliseconds to resolve. Alice swaps it with her file as
    // fast as she can, so that the watcher meets it sooner or later.
    MethodFixture f;
    QVERIFY(f.link());
    const QDir directory(sharedDirectory);
    const QByteArray way = QByteArray("way/../").repeated(570);
    QVERIFY(directory.mkdir(QStringLiteral("way")));
    QByteArray target("way");
    for (int i = 0; i < 38; ++i) {
        const QByteArray name = "link" + QByteArray::number(i);
        QCOMPARE(symlink(QByteArray(way + target).constData(),
                         QFile::encodeName(directory.filePath(QString::fromLatin1(name))).constData()),
                 0);
        target = name;
    }
    const QByteArray chain = QFile::encodeName(directory.filePath(QString::fromLatin1(target)));
    const QByteArray file = QFile::encodeName(aliceFile);
    const auto swap = [&chain, &file] {
        return renameat2(AT_FDCWD, chain.constData(), AT_FDCWD, file.constData(), RENAME_EXCHANGE) == 0;
    };
    const pid_t swapper = fork();
    if (swapper == 0) {
        while (swap()) { }
        _exit(1);
    }

    LogCapture log;
    const QString warning =
        QStringLiteral("Finding \"%1\" takes too long; files are not watched until the next launch").arg(aliceFile);
    int slowCalls = 0;
    QElapsedTimer timer;
    timer.start();
    while (!log.warnings().contains(warning) && !timer.hasExpired(200000)) {
        const qint64 begin = processorTime();
        f.d->handleChildSharedDirectory(sharedDirectory);
        slowCalls += processorTime() - begin > maximumLookup;
    }
    ::kill(swapper, SIGKILL);
    waitpid(swapper, nullptr, 0);
    QCOMPARE(log.warnings().count(warning), 1);
    QVERIFY(slowCalls >= 3); // Interrupts can make a few slow.
    QVERIFY(!f.d->watcher.files().contains(aliceFile));
    QVERIFY(!f.d->watcher.directories().contains(aliceFile)); // where the chain leads
    QVERIFY(QFileInfo(aliceFile).isSymLink() ? swap() : true);
    f.d->handleChildSharedDirectory(sharedDirectory);
    QCOMPARE(f.d->watcher.files(), QStringList());

    f.d->child.clientRunning = false;
    QVERIFY(f.d->launchChild());
    f.d->child.clientRunning = true;
    QCOMPARE(f.d->watcher.files(), QStringList{aliceFile});
}

void TstWatching::noStorm_data()
{
    QTest::addColumn<QString>("kind");
    QTest::newRow("the client's") << QStringLiteral("alice");
    QTest::newRow("root's") << QStringLiteral("root");
    QTest::newRow("another user's") << QStringLiteral("bob");
    QTest::newRow("link") << QStringLiteral("link");
    QTest::newRow("directory") << QStringLiteral("directory");
    QTest::newRow("link to the directory") << QStringLiteral("self");
    QTest::newRow("link to the daemon's own file") << QStringLiteral("options");
}

void TstWatching::noStorm()
{
    QFETCH(QString, kind);

    MethodFixture f;
    QVERIFY(f.link());
    QVERIFY(rewrite(currentPolicy, maxAttempts, QStringLiteral("100")));
    QTRY_COMPARE(f.method.getOptionInternal(0, maxAttempts), QVariant(QStringLiteral("100")));
    QVERIFY(QFile::remove(aliceFile));
    QTRY_VERIFY(!f.d->watcher.files().contains(aliceFile));
    // An unchanged value would not be reported.
    QVERIFY(f.method.setOptionInternal(alice, attempts, QStringLiteral("another")));
    f.daemon.calls.clear();

    if (kind == QLatin1String("link")) {
        QVERIFY(QFile::link(QStringLiteral("/etc/hostname"), aliceFile));
    } else if (kind == QLatin1String("directory")) {
        QVERIFY(QDir().mkdir(aliceFile));
    } else if (kind == QLatin1String("self")) {
        QVERIFY(QFile::link(sharedDirectory, aliceFile));
    } else if (kind == QLatin1String("options")) {
        QVERIFY(f.method.setOptionInternal(alice, attempts, 1));
        QVERIFY(QFile::link(QStringLiteral("/var/lib/authd/users/1000.conf"), aliceFile));
    } else {
        QVERIFY(rewrite(aliceFile, attempts, QStringLiteral("1")));
        if (kind == QLatin1String("alice"))
            QVERIFY(setOwner(aliceFile, alice, group));
        else if (kind == QLatin1String("bob"))
            QVERIFY(setOwner(aliceFile, bob, bob));
    }

    // Each change of the policy runs the event loop, which handles pending events.
    for (int limit = 101; limit <= 125; ++limit) {
        QVERIFY(rewrite(currentPolicy, maxAttempts, QString::number(limit)));
        QTRY_COMPARE(f.method.getOptionInternal(0, maxAttempts), QVariant(QString::number(limit)));
    }
    int seen = 0;
    for (const RecordingDaemon::Call &call : qAsConst(f.daemon.calls))
        seen += call.arguments.value(1) == attempts ? 1 : 0;
    QVERIFY2(seen >= 1 && seen <= 6, qPrintable(QStringLiteral("%1 changes of the count").arg(seen)));
}

void TstWatching::nothingIsWatchedTwice()
{
    MethodFixture f;
    QVERIFY(f.link());
    QVERIFY(rewrite(currentPolicy, maxAttempts, QStringLiteral("4")));
    QTRY_VERIFY(f.d->watcher.files().contains(currentPolicy));

    for (int i = 0; i < 3; ++i) {
        f.d->handleChildSharedDirectory(sharedDirectory);
        f.method.handleUserSessionTriggered(alice, true, false);
        f.d->child.clientRunning = false;
        // The process already runs, so only the steps before its start are repeated.
        QVERIFY(f.d->launchChild());
        f.d->child.clientRunning = true;
    }
    QStringList files = f.d->watcher.files();
    files.sort();
    QCOMPARE(files, (QStringList{aliceFile, currentPolicy}));
    QStringList directories = f.d->watcher.directories();
    directories.sort();
    QCOMPARE(directories, (QStringList{clientDirectory, sharedDirectory}));
}

QTEST_GUILESS_MAIN(TstWatching)
#include "tst_watching.moc"
