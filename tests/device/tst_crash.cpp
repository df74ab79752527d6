// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#include "device/authd.h"
#include "device/fakeloginmanager.h"
#include "support/testdevice.h"
#include "support/waiting.h"
#include "support/wiper.h"

#include <QDBusConnectionInterface>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QJsonArray>
#include <QScopeGuard>
#include <QScopedPointer>
#include <QSet>
#include <QTemporaryDir>
#include <QTest>
#include <QTimer>

#include <csignal>
#include <random>

#include <sys/ptrace.h>
#include <sys/stat.h>
#include <sys/wait.h>

namespace {

const QString puppet = QStringLiteral("puppet");
const QString kavetMethod = QStringLiteral("kavet");
const QString attemptsOption = QStringLiteral("attempts");
const QString puppetOnly = QStringLiteral("/tmp/methods");
const QString childRecord = QStringLiteral("/run/authd/children");
const uint alice = TestDevice::alice;
const uint bob = TestDevice::bob;
const uint carol = 1002;
constexpr int killsByDefault = 200;

QVariant variant(const QVariant &value)
{
    return QVariant::fromValue(QDBusVariant(value));
}

// Zombies do not count: the device's init process may take a while to reap orphans.
bool isAlive(pid_t pid)
{
    const QByteArray stat = TestDevice::readFile(QStringLiteral("/proc/%1/stat").arg(pid));
    return kill(pid, 0) == 0 && !stat.mid(stat.lastIndexOf(')')).startsWith(") Z");
}

QVector<pid_t> childrenOf(pid_t parent)
{
    QVector<pid_t> pids;
    const QList<QByteArray> words =
        TestDevice::readFile(QStringLiteral("/proc/%1/task/%1/children").arg(parent)).simplified().split(' ');
    for (const QByteArray &word : words) {
        if (!word.isEmpty())
            pids << word.toInt();
    }
    return pids;
}

QSet<pid_t> clients()
{
    QSet<pid_t> pids;
    const QVector<QJsonObject> launches = TestDevice::launches();
    for (const QJsonObject &launch : launches)
        pids << launch.value(QLatin1String("pid")).toInt();
    return pids;
}

} // namespace

/// What a killed daemon leaves behind, and how its successor cleans up.
class TstCrash : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase()
    {
        QVERIFY(FakeLoginManager::installPolicy());
        QVERIFY(startSystemBus());
        QVERIFY(QDir().mkpath(puppetOnly));
        QVERIFY(QFile::copy(Installed::oddMethods + QStringLiteral("/libpuppet.so"),
                            puppetOnly + QStringLiteral("/libpuppet.so")));
    }

    void init()
    {
        TestDevice::reset();
        setClientScript();
    }

    void cleanup()
    {
        const int exitCode = m_authd.isRunning() ? m_authd.stop(SIGTERM) : 0;
        if (QTest::currentTestFailed() || exitCode != 0)
            qWarning("The daemon wrote:\n%s", m_authd.log().constData());
        QCOMPARE(exitCode, 0);
    }

    void clientIsGone();
    void unexecutedChildIsGone();
    void deathAtTheFork();
    void signalOfAChild();
    void environmentDoesNotMatter();
    void othersAreLeftAlone();
    void recordDoesNotGrow();
    void nameIsWaitedFor();
    void nameIsNeverFree();
    void predecessorIsWaitedFor();
    void secondDaemonLeavesTheFirstAlone();
    void sessionsAreKnownAgain();
    void sessionOfLockedUser();
    void loginManagerKnowsBetter();
    void loginManagerKnowsNoSession();
    void loginManagerFails_data();
    void loginManagerFails();
    void noRunDirectory_data();
    void noRunDirectory();
    void noLockFile();
    void sessionsCannotBeRecorded();
    void anyMoment();

private:
    static QStringList told()
    {
        const QDBusMessage reply = BusUser(0).call(QStringLiteral("GetMethodOption"), {puppet, QStringLiteral("told")});
        return reply.arguments().value(0).value<QDBusVariant>().variant().toStringList();
    }

    /// Makes the method fork a child that idles as user `uid`.
    pid_t forkChild(const BusUser &root, uint uid) const
    {
        const QVector<pid_t> before = childrenOf(pid_t(m_authd.pid()));
        root.call(QStringLiteral("SetUserMethodOption"),
                  {bob, puppet, QStringLiteral("do"), variant(QStringLiteral("fork:%1").arg(uid))});
        const auto ownerOf = [](pid_t pid) {
            return QFileInfo(QStringLiteral("/proc/%1").arg(pid)).ownerId();
        };
        pid_t child = 0;
        const bool isThere = waitUntil([&] {
            const QVector<pid_t> present = childrenOf(pid_t(m_authd.pid()));
            for (const pid_t pid : present) {
                if (!before.contains(pid))
                    child = pid;
            }
            return child != 0 && ownerOf(child) == uid;
        });
        if (!isThere)
            qFatal("The method has forked no child");
        root.call(QStringLiteral("SetUserMethodOption"),
                  {bob, puppet, QStringLiteral("do"), variant(QStringLiteral("nothing"))});
        return child;
    }

    Authd m_authd;
};

void TstCrash::clientIsGone()
{
    QVERIFY(m_authd.start());
    {
        const BusUser root(0);
        QCOMPARE(root.error(QStringLiteral("Authenticate"),
                            {alice, kavetMethod, QVariantMap{{QStringLiteral("password"), QStringLiteral("never")}}}),
                 QString());
        QTRY_COMPARE(TestDevice::calls().size(), 1);
    }
    const pid_t client = *clients().constBegin();
    m_authd.stop(SIGKILL);
    QVERIFY(m_authd.start());
    QVERIFY(!isAlive(client));
    QVERIFY(m_authd.log().contains("event=leftovers-ended"));
}

void TstCrash::unexecutedChildIsGone()
{
    QVERIFY(m_authd.start(puppetOnly));
    const BusUser root(0);
    const pid_t early = forkChild(root, 0);
    const pid_t late = forkChild(root, bob);
    m_authd.stop(SIGKILL);
    // A child that still runs as root dies with its parent. One that already runs as the user survives until the next
    // daemon ends it.
    QTRY_VERIFY(!isAlive(early));
    QVERIFY(isAlive(late));
    QVERIFY(m_authd.start(puppetOnly));
    QVERIFY(!isAlive(late));
}

void TstCrash::deathAtTheFork()
{
    QVERIFY(m_authd.start(puppetOnly));
    const BusUser root(0);
    const auto daemon = pid_t(m_authd.pid());
    QCOMPARE(ptrace(PTRACE_SEIZE, daemon, nullptr, PTRACE_O_TRACEFORK | PTRACE_O_TRACECLONE), 0L);
    root.connection().asyncCall(
        BusUser::message(QStringLiteral("SetUserMethodOption"),
                         {alice, puppet, QStringLiteral("do"), variant(QStringLiteral("fork:0"))}));
    QVector<pid_t> children;
    QTRY_COMPARE((children = childrenOf(daemon)).size(), 1);
    const pid_t child = children.constFirst();
    // The fork stops both processes. The daemon remains stopped until it is killed.
    QCOMPARE(waitpid(daemon, nullptr, __WALL), daemon);
    QCOMPARE(waitpid(child, nullptr, __WALL), child);
    m_authd.stop(SIGKILL);
    QCOMPARE(ptrace(PTRACE_DETACH, child, nullptr, nullptr), 0L);
    QTRY_VERIFY(!isAlive(child));
}

void TstCrash::signalOfAChild()
{
    // A child that has not executed its program has the daemon's signal handlers.
    QVERIFY(m_authd.start(puppetOnly));
    const BusUser root(0);
    const pid_t child = forkChild(root, 0);
    kill(child, SIGTERM);
    QTRY_VERIFY(!isAlive(child));
    QCOMPARE(root.error(QStringLiteral("GetMethods")), QString());
    QVERIFY(m_authd.isRunning());
}

void TstCrash::environmentDoesNotMatter()
{
    // A process can overwrite its own environment, so the daemon must not rely on it to recognise its children.
    QVERIFY(TestDevice::writeFile(TestDevice::launcher, "#!/bin/sh\nexec env -i sh -c 'sleep 1000 & wait'\n"));
    QVERIFY(m_authd.start());
    const BusUser root(0); // The attempt ends when its caller leaves.
    root.call(QStringLiteral("RequestChallenge"), {alice, kavetMethod});
    QVector<pid_t> left;
    QTRY_COMPARE((left = childrenOf(pid_t(m_authd.pid()))).size(), 1);
    QTRY_COMPARE(childrenOf(left.constFirst()).size(), 1);
    left += childrenOf(left.constFirst());
    m_authd.stop(SIGKILL);
    QVERIFY(isAlive(left.constFirst()));
    QVERIFY(m_authd.start());
    for (const pid_t pid : qAsConst(left))
        QVERIFY2(!isAlive(pid), qPrintable(QString::number(pid)));
}

void TstCrash::othersAreLeftAlone()
{
    QProcess other;
    other.start(QStringLiteral("sh"), {QStringLiteral("-c"), QStringLiteral("sleep 1000 & wait")});
    QVector<pid_t> childrenOfOther;
    QTRY_COMPARE((childrenOfOther = childrenOf(pid_t(other.processId()))).size(), 1);
    QVERIFY(m_authd.start(puppetOnly));
    const BusUser root(0);
    const pid_t ours = forkChild(root, bob);
    m_authd.stop(SIGKILL);
    // A record whose pid now belongs to another process.
    const QByteArray record = TestDevice::readFile(childRecord);
    QByteArray forged = record;
    QVERIFY(forged.startsWith(QByteArray::number(ours) + ' '));
    forged.replace(0, QByteArray::number(ours).size(), QByteArray::number(other.processId()));
    QVERIFY(TestDevice::writeFile(childRecord, "\n 0 () \n1\n-1 (x) S 1 1\n" + forged + record));
    QVERIFY(m_authd.start());
    QVERIFY(!isAlive(ours));
    QCOMPARE(other.state(), QProcess::Running);
    QVERIFY(isAlive(childrenOfOther.constFirst()));
    kill(childrenOfOther.constFirst(), SIGKILL);
    other.kill();
    QVERIFY(other.waitForFinished());
}

void TstCrash::recordDoesNotGrow()
{
    QVERIFY(m_authd.start(puppetOnly));
    const BusUser root(0);
    // A record of an ended process whose pid now belongs to another.
    QFile record(childRecord);
    QVERIFY(record.open(QIODevice::Append));
    const QByteArray reused = QByteArray::number(getpid()) + " (";
    record.write(reused + "x) S 1" + QByteArray(" 1").repeated(20) + '\n');
    record.close();
    QVector<pid_t> forked;
    for (int i = 0; i < 200; ++i) {
        forked << forkChild(root, bob);
        if (i > 0)
            kill(forked.at(i), SIGKILL);
    }
    QVERIFY(TestDevice::readFile(childRecord).count('\n') < 70);
    QVERIFY(!TestDevice::readFile(childRecord).contains(reused));
    // The daemon has only the present file open.
    QStringList open;
    const QFileInfoList files = QDir(QStringLiteral("/proc/%1/fd").arg(m_authd.pid())).entryInfoList(QDir::Files);
    for (const QFileInfo &file : files)
        open << file.symLinkTarget();
    QCOMPARE(open.filter(childRecord), QStringList{childRecord});
    m_authd.stop(SIGKILL);
    QVERIFY(isAlive(forked.constFirst()));
    QVERIFY(m_authd.start(puppetOnly));
    QVERIFY(!isAlive(forked.constFirst()));
}

void TstCrash::nameIsWaitedFor()
{
    const BusUser predecessor(0);
    const QString service = QStringLiteral("qarv.AuthService");
    QDBusConnection bus = predecessor.connection();
    QVERIFY(bus.registerService(service));
    // Late enough that the daemon has found the name taken. The exact time does not matter.
    QTimer::singleShot(1500, this, [&bus, service] { bus.unregisterService(service); });
    QVERIFY(m_authd.start());
    QCOMPARE(BusUser(0).error(QStringLiteral("GetMethods")), QString());
}

void TstCrash::nameIsNeverFree()
{
    const BusUser predecessor(0);
    QVERIFY(predecessor.connection().registerService(QStringLiteral("qarv.AuthService")));
    const auto result = Authd::run({QStringLiteral("--methods"), puppetOnly});
    QCOMPARE(result.first, 4);
    QVERIFY2(result.second.endsWith("level=error event=name-taken\n"), result.second.constData());
}

void TstCrash::predecessorIsWaitedFor()
{
    QVERIFY(m_authd.start(puppetOnly));
    // Late enough that the successor has found the lock taken. The exact time does not matter.
    QTimer::singleShot(1500, this, [this] { kill(pid_t(m_authd.pid()), SIGTERM); });
    Authd successor;
    QVERIFY(successor.start(puppetOnly));
    QCOMPARE(successor.stop(SIGTERM), 0);
}

void TstCrash::secondDaemonLeavesTheFirstAlone()
{
    QVERIFY(m_authd.start());
    const BusUser root(0);
    QCOMPARE(root.error(QStringLiteral("Authenticate"),
                        {alice, kavetMethod, QVariantMap{{QStringLiteral("password"), QStringLiteral("never")}}}),
             QString());
    QTRY_COMPARE(TestDevice::calls().size(), 1);
    const auto second = Authd::run({QStringLiteral("--methods"), puppetOnly});
    QCOMPARE(second.first, 4);
    QVERIFY(second.second.contains("event=name-taken"));
    QVERIFY(isAlive(*clients().constBegin()));
    QCOMPARE(root.error(QStringLiteral("GetMethods")), QString());
}

void TstCrash::sessionsAreKnownAgain()
{
    QVERIFY(m_authd.start(puppetOnly));
    {
        const BusUser root(0);
        QCOMPARE(root.error(QStringLiteral("SessionStarted"), {alice, true}), QString());
        QCOMPARE(root.error(QStringLiteral("SessionStarted"), {alice, false}), QString());
        QCOMPARE(root.error(QStringLiteral("SessionStarted"), {bob, false}), QString());
        QCOMPARE(root.error(QStringLiteral("SessionStarted"), {carol, true}), QString());
        QCOMPARE(root.error(QStringLiteral("SessionStopped"), {carol, true}), QString());
    }
    for (int round = 0; round < 2; ++round) {
        m_authd.stop(SIGKILL);
        QVERIFY(m_authd.start(puppetOnly));
        QCOMPARE(told(), (QStringList{QStringLiteral("session 1000 1 1"), QStringLiteral("session 1001 1 0")}));
    }
    const QFileInfoList files = QDir(QStringLiteral("/run/authd")).entryInfoList(QDir::Files);
    QCOMPARE(files.size(), 3);
    for (const QFileInfo &file : files)
        QCOMPARE(file.permissions() & ~(QFile::ReadUser | QFile::WriteUser), QFile::ReadOwner | QFile::WriteOwner);
}

void TstCrash::sessionOfLockedUser()
{
    // A managed session start may make a method remove the user's data, which must not happen here.
    QVERIFY(m_authd.start(puppetOnly));
    {
        const BusUser root(0);
        QCOMPARE(root.error(QStringLiteral("SessionStarted"), {alice, true}), QString());
        QCOMPARE(root.error(QStringLiteral("SetUserMethodOption"),
                            {alice, puppet, QStringLiteral("do"), variant(QStringLiteral("lock:-1"))}),
                 QString());
        QCOMPARE(root.error(QStringLiteral("Unlock"), {alice}), QString());
    }
    m_authd.stop(SIGKILL);
    QVERIFY(m_authd.start(puppetOnly));
    QCOMPARE(told(), QStringList{QStringLiteral("session 1000 1 0")});
}

void TstCrash::loginManagerKnowsBetter()
{
    QVERIFY(m_authd.start(puppetOnly));
    {
        const BusUser root(0);
        QCOMPARE(root.error(QStringLiteral("SessionStarted"), {alice, false}), QString());
        QCOMPARE(root.error(QStringLiteral("SessionStarted"), {bob, true}), QString());
    }
    m_authd.stop(SIGKILL);
    // While no daemon ran, bob's session has ended and carol's has started. A service account's session does not count.
    const FakeLoginManager manager(
        {{QStringLiteral("1"), alice}, {QStringLiteral("2"), carol}, {QStringLiteral("3"), 33}});
    QVERIFY(manager.isRunning());
    QVERIFY(m_authd.start(puppetOnly));
    QStringList sessions;
    QTRY_VERIFY(!(sessions = told()).isEmpty());
    QCOMPARE(sessions, (QStringList{QStringLiteral("session 1000 1 0"), QStringLiteral("session 1002 1 1")}));
}

void TstCrash::loginManagerKnowsNoSession()
{
    QVERIFY(m_authd.start(puppetOnly));
    QCOMPARE(BusUser(0).error(QStringLiteral("SessionStarted"), {bob, true}), QString());
    m_authd.stop(SIGKILL);
    {
        const FakeLoginManager manager({});
        QVERIFY(manager.isRunning());
        QVERIFY(m_authd.start(puppetOnly));
        QCOMPARE(told(), QStringList());
        m_authd.stop(SIGKILL);
    }
    // The next daemon finds no login manager, and no record of bob's session.
    QVERIFY(m_authd.start(puppetOnly));
    QCOMPARE(told(), QStringList());
}

void TstCrash::loginManagerFails_data()
{
    QTest::addColumn<int>("type");
    QTest::addColumn<QByteArray>("error");
    QTest::newRow("error") << int(QDBusMessage::ErrorMessage) << QByteArray("org.freedesktop.DBus.Error.Failed");
    QTest::newRow("another answer") << int(QDBusMessage::ReplyMessage) << QByteArray("\"\"");
    QTest::newRow("no answer") << int(QDBusMessage::InvalidMessage) << QByteArray("org.freedesktop.DBus.Error.NoReply");
}

void TstCrash::loginManagerFails()
{
    QFETCH(int, type);
    QFETCH(QByteArray, error);
    QVERIFY(m_authd.start(puppetOnly));
    QCOMPARE(BusUser(0).error(QStringLiteral("SessionStarted"), {bob, false}), QString());
    m_authd.stop(SIGKILL);
    const FakeService manager(QStringLiteral("org.freedesktop.login1"), QStringLiteral("/org/freedesktop/login1"),
                              [type](const QDBusMessage &call, const QDBusConnection &bus) {
                                  if (type == QDBusMessage::ErrorMessage)
                                      bus.send(call.createErrorReply(QDBusError::Failed, QStringLiteral("no")));
                                  else if (type == QDBusMessage::ReplyMessage)
                                      bus.send(call.createReply(QStringLiteral("no sessions")));
                              });
    QVERIFY(manager.isRunning());
    QElapsedTimer clock;
    clock.start();
    QVERIFY(m_authd.start(puppetOnly));
    QVERIFY(clock.elapsed() < 20000); // The limit is five seconds; the library's own is 25.
    QVERIFY(m_authd.log().contains("level=warning event=no-sessions-from-login-manager error=" + error + '\n'));
    QCOMPARE(told(), QStringList{QStringLiteral("session 1001 1 0")});
}

void TstCrash::noRunDirectory_data()
{
    QTest::addColumn<uint>("owner");
    QTest::addColumn<int>("mode"); // 0: a file; -1: a link to a good directory
    QTest::newRow("another user's") << alice << 0700;
    QTest::newRow("for the group") << 0u << 0710;
    QTest::newRow("for others") << 0u << 0701;
    QTest::newRow("file") << 0u << 0;
    QTest::newRow("link") << 0u << -1;
}

// The daemon serves all the same, and uses nothing from there.
void TstCrash::noRunDirectory()
{
    QFETCH(uint, owner);
    QFETCH(int, mode);
    const QString path = QStringLiteral("/run/authd");
    QVERIFY(QDir(path).removeRecursively());
    const auto restore = qScopeGuard([&path] { QFile::remove(path) || QDir(path).removeRecursively(); });
    QTemporaryDir elsewhere;
    if (mode == -1) {
        QVERIFY(QFile::link(elsewhere.path(), path));
    } else {
        QVERIFY(mode == 0 ? TestDevice::writeFile(path, {}) : QDir().mkdir(path));
        QCOMPARE(chmod(QFile::encodeName(path).constData(), mode_t(mode)), 0);
        QVERIFY(TestDevice::setOwner(path, owner, owner));
    }
    QVERIFY(m_authd.start(puppetOnly));
    QVERIFY(m_authd.log().contains("level=warning event=no-run-directory directory=/run/authd "
                                   "error=\"Operation not permitted\"\n"));
    QVERIFY(!QFile::exists(childRecord));
}

void TstCrash::noLockFile()
{
    const QString lock = QStringLiteral("/run/authd/lock");
    QVERIFY(m_authd.start(puppetOnly));
    QCOMPARE(m_authd.stop(SIGTERM), 0);
    QVERIFY(QFile::remove(lock));
    QVERIFY(QFile::link(QStringLiteral("/tmp/elsewhere"), lock));
    const auto restore = qScopeGuard([&lock] { QFile::remove(lock); });
    QVERIFY(m_authd.start(puppetOnly));
    QVERIFY(m_authd.log().contains("level=warning event=no-lock-file error=\"Too many levels of symbolic links\"\n"));
    QVERIFY(!QFile::exists(QStringLiteral("/tmp/elsewhere")));
}

void TstCrash::sessionsCannotBeRecorded()
{
    QVERIFY(m_authd.start(puppetOnly));
    const QString record = QStringLiteral("/run/authd/sessions");
    QFile::remove(record);
    QVERIFY(QDir().mkpath(record + QStringLiteral("/full")));
    const auto restore = qScopeGuard([&record] { QDir(record).removeRecursively(); });
    QCOMPARE(BusUser(0).error(QStringLiteral("SessionStarted"), {bob, false}), QString());
    QVERIFY(m_authd.waitForLog("level=error event=not-recorded file=/run/authd/sessions error="));
}

void TstCrash::anyMoment()
{
    const int kills =
        qEnvironmentVariableIsSet("KAVET_KILLS") ? qEnvironmentVariableIntValue("KAVET_KILLS") : killsByDefault;
    const QByteArray givenSeed = qgetenv("KAVET_SEED");
    const uint seed = givenSeed.isEmpty() ? std::random_device()() : givenSeed.toUInt();
    qInfo("KAVET_SEED=%u", seed);
    std::mt19937 random(seed);
    const auto below = [&random](int limit) {
        return std::uniform_int_distribution<int>(0, limit - 1)(random);
    };

    // The last signalled state of alice, who keeps failing.
    bool isLocked = false;
    QString attempts = QStringLiteral("0");
    int locks = 0;
    int unfinished = 0;
    for (int round = 0; round < kills; ++round) {
        QVERIFY2(m_authd.start(), qPrintable(QString::number(round)));
        const QSet<pid_t> launched = clients();
        for (const pid_t pid : launched)
            QVERIFY2(!isAlive(pid), qPrintable(QString::number(pid)));

        const BusUser root(0);
        const auto call = [&root](const char *member, const QVariantList &arguments) {
            return root.call(QString::fromLatin1(member), arguments);
        };
        QCOMPARE(call("GetState", {alice}).arguments().value(1).toString() == QLatin1String("locked"), isLocked);
        QCOMPARE(reportText(call("GetUserMethodOption", {alice, kavetMethod, attemptsOption}).arguments().value(0)),
                 attempts);

        Reports reports(root);
        if (isLocked)
            QCOMPARE(call("Unlock", {alice}).errorName(), QString());
        const int limit = below(2) == 0 ? 1 : 5;
        QCOMPARE(call("SetMethodOption", {kavetMethod, QStringLiteral("max-attempts"), variant(limit)}).errorName(),
                 QString());
        const bool isRight = below(3) == 0;
        call("Authenticate", {alice, kavetMethod,
                              QVariantMap{{QStringLiteral("password"),
                                           isRight ? QStringLiteral("success") : QStringLiteral("failed")}}});
        // The moment is random on purpose.
        QTest::qWait(below(300));
        const auto isLockTold = [&reports] {
            return !reports.texts.filter(QStringLiteral("StateChanged(1000, locked")).isEmpty();
        };
        // A failure that locks is reported before the lock.
        const auto hasEnded = [&] {
            return isLockTold() || reports.texts.contains(QStringLiteral("Authenticated(1000, kavet)"))
                   || (limit > 1 && !reports.texts.filter(QStringLiteral("AuthenticationFailed(1000")).isEmpty());
        };
        m_authd.stop(SIGKILL);
        // The daemon's signals arrive before the news that its name is free.
        QTRY_VERIFY(!root.connection().interface()->isServiceRegistered(QStringLiteral("qarv.AuthService")));
        QCoreApplication::processEvents();

        for (const QDBusMessage &report : qAsConst(reports.all)) {
            if (report.member() == QLatin1String("UserMethodOptionChanged")
                && report.arguments().at(2).toString() == attemptsOption)
                attempts = reportText(report.arguments().at(3));
        }
        isLocked = isLockTold();
        locks += isLocked;
        if (!hasEnded()) {
            // The daemon may have stored more than it had time to signal.
            ++unfinished;
            QVERIFY(m_authd.start());
            const BusUser later(0);
            isLocked = later.call(QStringLiteral("GetState"), {alice}).arguments().value(1).toString()
                       == QLatin1String("locked");
            attempts =
                reportText(later.call(QStringLiteral("GetUserMethodOption"), {alice, kavetMethod, attemptsOption})
                               .arguments()
                               .value(0));
            QVERIFY(attempts == QLatin1String("0") || attempts == QLatin1String("1"));
            m_authd.stop(SIGKILL);
        }
    }
    qInfo("%d kills: %d while locked, %d in the middle of an attempt", kills, locks, unfinished);
    QVERIFY(locks > 0);
    QVERIFY(unfinished > 0 && unfinished < kills);
}

QTEST_GUILESS_MAIN(TstCrash)

#include "tst_crash.moc"
