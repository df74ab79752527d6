// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#include "launcherarguments.h"
#include "methodfixture.h"
#include "support/logcapture.h"
#include "support/waiting.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QProcessEnvironment>
#include <QScopeGuard>
#include <QSettings>
#include <QTest>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <functional>
#include <memory>

#include <fcntl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

using namespace TestDevice;

namespace {

const QString groupFile = QStringLiteral("/etc/group");
const QString passwdFile = QStringLiteral("/etc/passwd");
const QString aliceFile = sharedDirectory + QStringLiteral("/1000.conf");
const QString methodSettings = QStringLiteral("/var/lib/authd/methods/kavet/current.conf");
const QString sharedParent = QStringLiteral("/srv/shared/tarsk");
constexpr uint unknownUser = 4242;

uint authFactor()
{
    return groupId("auth-factor");
}

/// The owner of the file at `path` as "uid:gid"; "none" if there is none.
QString owner(const QString &path)
{
    struct stat status = {};
    if (lstat(QFile::encodeName(path).constData(), &status) == -1)
        return QStringLiteral("none");
    return QStringLiteral("%1:%2").arg(status.st_uid).arg(status.st_gid);
}

mode_t mode(const QString &path)
{
    struct stat status = {};
    return lstat(QFile::encodeName(path).constData(), &status) == 0 ? status.st_mode & 07777 : mode_t(-1);
}

/// Everything that a launch may change.
struct Trace
{
    uint budget = 11;
    uint uid = 0;
    uint gid = 0;
    QString userConfigPath;
    QString clientDirectoryOwner = QStringLiteral("0:0");
    QString sharedDirectoryOwner = QStringLiteral("none");
    QString fileOwner = QStringLiteral("none");
    QStringList watched = {clientDirectory};
    QProcess::ProcessState process = QProcess::NotRunning;

    static Trace of(const MethodKavetPrivate *d)
    {
        Trace trace;
        trace.budget = d->launchBudget;
        trace.uid = d->child.uid;
        trace.gid = d->child.gid;
        trace.userConfigPath = d->child.userConfigPath;
        trace.clientDirectoryOwner = owner(clientDirectory);
        trace.sharedDirectoryOwner = owner(sharedDirectory);
        trace.fileOwner = owner(aliceFile);
        trace.watched = d->watcher.directories() + d->watcher.files();
        trace.process = d->child.state();
        return trace;
    }

    QStringList texts() const
    {
        QStringList sorted = watched;
        sorted.sort();
        return {QStringLiteral("budget %1").arg(budget),
                QStringLiteral("identity %1:%2").arg(uid).arg(gid),
                QStringLiteral("file ") + userConfigPath,
                QStringLiteral("client directory ") + clientDirectoryOwner,
                QStringLiteral("shared directory ") + sharedDirectoryOwner,
                QStringLiteral("file owner ") + fileOwner,
                QStringLiteral("watched ") + sorted.join(QLatin1Char(' ')),
                QStringLiteral("process %1").arg(process)};
    }
};

/// The trace of a launch that failed before it got an identity.
Trace failedEarly()
{
    Trace trace;
    trace.budget = 10;
    return trace;
}

/// The trace of a launch that failed before anything was handed over.
Trace failedWithIdentity(uint uid, uint gid)
{
    Trace trace = failedEarly();
    trace.uid = uid;
    trace.gid = gid;
    return trace;
}

QString handedOver()
{
    return QStringLiteral("1000:%1").arg(authFactor());
}

/// A read-only mount over a directory, for the lifetime of the object.
class ReadOnly
{
public:
    explicit ReadOnly(const QString &path)
        : m_path(QFile::encodeName(path))
        , m_mounted(mount(m_path.constData(), m_path.constData(), nullptr, MS_BIND, nullptr) == 0)
        , m_sealed(m_mounted
                   && mount(nullptr, m_path.constData(), nullptr, MS_REMOUNT | MS_BIND | MS_RDONLY, nullptr) == 0)
    {
    }
    ~ReadOnly()
    {
        if (m_mounted)
            umount2(m_path.constData(), MNT_DETACH);
    }
    bool sealed() const { return m_sealed; }

private:
    const QByteArray m_path;
    const bool m_mounted;
    const bool m_sealed;

    Q_DISABLE_COPY(ReadOnly)
};

/// Records the watched paths and the rest of the state when an option changes.
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
        traces << Trace::of(d).texts();
    }

    QVector<QStringList> traces;

private:
    MethodKavetPrivate *const d;
};

} // namespace

class TstLaunch : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void init();
    void cleanup();

    void launches();
    void launcherAndArguments();
    void environment();
    void homeIgnoresTheDatabase();
    void identity();
    void attemptsAreTheDaemons();
    void userFileKeepsOtherKeys();
    void userFileIsWrittenAtTheEnd();
    void policyIsReadBeforeItIsWatched();
    void noPolicyFile();
    void directoriesKeepTheirModes();
    void onlyTheLastElementIsHandedOver();
    void namesMakeTheDirectories();

    void runningClient();
    void budget();
    void failuresUseUpTheBudget();
    void failures_data();
    void failures();
    void userFileCannotBeGiven();
    void userFileTakenAway();
    void sharedDirectoryCannotBeGiven();
    void clientDirectoryCannotBeGiven();
    void prepareEnvironmentAlone();
    void leftByAnotherUser();
    void limitOfAnotherUser_data();
    void limitOfAnotherUser();
    void limitWhoseFileHasGone();
    void limitWhoseFileGoesBeforeTheLaunch();
    void limitIsRoots();
    void versionsOfSettings_data();
    void versionsOfSettings();
    void modeIsNotTheFormerUsers();
    void alreadyPutAside();
    void filesOfTheSameName();
    void hiddenFiles();
    void directoryCannotBePutAside();
    void ownDirectoryCannotBeMoved();
    void noRoomForADirectory();
    void linkInAPlaceOfADirectory();
    void fileInAPlaceOfADirectory();
    void floodedDirectory();
    void descriptorsOfTheClient();
    void launcherMissing();
    void processThatIsStarting();

private:
    QByteArray m_groups;
    QByteArray m_passwords;

    bool replaceGroup(const QByteArray &line);
};

void TstLaunch::initTestCase()
{
    reset();
    m_groups = readFile(groupFile);
    m_passwords = readFile(passwdFile);
    QVERIFY(m_groups.contains("\nauth-factor:") || m_groups.startsWith("auth-factor:"));
    QVERIFY(authFactor() != 0);
    QVERIFY(groupId("inet") != 0);
}

void TstLaunch::init()
{
    reset();
}

void TstLaunch::cleanup()
{
    QVERIFY(writeFile(groupFile, m_groups));
    QVERIFY(writeFile(passwdFile, m_passwords));
}

/// Replaces the line of the group "auth-factor" with `line`.
bool TstLaunch::replaceGroup(const QByteArray &line)
{
    QByteArray groups;
    const QList<QByteArray> lines = m_groups.split('\n');
    for (const QByteArray &entry : lines) {
        if (!entry.startsWith("auth-factor:") && !entry.isEmpty())
            groups += entry + '\n';
    }
    return writeFile(groupFile, groups + line);
}

void TstLaunch::launches()
{
    MethodFixture f;
    f.d->currentUid = alice;
    QCOMPARE(Trace::of(f.d).texts(), Trace().texts());
    // The state after a session start before the user's first start is finished.
    f.d->child.uid = carol;
    f.d->child.gid = carol;
    LogCapture log(true);

    QVERIFY(f.d->launchChild());
    Trace expected;
    expected.budget = 10;
    expected.uid = alice;
    expected.gid = authFactor();
    expected.userConfigPath = aliceFile;
    expected.clientDirectoryOwner = handedOver();
    expected.sharedDirectoryOwner = handedOver();
    expected.fileOwner = handedOver();
    expected.watched = QStringList{clientDirectory, sharedDirectory, aliceFile};
    // The method does not know yet whether the program could be started.
    expected.process = QProcess::Starting;
    QCOMPARE(Trace::of(f.d).texts(), expected.texts());

    QCOMPARE(mode(aliceFile), mode_t(0600));
    QCOMPARE(readFile(aliceFile), QByteArray("[General]\nattempts=0\n"));
    QVERIFY(log.warnings().isEmpty());
    QVERIFY(log.criticals().isEmpty());
    QVERIFY(f.daemon.calls.isEmpty());

    QTRY_COMPARE(TestDevice::launches().size(), 1);
    QTRY_VERIFY(f.d->child.clientRunning);
}

void TstLaunch::launcherAndArguments()
{
    const QString command = QStringLiteral("/usr/bin/tarsk.kavet_client -x  'y z'");
    QVERIFY(writeManifest(QStringLiteral("tarsk"), QStringLiteral("kavet_client"), command, {QStringLiteral("Token")}));
    QVERIFY(writeFile(QStringLiteral("/etc/varnet/permissions/Token.permission"), "net none"));
    MethodFixture f;
    f.d->currentUid = alice;
    QVERIFY(f.d->launchChild());

    QTRY_COMPARE(TestDevice::launches().size(), 1);
    const QStringList expected =
        launcherArguments({QStringLiteral("--profile=/etc/varnet/permissions/Token.permission"),
                           QStringLiteral("--profile=/etc/varnet/permissions/Base.permission")},
                          command);
    QCOMPARE(TestDevice::launches().constFirst().value(QLatin1String("arguments")).toArray(),
             QJsonArray::fromStringList(expected));
    QCOMPARE(f.d->child.program(), QStringLiteral("/usr/bin/firejail"));
    QCOMPARE(f.d->child.openMode() & QIODevice::ReadWrite, QIODevice::OpenMode(QIODevice::ReadWrite));
}

void TstLaunch::environment()
{
    qputenv("HOME", "/root/elsewhere");
    qputenv("DBUS_SESSION_BUS_ADDRESS", "unix:path=/tmp/other");
    qputenv("KAVET_TEST_EMPTY", "");
    qputenv("KAVET_TEST_ODD", "a=b; \"c\"\n${HOME}");
    const QProcessEnvironment own = QProcessEnvironment::systemEnvironment();
    QVERIFY(own.contains(QStringLiteral("PATH")));
    QVERIFY(own.contains(QStringLiteral("KAVET_TEST_EMPTY")));

    QJsonObject expected;
    const QStringList keys = own.keys();
    for (const QString &key : keys)
        expected.insert(key, own.value(key));
    expected.insert(QStringLiteral("HOME"), QStringLiteral("/home/bob"));
    expected.insert(QStringLiteral("DBUS_SESSION_BUS_ADDRESS"),
                    QStringLiteral("unix:path=/run/user/1001/dbus/user_bus_socket"));

    MethodFixture f;
    f.d->currentUid = bob;
    QVERIFY(f.d->launchChild());
    QTRY_COMPARE(TestDevice::launches().size(), 1);
    QCOMPARE(TestDevice::launches().constFirst().value(QLatin1String("environment")).toObject(), expected);
    // The daemon's own environment is unchanged.
    QCOMPARE(qgetenv("HOME"), QByteArray("/root/elsewhere"));
    QCOMPARE(qgetenv("DBUS_SESSION_BUS_ADDRESS"), QByteArray("unix:path=/tmp/other"));

    for (const char *variable : {"DBUS_SESSION_BUS_ADDRESS", "KAVET_TEST_EMPTY", "KAVET_TEST_ODD"})
        qunsetenv(variable);
}

void TstLaunch::homeIgnoresTheDatabase()
{
    QVERIFY(m_passwords.contains(":/home/alice:"));
    QVERIFY(writeFile(passwdFile, QByteArray(m_passwords).replace(":/home/alice:", ":/opt/a lice:")));

    MethodFixture f;
    f.d->currentUid = alice;
    qunsetenv("HOME");
    QVERIFY(f.d->launchChild());
    QTRY_COMPARE(TestDevice::launches().size(), 1);
    const QJsonObject variables = TestDevice::launches().constFirst().value(QLatin1String("environment")).toObject();
    QCOMPARE(variables.value(QLatin1String("HOME")).toString(), QStringLiteral("/home/alice"));
    QCOMPARE(variables.value(QLatin1String("DBUS_SESSION_BUS_ADDRESS")).toString(),
             QStringLiteral("unix:path=/run/user/1000/dbus/user_bus_socket"));
}

void TstLaunch::identity()
{
    MethodFixture f;
    f.d->currentUid = bob;
    QVERIFY(f.d->launchChild());
    QTRY_COMPARE(TestDevice::launches().size(), 1);

    const QJsonObject launch = TestDevice::launches().constFirst();
    const int group = int(authFactor());
    QCOMPARE(launch.value(QLatin1String("uids")).toArray(), (QJsonArray{1001, 1001, 1001}));
    QCOMPARE(launch.value(QLatin1String("gids")).toArray(), (QJsonArray{group, group, group}));
    QCOMPARE(launch.value(QLatin1String("groups")).toArray(), QJsonArray{int(groupId("inet"))});
    QCOMPARE(launch.value(QLatin1String("directory")).toString(), QDir::currentPath());
}

void TstLaunch::attemptsAreTheDaemons()
{
    MethodFixture f;
    QVERIFY(f.method.setOptionInternal(alice, QStringLiteral("attempts"), 7));
    QVERIFY(f.method.setOptionInternal(bob, QStringLiteral("attempts"), 3));
    QVERIFY(writeSetting(aliceFile, QStringLiteral("attempts"), QStringLiteral("2")));
    f.d->currentUid = alice;
    QVERIFY(f.d->launchChild());
    QCOMPARE(readFile(aliceFile), QByteArray("[General]\nattempts=7\n"));
    // The file still belongs to the client's user.
    QCOMPARE(owner(aliceFile), handedOver());
    QCOMPARE(mode(aliceFile), mode_t(0600));
}

void TstLaunch::userFileKeepsOtherKeys()
{
    QVERIFY(writeFile(aliceFile, "[General]\nname=Ann\nattempts=9\n\n[Token]\nslot=4\n"));
    QVERIFY(setOwner(aliceFile, alice, alice));
    QVERIFY(chmod(QFile::encodeName(aliceFile).constData(), 0644) == 0);

    MethodFixture f;
    f.d->currentUid = alice;
    QVERIFY(f.d->launchChild());
    const QSettings settings(aliceFile, QSettings::NativeFormat);
    QCOMPARE(settings.allKeys(),
             (QStringList{QStringLiteral("Token/slot"), QStringLiteral("attempts"), QStringLiteral("name")}));
    QCOMPARE(settings.value(QStringLiteral("attempts")), QVariant(QStringLiteral("0")));
    QCOMPARE(settings.value(QStringLiteral("name")), QVariant(QStringLiteral("Ann")));
    QCOMPARE(settings.value(QStringLiteral("Token/slot")), QVariant(QStringLiteral("4")));
    QCOMPARE(owner(aliceFile), handedOver());
    QCOMPARE(mode(aliceFile), mode_t(0600));
}

void TstLaunch::userFileIsWrittenAtTheEnd()
{
    MethodFixture f;
    f.d->currentUid = alice;
    QByteArray content("not seen");
    QStringList trace;
    connect(&f.d->child, &QProcess::stateChanged, this, [&](QProcess::ProcessState state) {
        if (state == QProcess::Starting) {
            content = readFile(aliceFile);
            trace = Trace::of(f.d).texts();
        }
    });
    QVERIFY(f.d->launchChild());
    // When the process starts, everything is prepared, except that the file is not written yet.
    QCOMPARE(content, QByteArray(""));
    QCOMPARE(trace, Trace::of(f.d).texts());
    QCOMPARE(readFile(aliceFile), QByteArray("[General]\nattempts=0\n"));
}

void TstLaunch::policyIsReadBeforeItIsWatched()
{
    QVERIFY(writeSetting(currentPolicy, QStringLiteral("max-attempts"), QStringLiteral("4")));
    MethodFixture f;
    // The constructor found the shared directory, because this policy is in it.
    QCOMPARE(f.d->watcher.directories(), (QStringList{clientDirectory, sharedDirectory}));
    f.d->watcher.removePath(sharedDirectory);
    // The daemon's own limit is replaced.
    QVERIFY(f.method.setOptionInternal(0, QStringLiteral("max-attempts"), 8));
    Onlooker onlooker(f.d);
    f.method.setNotificator(&onlooker);
    f.d->currentUid = alice;
    QVERIFY(f.d->launchChild());

    const QVector<RecordingDaemon::Call> expected = {
        {QStringLiteral("optionChanged"), {0u, QStringLiteral("max-attempts"), QStringLiteral("4"), false}}};
    QCOMPARE(onlooker.calls, expected);
    Trace then = failedWithIdentity(alice, authFactor());
    then.clientDirectoryOwner = handedOver();
    then.sharedDirectoryOwner = handedOver();
    then.watched = QStringList{clientDirectory, sharedDirectory};
    QCOMPARE(onlooker.traces, QVector<QStringList>{then.texts()});
    QCOMPARE(f.d->watcher.files(), (QStringList{currentPolicy, aliceFile}));
    f.method.setNotificator(&f.daemon);
}

void TstLaunch::noPolicyFile()
{
    MethodFixture f;
    f.d->currentUid = alice;
    QVERIFY(f.d->launchChild());
    QCOMPARE(f.d->watcher.files(), QStringList{aliceFile});
    QVERIFY(f.daemon.calls.isEmpty());
}

void TstLaunch::directoriesKeepTheirModes()
{
    MethodFixture f;
    QCOMPARE(chmod(QFile::encodeName(clientDirectory).constData(), 0711), 0);
    const mode_t mask = umask(027);
    f.d->currentUid = alice;
    const bool launched = f.d->launchChild();
    umask(mask);
    QVERIFY(launched);
    QCOMPARE(mode(clientDirectory), mode_t(0711));
    QCOMPARE(mode(sharedDirectory), mode_t(0750));

    QCOMPARE(chmod(QFile::encodeName(sharedDirectory).constData(), 0700), 0);
    QVERIFY(f.d->prepareEnvironment());
    QCOMPARE(mode(sharedDirectory), mode_t(0700));
}

void TstLaunch::onlyTheLastElementIsHandedOver()
{
    MethodFixture f;
    f.d->currentUid = alice;
    QVERIFY(f.d->launchChild());
    QCOMPARE(owner(QStringLiteral("/run/aux-auth")), QStringLiteral("0:0"));
    QCOMPARE(owner(QStringLiteral("/run/aux-auth/tarsk")), QStringLiteral("0:0"));
    QCOMPARE(owner(clientDirectory), handedOver());
    QCOMPARE(owner(QStringLiteral("/srv/shared")), QStringLiteral("0:0"));
    QCOMPARE(owner(sharedParent), QStringLiteral("0:0"));
    QCOMPARE(owner(sharedDirectory), handedOver());
}

void TstLaunch::namesMakeTheDirectories()
{
    QVERIFY(writeManifest(QStringLiteral("acme"), QStringLiteral("key %1%2 ring"),
                          QStringLiteral("/usr/bin/tarsk.kavet_client"), {}));
    MethodFixture f;
    f.d->currentUid = alice;
    QVERIFY(f.d->launchChild());
    QCOMPARE(owner(QStringLiteral("/srv/shared/acme/key %1%2 ring")), handedOver());
    QCOMPARE(f.d->child.userConfigPath, QStringLiteral("/srv/shared/acme/key %1%2 ring/1000.conf"));
    QCOMPARE(owner(QStringLiteral("/srv/shared/acme/key %1%2 ring/1000.conf")), handedOver());
    QCOMPARE(owner(sharedDirectory), QStringLiteral("none"));
    QCOMPARE(f.d->watcher.directories(),
             (QStringList{clientDirectory, QStringLiteral("/srv/shared/acme/key %1%2 ring")}));
}

void TstLaunch::runningClient()
{
    MethodFixture f;
    f.d->currentUid = alice;
    QVERIFY(f.d->launchChild());
    QTRY_VERIFY(f.d->child.clientRunning);
    QTRY_COMPARE(TestDevice::launches().size(), 1);
    const QStringList before = Trace::of(f.d).texts();
    QVERIFY(before.contains(QStringLiteral("budget 10")));

    LogCapture log(true);
    QVERIFY(f.d->launchChild());
    QCOMPARE(Trace::of(f.d).texts(), before);
    // This check comes before all others that prevent a launch.
    f.d->launchBudget = 0;
    f.d->currentUid = 0;
    QVERIFY(f.d->launchChild());
    QCOMPARE(f.d->launchBudget, 0u);
    QVERIFY(log.lines().isEmpty());
    QCOMPARE(TestDevice::launches().size(), 1);
}

void TstLaunch::budget()
{
    setScript({{QStringLiteral("exit"), 0}});
    MethodFixture f;
    QCOMPARE(f.d->launchBudget, 11u);
    // A client that ends is relaunched as long as there is a user and the budget lasts.
    f.method.authenticate(alice, {});
    QTRY_COMPARE(f.d->launchBudget, 0u);
    QTRY_VERIFY(!f.daemon.outcomes().isEmpty());
    QCOMPARE(f.d->child.state(), QProcess::NotRunning);
    QCOMPARE(TestDevice::launches().size(), 11);
    QCOMPARE(f.daemon.outcomes(), QVector<RecordingDaemon::Call>{RecordingDaemon::failed(
                                      SettingsKavet::Connecting, SettingsKavet::CannotStartClient)});

    LogCapture log(true);
    const QStringList before = Trace::of(f.d).texts();
    QVERIFY(!f.d->launchChild());
    QCOMPARE(Trace::of(f.d).texts(), before);
    QVERIFY(log.lines().isEmpty());

    f.method.reset();
    QCOMPARE(f.d->launchBudget, 11u);
    setScript({});
    f.d->currentUid = alice;
    QVERIFY(f.d->launchChild());
    QCOMPARE(f.d->launchBudget, 10u);
    QTRY_COMPARE(TestDevice::launches().size(), 12);
}

void TstLaunch::failuresUseUpTheBudget()
{
    MethodFixture f;
    f.d->currentUid = unknownUser;
    for (uint left = 11; left > 0; --left) {
        QCOMPARE(f.d->launchBudget, left);
        QVERIFY(!f.d->launchChild());
    }
    f.d->currentUid = alice;
    LogCapture log(true);
    QVERIFY(!f.d->launchChild());
    QCOMPARE(f.d->launchBudget, 0u);
    QVERIFY(log.lines().isEmpty());
}

using Damage = std::function<void(MethodKavetPrivate *)>;
Q_DECLARE_METATYPE(Damage)
Q_DECLARE_METATYPE(Trace)
Q_DECLARE_METATYPE(LogCapture::Line)

void TstLaunch::failures_data()
{
    // The errors, in the order of their checks. Each row also has all later errors, which must not matter.
    const Damage noManifest = [](MethodKavetPrivate *d) {
        d->child.manifestExists = false;
    };
    const Damage noSharedDirectory = [](MethodKavetPrivate *d) {
        d->child.sharedDirectory.clear();
    };
    const Damage noUser = [](MethodKavetPrivate *d) {
        d->currentUid = unknownUser;
    };
    const Damage noGroup = [this](MethodKavetPrivate *) {
        QVERIFY(replaceGroup({}));
    };
    const Damage noCommand = [](MethodKavetPrivate *d) {
        d->child.exec.clear();
    };
    const Damage root = [](MethodKavetPrivate *d) {
        d->currentUid = 0;
    };
    const Damage rootGroup = [this](MethodKavetPrivate *) {
        QVERIFY(replaceGroup("auth-factor:x:0:\n"));
    };
    const Damage noClientDirectory = [](MethodKavetPrivate *d) {
        d->watcher.removePath(clientDirectory);
        QVERIFY(QDir().rmdir(clientDirectory));
    };
    const Damage fileInTheWay = [](MethodKavetPrivate *) {
        QVERIFY(writeFile(sharedParent, "in the way"));
    };
    const auto all = [](const QVector<Damage> &damages) {
        return Damage([damages](MethodKavetPrivate *d) {
            for (const Damage &damage : damages)
                damage(d);
        });
    };
    const auto critical = [](const char *text) {
        return QVector<LogCapture::Line>{
            {QtCriticalMsg, QStringLiteral("authd.method.kavet"), QString::fromLatin1(text)}};
    };

    QTest::addColumn<Damage>("damage");
    QTest::addColumn<QVector<LogCapture::Line>>("lines");
    QTest::addColumn<Trace>("trace");

    Trace noDirectory = failedEarly();
    noDirectory.watched.clear();
    noDirectory.clientDirectoryOwner = QStringLiteral("none");

    QTest::newRow("no manifest") << noManifest << QVector<LogCapture::Line>() << failedEarly();
    QTest::newRow("no manifest, and more")
        << all({noManifest, noSharedDirectory, noUser, noGroup}) << QVector<LogCapture::Line>() << failedEarly();
    QTest::newRow("no shared directory") << noSharedDirectory << critical("Shared directory is not set")
                                         << failedEarly();
    QTest::newRow("no shared directory, and more") << all({noSharedDirectory, noUser, noGroup, noCommand})
                                                   << critical("Shared directory is not set") << failedEarly();
    QTest::newRow("no user") << noUser << critical("Cannot name for 4242") << failedEarly();
    QTest::newRow("no user, and more") << all({noUser, noGroup, noCommand, noClientDirectory})
                                       << critical("Cannot name for 4242") << noDirectory;
    QTest::newRow("no group") << noGroup << critical("Cannot get GID of \"auth-factor\"") << failedEarly();
    QTest::newRow("no group, and more") << all({root, noGroup, noCommand, noClientDirectory})
                                        << critical("Cannot get GID of \"auth-factor\"") << noDirectory;
    QTest::newRow("no command") << noCommand << critical("Empty ExecCmd= statement in desktop file.")
                                << failedWithIdentity(alice, authFactor());
    noDirectory.uid = alice;
    noDirectory.gid = authFactor();
    QTest::newRow("no command, and more")
        << all({noCommand, noClientDirectory}) << critical("Empty ExecCmd= statement in desktop file.") << noDirectory;
    QTest::newRow("root and no command") << all({root, noCommand})
                                         << critical("Empty ExecCmd= statement in desktop file.")
                                         << failedWithIdentity(0, authFactor());
    QTest::newRow("root") << root << QVector<LogCapture::Line>() << failedWithIdentity(0, authFactor());
    QTest::newRow("root's group") << rootGroup << QVector<LogCapture::Line>() << failedWithIdentity(alice, 0);
    QTest::newRow("no client directory") << noClientDirectory << critical("Cannot change owner of directory")
                                         << noDirectory;
    QTest::newRow("no client directory, and more")
        << all({noClientDirectory, fileInTheWay}) << critical("Cannot change owner of directory") << noDirectory;
    Trace noShared = failedWithIdentity(alice, authFactor());
    noShared.clientDirectoryOwner = handedOver();
    QTest::newRow("shared directory cannot be made")
        << fileInTheWay
        << QVector<LogCapture::Line>{{QtWarningMsg, QStringLiteral("authd.method.kavet"),
                                      QStringLiteral("Cannot create directory")}}
        << noShared;
}

void TstLaunch::failures()
{
    QFETCH(Damage, damage);
    QFETCH(QVector<LogCapture::Line>, lines);
    QFETCH(Trace, trace);

    MethodFixture f;
    f.d->currentUid = alice;
    damage(f.d);
    LogCapture log(true);
    QVERIFY(!f.d->launchChild());
    const QVector<LogCapture::Line> written = log.lines();
    QCOMPARE(written.size(), lines.size());
    for (int i = 0; i < lines.size(); ++i) {
        QCOMPARE(written.at(i).text, lines.at(i).text);
        QCOMPARE(written.at(i).level, lines.at(i).level);
        QCOMPARE(written.at(i).category, lines.at(i).category);
    }
    QCOMPARE(Trace::of(f.d).texts(), trace.texts());
    QVERIFY(f.daemon.calls.isEmpty());
    QVERIFY(TestDevice::launches().isEmpty());
}

void TstLaunch::userFileCannotBeGiven()
{
    QVERIFY(writeSetting(currentPolicy, QStringLiteral("max-attempts"), QStringLiteral("2")));
    // A mount point cannot be renamed.
    QVERIFY(QDir().mkdir(aliceFile));
    const QByteArray name = QFile::encodeName(aliceFile);
    QCOMPARE(mount("none", name.constData(), "tmpfs", 0, nullptr), 0);

    MethodFixture f;
    f.d->currentUid = alice;
    LogCapture log;
    const bool launched = f.d->launchChild();
    umount2(name.constData(), MNT_DETACH);
    QVERIFY(!launched);
    QCOMPARE(log.warnings(), QStringList{QStringLiteral("launchChild Cannot set owner of "
                                                        "\"/srv/shared/tarsk/kavet_client/1000.conf\" to 1000 %1 %2")
                                             .arg(authFactor())
                                             .arg(EBUSY)});
    QCOMPARE(log.lines().size(), 1);

    // The earlier steps are not undone.
    Trace expected = failedWithIdentity(alice, authFactor());
    expected.userConfigPath = aliceFile;
    expected.clientDirectoryOwner = handedOver();
    expected.sharedDirectoryOwner = handedOver();
    expected.fileOwner = QStringLiteral("0:0");
    expected.watched = QStringList{clientDirectory, sharedDirectory, currentPolicy};
    QCOMPARE(Trace::of(f.d).texts(), expected.texts());
    QCOMPARE(f.daemon.calls.size(), 1);
    QCOMPARE(f.daemon.calls.first().arguments,
             (QVariantList{0u, QStringLiteral("max-attempts"), QStringLiteral("2"), false}));
    QVERIFY(TestDevice::launches().isEmpty());
}

void TstLaunch::userFileTakenAway()
{
    // Alice moves her file away repeatedly, also while root creates it. She must never obtain a file of root's, because
    // as the current policy it would apply to everybody.
    QVERIFY(QFile::remove(launcher));
    QVERIFY(QDir().mkpath(sharedDirectory));
    QVERIFY(setOwner(sharedDirectory, alice, authFactor()));
    const QByteArray name = QFile::encodeName(aliceFile);
    const QByteArray kept = QFile::encodeName(sharedDirectory + QStringLiteral("/kept."));
    const pid_t taker = fork();
    if (taker == 0) {
        if (setgid(alice) == -1 || setuid(alice) == -1)
            _exit(1);
        for (int count = 0;;) {
            if (rename(name.constData(), QByteArray(kept).append(QByteArray::number(count)).constData()) == 0)
                ++count;
        }
    }
    {
        MethodFixture f;
        f.d->currentUid = alice;
        const LogCapture log;
        const QString hundredth = QFile::decodeName(kept) + QStringLiteral("100");
        for (int i = 0; i < 500 || !QFile::exists(hundredth); ++i) {
            f.d->launchBudget = 1;
            f.d->launchChild();
        }
    }
    kill(taker, SIGKILL);
    waitpid(taker, nullptr, 0);
    const QStringList names = QDir(sharedDirectory).entryList(QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot);
    for (const QString &entry : names)
        QVERIFY2(owner(sharedDirectory + QLatin1Char('/') + entry).startsWith(QLatin1String("1000:")),
                 qPrintable(entry));
}

void TstLaunch::sharedDirectoryCannotBeGiven()
{
    MethodFixture f;
    QVERIFY(QDir().mkpath(sharedDirectory));
    const ReadOnly readOnly(sharedDirectory);
    QVERIFY2(readOnly.sealed(), "a read-only mount is needed for this");
    f.d->currentUid = alice;
    LogCapture log(true);
    QVERIFY(!f.d->launchChild());
    QCOMPARE(log.criticals(), QStringList{QStringLiteral("Cannot change owner of directory.")});
    QCOMPARE(log.lines().size(), 1);

    Trace expected = failedWithIdentity(alice, authFactor());
    expected.clientDirectoryOwner = handedOver();
    expected.sharedDirectoryOwner = QStringLiteral("0:0");
    QCOMPARE(Trace::of(f.d).texts(), expected.texts());
}

void TstLaunch::clientDirectoryCannotBeGiven()
{
    MethodFixture f;
    const ReadOnly readOnly(clientDirectory);
    QVERIFY2(readOnly.sealed(), "a read-only mount is needed for this");
    f.d->currentUid = alice;
    LogCapture log(true);
    QVERIFY(!f.d->launchChild());
    QCOMPARE(log.criticals(), QStringList{QStringLiteral("Cannot change owner of directory")});
    QCOMPARE(log.lines().size(), 1);
    QCOMPARE(Trace::of(f.d).texts(), failedWithIdentity(alice, authFactor()).texts());
}

void TstLaunch::prepareEnvironmentAlone()
{
    MethodFixture f;
    f.d->child.uid = bob;
    f.d->child.gid = alice;
    QVERIFY(f.d->prepareEnvironment());
    QCOMPARE(owner(clientDirectory), QStringLiteral("1001:1000"));
    QCOMPARE(owner(sharedDirectory), QStringLiteral("1001:1000"));
    QCOMPARE(owner(sharedParent), QStringLiteral("0:0"));

    // The ownership changes again for the next user.
    f.d->child.uid = alice;
    QVERIFY(f.d->prepareEnvironment());
    QCOMPARE(owner(clientDirectory), QStringLiteral("1000:1000"));
    QCOMPARE(owner(sharedDirectory), QStringLiteral("1000:1000"));
}

/// The entries of a directory, including hidden ones.
static QStringList entries(const QString &directory)
{
    return QDir(directory).entryList(QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot);
}

void TstLaunch::leftByAnotherUser()
{
    // The state after a session of alice's in which she planted various files.
    QVERIFY(QDir().mkpath(clientDirectory));
    QVERIFY(writeFile(aliceFile, "[General]\nattempts=3\nname=Ann\n"));
    QVERIFY(writeFile(sharedDirectory + QStringLiteral("/1001.conf/a/b/c"), "x"));
    QVERIFY(writeSetting(currentPolicy, QStringLiteral("max-attempts"), QStringLiteral("1")));
    QVERIFY(QFile::link(QStringLiteral("/etc/shadow"), sharedDirectory + QStringLiteral("/link")));
    QCOMPARE(mkfifo(QFile::encodeName(sharedDirectory + QStringLiteral("/fifo")).constData(), 0666), 0);
    QVERIFY(QFile::link(QStringLiteral("/tmp/mine"), socketPath));
    for (const char *name : {"", "/1000.conf", "/1001.conf", "/current.conf", "/link", "/fifo"})
        QVERIFY(setOwner(sharedDirectory + QLatin1String(name), alice, authFactor()));
    QVERIFY(setOwner(socketPath, alice, alice));
    QVERIFY(setOwner(clientDirectory, alice, authFactor()));
    QCOMPARE(chmod(QFile::encodeName(clientDirectory).constData(), 0), 0);
    // Root's and bob's own.
    QVERIFY(writeFile(sharedDirectory + QStringLiteral("/notes"), "root's"));
    QVERIFY(writeFile(sharedDirectory + QStringLiteral("/bob"), "bob's"));
    QVERIFY(setOwner(sharedDirectory + QStringLiteral("/bob"), bob, bob));
    QCOMPARE(chmod(QFile::encodeName(sharedDirectory).constData(), 07777), 0);

    // The method ignores a socket that appears before it knows that the process runs.
    setScript({{QStringLiteral("announce"), true}});
    MethodFixture f;
    QVERIFY(f.method.setOptionInternal(0, QStringLiteral("max-attempts"), 8));
    f.daemon.calls.clear();
    QVERIFY(f.d->watcher.addPath(currentPolicy)); // as at her login
    f.d->currentUid = bob;
    LogCapture log;
    QVERIFY(f.d->launchChild());
    const QString group = QString::number(authFactor());
    const QString aside = QStringLiteral("/srv/shared/tarsk/kavet_client.1000");
    const QString clientAside = QStringLiteral("/run/aux-auth/tarsk/kavet_client.1000");
    QCOMPARE(log.warnings(),
             (QStringList{QStringLiteral("Put aside \"%1\" as \"%2\"").arg(clientDirectory, clientAside),
                          QStringLiteral("Put aside \"%1\" as \"%2\"").arg(sharedDirectory, aside)}));
    QCOMPARE(log.lines().size(), 2);
    QVERIFY(!QFileInfo(socketPath).isSymLink()); // bob's client may already have made its socket
    QCOMPARE(entries(sharedDirectory),
             (QStringList{QStringLiteral("1001.conf"), QStringLiteral("bob"), QStringLiteral("notes")}));
    QCOMPARE(owner(sharedDirectory + QStringLiteral("/1001.conf")), QStringLiteral("1001:") + group);
    QCOMPARE(owner(sharedDirectory + QStringLiteral("/notes")), QStringLiteral("0:0"));
    QCOMPARE(readFile(sharedDirectory + QStringLiteral("/notes")), QByteArray("root's"));
    QCOMPARE(owner(sharedDirectory + QStringLiteral("/bob")), QStringLiteral("1001:1001"));
    for (const QString &directory : {clientDirectory, sharedDirectory}) {
        QCOMPARE(owner(directory), QStringLiteral("1001:") + group);
        // Only bob may write there.
        QCOMPARE(mode(directory) & 0022, mode_t(0));
        QCOMPARE(mode(directory) & 0700, mode_t(0700));
    }
    // The files that were put aside are complete and accessible to root only.
    QCOMPARE(owner(aside), QStringLiteral("0:0"));
    QCOMPARE(mode(aside) & 0022, mode_t(0));
    QCOMPARE(owner(aside + QStringLiteral("/1001.conf")), QStringLiteral("1000:") + group);
    QCOMPARE(readFile(aside + QStringLiteral("/1001.conf/a/b/c")), QByteArray("x"));
    // Alice's policy is neither read nor watched any more.
    QVERIFY(f.daemon.calls.isEmpty());
    QVERIFY(!f.d->watcher.files().contains(currentPolicy));
    QTRY_VERIFY(f.d->child.clientRunning);

    // The new directories are watched.
    QVERIFY(writeFile(sharedDirectory + QStringLiteral("/next"), "[General]\nattempts=5\n"));
    QVERIFY(setOwner(sharedDirectory + QStringLiteral("/next"), bob, bob));
    QVERIFY(QFile::rename(sharedDirectory + QStringLiteral("/next"), sharedDirectory + QStringLiteral("/moved")));
    QCOMPARE(rename("/srv/shared/tarsk/kavet_client/moved", "/srv/shared/tarsk/kavet_client/1001.conf"), 0);
    QTRY_COMPARE(f.method.getOptionInternal(bob, QStringLiteral("attempts")), QVariant(QStringLiteral("5")));
    QTRY_VERIFY(f.d->child.socketPresent);

    // Each user gets their own files back.
    f.d->child.uid = alice;
    log.clear();
    QVERIFY(f.d->prepareEnvironment());
    QCOMPARE(owner(sharedDirectory), QStringLiteral("1000:") + group);
    QCOMPARE(entries(sharedDirectory),
             (QStringList{QStringLiteral("1000.conf"), QStringLiteral("1001.conf"), QStringLiteral("current.conf"),
                          QStringLiteral("fifo"), QStringLiteral("link"), QStringLiteral("notes")}));
    QCOMPARE(readFile(aliceFile), QByteArray("[General]\nattempts=3\nname=Ann\n"));
    QCOMPARE(mode(clientDirectory), mode_t(0700)); // The client could not use it otherwise.
    f.d->child.uid = bob;
    QVERIFY(f.d->prepareEnvironment());
    QCOMPARE(entries(sharedDirectory),
             (QStringList{QStringLiteral("1001.conf"), QStringLiteral("bob"), QStringLiteral("notes")}));
    // There is only one such directory per user, however often they take turns.
    for (int i = 0; i < 5; ++i) {
        f.d->child.uid = alice;
        QVERIFY(f.d->prepareEnvironment());
        f.d->child.uid = carol;
        QVERIFY(f.d->prepareEnvironment());
        f.d->child.uid = bob;
        QVERIFY(f.d->prepareEnvironment());
    }
    QCOMPARE(entries(QStringLiteral("/srv/shared/tarsk")),
             (QStringList{QStringLiteral("kavet_client"), QStringLiteral("kavet_client.1000")}));
    f.d->child.uid = 0;
}

/// Launches a client for `user` and ends it.
static bool launchFor(MethodFixture &f, uint user)
{
    f.d->currentUid = user;
    const bool launched = f.d->launchChild();
    f.d->currentUid = 0;
    f.d->child.kill();
    return launched && waitUntil([&f] { return f.d->child.state() == QProcess::NotRunning; });
}

/// Installs a policy of `user`, whose turn it is; without a limit if `limit` is null.
static bool putPolicy(MethodFixture &f, uint user, const QString &limit)
{
    f.d->child.uid = user;
    f.d->child.gid = authFactor();
    const bool put =
        f.d->prepareEnvironment()
        && writeSetting(currentPolicy, limit.isNull() ? QStringLiteral("x") : QStringLiteral("max-attempts"), limit)
        && setOwner(currentPolicy, user, user);
    f.d->handleChildSharedDirectory(sharedDirectory);
    f.d->child.uid = 0;
    return put;
}

void TstLaunch::limitOfAnotherUser_data()
{
    constexpr int unset = -1;
    const QString none;
    const QString one = QStringLiteral("1");
    const QString five = QStringLiteral("5");
    QTest::addColumn<QString>("packaged");
    QTest::addColumn<int>("roots");
    QTest::addColumn<QString>("alices"); // policy
    QTest::addColumn<int>("meanwhile"); // set by root
    QTest::addColumn<QString>("later"); // packaged
    QTest::addColumn<QString>("own"); // policy of bob's
    QTest::addColumn<int>("limit");
    QTest::addColumn<bool>("removed"); // alice's policy
    QTest::addColumn<bool>("restarted");
    for (const bool removed : {false, true}) {
        for (const bool restarted : {false, true}) {
            const QByteArray how = QByteArray(removed ? ", removed" : "") + (restarted ? ", restarted" : "");
            const auto row = [&how](const char *name) -> QTestData & {
                return QTest::addRow("%s%s", name, how.constData());
            };
            row("packaged") << five << unset << one << unset << none << none << 5 << removed << restarted;
            row("root's") << none << 3 << one << unset << none << none << 3 << removed << restarted;
            row("root's, not the packaged") << five << 3 << one << unset << none << none << 3 << removed << restarted;
            row("nothing to go back to") << none << unset << one << unset << none << none << 0 << removed << restarted;
            row("packaged later") << none << unset << one << unset << five << none << 5 << removed << restarted;
            row("packaged later, root's") << none << 3 << one << unset << five << none << 3 << removed << restarted;
            row("none in alice's") << none << 3 << none << unset << none << none << 3 << removed << restarted;
            row("0 in alice's") << none << 3 << QStringLiteral("0") << unset << none << none << 3 << removed
                                << restarted;
            row("root's of that turn") << none << 3 << one << 4 << none << none << 4 << removed << restarted;
            row("as alice's") << none << 3 << QStringLiteral("4") << 4 << none << none << 4 << removed << restarted;
            row("bob has his own") << five << 3 << one << unset << none << QStringLiteral("7") << 7 << removed
                                   << restarted;
            if (!removed)
                row("none of root's") << none << 3 << one << 0 << none << none << 0 << removed << restarted;
        }
    }
}

// A limit set by alice's client does not outlive her turn.
void TstLaunch::limitOfAnotherUser()
{
    QFETCH(QString, packaged);
    QFETCH(int, roots);
    QFETCH(QString, alices);
    QFETCH(int, meanwhile);
    QFETCH(QString, later);
    QFETCH(QString, own);
    QFETCH(int, limit);
    QFETCH(bool, removed);
    QFETCH(bool, restarted);
    const QString maxAttempts = QStringLiteral("max-attempts");
    setScript({{QStringLiteral("socket"), QStringLiteral("never")}});
    if (!packaged.isNull())
        QVERIFY(writeSetting(packagedPolicy, maxAttempts, packaged));
    auto f = std::make_unique<MethodFixture>();
    const auto max = [&f, &maxAttempts] {
        return f->method.getOptionInternal(0, maxAttempts);
    };
    if (roots >= 0)
        QVERIFY(f->method.setOption(0, maxAttempts, roots));
    if (!own.isNull()) {
        QVERIFY(putPolicy(*f, bob, own));
        QCOMPARE(max(), QVariant(own));
    }

    QVERIFY(putPolicy(*f, alice, alices));
    QCOMPARE(max(), alices.isNull() ? QVariant(0) : QVariant(alices));
    if (removed) {
        f->d->watcher.removePath(currentPolicy); // Otherwise it would report another change later.
        QVERIFY(QFile::remove(currentPolicy));
        f->d->handleChildFileChanged(currentPolicy);
        QCOMPARE(max(), QVariant(0));
    }
    if (meanwhile >= 0)
        QVERIFY(f->method.setOption(0, maxAttempts, meanwhile));
    if (!later.isNull())
        QVERIFY(writeSetting(packagedPolicy, maxAttempts, later));
    if (restarted)
        f = std::make_unique<MethodFixture>();
    // In alice's next turn, her policy applies again; nothing else changes.
    const QVariant present = max();
    QVERIFY(launchFor(*f, alice));
    QCOMPARE(max().toInt(), removed ? present.toInt() : alices.toInt());
    if (meanwhile >= 0)
        QVERIFY(f->method.setOption(0, maxAttempts, meanwhile));

    QVERIFY(launchFor(*f, bob));
    QCOMPARE(max().toInt(), limit);
    // The limit is the system's from now on, and bob's does not outlive his turn either.
    QVERIFY(launchFor(*f, carol));
    QCOMPARE(max().toInt(), own.isNull() ? limit : 3);
}

void TstLaunch::limitWhoseFileHasGone()
{
    const QString maxAttempts = QStringLiteral("max-attempts");
    setScript({{QStringLiteral("socket"), QStringLiteral("never")}});
    MethodFixture f;
    QVERIFY(f.method.setOption(0, maxAttempts, 3));

    // Root removes the directory. The late notification must not affect the next user.
    QVERIFY(putPolicy(f, alice, QStringLiteral("1")));
    QVERIFY(QDir(sharedDirectory).removeRecursively());
    QVERIFY(setOwner(clientDirectory, bob, bob)); // No directory is replaced, which would end the watch too.
    // As after a restart, QSettings reads the file instead of remembering the value that it has written.
    const QString systemLimit = QStringLiteral("/var/lib/authd/methods/kavet/system-limit.conf");
    QVERIFY(writeFile(systemLimit, readFile(systemLimit) + '\n'));
    f.d->currentUid = bob;
    QVERIFY(f.d->launchChild());
    QVERIFY(!f.d->watcher.files().contains(currentPolicy));
    QTRY_VERIFY(f.d->child.clientRunning);
    QCOMPARE(f.method.getOptionInternal(0, maxAttempts), QVariant(3));
    QCOMPARE(f.method.getOptionInternal(0, maxAttempts).type(), QVariant::Int);
    f.d->currentUid = 0;
    f.d->child.kill();
    QTRY_COMPARE(f.d->child.state(), QProcess::NotRunning);

    // The removal of alice's policy is noticed in bob's session, before his client is launched.
    QVERIFY(putPolicy(f, alice, QStringLiteral("1")));
    QVERIFY(QFile::remove(currentPolicy));
    f.method.handleUserSessionTriggered(bob, true, false);
    f.d->handleChildFileChanged(currentPolicy);
    QCOMPARE(f.method.getOptionInternal(0, maxAttempts), QVariant(0));
    QVERIFY(launchFor(f, bob));
    QCOMPARE(f.method.getOptionInternal(0, maxAttempts), QVariant(3));

    // Alice removes a policy whose limit has not been taken. She has no limit, but the next user has the system's.
    f.method.handleUserSessionTriggered(alice, true, false);
    QVERIFY(putPolicy(f, alice, QStringLiteral("@Invalid()")));
    QCOMPARE(f.method.getOptionInternal(0, maxAttempts), QVariant(3));
    QVERIFY(QFile::remove(currentPolicy));
    f.d->handleChildFileChanged(currentPolicy);
    QVERIFY(launchFor(f, alice));
    QCOMPARE(f.method.getOptionInternal(0, maxAttempts), QVariant(0));
    QVERIFY(launchFor(f, bob));
    QCOMPARE(f.method.getOptionInternal(0, maxAttempts), QVariant(3));

    // Root starts over.
    QVERIFY(putPolicy(f, alice, QString()));
    QVERIFY(QFile::remove(methodSettings));
    QVERIFY(writeSetting(packagedPolicy, maxAttempts, QStringLiteral("5")));
    QVERIFY(launchFor(f, bob));
    QCOMPARE(f.method.getOptionInternal(0, maxAttempts), QVariant(0));
    f.method.handleUserSessionTriggered(bob, true, false);
    QCOMPARE(f.method.getOptionInternal(0, maxAttempts), QVariant(QStringLiteral("5")));

    // Root starts over during alice's turn. The limit from before does not return.
    QVERIFY(f.method.setOption(0, maxAttempts, 3));
    QVERIFY(putPolicy(f, alice, QStringLiteral("1")));
    QVERIFY(QFile::remove(methodSettings));
    f.method.handleUserSessionTriggered(bob, true, false);
    QVERIFY(launchFor(f, bob));
    QCOMPARE(f.method.getOptionInternal(0, maxAttempts), QVariant(QStringLiteral("5")));
}

// The watcher reports the removal only after the launch of the policy's own user.
void TstLaunch::limitWhoseFileGoesBeforeTheLaunch()
{
    MethodFixture f;
    QVERIFY(putPolicy(f, alice, QStringLiteral("1")));
    QCOMPARE(f.method.getOptionInternal(0, QStringLiteral("max-attempts")), QVariant(QStringLiteral("1")));
    QVERIFY(QFile::remove(currentPolicy));
    f.d->currentUid = alice;
    QVERIFY(f.d->launchChild());
    QTRY_COMPARE(f.method.getOptionInternal(0, QStringLiteral("max-attempts")), QVariant(0));
}

void TstLaunch::limitIsRoots()
{
    // No user has ever had a policy, so root's limit stays when the user changes.
    const QString maxAttempts = QStringLiteral("max-attempts");
    setScript({{QStringLiteral("socket"), QStringLiteral("never")}});
    QVERIFY(writeSetting(packagedPolicy, maxAttempts, QStringLiteral("5")));
    MethodFixture f;
    QVERIFY(launchFor(f, alice));
    QVERIFY(f.method.setOptionInternal(0, maxAttempts, 3));
    QVERIFY(launchFor(f, bob));
    QCOMPARE(f.method.getOptionInternal(0, maxAttempts), QVariant(3));

    // A policy in a directory where no other user has had a turn does not count either.
    QVERIFY(setOwner(sharedDirectory, 0, 0));
    QVERIFY(writeSetting(currentPolicy, maxAttempts, QStringLiteral("0")));
    QVERIFY(setOwner(currentPolicy, bob, bob));
    QVERIFY(launchFor(f, alice));
    QCOMPARE(f.method.getOptionInternal(0, maxAttempts), QVariant(3));
    QVERIFY(QFile::remove(currentPolicy));

    // Once the packaged limit has replaced a user's, the limit in force belongs to no user.
    f.d->handleChildFileChanged(currentPolicy);
    QCOMPARE(f.method.getOptionInternal(0, maxAttempts), QVariant(0));
    f.d->syncPolicy(packagedPolicy, true);
    QVERIFY(launchFor(f, bob));
    QCOMPARE(f.method.getOptionInternal(0, maxAttempts), QVariant(QStringLiteral("5")));
}

void TstLaunch::versionsOfSettings_data()
{
    QTest::addColumn<bool>("inPlace");
    QTest::addColumn<int>("seconds");
    QTest::addColumn<int>("nanoseconds"); // 1: the last bit differs
    QTest::addColumn<int>("limit");
    QTest::newRow("another file") << false << 0 << 0 << 4;
    QTest::newRow("another second") << true << 1 << 0 << 4;
    QTest::newRow("another nanosecond") << true << 0 << 1 << 4;
    // A policy can make the limit slow to read, so nothing reads it again without need.
    QTest::newRow("nothing else") << true << 0 << 0 << 3;
}

// Root's limit replaces alice's. The plugin notices however little the file shows of the change.
void TstLaunch::versionsOfSettings()
{
    QFETCH(bool, inPlace);
    QFETCH(int, seconds);
    QFETCH(int, nanoseconds);
    QFETCH(int, limit);
    const QString maxAttempts = QStringLiteral("max-attempts");
    const QByteArray name = QFile::encodeName(methodSettings);
    setScript({{QStringLiteral("socket"), QStringLiteral("never")}});
    MethodFixture f;
    QVERIFY(f.method.setOption(0, maxAttempts, 4));
    const QByteArray roots = readFile(methodSettings);
    QVERIFY(f.method.setOption(0, maxAttempts, 3));
    QVERIFY(putPolicy(f, alice, QStringLiteral("1")));
    struct stat status = {};
    QCOMPARE(stat(name.constData(), &status), 0);
    QVERIFY(inPlace ? writeFile(methodSettings, roots) : f.method.setOption(0, maxAttempts, 4));
    const timespec times[] = {status.st_atim, {status.st_mtim.tv_sec + seconds, status.st_mtim.tv_nsec ^ nanoseconds}};
    QCOMPARE(utimensat(AT_FDCWD, name.constData(), times, 0), 0);
    QVERIFY(launchFor(f, bob));
    QCOMPARE(f.method.getOptionInternal(0, maxAttempts), QVariant(limit));
}

void TstLaunch::modeIsNotTheFormerUsers()
{
    // Neither the modes of alice's directories nor the daemon's umask matter.
    for (const mode_t mask : {mode_t(0), mode_t(022), mode_t(077)}) {
        for (const mode_t alices : {mode_t(0), mode_t(0500), mode_t(07777)}) {
            reset();
            MethodFixture f;
            f.d->child.gid = authFactor();
            f.d->child.uid = alice;
            QVERIFY(f.d->prepareEnvironment());
            for (const QString &directory : {clientDirectory, sharedDirectory})
                QCOMPARE(chmod(QFile::encodeName(directory).constData(), alices), 0);
            f.d->child.uid = bob;
            const mode_t former = umask(mask);
            const bool prepared = f.d->prepareEnvironment();
            umask(former);
            QVERIFY(prepared);
            for (const QString &directory : {clientDirectory, sharedDirectory})
                QCOMPARE(mode(directory), 0755 & ~mask);
            f.d->child.uid = 0;
        }
    }
}

void TstLaunch::alreadyPutAside()
{
    // The state that an interrupted daemon leaves.
    const QString parent = QStringLiteral("/srv/shared/tarsk");
    QVERIFY(writeFile(parent + QStringLiteral("/kavet_client.1000/first"), "1"));
    QVERIFY(writeFile(sharedDirectory + QStringLiteral("/second"), "2"));
    QVERIFY(setOwner(sharedDirectory, alice, alice));
    QVERIFY(setOwner(sharedDirectory + QStringLiteral("/second"), alice, alice));
    MethodFixture f;
    f.d->child.uid = bob;
    f.d->child.gid = authFactor();
    QVERIFY(f.d->prepareEnvironment());
    QCOMPARE(entries(sharedDirectory), QStringList());
    QCOMPARE(readFile(parent + QStringLiteral("/kavet_client.1000/first")), QByteArray("1"));
    const QStringList others = QDir(parent).entryList({QStringLiteral("kavet_client.1000.*")}, QDir::Dirs);
    QCOMPARE(others.size(), 1);
    QCOMPARE(readFile(parent + QLatin1Char('/') + others.first() + QStringLiteral("/second")), QByteArray("2"));
}

void TstLaunch::filesOfTheSameName()
{
    // Bob's file in alice's directory does not replace the one in his own.
    const QString bobs = QStringLiteral("/bob");
    const QString aside = sharedDirectory + QStringLiteral(".1000");
    QVERIFY(writeFile(sharedDirectory + bobs, "second"));
    QVERIFY(setOwner(sharedDirectory + bobs, bob, bob));
    QVERIFY(setOwner(sharedDirectory, alice, alice));
    QVERIFY(writeFile(sharedDirectory + QStringLiteral(".1001") + bobs, "first"));
    MethodFixture f;
    f.d->child.uid = bob;
    f.d->child.gid = authFactor();
    const LogCapture log;
    QVERIFY(f.d->prepareEnvironment());
    QCOMPARE(readFile(sharedDirectory + bobs), QByteArray("first"));
    QCOMPARE(readFile(aside + bobs), QByteArray("second"));
    QCOMPARE(log.warnings(), QStringList{QStringLiteral("Put aside \"%1\" as \"%2\"").arg(sharedDirectory, aside)});
}

void TstLaunch::hiddenFiles()
{
    const QStringList names = {QStringLiteral("..n"), QStringLiteral(".n")};
    for (const QString &name : names)
        QVERIFY(writeFile(sharedDirectory + QLatin1Char('/') + name, {}));
    QVERIFY(setOwner(sharedDirectory, alice, alice));
    MethodFixture f;
    f.d->child.uid = bob;
    f.d->child.gid = authFactor();
    QVERIFY(f.d->prepareEnvironment());
    QCOMPARE(entries(sharedDirectory), names);
    QVERIFY(!QFile::exists(sharedDirectory + QStringLiteral(".1000")));
}

void TstLaunch::directoryCannotBePutAside()
{
    // This fails while another file system is mounted there. Its content stays unchanged.
    MethodFixture f;
    const QByteArray name = QFile::encodeName(clientDirectory);
    QCOMPARE(mount("none", name.constData(), "tmpfs", 0, nullptr), 0);
    QVERIFY(writeFile(socketPath, "alice's"));
    QVERIFY(setOwner(socketPath, alice, alice));
    QVERIFY(setOwner(clientDirectory, alice, alice));
    f.d->currentUid = bob;
    LogCapture log;
    for (int i = 0; i < 2; ++i) {
        log.clear();
        const bool launched = f.d->launchChild();
        if (launched || owner(clientDirectory) != QLatin1String("1000:1000"))
            umount2(name.constData(), MNT_DETACH);
        QVERIFY(!launched);
        QCOMPARE(log.criticals(), QStringList{QStringLiteral("Cannot change owner of directory")});
        QCOMPARE(log.lines().size(), 1);
        QCOMPARE(owner(clientDirectory), QStringLiteral("1000:1000"));
    }
    umount2(name.constData(), MNT_DETACH);
}

void TstLaunch::ownDirectoryCannotBeMoved()
{
    // Bob's directory is a mount point. Alice's is back in its place afterwards.
    QVERIFY(writeFile(sharedDirectory + QStringLiteral("/file"), "alice's"));
    QVERIFY(setOwner(sharedDirectory, alice, alice));
    const QString bobs = sharedDirectory + QStringLiteral(".1001");
    QVERIFY(QDir().mkdir(bobs));
    const QByteArray name = QFile::encodeName(bobs);
    QCOMPARE(mount("none", name.constData(), "tmpfs", 0, nullptr), 0);
    MethodFixture f;
    f.d->child.uid = bob;
    f.d->child.gid = authFactor();
    const bool prepared = f.d->prepareEnvironment();
    umount2(name.constData(), MNT_DETACH);
    QVERIFY(!prepared);
    QCOMPARE(owner(sharedDirectory), QStringLiteral("1000:1000"));
    QCOMPARE(readFile(sharedDirectory + QStringLiteral("/file")), QByteArray("alice's"));
}

void TstLaunch::noRoomForADirectory()
{
    // Alice has filled up the file system.
    const QString parent = QStringLiteral("/run/aux-auth/tarsk");
    MethodFixture f;
    QCOMPARE(mount("none", QFile::encodeName(parent).constData(), "tmpfs", 0, "nr_inodes=20,mode=755"), 0);
    const auto unmount = qScopeGuard([&parent] { umount2(QFile::encodeName(parent).constData(), MNT_DETACH); });
    QVERIFY(QDir().mkpath(clientDirectory));
    QVERIFY(setOwner(clientDirectory, alice, alice));
    for (int i = 0; writeFile(clientDirectory + QLatin1Char('/') + QString::number(i), {}); ++i)
        QVERIFY(i < 20);
    const QStringList before = entries(clientDirectory);

    f.d->currentUid = bob;
    LogCapture log;
    QVERIFY(!f.d->launchChild());
    QCOMPARE(log.warnings(),
             QStringList{QStringLiteral("Cannot create \"%1.1001\" No space left on device").arg(clientDirectory)});
    QCOMPARE(log.criticals(), QStringList{QStringLiteral("Cannot change owner of directory")});
    QCOMPARE(owner(clientDirectory), QStringLiteral("1000:1000"));
    QCOMPARE(entries(clientDirectory), before);

    // There is free space again.
    for (int i = 0; i < 4; ++i)
        QVERIFY(QFile::remove(clientDirectory + QLatin1Char('/') + QString::number(i)));
    QVERIFY(f.d->launchChild());
    QTRY_VERIFY(f.d->child.clientRunning);
    QCOMPARE(owner(clientDirectory), QStringLiteral("1001:960"));
}

void TstLaunch::linkInAPlaceOfADirectory()
{
    // Only root can create a link there. The directory and the files put aside are at its target.
    const QString elsewhere = QStringLiteral("/srv/shared/elsewhere");
    QVERIFY(QDir().mkpath(elsewhere));
    QVERIFY(QDir().mkpath(QFileInfo(sharedDirectory).path()));
    QVERIFY(QFile::link(elsewhere, sharedDirectory));
    MethodFixture f;
    f.d->child.gid = authFactor();
    f.d->child.uid = alice;
    QVERIFY(f.d->prepareEnvironment());
    QCOMPARE(owner(elsewhere), handedOver());
    QCOMPARE(owner(sharedDirectory), QStringLiteral("0:0"));
    QVERIFY(writeFile(elsewhere + QStringLiteral("/file"), {}));
    QVERIFY(setOwner(elsewhere + QStringLiteral("/file"), alice, alice));
    f.d->child.uid = bob;
    QVERIFY(f.d->prepareEnvironment());
    QVERIFY(QFileInfo(sharedDirectory).isSymLink());
    QCOMPARE(owner(elsewhere), QStringLiteral("1001:%1").arg(authFactor()));
    QCOMPARE(entries(elsewhere), QStringList());
    QCOMPARE(entries(elsewhere + QStringLiteral(".1000")), QStringList{QStringLiteral("file")});
}

void TstLaunch::fileInAPlaceOfADirectory()
{
    // Only root can create it there. It is not given away.
    MethodFixture f;
    QVERIFY(QDir().rmdir(clientDirectory));
    QVERIFY(writeFile(clientDirectory, {}));
    f.d->currentUid = alice;
    const LogCapture log;
    QVERIFY(!f.d->launchChild());
    QCOMPARE(owner(clientDirectory), QStringLiteral("0:0"));
    QCOMPARE(log.criticals(), QStringList{QStringLiteral("Cannot change owner of directory")});
}

void TstLaunch::floodedDirectory()
{
    // The time does not depend on the number of files, because not all are examined.
    constexpr int count = 5000;
    for (int i = 0; i < count; ++i)
        QVERIFY(writeFile(sharedDirectory + QStringLiteral("/%1").arg(i), {}));
    QVERIFY(setOwner(sharedDirectory, alice, alice));
    MethodFixture f;
    f.d->child.uid = bob;
    f.d->child.gid = authFactor();
    const LogCapture log;
    QVERIFY(f.d->prepareEnvironment());
    QCOMPARE(log.warnings(), QStringList{QStringLiteral("Put aside \"%1\" as \"%1.1000\"").arg(sharedDirectory)});
    // These belong to root, so each examined file is moved.
    const int moved = entries(sharedDirectory).size();
    QCOMPARE(moved, 1000);
    QCOMPARE(entries(QStringLiteral("/srv/shared/tarsk/kavet_client.1000")).size(), count - moved);
}

void TstLaunch::descriptorsOfTheClient()
{
    // Independent of the test's own environment.
    for (int descriptor = 3; descriptor < 1024; ++descriptor)
        fcntl(descriptor, F_SETFD, FD_CLOEXEC);
    MethodFixture f;
    f.d->currentUid = alice;
    QVERIFY(f.d->launchChild());
    QTRY_COMPARE(TestDevice::launches().size(), 1);
    QCOMPARE(TestDevice::launches().constFirst().value(QLatin1String("descriptors")).toArray(), (QJsonArray{0, 1, 2}));
}

void TstLaunch::launcherMissing()
{
    QVERIFY(QFile::remove(launcher));
    MethodFixture f;
    f.d->currentUid = alice;
    // The failure to start is reported by QProcess.
    QVERIFY(f.d->launchChild());
    QCOMPARE(f.d->launchBudget, 10u);
    QTRY_COMPARE(f.d->child.state(), QProcess::NotRunning);
    QVERIFY(!f.d->child.clientRunning);
}

void TstLaunch::processThatIsStarting()
{
    // It is still alice's when bob's launch finds it.
    MethodFixture f;
    f.d->currentUid = alice;
    QVERIFY(f.d->launchChild());
    QCOMPARE(f.d->child.state(), QProcess::Starting);
    f.d->currentUid = bob;
    QVERIFY(f.d->launchChild());
    QCOMPARE(f.d->child.clientUid, alice);
}

QTEST_GUILESS_MAIN(TstLaunch)
#include "tst_launch.moc"
