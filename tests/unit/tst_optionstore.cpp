// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#include "platformtest.h"
#include "support/recordingdaemon.h"
#include "support/waiting.h"

#include <authd/authplugininterface.h>
#include <authd/validationscope.h>

#include <QDateTime>
#include <QRandomGenerator>
#include <QRegularExpression>
#include <QSize>
#include <QTest>

#include <rapidcheck.h>

#include <csignal>
#include <functional>
#include <limits>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/ptrace.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <thread>

using PlatformTest::mode;
using PlatformTest::PlatformLog;
using TestDevice::readFile;
using TestDevice::writeFile;

namespace {

const QString store = QStringLiteral("/var/lib/authd");
const QString methodFile = QStringLiteral("/var/lib/authd/methods/probe/current.conf");
const QString userFile = QStringLiteral("/var/lib/authd/users/1000.conf");
constexpr uint alice = 1000;
constexpr uint bob = 1001;
constexpr uint nobody = 65534;
const QString list = QStringLiteral("list");
const QString number = QStringLiteral("number");
const QString text = QStringLiteral("text");
const QString flag = QStringLiteral("flag");

QVariant utf8(const char *string)
{
    return QString::fromUtf8(string);
}

bool isSame(const QVariant &left, const QVariant &right)
{
    return left.userType() == right.userType() && left == right;
}

/// A method with two options for itself and two for each user.
class Handler : public AuthPluginInterface
{
public:
    explicit Handler(const QString &name = QStringLiteral("probe"))
        : AuthPluginInterface(name)
        , m_name(name)
    {
    }

    QString name() const override { return m_name; }
    const QMap<QString, QVariant> &defaultOptions(uint uid) override
    {
        static const QMap<QString, QVariant> own = {{list, QStringList()}, {number, 7}};
        static const QMap<QString, QVariant> users = {{number, 0}, {flag, false}};
        return uid == 0 ? own : users;
    }
    QVariant getOption(uint, const QString &) override { return utf8("computed"); }
    const ValidationScope &getOptionsValidations(uint) override { return m_scope; }
    void handleOptionChanged(uint uid, const QString &option, const QVariant &value) override
    {
        changes << QVariantList{uid, option, value};
        if (onChange)
            onChange();
    }
    const AuthUiPages &pages() const override { return m_pages; }
    int types() const override { return 0; }
    QString getErrorMessage(int) const override { return {}; }
    void reset() override { }
    void authenticate(uint, const QMap<QString, QVariant> &) override { }
    bool isAvailable(uint) override { return true; }
    void handleUserSessionTriggered(uint, bool, bool) override { }
    QString getAuthData(const QMap<QString, QVariant> &) override { return {}; }
    int increaseAttempts(uint) override { return 0; }
    int getAttempts(uint) override { return 0; }
    void resetAttempts(uint) override { }

    QVector<QVariantList> changes;
    std::function<void()> onChange;

private:
    const QString m_name;
    const ValidationScope m_scope;
    const AuthUiPages m_pages;
};

QStringList entries(const QString &directory)
{
    return QDir(directory).entryList(QDir::NoDotAndDotDot | QDir::AllEntries | QDir::System | QDir::Hidden);
}

/// Runs `work` in a forked child and kills it after `steps` entries and exits of system calls. Returns 1 if it was
/// killed, 0 if it ended before, -1 on error.
int killAfter(int steps, const std::function<void()> &work)
{
    const pid_t child = PlatformTest::forkTraced(work);
    int status = 0;
    if (child < 0 || waitpid(child, &status, 0) != child || !WIFSTOPPED(status))
        return -1;
    for (int step = 0; step < steps; ++step) {
        if (ptrace(PTRACE_SYSCALL, child, nullptr, nullptr) != 0 || waitpid(child, &status, 0) != child)
            return -1;
        if (WIFEXITED(status))
            return WEXITSTATUS(status) == 0 ? 0 : -1;
    }
    return kill(child, SIGKILL) == 0 && waitpid(child, &status, 0) == child && WIFSIGNALED(status) ? 1 : -1;
}

/// Runs `work` in a forked child and returns its system calls that change or sync directories and files, in order.
QStringList callsOf(const std::function<void()> &work)
{
    static const QMap<long, QString> names = {
        {SYS_fsync, QStringLiteral("fsync")},
#ifdef SYS_mkdir
        {SYS_mkdir, QStringLiteral("mkdir")},
        {SYS_rename, QStringLiteral("rename")},
        {SYS_unlink, QStringLiteral("unlink")},
#else
        {SYS_mkdirat, QStringLiteral("mkdir")},
        {SYS_renameat, QStringLiteral("rename")},
        {SYS_unlinkat, QStringLiteral("unlink")},
#endif
    };
    QStringList calls;
    PlatformTest::trace(work, [&calls](long call, const std::uint64_t *) {
        if (names.contains(call))
            calls << names.value(call);
    });
    return calls;
}

bool becomeNobody()
{
    return setresgid(nobody, nobody, nobody) == 0 && setresuid(nobody, nobody, nobody) == 0;
}

} // namespace

class TstOptionStore : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase() { PlatformTest::requireDevice(); }
    void init();

    void notADirectory(); // Must be the first to log, because a process's first message can change errno.

    void types_data();
    void types();
    void refusedValues_data();
    void refusedValues();
    void tooLong();
    void names_data();
    void names();
    void methodNames_data();
    void methodNames();
    void files();
    void modes();
    void defaults();
    void removal();
    void userRemoved();
    void changedByOthers();
    void repeatedKey();

    void damagedFile_data();
    void damagedFile();
    void damagedValues_data();
    void damagedValues();
    void damagedTwice();
    void cannotSetAside();

    void unreadable();
    void danglingDirectory();
    void notWritable();
    void fullDisk();
    void durable();
    void closesOnExec();
    void killedAtEveryStep_data();
    void killedAtEveryStep();
    void killedWriter();
    void leftovers();
    void twoProcesses();
    void signalWhileWaiting();
    void noDescriptorLeft();
    void likeAMap();

    void setOption();
    void notifications();
    void noNotificator();
    void inherited();
};

void TstOptionStore::init()
{
    PlatformTest::removeAll(store);
    umask(022);
}

void TstOptionStore::types_data()
{
    QTest::addColumn<QVariant>("value");
    const auto row = [](const char *name, const QVariant &value) {
        QTest::newRow(name) << value;
    };
    row("false", false);
    row("true", true);
    row("int 0", 0);
    row("int 1", 1);
    row("int least", std::numeric_limits<int>::min());
    row("int largest", std::numeric_limits<int>::max());
    row("uint 0", 0U);
    row("uint largest", std::numeric_limits<uint>::max());
    row("int64 5", qlonglong(5));
    row("int64 least", std::numeric_limits<qlonglong>::min());
    row("int64 largest", std::numeric_limits<qlonglong>::max());
    row("uint64 5", qulonglong(5));
    row("uint64 largest", std::numeric_limits<qulonglong>::max());
    row("double 0", 0.0);
    row("double whole", 3.0);
    row("double", -0.1);
    row("double least", std::numeric_limits<double>::min());
    row("double largest", std::numeric_limits<double>::max());
    row("double infinite", -std::numeric_limits<double>::infinity());
    row("text empty", QString(QLatin1String("")));
    row("text number", utf8("5"));
    row("text flag", utf8("false"));
    row("text spaces", utf8("  a  "));
    row("text lines", utf8("\na\r\nb\t\n"));
    row("text quotes", utf8("'a' \"b\" `c`"));
    row("text backslashes", utf8("\\a\\\\n\\"));
    row("text separators", utf8(";a;b=c;[d]#e%s%n"));
    row("text non-ASCII", utf8("пароль äöü €"));
    row("text beyond the plane", utf8("\xf0\x9f\x94\x91"));
    row("text control", QString::fromUtf8("\x01\x1b\x7f\xc2\x85\xe2\x80\xa8"));
    row("text byte order mark", QString(QString(QChar(0xfeff)) + QChar(0xfffe) + QChar(0xffff)));
    row("text long", QString(4096, QLatin1Char('x')));
    row("list empty", QStringList());
    row("list dot", QStringList{QStringLiteral(".")});
    row("list of empty texts", QStringList{QString(), QString()});
    row("list", QStringList{QStringLiteral("a;b"), QStringLiteral("c=\n'\"\\"), QString::fromUtf8("ключ")});
    row("bytes empty", QByteArray(""));
    row("bytes text", QByteArray("plain"));
    row("bytes with zero", QByteArray("a\0b", 3));
    row("bytes ending in zero", QByteArray("ab\0", 3));
    row("bytes zero", QByteArray("\0", 1));
    QByteArray all;
    for (int i = 0; i < 256; ++i)
        all += char(i);
    row("bytes of every kind", all);
}

void TstOptionStore::types()
{
    QFETCH(QVariant, value);
    const PlatformLog log;
    Handler handler;
    for (const uint uid : {0U, alice, std::numeric_limits<uint>::max()}) {
        QVERIFY(handler.setOptionInternal(uid, text, value));
        const QVariant read = Handler().getOptionInternal(uid, text);
        QCOMPARE(read.userType(), value.userType());
        QCOMPARE(read, value);
    }
    // Other files in the directory are unchanged.
    QVERIFY(handler.setOptionInternal(alice, number, 3));
    QCOMPARE(handler.getOptionInternal(alice, text), value);
    QCOMPARE(handler.getOptionInternal(alice, number), QVariant(3));
    QCOMPARE(log.lines(), QStringList());
}

void TstOptionStore::refusedValues_data()
{
    QTest::addColumn<QVariant>("value");
    QTest::addColumn<QString>("type");
    QTest::newRow("map") << QVariant(QVariantMap{{QStringLiteral("secret"), 1}}) << "QVariantMap";
    QTest::newRow("list") << QVariant(QVariantList{1, QStringLiteral("secret")}) << "QVariantList";
    QTest::newRow("float") << QVariant(1.5F) << "float";
    QTest::newRow("char") << QVariant(QChar(QLatin1Char('s'))) << "QChar";
    QTest::newRow("long") << QVariant::fromValue(5L) << "long";
    QTest::newRow("short") << QVariant::fromValue(short(5)) << "short";
    QTest::newRow("size") << QVariant(QSize(1, 2)) << "QSize";
    QTest::newRow("time") << QVariant(QDateTime::currentDateTime()) << "QDateTime";
    QTest::newRow("double too small") << QVariant(std::numeric_limits<double>::denorm_min()) << "double";
    QTest::newRow("zero character") << QVariant(QLatin1String("secret") + QString(QChar(QChar::Null))) << "QString";
    QTest::newRow("half a pair") << QVariant(QString(QChar(0xd83d)) + QLatin1String("secret")) << "QString";
    QTest::newRow("half a pair at the end") << QVariant(QLatin1String("secret") + QString(QChar(0xd83d))) << "QString";
    QTest::newRow("in a list") << QVariant(QStringList{QStringLiteral("secret"), QString(QChar(0xdc00))})
                               << "QStringList";
}

void TstOptionStore::refusedValues()
{
    QFETCH(QVariant, value);
    QFETCH(QString, type);
    Handler handler;
    RecordingDaemon daemon;
    QVERIFY(handler.setOptionInternal(alice, text, 1));
    const QByteArray before = readFile(userFile);
    handler.setNotificator(&daemon);

    const PlatformLog log;
    QVERIFY(!handler.setOptionInternal(alice, text, value));
    QCOMPARE(log.lines(),
             QStringList{QStringLiteral("Cannot store the value of option \"probe\" 1000 \"text\" %1").arg(type)});
    QVERIFY(!log.text().contains(QLatin1String("secret")));
    QCOMPARE(readFile(userFile), before);
    QVERIFY(daemon.calls.isEmpty());
}

void TstOptionStore::tooLong()
{
    Handler handler;
    QVERIFY(handler.setOptionInternal(alice, text, 1));
    const QByteArray before = readFile(userFile);
    const PlatformLog log;
    const QVariant values[] = {QString(4097, QLatin1Char('x')), QByteArray(4097, 'x'),
                               QStringList{QString(2047, QLatin1Char('x')), QString(2048, QLatin1Char('x'))}};
    for (const QVariant &value : values)
        QVERIFY(!handler.setOptionInternal(alice, text, value));
    QCOMPARE(readFile(userFile), before);
    QCOMPARE(log.lines(), QStringList());
}

void TstOptionStore::names_data()
{
    QTest::addColumn<QString>("name");
    QTest::addColumn<bool>("legal");
    for (const char *name : {"a", "max-attempts", "devlock/kavet", "a b", "a;b", "a#b", "ключ", "a'b\\", "a.b:c"})
        QTest::newRow(name) << QString::fromUtf8(name) << true;
    for (const char *name : {"", "a=b", "[a]", "a[b]", "]", "#a", " a", "a ", "\ta", "a\nb", "a\x01", "a\x7f"})
        QTest::addRow("illegal %s", QByteArray(name).toPercentEncoding().constData())
            << QString::fromUtf8(name) << false;
    QTest::newRow("zero character") << QString(QLatin1Char('a')) + QChar(QChar::Null) << false;
    QTest::newRow("half a pair") << QString(QChar(0xd83d)) << false;
}

void TstOptionStore::names()
{
    QFETCH(QString, name);
    QFETCH(bool, legal);
    Handler handler;
    QVERIFY(handler.setOptionInternal(alice, number, 3));
    const QByteArray before = readFile(userFile);

    const PlatformLog log;
    QCOMPARE(handler.setOptionInternal(alice, name, 4), legal);
    QCOMPARE(handler.getOptionInternal(alice, name), legal ? QVariant(4) : QVariant());
    QCOMPARE(handler.getOptionInternal(alice, number), QVariant(3));
    QCOMPARE(handler.setOptionInternal(alice, name, QVariant()), legal);
    QCOMPARE(readFile(userFile), before);
    QCOMPARE(log.lines().size(), legal ? 0 : 3);
    if (!legal)
        QVERIFY(log.lines().constFirst().startsWith(QLatin1String("Invalid option name \"probe\" ")));
}

void TstOptionStore::methodNames_data()
{
    QTest::addColumn<QString>("name");
    QTest::addColumn<bool>("legal");
    for (const char *name : {"kavet", "a b", "...", "ключ"})
        QTest::newRow(name) << QString::fromUtf8(name) << true;
    for (const char *name : {"", ".", "..", "a/b", "../users", "[a]", "a\nb"})
        QTest::addRow("illegal %s", QByteArray(name).toPercentEncoding().constData())
            << QString::fromUtf8(name) << false;
}

void TstOptionStore::methodNames()
{
    QFETCH(QString, name);
    QFETCH(bool, legal);
    const PlatformLog log;
    Handler handler(name);
    for (const uint uid : {0U, alice}) {
        QCOMPARE(handler.setOptionInternal(uid, number, 4), legal);
        QCOMPARE(handler.getOptionInternal(uid, number),
                 legal ? QVariant(4) : handler.defaultOptions(uid).value(number));
    }
    QCOMPARE(QFileInfo::exists(store), legal);
    handler.handleUserRemovedInternal(alice);
    QCOMPARE(log.lines().size(), legal ? 0 : 5);
    const QStringList lines = log.lines();
    for (const QString &line : lines)
        QVERIFY(line.startsWith(QLatin1String("Invalid method name \"")));
}

void TstOptionStore::files()
{
    Handler probe;
    Handler other(QStringLiteral("other"));
    QVERIFY(probe.setOptionInternal(0, list, QStringList{QStringLiteral("a"), QStringLiteral("b")}));
    QVERIFY(probe.setOptionInternal(0, number, 5));
    QVERIFY(other.setOptionInternal(0, number, 6));
    QVERIFY(probe.setOptionInternal(alice, number, 1U));
    QVERIFY(other.setOptionInternal(alice, flag, true));
    QVERIFY(probe.setOptionInternal(bob, number, 2));
    QVERIFY(probe.setOptionInternal(4294967295U, number, 2));

    QCOMPARE(readFile(methodFile), QByteArray("[probe]\nlist=['a', 'b']\nnumber=5\n"));
    QCOMPARE(readFile(QStringLiteral("/var/lib/authd/methods/other/current.conf")), QByteArray("[other]\nnumber=6\n"));
    QCOMPARE(readFile(userFile), QByteArray("[probe]\nnumber=uint32 1\n\n[other]\nflag=true\n"));
    QCOMPARE(readFile(QStringLiteral("/var/lib/authd/users/1001.conf")), QByteArray("[probe]\nnumber=2\n"));
    QCOMPARE(entries(store), (QStringList{QStringLiteral("methods"), QStringLiteral("users")}));
    QCOMPARE(
        entries(store + QStringLiteral("/users")),
        (QStringList{QStringLiteral("1000.conf"), QStringLiteral("1001.conf"), QStringLiteral("4294967295.conf")}));
    QCOMPARE(entries(store + QStringLiteral("/methods/probe")), QStringList{QStringLiteral("current.conf")});
}

void TstOptionStore::modes()
{
    umask(0);
    Handler handler;
    QVERIFY(handler.setOptionInternal(0, number, 1));
    QVERIFY(handler.setOptionInternal(alice, number, 1));
    for (const char *directory : {"", "/methods", "/methods/probe", "/users"})
        QCOMPARE(mode(store + QLatin1String(directory)), 0700);
    QCOMPARE(mode(methodFile), 0600);
    QCOMPARE(mode(userFile), 0600);

    // Writing restores the mode of a file that somebody made accessible.
    QCOMPARE(chmod(QFile::encodeName(userFile).constData(), 0666), 0);
    QVERIFY(handler.setOptionInternal(alice, number, 2));
    QCOMPARE(mode(userFile), 0600);

    QVERIFY(writeFile(userFile, "[probe]\nnumber=1\nflag=nonsense\n"));
    const PlatformLog log;
    QCOMPARE(handler.getOptionInternal(alice, number), QVariant(1));
    QCOMPARE(mode(userFile), 0600);
}

void TstOptionStore::defaults()
{
    Handler handler;
    const PlatformLog log;
    QVERIFY(isSame(handler.getOptionInternal(0, list), QStringList()));
    QVERIFY(isSame(handler.getOptionInternal(0, number), 7));
    QVERIFY(isSame(handler.getOptionInternal(alice, number), 0));
    QVERIFY(isSame(handler.getOptionInternal(alice, flag), false));
    QVERIFY(!handler.getOptionInternal(alice, list).isValid());
    QVERIFY(!handler.getOptionInternal(0, flag).isValid());
    QCOMPARE(log.lines(), QStringList());
    // Reading creates no files.
    QVERIFY(!QFileInfo::exists(store));

    // A value that equals the default is stored too.
    QVERIFY(handler.setOptionInternal(0, number, 7));
    QVERIFY(QFileInfo::exists(methodFile));
}

void TstOptionStore::removal()
{
    Handler handler;
    Handler other(QStringLiteral("other"));
    // There is nothing to remove.
    QVERIFY(handler.setOptionInternal(alice, number, QVariant()));
    QVERIFY(!QFileInfo::exists(store));

    QVERIFY(handler.setOptionInternal(alice, number, 3));
    QVERIFY(handler.setOptionInternal(alice, flag, true));
    QVERIFY(other.setOptionInternal(alice, number, 4));
    QVERIFY(handler.setOptionInternal(alice, text, QVariant()));
    QVERIFY(handler.setOptionInternal(alice, number, QVariant()));
    QCOMPARE(handler.getOptionInternal(alice, number), QVariant(0));
    QCOMPARE(handler.getOptionInternal(alice, flag), QVariant(true));
    QCOMPARE(other.getOptionInternal(alice, number), QVariant(4));

    QVERIFY(handler.setOptionInternal(alice, flag, QVariant()));
    QCOMPARE(readFile(userFile), QByteArray("[other]\nnumber=4\n"));
    QVERIFY(other.setOptionInternal(alice, number, QVariant()));
    QVERIFY(!QFileInfo::exists(userFile));
}

void TstOptionStore::userRemoved()
{
    Handler handler;
    Handler other(QStringLiteral("other"));
    RecordingDaemon daemon;
    for (const uint uid : {0U, alice, bob}) {
        QVERIFY(handler.setOptionInternal(uid, number, 3));
        QVERIFY(handler.setOptionInternal(uid, flag, true));
    }
    QVERIFY(other.setOptionInternal(alice, number, 4));

    handler.handleUserRemovedInternal(alice);
    QCOMPARE(handler.getOptionInternal(alice, number), QVariant(0));
    QCOMPARE(handler.getOptionInternal(alice, flag), QVariant(false));
    QCOMPARE(other.getOptionInternal(alice, number), QVariant(4));
    QCOMPARE(handler.getOptionInternal(bob, number), QVariant(3));
    other.handleUserRemovedInternal(alice);
    QVERIFY(!QFileInfo::exists(userFile));

    const PlatformLog log;
    handler.handleUserRemovedInternal(alice);
    handler.handleUserRemovedInternal(0);
    QCOMPARE(handler.getOptionInternal(0, number), QVariant(3));
    QCOMPARE(log.lines(), QStringList());
}

void TstOptionStore::changedByOthers()
{
    Handler handler;
    QVERIFY(handler.setOptionInternal(alice, number, 3));
    QVERIFY(
        writeFile(userFile, "# by hand\n[probe]\n\nnumber = 4 \nflag=true\nflag[de]=false\n[strange]\nwhat=@as []\n"));
    QCOMPARE(handler.getOptionInternal(alice, number), QVariant(4));
    QCOMPARE(handler.getOptionInternal(alice, flag), QVariant(true));

    QVERIFY(handler.setOptionInternal(alice, number, 5));
    const QByteArray content = readFile(userFile);
    QVERIFY(content.startsWith("# by hand\n"));
    QVERIFY(content.contains("\nflag[de]=false\n"));
    QVERIFY(content.contains("[strange]\nwhat=@as []\n"));

    QVERIFY(QFile::remove(userFile));
    QCOMPARE(handler.getOptionInternal(alice, number), QVariant(0));

    // An empty file has no values; it is not damaged.
    QVERIFY(writeFile(userFile, ""));
    const PlatformLog log;
    QCOMPARE(handler.getOptionInternal(alice, number), QVariant(0));
    QVERIFY(handler.setOptionInternal(alice, number, 6));
    QCOMPARE(log.lines(), QStringList());
}

void TstOptionStore::repeatedKey()
{
    QVERIFY(writeFile(userFile, "[probe]\nnumber=1\ntext='a'\n[other]\nnumber=1\n[probe]\nnumber=2\n"));

    Handler handler;
    QVERIFY(isSame(handler.getOptionInternal(alice, number), 2));
    QVERIFY(handler.setOptionInternal(alice, number, QVariant()));
    QVERIFY(isSame(handler.getOptionInternal(alice, number), 0));
    QVERIFY(isSame(handler.getOptionInternal(alice, text), utf8("a")));
    QVERIFY(readFile(userFile).contains("[other]\nnumber=1\n"));
}

void TstOptionStore::damagedFile_data()
{
    QTest::addColumn<QString>("kind");
    QTest::addColumn<QByteArray>("content");
    const auto row = [](const char *name, const QByteArray &content) {
        QTest::newRow(name) << "file" << content;
    };
    row("text", "SECRET without a group\n");
    row("stray value", "number=1\n");
    row("truncated group", "[probe]\nnumber=5\n[oth");
    row("line that is none", "[probe]\nnumber=5\nSECRET\n");
    row("not UTF-8", "[probe]\nnumber=5\ntext='SECRET\xff'\n");
    row("zero bytes", QByteArray(512, '\0'));
    row("zero byte at the end", QByteArray("[probe]\nnumber=5\n\0", 18));
    row("binary", QByteArray("\x7f\x45LF\2\1\1\0SECRET", 14));
    for (const char *kind : {"link", "dangling link", "directory", "fifo"})
        QTest::newRow(kind) << QString::fromLatin1(kind) << QByteArray();
}

void TstOptionStore::damagedFile()
{
    QFETCH(QString, kind);
    QFETCH(QByteArray, content);
    const QString damaged = userFile + QStringLiteral(".damaged");
    const QString target = QStringLiteral("/tmp/tst_optionstore-target");
    const QByteArray name = QFile::encodeName(userFile);
    QVERIFY(writeFile(target, "[probe]\nnumber=9\n"));
    QVERIFY(QDir().mkpath(QFileInfo(userFile).path()));
    if (kind == QLatin1String("file"))
        QVERIFY(writeFile(userFile, content));
    else if (kind == QLatin1String("link"))
        QVERIFY(QFile::link(target, userFile));
    else if (kind == QLatin1String("dangling link"))
        QVERIFY(QFile::link(QStringLiteral("nowhere"), userFile));
    else if (kind == QLatin1String("directory"))
        QVERIFY(QDir().mkpath(userFile + QStringLiteral("/inside")));
    else
        QCOMPARE(mkfifo(name.constData(), 0600), 0);
    struct stat before;
    QCOMPARE(lstat(name.constData(), &before), 0);

    Handler handler;
    const PlatformLog log;
    QVERIFY(isSame(handler.getOptionInternal(alice, number), 0));
    const QStringList expected = {QStringLiteral("Not a key file \"%1\"").arg(userFile),
                                  QStringLiteral("Set aside as \"%1\"").arg(damaged)};
    QCOMPARE(log.lines(), expected);
    struct stat after;
    QCOMPARE(lstat(QFile::encodeName(damaged).constData(), &after), 0);
    QCOMPARE(after.st_ino, before.st_ino);
    QCOMPARE(after.st_size, before.st_size);
    if (kind == QLatin1String("file"))
        QCOMPARE(readFile(damaged), content);

    // The store starts a new file and reports nothing more.
    QVERIFY(handler.setOptionInternal(alice, flag, true));
    QCOMPARE(readFile(userFile), QByteArray("[probe]\nflag=true\n"));
    QCOMPARE(log.lines(), expected);
    QCOMPARE(readFile(target), QByteArray("[probe]\nnumber=9\n"));
}

void TstOptionStore::damagedValues_data()
{
    QTest::addColumn<QByteArray>("damage");
    QTest::newRow("nothing") << QByteArray("");
    QTest::newRow("bare word") << QByteArray("SECRET");
    QTest::newRow("open text") << QByteArray("'SECRET");
    QTest::newRow("open list") << QByteArray("['SECRET', 'b");
    QTest::newRow("too large a number") << QByteArray("4294967296");
    QTest::newRow("two values") << QByteArray("5 6");
    QTest::newRow("another type") << QByteArray("{'SECRET': <5>}");
    QTest::newRow("another integer") << QByteArray("int16 5");
    QTest::newRow("mixed list") << QByteArray("['SECRET', 5]");
    QTest::newRow("deep") << QByteArray("[").repeated(100000);
}

void TstOptionStore::damagedValues()
{
    QFETCH(QByteArray, damage);
    const QString damaged = userFile + QStringLiteral(".damaged");
    const QByteArray content = "[probe]\nnumber=5\ntext=" + damage + "\nflag=true\n\n[other]\nlist=['x']\n";
    QVERIFY(writeFile(userFile, content));

    Handler handler;
    const PlatformLog log;
    QVERIFY(!handler.getOptionInternal(alice, text).isValid());
    const QStringList expected = {QStringLiteral("Damaged value \"%1\" \"probe\" \"text\"").arg(userFile),
                                  QStringLiteral("Set aside as \"%1\"").arg(damaged)};
    QCOMPARE(log.lines(), expected);
    QCOMPARE(readFile(damaged), content);
    QCOMPARE(readFile(userFile), QByteArray("[probe]\nnumber=5\nflag=true\n\n[other]\nlist=['x']\n"));
    QCOMPARE(handler.getOptionInternal(alice, number), QVariant(5));
    QCOMPARE(handler.getOptionInternal(alice, flag), QVariant(true));
    QCOMPARE(Handler(QStringLiteral("other")).getOptionInternal(alice, list),
             QVariant(QStringList(QStringLiteral("x"))));
    QCOMPARE(log.lines(), expected);

    // The result is the same if a write finds the damage first.
    QVERIFY(writeFile(userFile, content));
    QVERIFY(handler.setOptionInternal(alice, number, 6));
    QCOMPARE(readFile(damaged + QStringLiteral(".1")), content);
    QCOMPARE(readFile(userFile), QByteArray("[probe]\nnumber=6\nflag=true\n\n[other]\nlist=['x']\n"));
}

void TstOptionStore::damagedTwice()
{
    Handler handler;
    const PlatformLog log;
    for (const char *content : {"first", "second", "third"}) {
        QVERIFY(writeFile(userFile, content));
        QVERIFY(handler.setOptionInternal(alice, number, 1));
    }
    QCOMPARE(readFile(userFile + QStringLiteral(".damaged")), QByteArray("first"));
    QCOMPARE(readFile(userFile + QStringLiteral(".damaged.1")), QByteArray("second"));
    QCOMPARE(readFile(userFile + QStringLiteral(".damaged.2")), QByteArray("third"));
    QCOMPARE(handler.getOptionInternal(alice, number), QVariant(1));
    QCOMPARE(entries(store + QStringLiteral("/users")).size(), 4);
}

void TstOptionStore::cannotSetAside()
{
    for (const QByteArray &content : {QByteArray("no key file"), QByteArray("[probe]\nnumber=5\ntext=damage\n")}) {
        init();
        QVERIFY(writeFile(userFile, content));
        QCOMPARE(chmod("/var/lib/authd/users", 0555), 0);
        const int result = PlatformTest::inChild([&] {
            if (!becomeNobody())
                return 255;
            Handler handler;
            const PlatformLog log;
            int wrong = 0;
            // Good files can still be read, but a damaged file that could not be put aside is not overwritten.
            if (handler.getOptionInternal(alice, number) != QVariant(content.startsWith('[') ? 5 : 0))
                wrong |= 1;
            if (handler.setOptionInternal(alice, number, 6))
                wrong |= 2;
            if (handler.setOptionInternal(alice, number, QVariant()))
                wrong |= 4;
            handler.handleUserRemovedInternal(alice);
            if (log.lines().size() != 8
                || !log.lines().at(1).startsWith(QStringLiteral("Cannot set aside \"%1\" ").arg(userFile)))
                wrong |= 8;
            return wrong;
        });
        QCOMPARE(result, 0);
        QCOMPARE(readFile(userFile), content);
        QCOMPARE(entries(store + QStringLiteral("/users")), QStringList{QStringLiteral("1000.conf")});
    }
}

void TstOptionStore::unreadable()
{
    const QByteArray content = "[probe]\nnumber=5\n";
    QVERIFY(writeFile(userFile, content));
    QCOMPARE(chmod(QFile::encodeName(userFile).constData(), 0600), 0);
    QCOMPARE(chown("/var/lib/authd/users", nobody, nobody), 0);
    // The process may write to the directory but not read the file.
    const int result = PlatformTest::inChild([] {
        if (!becomeNobody())
            return 255;
        Handler handler;
        RecordingDaemon daemon;
        handler.setNotificator(&daemon);
        const PlatformLog log;
        int wrong = 0;
        if (!isSame(handler.getOptionInternal(alice, number), 0))
            wrong |= 1;
        if (log.lines() != QStringList{QStringLiteral("Cannot read \"%1\" Permission denied").arg(userFile)})
            wrong |= 2;
        if (handler.setOptionInternal(alice, number, 6) || handler.setOptionInternal(alice, number, QVariant()))
            wrong |= 4;
        handler.handleUserRemovedInternal(alice);
        if (log.lines().size() != 4)
            wrong |= 8;
        if (!daemon.calls.isEmpty())
            wrong |= 16;
        return wrong;
    });
    QCOMPARE(result, 0);
    QCOMPARE(readFile(userFile), content);
    QCOMPARE(entries(store + QStringLiteral("/users")), QStringList{QStringLiteral("1000.conf")});
}

void TstOptionStore::notADirectory()
{
    QVERIFY(writeFile(store + QStringLiteral("/users"), "a file"));
    Handler handler;
    const PlatformLog log;
    QVERIFY(!handler.setOptionInternal(alice, number, 6));
    QVERIFY(isSame(handler.getOptionInternal(alice, number), 0));
    const QString line = QStringLiteral("Cannot open the directory of \"%1\" Not a directory").arg(userFile);
    QCOMPARE(log.lines(), (QStringList{line, line}));
    QCOMPARE(readFile(store + QStringLiteral("/users")), QByteArray("a file"));

    QVERIFY(QFile::remove(store + QStringLiteral("/users")));
    QVERIFY(handler.setOptionInternal(alice, number, 6));
}

void TstOptionStore::danglingDirectory()
{
    QVERIFY(QFile::link(QStringLiteral("/tmp/nowhere"), store));
    Handler handler;
    const PlatformLog log;
    QVERIFY(!handler.setOptionInternal(alice, number, 6));
    QCOMPARE(
        log.lines(),
        QStringList{QStringLiteral("Cannot open the directory of \"%1\" No such file or directory").arg(userFile)});
    QVERIFY(!QFileInfo::exists(QStringLiteral("/tmp/nowhere")));
}

void TstOptionStore::notWritable()
{
    Handler handler;
    QVERIFY(handler.setOptionInternal(alice, number, 5));
    const QByteArray before = readFile(userFile);
    QCOMPARE(chmod("/var/lib/authd", 0755), 0);
    QCOMPARE(chmod("/var/lib/authd/users", 0755), 0);
    QCOMPARE(chmod(QFile::encodeName(userFile).constData(), 0644), 0);
    const int result = PlatformTest::inChild([] {
        if (!becomeNobody())
            return 255;
        Handler child;
        RecordingDaemon daemon;
        child.setNotificator(&daemon);
        const PlatformLog log;
        int wrong = 0;
        if (child.setOptionInternal(alice, number, 6) || child.setOptionInternal(alice, number, QVariant()))
            wrong |= 1;
        const QString line = QStringLiteral("Cannot write \"%1\" Permission denied").arg(userFile);
        if (log.lines() != QStringList{line, line})
            wrong |= 2;
        if (child.setOptionInternal(0, number, 6)
            || log.lines().constLast()
                   != QStringLiteral("Cannot open the directory of \"%1\" Permission denied").arg(methodFile))
            wrong |= 4;
        if (!daemon.calls.isEmpty())
            wrong |= 8;
        if (child.getOptionInternal(alice, number) != QVariant(5))
            wrong |= 16;
        return wrong;
    });
    QCOMPARE(result, 0);
    QCOMPARE(readFile(userFile), before);
    QVERIFY(!QFileInfo::exists(store + QStringLiteral("/methods")));
}

void TstOptionStore::fullDisk()
{
    Handler handler;
    QVERIFY(handler.setOptionInternal(alice, number, 5));
    const QByteArray before = readFile(userFile);
    const int result = PlatformTest::inChild([] {
        const rlimit limit = {2048, 2048};
        if (std::signal(SIGXFSZ, SIG_IGN) == SIG_ERR || setrlimit(RLIMIT_FSIZE, &limit) != 0)
            return 255;
        Handler child;
        const PlatformLog log;
        if (child.setOptionInternal(alice, text, QString(4000, QLatin1Char('x'))))
            return 1;
        return log.lines() == QStringList{QStringLiteral("Cannot write \"%1\" File too large").arg(userFile)} ? 0 : 2;
    });
    QCOMPARE(result, 0);
    QCOMPARE(readFile(userFile), before);
    QCOMPARE(entries(store + QStringLiteral("/users")), QStringList{QStringLiteral("1000.conf")});
}

void TstOptionStore::durable()
{
    const QString directory = QStringLiteral("mkdir");
    const QString sync = QStringLiteral("fsync");
    const QString replaced = QStringLiteral("rename");
    // The new file is synced before it replaces the old one, and the directory before the call returns.
    QCOMPARE(callsOf([] { Handler().setOptionInternal(alice, number, 5); }),
             (QStringList{directory, directory, sync, directory, sync, sync, replaced, sync}));
    Handler handler;
    QVERIFY(handler.setOptionInternal(alice, number, 5));
    QCOMPARE(callsOf([] { Handler().setOptionInternal(alice, number, 6); }),
             (QStringList{directory, sync, replaced, sync}));
    // Storing the present value makes no system calls.
    QVERIFY(handler.setOptionInternal(alice, number, 6));
    QCOMPARE(callsOf([] { Handler().setOptionInternal(alice, number, 6); }), QStringList{directory});
    QCOMPARE(callsOf([] { Handler().setOptionInternal(alice, text, QVariant()); }), QStringList());
    QCOMPARE(callsOf([] { Handler().setOptionInternal(alice, number, QVariant()); }),
             (QStringList{QStringLiteral("unlink"), sync}));
}

void TstOptionStore::closesOnExec()
{
    // The directory, the file without access to its content, and the file
    QVERIFY(Handler().setOptionInternal(alice, number, 5));
    QCOMPARE(PlatformTest::opened([] { Handler().getOptionInternal(alice, number); }), 3);
}

void TstOptionStore::killedAtEveryStep_data()
{
    QTest::addColumn<QByteArray>("before");
    QTest::addColumn<QVariant>("old");
    QTest::addColumn<QVariant>("value");
    QTest::newRow("first write") << QByteArray() << QVariant(0) << QVariant(6);
    QTest::newRow("write") << QByteArray("[probe]\nnumber=5\n\n[other]\nflag=true\n") << QVariant(5) << QVariant(6);
    QTest::newRow("removal") << QByteArray("[probe]\nnumber=5\n\n[other]\nflag=true\n") << QVariant(5) << QVariant();
    QTest::newRow("last removal") << QByteArray("[probe]\nnumber=5\n") << QVariant(5) << QVariant();
    QTest::newRow("damaged value") << QByteArray("[probe]\nnumber=5\ntext=damage\n\n[other]\nflag=true\n")
                                   << QVariant(5) << QVariant(6);
}

void TstOptionStore::killedAtEveryStep()
{
    QFETCH(QByteArray, before);
    QFETCH(QVariant, old);
    QFETCH(QVariant, value);
    const QDir users(store + QStringLiteral("/users"));
    const PlatformLog log;
    int steps = 0;
    int left = 0;
    for (int killed = 1; killed == 1; ++steps) {
        init();
        if (!before.isEmpty())
            QVERIFY(writeFile(userFile, before));
        killed = killAfter(steps, [&] { Handler().setOptionInternal(alice, number, value); });
        QVERIFY2(killed >= 0, "cannot follow the child's system calls, so nothing has been shown");

        const QVariant read = Handler().getOptionInternal(alice, number);
        const QVariant fresh = value.isValid() ? value : QVariant(0);
        QVERIFY2(read == fresh || (read == old && killed == 1), qPrintable(read.toString()));
        if (before.contains("other"))
            QCOMPARE(Handler(QStringLiteral("other")).getOptionInternal(alice, flag), QVariant(true));
        const QStringList damaged = users.entryList({QStringLiteral("*.damaged*")});
        if (before.contains("damage")) {
            QVERIFY(!damaged.isEmpty());
            for (const QString &name : damaged)
                QCOMPARE(readFile(users.filePath(name)), before);
        } else {
            QVERIFY(damaged.isEmpty());
        }
        left += entries(users.path()).filter(QRegularExpression(QStringLiteral("\\.conf\\.[^.]{6}$"))).size();
        QVERIFY(Handler().setOptionInternal(alice, number, 7));
        QVERIFY(Handler().setOptionInternal(alice, flag, true));
        QCOMPARE(entries(users.path()).size(), 1 + damaged.size());
    }
    // Some steps must have interrupted the writing itself, when there is a temporary file.
    QVERIFY(steps > 10);
    QCOMPARE(left > 0, value.isValid() || before.contains("other"));
}

void TstOptionStore::killedWriter()
{
    struct Progress
    {
        volatile int begun;
        volatile int done;
    };
    auto *progress = static_cast<Progress *>(
        mmap(nullptr, sizeof(Progress), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
    QVERIFY(progress != MAP_FAILED);

    // A large value of another method makes the file large.
    const QByteArray ballast = "[other]\ntext='" + QByteArray(200000, 'b') + "'\n";
    Handler handler;
    const PlatformLog log;
    QVERIFY(QDir().mkpath(QFileInfo(userFile).path()));
    QVERIFY(writeFile(userFile, ballast));
    QVERIFY(handler.setOptionInternal(alice, number, 0));
    for (int round = 0; round < 200; ++round) {
        const pid_t child = fork();
        if (child == 0) {
            for (;;) {
                progress->begun = progress->done + 1;
                if (!handler.setOptionInternal(alice, number, int(progress->begun)))
                    _exit(1);
                progress->done = progress->begun;
            }
        }
        QVERIFY(child > 0);
        std::this_thread::sleep_for(std::chrono::microseconds(QRandomGenerator::global()->bounded(8000)));
        QCOMPARE(kill(child, SIGKILL), 0);
        QCOMPARE(waitpid(child, nullptr, 0), child);

        // At most one temporary file is left, readable by its owner only.
        const QDir users(store + QStringLiteral("/users"));
        const QStringList left = entries(users.path());
        QVERIFY2(left.size() <= 2, qPrintable(left.join(QLatin1Char(' '))));
        for (const QString &name : left)
            QCOMPARE(mode(users.filePath(name)), 0600);

        const int value = Handler().getOptionInternal(alice, number).toInt();
        QVERIFY2(value == progress->done || value == progress->begun,
                 qPrintable(QStringLiteral("%1 %2 %3").arg(value).arg(progress->done).arg(progress->begun)));
        QVERIFY(readFile(userFile).startsWith(ballast));
        progress->done = value;
        QVERIFY(handler.setOptionInternal(alice, flag, round % 2 == 0));
        QCOMPARE(entries(users.path()), QStringList{QStringLiteral("1000.conf")});
    }
    QCOMPARE(log.lines(), QStringList());
    QVERIFY(progress->done > 0);
    munmap(progress, sizeof(Progress));
}

void TstOptionStore::leftovers()
{
    Handler handler;
    const QStringList kept = {QStringLiteral("1000.conf.damaged"), QStringLiteral("1000.conf.damaged.1"),
                              QStringLiteral("1001.conf.ABC123"),  QStringLiteral("1000.conf.ABC12"),
                              QStringLiteral("11000.conf.ABC123"), QStringLiteral("21000.conf")};
    for (const QString &name : kept)
        QVERIFY(writeFile(store + QStringLiteral("/users/") + name, "x"));
    for (const char *name : {"ABC123", "zzzzzz", "......"})
        QVERIFY(writeFile(userFile + QLatin1Char('.') + QLatin1String(name), "x"));
    QVERIFY(handler.setOptionInternal(alice, number, 1));
    const QStringList left = entries(store + QStringLiteral("/users"));
    for (const QString &name : kept)
        QVERIFY2(left.contains(name), qPrintable(name));
    QCOMPARE(left.size(), kept.size() + 1);
}

void TstOptionStore::twoProcesses()
{
    constexpr int Rounds = 200;
    const auto work = [](const QString &method) {
        Handler handler(method);
        for (int i = 1; i <= Rounds; ++i) {
            if (!handler.setOptionInternal(alice, number, i)
                || !handler.setOptionInternal(alice, QStringLiteral("n%1").arg(i), method)
                || handler.getOptionInternal(alice, number) != QVariant(i))
                return 1;
        }
        return 0;
    };
    const pid_t child = fork();
    if (child == 0)
        _exit(work(QStringLiteral("other")));
    const int own = work(QStringLiteral("probe"));
    int status = -1;
    QCOMPARE(waitpid(child, &status, 0), child);
    QCOMPARE(own, 0);
    QCOMPARE(status, 0);
    for (const char *method : {"probe", "other"}) {
        Handler handler(QString::fromLatin1(method));
        QCOMPARE(handler.getOptionInternal(alice, number), QVariant(Rounds));
        for (int i = 1; i <= Rounds; ++i)
            QCOMPARE(handler.getOptionInternal(alice, QStringLiteral("n%1").arg(i)), utf8(method));
    }
}

void TstOptionStore::signalWhileWaiting()
{
    QVERIFY(Handler().setOptionInternal(alice, number, 5));
    const pid_t child = fork();
    if (child == 0) {
        static const int holder = open("/var/lib/authd/users", O_RDONLY | O_CLOEXEC);
        struct sigaction action = {}; // It does not restart system calls.
        action.sa_handler = [](int) {
            close(holder);
        };
        if (flock(holder, LOCK_EX) != 0 || sigaction(SIGUSR1, &action, nullptr) != 0)
            _exit(255);
        _exit(Handler().setOptionInternal(alice, number, 6) ? 0 : 1);
    }
    const bool isWaiting = waitUntil([child] {
        return readFile(QStringLiteral("/proc/%1/syscall").arg(child)).startsWith(QByteArray::number(SYS_flock) + ' ');
    });
    kill(child, isWaiting ? SIGUSR1 : SIGKILL);
    int status = -1;
    QCOMPARE(waitpid(child, &status, 0), child);
    QCOMPARE(status, 0);
    QCOMPARE(Handler().getOptionInternal(alice, number), QVariant(6));
}

void TstOptionStore::noDescriptorLeft()
{
    Handler handler;
    const PlatformLog log;
    const int before = entries(QStringLiteral("/proc/self/fd")).size();
    QVERIFY(handler.setOptionInternal(alice, number, 1));
    QVERIFY(handler.setOptionInternal(0, number, 1));
    QCOMPARE(handler.getOptionInternal(alice, number), QVariant(1));
    QVERIFY(handler.setOptionInternal(alice, number, QVariant()));
    QVERIFY(writeFile(userFile, "damaged"));
    handler.getOptionInternal(alice, number);
    handler.handleUserRemovedInternal(alice);
    QCOMPARE(entries(QStringLiteral("/proc/self/fd")).size(), before);
}

namespace {

QString arbitraryText()
{
    const auto units = *rc::gen::container<std::vector<ushort>>(
        rc::gen::weightedOneOf<ushort>({{8, rc::gen::inRange<ushort>(1, 0x180)}, {1, rc::gen::arbitrary<ushort>()}}));
    return QString(reinterpret_cast<const QChar *>(units.data()), int(units.size()));
}

QVariant arbitraryValue()
{
    switch (*rc::gen::inRange(0, 9)) {
    case 0:
        return *rc::gen::arbitrary<bool>();
    case 1:
        return *rc::gen::arbitrary<int>();
    case 2:
        return *rc::gen::arbitrary<uint>();
    case 3:
        return *rc::gen::arbitrary<qlonglong>();
    case 4:
        return *rc::gen::arbitrary<qulonglong>();
    case 5:
        return *rc::gen::arbitrary<double>();
    case 6:
        return arbitraryText();
    case 7: {
        QStringList texts;
        for (int count = *rc::gen::inRange(0, 4); count > 0; --count)
            texts << arbitraryText();
        return texts;
    }
    default: {
        const auto bytes = *rc::gen::arbitrary<std::string>();
        return QByteArray(bytes.data(), int(bytes.size()));
    }
    }
}

bool isStorable(const QVariant &value)
{
    const QStringList texts = value.userType() == QMetaType::QByteArray ? QStringList() : value.toStringList();
    return std::all_of(texts.begin(), texts.end(), [](const QString &string) {
        return string.isValidUtf16() && !string.contains(QChar(QChar::Null));
    });
}

} // namespace

void TstOptionStore::likeAMap()
{
    const bool held = rc::check("the store answers like a map", [this] {
        init();
        const PlatformLog log;
        QMap<QString, QVariant> model;
        const auto key = [](const QString &method, uint uid, const QString &option) {
            return QStringLiteral("%1 %2 %3").arg(method).arg(uid).arg(option);
        };
        const std::vector<QString> methods = {QStringLiteral("alpha"), QStringLiteral("beta"), QStringLiteral("be")};
        const std::vector<QString> options = {QStringLiteral("a"), QStringLiteral("b"), QStringLiteral("certs")};
        const int steps = *rc::gen::inRange(1, 40);
        for (int step = 0; step < steps; ++step) {
            const QString method = *rc::gen::elementOf(methods);
            const uint uid = *rc::gen::element(0U, 1000U, 1001U, 100U);
            const QString option = *rc::gen::elementOf(options);
            Handler handler(method);
            switch (*rc::gen::weightedElement<int>({{6, 0}, {2, 1}, {1, 2}})) {
            case 0: {
                const QVariant value = arbitraryValue();
                const bool stored = handler.setOptionInternal(uid, option, value);
                RC_ASSERT(stored == isStorable(value));
                if (stored)
                    model.insert(key(method, uid, option), value);
                break;
            }
            case 1:
                RC_ASSERT(handler.setOptionInternal(uid, option, QVariant()));
                model.remove(key(method, uid, option));
                break;
            case 2:
                handler.handleUserRemovedInternal(uid);
                for (const QString &each : options) {
                    if (uid != 0)
                        model.remove(key(method, uid, each));
                }
                break;
            }
            const QString readMethod = *rc::gen::elementOf(methods);
            const uint readUid = *rc::gen::element(0U, 1000U, 1001U, 100U);
            const QString readOption = *rc::gen::elementOf(options);
            RC_ASSERT(isSame(Handler(readMethod).getOptionInternal(readUid, readOption),
                             model.value(key(readMethod, readUid, readOption))));
        }
        for (const QString &method : methods) {
            for (const uint uid : {0U, 1000U, 1001U, 100U}) {
                for (const QString &option : options)
                    RC_ASSERT(
                        isSame(Handler(method).getOptionInternal(uid, option), model.value(key(method, uid, option))));
            }
        }
        RC_ASSERT(!log.text().contains(QLatin1String("Set aside")));
    });
    QVERIFY(held);
}

void TstOptionStore::setOption()
{
    Handler handler;
    RecordingDaemon daemon;
    handler.setNotificator(&daemon);
    int toldBefore = -1;
    handler.onChange = [&] {
        toldBefore = daemon.calls.size();
    };

    QVERIFY(handler.setOption(alice, number, 3));
    QCOMPARE(handler.getOptionInternal(alice, number), QVariant(3));
    QCOMPARE(handler.changes, (QVector<QVariantList>{{alice, number, 3}}));
    QCOMPARE(toldBefore, 1);

    // Once the value is removed, the default applies again.
    QVERIFY(handler.setOption(alice, number, QVariant()));
    QCOMPARE(handler.changes.size(), 2);
    QCOMPARE(handler.changes.constLast(), (QVariantList{alice, number, 0}));
    QCOMPARE(daemon.calls.constLast(),
             (RecordingDaemon::Call{QStringLiteral("optionChanged"), {alice, number, 0, false}}));

    handler.changes.clear();
    daemon.calls.clear();
    const PlatformLog log;
    QVERIFY(!handler.setOption(alice, list, QStringList()));
    QVERIFY(!handler.setOption(0, flag, true));
    QCOMPARE(log.lines(), (QStringList{QStringLiteral("setOption No such option \"probe\" 1000 \"list\""),
                                       QStringLiteral("setOption No such option \"probe\" 0 \"flag\"")}));
    QVERIFY(!handler.setOption(alice, number, QSize()));
    QVERIFY(handler.changes.isEmpty());
    QVERIFY(daemon.calls.isEmpty());
    QVERIFY(!QFileInfo::exists(userFile));
}

void TstOptionStore::notifications()
{
    using Call = RecordingDaemon::Call;
    Handler handler;
    RecordingDaemon daemon;
    handler.setNotificator(&daemon);
    const QMap<QString, QVariant> params = {{QStringLiteral("result-code"), 1}};

    handler.logEvent(QStringLiteral("WARN_LEVEL"), QStringLiteral("event"), QStringLiteral("details"));
    QVERIFY(handler.setOptionInternal(alice, number, 3));
    QVERIFY(handler.setOptionInternal(alice, number, 3));
    QVERIFY(handler.setOptionInternal(alice, number, 4));
    QVERIFY(handler.setOptionInternal(0, number, 8));
    QVERIFY(handler.setOptionInternal(0, number, QVariant()));
    QVERIFY(handler.setOptionInternal(0, number, QVariant()));
    QVERIFY(handler.setOptionInternal(alice, text, QVariant()));
    handler.optionChanged(0, list, QStringList{QStringLiteral("x")}, true);
    handler.lockUser(alice, true, QStringLiteral("reason"), 4294967295U);
    handler.inputRequested(params);
    handler.restartAuth(alice);
    handler.finish(false, params);
    handler.finish(true, {});
    handler.succeed();

    const QVector<Call> expected = {
        {QStringLiteral("logEvent"),
         {QStringLiteral("WARN_LEVEL"), QStringLiteral("event"), QStringLiteral("details")}},
        {QStringLiteral("optionChanged"), {alice, number, 3, false}},
        {QStringLiteral("optionChanged"), {alice, number, 4, false}},
        {QStringLiteral("optionChanged"), {0U, number, 8, false}},
        {QStringLiteral("optionChanged"), {0U, number, 7, false}},
        {QStringLiteral("optionChanged"), {0U, list, QStringList{QStringLiteral("x")}, true}},
        {QStringLiteral("lockUser"), {alice, true, QStringLiteral("reason"), 4294967295U}},
        {QStringLiteral("inputRequested"), {params}},
        {QStringLiteral("restartAuth"), {alice}},
        {QStringLiteral("finish"), {false, params}},
        {QStringLiteral("finish"), {true, QMap<QString, QVariant>()}},
        {QStringLiteral("succeed"), {}}};
    QCOMPARE(daemon.calls.size(), expected.size());
    for (int i = 0; i < expected.size(); ++i)
        QCOMPARE(daemon.calls.at(i), expected.at(i));
    QCOMPARE(daemon.methods, QStringList{QStringLiteral("probe")});
    // Reporting an option stores nothing.
    QCOMPARE(handler.getOptionInternal(0, list), QVariant(QStringList()));

    // The handler can be replaced.
    RecordingDaemon second;
    handler.setNotificator(&second);
    handler.succeed();
    QCOMPARE(daemon.calls.size(), expected.size());
    QCOMPARE(second.calls.size(), 1);
    handler.setNotificator(nullptr);
    handler.succeed();
    QCOMPARE(second.calls.size(), 1);
}

void TstOptionStore::noNotificator()
{
    Handler handler;
    handler.logEvent(QString(), QString(), QString());
    handler.optionChanged(0, list, QVariant(), false);
    handler.lockUser(alice, true, QString(), 0);
    handler.inputRequested({});
    handler.restartAuth(alice);
    handler.finish(false, {});
    handler.succeed();
    QVERIFY(handler.setOptionInternal(alice, number, 3));
    QVERIFY(handler.setOption(alice, number, 4));
    QCOMPARE(handler.getOptionInternal(alice, number), QVariant(4));
}

void TstOptionStore::inherited()
{
    Handler handler;
    QVERIFY(handler.canSwitchToUser(alice));
    QVERIFY(!handler.changeAuthData(alice, {}));
    QVERIFY(handler.hasAuthData(alice));
    QCOMPARE(handler.getMaxAttempts(), 0);
    QVERIFY(!handler.needChangeNextTime(alice));
    QVERIFY(!handler.wasChosen(alice));
    QVERIFY(handler.checkBackend(alice));
    QVERIFY(!handler.action(alice, QStringLiteral("wipe"), {}));
    QVERIFY(handler.getActionsValidations().rules().isEmpty());
    handler.handleUserLocked(alice, true, QString(), 0);
    handler.handleTimeSettingsChanged(-1);
    handler.handleSetEnabled(alice, true);
    handler.onMainPageVisibleChanged();
    QVERIFY(!handler.parent());
}

QTEST_APPLESS_MAIN(TstOptionStore)

#include "tst_optionstore.moc"
