// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#include "client/childprocess.h"
#include "support/logcapture.h"
#include "support/testdevice.h"

#include <QByteArrayList>
#include <QFile>
#include <QLoggingCategory>
#include <QRandomGenerator>
#include <QRegularExpression>
#include <QScopeGuard>
#include <QTemporaryFile>
#include <QTest>

#include <algorithm>
#include <cerrno>
#include <csignal>

#include <grp.h>
#include <sys/ptrace.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

const QString groupFile = QStringLiteral("/etc/group");
const QString linkTarget = QStringLiteral("/opt/manifests/client.desktop");
const QString manifestFailure =
    QStringLiteral("Cannot open or parse manifest file \"/usr/share/applications/tarsk.kavet_client.desktop\"");
const QByteArray validManifest = "[X-Application]\nOrganizationName=tarsk\nApplicationName=kavet_client\n"
                                 "ExecCmd=/usr/bin/tarsk.kavet_client --quiet  -x\n";

bool removeManifest()
{
    const QByteArray path = QFile::encodeName(TestDevice::manifest);
    return unlink(path.constData()) == 0 || rmdir(path.constData()) == 0;
}

bool linkManifest(const QString &target)
{
    return removeManifest() && QFile::link(target, TestDevice::manifest);
}

/// Runs a program that prints its identity. Returns the lines of /proc/self/status by name, with their values in order,
/// and standard error as "stderr".
QMap<QString, QString> identityOfClient(ChildProcess &child)
{
    child.start(QStringLiteral("/bin/cat"), {QStringLiteral("/proc/self/status")});
    QMap<QString, QString> identity;
    if (!child.waitForFinished() || child.exitStatus() != QProcess::NormalExit || child.exitCode() != 0)
        return identity;
    const QStringList lines = QString::fromUtf8(child.readAllStandardOutput()).split(QLatin1Char('\n'));
    for (const QString &line : lines) {
        const int colon = line.indexOf(QLatin1Char(':'));
        identity.insert(line.left(colon), line.mid(colon + 1).simplified());
    }
    identity.insert(QStringLiteral("stderr"), QString::fromUtf8(child.readAllStandardError()));
    return identity;
}

/// Writes the child's real, effective and saved user and group ids before exec, which copies the effective ids to the
/// saved ones.
class IdWriter : public ChildProcess
{
public:
    IdWriter()
        : ChildProcess(nullptr)
    {
    }

protected:
    void setupChildProcess() override
    {
        ChildProcess::setupChildProcess();
        uid_t ids[6] = {};
        getresuid(&ids[0], &ids[1], &ids[2]);
        getresgid(&ids[3], &ids[4], &ids[5]);
        (void)!::write(STDOUT_FILENO, ids, sizeof ids);
    }
};

/// Gives up root in this process, without a fork.
class Unforked : public ChildProcess
{
public:
    Unforked()
        : ChildProcess(nullptr)
    {
    }
    using ChildProcess::setupChildProcess;
};

/// The values of a status line in which the real, effective, saved and file-system ids are equal.
QString four(uint id)
{
    return QStringLiteral("%1 %1 %1 %1").arg(id);
}

/// Runs `work` in a forked process that has dropped root permanently; returns its output.
template <typename Work>
QByteArray asOrdinaryUser(uint uid, Work work)
{
    int ends[2];
    if (pipe(ends) != 0)
        return {};
    const pid_t helper = fork();
    if (helper == 0) {
        if (setgroups(0, nullptr) != 0 || setresgid(uid, uid, uid) != 0 || setresuid(uid, uid, uid) != 0)
            _exit(1);
        const QByteArray result = work();
        _exit(write(ends[1], result.constData(), size_t(result.size())) == result.size() ? 0 : 1);
    }
    close(ends[1]);
    QFile reader;
    reader.open(ends[0], QIODevice::ReadOnly, QFileDevice::AutoCloseHandle);
    const QByteArray result = reader.readAll();
    int status = 0;
    waitpid(helper, &status, 0);
    return WIFEXITED(status) && WEXITSTATUS(status) == 0 ? result : QByteArray();
}

const QByteArray pluginCategory = QByteArrayLiteral("authd.method.kavet");

} // namespace

/// The client's process object: its manifest and its identity.
class TstChildProcess : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase()
    {
        QVERIFY(TestDevice::isDevice());
        m_groups = TestDevice::readFile(groupFile);
        QVERIFY(TestDevice::groupId("auth-factor") != 0);
        QVERIFY(TestDevice::groupId("inet") != 0);

        // First of all, while nothing else has made the category.
        s_categories.clear();
        s_otherFilter = QLoggingCategory::installFilter(noteCategory);
        const bool madeBefore = s_categories.contains(pluginCategory);
        const ChildProcess child(nullptr);
        m_madeByConstructor = !madeBefore && s_categories.contains(pluginCategory);
        QLoggingCategory::installFilter(s_otherFilter);
    }

    void init()
    {
        TestDevice::reset();
        QFile::remove(linkTarget);
        QVERIFY(TestDevice::writeFile(TestDevice::manifest, validManifest));
    }

    void cleanup() { QVERIFY(TestDevice::writeFile(groupFile, m_groups)); }

    // Made in the forked child, the category could wait for ever for a lock that another thread held at the fork.
    void categoryIsMadeBeforeTheFork() { QVERIFY(m_madeByConstructor); }

    void construction()
    {
        QObject parent;
        const ChildProcess child(&parent);
        QCOMPARE(child.parent(), &parent);
        verifyCleared(child);
        QCOMPARE(child.state(), QProcess::NotRunning);
        QCOMPARE(child.metaObject(), &QProcess::staticMetaObject);
    }

    void fieldOrder()
    {
        const ChildProcess child(nullptr);
        const QVector<const void *> fields = {&child.uid,
                                              &child.gid,
                                              &child.orgName,
                                              &child.appName,
                                              &child.exec,
                                              &child.clientStarting,
                                              &child.clientRunning,
                                              &child.socketPresent,
                                              &child.sharedDirectory,
                                              &child.userConfigPath,
                                              &child.homeDirectory,
                                              &child.manifestLinkTarget,
                                              &child.manifestExists,
                                              &child.manifestIsSymLink,
                                              &child.manifestParsed};
        QVERIFY(std::is_sorted(fields.cbegin(), fields.cend()));
    }

    // --- Finding the manifest

    void detectNoManifest()
    {
        QVERIFY(removeManifest());
        const LogCapture log(true);
        ChildProcess child(nullptr);
        QVERIFY(!child.detectManifest());
        verifyCleared(child);
        QVERIFY(!child.tryToParseManifest());
        verifyCleared(child);
        QVERIFY(log.lines().isEmpty());
    }

    void detectFile()
    {
        const LogCapture log(true);
        ChildProcess child(nullptr);
        QVERIFY(child.detectManifest());
        verifyParsed(child);
        QVERIFY(!child.manifestIsSymLink);
        QVERIFY(child.manifestLinkTarget.isEmpty());
        QVERIFY(log.lines().isEmpty());
    }

    void detectLink()
    {
        QVERIFY(TestDevice::writeFile(linkTarget, validManifest));
        QVERIFY(linkManifest(linkTarget));
        const LogCapture log(true);
        ChildProcess child(nullptr);
        QVERIFY(child.detectManifest());
        verifyParsed(child);
        QVERIFY(child.manifestIsSymLink);
        QCOMPARE(child.manifestLinkTarget, linkTarget);
        QVERIFY(log.lines().isEmpty());
    }

    void detectRelativeLink()
    {
        QVERIFY(TestDevice::writeFile(linkTarget, validManifest));
        QVERIFY(removeManifest());
        QCOMPARE(symlink("../../../opt/manifests/client.desktop", QFile::encodeName(TestDevice::manifest).constData()),
                 0);
        ChildProcess child(nullptr);
        QVERIFY(child.detectManifest());
        verifyParsed(child);
        QCOMPARE(child.manifestLinkTarget, linkTarget);
    }

    void detectDanglingLink()
    {
        QVERIFY(linkManifest(linkTarget));
        const LogCapture log(true);
        ChildProcess child(nullptr);
        child.manifestParsed = true;
        QVERIFY(child.detectManifest());
        QVERIFY(child.manifestExists);
        QVERIFY(child.manifestIsSymLink);
        QVERIFY(!child.manifestParsed);
        QCOMPARE(child.manifestLinkTarget, linkTarget);
        QVERIFY(child.exec.isEmpty());
        QVERIFY(child.sharedDirectory.isEmpty());
        QVERIFY(log.lines().isEmpty());

        // Once the link's target appears, it is read once.
        QVERIFY(TestDevice::writeFile(linkTarget, validManifest));
        QVERIFY(child.tryToParseManifest());
        verifyParsed(child);
        QVERIFY(QFile::remove(linkTarget));
        QVERIFY(child.tryToParseManifest());
        verifyParsed(child);
        QVERIFY(log.lines().isEmpty());
    }

    void danglingLinkThatIsTried()
    {
        QVERIFY(linkManifest(linkTarget));
        const LogCapture log(true);
        ChildProcess child(nullptr);
        QVERIFY(child.detectManifest());
        QVERIFY(!child.tryToParseManifest());
        QVERIFY(!child.manifestExists);
        QVERIFY(!child.manifestParsed);
        QVERIFY(child.manifestIsSymLink);
        QCOMPARE(log.criticals(), QStringList(manifestFailure));

        QVERIFY(!child.tryToParseManifest());
        QCOMPARE(log.lines().size(), 1);
    }

    void linkToALink()
    {
        // Only the link's direct target counts, even if that is a link itself.
        const QString second = QStringLiteral("/opt/manifests/second.desktop");
        QFile::remove(second);
        QVERIFY(TestDevice::writeFile(linkTarget, {}));
        QVERIFY(QFile::remove(linkTarget));
        QVERIFY(QFile::link(second, linkTarget));
        QVERIFY(linkManifest(linkTarget));
        ChildProcess child(nullptr);
        QVERIFY(child.detectManifest());
        QVERIFY(!child.manifestParsed);
        QCOMPARE(child.manifestLinkTarget, linkTarget);

        QVERIFY(TestDevice::writeFile(second, validManifest));
        QVERIFY(child.tryToParseManifest());
        verifyParsed(child);
    }

    void tryToParse_data()
    {
        QTest::addColumn<bool>("exists");
        QTest::addColumn<bool>("parsed");
        QTest::addColumn<bool>("link");
        QTest::addColumn<bool>("usable");
        QTest::addColumn<bool>("read");

        QTest::newRow("nothing") << false << false << false << false << false;
        QTest::newRow("missing, though a link") << false << false << true << false << false;
        QTest::newRow("missing, though read") << false << true << false << false << false;
        QTest::newRow("missing, though a link that was read") << false << true << true << false << false;
        QTest::newRow("file") << true << false << false << false << false;
        QTest::newRow("link") << true << false << true << true << true;
        QTest::newRow("file that was read") << true << true << false << true << false;
        QTest::newRow("link that was read") << true << true << true << true << false;
    }

    void tryToParse()
    {
        QFETCH(bool, exists);
        QFETCH(bool, parsed);
        QFETCH(bool, link);
        QFETCH(bool, usable);
        QFETCH(bool, read);

        ChildProcess child(nullptr);
        child.manifestExists = exists;
        child.manifestParsed = parsed;
        child.manifestIsSymLink = link;
        QCOMPARE(child.tryToParseManifest(), usable);
        QCOMPARE(!child.exec.isEmpty(), read);
        QCOMPARE(child.manifestExists, exists);
        QCOMPARE(child.manifestParsed, parsed || read);
        QCOMPARE(child.manifestIsSymLink, link);
    }

    // --- Reading the manifest

    void parseUtf8()
    {
        QVERIFY(TestDevice::writeManifest(QStringLiteral("tàrsk орг"), QStringLiteral("kävet клиент"),
                                          QStringLiteral("/usr/bin/ключ --ä ö"), {}));
        ChildProcess child(nullptr);
        QVERIFY(child.parseManifest());
        QCOMPARE(child.orgName, QStringLiteral("tàrsk орг"));
        QCOMPARE(child.appName, QStringLiteral("kävet клиент"));
        QCOMPARE(child.exec, QStringLiteral("/usr/bin/ключ --ä ö"));
        QCOMPARE(child.sharedDirectory, QStringLiteral("/srv/shared/tàrsk орг/kävet клиент"));
    }

    void parseMissingNames_data()
    {
        QTest::addColumn<QString>("organization");
        QTest::addColumn<QString>("application");

        QTest::newRow("no organisation") << QString() << QStringLiteral("app");
        QTest::newRow("empty organisation") << QString::fromLatin1("") << QStringLiteral("app");
        QTest::newRow("no application") << QStringLiteral("org") << QString();
        QTest::newRow("empty application") << QStringLiteral("org") << QString::fromLatin1("");
        QTest::newRow("neither") << QString() << QString();
    }

    void parseMissingNames()
    {
        QFETCH(QString, organization);
        QFETCH(QString, application);

        QVERIFY(TestDevice::writeManifest(organization, application, QStringLiteral("/usr/bin/client"), {}));
        const LogCapture log(true);
        ChildProcess child(nullptr);
        QVERIFY(child.detectManifest());
        QVERIFY(child.manifestExists);
        QVERIFY(child.manifestParsed);
        QCOMPARE(child.orgName, organization);
        QCOMPARE(child.appName, application);
        QCOMPARE(child.exec, QStringLiteral("/usr/bin/client"));
        QVERIFY(child.sharedDirectory.isEmpty());

        // Earlier names are replaced, but the directory stays.
        child.orgName = child.appName = child.exec = QStringLiteral("before");
        child.sharedDirectory = QStringLiteral("/srv/shared/before/before");
        QVERIFY(child.parseManifest());
        QCOMPARE(child.orgName, organization);
        QCOMPARE(child.appName, application);
        QCOMPARE(child.exec, QStringLiteral("/usr/bin/client"));
        QCOMPARE(child.sharedDirectory, QStringLiteral("/srv/shared/before/before"));
        QVERIFY(log.lines().isEmpty());
    }

    void parseWithoutCommand()
    {
        QVERIFY(TestDevice::writeManifest(QStringLiteral("org"), QStringLiteral("app"), QString(), {}));
        ChildProcess child(nullptr);
        child.exec = QStringLiteral("before");
        QVERIFY(child.parseManifest());
        QVERIFY(child.exec.isEmpty());
        QCOMPARE(child.sharedDirectory, QStringLiteral("/srv/shared/org/app"));
    }

    void parseAgain()
    {
        ChildProcess child(nullptr);
        QVERIFY(child.detectManifest());
        QVERIFY(TestDevice::writeManifest(QStringLiteral("org"), QStringLiteral("app"), QStringLiteral("/x"), {}));
        QVERIFY(child.parseManifest());
        QCOMPARE(child.orgName, QStringLiteral("org"));
        QCOMPARE(child.appName, QStringLiteral("app"));
        QCOMPARE(child.exec, QStringLiteral("/x"));
        QCOMPARE(child.sharedDirectory, QStringLiteral("/srv/shared/org/app"));
    }

    void malformed_data()
    {
        QTest::addColumn<QByteArray>("content");

        QTest::newRow("empty") << QByteArray("");
        QTest::newRow("truncated in the group") << validManifest.left(5);
        QTest::newRow("truncated in a key") << validManifest.left(validManifest.indexOf("Organ") + 4);
        QTest::newRow("not UTF-8") << QByteArray(validManifest).replace("tarsk", "t\xff\xferk");
        QTest::newRow("zero") << QByteArray(validManifest).replace("tarsk", QByteArray("t\0rk", 4));
        QTest::newRow("other group") << QByteArray(validManifest).replace("X-Application", "Desktop Entry");
        QTest::newRow("no group") << validManifest.mid(validManifest.indexOf('\n') + 1);
        QTest::newRow("XML") << QByteArray("<?xml version=\"1.0\"?><application/>");

        QByteArray noise(10 * 1024 * 1024, Qt::Uninitialized);
        QRandomGenerator random(20260101);
        std::generate(noise.begin(), noise.end(), [&random] { return char(random.bounded(256)); });
        QTest::newRow("10 MB of noise") << noise;
        std::generate(noise.begin(), noise.end(), [&random] { return char(random.bounded(32, 127)); });
        QTest::newRow("10 MB of text") << noise;
        QTest::newRow("10 MB of one line") << QByteArray(10 * 1024 * 1024, '[');
    }

    void malformed()
    {
        QFETCH(QByteArray, content);

        QVERIFY(TestDevice::writeFile(TestDevice::manifest, content));
        verifyUnreadable(false);
    }

    void malformedLater()
    {
        ChildProcess child(nullptr);
        QVERIFY(child.detectManifest());
        QVERIFY(TestDevice::writeFile(TestDevice::manifest, "noise"));
        QVERIFY(!child.parseManifest());
        QVERIFY(!child.manifestExists);
        QVERIFY(!child.manifestParsed);
        // What has been read from it remains.
        child.manifestExists = child.manifestParsed = true;
        verifyParsed(child);
    }

    void malformedBehindALink()
    {
        QVERIFY(TestDevice::writeFile(linkTarget, "noise"));
        QVERIFY(linkManifest(linkTarget));
        verifyUnreadable(true);
    }

    void truncatedBehindTheNames()
    {
        // The existing keys are read.
        QVERIFY(TestDevice::writeFile(TestDevice::manifest, validManifest.left(validManifest.indexOf("ExecCmd"))));
        ChildProcess child(nullptr);
        QVERIFY(child.detectManifest());
        QVERIFY(child.manifestParsed);
        QVERIFY(child.exec.isEmpty());
        QCOMPARE(child.sharedDirectory, TestDevice::sharedDirectory);
    }

    void notAFile_data()
    {
        QTest::addColumn<QString>("what");

        QTest::newRow("directory") << QStringLiteral("directory");
        QTest::newRow("FIFO") << QStringLiteral("fifo");
        QTest::newRow("device") << QStringLiteral("device");
        QTest::newRow("link to a directory") << QStringLiteral("/tmp");
        QTest::newRow("link to an input or output error") << QStringLiteral("/proc/self/mem");
    }

    void notAFile()
    {
        QFETCH(QString, what);

        const QByteArray path = QFile::encodeName(TestDevice::manifest);
        QVERIFY(removeManifest());
        const bool link = what.startsWith(QLatin1Char('/'));
        if (what == QLatin1String("directory"))
            QCOMPARE(mkdir(path.constData(), 0755), 0);
        else if (what == QLatin1String("fifo"))
            QCOMPARE(mkfifo(path.constData(), 0644), 0);
        else if (what == QLatin1String("device"))
            QVERIFY(QFile::link(QStringLiteral("/dev/zero"), TestDevice::manifest));
        else
            QVERIFY(QFile::link(what, TestDevice::manifest));
        verifyUnreadable(link || what == QLatin1String("device"));
        removeManifest();
    }

    void noPermission()
    {
        // Root can read any file, so switch to another user temporarily.
        QVERIFY(QFile::setPermissions(TestDevice::manifest, {}));
        QCOMPARE(seteuid(TestDevice::bob), 0);
        const auto restore = qScopeGuard([] { (void)!seteuid(0); });
        verifyUnreadable(false);
    }

    // --- The client's identity

    void identity()
    {
        ChildProcess child(nullptr);
        child.uid = TestDevice::alice;
        child.gid = TestDevice::groupId("auth-factor");
        const QMap<QString, QString> identity = identityOfClient(child);
        QCOMPARE(identity.value(QStringLiteral("Uid")), four(TestDevice::alice));
        QCOMPARE(identity.value(QStringLiteral("Gid")), four(child.gid));
        QCOMPARE(identity.value(QStringLiteral("Groups")), QString::number(TestDevice::groupId("inet")));
        QCOMPARE(identity.value(QStringLiteral("CapEff")), QStringLiteral("0000000000000000"));
        QCOMPARE(identity.value(QStringLiteral("stderr")), QString());
        QCOMPARE(geteuid(), 0U);
    }

    void identityBeforeTheProgram()
    {
        IdWriter child;
        child.uid = TestDevice::alice;
        child.gid = TestDevice::groupId("auth-factor");
        child.start(QStringLiteral("/bin/true"), QStringList());
        QVERIFY(child.waitForFinished());
        const uid_t expected[] = {child.uid, child.uid, child.uid, child.gid, child.gid, child.gid};
        QCOMPARE(child.readAllStandardOutput(),
                 QByteArray(reinterpret_cast<const char *>(expected), int(sizeof expected)));
    }

    void identityWithoutTheGroup()
    {
        QVERIFY(removeGroup("inet"));
        ChildProcess child(nullptr);
        child.uid = TestDevice::bob;
        child.gid = TestDevice::groupId("auth-factor");
        QMap<QString, QString> identity = identityOfClient(child);
        QCOMPARE(identity.value(QStringLiteral("Uid")), four(TestDevice::bob));
        QCOMPARE(identity.value(QStringLiteral("Gid")), four(child.gid));
        QCOMPARE(identity.value(QStringLiteral("Groups")), QString::number(child.gid));
        QCOMPARE(identity.value(QStringLiteral("stderr")), QStringLiteral("authd.method.kavet: Cannot get GID.\n"));

        // Messages below the category's level are not logged.
        QLoggingCategory::setFilterRules(QStringLiteral("authd.method.kavet.warning=false"));
        const auto restore = qScopeGuard([] { QLoggingCategory::setFilterRules(QString()); });
        identity = identityOfClient(child);
        QCOMPARE(identity.value(QStringLiteral("Groups")), QString::number(child.gid));
        QCOMPARE(identity.value(QStringLiteral("stderr")), QString());
    }

    void identityWithoutPrivileges_data()
    {
        QTest::addColumn<bool>("group");
        QTest::addColumn<bool>("enabled");
        QTest::addColumn<QString>("messages");

        const QString failures = QStringLiteral("authd.method.kavet: setgroups() failed.\n"
                                                "authd.method.kavet: setresgid() failed.\n"
                                                "authd.method.kavet: setresuid() failed.\n");
        QTest::newRow("group there") << true << true << failures;
        QTest::newRow("no group") << false << true
                                  << QStringLiteral("authd.method.kavet: Cannot get GID.\n") + failures;
        QTest::newRow("warnings off") << false << false << QString();
    }

    void identityWithoutPrivileges()
    {
        QFETCH(bool, group);
        QFETCH(bool, enabled);
        QFETCH(QString, messages);

        if (!group)
            QVERIFY(removeGroup("inet"));
        const uint gid = TestDevice::groupId("auth-factor");
        const QByteArray report = asOrdinaryUser(TestDevice::bob, [gid, enabled] {
            if (!enabled)
                QLoggingCategory::setFilterRules(QStringLiteral("authd.method.kavet.warning=false"));
            ChildProcess child(nullptr);
            child.uid = TestDevice::alice;
            child.gid = gid;
            const QMap<QString, QString> identity = identityOfClient(child);
            return QStringList({identity.value(QStringLiteral("Uid")), identity.value(QStringLiteral("Gid")),
                                identity.value(QStringLiteral("Groups")), identity.value(QStringLiteral("stderr"))})
                .join(QLatin1Char('|'))
                .toUtf8();
        });
        QCOMPARE(QString::fromUtf8(report),
                 four(TestDevice::bob) + QLatin1Char('|') + four(TestDevice::bob) + QStringLiteral("||") + messages);
    }

    void identityOfEachStart()
    {
        ChildProcess child(nullptr);
        child.gid = TestDevice::groupId("auth-factor");
        for (uint uid : {TestDevice::alice, TestDevice::bob, 0U}) {
            child.uid = uid;
            QCOMPARE(identityOfClient(child).value(QStringLiteral("Uid")), four(uid));
        }
    }

    void identityInThisProcess_data()
    {
        QTest::addColumn<uint>("user");
        QTest::addColumn<uint>("next");
        QTest::addColumn<bool>("enabled");
        QTest::addColumn<QByteArray>("messages");

        const QByteArray failures = "authd.method.kavet: Cannot get GID.\n"
                                    "authd.method.kavet: setgroups() failed.\n"
                                    "authd.method.kavet: setresgid() failed.\n"
                                    "authd.method.kavet: setresuid() failed.\n";
        QTest::newRow("root") << 0U << 0U << true << QByteArray();
        QTest::newRow("no privileges") << TestDevice::bob << TestDevice::alice << true << failures;
        QTest::newRow("warnings off") << TestDevice::bob << TestDevice::alice << false << QByteArray();
    }

    void identityInThisProcess()
    {
        QFETCH(uint, user);
        QFETCH(uint, next);
        QFETCH(bool, enabled);
        QFETCH(QByteArray, messages);

        const gid_t inet = TestDevice::groupId("inet");
        if (user != 0)
            QVERIFY(removeGroup("inet"));
        if (!enabled)
            QLoggingCategory::setFilterRules(QStringLiteral("authd.method.kavet.warning=false"));
        Unforked child;
        child.uid = child.gid = next;
        QTemporaryFile output;
        QVERIFY(output.open());
        QCOMPARE(setgroups(0, nullptr), 0);
        const int standardError = dup(STDERR_FILENO);
        dup2(output.handle(), STDERR_FILENO);
        const bool assumed = seteuid(user) == 0;
        child.setupChildProcess();
        const bool restored = seteuid(0) == 0;
        dup2(standardError, STDERR_FILENO);
        close(standardError);
        QLoggingCategory::setFilterRules(QString());
        gid_t groups[2] = {};
        const int count = getgroups(2, groups);
        QCOMPARE(setgroups(0, nullptr), 0);

        QVERIFY(assumed && restored);
        QCOMPARE(TestDevice::readFile(output.fileName()), messages);
        QCOMPARE(count, user == 0 ? 1 : 0);
        QCOMPARE(groups[0], user == 0 ? inet : 0);
        uid_t ids[3] = {};
        QCOMPARE(getresuid(&ids[0], &ids[1], &ids[2]), 0);
        QCOMPARE(ids[0], 0U);
        QCOMPARE(getegid(), 0U);
    }

    // --- The client's end

    void tracerOfTheClient_data()
    {
        QTest::addColumn<bool>("traces");
        QTest::addColumn<uint>("user");
        QTest::addColumn<int>("end");
        QTest::newRow("root's") << true << 0U << SIGTERM;
        QTest::newRow("another user's") << true << TestDevice::bob << SIGKILL;
        QTest::newRow("according to the client's name") << false << TestDevice::bob << SIGTERM;
    }

    void tracerOfTheClient()
    {
        QFETCH(bool, traces);
        QFETCH(uint, user);
        QFETCH(int, end);
        ChildProcess child(nullptr);
        child.uid = TestDevice::alice;
        child.gid = TestDevice::groupId("auth-factor");
        child.start(QStringLiteral("/bin/bash"),
                    {QStringLiteral("-c"), QStringLiteral("read name; printf %s $name >/proc/$$/comm; echo; read")});
        QVERIFY(child.waitForStarted());
        const pid_t process = pid_t(child.processId());
        const pid_t tracer = TestDevice::idleProcess([traces, process, user] {
            signal(SIGTERM, SIG_DFL); // the test framework handles it
            return (!traces || ptrace(PTRACE_SEIZE, process, nullptr, nullptr) == 0)
                   && setresuid(user, user, user) == 0;
        });
        QVERIFY(tracer > 0);
        child.write((traces ? QByteArray("name") : "TracerPid:" + QByteArray::number(tracer)) + '\n');
        QVERIFY(child.waitForReadyRead());

        child.killForGood();
        QCOMPARE(::kill(tracer, SIGTERM), 0); // SIGKILL would come first
        int status = 0;
        while (waitpid(tracer, &status, 0) == -1 && errno == EINTR) { }
        QVERIFY(WIFSIGNALED(status));
        QCOMPARE(WTERMSIG(status), end);
        QVERIFY(child.waitForFinished());
    }

    void killedWithoutProcess()
    {
        ChildProcess child(nullptr);
        const LogCapture log(true);
        child.killForGood();
        QVERIFY(log.lines().isEmpty());
        QVERIFY(log.otherLines().isEmpty());
    }

private:
    static void noteCategory(QLoggingCategory *category)
    {
        s_categories << category->categoryName();
        s_otherFilter(category);
    }

    static QByteArrayList s_categories;
    static QLoggingCategory::CategoryFilter s_otherFilter;
    bool m_madeByConstructor = false;
    QByteArray m_groups;

    bool removeGroup(const QByteArray &name)
    {
        QList<QByteArray> lines = m_groups.split('\n');
        lines.erase(std::remove_if(lines.begin(), lines.end(),
                                   [&name](const QByteArray &line) { return line.startsWith(name + ':'); }),
                    lines.end());
        return TestDevice::writeFile(groupFile, lines.join('\n')) && !getgrnam(name.constData());
    }

    static void verifyCleared(const ChildProcess &child)
    {
        QCOMPARE(child.uid, 0U);
        QCOMPARE(child.gid, 0U);
        QCOMPARE(child.clientUid, 0U);
        QCOMPARE(child.orgName, QString());
        QCOMPARE(child.appName, QString());
        QCOMPARE(child.exec, QString());
        QVERIFY(!child.clientStarting);
        QVERIFY(!child.clientRunning);
        QVERIFY(!child.socketPresent);
        QCOMPARE(child.sharedDirectory, QString());
        QCOMPARE(child.userConfigPath, QString());
        QCOMPARE(child.homeDirectory, QString());
        QCOMPARE(child.manifestLinkTarget, QString());
        QVERIFY(!child.manifestExists);
        QVERIFY(!child.manifestIsSymLink);
        QVERIFY(!child.manifestParsed);
    }

    static void verifyParsed(const ChildProcess &child)
    {
        QVERIFY(child.manifestExists);
        QVERIFY(child.manifestParsed);
        QCOMPARE(child.orgName, QStringLiteral("tarsk"));
        QCOMPARE(child.appName, QStringLiteral("kavet_client"));
        QCOMPARE(child.exec, QStringLiteral("/usr/bin/tarsk.kavet_client --quiet  -x"));
        QCOMPARE(child.sharedDirectory, QStringLiteral("/srv/shared/tarsk/kavet_client"));
    }

    static void verifyUnreadable(bool link)
    {
        const LogCapture log(true);
        ChildProcess child(nullptr);
        child.manifestParsed = true;
        QVERIFY(!child.detectManifest());
        QVERIFY(!child.manifestExists);
        QVERIFY(!child.manifestParsed);
        QCOMPARE(child.manifestIsSymLink, link);
        QCOMPARE(child.exec, QString());
        QCOMPARE(child.sharedDirectory, QString());
        QCOMPARE(log.lines(),
                 QVector<LogCapture::Line>({{QtCriticalMsg, QStringLiteral("authd.method.kavet"), manifestFailure}}));

        // The manifest is given up permanently, even if it becomes readable.
        QVERIFY(!child.tryToParseManifest());
        QCOMPARE(log.lines().size(), 1);
    }
};

QByteArrayList TstChildProcess::s_categories;
QLoggingCategory::CategoryFilter TstChildProcess::s_otherFilter = nullptr;

QTEST_GUILESS_MAIN(TstChildProcess)
#include "tst_childprocess.moc"
