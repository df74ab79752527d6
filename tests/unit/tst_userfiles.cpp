// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#include "files/descriptor.h"
#include "files/replacement.h"
#include "files/userfiles.h"
#include "files/usersettings.h"
#include "filestatus.h"
#include "methodfixture.h"
#include "support/logcapture.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QHash>
#include <QScopeGuard>
#include <QSet>
#include <QTest>
#include <QUuid>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <functional>
#include <memory>

#include <fcntl.h>
#include <grp.h>
#include <linux/capability.h>
#include <sys/inotify.h>
#include <sys/mount.h>
#include <sys/ptrace.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/sysmacros.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

using namespace TestDevice;

namespace {

const QString aliceFile = sharedDirectory + QStringLiteral("/1000.conf");
const QString file = sharedDirectory + QStringLiteral("/file.conf");
/// The content that the user must not obtain through root.
const QString outside = QStringLiteral("/srv/outside");
const QString secret = outside + QStringLiteral("/secret");
const QString attempts = QStringLiteral("attempts");
const QString maxAttempts = QStringLiteral("max-attempts");
constexpr uint clientGroup = 960;
constexpr int sizeLimit = 64 * 1024;

QStringList portraits()
{
    QStringList portraits = {portrait(outside)};
    const QStringList names =
        QDir(outside).entryList(QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot);
    for (const QString &name : names)
        portraits << portrait(outside + QLatin1Char('/') + name);
    return portraits;
}

/// The user and group ids of this process, including the file-system ids, and its capabilities.
QByteArray identity()
{
    QByteArray found;
    const QList<QByteArray> lines = readFile(QStringLiteral("/proc/thread-self/status")).split('\n');
    for (const QByteArray &line : lines) {
        for (const char *field : {"Uid:", "Gid:", "Groups:", "CapEff:"}) {
            if (line.startsWith(field))
                found += line + '\n';
        }
    }
    return found;
}

/// Plants a file of the given kind at `path`; false on failure.
bool plant(const QString &kind, const QString &path)
{
    const QByteArray name = encoded(path);
    QDir().mkpath(QFileInfo(path).path());
    if (kind == QLatin1String("link"))
        return symlink(encoded(secret).constData(), name.constData()) == 0;
    if (kind == QLatin1String("dangling link"))
        return symlink("/srv/outside/nothing", name.constData()) == 0;
    if (kind == QLatin1String("link to a directory"))
        return symlink(encoded(outside).constData(), name.constData()) == 0;
    if (kind == QLatin1String("hard link"))
        return link(encoded(secret).constData(), name.constData()) == 0;
    if (kind == QLatin1String("FIFO"))
        return mkfifo(name.constData(), 0666) == 0;
    if (kind == QLatin1String("device"))
        return mknod(name.constData(), S_IFCHR | 0666, makedev(1, 5)) == 0;
    if (kind == QLatin1String("directory"))
        return mkdir(name.constData(), 0777) == 0;
    if (kind == QLatin1String("socket")) {
        const int descriptor = socket(AF_UNIX, SOCK_STREAM, 0);
        sockaddr_un address = {};
        address.sun_family = AF_UNIX;
        qstrncpy(address.sun_path, name.constData(), sizeof address.sun_path);
        const bool bound = bind(descriptor, reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0;
        close(descriptor);
        return bound;
    }
    return false;
}

constexpr char noDevices[] = "an ordinary user makes no device file";

bool needsRealRoot(const QString &kind)
{
    return kind == QLatin1String("device") && isOrdinaryUsers();
}

struct Kind
{
    const char *name;
    int error;
};

const QVector<Kind> kinds = {
    {"link", ELOOP},  {"dangling link", ELOOP}, {"link to a directory", ELOOP}, {"hard link", EMLINK},
    {"FIFO", EINVAL}, {"device", EINVAL},       {"directory", EISDIR},          {"socket", EINVAL},
};

using SystemCall = __ptrace_syscall_info;

#ifdef SYS_rename
constexpr quint64 renameCall = SYS_rename;
#else
constexpr quint64 renameCall = SYS_renameat;
#endif

/// Whether a system call opens a file with all of `flags`.
bool opens(const SystemCall &call, quint64 flags)
{
    return call.entry.nr == SYS_openat && (call.entry.args[2] & flags) == flags;
}

/// Runs `work` in a child process, and calls `begins` before each of its system calls. Returns the result of `work`,
/// which must be less than 255; -1 on failure.
int traced(const std::function<int()> &work, const std::function<void(const SystemCall &)> &begins)
{
    const pid_t child = fork();
    if (child == 0) {
        if (ptrace(PTRACE_TRACEME, 0, nullptr, nullptr) == -1 || raise(SIGSTOP) != 0)
            _exit(255);
        const int result = work();
        raise(SIGSTOP); // The rest is not traced.
        _exit(result);
    }
    int status = 0;
    if (waitpid(child, &status, 0) != child || !WIFSTOPPED(status)
        || ptrace(PTRACE_SETOPTIONS, child, nullptr, PTRACE_O_TRACESYSGOOD | PTRACE_O_EXITKILL) == -1)
        return -1;
    while (ptrace(PTRACE_SYSCALL, child, nullptr, nullptr) == 0 && waitpid(child, &status, 0) == child
           && WIFSTOPPED(status) && WSTOPSIG(status) != SIGSTOP) {
        SystemCall call = {};
        if (ptrace(PTRACE_GET_SYSCALL_INFO, child, sizeof call, &call) > 0 && call.op == PTRACE_SYSCALL_INFO_ENTRY)
            begins(call);
    }
    if (ptrace(PTRACE_DETACH, child, nullptr, nullptr) == 0)
        waitpid(child, &status, 0);
    return WIFEXITED(status) && WEXITSTATUS(status) != 255 ? WEXITSTATUS(status) : -1;
}

/// Takes a capability from this thread for the lifetime of the object.
class Without
{
public:
    explicit Without(int capability)
    {
        if (syscall(SYS_capget, &m_header, m_former) == -1)
            return;
        __user_cap_data_struct fewer[] = {m_former[0], m_former[1]};
        fewer[CAP_TO_INDEX(capability)].effective &= ~CAP_TO_MASK(capability);
        m_taken = syscall(SYS_capset, &m_header, fewer) == 0;
    }
    ~Without()
    {
        if (m_taken)
            syscall(SYS_capset, &m_header, m_former);
    }
    bool taken() const { return m_taken; }

private:
    __user_cap_header_struct m_header = {_LINUX_CAPABILITY_VERSION_3, 0};
    __user_cap_data_struct m_former[_LINUX_CAPABILITY_U32S_3] = {};
    bool m_taken = false;

    Q_DISABLE_COPY(Without)
};

void addKinds()
{
    QTest::addColumn<QString>("kind");
    QTest::addColumn<int>("error");
    for (const Kind &kind : kinds)
        QTest::newRow(kind.name) << QString::fromLatin1(kind.name) << kind.error;
}

} // namespace

class TstUserFiles : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init();
    void cleanup();

    void refused_data();
    void refused();
    void plantedAsUserFile_data();
    void plantedAsUserFile();
    void plantedByItsUser_data();
    void plantedByItsUser();
    void plantedWhileItIsWatched_data();
    void plantedWhileItIsWatched();
    void plantedAsPolicy_data();
    void plantedAsPolicy();
    void filledWhileItIsCreated();
    void cannotBeCreated();
    void createdButNotGiven();
    void changedWhileItIsPinned_data();
    void changedWhileItIsPinned();
    void linkAbove();

    void modeIsRestricted();
    void changeGroup_data();
    void changeGroup();
    void changeGroupFails();
    void changeGroupTouchesNothingInVain();
    void changeGroupNeedsRoot();

    void movedFrom();
    void descriptorsAreClosed();
    void descriptorsAreNotInherited();
    void newFilesArePrivate();
    void failedCloseKeepsErrno();
    void read();
    void readWithOwnersRights_data();
    void readWithOwnersRights();
    void readSizeLimit();
    void readFails();
    void readWaitsForNoLease();
    void writeReplaces_data();
    void writeReplaces();
    void writeFails_data();
    void writeFails();
    void cannotBeReplaced();
    void removedBeforeItReplaces();
    void writeIsInterrupted();
    void neverTorn();
    void swappedAfterPinning();
    void deletedAfterPinning();
    void coveredAfterPinning();
    void givenAwayAfterPinning();
    void identityIsRestored();
    void identityCannotBeTaken();
    void halfAnIdentity_data();
    void halfAnIdentity();

    void removedWhileHandedOver();
    void movedBeforeHandedOver();
    void handOverWithoutDescriptor_data();
    void handOverWithoutDescriptor();
    void handOverNeedsRoot();

    void settingsRefused_data();
    void settingsRefused();
};

void TstUserFiles::init()
{
    reset();
    QCOMPARE(groupId("auth-factor"), clientGroup);
    QVERIFY(QDir().mkpath(sharedDirectory));
    QVERIFY(setOwner(sharedDirectory, alice, clientGroup));
    QVERIFY(writeFile(secret, "[General]\nattempts=77\nmax-attempts=88\n"));
    QCOMPARE(chmod(encoded(secret).constData(), 0640), 0);
    QCOMPARE(chmod(encoded(outside).constData(), 0750), 0);
    // An upper bound for calls that block.
    alarm(60);
}

void TstUserFiles::cleanup()
{
    alarm(0);
    QVERIFY(QDir(outside).removeRecursively());
}

void TstUserFiles::refused_data()
{
    addKinds();
}

void TstUserFiles::refused()
{
    QFETCH(QString, kind);
    QFETCH(int, error);

    if (needsRealRoot(kind))
        QSKIP(noDevices);
    QVERIFY(plant(kind, file));
    const QStringList before = portraits();
    const QString itself = portrait(file);
    const PinnedFile pinned(file);
    errno = 0;
    QVERIFY(!pinned.isUsable());
    QCOMPARE(errno, error);
    errno = 0;
    QVERIFY(!pinned.changeGroup(alice, clientGroup));
    QCOMPARE(errno, error);
    QByteArray content("as before");
    errno = 0;
    QVERIFY(!pinned.read(content));
    QCOMPARE(errno, error);
    QCOMPARE(content, QByteArray("as before"));
    errno = 0;
    QVERIFY(!pinned.write("new"));
    QCOMPARE(errno, error);
    QCOMPARE(portraits(), before);
    QCOMPARE(portrait(file), itself);
}

void TstUserFiles::plantedAsUserFile_data()
{
    QTest::addColumn<QString>("kind");
    for (const Kind &kind : kinds)
        QTest::newRow(kind.name) << QString::fromLatin1(kind.name);
    for (const char *kind : {"directory with content", "root's", "root's and closed", "another user's"})
        QTest::newRow(kind) << QString::fromLatin1(kind);
}

void TstUserFiles::plantedAsUserFile()
{
    QFETCH(QString, kind);

    if (needsRealRoot(kind))
        QSKIP(noDevices);
    if (kind == QLatin1String("directory with content")) {
        QVERIFY(writeFile(aliceFile + QStringLiteral("/a/b/c"), "x"));
    } else if (kind.startsWith(QLatin1String("root's")) || kind == QLatin1String("another user's")) {
        QVERIFY(writeFile(aliceFile, "[General]\nattempts=66\nother=1\n"));
        QCOMPARE(chmod(encoded(aliceFile).constData(), kind.endsWith(QLatin1String("closed")) ? 0600 : 0644), 0);
        if (!kind.startsWith(QLatin1String("root's")))
            QVERIFY(setOwner(aliceFile, bob, bob));
    } else {
        QVERIFY(plant(kind, aliceFile));
    }
    // The directory may already belong to alice or be given to her now.
    for (const bool first : {true, false}) {
        QVERIFY(setOwner(sharedDirectory, first ? 0 : alice, clientGroup));
        const struct stat before = statusOf(aliceFile);
        const QByteArray content = S_ISREG(before.st_mode) ? readFile(aliceFile) : QByteArray();
        const QByteArray kept = readFile(secret);
        const struct stat secretBefore = statusOf(secret);

        MethodFixture f;
        f.d->currentUid = alice;
        LogCapture log;
        QVERIFY(f.d->launchChild());
        const struct stat made = statusOf(aliceFile);
        QVERIFY(S_ISREG(made.st_mode));
        QVERIFY(made.st_ino != before.st_ino);
        QCOMPARE(made.st_mode & 07777, mode_t(0600));
        QCOMPARE(made.st_nlink, nlink_t(1));
        QCOMPARE(made.st_uid, alice);
        QCOMPARE(made.st_gid, clientGroup);
        QCOMPARE(readFile(aliceFile), QByteArray("[General]\nattempts=0\n"));
        QCOMPARE(f.d->getChildAttempts(), QVariant(QStringLiteral("0")));

        const QStringList found = QDir(sharedDirectory)
                                      .entryList({QStringLiteral("1000.conf.*")},
                                                 QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot);
        QCOMPARE(found.size(), 1);
        QVERIFY(!QUuid(found.first().section(QLatin1Char('.'), 2)).isNull());
        const QString aside = sharedDirectory + QLatin1Char('/') + found.first();
        QCOMPARE(log.warnings(), QStringList{QStringLiteral("Put aside \"%1\" as \"%2\"").arg(aliceFile, aside)});
        QCOMPARE(log.lines().size(), 1);
        const struct stat after = statusOf(aside);
        QCOMPARE(after.st_ino, before.st_ino);
        QCOMPARE(after.st_mode, before.st_mode);
        QCOMPARE(after.st_uid, before.st_uid);
        QCOMPARE(after.st_gid, before.st_gid);
        if (S_ISREG(before.st_mode))
            QCOMPARE(readFile(aside), content);
        QCOMPARE(readFile(secret), kept);
        QCOMPARE(statusOf(secret).st_uid, secretBefore.st_uid);
        QCOMPARE(statusOf(secret).st_mode, secretBefore.st_mode);

        // The next launch finds everything in order.
        log.clear();
        const ino_t inode = made.st_ino;
        MethodFixture next;
        next.d->currentUid = alice;
        QVERIFY(next.d->launchChild());
        QCOMPARE(statusOf(aliceFile).st_ino, inode);
        QVERIFY(log.lines().isEmpty());
        QVERIFY(QFile::remove(aliceFile));
        QCOMPARE(rename(encoded(aside).constData(), encoded(aliceFile).constData()), 0);
    }
}

void TstUserFiles::plantedByItsUser_data()
{
    QTest::addColumn<QString>("kind");
    for (const char *kind : {"link", "hard link", "FIFO", "directory"})
        QTest::newRow(kind) << QString::fromLatin1(kind);
}

// Not even a link to another file of the user's counts.
void TstUserFiles::plantedByItsUser()
{
    QFETCH(QString, kind);

    QVERIFY(setOwner(secret, alice, alice));
    QVERIFY(plant(kind, file));
    QVERIFY(setOwner(file, alice, alice));
    const struct stat planted = statusOf(file);
    const struct stat before = statusOf(secret);
    const LogCapture log;
    const PinnedFile pinned(file, alice, clientGroup);
    QVERIFY(pinned.isUsable());
    QCOMPARE(log.warnings().size(), 1);
    QVERIFY(statusOf(file).st_ino != planted.st_ino);
    QVERIFY(S_ISREG(statusOf(file).st_mode));
    QCOMPARE(statusOf(secret).st_gid, before.st_gid);
    QCOMPARE(statusOf(secret).st_mode, before.st_mode);
}

void TstUserFiles::plantedWhileItIsWatched_data()
{
    addKinds();
}

void TstUserFiles::plantedWhileItIsWatched()
{
    QFETCH(QString, kind);

    if (needsRealRoot(kind))
        QSKIP(noDevices);
    MethodFixture f;
    f.d->currentUid = alice;
    QVERIFY(f.d->launchChild());
    QTRY_VERIFY(f.d->child.clientRunning);
    QVERIFY(QFile::remove(aliceFile));
    QVERIFY(plant(kind, aliceFile));
    const QStringList before = portraits();
    const QString itself = portrait(aliceFile);
    f.daemon.calls.clear();
    LogCapture log;
    // The count is unknown. This is logged once per launch.
    f.d->handleChildSharedDirectory(sharedDirectory);
    f.d->handleChildSharedDirectory(sharedDirectory);
    f.d->handleChildFileChanged(aliceFile);
    const QStringList warning = {
        QStringLiteral("Failed to change owner for \"/srv/shared/tarsk/kavet_client/1000.conf\" to 1000 960")};
    QCOMPARE(log.warnings(), warning);
    QCOMPARE(log.lines().size(), 1);
    const RecordingDaemon::Call unknown = {QStringLiteral("optionChanged"), {alice, attempts, 0, false}};
    QCOMPARE(f.daemon.calls, QVector<RecordingDaemon::Call>{unknown});
    QCOMPARE(f.d->getChildAttempts(), QVariant(0));
    QCOMPARE(portraits(), before);
    QCOMPARE(portrait(aliceFile), itself);

    f.d->child.clientRunning = false;
    QVERIFY(f.d->launchChild());
    f.d->child.clientRunning = true;
    QVERIFY(QFile::remove(aliceFile));
    QVERIFY(plant(kind, aliceFile));
    log.clear();
    f.d->handleChildSharedDirectory(sharedDirectory);
    QCOMPARE(log.warnings(), warning);
}

void TstUserFiles::plantedAsPolicy_data()
{
    addKinds();
}

void TstUserFiles::plantedAsPolicy()
{
    QFETCH(QString, kind);

    if (needsRealRoot(kind))
        QSKIP(noDevices);
    QVERIFY(plant(kind, currentPolicy));
    const QStringList before = portraits();
    const QString itself = portrait(currentPolicy);
    {
        MethodFixture f;
        f.d->currentUid = alice;
        LogCapture log;
        f.method.handleUserSessionTriggered(alice, true, false);
        f.d->handleChildSharedDirectory(sharedDirectory);
        QVERIFY(f.d->launchChild());
        QCOMPARE(f.daemon.calls.size(), 1);
        f.d->handleChildFileChanged(currentPolicy);
        // An unreadable limit counts as no limit.
        const RecordingDaemon::Call unlimited = {QStringLiteral("optionChanged"), {0u, maxAttempts, 0, false}};
        QCOMPARE(f.daemon.calls, QVector<RecordingDaemon::Call>{unlimited});
        QVERIFY(log.lines().isEmpty());
        QTRY_VERIFY(f.d->child.clientRunning);
    }
    QCOMPARE(portraits(), before);
    QCOMPARE(portrait(currentPolicy), itself);
}

void TstUserFiles::filledWhileItIsCreated()
{
    // A file of root's comes and goes while root creates alice's. Root must never give her the wrong one.
    const pid_t mover = fork();
    if (mover == 0) {
        const QByteArray name = encoded(file);
        const QByteArray spare = encoded(outside + QStringLiteral("/spare"));
        for (;;) {
            const int descriptor = open(spare.constData(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
            (void)!write(descriptor, "x", 1);
            close(descriptor);
            rename(spare.constData(), name.constData());
            unlink(name.constData());
        }
    }
    const auto end = qScopeGuard([mover] {
        kill(mover, SIGKILL);
        waitpid(mover, nullptr, 0);
    });
    const LogCapture log;
    for (int made = 0; made < 200 || log.warnings().size() < 10;) {
        const PinnedFile pinned(file, alice, clientGroup);
        if (!pinned.isUsable()) {
            QVERIFY(errno == EAGAIN || errno == EMLINK); // Her file had no link any more.
            continue;
        }
        QByteArray content;
        QVERIFY(pinned.read(content));
        QCOMPARE(content, QByteArray());
        ++made;
    }
}

void TstUserFiles::cannotBeCreated()
{
    const QByteArray directory = encoded(sharedDirectory);
    QCOMPARE(mount("none", directory.constData(), "tmpfs", MS_RDONLY, nullptr), 0);
    const auto unmount = qScopeGuard([&directory] { umount2(directory.constData(), MNT_DETACH); });
    const PinnedFile pinned(file, alice, clientGroup);
    errno = 0;
    QVERIFY(!pinned.isUsable());
    QCOMPARE(errno, EROFS);
    QVERIFY(!pinned.exists());
}

void TstUserFiles::createdButNotGiven()
{
    const Without capabilityNeeded(CAP_CHOWN);
    QVERIFY(capabilityNeeded.taken());
    const PinnedFile pinned(file, alice, clientGroup);
    errno = 0;
    QVERIFY(!pinned.isUsable());
    QCOMPARE(errno, EPERM);
}

void TstUserFiles::changedWhileItIsPinned_data()
{
    QTest::addColumn<QString>("when");
    QTest::addColumn<bool>("isFilled");
    QTest::addColumn<int>("error");
    QTest::addColumn<int>("aside");
    QTest::newRow("created by another") << QStringLiteral("create") << true << 0 << 1;
    QTest::newRow("filled again and again") << QStringLiteral("look") << true << EAGAIN << 16;
    QTest::newRow("removed meanwhile") << QStringLiteral("move") << false << 0 << 0;
    QTest::newRow("removed once created") << QStringLiteral("created") << true << EMLINK << 0;
}

// The directory's owner acts between two of root's system calls.
void TstUserFiles::changedWhileItIsPinned()
{
    QFETCH(QString, when);
    QFETCH(bool, isFilled);
    QFETCH(int, error);
    QFETCH(int, aside);

    const auto fill = [] {
        return writeFile(file, "x") && setOwner(file, bob, bob);
    };
    if (!isFilled)
        QVERIFY(fill());
    bool done = false;
    const LogCapture log;
    const int result = traced(
        [] {
            QByteArray content("as before");
            const PinnedFile pinned(file, alice, clientGroup);
            return pinned.isUsable() && pinned.countsFor(alice) && pinned.read(content) && content.isEmpty() ? 0
                                                                                                             : errno;
        },
        [&](const SystemCall &call) {
            if ((when == QLatin1String("look") && opens(call, O_PATH))
                || (!done && when == QLatin1String("create") && opens(call, O_CREAT | O_EXCL)))
                done = fill();
            else if (!done
                     && ((when == QLatin1String("move") && call.entry.nr == renameCall)
                         || when == QLatin1String("created")))
                done = QFile::remove(file);
        });
    QVERIFY(done);
    QCOMPARE(result, error);
    QCOMPARE(QDir(sharedDirectory).entryList({QStringLiteral("file.conf.*")}, QDir::Files).size(), aside);
}

void TstUserFiles::linkAbove()
{
    // The user controls only the last path element; root controls those above.
    QVERIFY(QFile::link(sharedDirectory, outside + QStringLiteral("/way")));
    QVERIFY(writeFile(file, "x"));
    QByteArray content;
    QVERIFY(PinnedFile(outside + QStringLiteral("/way/file.conf")).read(content));
    QCOMPARE(content, QByteArray("x"));
}

void TstUserFiles::modeIsRestricted()
{
    QVERIFY(writeFile(file, {}));
    QVERIFY(setOwner(file, alice, clientGroup));
    for (const mode_t mode : {0000, 0644, 04600}) {
        QCOMPARE(chmod(encoded(file).constData(), mode), 0);
        QVERIFY(PinnedFile(file, alice, clientGroup).isUsable());
        QCOMPARE(statusOf(file).st_mode & 07777, mode_t(0600));
    }
    // Watchers are not told about a mode that stays.
    const Descriptor watch(inotify_init1(IN_NONBLOCK | IN_CLOEXEC));
    QVERIFY(inotify_add_watch(watch.get(), encoded(file).constData(), IN_ATTRIB) > 0);
    QVERIFY(PinnedFile(file, alice, clientGroup).isUsable());
    char event = 0;
    QVERIFY(::read(watch.get(), &event, sizeof(event)) == -1 && errno == EAGAIN);
}

void TstUserFiles::changeGroup_data()
{
    QTest::addColumn<uint>("uid");
    QTest::addColumn<uint>("gid");
    QTest::addColumn<int>("error");
    QTest::newRow("root's") << 0u << 0u << EPERM;
    QTest::newRow("root's with the group") << 0u << clientGroup << EPERM;
    QTest::newRow("the user's own") << alice << alice << 0;
    QTest::newRow("given already") << alice << clientGroup << 0;
    QTest::newRow("a third user's") << bob << bob << EPERM;
    QTest::newRow("a third user's with the group") << bob << clientGroup << EPERM;
}

void TstUserFiles::changeGroup()
{
    QFETCH(uint, uid);
    QFETCH(uint, gid);
    QFETCH(int, error);

    QVERIFY(writeFile(file, "content"));
    QVERIFY(setOwner(file, uid, gid));
    const QString before = portrait(file);
    errno = 0;
    QCOMPARE(PinnedFile(file).changeGroup(alice, clientGroup), error == 0);
    if (error) {
        QCOMPARE(errno, error);
        QCOMPARE(portrait(file), before);
        return;
    }
    QCOMPARE(statusOf(file).st_uid, alice);
    QCOMPARE(statusOf(file).st_gid, clientGroup);
    QCOMPARE(readFile(file), QByteArray("content"));
}

void TstUserFiles::changeGroupFails()
{
    errno = 0;
    QVERIFY(!PinnedFile(file).changeGroup(alice, clientGroup));
    QCOMPARE(errno, ENOENT);
    QVERIFY(!PinnedFile(QString()).changeGroup(alice, clientGroup));
    QCOMPARE(errno, ENOENT);
    QVERIFY(!PinnedFile(secret + QStringLiteral("/below")).changeGroup(alice, clientGroup));
    QCOMPARE(errno, ENOTDIR);
    QVERIFY(!PinnedFile(QString(5000, QLatin1Char('x'))).changeGroup(alice, clientGroup));
    QCOMPARE(errno, ENAMETOOLONG);

    QVERIFY(writeFile(file, {}));
    QVERIFY(setOwner(file, alice, alice));
    const QByteArray directory = encoded(sharedDirectory);
    QCOMPARE(mount(directory.constData(), directory.constData(), nullptr, MS_BIND, nullptr), 0);
    const auto unmount = qScopeGuard([&directory] { umount2(directory.constData(), MNT_DETACH); });
    QCOMPARE(mount(nullptr, directory.constData(), nullptr, MS_REMOUNT | MS_BIND | MS_RDONLY, nullptr), 0);
    errno = 0;
    QVERIFY(!PinnedFile(file).changeGroup(alice, clientGroup));
    QCOMPARE(errno, EROFS);
    errno = 0;
    QVERIFY(!PinnedFile(file, alice, clientGroup).isUsable()); // its group
    QCOMPARE(errno, EROFS);
    errno = 0;
    QVERIFY(!PinnedFile(file, alice, alice).isUsable()); // its mode
    QCOMPARE(errno, EROFS);
}

void TstUserFiles::changeGroupTouchesNothingInVain()
{
    QVERIFY(writeFile(file, {}));
    QVERIFY(setOwner(file, alice, clientGroup));
    const QString before = portrait(file);
    QVERIFY(PinnedFile(file).changeGroup(alice, clientGroup));
    // This includes the time of the last change.
    QCOMPARE(portrait(file), before);

    // The same for a file just created.
    const QString another = sharedDirectory + QStringLiteral("/another.conf");
    const PinnedFile created(another, alice, clientGroup);
    const QString fresh = portrait(another);
    QVERIFY(created.changeGroup(alice, clientGroup));
    QCOMPARE(portrait(another), fresh);
    QVERIFY(created.countsFor(alice));
    QVERIFY(!created.countsFor(bob));
}

void TstUserFiles::changeGroupNeedsRoot()
{
    QVERIFY(writeFile(file, {}));
    QVERIFY(setOwner(file, alice, alice));
    const PinnedFile pinned(file);
    QCOMPARE(seteuid(alice), 0);
    errno = 0;
    const bool changed = pinned.changeGroup(alice, clientGroup);
    const int error = errno;
    QCOMPARE(seteuid(0), 0);
    QVERIFY(!changed);
    QCOMPARE(error, EPERM);
    QCOMPARE(statusOf(file).st_gid, alice);
}

void TstUserFiles::movedFrom()
{
    QVERIFY(writeFile(file, "content"));
    QVERIFY(setOwner(file, alice, clientGroup));
    const auto from = std::make_unique<PinnedFile>(file);
    const PinnedFile to(std::move(*from));
    QByteArray content;
    QVERIFY(!from->exists());
    QVERIFY(!from->countsFor(alice));
    errno = 0;
    QVERIFY(!from->isUsable());
    QCOMPARE(errno, EBADF);
    QVERIFY(!from->changeGroup(alice, clientGroup));
    QVERIFY(!from->read(content));
    QVERIFY(!from->write("new"));
    QVERIFY(to.read(content));
    QCOMPARE(content, QByteArray("content"));
}

void TstUserFiles::descriptorsAreClosed()
{
    const auto count = [] {
        return QDir(QStringLiteral("/proc/self/fd")).entryList(QDir::AllEntries | QDir::System).size();
    };
    const int before = count();
    const LogCapture log;
    QVERIFY(writeFile(file, {}));
    QVERIFY(setOwner(file, bob, bob));
    {
        const PinnedFile pinned(file, alice, clientGroup); // after bob's file has been put aside
        QByteArray content;
        QVERIFY(pinned.read(content));
        QVERIFY(pinned.write("content"));
    }
    QCOMPARE(handOver(sharedDirectory, bob, clientGroup), HandOver::Replaced);
    QCOMPARE(handOver(sharedDirectory, bob, clientGroup), HandOver::Same);
    QCOMPARE(count(), before);
    QVERIFY(QDir(sharedDirectory + QStringLiteral(".1000")).removeRecursively());
}

void TstUserFiles::descriptorsAreNotInherited()
{
    // Another thread of the daemon may start a program at any moment.
    QVERIFY(writeFile(file, "x"));
    QVERIFY(setOwner(file, bob, bob));
    int opened = 0;
    QStringList inheritable;
    const LogCapture log;
    const int result = traced(
        [] {
            QByteArray content;
            const PinnedFile created(file, alice, clientGroup);
            const PinnedFile found(file);
            return found.read(content) && found.write("content")
                           && handOver(sharedDirectory, bob, clientGroup) == HandOver::Replaced
                       ? 0
                       : 1;
        },
        [&](const SystemCall &call) {
            const quint64 command = call.entry.args[1];
            opened += opens(call, 0) ? 1 : 0;
            if ((opens(call, 0) && !opens(call, O_CLOEXEC)) || (call.entry.nr == SYS_fcntl && command == F_DUPFD))
                inheritable << QString::number(call.entry.args[2], 16);
        });
    QCOMPARE(result, 0);
    QVERIFY(opened > 0);
    QCOMPARE(inheritable, QStringList());
    QVERIFY(QDir(sharedDirectory + QStringLiteral(".1000")).removeRecursively());
}

void TstUserFiles::newFilesArePrivate()
{
    QVector<quint64> modes;
    bool areNew = true;
    const int result = traced([] { return PinnedFile(file, alice, clientGroup).write("content") ? 0 : 1; },
                              [&](const SystemCall &call) {
                                  if (!opens(call, O_CREAT))
                                      return;
                                  areNew = areNew && opens(call, O_EXCL);
                                  modes << call.entry.args[3];
                              });
    QCOMPARE(result, 0);
    QVERIFY(areNew);
    QCOMPARE(modes, (QVector<quint64>{0600, 0600}));
}

void TstUserFiles::failedCloseKeepsErrno()
{
    QVERIFY(writeFile(file, {}));
    const int next = open("/dev/null", O_RDONLY | O_CLOEXEC);
    QCOMPARE(close(next), 0);
    {
        const PinnedFile pinned(file);
        QCOMPARE(close(next), 0);
        errno = ENOSPC;
    }
    QCOMPARE(errno, ENOSPC);
    {
        const Descriptor descriptor(next);
        errno = ENOSPC;
    }
    QCOMPARE(errno, ENOSPC);
}

void TstUserFiles::read()
{
    for (const QByteArray &content : {QByteArray(""), QByteArray("text\n"), QByteArray("\0\xff\n\0", 4)}) {
        QVERIFY(writeFile(file, content));
        QByteArray found("before");
        QVERIFY(PinnedFile(file).read(found));
        QCOMPARE(found, content);
    }
    const QString before = portrait(file);
    QByteArray again;
    const PinnedFile pinned(file);
    QVERIFY(pinned.read(again));
    QVERIFY(pinned.read(again));
    QCOMPARE(again, QByteArray("\0\xff\n\0", 4));
    QCOMPARE(portrait(file), before);
}

void TstUserFiles::readWithOwnersRights_data()
{
    QTest::addColumn<uint>("owner");
    QTest::addColumn<int>("mode");
    QTest::addColumn<bool>("readable");
    QTest::addColumn<bool>("writable");
    QTest::newRow("nobody may") << alice << 0000 << false << false;
    QTest::newRow("owner may write") << alice << 0200 << false << true;
    QTest::newRow("owner may read") << alice << 0400 << true << false;
    QTest::newRow("owner may both") << bob << 0600 << true << true;
    QTest::newRow("all but the owner may") << alice << 0066 << false << false;
    QTest::newRow("root's own") << 0u << 0000 << true << true;
}

void TstUserFiles::readWithOwnersRights()
{
    QFETCH(uint, owner);
    QFETCH(int, mode);
    QFETCH(bool, readable);
    QFETCH(bool, writable);

    QVERIFY(writeFile(file, "old"));
    QVERIFY(setOwner(file, owner, clientGroup));
    QVERIFY(setOwner(sharedDirectory, owner, clientGroup));
    QCOMPARE(chmod(encoded(file).constData(), mode_t(mode)), 0);
    const PinnedFile pinned(file);
    QByteArray content;
    errno = 0;
    QCOMPARE(pinned.read(content), readable);
    if (!readable)
        QCOMPARE(errno, EACCES);
    QCOMPARE(content, readable ? QByteArray("old") : QByteArray());
    errno = 0;
    QCOMPARE(pinned.write("new"), writable);
    if (!writable)
        QCOMPARE(errno, EACCES);
    QCOMPARE(readFile(file), writable ? QByteArray("new") : QByteArray("old"));
    QCOMPARE(statusOf(file).st_uid, owner);
    QCOMPARE(int(statusOf(file).st_mode & 07777), mode);
}

void TstUserFiles::readSizeLimit()
{
    QVERIFY(writeFile(file, "x"));
    QCOMPARE(truncate(encoded(file).constData(), sizeLimit), 0);
    const PinnedFile pinned(file);
    QByteArray content;
    QVERIFY(pinned.read(content));
    QCOMPARE(content.size(), sizeLimit);
    // Also if the file has grown since.
    QCOMPARE(truncate(encoded(file).constData(), sizeLimit + 1), 0);
    errno = 0;
    QVERIFY(!pinned.read(content));
    QCOMPARE(errno, EFBIG);
    QCOMPARE(truncate(encoded(file).constData(), off_t(1) << 40), 0);
    QVERIFY(!pinned.read(content));
    QCOMPARE(errno, EFBIG);
    const QByteArray tooMuch(sizeLimit + 1, 'x');
    errno = 0;
    QVERIFY(!pinned.write(tooMuch));
    QCOMPARE(errno, EFBIG);
}

void TstUserFiles::readFails()
{
    // A regular file that can be opened but not read: this process has no mapping at address 0.
    QByteArray content;
    errno = 0;
    QVERIFY(!PinnedFile(QStringLiteral("/proc/self/mem")).read(content));
    QCOMPARE(errno, EIO);
}

void TstUserFiles::readWaitsForNoLease()
{
    // This file system supports leases.
    const QString leased = QStringLiteral("/run/leased.conf");
    QVERIFY(writeFile(leased, "[General]\nattempts=3\n"));
    const auto remove = qScopeGuard([&leased] { QFile::remove(leased); });
    // The holder ignores the signal that asks it to release the lease.
    const auto handler = signal(SIGIO, SIG_IGN);
    const int holder = open(encoded(leased).constData(), O_RDONLY | O_CLOEXEC);
    QVERIFY(holder != -1);
    const int taken = fcntl(holder, F_SETLEASE, F_RDLCK);
    QVERIFY2(taken == 0, "the file system has no leases");

    const PinnedFile pinned(leased);
    errno = 0;
    QVERIFY(!pinned.write("new"));
    QCOMPARE(errno, EWOULDBLOCK);
    QByteArray content;
    QVERIFY(pinned.read(content));
    close(holder);
    QCOMPARE(content, QByteArray("[General]\nattempts=3\n"));

    const int writer = open(encoded(leased).constData(), O_WRONLY | O_CLOEXEC);
    QVERIFY2(fcntl(writer, F_SETLEASE, F_WRLCK) == 0, "the file system has no leases");
    errno = 0;
    QVERIFY(!pinned.read(content));
    QCOMPARE(errno, EWOULDBLOCK);
    close(writer);
    signal(SIGIO, handler);
}

void TstUserFiles::writeReplaces_data()
{
    QTest::addColumn<QByteArray>("content");
    QTest::newRow("shorter") << QByteArray("ab");
    QTest::newRow("longer") << QByteArray(sizeLimit, 'x');
    QTest::newRow("empty") << QByteArray("");
    QTest::newRow("equal") << QByteArray("content");
}

void TstUserFiles::writeReplaces()
{
    QFETCH(QByteArray, content);

    QVERIFY(writeFile(file, "content"));
    QVERIFY(setOwner(file, alice, clientGroup));
    QCOMPARE(chmod(encoded(file).constData(), 01640), 0);
    const struct stat before = statusOf(file);
    const PinnedFile pinned(file);
    QVERIFY(pinned.write(content));
    QCOMPARE(readFile(file), content);
    // Processes that have the old file open keep its content.
    QByteArray old;
    QVERIFY(pinned.read(old));
    QCOMPARE(old, QByteArray("content"));
    errno = 0;
    QVERIFY(!pinned.write("newer"));
    QCOMPARE(errno, ESTALE);
    QCOMPARE(readFile(file), content);
    const struct stat after = statusOf(file);
    QVERIFY(after.st_ino != before.st_ino);
    QCOMPARE(after.st_mode, before.st_mode);
    QCOMPARE(after.st_uid, alice);
    QCOMPARE(after.st_gid, clientGroup);
    QCOMPARE(QDir(sharedDirectory).entryList(QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot),
             QStringList{QStringLiteral("file.conf")});
}

void TstUserFiles::writeFails_data()
{
    QTest::addColumn<QString>("how");
    QTest::addColumn<int>("error");
    QTest::newRow("no space") << QStringLiteral("no space") << ENOSPC;
    QTest::newRow("hardly any space") << QStringLiteral("hardly any space") << ENOSPC;
    QTest::newRow("no inode") << QStringLiteral("no inode") << ENOSPC;
    QTest::newRow("file size limit") << QStringLiteral("file size limit") << ENOSPC;
    QTest::newRow("all but one byte") << QStringLiteral("all but one byte") << ENOSPC;
    QTest::newRow("no file at all") << QStringLiteral("no file at all") << EFBIG;
    QTest::newRow("directory of somebody else") << QStringLiteral("directory of somebody else") << EACCES;
    QTest::newRow("read-only") << QStringLiteral("read-only") << EROFS;
}

void TstUserFiles::writeFails()
{
    QFETCH(QString, how);
    QFETCH(int, error);

    // Two pages and five inodes: for the directory, the file, and the planted files.
    const QString small = QStringLiteral("/run/small");
    const QString target = small + QStringLiteral("/file.conf");
    const QByteArray content(5000, 'o');
    const QByteArray fresh(6000, 'n');
    QVERIFY(QDir().mkpath(small));
    const auto place = encoded(small);
    const QByteArray options = how == QLatin1String("no inode") ? "nr_inodes=2" : "size=16384";
    QCOMPARE(mount("device", place.constData(), "tmpfs", 0, options.constData()), 0);
    const auto unmount = qScopeGuard([&place] { umount2(place.constData(), MNT_DETACH); });
    QVERIFY(writeFile(target, content));
    QVERIFY(setOwner(target, alice, clientGroup));
    QVERIFY(setOwner(small, how == QLatin1String("directory of somebody else") ? bob : alice, clientGroup));
    QCOMPARE(chmod(place.constData(), 0755), 0);
    if (how == QLatin1String("no space"))
        QVERIFY(writeFile(small + QStringLiteral("/filler"), QByteArray(8192, 'x')));
    if (how == QLatin1String("hardly any space"))
        QVERIFY(writeFile(small + QStringLiteral("/filler"), QByteArray(4096, 'x')));
    if (how == QLatin1String("read-only"))
        QCOMPARE(mount(nullptr, place.constData(), nullptr, MS_REMOUNT | MS_RDONLY, nullptr), 0);
    rlimit former = {};
    QCOMPARE(getrlimit(RLIMIT_FSIZE, &former), 0);
    const auto handler = signal(SIGXFSZ, SIG_IGN);
    const auto restore = qScopeGuard([&] {
        setrlimit(RLIMIT_FSIZE, &former);
        signal(SIGXFSZ, handler);
    });
    const QHash<QString, rlim_t> limits = {{QStringLiteral("file size limit"), 4096},
                                           {QStringLiteral("all but one byte"), rlim_t(fresh.size() - 1)},
                                           {QStringLiteral("no file at all"), 0}};
    if (limits.contains(how)) {
        const rlimit limit = {limits.value(how), former.rlim_max};
        QCOMPARE(setrlimit(RLIMIT_FSIZE, &limit), 0);
    }

    const QString before = portrait(target);
    const QStringList names = QDir(small).entryList(QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot);
    errno = 0;
    QVERIFY(!PinnedFile(target).write(fresh));
    QCOMPARE(errno, error);
    QCOMPARE(portrait(target), before);
    QCOMPARE(QDir(small).entryList(QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot), names);
}

void TstUserFiles::cannotBeReplaced()
{
    errno = 0;
    QVERIFY(!replaceFile(-1, "new"));
    QCOMPARE(errno, EBADF);

    // Without /proc, the file has no path.
    QVERIFY(writeFile(file, "old"));
    const Descriptor pinned(open(encoded(file).constData(), O_PATH | O_CLOEXEC));
    QVERIFY(pinned.isValid());
    QCOMPARE(mount("none", "/proc", "tmpfs", 0, nullptr), 0);
    errno = 0;
    const bool replaced = replaceFile(pinned.get(), "new");
    const int error = errno;
    QCOMPARE(umount2("/proc", MNT_DETACH), 0);
    QVERIFY(!replaced);
    QCOMPARE(error, ENOENT);
    QCOMPARE(readFile(file), QByteArray("old"));

    // The directory needs a descriptor.
    rlimit former = {};
    QCOMPARE(getrlimit(RLIMIT_NOFILE, &former), 0);
    const rlimit none = {0, former.rlim_max};
    QCOMPARE(setrlimit(RLIMIT_NOFILE, &none), 0);
    errno = 0;
    const bool replacedWithout = replaceFile(pinned.get(), "new");
    const int errorWithout = errno;
    QCOMPARE(setrlimit(RLIMIT_NOFILE, &former), 0);
    QVERIFY(!replacedWithout);
    QCOMPARE(errorWithout, EMFILE);
}

void TstUserFiles::removedBeforeItReplaces()
{
    QVERIFY(writeFile(file, "old"));
    QVERIFY(setOwner(file, alice, clientGroup));
    QStringList removed;
    const int result = traced(
        [] { return PinnedFile(file).write("new") ? 0 : errno; },
        [&removed](const SystemCall &call) {
            QDir directory(sharedDirectory, QStringLiteral(".file.conf.*"), QDir::Name, QDir::Files | QDir::Hidden);
            if (call.entry.nr == SYS_renameat && directory.count() == 1 && directory.remove(directory[0]))
                removed << directory[0];
        });
    QCOMPARE(removed.size(), 1);
    QCOMPARE(result, ENOENT);
    QCOMPARE(readFile(file), QByteArray("old"));
}

void TstUserFiles::writeIsInterrupted()
{
    // A writer is repeatedly killed at random points. The file always has the old or the new content.
    const QByteArray one(sizeLimit, '1');
    const QByteArray other(sizeLimit, '2');
    QVERIFY(writeFile(file, one));
    QVERIFY(setOwner(file, alice, clientGroup));
    int replaced = 0;
    for (int round = 0; round < 200; ++round) {
        const pid_t writer = fork();
        if (writer == 0) {
            for (bool isOne = false;; isOne = !isOne)
                PinnedFile(file).write(isOne ? one : other);
        }
        const ino_t inode = statusOf(file).st_ino;
        QTest::qSleep(1 + round % 5);
        kill(writer, SIGKILL);
        waitpid(writer, nullptr, 0);
        const QByteArray content = readFile(file);
        QVERIFY(content == one || content == other);
        QCOMPARE(statusOf(file).st_uid, alice);
        replaced += statusOf(file).st_ino != inode ? 1 : 0;
    }
    QVERIFY(replaced > 0);
    // The same holds for a writer that dies of SIGXFSZ.
    const QString before = portrait(file);
    const pid_t writer = fork();
    if (writer == 0) {
        const rlimit limit = {0, 0};
        setrlimit(RLIMIT_FSIZE, &limit);
        PinnedFile(file).write("new");
        _exit(0);
    }
    int status = 0;
    QCOMPARE(waitpid(writer, &status, 0), writer);
    QVERIFY(WIFSIGNALED(status) && WTERMSIG(status) == SIGXFSZ);
    QCOMPARE(portrait(file), before);
    // What it has left behind is not in the way.
    QVERIFY(PinnedFile(file).write("new"));
    QCOMPARE(readFile(file), QByteArray("new"));
}

void TstUserFiles::neverTorn()
{
    // While the file is rewritten repeatedly, every reader finds the old or the new content.
    const QByteArray one(sizeLimit, '1');
    const QByteArray other(100, '2');
    QVERIFY(writeFile(file, one));
    QVERIFY(setOwner(file, alice, clientGroup));
    const pid_t writer = fork();
    if (writer == 0) {
        for (bool isOne = false;; isOne = !isOne)
            PinnedFile(file).write(isOne ? one : other);
    }
    const auto end = qScopeGuard([writer] {
        kill(writer, SIGKILL);
        waitpid(writer, nullptr, 0);
    });
    QSet<QByteArray> found;
    for (int i = 0; i < 5000 || found.size() < 2; ++i)
        found.insert(readFile(file));
    QCOMPARE(found, (QSet<QByteArray>{one, other}));
}

void TstUserFiles::swappedAfterPinning()
{
    const QString away = sharedDirectory + QStringLiteral("/away");
    for (const Kind &kind : kinds) {
        if (needsRealRoot(QString::fromLatin1(kind.name))) {
            qWarning("Left out: %s", noDevices);
            continue;
        }
        QVERIFY(writeFile(file, "old"));
        QVERIFY(setOwner(file, alice, alice));
        const PinnedFile pinned(file);
        QCOMPARE(rename(encoded(file).constData(), encoded(away).constData()), 0);
        QVERIFY(plant(QString::fromLatin1(kind.name), file));
        const QStringList before = portraits();
        const QString itself = portrait(file);

        QVERIFY(pinned.changeGroup(alice, clientGroup));
        QByteArray content;
        QVERIFY(pinned.read(content));
        QCOMPARE(content, QByteArray("old"));
        QVERIFY(pinned.write("new text"));

        QCOMPARE(portraits(), before);
        QCOMPARE(portrait(file), itself);
        QCOMPARE(readFile(away), QByteArray("new text"));
        QCOMPARE(statusOf(away).st_gid, clientGroup);
        QVERIFY(QFile::remove(away));
        if (S_ISDIR(statusOf(file).st_mode))
            QVERIFY(QDir().rmdir(file));
        else
            QVERIFY(QFile::remove(file));
    }
}

void TstUserFiles::deletedAfterPinning()
{
    // The kernel's name of a deleted file is one that another file can have.
    const QString another = file + QStringLiteral(" (deleted)");
    for (const QString &path : {file, another}) {
        QVERIFY(writeFile(path, "old"));
        QVERIFY(setOwner(path, alice, clientGroup));
    }
    const PinnedFile pinned(file);
    QVERIFY(QFile::remove(file));
    errno = 0;
    QVERIFY(!pinned.write("new"));
    QCOMPARE(errno, ESTALE);
    QCOMPARE(readFile(another), QByteArray("old"));

    // A link of that name can lead to the deleted file.
    QVERIFY(writeFile(file, "old"));
    QVERIFY(setOwner(file, alice, clientGroup));
    QFile open(file);
    QVERIFY(open.open(QIODevice::ReadOnly));
    const PinnedFile linked(file);
    QVERIFY(QFile::remove(file));
    QVERIFY(QFile::remove(another));
    QVERIFY(QFile::link(QStringLiteral("/proc/self/fd/%1").arg(open.handle()), another));
    errno = 0;
    QVERIFY(!linked.write("new"));
    QCOMPARE(errno, ESTALE);
    QVERIFY(QFileInfo(another).isSymLink());
}

void TstUserFiles::coveredAfterPinning()
{
    // The other file system numbers its files alike.
    const QString place = QStringLiteral("/run/place");
    const QString target = place + QStringLiteral("/file.conf");
    const QByteArray name = encoded(place);
    QVERIFY(QDir().mkpath(place));
    const auto cover = [&] {
        return mount("device", name.constData(), "tmpfs", 0, nullptr) == 0 && setOwner(place, alice, alice)
               && writeFile(target, "old") && setOwner(target, alice, alice);
    };
    const auto uncover = qScopeGuard([&name] {
        while (umount2(name.constData(), MNT_DETACH) == 0) { }
    });
    QVERIFY(cover());
    const PinnedFile pinned(target);
    const ino_t inode = statusOf(target).st_ino;
    QVERIFY(cover());
    QCOMPARE(statusOf(target).st_ino, inode);
    errno = 0;
    QVERIFY(!pinned.write("new"));
    QCOMPARE(errno, ESTALE);
    QCOMPARE(readFile(target), QByteArray("old"));
}

void TstUserFiles::givenAwayAfterPinning()
{
    QVERIFY(writeFile(file, "old"));
    QVERIFY(setOwner(file, alice, alice));
    QCOMPARE(chmod(encoded(file).constData(), 0666), 0);
    const PinnedFile pinned(file);
    QVERIFY(setOwner(file, bob, bob));

    // Another process than root's cannot act as the new owner, and does not act as the former one.
    QCOMPARE(setegid(alice), 0);
    QCOMPARE(seteuid(alice), 0);
    errno = 0;
    const bool written = pinned.write("new");
    const int error = errno;
    QCOMPARE(seteuid(0), 0);
    QCOMPARE(setegid(0), 0);
    QVERIFY(!written);
    QCOMPARE(error, EPERM);
    QCOMPARE(readFile(file), QByteArray("old"));

    QVERIFY(setOwner(sharedDirectory, bob, bob));
    QVERIFY(pinned.write("new"));
    QCOMPARE(readFile(file), QByteArray("new"));
    QCOMPARE(statusOf(file).st_uid, bob);
    QCOMPARE(statusOf(file).st_gid, bob);
}

void TstUserFiles::identityIsRestored()
{
    const gid_t own[] = {961, 4, 1002};
    QCOMPARE(setgroups(3, own), 0);
    const auto drop = qScopeGuard([] { setgroups(0, nullptr); });
    const QByteArray before = identity();
    QVERIFY(before.contains("Uid:\t0\t0\t0\t0"));
    QVERIFY(before.contains("Groups:\t4 961 1002"));

    QVERIFY(writeFile(file, "old"));
    QVERIFY(setOwner(file, alice, clientGroup));
    QCOMPARE(chmod(encoded(file).constData(), 0600), 0);
    QByteArray content;
    QVERIFY(PinnedFile(file).read(content));
    QCOMPARE(identity(), before);
    QVERIFY(PinnedFile(file).write("new"));
    QCOMPARE(identity(), before);
    UserSettings(file).setValue(attempts, 1);
    QCOMPARE(identity(), before);

    QCOMPARE(chmod(encoded(file).constData(), 0000), 0);
    QVERIFY(!PinnedFile(file).read(content));
    QCOMPARE(identity(), before);
    QVERIFY(!PinnedFile(file).write("newer"));
    QCOMPARE(identity(), before);

    // Root's rights are restored too, and new files belong to root.
    const QString made = outside + QStringLiteral("/made");
    QVERIFY(writeFile(made, "x"));
    QCOMPARE(statusOf(made).st_uid, 0u);
    QCOMPARE(statusOf(made).st_gid, 0u);
    QVERIFY(!readFile(file).isNull());
}

void TstUserFiles::identityCannotBeTaken()
{
    QVERIFY(writeFile(file, "old"));
    QVERIFY(setOwner(file, bob, bob));
    QCOMPARE(chmod(encoded(file).constData(), 0666), 0);
    const PinnedFile pinned(file);

    // A process of another user than root cannot act as the owner, and keeps its own identity.
    QCOMPARE(seteuid(alice), 0);
    const QByteArray before = identity();
    QByteArray content;
    errno = 0;
    const bool done = pinned.read(content) || pinned.write("new");
    const int error = errno;
    const QByteArray after = identity();
    QCOMPARE(seteuid(0), 0);
    QVERIFY(!done);
    QCOMPARE(error, EPERM);
    QCOMPARE(after, before);
    QCOMPARE(readFile(file), QByteArray("old"));
}

void TstUserFiles::halfAnIdentity_data()
{
    QTest::addColumn<int>("capability");
    QTest::newRow("not the user") << CAP_SETUID;
    QTest::newRow("not the group") << CAP_SETGID;
}

void TstUserFiles::halfAnIdentity()
{
    QFETCH(int, capability);

    QVERIFY(writeFile(file, "old"));
    QVERIFY(setOwner(file, bob, bob));
    const PinnedFile pinned(file);
    const Without capabilityNeeded(capability);
    QVERIFY(capabilityNeeded.taken());
    QByteArray content;
    errno = 0;
    QVERIFY(!pinned.read(content));
    QCOMPARE(errno, EPERM);
    errno = 0;
    QVERIFY(!pinned.write("new"));
    QCOMPARE(errno, EPERM);
    QCOMPARE(readFile(file), QByteArray("old"));
}

void TstUserFiles::removedWhileHandedOver()
{
    const QString aside = sharedDirectory + QStringLiteral(".1000");
    QVERIFY(writeFile(file, {}));
    bool listed = false;
    bool removed = false;
    const int result = traced([] { return handOver(sharedDirectory, bob, clientGroup) == HandOver::Replaced ? 0 : 1; },
                              [&](const SystemCall &call) {
                                  if (listed && !removed)
                                      removed = QFile::remove(aside + QStringLiteral("/file.conf"));
                                  listed = call.entry.nr == SYS_getdents64;
                              });
    QVERIFY(removed);
    QCOMPARE(result, 0);
    QCOMPARE(statusOf(sharedDirectory).st_uid, bob);
    // Root has not seen what has become of the file.
    QVERIFY(QFileInfo::exists(aside));
    QVERIFY(QDir(aside).removeRecursively());
}

void TstUserFiles::movedBeforeHandedOver()
{
    // Afterwards the user could be in the way.
    QVERIFY(writeFile(file, "x"));
    QVERIFY(setOwner(file, bob, bob));
    QStringList order;
    const LogCapture log;
    const int result = traced([] { return handOver(sharedDirectory, bob, clientGroup) == HandOver::Replaced ? 0 : 1; },
                              [&order](const SystemCall &call) {
                                  if (call.entry.nr == SYS_renameat2 && call.entry.args[4] == RENAME_NOREPLACE)
                                      order << QStringLiteral("move");
                                  if (call.entry.nr == SYS_fchown && call.entry.args[1] == bob)
                                      order << QStringLiteral("hand over");
                              });
    QCOMPARE(result, 0);
    QCOMPARE(order, (QStringList{QStringLiteral("move"), QStringLiteral("hand over")}));
    QCOMPARE(statusOf(file).st_uid, bob);
}

void TstUserFiles::handOverWithoutDescriptor_data()
{
    QTest::addColumn<int>("left");
    QTest::addColumn<bool>("replaced");
    QTest::newRow("for the former directory") << 1 << false;
    QTest::newRow("for the former directory and the present one") << 2 << true;
}

void TstUserFiles::handOverWithoutDescriptor()
{
    QFETCH(int, left);
    QFETCH(bool, replaced);
    QVERIFY(writeFile(file, {}));
    std::array<int, 3> next = {};
    for (int &descriptor : next)
        descriptor = open("/dev/null", O_RDONLY | O_CLOEXEC);
    for (const int descriptor : next)
        QCOMPARE(close(descriptor), 0);
    rlimit former = {};
    QCOMPARE(getrlimit(RLIMIT_NOFILE, &former), 0);
    const rlimit limit = {rlim_t(next.at(size_t(left))), former.rlim_max};
    QCOMPARE(setrlimit(RLIMIT_NOFILE, &limit), 0);
    const LogCapture log;
    const HandOver result = handOver(sharedDirectory, bob, clientGroup);
    QCOMPARE(setrlimit(RLIMIT_NOFILE, &former), 0);

    QCOMPARE(result, replaced ? HandOver::Replaced : HandOver::Failed);
    QCOMPARE(statusOf(sharedDirectory).st_uid, replaced ? bob : 0);
    // The files that could not be listed are put aside.
    const QString aside = sharedDirectory + QStringLiteral(".1000");
    QVERIFY(QFileInfo::exists(aside + QStringLiteral("/file.conf")));
    QCOMPARE(log.warnings(), QStringList{QStringLiteral("Put aside \"%1\" as \"%2\"").arg(sharedDirectory, aside)});
    QVERIFY(QDir(aside).removeRecursively());
}

void TstUserFiles::handOverNeedsRoot()
{
    QVERIFY(writeFile(file, {}));
    const Without capabilityNeeded(CAP_CHOWN);
    QVERIFY(capabilityNeeded.taken());
    QCOMPARE(handOver(sharedDirectory, bob, clientGroup), HandOver::Failed);
    // Nothing moves while the directory is still alice's.
    const QString aside = sharedDirectory + QStringLiteral(".1000");
    QVERIFY(QFileInfo::exists(aside + QStringLiteral("/file.conf")));
    QVERIFY(QDir(aside).removeRecursively());
}

void TstUserFiles::settingsRefused_data()
{
    addKinds();
}

void TstUserFiles::settingsRefused()
{
    QFETCH(QString, kind);

    if (needsRealRoot(kind))
        QSKIP(noDevices);
    QVERIFY(plant(kind, file));
    const QStringList before = portraits();
    const QString itself = portrait(file);
    {
        UserSettings settings(file);
        QCOMPARE(settings.value(attempts, 7), QVariant(7));
        settings.setValue(attempts, 8);
        QCOMPARE(settings.value(attempts, 7), QVariant(7));
    }
    QCOMPARE(portraits(), before);
    QCOMPARE(portrait(file), itself);
}

QTEST_GUILESS_MAIN(TstUserFiles)
#include "tst_userfiles.moc"
