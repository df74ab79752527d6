// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#include "platformtest.h"

#include <authd/libauthd.h>
#include <authd/validationscope.h>

#include <QDeadlineTimer>
#include <QTemporaryDir>
#include <QTest>

#include <cerrno>
#include <csignal>
#include <dlfcn.h>
#include <fcntl.h>
#include <pwd.h>
#include <sys/mount.h>
#include <sys/ptrace.h>
#include <sys/socket.h>
#include <sys/un.h>

namespace {

// A user whom another source than the file has.
constexpr uid_t guest = 3998;
char guestName[] = "one";

} // namespace

extern "C" Q_DECL_EXPORT int getpwuid_r(uid_t uid, passwd *entry, char *buffer, size_t size, passwd **found)
{
    static const auto next = reinterpret_cast<decltype(&getpwuid_r)>(dlsym(RTLD_NEXT, "getpwuid_r"));
    if (uid != guest)
        return next(uid, entry, buffer, size, found);
    *entry = {};
    entry->pw_name = guestName;
    *found = entry;
    return 0;
}

class TstLibAuthd : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase() { PlatformTest::requireDevice(); }
    void init();

    void userName();
    void rememberedUsers();
    void renamedAtOnce();
    void params();

    void newFile_data();
    void newFile();
    void existingFile_data();
    void existingFile();
    void alreadyRestricted();
    void symbolicLinks_data();
    void symbolicLinks();
    void hardLink();
    void directory();
    void specialFiles();
    void missingParent();
    void oddPaths();
    void foreignFile();
    void noDescriptorLeft();
    void closesOnExec();
    void neverOpenToOthers();
    void createsExclusively();
    void createdInBetween();
    void race();

    void emptyScope();
    void scope();

private:
    QString path(const char *name) const { return m_directory->filePath(QLatin1String(name)); }

    QScopedPointer<QTemporaryDir> m_directory;
};

void TstLibAuthd::init()
{
    m_directory.reset(new QTemporaryDir);
    QVERIFY(m_directory->isValid());
    umask(022);
}

void TstLibAuthd::userName()
{
    QCOMPARE(LibAuthd::userName(0), QStringLiteral("root"));
    QCOMPARE(LibAuthd::userName(1000), QStringLiteral("alice"));
    QVERIFY(LibAuthd::userName(4000000000U).isNull());

    // An entry in the device's own file that is larger than any initial buffer.
    const QByteArray users = TestDevice::readFile(QStringLiteral("/etc/passwd"));
    const QByteArray entry = "long:x:3999:3999:" + QByteArray(20000, 'x') + ":/:/bin/false\n";
    QVERIFY(TestDevice::writeFile(QStringLiteral("/etc/passwd"), users + entry));
    const QString name = LibAuthd::userName(3999);
    const QByteArray renamed = QByteArray(entry).replace("long", "longer");
    QVERIFY(TestDevice::writeFile(QStringLiteral("/etc/passwd"), users + renamed));
    const QString newName = LibAuthd::userName(3999);
    QVERIFY(TestDevice::writeFile(QStringLiteral("/etc/passwd"), users));
    QCOMPARE(name, QStringLiteral("long"));
    QCOMPARE(newName, QStringLiteral("longer"));
    QVERIFY(LibAuthd::userName(3999).isNull());
}

void TstLibAuthd::rememberedUsers()
{
    const auto opened = [](int lookups) {
        return PlatformTest::opened([lookups] {
            for (int i = 0; i < lookups; ++i)
                LibAuthd::userName(1000);
        });
    };
    // At first the file may have changed just now.
    QTRY_COMPARE(opened(2), opened(1));
    QCOMPARE(LibAuthd::userName(guest), QStringLiteral("one"));
    qstrcpy(guestName, "two");
    QCOMPARE(LibAuthd::userName(guest), QStringLiteral("two"));
}

void TstLibAuthd::renamedAtOnce()
{
    // A file system of which the times change with the clock's ticks only
    const QByteArray directory = QFile::encodeName(path("ticks"));
    QCOMPARE(mkdir(directory.constData(), 0755), 0);
    QCOMPARE(mount("ramfs", directory.constData(), "ramfs", 0, nullptr), 0);
    const QString file = path("ticks") + QStringLiteral("/passwd");
    const QString users = QStringLiteral("/etc/passwd");
    const QByteArray entries = TestDevice::readFile(users);
    QVERIFY(QFile::remove(users));
    QVERIFY(QFile::link(file, users));

    QStringList names;
    for (const char *name : {"one", "two", "six"}) {
        QVERIFY(TestDevice::writeFile(file, name + QByteArray(":x:3999:3999::/:/bin/false\n")));
        names << LibAuthd::userName(3999);
    }

    QVERIFY(QFile::remove(users));
    QVERIFY(TestDevice::writeFile(users, entries));
    QCOMPARE(umount(directory.constData()), 0);
    QCOMPARE(names, (QStringList{QStringLiteral("one"), QStringLiteral("two"), QStringLiteral("six")}));
}

void TstLibAuthd::params()
{
    using Map = QMap<QString, QVariant>;
    QCOMPARE(LibAuthd::inputRequestParams(2), (Map{{QStringLiteral("input-request-type"), 2}}));
    QCOMPARE(LibAuthd::resultCodeParams(14), (Map{{QStringLiteral("result-code"), 14}}));
    QCOMPARE(LibAuthd::inputRequestParams(0).values().constFirst().userType(), int(QMetaType::Int));
    QCOMPARE(LibAuthd::resultCodeParams(0).values().constFirst().userType(), int(QMetaType::Int));
}

void TstLibAuthd::newFile_data()
{
    QTest::addColumn<int>("mask");
    QTest::newRow("no mask") << 0;
    QTest::newRow("usual mask") << 022;
    QTest::newRow("mask of everything") << 0777;
}

void TstLibAuthd::newFile()
{
    QFETCH(int, mask);
    umask(mode_t(mask));
    const bool done = LibAuthd::restrictPermissions(path("file"));
    umask(022);
    QVERIFY(done);
    QCOMPARE(PlatformTest::mode(path("file")), 0600);
    QVERIFY(QFileInfo(path("file")).isFile());
    QCOMPARE(QFileInfo(path("file")).size(), 0);
}

void TstLibAuthd::existingFile_data()
{
    QTest::addColumn<int>("mode");
    for (const int mode : {0666, 0644, 0601, 0700, 04600, 01600, 0400, 0})
        QTest::newRow(QByteArray::number(mode, 8).constData()) << mode;
}

void TstLibAuthd::existingFile()
{
    QFETCH(int, mode);
    QVERIFY(TestDevice::writeFile(path("file"), "content"));
    QCOMPARE(chmod(QFile::encodeName(path("file")).constData(), mode_t(mode)), 0);
    QVERIFY(LibAuthd::restrictPermissions(path("file")));
    QCOMPARE(PlatformTest::mode(path("file")), 0600);
    QCOMPARE(TestDevice::readFile(path("file")), QByteArray("content"));
}

void TstLibAuthd::alreadyRestricted()
{
    const QByteArray name = QFile::encodeName(path("file"));
    QVERIFY(LibAuthd::restrictPermissions(path("file")));
    struct stat before;
    QCOMPARE(stat(name.constData(), &before), 0);
    QTest::qSleep(20); // Let the clock tick, so that a change of the mode would show in the file's time.
    QVERIFY(LibAuthd::restrictPermissions(path("file")));
    struct stat after;
    QCOMPARE(stat(name.constData(), &after), 0);
    QCOMPARE(after.st_ino, before.st_ino);
    QCOMPARE(after.st_ctim.tv_sec, before.st_ctim.tv_sec);
    QCOMPARE(after.st_ctim.tv_nsec, before.st_ctim.tv_nsec);
}

void TstLibAuthd::symbolicLinks_data()
{
    QTest::addColumn<QString>("target");
    QTest::newRow("to a file") << "file";
    QTest::newRow("to a directory") << ".";
    QTest::newRow("dangling") << "nothing";
    QTest::newRow("to itself") << "link";
}

void TstLibAuthd::symbolicLinks()
{
    QFETCH(QString, target);
    QVERIFY(TestDevice::writeFile(path("file"), "content"));
    QVERIFY(QFile::link(target, path("link")));
    const int directoryMode = PlatformTest::mode(m_directory->path());

    errno = 0;
    QVERIFY(!LibAuthd::restrictPermissions(path("link")));
    QCOMPARE(errno, ELOOP);
    QCOMPARE(PlatformTest::mode(path("file")), 0644);
    QCOMPARE(PlatformTest::mode(m_directory->path()), directoryMode);
    QVERIFY(!QFile::exists(path("nothing")));
    QVERIFY(QFileInfo(path("link")).isSymLink());
}

void TstLibAuthd::hardLink()
{
    QVERIFY(TestDevice::writeFile(path("file"), "content"));
    QCOMPARE(link(QFile::encodeName(path("file")).constData(), QFile::encodeName(path("second")).constData()), 0);
    errno = 0;
    QVERIFY(!LibAuthd::restrictPermissions(path("second")));
    QCOMPARE(errno, EMLINK);
    QCOMPARE(PlatformTest::mode(path("file")), 0644);

    QVERIFY(QFile::remove(path("file")));
    QVERIFY(LibAuthd::restrictPermissions(path("second")));
    QCOMPARE(PlatformTest::mode(path("second")), 0600);
}

void TstLibAuthd::directory()
{
    QVERIFY(QDir().mkpath(path("directory")));
    errno = 0;
    QVERIFY(!LibAuthd::restrictPermissions(path("directory")));
    QCOMPARE(errno, EISDIR);
    QCOMPARE(PlatformTest::mode(path("directory")), 0755);
}

void TstLibAuthd::specialFiles()
{
    // Opening a FIFO for reading would block, and opening it for writing would wake a reader.
    QCOMPARE(mkfifo(QFile::encodeName(path("fifo")).constData(), 0644), 0);
    errno = 0;
    QVERIFY(!LibAuthd::restrictPermissions(path("fifo")));
    QCOMPARE(errno, EINVAL);
    QCOMPARE(PlatformTest::mode(path("fifo")), 0644);

    const int fd = socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    qstrncpy(address.sun_path, QFile::encodeName(path("socket")).constData(), sizeof address.sun_path);
    QCOMPARE(bind(fd, reinterpret_cast<sockaddr *>(&address), sizeof address), 0);
    errno = 0;
    QVERIFY(!LibAuthd::restrictPermissions(path("socket")));
    QCOMPARE(errno, EINVAL);
    QCOMPARE(PlatformTest::mode(path("socket")), 0755);
    close(fd);

    const int mode = PlatformTest::mode(QStringLiteral("/dev/null"));
    errno = 0;
    QVERIFY(!LibAuthd::restrictPermissions(QStringLiteral("/dev/null")));
    QCOMPARE(errno, EINVAL);
    QCOMPARE(PlatformTest::mode(QStringLiteral("/dev/null")), mode);
}

void TstLibAuthd::missingParent()
{
    errno = 0;
    QVERIFY(!LibAuthd::restrictPermissions(path("missing/file")));
    QCOMPARE(errno, ENOENT);
    QVERIFY(!QFile::exists(path("missing")));

    QVERIFY(TestDevice::writeFile(path("file"), "content"));
    errno = 0;
    QVERIFY(!LibAuthd::restrictPermissions(path("file/file")));
    QCOMPARE(errno, ENOTDIR);
}

void TstLibAuthd::oddPaths()
{
    errno = 0;
    QVERIFY(!LibAuthd::restrictPermissions(QString()));
    QCOMPARE(errno, ENOENT);
    errno = 0;
    QVERIFY(!LibAuthd::restrictPermissions(path("file") + QChar(QChar::Null) + QLatin1String("name")));
    QCOMPARE(errno, EINVAL);
    QVERIFY(!QFile::exists(path("file")));
    QVERIFY(LibAuthd::restrictPermissions(path("with space; and $(more)")));
    QCOMPARE(PlatformTest::mode(path("with space; and $(more)")), 0600);
}

void TstLibAuthd::foreignFile()
{
    QVERIFY(TestDevice::writeFile(path("file"), "content"));
    QVERIFY(QFile::setPermissions(m_directory->path(), QFile::Permissions(0x7755)));
    const int error = PlatformTest::inChild([&] {
        if (setresuid(65534, 65534, 65534) != 0)
            return 255;
        return LibAuthd::restrictPermissions(path("file")) ? 254 : errno;
    });
    QCOMPARE(error, EPERM);
    QCOMPARE(PlatformTest::mode(path("file")), 0644);
}

void TstLibAuthd::noDescriptorLeft()
{
    const QDir descriptors(QStringLiteral("/proc/self/fd"));
    QVERIFY(QFile::link(QStringLiteral("nowhere"), path("link")));
    const int before = descriptors.entryList(QDir::NoDotAndDotDot | QDir::AllEntries | QDir::System).size();
    QVERIFY(LibAuthd::restrictPermissions(path("file")));
    QVERIFY(LibAuthd::restrictPermissions(path("file")));
    QVERIFY(!LibAuthd::restrictPermissions(path("link")));
    QVERIFY(!LibAuthd::restrictPermissions(m_directory->path()));
    QCOMPARE(descriptors.entryList(QDir::NoDotAndDotDot | QDir::AllEntries | QDir::System).size(), before);
}

void TstLibAuthd::closesOnExec()
{
    QCOMPARE(PlatformTest::opened([this] { LibAuthd::restrictPermissions(path("file")); }), 2);
    QVERIFY(LibAuthd::restrictPermissions(path("file")));
    QCOMPARE(PlatformTest::opened([this] { LibAuthd::restrictPermissions(path("file")); }), 1);
}

void TstLibAuthd::neverOpenToOthers()
{
    umask(0);
    int found = 0;
    PlatformTest::trace([this] { LibAuthd::restrictPermissions(path("file")); },
                        [&](long, const std::uint64_t *) {
                            const int mode = PlatformTest::mode(path("file"));
                            QVERIFY(mode == -1 || mode == 0600);
                            found += mode == 0600;
                        });
    QVERIFY(found > 0);
}

void TstLibAuthd::createsExclusively()
{
    // Opening a device that has come there in between could have effects.
    std::uint64_t flags = 0;
    const int status = PlatformTest::trace([this] { LibAuthd::restrictPermissions(path("file")); },
                                           [&flags](long number, const std::uint64_t *arguments) {
                                               if (number == SYS_openat && (arguments[2] & O_CREAT))
                                                   flags = arguments[2];
                                           });
    QCOMPARE(status, 0);
    QVERIFY(flags & O_EXCL);
}

void TstLibAuthd::createdInBetween()
{
    // Another process creates the file before each of the steps in turn.
    const QByteArray name = QFile::encodeName(path("file"));
    bool ended = false;
    int steps = 0;
    for (; !ended; ++steps) {
        QFile::remove(path("file"));
        const pid_t child = fork();
        if (child == 0) {
            if (ptrace(PTRACE_TRACEME, 0, nullptr, nullptr) != 0)
                _exit(2);
            raise(SIGSTOP);
            _exit(LibAuthd::restrictPermissions(path("file")) ? 0 : 1);
        }
        int status = 0;
        QCOMPARE(waitpid(child, &status, 0), child);
        for (int step = 0; step < steps && WIFSTOPPED(status); ++step) {
            QCOMPARE(ptrace(PTRACE_SYSCALL, child, nullptr, nullptr), 0L);
            QCOMPARE(waitpid(child, &status, 0), child);
        }
        ended = WIFEXITED(status);
        if (!ended) {
            close(open(name.constData(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644));
            QCOMPARE(ptrace(PTRACE_DETACH, child, nullptr, nullptr), 0L);
            QCOMPARE(waitpid(child, &status, 0), child);
        }
        QVERIFY(WIFEXITED(status));
        QCOMPARE(WEXITSTATUS(status), 0);
        QCOMPARE(PlatformTest::mode(path("file")), 0600);
    }
    QVERIFY(steps > 5);
}

void TstLibAuthd::race()
{
    // Another process keeps replacing the path by nothing, a file and a link. The link's target is never changed, and
    // the result always matches one of these states.
    QVERIFY(TestDevice::writeFile(path("target"), "content"));
    const QByteArray name = QFile::encodeName(path("swapped"));
    const QByteArray target = QFile::encodeName(path("target"));
    const pid_t child = fork();
    if (child == 0) {
        for (;;) {
            unlink(name.constData());
            if (symlink(target.constData(), name.constData()) != 0 && errno != EEXIST)
                _exit(1);
            unlink(name.constData());
            close(creat(name.constData(), 0666));
        }
    }
    int done = 0;
    int refused = 0;
    int other = 0;
    const QDeadlineTimer deadline(60000); // Wait until the other process has run often enough.
    for (int i = 0; i < 20000 || ((done == 0 || refused == 0) && !deadline.hasExpired()); ++i) {
        if (LibAuthd::restrictPermissions(path("swapped")))
            ++done;
        else if (errno == ELOOP)
            ++refused;
        else if (errno != EMLINK) // The file was unlinked during the check.
            ++other;
    }
    QCOMPARE(kill(child, SIGKILL), 0);
    int status = 0;
    QCOMPARE(waitpid(child, &status, 0), child);
    QVERIFY2(WIFSIGNALED(status), "the other process gave up, so nothing has been shown");
    QCOMPARE(other, 0);
    QVERIFY(done > 0);
    QVERIFY(refused > 0);
    QCOMPARE(PlatformTest::mode(path("target")), 0644);
    QCOMPARE(TestDevice::readFile(path("target")), QByteArray("content"));
}

void TstLibAuthd::emptyScope()
{
    const ValidationScope scope;
    QVERIFY(scope.rules().isEmpty());
    QVERIFY(!scope.contains(QStringLiteral("certs")));
    QVERIFY(!scope.contains(QString()));
    QCOMPARE(int(scope.rulesFor(QStringLiteral("certs"))), 0);
}

void TstLibAuthd::scope()
{
    QCOMPARE(int(RootOnly), 1);
    QCOMPARE(int(TypeOfDefault), 2);
    QCOMPARE(int(MethodOnly), 4);

    const QString certs = QStringLiteral("certs");
    const QString limit = QStringLiteral("max-attempts");
    const QString free = QStringLiteral("free");
    const QString both = QStringLiteral("both");
    const ValidationScope::Rules rules = {{RootOnly | TypeOfDefault | MethodOnly, {certs}},
                                          {RootOnly | TypeOfDefault, {limit, both}},
                                          {MethodOnly, {both}},
                                          {ValidationOptions(), {free}}};
    const ValidationScope scope(rules);
    QCOMPARE(scope.rules(), rules);
    QCOMPARE(int(scope.rulesFor(certs)), 7);
    QCOMPARE(int(scope.rulesFor(limit)), 3);
    QCOMPARE(int(scope.rulesFor(both)), 7);
    QCOMPARE(int(scope.rulesFor(free)), 0);
    QCOMPARE(int(scope.rulesFor(QStringLiteral("Certs"))), 0);
    for (const QString &option : {certs, limit, free, both})
        QVERIFY(scope.contains(option));
    QVERIFY(!scope.contains(QStringLiteral("Certs")));

    const ValidationScope copy = scope; // NOLINT(performance-unnecessary-copy-initialization): the copy is the test
    QCOMPARE(copy.rules(), rules);
}

QTEST_APPLESS_MAIN(TstLibAuthd)

#include "tst_libauthd.moc"
