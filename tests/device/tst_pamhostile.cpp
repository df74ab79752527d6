// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#include "device/authctl.h"
#include "device/authd.h"
#include "device/pam.h"
#include "support/fakeservice.h"
#include "support/testdevice.h"
#include "support/wiper.h"

#include <authd/authservice.h>

#include <QDBusConnectionInterface>
#include <QDBusPendingCallWatcher>
#include <QElapsedTimer>
#include <QFile>
#include <QJsonArray>
#include <QRegularExpression>
#include <QScopeGuard>
#include <QTest>

#include <atomic>
#include <csignal>
#include <security/pam_appl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <thread>
#include <unistd.h>

/// The PAM module among others who want to mislead it or to make it wait.
class TstPamHostile : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void init();
    void cleanup();

    void serviceOfAnotherUser();
    void noBus();
    void silentBus();
    void silentService();
    void serviceWithoutOutcome();
    void flood();
    void othersOutcomes();
    void forgedOutcome();
    void lockedByOthers();
    void systemLog();
    void certificateLists_data();
    void certificateLists();
    void hostileEnvironment_data();
    void hostileEnvironment();
    void readsNoEnvironment();
    void closedDescriptors();
    void signalsBlockedOrFrequent();
    void busGoesAway();

private:
    Authd m_authd;
};

namespace {

using Pam::authenticate;
const QString socketPath = QStringLiteral("/run/dbus/system_bus_socket");
const QString asideSocket = QStringLiteral("/run/dbus/aside");
constexpr qulonglong Opened = 2;

/// The time of a run with a timeout of one second may be this long on a busy machine, in milliseconds.
constexpr int Slack = 15000;

QStringList unavailable(const char *text)
{
    return {QStringLiteral("error ") + QLatin1String(text),
            QStringLiteral("authenticate %1").arg(PAM_AUTHINFO_UNAVAIL)};
}

const char absent[] = "The authentication service is not available";
const char late[] = "The authentication service does not answer in time";

/// Gives a socket its name; anybody may connect.
bool bindTo(int descriptor, const QString &path)
{
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    qstrncpy(address.sun_path, QFile::encodeName(path).constData(), sizeof(address.sun_path));
    return bind(descriptor, reinterpret_cast<sockaddr *>(&address), sizeof(address)) == 0
           && chmod(address.sun_path, 0666) == 0;
}

/// A socket that accepts connections and never says a word.
class SilentSocket
{
public:
    explicit SilentSocket(const QString &path)
    {
        if (!bindTo(m_descriptor, path) || listen(m_descriptor, SOMAXCONN) != 0)
            qFatal("No socket %s", qPrintable(path));
        m_path = path;
    }
    ~SilentSocket()
    {
        close(m_descriptor);
        QFile::remove(m_path);
    }
    /// Whether somebody has connected.
    bool isUsed() const { return accept4(m_descriptor, nullptr, nullptr, SOCK_CLOEXEC) != -1; }

private:
    const int m_descriptor = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    QString m_path;

    Q_DISABLE_COPY(SilentSocket)
};

/// A service in the daemon's place. Its users are idle; `authenticate` handles the other calls.
class IdleService : public FakeService
{
public:
    explicit IdleService(const Handler &handler)
        : FakeService(LibAuthd::AuthService::Service, LibAuthd::AuthService::ObjectPath,
                      [handler](const QDBusMessage &call, const QDBusConnection &bus) {
                          if (call.member() == QLatin1String("GetState"))
                              bus.send(call.createReply({qulonglong(0), QStringLiteral("idle"), QVariantMap()}));
                          else if (call.member() == QLatin1String("GetMethods"))
                              bus.send(call.createReply(QStringList{QStringLiteral("kavet")}));
                          else
                              handler(call, bus);
                      })
    {
    }
};

void tell(const QDBusConnection &bus, const QString &to, const char *member, qulonglong attempt, uint uid,
          const QVariantList &arguments)
{
    QDBusMessage signal = QDBusMessage::createTargetedSignal(
        to, LibAuthd::AuthService::ObjectPath, LibAuthd::AuthService::Interface, QString::fromLatin1(member));
    signal.setArguments(QVariantList{attempt, uid} + arguments);
    bus.send(signal);
}

void tellCerts(const QDBusConnection &bus, const QString &to, const QStringList &certs)
{
    QDBusMessage signal = QDBusMessage::createTargetedSignal(
        to, LibAuthd::AuthService::ObjectPath, LibAuthd::AuthService::Interface, QStringLiteral("MethodOptionChanged"));
    signal.setArguments({QStringLiteral("kavet"), QStringLiteral("certs"), QVariant::fromValue(QDBusVariant(certs))});
    bus.send(signal);
}

/// Runs the program with the recorder. Spaces separate the arguments.
Pam::Result recorded(const QString &arguments)
{
    QProcess process;
    process.start(QStringLiteral("/usr/bin/env"),
                  QStringList{QStringLiteral("LD_PRELOAD=") + Pam::recorder, Pam::program}
                      + arguments.split(QLatin1Char(' ')));
    return Pam::finish(process);
}

const QVariantMap details = {{QStringLiteral("method"), QStringLiteral("kavet")}};

/// Reports the end of an attempt in every way.
void tellSuccess(const QDBusConnection &bus, const QString &to, qulonglong attempt, uint uid)
{
    tell(bus, to, "Authenticated", attempt, uid, {QStringLiteral("kavet")});
    tell(bus, to, "StateChanged", attempt, uid, {QStringLiteral("authenticated"), details});
}

} // namespace

void TstPamHostile::initTestCase()
{
    QVERIFY(TestDevice::writeFile(
        QStringLiteral("/etc/dbus-1/system.d/impostor.conf"),
        "<busconfig><policy user=\"alice\"><allow own=\"qarv.AuthService\"/></policy>"
        "<policy user=\"root\"><allow send_interface=\"org.freedesktop.DBus.Peer\"/></policy></busconfig>"));
    QVERIFY(startSystemBus());
}

void TstPamHostile::init()
{
    TestDevice::reset();
    setClientScript();
    QVERIFY(Pam::makeService({QStringLiteral("auth required timeout=1"), QStringLiteral("account required timeout=1"),
                              QStringLiteral("session required timeout=1")}));
}

void TstPamHostile::cleanup()
{
    if (m_authd.isRunning())
        m_authd.stop(SIGTERM);
}

void TstPamHostile::serviceOfAnotherUser()
{
    QCOMPARE(seteuid(TestDevice::alice), 0);
    const IdleService impostor(
        [](const QDBusMessage &call, const QDBusConnection &bus) { bus.send(call.createReply(Opened)); });
    QCOMPARE(seteuid(0), 0);
    QVERIFY(impostor.isRunning());
    // Nobody is asked for a secret.
    QCOMPARE(Pam::run(authenticate, "success\n").events, unavailable(absent));
    QCOMPARE(Pam::run(QStringLiteral("alice account")).code, PAM_AUTHINFO_UNAVAIL);
    QCOMPARE(Pam::run(QStringLiteral("alice open")).code, PAM_SESSION_ERR);
}

void TstPamHostile::noBus()
{
    QVERIFY(QFile::rename(socketPath, asideSocket));
    const auto restore = qScopeGuard([] { QFile::rename(asideSocket, socketPath); });
    QCOMPARE(Pam::run(authenticate, "success\n").events, unavailable(absent));
}

void TstPamHostile::silentBus()
{
    QVERIFY(QFile::rename(socketPath, asideSocket));
    const auto restore = qScopeGuard([] { QFile::rename(asideSocket, socketPath); });
    const SilentSocket silent(socketPath);
    QElapsedTimer timer;
    timer.start();
    QCOMPARE(Pam::run(authenticate, "success\n").events, unavailable(late));
    QCOMPARE(Pam::run(QStringLiteral("alice account")).code, PAM_AUTHINFO_UNAVAIL);
    QCOMPARE(Pam::run(QStringLiteral("alice open")).code, PAM_SESSION_ERR);
    QVERIFY(timer.elapsed() < 3 * Slack);
}

void TstPamHostile::silentService()
{
    const FakeService silent(LibAuthd::AuthService::Service, LibAuthd::AuthService::ObjectPath,
                             [](const QDBusMessage &, const QDBusConnection &) {});
    QVERIFY(silent.isRunning());
    QElapsedTimer timer;
    timer.start();
    QCOMPARE(Pam::run(authenticate, "success\n").events, unavailable(late));
    QCOMPARE(Pam::run(QStringLiteral("alice account")).code, PAM_AUTHINFO_UNAVAIL);
    QCOMPARE(Pam::run(QStringLiteral("alice close")).code, PAM_SESSION_ERR);
    QVERIFY(timer.elapsed() < 3 * Slack);
}

void TstPamHostile::serviceWithoutOutcome()
{
    std::atomic<int> cancelled = 0;
    const IdleService service([&](const QDBusMessage &call, const QDBusConnection &bus) {
        if (call.member() == QLatin1String("Cancel"))
            ++cancelled;
        else
            bus.send(call.createReply(Opened));
    });
    QVERIFY(service.isRunning());
    QCOMPARE(Pam::run(authenticate, "success\n").told(), unavailable(late));
    QTRY_COMPARE(cancelled.load(), 1);
}

void TstPamHostile::flood()
{
    // Another user keeps the module busy, with signals about its attempt.
    QVERIFY(m_authd.start());
    QProcess login;
    Pam::start(login, authenticate);
    QVERIFY(Pam::waitFor(login, "secret "));
    const BusUser bob(TestDevice::bob);
    const QStringList names = bob.connection().interface()->registeredServiceNames();
    std::atomic<bool> isOver = false;
    std::thread flood([&] {
        const QDBusConnection bus = bob.connection();
        while (!isOver) {
            for (const QString &name : names)
                tell(bus, name, "StateChanged", 1, TestDevice::alice, {QStringLiteral("pending"), details});
        }
    });
    QElapsedTimer timer;
    timer.start();
    login.write("never\n");
    const Pam::Result result = Pam::finish(login);
    isOver = true;
    flood.join();
    QCOMPARE(result.code, PAM_AUTHINFO_UNAVAIL);
    QVERIFY(timer.elapsed() < Slack);
}

void TstPamHostile::othersOutcomes()
{
    // Signals about other attempts and other users, before and after the reply.
    const IdleService service([](const QDBusMessage &call, const QDBusConnection &bus) {
        const auto tellOthers = [&] {
            tellSuccess(bus, call.service(), Opened + 1, TestDevice::alice);
            tellSuccess(bus, call.service(), 0, TestDevice::alice);
            tellSuccess(bus, call.service(), Opened, TestDevice::bob);
        };
        tellOthers();
        tellSuccess(bus, call.service(), Opened, TestDevice::alice); // before the attempt is open
        bus.send(call.createReply(Opened));
        tellOthers();
        tell(bus, call.service(), "AuthenticationFailed", Opened, TestDevice::alice,
             {QStringLiteral("kavet"), 11, QStringLiteral("AuthFailed"), true, 1});
        tellOthers();
        tell(bus, call.service(), "StateChanged", Opened, TestDevice::alice, {QStringLiteral("challenge"), details});
    });
    QVERIFY(service.isRunning());
    QCOMPARE(Pam::run(authenticate, "success\n").code, PAM_AUTH_ERR);
}

void TstPamHostile::forgedOutcome()
{
    QVERIFY(m_authd.start());
    QVERIFY(Pam::makeService({QStringLiteral("auth required timeout=60")}));
    QProcess login;
    Pam::start(login, authenticate);
    QVERIFY(Pam::waitFor(login, "secret "));
    login.write("never\n");
    QTRY_COMPARE(TestDevice::calls().size(), 1);

    const BusUser root(0);
    const BusUser bob(TestDevice::bob);
    const qulonglong attempt =
        root.call(QStringLiteral("GetState"), {TestDevice::alice}).arguments().value(0).toULongLong();
    QVERIFY(attempt > 0);
    const QStringList names = bob.connection().interface()->registeredServiceNames();
    for (const QString &name : names)
        tellSuccess(bob.connection(), name, attempt, TestDevice::alice);
    bob.call(QStringLiteral("GetMethods")); // After this reply, the bus has delivered the signals.

    QCOMPARE(Authctl::run(QStringLiteral("cancel alice")).exitCode, int(Authctl::Success));
    QCOMPARE(Pam::finish(login).told(), unavailable("The authentication was cancelled"));
}

void TstPamHostile::lockedByOthers()
{
    // Not by a failure of this attempt
    const IdleService service([](const QDBusMessage &call, const QDBusConnection &bus) {
        bus.send(call.createReply(Opened));
        tell(bus, call.service(), "AttemptGivenUp", Opened, TestDevice::alice,
             {QStringLiteral("kavet"), QStringLiteral("locked")});
        tell(bus, call.service(), "StateChanged", Opened, TestDevice::alice, {QStringLiteral("locked"), details});
    });
    QVERIFY(service.isRunning());
    QCOMPARE(Pam::run(authenticate, "success\n").told(),
             (QStringList{QStringLiteral("error This user is locked"),
                          QStringLiteral("authenticate %1").arg(PAM_PERM_DENIED)}));
}

void TstPamHostile::systemLog()
{
    QVERIFY(Pam::makeService({QStringLiteral("auth required nullok\x1b"), QStringLiteral("account required"),
                              QStringLiteral("session required")}));
    const auto logged = [](const QString &arguments) {
        return recorded(arguments).events.filter(QRegularExpression(QStringLiteral("^log ")));
    };
    const QString absence = QStringLiteral(
        ": Authentication service cannot retrieve authentication info: The authentication service is not "
        "available (org.freedesktop.DBus.Error.NameHasNoOwner)");
    QCOMPARE(logged(QStringLiteral("qarv-test alice authenticate account open close")),
             (QStringList{QStringLiteral("log 84 pam_qarv(qarv-test:auth): ignoring the option \"nullok\\u001b\""),
                          QStringLiteral("log 85 pam_qarv(qarv-test:auth): authentication failed") + absence,
                          QStringLiteral("log 85 pam_qarv(qarv-test:account): account not accepted") + absence,
                          QStringLiteral("log 85 pam_qarv(qarv-test:session): session start not reported") + absence,
                          QStringLiteral("log 85 pam_qarv(qarv-test:session): session end not reported") + absence}));

    // Success and what concerns others are not worth a line.
    QVERIFY(m_authd.start());
    QVERIFY(Pam::makeService({QStringLiteral("auth required timeout=60"), QStringLiteral("session required")}));
    QCOMPARE(logged(QStringLiteral("--answer=success qarv-test alice authenticate open close")), QStringList());
    QCOMPARE(logged(QStringLiteral("qarv-test root authenticate")), QStringList());
    QCOMPARE(logged(QStringLiteral("--answer=failed qarv-test alice authenticate")),
             QStringList{QStringLiteral("log 85 pam_qarv(qarv-test:auth): authentication failed: "
                                        "Authentication failure: Wrong password")});
}

void TstPamHostile::certificateLists_data()
{
    QTest::addColumn<QStringList>("reply");
    QTest::addColumn<bool>("isOthersTurn");
    QTest::addColumn<QStringList>("certs");
    QTest::addColumn<QStringList>("events");

    const QStringList certs{QStringLiteral("badge")};
    const QStringList chosen{QStringLiteral("secret PIN of badge: "), QStringLiteral("authenticate 0")};
    const QStringList refused = unavailable("Others are waiting to be authenticated; please try again");
    QTest::newRow("requested") << QStringList{QStringLiteral(".")} << false << certs << chosen;
    // Another program has requested the list shortly before.
    QTest::newRow("already requested") << QStringList() << false << certs << chosen;
    QTest::newRow("of another user") << QStringList{QStringLiteral(".")} << true << certs << refused;
    QTest::newRow("none") << QStringList{QStringLiteral(".")} << true << QStringList() << refused;
}

void TstPamHostile::certificateLists()
{
    QFETCH(QStringList, reply);
    QFETCH(bool, isOthersTurn);
    QFETCH(QStringList, certs);
    std::atomic<bool> isSubscribed = true;
    const auto tellList = [&](const QDBusConnection &bus, const QString &to) {
        tellCerts(bus, to, {QStringLiteral(".")});
        if (isOthersTurn)
            tell(bus, to, "StateChanged", Opened + 1, TestDevice::bob, {QStringLiteral("pending"), details});
        if (isSubscribed && !certs.isEmpty())
            tellCerts(bus, to, certs);
    };
    const IdleService service([&](const QDBusMessage &call, const QDBusConnection &bus) {
        const QString module = call.service();
        if (call.member() == QLatin1String("GetMethodOption")) {
            bus.send(call.createReply(QVariant::fromValue(QDBusVariant(reply))));
            // The module replies to this when it waits again, so it has handled the reply.
            auto *const ping = new QDBusPendingCallWatcher(bus.asyncCall(QDBusMessage::createMethodCall(
                module, QStringLiteral("/"), QStringLiteral("org.freedesktop.DBus.Peer"), QStringLiteral("Ping"))));
            QObject::connect(ping, &QDBusPendingCallWatcher::finished, ping, [tellList, bus, module, ping] {
                tellList(bus, module);
                ping->deleteLater();
            });
            return;
        }
        bus.send(call.createReply(Opened));
        if (call.member() == QLatin1String("RequestChallenge")) {
            tellCerts(bus, module, {QStringLiteral("earlier")});
            tell(bus, module, "StateChanged", Opened, TestDevice::alice, {QStringLiteral("challenge"), details});
        } else if (call.member() == QLatin1String("Unsubscribe")) {
            isSubscribed = false;
        } else if (call.member() == QLatin1String("Authenticate")) {
            tellSuccess(bus, module, Opened, TestDevice::alice);
        }
    });
    QVERIFY(service.isRunning());
    QVERIFY(Pam::makeService({QStringLiteral("auth required cert=ask timeout=60")}));
    QTEST(Pam::run(authenticate, "success\n").events, "events");
    // Nobody reads signals about others while the person types.
    QCOMPARE(isSubscribed.load(), isOthersTurn);
}

void TstPamHostile::hostileEnvironment_data()
{
    QTest::addColumn<bool>("isSetuid");
    QTest::newRow("setuid") << true;
    QTest::newRow("root") << false;
}

void TstPamHostile::hostileEnvironment()
{
    QFETCH(bool, isSetuid);
    QVERIFY(m_authd.start());
    QVERIFY(Pam::makeService({QStringLiteral("auth required timeout=60"), QStringLiteral("account required")}));
    const QString copy = QStringLiteral("/usr/bin/setuid-pamprogram");
    QFile::remove(copy);
    QVERIFY(QFile::copy(Pam::program, copy));
    QCOMPARE(chmod(QFile::encodeName(copy).constData(), isSetuid ? 04755 : 0755), 0);
    const SilentSocket elsewhere(QStringLiteral("/tmp/elsewhere"));
    const QString address = QStringLiteral("unix:path=/tmp/elsewhere");

    QProcess process;
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    for (const char *name : {"DBUS_SYSTEM_BUS_ADDRESS", "DBUS_SESSION_BUS_ADDRESS", "DBUS_STARTER_ADDRESS"})
        environment.insert(QLatin1String(name), address);
    environment.insert(QStringLiteral("DBUS_STARTER_BUS_TYPE"), QStringLiteral("session"));
    environment.insert(QStringLiteral("SYSTEMD_BUS_TIMEOUT"), QStringLiteral("1us"));
    environment.insert(QStringLiteral("SYSTEMD_LOG_LEVEL"), QStringLiteral("debug"));
    environment.insert(QStringLiteral("SYSTEMD_LOG_TARGET"), QStringLiteral("console"));
    environment.insert(QStringLiteral("XDG_SESSION_ID"), QStringLiteral("1"));
    environment.insert(QStringLiteral("LANGUAGE"), QStringLiteral("de"));
    environment.insert(QStringLiteral("LC_ALL"), QStringLiteral("tr_TR.UTF-8"));
    environment.insert(QStringLiteral("HOME"), QStringLiteral("/nowhere"));
    if (isSetuid) {
        environment.insert(QStringLiteral("LD_PRELOAD"), QStringLiteral("/nowhere/evil.so"));
        environment.insert(QStringLiteral("LD_LIBRARY_PATH"), QStringLiteral("/nowhere"));
        environment.insert(QStringLiteral("LD_AUDIT"), QStringLiteral("/nowhere/evil.so"));
    }
    process.setProcessEnvironment(environment);
    process.setProcessChannelMode(QProcess::MergedChannels);
    process.start(QStringLiteral("/usr/bin/setpriv"),
                  {isSetuid ? QStringLiteral("--reuid=1001") : QStringLiteral("--reuid=0"),
                   QStringLiteral("--clear-groups"), QStringLiteral("--"), copy, QStringLiteral("qarv-test"),
                   QStringLiteral("alice"), QStringLiteral("authenticate"), QStringLiteral("account")});
    process.write("success\n");
    const Pam::Result result = Pam::finish(process);
    // As root for alice, although bob has started it.
    const QStringList expected{QStringLiteral("secret Password: "), QStringLiteral("authenticate 0"),
                               QStringLiteral("account 0")};
    QCOMPARE(result.events.filter(QRegularExpression(QStringLiteral("^(secret|error|authenticate|account) "))),
             expected);
    // The loader complains about the preloaded library; nobody else says a word.
    QCOMPARE(result.events.filter(QStringLiteral("/nowhere")).size(), result.events.size() - expected.size());
    QVERIFY(!elsewhere.isUsed());
}

void TstPamHostile::readsNoEnvironment()
{
    QVERIFY(m_authd.start());
    QVERIFY(Pam::makeService({QStringLiteral("auth required timeout=60"), QStringLiteral("account required"),
                              QStringLiteral("session required")}));
    const Pam::Result result =
        recorded(QStringLiteral("--answer=success qarv-test alice authenticate account open close"));
    QCOMPARE(result.code, PAM_SUCCESS);
    QCOMPARE(result.events.filter(QStringLiteral("environment ")),
             QStringList{QStringLiteral("environment PAMPROGRAM")}); // The program's own
}

void TstPamHostile::closedDescriptors()
{
    QVERIFY(m_authd.start());
    QVERIFY(Pam::makeService({QStringLiteral("auth required timeout=60"), QStringLiteral("account required"),
                              QStringLiteral("session required")}));
    const auto run = [](const char *answer, const char *redirections) {
        return QProcess::execute(
            QStringLiteral("/bin/sh"),
            {QStringLiteral("-c"), QStringLiteral("exec %1 --answer=%2 qarv-test alice account authenticate %3")
                                       .arg(Pam::program, QLatin1String(answer), QLatin1String(redirections))});
    };
    for (const char *redirections : {"<&- >&- 2>&-", "<&-", ">&-", "2>&-"})
        QCOMPARE(run("success", redirections), PAM_SUCCESS);
    QCOMPARE(run("failed", "<&- >&- 2>&-"), PAM_AUTH_ERR);
}

void TstPamHostile::signalsBlockedOrFrequent()
{
    QVERIFY(m_authd.start());
    QVERIFY(Pam::makeService({QStringLiteral("auth required timeout=60"), QStringLiteral("session required")}));
    for (const char *options : {"", "--block-signals ", "--alarms "}) {
        const Pam::Result result =
            Pam::run(QLatin1String(options) + QStringLiteral("alice authenticate open close"), "success\n");
        QCOMPARE(result.events, (QStringList{QStringLiteral("secret Password: "), QStringLiteral("authenticate 0"),
                                             QStringLiteral("open 0"), QStringLiteral("close 0")}));
        QCOMPARE(result.code, PAM_SUCCESS);
    }
}

/// The last test: the bus does not come back.
void TstPamHostile::busGoesAway()
{
    QVERIFY(m_authd.start());
    QVERIFY(Pam::makeService({QStringLiteral("auth required timeout=60")}));
    QProcess typing;
    Pam::start(typing, authenticate);
    QVERIFY(Pam::waitFor(typing, "secret "));
    QProcess checking;
    Pam::start(checking, QStringLiteral("bob authenticate"));
    QVERIFY(Pam::waitFor(checking, "secret "));
    checking.write("never\n");
    QTRY_COMPARE(TestDevice::calls().size(), 1);

    m_authd.stop(SIGKILL);
    const pid_t bus = TestDevice::readFile(QStringLiteral("/run/dbus/pid")).trimmed().toInt();
    QVERIFY(bus > 1);
    kill(bus, SIGKILL);
    QCOMPARE(Pam::finish(checking).told(), unavailable(absent));
    // Writing to the bus raises no SIGPIPE.
    typing.write("success\n");
    QCOMPARE(Pam::finish(typing).told(), unavailable(absent));
}

QTEST_GUILESS_MAIN(TstPamHostile)

#include "tst_pamhostile.moc"
