// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#include "device/clientfixture.h"
#include "support/logcapture.h"
#include "support/waiting.h"
#include "unit/methodfixture.h"

#include <QDBusPendingCall>
#include <QDir>
#include <QFileInfo>
#include <QMap>
#include <QRandomGenerator>
#include <QScopeGuard>
#include <QVector>

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <functional>

#include <fcntl.h>
#include <sys/mount.h>
#include <sys/ptrace.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

namespace {

const QString right = QStringLiteral("correct horse, 52 µg");
const QString wrong = QStringLiteral("incorrect horse");

const QString success = QStringLiteral("success");
const QString failed = QStringLiteral("failed");
const QString lock = QStringLiteral("lock");
const QString removal = QStringLiteral("remove");
const QString noToken = QStringLiteral("nousb");
const QString wrongAuthType = QStringLiteral("errauthtype");

uint mode(const QString &path)
{
    struct stat status = {};
    return lstat(QFile::encodeName(path).constData(), &status) == 0 ? status.st_mode & 07777U : 0;
}

uint owner(const QString &path)
{
    return QFileInfo(path).ownerId();
}

/// The content of all files below a directory.
QByteArray everythingIn(const QString &directory)
{
    QByteArray content;
    const QFileInfoList entries =
        QDir(directory).entryInfoList(QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot);
    for (const QFileInfo &entry : entries) {
        if (entry.ownerId() == TestDevice::alice)
            content += entry.filePath().toUtf8();
        if (entry.ownerId() == TestDevice::alice && entry.isFile())
            content += TestDevice::readFile(entry.filePath());
        else if (entry.isDir() && !entry.isSymLink())
            content += everythingIn(entry.filePath());
    }
    return content;
}

/// The system calls with which a process stores a file, from now until it sends its next message. Calls `begin` once
/// the process is followed.
QString callsUntilReply(pid_t process, const std::function<void()> &begin)
{
    static const QMap<quint64, QString> names = {
        {SYS_fsync, QStringLiteral("fsync ")},
        {SYS_ftruncate, QStringLiteral("ftruncate ")},
#ifdef SYS_rename
        {SYS_rename, QStringLiteral("rename ")},
#else
        {SYS_renameat, QStringLiteral("rename ")},
#endif
    };
    QString calls;
    int status = 0;
    if (ptrace(PTRACE_SEIZE, process, nullptr, PTRACE_O_TRACESYSGOOD) != 0
        || ptrace(PTRACE_INTERRUPT, process, nullptr, nullptr) != 0 || waitpid(process, &status, 0) != process)
        return calls;
    begin();
    quint64 last = 0;
    do {
        const bool isSignal = status >> 8 != (SIGTRAP | 0x80) && status >> 16 == 0;
        ptrace(PTRACE_SYSCALL, process, nullptr, isSignal ? long(WSTOPSIG(status)) : 0L);
        __ptrace_syscall_info info = {};
        // ptrace takes the size in the address argument.
        const auto place = reinterpret_cast<void *>(sizeof info); // NOLINT(performance-no-int-to-ptr)
        if (waitpid(process, &status, 0) != process || !WIFSTOPPED(status))
            return calls;
        if (ptrace(PTRACE_GET_SYSCALL_INFO, process, place, &info) > 0 && info.op == PTRACE_SYSCALL_INFO_ENTRY) {
            last = info.entry.nr;
            calls += names.value(last);
            if (last == SYS_openat && (info.entry.args[2] & O_TRUNC))
                calls += QStringLiteral("empty ");
        }
    } while (last != SYS_sendmsg);
    ptrace(PTRACE_DETACH, process, nullptr, nullptr);
    return calls;
}

/// A terminal on which a program asks for a password. The test types.
class Terminal
{
public:
    Terminal()
        : m_keys(posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC))
    {
        if (grantpt(m_keys) == 0 && unlockpt(m_keys) == 0)
            m_programSide = open(ptsname(m_keys), O_RDWR | O_NOCTTY | O_CLOEXEC);
    }
    ~Terminal()
    {
        close(m_programSide);
        close(m_keys);
    }

    bool isOpen() const { return m_programSide != -1; }
    bool type(const QByteArray &text) const
    {
        return write(m_keys, text.constData(), size_t(text.size())) == text.size();
    }
    struct termios modes() const
    {
        struct termios present = {};
        tcgetattr(m_keys, &present);
        return present;
    }
    /// Starts a process with the shell command `command`. There, "$@" is the process's own command, and $0 the
    /// terminal. It must become the new session's: if QProcess opened it, it could become that of this process.
    void start(QProcess &process, const QString &command) const
    {
        process.setArguments(QStringList{QStringLiteral("sh"), QStringLiteral("-c"), command,
                                         QString::fromLocal8Bit(ptsname(m_keys)), process.program()}
                             + process.arguments());
        process.setProgram(QStringLiteral("setsid"));
        process.start();
    }

private:
    const int m_keys;
    int m_programSide = -1; // Open, so that the terminal keeps its settings when the program exits.

    Q_DISABLE_COPY(Terminal)
};

} // namespace

class TstClient : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init();

    void commandLine_data();
    void commandLine();
    void refusesRoot_data();
    void refusesRoot();
    void refusesNameless();

    void setPassword();
    void setPasswordRefuses_data();
    void setPasswordRefuses();
    void setPasswordFromNoFile();
    void unfinishedPassword();
    void longestPassword();
    void typedTooEarly();
    void setPasswordOnTerminal_data();
    void setPasswordOnTerminal();
    void signalsWhileTyping_data();
    void signalsWhileTyping();
    void changePassword();
    void unreadableSettings();

    void socket();
    void socketInTheWay();
    void socketCannotBeMade();
    void removesSocket_data();
    void removesSocket();
    void leavesAnothersSocket();

    void answers();
    void anotherUser_data();
    void anotherUser();
    void noPassword();
    void damagedHash();
    void authType_data();
    void authType();
    void uselessSetting_data();
    void uselessSetting();
    void limits_data();
    void limits();
    void lockedForTheRightPasswordToo();
    void ownCount();
    void damagedOwnCount_data();
    void damagedOwnCount();
    void countOutlivesTheClient();
    void countIsDurable_data();
    void countIsDurable();
    void damagedCounter_data();
    void damagedCounter();
    void counterFileStaysTheUsers();
    void counterCannotBeStored();
    void fullDisk();
    void inTheWayOfTheOwnCount_data();
    void inTheWayOfTheOwnCount();

    void badCalls_data();
    void badCalls();
    void hugePassword();

    void noDump();
    void noSecrets();
    void methodAuthenticates();
};

void TstClient::init()
{
    TestDevice::reset();
    ClientFixture::prepare();
}

void TstClient::commandLine_data()
{
    QTest::addColumn<QStringList>("arguments");
    QTest::addColumn<int>("exitCode");
    QTest::addColumn<QString>("output");
    QTest::addColumn<QString>("error");

    const QString prefix = QStringLiteral("tarsk.kavet_client: ");
    QTest::newRow("help") << QStringList{QStringLiteral("--help")} << 0 << QStringLiteral("--set-password")
                          << QString();
    QTest::newRow("version") << QStringList{QStringLiteral("--version")} << 0 << QStringLiteral("tarsk.kavet_client 0")
                             << QString();
    QTest::newRow("unknown option") << QStringList{QStringLiteral("--nonsense")} << 2 << QString()
                                    << QString(prefix + QStringLiteral("Unknown option 'nonsense'.\n"));
    QTest::newRow("argument") << QStringList{QStringLiteral("secret")} << 2 << QString()
                              << QString(prefix + QStringLiteral("Unexpected argument\n"));
}

void TstClient::commandLine()
{
    QFETCH(QStringList, arguments);
    QFETCH(int, exitCode);
    QFETCH(QString, output);
    QFETCH(QString, error);

    for (const uint user : {TestDevice::alice, 0U}) {
        const ClientFixture::Result result = ClientFixture::run(arguments, {}, user);
        QCOMPARE(result.exitCode, exitCode);
        QCOMPARE(QString::fromUtf8(result.error), error);
        QVERIFY(output.isEmpty() ? result.output.isEmpty() : result.output.contains(output.toUtf8()));
        // These are for the client's own helpers.
        for (const char *hidden : {"--token-helper", "--unlocks"})
            QVERIFY2(!result.output.contains(hidden), hidden);
    }
    QVERIFY(!QFileInfo::exists(TestDevice::socketPath));
}

void TstClient::refusesRoot_data()
{
    QTest::addColumn<QString>("option");
    QTest::newRow("serve") << QStringLiteral("--no-gui");
    QTest::newRow("set password") << QStringLiteral("--set-password");
    QTest::newRow("list certificates") << QStringLiteral("--certs");
    QTest::newRow("use a token") << QStringLiteral("--token-helper=module");
    QTest::newRow("ask for unlocks") << QStringLiteral("--unlocks");
}

void TstClient::refusesRoot()
{
    QFETCH(QString, option);
    const ClientFixture::Result result = ClientFixture::run({option}, "password\n", 0);
    QCOMPARE(result.exitCode, 3);
    QCOMPARE(result.error, QByteArray("tarsk.kavet_client: Run this as the user to authenticate, never as root\n"));
    QCOMPARE(result.output, QByteArray());
    QVERIFY(!QFileInfo::exists(TestDevice::socketPath));
    QVERIFY(!QFileInfo::exists(QStringLiteral("/root/.config/tarsk")));
}

void TstClient::refusesNameless()
{
    const ClientFixture::Result result = ClientFixture::run({QStringLiteral("--no-gui")}, {}, 4242);
    QCOMPARE(result.exitCode, 1);
    QCOMPARE(result.error, QByteArray("tarsk.kavet_client: User 4242 has no name\n"));
}

void TstClient::setPassword()
{
    QVERIFY(!QFileInfo::exists(ClientFixture::settingsPath));
    QVERIFY(ClientFixture::setPassword(right));

    QCOMPARE(mode(ClientFixture::settingsPath), 0600U);
    QCOMPARE(owner(ClientFixture::settingsPath), TestDevice::alice);
    // The system's preferred method.
    QVERIFY(TestDevice::readFile(ClientFixture::settingsPath).contains("password-hash=$y$"));

    // The same password gets a new salt each time.
    const QByteArray before = TestDevice::readFile(ClientFixture::settingsPath);
    QVERIFY(ClientFixture::setPassword(right));
    QVERIFY(TestDevice::readFile(ClientFixture::settingsPath) != before);
}

void TstClient::setPasswordRefuses_data()
{
    QTest::addColumn<QByteArray>("input");
    QTest::addColumn<QByteArray>("message");

    const QByteArray wrongLength("A password must have 1 to 511 bytes; the password was not changed\n");
    QTest::newRow("nothing") << QByteArray() << wrongLength;
    QTest::newRow("empty line") << QByteArray("\n") << wrongLength;
    QTest::newRow("too long for the hash") << QByteArray(512, 'a') << wrongLength;
    QTest::newRow("zero byte") << QByteArray("pass\0word\n", 10) << wrongLength;
    QTest::newRow("endless line") << QByteArray(100000, 'a')
                                  << QByteArray("Cannot read a password from standard input\n");
}

void TstClient::setPasswordRefuses()
{
    QFETCH(QByteArray, input);
    QFETCH(QByteArray, message);

    QVERIFY(ClientFixture::setPassword(right));
    const QByteArray before = TestDevice::readFile(ClientFixture::settingsPath);
    const ClientFixture::Result result = ClientFixture::run({QStringLiteral("--set-password")}, input);
    QCOMPARE(result.exitCode, 1);
    QCOMPARE(result.error, QByteArray("tarsk.kavet_client: " + message));
    QCOMPARE(TestDevice::readFile(ClientFixture::settingsPath), before);
}

void TstClient::setPasswordFromNoFile()
{
    QProcess process;
    ClientFixture::asUser(process, ClientFixture::program, {QStringLiteral("--set-password")});
    process.setStandardInputFile(QStringLiteral("/home/alice"));
    process.start();
    QVERIFY(process.waitForFinished());
    QCOMPARE(process.exitCode(), 1);
    QCOMPARE(process.readAllStandardError(),
             QByteArray("tarsk.kavet_client: Cannot read a password from standard input\n"));
}

void TstClient::unfinishedPassword()
{
    const QByteArray part = "correct horse battery staple";
    const QByteArray end = "nearly there";
    QProcess process;
    ClientFixture::asUser(process, ClientFixture::program, {QStringLiteral("--set-password")});
    process.start();
    QVERIFY(process.waitForStarted()); // Until then, it is a copy of this process.
    process.write(QByteArray(100, 'a') + part + QByteArray(2000, 'b') + end);
    QVERIFY(waitUntil([&] { return processMemory(process.processId()).contains(end); }));
    // The kernel gives the entries of a process that other processes of the user cannot trace to root.
    QCOMPARE(owner(QStringLiteral("/proc/%1/mem").arg(process.processId())), 0U);
    // There is one place to erase.
    QCOMPARE(processMemory(process.processId()).count(part), 1);
    process.closeWriteChannel();
    QVERIFY(process.waitForFinished());
    QCOMPARE(process.exitCode(), 1);
}

void TstClient::longestPassword()
{
    const QString longest = QString(511, QLatin1Char('a'));
    QVERIFY(ClientFixture::setPassword(longest));
    ClientFixture client;
    QVERIFY(client.start());
    QCOMPARE(client.checkPassword(longest.chopped(1)), failed);
    QCOMPARE(client.checkPassword(longest), success);
}

void TstClient::typedTooEarly()
{
    const Terminal terminal;
    QVERIFY(terminal.isOpen());
    QVERIFY(terminal.type("before the prompt\n"));
    QProcess process;
    ClientFixture::asUser(process, ClientFixture::program, {QStringLiteral("--set-password")});
    // The shell stays, so that the terminal lasts, and reads what the client leaves, as the user's shell would.
    terminal.start(process, QStringLiteral("\"$@\" <\"$0\"; read -r rest <\"$0\"; echo \"left: $rest.\" >&2"));
    QByteArray shown;
    const auto shows = [&](const QByteArray &text) {
        return waitUntil([&] { return (shown += process.readAllStandardError()).contains(text); });
    };
    QVERIFY(shows("New password: "));
    QVERIFY(terminal.type("open sesame\n"));
    QVERIFY(shows("Repeat new password: "));
    QVERIFY(terminal.type("open sesame\nafter the end\n"));
    // The client may discard some of these lines, too.
    QVERIFY(waitUntil([&] {
        terminal.type("\n");
        return (shown += process.readAllStandardError()).contains("left: ");
    }));
    QVERIFY(process.state() == QProcess::NotRunning || process.waitForFinished());
    shown += process.readAllStandardError();
    QCOMPARE(shown, QByteArray("New password: \nRepeat new password: \nleft: .\n"));
    ClientFixture client;
    QVERIFY(client.start());
    QCOMPARE(client.checkPassword(QStringLiteral("open sesame")), success);
}

void TstClient::setPasswordOnTerminal_data()
{
    QTest::addColumn<QByteArray>("first");
    QTest::addColumn<QByteArray>("second");
    QTest::addColumn<bool>("stored");

    QTest::newRow("the same twice") << QByteArray("open sesame") << QByteArray("open sesame") << true;
    QTest::newRow("mistyped") << QByteArray("open sesame") << QByteArray("open barley") << false;
}

void TstClient::setPasswordOnTerminal()
{
    QFETCH(QByteArray, first);
    QFETCH(QByteArray, second);
    QFETCH(bool, stored);

    // script(1) runs the client on a terminal and prints the terminal's output.
    QProcess terminal;
    ClientFixture::asUser(terminal, QStringLiteral("script"),
                          {QStringLiteral("--quiet"), QStringLiteral("--return"), QStringLiteral("--command"),
                           QString(ClientFixture::program + QStringLiteral(" --set-password")),
                           QStringLiteral("/dev/null")});
    QByteArray shown;
    const auto shows = [&](const QByteArray &text) {
        return waitUntil([&] {
            shown += terminal.readAllStandardOutput();
            return shown.contains(text);
        });
    };
    terminal.start();
    QVERIFY(shows("New password: "));
    terminal.write(first + '\n');
    QVERIFY(shows("Repeat new password: "));
    terminal.write(second + '\n');
    QVERIFY(terminal.state() == QProcess::NotRunning || terminal.waitForFinished());
    shown += terminal.readAllStandardOutput();

    QCOMPARE(terminal.exitCode(), stored ? 0 : 1);
    QCOMPARE(shown.contains("The passwords differ; the password was not changed"), !stored);
    QVERIFY2(!shown.contains("open"), shown.constData());
    QCOMPARE(QFileInfo::exists(ClientFixture::settingsPath), stored);
    if (stored) {
        ClientFixture client;
        QVERIFY(client.start());
        QCOMPARE(client.checkPassword(QString::fromLatin1(first)), success);
    }
}

void TstClient::signalsWhileTyping_data()
{
    QTest::addColumn<int>("signal");
    QTest::addColumn<QByteArray>("key");
    QTest::newRow("terminate") << SIGTERM << QByteArray();
    QTest::newRow("hang up") << SIGHUP << QByteArray();
    QTest::newRow("interrupt") << SIGINT << QByteArray();
    QTest::newRow("quit") << SIGQUIT << QByteArray();
    QTest::newRow("interrupt by key") << SIGINT << QByteArray("\x03");
    QTest::newRow("quit by key") << SIGQUIT << QByteArray("\x1c");
}

void TstClient::signalsWhileTyping()
{
    QFETCH(int, signal);
    QFETCH(QByteArray, key);
    const Terminal terminal;
    QVERIFY(terminal.isOpen());
    const struct termios before = terminal.modes();
    QVERIFY(before.c_lflag & ECHO);

    std::signal(SIGHUP, SIG_DFL); // The client inherits an ignored one, as after nohup(1).
    QProcess process;
    ClientFixture::asUser(process, ClientFixture::program, {QStringLiteral("--set-password")});
    terminal.start(process, QStringLiteral("exec \"$@\" <\"$0\""));
    QByteArray shown;
    QTRY_VERIFY_WITH_TIMEOUT((shown += process.readAllStandardError()).contains("New password: "), 30000);
    QVERIFY(!(terminal.modes().c_lflag & ECHO));
    // If the suspend key worked, it would leave the terminal like this.
    QCOMPARE(terminal.modes().c_cc[VSUSP], cc_t(_POSIX_VDISABLE));
    QVERIFY(terminal.type("half a passw"));
    if (!key.isEmpty())
        QVERIFY(terminal.type(key));
    else
        kill(pid_t(process.processId()), signal);
    QVERIFY(process.waitForFinished());
    // The client must die of the signal, as its sender expects.
    QCOMPARE(process.exitStatus(), QProcess::CrashExit);
    QCOMPARE(process.exitCode(), signal);
    QCOMPARE(terminal.modes().c_lflag, before.c_lflag);
    QCOMPARE(terminal.modes().c_cc[VSUSP], before.c_cc[VSUSP]);
    QVERIFY(!QFileInfo::exists(ClientFixture::settingsPath));
}

void TstClient::changePassword()
{
    QVERIFY(ClientFixture::setSetting(QStringLiteral("lock-after"), QStringLiteral("7")));
    QVERIFY(ClientFixture::setPassword(wrong));
    ClientFixture client;
    QVERIFY(client.start());
    QCOMPARE(client.checkPassword(wrong), success);

    // The running client uses the new password at once, and keeps the other settings.
    QVERIFY(ClientFixture::setPassword(right));
    QCOMPARE(client.checkPassword(right), success);
    QCOMPARE(client.checkPassword(wrong), failed);
    QVERIFY(TestDevice::readFile(ClientFixture::settingsPath).contains("lock-after=7\n"));
}

void TstClient::unreadableSettings()
{
    QVERIFY(ClientFixture::setSetting(QStringLiteral("lock-after"), QStringLiteral("7")));
    const QByteArray before = TestDevice::readFile(ClientFixture::settingsPath);
    QCOMPARE(chmod(QFile::encodeName(ClientFixture::settingsPath).constData(), 0), 0);
    QVERIFY(!ClientFixture::setPassword(right));
    QCOMPARE(TestDevice::readFile(ClientFixture::settingsPath), before);
}

void TstClient::socket()
{
    ClientFixture client;
    QVERIFY(client.start());
    QCOMPARE(mode(TestDevice::socketPath), 0600U);
    QCOMPARE(owner(TestDevice::socketPath), TestDevice::alice);
    QCOMPARE(QDir(TestDevice::clientDirectory).entryList(QDir::AllEntries | QDir::System | QDir::NoDotAndDotDot),
             QStringList{QStringLiteral("kavet.socket")});
}

void TstClient::socketInTheWay()
{
    QVERIFY(TestDevice::writeFile(TestDevice::socketPath, "left over"));
    QVERIFY(TestDevice::writeFile(TestDevice::socketPath + QStringLiteral(".new"), "left over"));
    QVERIFY(ClientFixture::setPassword(right));
    ClientFixture client;
    QVERIFY(client.start());
    QCOMPARE(client.checkPassword(right), success);
}

void TstClient::socketCannotBeMade()
{
    QVERIFY(TestDevice::setOwner(TestDevice::clientDirectory, 0, 0));
    const ClientFixture::Result result = ClientFixture::run({QStringLiteral("--no-gui")}, {});
    QCOMPARE(result.exitCode, 1);
    QCOMPARE(result.error, QByteArray("tarsk.kavet_client: Cannot open the socket: Permission denied\n"));

    // Nothing is left when a directory is in the way.
    ClientFixture::prepare();
    QVERIFY(QDir().mkpath(TestDevice::socketPath));
    QCOMPARE(ClientFixture::run({QStringLiteral("--no-gui")}, {}).error,
             QByteArray("tarsk.kavet_client: Cannot open the socket: Is a directory\n"));
    QCOMPARE(QDir(TestDevice::clientDirectory).entryList(QDir::AllEntries | QDir::System | QDir::NoDotAndDotDot),
             QStringList{QStringLiteral("kavet.socket")});
}

void TstClient::removesSocket_data()
{
    QTest::addColumn<int>("signal");
    QTest::newRow("terminate") << SIGTERM;
    QTest::newRow("interrupt") << SIGINT;
    QTest::newRow("hang up") << SIGHUP;
}

void TstClient::removesSocket()
{
    QFETCH(int, signal);
    ClientFixture client;
    QVERIFY(client.start());
    QVERIFY(QFileInfo::exists(TestDevice::socketPath));
    kill(pid_t(client.process.processId()), signal);
    QVERIFY(client.process.waitForFinished());
    QCOMPARE(client.process.exitStatus(), QProcess::NormalExit);
    QCOMPARE(client.process.exitCode(), 0);
    QVERIFY(QDir(TestDevice::clientDirectory).isEmpty(QDir::AllEntries | QDir::System | QDir::NoDotAndDotDot));
}

void TstClient::leavesAnothersSocket()
{
    QVERIFY(ClientFixture::setPassword(right));
    ClientFixture first;
    QVERIFY(first.start());
    ClientFixture second;
    QVERIFY(second.start());
    first.process.terminate();
    QVERIFY(first.process.waitForFinished());
    QVERIFY(QFileInfo::exists(TestDevice::socketPath));
    QCOMPARE(second.checkPassword(right), success);
}

void TstClient::answers()
{
    QVERIFY(ClientFixture::setPassword(right));
    ClientFixture client;
    QVERIFY(client.start());

    QCOMPARE(client.checkPassword(right), success);
    // There is nothing to reset, so nothing is written.
    QVERIFY(!QFileInfo::exists(ClientFixture::ownCounterPath));
    QCOMPARE(client.checkPassword(wrong), failed);
    QCOMPARE(ClientFixture::attempts(), 1);
    QCOMPARE(client.checkPassword({}), failed);
    QCOMPARE(ClientFixture::attempts(), 2);
    QCOMPARE(client.checkPassword(right + QStringLiteral(" ")), failed);
    QCOMPARE(ClientFixture::attempts(), 3);
    QCOMPARE(client.checkPassword(right), success);
    QCOMPARE(ClientFixture::attempts(), 0);
    QCOMPARE(client.validateCert(QStringLiteral("pkcs11:"), QStringLiteral("1234")), noToken);
    QCOMPARE(ClientFixture::attempts(), 0);
    QCOMPARE(client.certList(), QStringList());
}

void TstClient::anotherUser_data()
{
    QTest::addColumn<QString>("user");
    QTest::newRow("another user") << QStringLiteral("bob");
    QTest::newRow("root") << QStringLiteral("root");
    QTest::newRow("nobody's name") << QStringLiteral("mallory");
    QTest::newRow("other case") << QStringLiteral("Alice");
    QTest::newRow("no name") << QString();
}

void TstClient::anotherUser()
{
    QFETCH(QString, user);
    QVERIFY(ClientFixture::setPassword(right));
    ClientFixture client;
    QVERIFY(client.start());
    QCOMPARE(client.checkPassword(right, user), failed);
    QCOMPARE(client.validateCert(QStringLiteral("pkcs11:"), QStringLiteral("1234"), user), failed);
    // Nobody learns how alice logs in.
    QVERIFY(ClientFixture::setSetting(QStringLiteral("auth-type"), QStringLiteral("cert")));
    QCOMPARE(client.checkPassword(right, user), failed);
    QVERIFY(ClientFixture::setSetting(QStringLiteral("auth-type"), QStringLiteral("password")));
    QCOMPARE(client.validateCert(QStringLiteral("pkcs11:"), QStringLiteral("1234"), user), failed);
    // These are not alice's failures.
    QCOMPARE(ClientFixture::attempts(), 0);
}

void TstClient::noPassword()
{
    ClientFixture client;
    QVERIFY(client.start());
    QCOMPARE(client.checkPassword(right), wrongAuthType);
    QCOMPARE(client.checkPassword({}), wrongAuthType);
    QCOMPARE(ClientFixture::attempts(), 0);
}

void TstClient::damagedHash()
{
    QVERIFY(ClientFixture::setPassword(right));
    ClientFixture client;
    QVERIFY(client.start());
    QCOMPARE(client.checkPassword(right), success);
    const QByteArray settings = TestDevice::readFile(ClientFixture::settingsPath);
    const int begin = settings.lastIndexOf('$') + 1; // after the salt
    const int end = settings.indexOf('\n', begin);
    QVERIFY(begin > 0 && end > begin);
    const auto answerFor = [&client](const QByteArray &content) {
        // At another size, so that the client notices the change.
        return TestDevice::writeFile(ClientFixture::settingsPath, content) ? client.checkPassword(right) : QString();
    };
    QByteArray damaged = settings;
    // Without all that depends on the password
    QCOMPARE(answerFor(damaged.remove(begin, end - begin)), failed);
    for (const int position : {begin, end - 1}) {
        damaged = settings;
        damaged[position] = damaged.at(position) == '1' ? '2' : '1';
        QCOMPARE(answerFor(damaged + QByteArray(position, '\n')), failed);
    }
    QCOMPARE(answerFor(settings), success);
}

void TstClient::authType_data()
{
    QTest::addColumn<QString>("type");
    QTest::addColumn<QString>("passwordAnswer");
    QTest::addColumn<QString>("certAnswer");
    QTest::newRow("any") << QStringLiteral("any") << success << noToken;
    QTest::newRow("password") << QStringLiteral("password") << success << wrongAuthType;
    QTest::newRow("certificate") << QStringLiteral("cert") << wrongAuthType << noToken;
    QTest::newRow("nonsense") << QStringLiteral("retina") << success << noToken;
}

void TstClient::authType()
{
    QFETCH(QString, type);
    QFETCH(QString, passwordAnswer);
    QFETCH(QString, certAnswer);
    QVERIFY(ClientFixture::setPassword(right));
    QVERIFY(ClientFixture::setSetting(QStringLiteral("auth-type"), type));
    ClientFixture client;
    QVERIFY(client.start());
    QCOMPARE(client.checkPassword(right), passwordAnswer);
    QCOMPARE(client.validateCert(QStringLiteral("pkcs11:"), QStringLiteral("1234")), certAnswer);
}

void TstClient::uselessSetting_data()
{
    QTest::addColumn<QString>("value");
    QTest::addColumn<QByteArray>("warning");
    QTest::newRow("auth-type") << QStringLiteral("retina")
                               << QByteArray(" is not one of password, cert and any; using any");
    QTest::newRow("lock-after") << QStringLiteral("many") << QByteArray(" is not a valid number of attempts; using 5");
    QTest::newRow("remove-after") << QStringLiteral("-1") << QByteArray(" is not a valid number of attempts; using 10");
    QTest::newRow("mapping") << QStringLiteral("face")
                             << QByteArray(" contains a value other than uid, upn, email and cn");
}

void TstClient::uselessSetting()
{
    QFETCH(QString, value);
    QFETCH(QByteArray, warning);
    QVERIFY(ClientFixture::setSetting(QLatin1String(QTest::currentDataTag()), value));
    ClientFixture client;
    QVERIFY(client.start());
    QCOMPARE(client.checkPassword(right), wrongAuthType);
    QTRY_COMPARE(client.output(), "tarsk.kavet_client: " + QByteArray(QTest::currentDataTag()) + warning + '\n');
}

void TstClient::limits_data()
{
    QTest::addColumn<QString>("lockAfter");
    QTest::addColumn<QString>("removeAfter");
    QTest::addColumn<QStringList>("expected");

    const QStringList stock = {failed, failed, failed, failed, lock, lock, lock, lock, lock, removal, removal};
    QTest::newRow("stock") << QString() << QString() << stock;
    QTest::newRow("own") << QStringLiteral("2") << QStringLiteral("4")
                         << QStringList{failed, lock, lock, removal, removal};
    QTest::newRow("the same") << QStringLiteral("2") << QStringLiteral("2") << QStringList{failed, removal};
    QTest::newRow("removal first") << QStringLiteral("3") << QStringLiteral("2")
                                   << QStringList{failed, removal, removal, removal};
    QTest::newRow("never locked") << QStringLiteral("0") << QStringLiteral("3") << QStringList{failed, failed, removal};
    QTest::newRow("never removed") << QStringLiteral("1") << QStringLiteral("0") << QStringList{lock, lock, lock};
    QTest::newRow("no limits") << QStringLiteral("0") << QStringLiteral("0")
                               << QStringList{failed, failed, failed, failed, failed, failed,
                                              failed, failed, failed, failed, failed};
    QTest::newRow("nonsense") << QStringLiteral("many") << QStringLiteral("-1") << stock;
}

void TstClient::limits()
{
    QFETCH(QString, lockAfter);
    QFETCH(QString, removeAfter);
    QFETCH(QStringList, expected);

    QVERIFY(ClientFixture::setPassword(right));
    if (!lockAfter.isNull())
        QVERIFY(ClientFixture::setSetting(QStringLiteral("lock-after"), lockAfter));
    if (!removeAfter.isNull())
        QVERIFY(ClientFixture::setSetting(QStringLiteral("remove-after"), removeAfter));
    ClientFixture client;
    QVERIFY(client.start());
    QStringList answers;
    for (int i = 1; i <= expected.size(); ++i) {
        answers << client.checkPassword(wrong);
        QCOMPARE(ClientFixture::attempts(), i);
    }
    QCOMPARE(answers, expected);
}

void TstClient::lockedForTheRightPasswordToo()
{
    QVERIFY(ClientFixture::setPassword(right));
    QVERIFY(ClientFixture::setAttempts("5"));
    ClientFixture client;
    QVERIFY(client.start());
    QCOMPARE(client.checkPassword(right), lock);
    QCOMPARE(ClientFixture::attempts(), 6);
    QVERIFY(ClientFixture::setAttempts("10"));
    QCOMPARE(client.checkPassword(right), removal);
    QCOMPARE(ClientFixture::attempts(), 11);
}

void TstClient::ownCount()
{
    QVERIFY(ClientFixture::setPassword(right));
    {
        ClientFixture client;
        QVERIFY(client.start());
        QCOMPARE(client.checkPassword(wrong), failed);
        const int descriptors = client.openDescriptors();
        QCOMPARE(client.checkPassword(wrong), failed);
        QCOMPARE(client.openDescriptors(), descriptors);
        QCOMPARE(ClientFixture::ownAttempts(), QByteArray("2\n"));
        QCOMPARE(mode(ClientFixture::ownCounterPath), 0600U);
        QCOMPARE(owner(ClientFixture::ownCounterPath), TestDevice::alice);
    }
    // The plugin resets the count like this when it launches the client.
    QVERIFY(ClientFixture::setAttempts("0"));
    ClientFixture client;
    QVERIFY(client.start());
    QCOMPARE(client.checkPassword(wrong), failed);
    QCOMPARE(ClientFixture::attempts(), 3);
    QVERIFY(ClientFixture::setAttempts("1"));
    QCOMPARE(client.checkPassword(wrong), failed);
    QCOMPARE(ClientFixture::attempts(), 4);
    // The daemon's count may be higher.
    // The leading zero changes the file's size, because the client might not notice a change otherwise.
    QVERIFY(ClientFixture::setAttempts("05"));
    QCOMPARE(client.checkPassword(right), lock);
    QCOMPARE(ClientFixture::ownAttempts(), QByteArray("6\n"));
    // Removing the file unlocks the user.
    QVERIFY(QFile::remove(ClientFixture::ownCounterPath));
    QVERIFY(ClientFixture::setAttempts("004"));
    QCOMPARE(client.checkPassword(right), success);
    QCOMPARE(ClientFixture::attempts(), 0);
    QCOMPARE(ClientFixture::ownAttempts(), QByteArray("0\n"));
    QCOMPARE(QDir(QFileInfo(ClientFixture::ownCounterPath).path())
                 .entryList(QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot),
             QStringList(QStringLiteral("attempts")));
}

void TstClient::damagedOwnCount_data()
{
    QTest::addColumn<QByteArray>("content");
    QTest::addColumn<uint>("fileMode");
    QTest::addColumn<QString>("answer");
    QTest::addColumn<int>("after");
    QTest::addColumn<bool>("reported");
    QTest::newRow("not a number") << QByteArray("many") << 0600U << failed << 3 << true;
    QTest::newRow("empty") << QByteArray() << 0600U << failed << 3 << true;
    QTest::newRow("too much") << QByteArray(1000000, '1') << 0600U << failed << 3 << true;
    QTest::newRow("not readable") << QByteArray("4") << 0000U << failed << 3 << true;
    QTest::newRow("negative") << QByteArray("-5") << 0600U << failed << 3 << false;
    QTest::newRow("largest") << QByteArray("2147483647") << 0600U << removal << 2147483647 << false;
    QTest::newRow("number") << QByteArray("4") << 0600U << lock << 5 << false;
    QTest::newRow("largest, after as many unlocks")
        << QByteArray("2147483647 4294967295\n") << 0600U << removal << 2147483647 << false;
}

void TstClient::damagedOwnCount()
{
    QFETCH(QByteArray, content);
    QFETCH(uint, fileMode);
    QFETCH(QString, answer);
    QFETCH(int, after);
    QFETCH(bool, reported);
    QVERIFY(ClientFixture::setPassword(right));
    QVERIFY(ClientFixture::setAttempts("2"));
    ClientFixture client;
    QVERIFY(client.start());
    QVERIFY(TestDevice::writeFile(ClientFixture::ownCounterPath, content));
    for (QString path = ClientFixture::ownCounterPath; path != QLatin1String("/home/alice");
         path = QFileInfo(path).path())
        QVERIFY(TestDevice::setOwner(path, TestDevice::alice, TestDevice::alice));
    QCOMPARE(chmod(QFile::encodeName(ClientFixture::ownCounterPath).constData(), fileMode), 0);
    QCOMPARE(client.checkPassword(wrong), answer);
    QCOMPARE(ClientFixture::attempts(), after);
    // The client repairs the file if it can.
    const bool isKept = fileMode == 0 || content.contains(' ');
    QCOMPARE(ClientFixture::ownAttempts(), isKept ? content : QByteArray(QByteArray::number(after) + '\n'));
    const QByteArray report = "tarsk.kavet_client: " + ClientFixture::ownCounterPath.toUtf8()
                              + " holds no number of failed attempts; going by the shared one\n";
    QTRY_COMPARE(client.output().contains(report), reported);
}

void TstClient::countOutlivesTheClient()
{
    constexpr int rounds = 15;
    constexpr int calls = 8;
    QVERIFY(ClientFixture::setPassword(right));
    QVERIFY(ClientFixture::setSetting(QStringLiteral("lock-after"), 0));
    QVERIFY(ClientFixture::setSetting(QStringLiteral("remove-after"), 0));
    int known = 0;
    for (int i = 0; i < rounds; ++i) {
        ClientFixture client;
        QVERIFY(client.start());
        QVector<QDBusPendingCall> pending;
        for (int call = 0; call < calls; ++call)
            pending << client.connection().asyncCall(
                ClientFixture::request(QStringLiteral("checkPassword"), {QStringLiteral("alice"), wrong}));
        const auto told = [&pending] {
            return std::count_if(pending.cbegin(), pending.cend(),
                                 [](const QDBusPendingCall &call) { return call.isFinished() && !call.isError(); });
        };
        // However slow the machine is, kill the client at some point in the series of calls.
        const int before = QRandomGenerator::global()->bounded(calls);
        QTRY_VERIFY_WITH_TIMEOUT(told() >= before, 30000);
        QTest::qWait(QRandomGenerator::global()->bounded(50));
        client.process.kill();
        QVERIFY(client.process.waitForFinished());
        QTest::qWait(0); // Process replies that have already arrived.
        QVERIFY(ClientFixture::setAttempts("0"));
        bool isNumber = true;
        const QByteArray content = ClientFixture::ownAttempts();
        const int count = content.isEmpty() ? 0 : content.trimmed().toInt(&isNumber);
        QVERIFY2(isNumber, content.constData());
        QVERIFY2(count >= known + told(),
                 qPrintable(QStringLiteral("%1 after %2, %3 told").arg(count).arg(known).arg(told())));
        known = count;
    }
    QVERIFY(known > 0);
}

void TstClient::countIsDurable_data()
{
    QTest::addColumn<uint>("ownerOfDirectory");
    QTest::addColumn<QString>("calls");
    QTest::newRow("replaced") << TestDevice::alice << QStringLiteral("rename fsync ");
    QTest::newRow("overwritten") << uint(0) << QStringLiteral("ftruncate fsync ");
}

void TstClient::countIsDurable()
{
    QFETCH(uint, ownerOfDirectory);
    QFETCH(QString, calls);
    const QString directory = QFileInfo(ClientFixture::ownCounterPath).path();
    QVERIFY(ClientFixture::setPassword(right));
    ClientFixture client;
    QVERIFY(client.start());
    QCOMPARE(client.checkPassword(wrong), failed);
    QVERIFY(TestDevice::setOwner(directory, ownerOfDirectory, ownerOfDirectory)
            && chmod(QFile::encodeName(directory).constData(), 0755) == 0);
    const QString made = callsUntilReply(pid_t(client.process.processId()), [&client] {
        client.connection().asyncCall(
            ClientFixture::request(QStringLiteral("checkPassword"), {QStringLiteral("alice"), wrong}));
    });
    QVERIFY2(made.contains(calls), qPrintable(made));
    // The old count is there until the new one is.
    QVERIFY2(!made.leftRef(made.indexOf(calls)).contains(QLatin1String("empty")), qPrintable(made));
    QCOMPARE(ClientFixture::ownAttempts(), QByteArray("2\n"));
}

void TstClient::damagedCounter_data()
{
    QTest::addColumn<QByteArray>("count");
    QTest::addColumn<QString>("answer");
    QTest::addColumn<int>("after");
    QTest::newRow("not a number") << QByteArray("many") << failed << 1;
    QTest::newRow("empty") << QByteArray() << failed << 1;
    QTest::newRow("negative") << QByteArray("-5") << failed << 1;
    QTest::newRow("largest") << QByteArray("2147483647") << removal << 2147483647;
}

void TstClient::damagedCounter()
{
    QFETCH(QByteArray, count);
    QFETCH(QString, answer);
    QFETCH(int, after);
    QVERIFY(ClientFixture::setPassword(right));
    QVERIFY(ClientFixture::setAttempts(count));
    ClientFixture client;
    QVERIFY(client.start());
    QCOMPARE(client.checkPassword(wrong), answer);
    QCOMPARE(ClientFixture::attempts(), after);
}

void TstClient::counterFileStaysTheUsers()
{
    QVERIFY(ClientFixture::setPassword(right));
    ClientFixture client;
    QVERIFY(client.start());
    QVERIFY(TestDevice::writeFile(ClientFixture::counterPath, "[General]\nother=kept\ndrink=caf\xe9\nattempts=1\n"));
    QCOMPARE(chmod(QFile::encodeName(ClientFixture::counterPath).constData(), 0644), 0);
    // The draft of a client that was killed
    const QString draft = ClientFixture::counterPath + QStringLiteral(".new");
    QVERIFY(TestDevice::writeFile(draft, "[General]\nother=old\n"));
    QCOMPARE(client.checkPassword(wrong), failed);
    QCOMPARE(mode(ClientFixture::counterPath), 0600U);
    QCOMPARE(owner(ClientFixture::counterPath), TestDevice::alice);
    QVERIFY(TestDevice::readFile(ClientFixture::counterPath).contains("other=kept"));
    // The plugin reads the file as QSettings does.
    QCOMPARE(QSettings(ClientFixture::counterPath, QSettings::NativeFormat).value(QStringLiteral("drink")).toString(),
             QStringLiteral("caf\u00e9"));
    QVERIFY(!QFileInfo::exists(draft));

    // If there is no file, the client creates one that only its user can read.
    QVERIFY(QFile::remove(ClientFixture::counterPath));
    QCOMPARE(client.checkPassword(wrong), failed);
    QCOMPARE(ClientFixture::attempts(), 3);
    QCOMPARE(mode(ClientFixture::counterPath), 0600U);
}

void TstClient::counterCannotBeStored()
{
    const QString directory = QFileInfo(ClientFixture::ownCounterPath).path();
    QVERIFY(ClientFixture::setPassword(right));
    QVERIFY(TestDevice::setOwner(TestDevice::sharedDirectory, 0, 0));
    QVERIFY(QFile::remove(ClientFixture::counterPath));
    ClientFixture client;
    QVERIFY(client.start());
    QCOMPARE(client.checkPassword(wrong), failed);
    QByteArray expected = "tarsk.kavet_client: Cannot store the number of failed attempts in "
                          "/srv/shared/tarsk/kavet_client/1000.conf\n";
    QTRY_COMPARE(client.output(), expected);
    // One of the two files is enough.
    QCOMPARE(ClientFixture::ownAttempts(), QByteArray("1\n"));
    QVERIFY(TestDevice::setOwner(TestDevice::sharedDirectory, TestDevice::alice, TestDevice::alice));
    QVERIFY(ClientFixture::setAttempts("3"));
    for (const QString &path : {directory, ClientFixture::ownCounterPath})
        QVERIFY(TestDevice::setOwner(path, 0, 0) && chmod(QFile::encodeName(path).constData(), 0755) == 0);
    QCOMPARE(client.checkPassword(wrong), failed);
    QCOMPARE(ClientFixture::attempts(), 4);
    QCOMPARE(ClientFixture::ownAttempts(), QByteArray("1\n"));
    expected += "tarsk.kavet_client: Cannot store the number of failed attempts in "
                "/home/alice/.local/share/tarsk/kavet_client/attempts\n";
    QTRY_COMPARE(client.output(), expected);
    // Without both files, the client counts in memory.
    QVERIFY(TestDevice::setOwner(TestDevice::sharedDirectory, 0, 0));
    QVERIFY(QFile::remove(ClientFixture::counterPath));
    for (const QString &answer : {failed, failed, failed, lock})
        QCOMPARE(client.checkPassword(wrong), answer);
    QCOMPARE(client.checkPassword(right), lock);
    QVERIFY(TestDevice::setOwner(TestDevice::sharedDirectory, TestDevice::alice, TestDevice::alice));
    QCOMPARE(client.checkPassword(right), lock);
    QCOMPARE(ClientFixture::attempts(), 7);
    // Once a file holds the count again, the client no longer goes by its memory.
    QVERIFY(ClientFixture::setAttempts("04"));
    QCOMPARE(client.checkPassword(right), success);
}

void TstClient::fullDisk()
{
    QVERIFY(ClientFixture::setPassword(right));
    const QByteArray directory = QFile::encodeName(QFileInfo(ClientFixture::ownCounterPath).path());
    QVERIFY(QDir().mkpath(QString::fromLocal8Bit(directory)));
    const QByteArray shared = QFile::encodeName(TestDevice::sharedDirectory);
    const QByteArray settings = QFile::encodeName(QFileInfo(ClientFixture::settingsPath).path());
    const QByteArray settingsBefore = TestDevice::readFile(ClientFixture::settingsPath);
    const QByteArrayList all = {directory, shared, settings};
    for (const QByteArray &path : all)
        QCOMPARE(mount("full", path.constData(), "tmpfs", 0, "size=64k,uid=1000,gid=1000,mode=700"), 0);
    const auto unmount = qScopeGuard([&] {
        for (const QByteArray &path : all)
            umount2(path.constData(), MNT_DETACH);
    });
    QVERIFY(TestDevice::writeFile(ClientFixture::settingsPath, settingsBefore));
    QVERIFY(TestDevice::setOwner(ClientFixture::settingsPath, TestDevice::alice, TestDevice::alice));
    ClientFixture client;
    QVERIFY(client.start());
    QCOMPARE(client.checkPassword(wrong), failed);
    // Longer than what the client will overwrite it with
    QVERIFY(TestDevice::writeFile(ClientFixture::ownCounterPath, "00001\n"));
    for (const QByteArray &path : all) {
        const QByteArray room(64 * 1024, 'a');
        TestDevice::writeFile(QString::fromLocal8Bit(path) + QStringLiteral("/filling"), room);
        QVERIFY(!TestDevice::writeFile(QString::fromLocal8Bit(path) + QStringLiteral("/more"), room));
    }
    // Room for a copy of the counter file and for its lock; for a copy of the settings alone
    for (const auto &[path, pages] : {std::pair(shared, 2), std::pair(settings, 1)}) {
        QFile filling(QString::fromLocal8Bit(path) + QStringLiteral("/filling"));
        QVERIFY(filling.resize(filling.size() - pages * sysconf(_SC_PAGESIZE)));
    }
    const QByteArray countsBefore = TestDevice::readFile(ClientFixture::counterPath);
    const ClientFixture::Result result = ClientFixture::run({QStringLiteral("--set-password")}, "another\n");
    QCOMPARE(result.exitCode, 1);
    QCOMPARE(result.error, "tarsk.kavet_client: Cannot write " + ClientFixture::settingsPath.toUtf8() + '\n');
    QCOMPARE(TestDevice::readFile(ClientFixture::settingsPath), settingsBefore);
    // A restarted client continues the previous client's count.
    client.process.kill();
    QVERIFY(client.process.waitForFinished());
    QStringList answers;
    for (int i = 0; i < 4; ++i) {
        ClientFixture next;
        QVERIFY(next.start());
        answers << next.checkPassword(wrong);
        QCOMPARE(ClientFixture::ownAttempts(), QByteArray(QByteArray::number(i + 2) + '\n'));
    }
    QCOMPARE(answers, (QStringList{failed, failed, failed, lock}));
    QCOMPARE(TestDevice::readFile(ClientFixture::counterPath), countsBefore);
    for (const QString &path : {ClientFixture::counterPath, ClientFixture::settingsPath})
        QVERIFY(!QFileInfo::exists(path + QStringLiteral(".new")));
}

void TstClient::inTheWayOfTheOwnCount_data()
{
    QTest::addColumn<QString>("what");
    for (const char *what : {"directory", "FIFO", "lasting FIFO", "device", "link to nothing", "link to itself"})
        QTest::newRow(what) << QString::fromLatin1(what);
}

void TstClient::inTheWayOfTheOwnCount()
{
    QFETCH(QString, what);
    QVERIFY(ClientFixture::setPassword(right));
    QVERIFY(ClientFixture::setAttempts("2"));
    const QByteArray path = QFile::encodeName(ClientFixture::ownCounterPath);
    QVERIFY(TestDevice::writeFile(ClientFixture::ownCounterPath, {}) && QFile::remove(ClientFixture::ownCounterPath));
    for (QString name = QFileInfo(ClientFixture::ownCounterPath).path(); name != QLatin1String("/home/alice");
         name = QFileInfo(name).path())
        QVERIFY(TestDevice::setOwner(name, TestDevice::alice, TestDevice::alice));
    if (what == QLatin1String("directory"))
        QVERIFY(QDir().mkpath(ClientFixture::ownCounterPath + QStringLiteral("/inner")));
    else if (what.endsWith(QLatin1String("FIFO")))
        QVERIFY(mkfifo(path.constData(), 0666) == 0
                && TestDevice::setOwner(ClientFixture::ownCounterPath, TestDevice::alice, TestDevice::alice));
    else
        QCOMPARE(::symlink(what == QLatin1String("device")            ? "/dev/zero"
                           : what == QLatin1String("link to nothing") ? "/nowhere/at/all"
                                                                      : path.constData(),
                           path.constData()),
                 0);
    if (what == QLatin1String("lasting FIFO"))
        QVERIFY(TestDevice::setOwner(QFileInfo(ClientFixture::ownCounterPath).path(), 0, 0));
    const int reader = open(path.constData(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    ClientFixture client;
    QVERIFY(client.start());
    // The client uses the other file, does not block, and sends nothing.
    for (const QString &answer : {failed, failed, lock})
        QCOMPARE(client.checkPassword(wrong), answer);
    QCOMPARE(ClientFixture::attempts(), 5);
    char byte = 0;
    if (what.endsWith(QLatin1String("FIFO")))
        QCOMPARE(read(reader, &byte, 1), ssize_t(0));
    close(reader);
}

void TstClient::badCalls_data()
{
    QTest::addColumn<QDBusMessage>("call");
    QTest::addColumn<QString>("error");

    const auto call = [](const char *path, const char *interface, const char *method, const QVariantList &arguments) {
        QDBusMessage message = QDBusMessage::createMethodCall(QString(), QLatin1String(path), QLatin1String(interface),
                                                              QLatin1String(method));
        message.setArguments(arguments);
        return message;
    };
    const QString unknownMethod = QStringLiteral("org.freedesktop.DBus.Error.UnknownMethod");
    const QString invalidArguments = QStringLiteral("org.freedesktop.DBus.Error.InvalidArgs");
    QTest::newRow("unknown method") << call("/kavetauth", "tarsk.kavet_auth", "openDoor", {}) << unknownMethod;
    QTest::newRow("no arguments") << call("/kavetauth", "tarsk.kavet_auth", "checkPassword", {}) << invalidArguments;
    QTest::newRow("one argument") << call("/kavetauth", "tarsk.kavet_auth", "checkPassword", {wrong})
                                  << invalidArguments;
    QTest::newRow("numbers") << call("/kavetauth", "tarsk.kavet_auth", "checkPassword", {1, 2}) << invalidArguments;
    QTest::newRow("lists") << call("/kavetauth", "tarsk.kavet_auth", "validateCert",
                                   {QStringList{wrong}, QStringList{}, QStringList{}})
                           << invalidArguments;
    QTest::newRow("superfluous argument")
        << call("/kavetauth", "tarsk.kavet_auth", "getCertList", {wrong}) << invalidArguments;
    QTest::newRow("unknown interface") << call("/kavetauth", "tarsk.other", "checkPassword",
                                               {QStringLiteral("alice"), wrong})
                                       << unknownMethod;
    QTest::newRow("unknown object") << call("/elsewhere", "tarsk.kavet_auth", "checkPassword",
                                            {QStringLiteral("alice"), wrong})
                                    << QStringLiteral("org.freedesktop.DBus.Error.UnknownObject");
}

void TstClient::badCalls()
{
    QFETCH(QDBusMessage, call);
    QFETCH(QString, error);
    QVERIFY(ClientFixture::setPassword(right));
    ClientFixture client;
    QVERIFY(client.start());
    const QDBusMessage reply = client.call(call);
    QCOMPARE(reply.type(), QDBusMessage::ErrorMessage);
    QCOMPARE(reply.errorName(), error);
    QCOMPARE(ClientFixture::attempts(), 0);
    QCOMPARE(client.checkPassword(right), success);
}

void TstClient::hugePassword()
{
    QVERIFY(ClientFixture::setPassword(right));
    ClientFixture client;
    QVERIFY(client.start());
    const QString huge(20 * 1000 * 1000, QLatin1Char('a'));
    QCOMPARE(client.checkPassword(huge), failed);
    QCOMPARE(client.checkPassword(right, huge), failed);
    QCOMPARE(client.validateCert(huge, huge), failed);
    QCOMPARE(client.checkPassword(right), success);
}

void TstClient::noDump()
{
    ClientFixture client;
    QVERIFY(client.start());
    // The kernel gives the /proc entries of an undumpable process to root, so not even its own user can read its
    // memory.
    QCOMPARE(owner(QStringLiteral("/proc/%1/mem").arg(client.process.processId())), 0U);
    QProcess spy;
    ClientFixture::asUser(spy, QStringLiteral("cat"),
                          {QStringLiteral("/proc/%1/environ").arg(client.process.processId())});
    spy.start();
    QVERIFY(spy.waitForFinished());
    QVERIFY(spy.exitCode() != 0);
}

void TstClient::noSecrets()
{
    // The secret is long, so that its freed memory is not reused soon.
    const QString longWrong = QStringLiteral("swordfish").repeated(40);
    const QString nobodysPin = QStringLiteral("27182818").repeated(40);
    // Long enough to arrive in pieces.
    const QString endlessPin = QStringLiteral("16180339").repeated(5000);
    QVERIFY(ClientFixture::setPassword(right));
    ClientFixture client;
    QVERIFY(client.start());
    QCOMPARE(client.checkPassword(longWrong), failed);
    QCOMPARE(client.checkPassword(right), success);
    QCOMPARE(client.validateCert(QStringLiteral("pkcs11:"), nobodysPin), noToken);
    QCOMPARE(client.validateCert(QStringLiteral("pkcs11:"), endlessPin), noToken);
    client.certList();

    const QString proc = QStringLiteral("/proc/%1/").arg(client.process.processId());
    const QByteArray open = TestDevice::readFile(proc + QStringLiteral("cmdline"))
                            + TestDevice::readFile(proc + QStringLiteral("environ")) + client.output()
                            + everythingIn(QStringLiteral("/home/alice")) + everythingIn(QStringLiteral("/srv/shared"))
                            + everythingIn(QStringLiteral("/tmp"));
    QVERIFY(open.contains("password-hash"));
    for (const QString &secret : {right, longWrong, nobodysPin, endlessPin}) {
        QVERIFY2(!open.contains(secret.toUtf8()), qPrintable(secret));
        QVERIFY2(!ClientFixture::memoryHoldsText(client.process.processId(), secret.right(20)), qPrintable(secret));
    }
    // Check that the search itself works.
    QVERIFY(ClientFixture::memoryHolds(client.process.processId(), "HOME=/home/alice"));
}

void TstClient::methodAuthenticates()
{
    const auto failedWith = [](SettingsKavet::ResultCode code) {
        return RecordingDaemon::failed(SettingsKavet::EnterPasswordOrPin, code);
    };
    QVERIFY(ClientFixture::takeLaunchersPlace());
    QVERIFY(ClientFixture::setPassword(right));

    MethodFixture fixture;
    QStringList told;
    const auto authenticate = [&fixture](const QString &password) {
        fixture.daemon.calls.clear();
        fixture.method.authenticate(TestDevice::alice, MethodFixture::passwordData(password));
        return waitUntil([&fixture] { return !fixture.daemon.outcomes().isEmpty(); })
                   ? fixture.daemon.outcomes().constFirst()
                   : RecordingDaemon::Call{QStringLiteral("nothing"), {}};
    };
    const auto attempts = [&fixture] {
        return fixture.method.getOptionInternal(TestDevice::alice, QStringLiteral("attempts")).toInt();
    };
    QCOMPARE(authenticate(right), RecordingDaemon::succeeded());
    QCOMPARE(authenticate(wrong), failedWith(SettingsKavet::AuthFailed));
    QTRY_COMPARE(attempts(), 1);
    QCOMPARE(authenticate(wrong), failedWith(SettingsKavet::AuthFailed));
    QTRY_COMPARE(attempts(), 2);
    QCOMPARE(authenticate(right), RecordingDaemon::succeeded());
    QTRY_COMPARE(attempts(), 0);
    for (int i = 0; i < 4; ++i)
        QCOMPARE(authenticate(wrong), failedWith(SettingsKavet::AuthFailed));
    QCOMPARE(authenticate(wrong), failedWith(SettingsKavet::UserLocked));
    QCOMPARE(authenticate(right), failedWith(SettingsKavet::UserLocked));
    QTRY_COMPARE(attempts(), 6);
    fixture.d->currentUid = 0; // Otherwise the method would restart the client.
    fixture.d->child.terminate();
    fixture.d->child.waitForFinished();
    QVERIFY(!QFileInfo::exists(TestDevice::socketPath));
}

QTEST_GUILESS_MAIN(TstClient)
#include "tst_client.moc"
