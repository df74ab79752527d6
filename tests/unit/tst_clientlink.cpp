// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#include "methodfixture.h"
#include "support/logcapture.h"

#include <QCoreApplication>
#include <QDBusConnection>
#include <QDBusPendingCall>
#include <QDeadlineTimer>
#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QPointer>
#include <QScopeGuard>
#include <QTest>
#include <QThread>

#include <algorithm>
#include <array>
#include <csignal>
#include <optional>
#include <vector>

#include <fcntl.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

Q_DECLARE_METATYPE(RecordingDaemon::Call)

namespace {

using Call = RecordingDaemon::Call;

constexpr int connecting = 1;
constexpr int enterPasswordOrPin = 2;
constexpr int cannotConnectClient = 4;
constexpr int cannotCommunicateClient = 5;
constexpr int authFailed = 11;

const QString certs = QStringLiteral("certs");
const QString success = QStringLiteral("success");
const QString answerFile = QStringLiteral("/tmp/scripted-client/answer");
const QString goFile = QStringLiteral("/tmp/scripted-client/go");

const QString cannotConnect =
    QStringLiteral("Cannot connect to the Kavet client socket "
                   "\"unix:path=/run/aux-auth/tarsk/kavet_client/kavet.socket\" "
                   "QDBusError(\"org.freedesktop.DBus.Error.NoServer\", "
                   "\"Failed to connect to socket /run/aux-auth/tarsk/kavet_client/kavet.socket: "
                   "Connection refused\")");
const QString terminated = QStringLiteral("onChildFinished Client has terminated exitCode 0 exitStatus 0");
const QString dropped = QStringLiteral("checkPassword Dropped the reply to a request that is no longer current");
const QString disconnected = QStringLiteral("Not connected to D-Bus server");

QString failure(const QString &method, const QString &error, const QString &message)
{
    return QStringLiteral("%1 failed: QDBusError(\"%2\", \"%3\")").arg(method, error, message);
}

Call certsChanged(const QStringList &list)
{
    return {QStringLiteral("optionChanged"), {0U, certs, list, true}};
}

// The changes of the certificate list that were reported to the daemon.
QVector<Call> certLists(const MethodFixture &fixture)
{
    QVector<Call> lists;
    const QVector<Call> told = fixture.told();
    for (const Call &call : told) {
        if (call.operation == QLatin1String("optionChanged"))
            lists << call;
    }
    return lists;
}

// Atomically replaces the socket with a file that accepts no connections.
bool replaceSocket()
{
    const QString substitute = TestDevice::clientDirectory + QStringLiteral("/substitute");
    return TestDevice::writeFile(substitute, {}) && TestDevice::setOwner(substitute, TestDevice::alice, 0)
           && rename(QFile::encodeName(substitute).constData(), QFile::encodeName(TestDevice::socketPath).constData())
                  == 0;
}

// The connection between the guard and the library is the only one whose both ends are in this process.
std::vector<int> endsOfInnerConnection()
{
    std::vector<int> ends;
    for (int fd = 0; fd < 1024; ++fd) {
        ucred peer = {};
        socklen_t size = sizeof peer;
        sockaddr_storage address = {};
        socklen_t addressSize = sizeof address;
        if (getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &peer, &size) == 0 && peer.pid == getpid()
            && getpeername(fd, reinterpret_cast<sockaddr *>(&address), &addressSize) == 0)
            ends.push_back(fd);
    }
    return ends;
}

/// Keeps the connection between the guard and the library open although the guard closes its end.
class OpenInnerConnection
{
public:
    OpenInnerConnection()
    {
        for (const int end : endsOfInnerConnection())
            m_copies.push_back(fcntl(end, F_DUPFD_CLOEXEC, 0));
    }
    ~OpenInnerConnection() { std::for_each(m_copies.begin(), m_copies.end(), close); }

private:
    std::vector<int> m_copies;

    Q_DISABLE_COPY(OpenInnerConnection)
};

/// The guard's end of its connection to the process that serves the client's socket.
int endOfOuterConnection(qint64 server)
{
    for (int fd = 0; fd < 1024; ++fd) {
        ucred peer = {};
        socklen_t size = sizeof peer;
        if (getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &peer, &size) == 0 && peer.pid == server)
            return fd;
    }
    return -1;
}

} // namespace

class TstClientLink : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init() { TestDevice::reset(); }

    void noClientOrNoSocket_data();
    void noClientOrNoSocket();
    void firstLink();
    void standingLink();
    void newLinkAfterDrop();
    void newLinkAfterHalfAnEnd_data();
    void newLinkAfterHalfAnEnd();
    void cannotConnect_data();
    void cannotConnect();
    void libraryCannotConnect();
    void cannotAcceptLibrary();
    void userOfTheServer_data();
    void userOfTheServer();
    void serverOfAnotherUser_data();
    void serverOfAnotherUser();

    void arguments_data();
    void arguments();
    void userWithoutName();
    void reply_data();
    void reply();
    void lateReply();
    void replyAfterAskingAgain();
    void requestsInFlight();
    void requestBehindOneThatFailed();
    void newLinkWhileInFlight_data();
    void newLinkWhileInFlight();
    void replyOverAnEarlierLink_data();
    void replyOverAnEarlierLink();
    void manyRequests_data();
    void manyRequests();
    void destroyedWhileInFlight_data();
    void destroyedWhileInFlight();

    void certListRequested();
    void certListAsksOnce();
    void certListWithoutClient();
    void certListFetchedOnceLinked();
    void certListAskedInsteadOfPending();
    void certListStaysPending();
    void certListReply_data();
    void certListReply();
    void certListAskedWhileReported();

    void linkNeverMade();
    void linkDropped_data();
    void linkDropped();
    void socketGone();
    void cannotLinkAgain_data();
    void cannotLinkAgain();
};

void TstClientLink::noClientOrNoSocket_data()
{
    QTest::addColumn<bool>("clientRunning");
    QTest::addColumn<bool>("socketPresent");
    QTest::newRow("neither") << false << false;
    QTest::newRow("no client") << false << true;
    QTest::newRow("no socket") << true << false;
}

void TstClientLink::noClientOrNoSocket()
{
    QFETCH(bool, clientRunning);
    QFETCH(bool, socketPresent);
    MethodFixture fixture;
    auto *d = fixture.d;
    QVERIFY(fixture.link());
    LogCapture log(true);

    // Not even an existing link counts.
    d->child.clientRunning = clientRunning;
    d->child.socketPresent = socketPresent;
    QVERIFY(!d->connectToChild());

    QVERIFY(fixture.dropLink());
    log.clear();
    d->child.clientRunning = clientRunning;
    d->child.socketPresent = socketPresent;
    const QPointer<KavetAuthInterface> proxy = d->clientInterface.data();
    QVERIFY(!d->connectToChild());
    QVERIFY(!d->connection.isConnected());
    QCOMPARE(d->clientInterface.data(), proxy.data());
    QVERIFY(proxy);
    QVERIFY(log.lines().isEmpty());
}

void TstClientLink::firstLink()
{
    MethodFixture fixture;
    auto *d = fixture.d;
    QVERIFY(!d->clientInterface);
    QVERIFY(!d->connection.isConnected());
    LogCapture log;
    QVERIFY(fixture.link());

    QCOMPARE(d->connection.name(), QStringLiteral("kavet_p2p_service"));
    QVERIFY(d->clientInterface);
    QCOMPARE(d->clientInterface->service(), QStringLiteral("tarsk.kavet_client"));
    QCOMPARE(d->clientInterface->path(), QStringLiteral("/kavetauth"));
    QCOMPARE(d->clientInterface->interface(), QStringLiteral("tarsk.kavet_auth"));
    QCOMPARE(d->clientInterface->connection().name(), QStringLiteral("kavet_p2p_service"));
    QVERIFY(d->clientInterface->connection().isConnected());
    QVERIFY(MethodFixture::calledMethods().isEmpty());
    QVERIFY(log.lines().isEmpty());
}

void TstClientLink::standingLink()
{
    MethodFixture fixture;
    auto *d = fixture.d;
    QVERIFY(fixture.link());
    const QPointer<KavetAuthInterface> proxy = d->clientInterface.data();

    d->certListPending = true;
    QVERIFY(d->connectToChild());
    QVERIFY(d->connection.isConnected());
    QVERIFY(proxy);
    QCOMPARE(d->clientInterface.data(), proxy.data());
    QVERIFY(d->certListPending);
    QVERIFY(!fixture.isWaiting());
}

void TstClientLink::newLinkAfterDrop()
{
    MethodFixture fixture;
    auto *d = fixture.d;
    QVERIFY(fixture.link());
    QVERIFY(fixture.dropLink());
    const QPointer<KavetAuthInterface> proxy = d->clientInterface.data();
    QVERIFY(proxy);
    LogCapture log;

    QVERIFY(d->connectToChild());
    QVERIFY(d->connection.isConnected());
    QVERIFY(!proxy);
    QVERIFY(d->clientInterface->connection().isConnected());
    QVERIFY(log.lines().isEmpty());

    fixture.method.authenticate(TestDevice::alice, MethodFixture::passwordData(success));
    QTRY_COMPARE(fixture.told(), QVector<Call>{RecordingDaemon::succeeded()});
}

void TstClientLink::newLinkAfterHalfAnEnd_data()
{
    QTest::addColumn<bool>("guardHasNoticed");
    QTest::newRow("only the guard has noticed") << true;
    QTest::newRow("only the library has noticed") << false;
}

// The library runs in its own thread, so either may notice the end of the link first.
void TstClientLink::newLinkAfterHalfAnEnd()
{
    QFETCH(bool, guardHasNoticed);
    MethodFixture fixture;
    auto *d = fixture.d;
    QVERIFY(fixture.link());
    std::optional<OpenInnerConnection> open;
    if (guardHasNoticed) {
        open.emplace();
        d->guard.close();
    } else {
        const std::vector<int> ends = endsOfInnerConnection();
        QCOMPARE(ends.size(), size_t(2));
        QCOMPARE(shutdown(ends.front(), SHUT_RDWR), 0);
        QDeadlineTimer deadline(5000);
        while (d->connection.isConnected() && !deadline.hasExpired())
            QThread::msleep(1); // without the event loop, which would tell the guard
    }
    QCOMPARE(d->guard.isOpen(), !guardHasNoticed);
    QCOMPARE(d->connection.isConnected(), guardHasNoticed);

    fixture.method.authenticate(TestDevice::alice, MethodFixture::passwordData(success));
    QTRY_COMPARE(fixture.told(), QVector<Call>{RecordingDaemon::succeeded()});
}

void TstClientLink::cannotConnect_data()
{
    QTest::addColumn<bool>("isSocket");
    QTest::newRow("no socket") << false;
    QTest::newRow("nobody serves") << true;
}

void TstClientLink::cannotConnect()
{
    QFETCH(bool, isSocket);
    MethodFixture fixture;
    auto *d = fixture.d;
    QVERIFY(isSocket ? TestDevice::leaveSocket(TestDevice::socketPath, TestDevice::alice)
                     : TestDevice::writeFile(TestDevice::socketPath, {}));
    d->child.clientRunning = true;
    d->child.clientUid = TestDevice::alice;
    d->child.socketPresent = true;
    d->certListPending = true;
    LogCapture log(true);

    QVERIFY(!d->connectToChild());
    QCOMPARE(log.warnings(), QStringList{::cannotConnect});
    QCOMPARE(log.lines().size(), 1);
    QVERIFY(!d->connection.isConnected());
    QVERIFY(!d->clientInterface);
    QVERIFY(d->certListPending);
    QVERIFY(fixture.told().isEmpty());

    // The flow reports it.
    d->currentUid = TestDevice::alice;
    d->clientStage = MethodKavetPrivate::MustConnect;
    d->makeAuth();
    QCOMPARE(fixture.told(), QVector<Call>{RecordingDaemon::failed(connecting, cannotConnectClient)});
    QCOMPARE(log.warnings(), QStringList({::cannotConnect, ::cannotConnect}));
    QCOMPARE(d->clientStage, int(MethodKavetPrivate::MustConnect));
}

void TstClientLink::libraryCannotConnect()
{
    MethodFixture fixture;
    QVERIFY(fixture.link());
    QVERIFY(fixture.dropLink());
    int ended = 0;
    for (int fd = 0; fd < 1024; ++fd) {
        int listens = 0;
        socklen_t size = sizeof listens;
        if (getsockopt(fd, SOL_SOCKET, SO_ACCEPTCONN, &listens, &size) == 0 && listens)
            ended += shutdown(fd, SHUT_RDWR) == 0 ? 1 : 0;
    }
    QCOMPARE(ended, 1);
    LogCapture log;

    QVERIFY(!fixture.d->connectToChild());
    QCOMPARE(log.warnings().size(), 1);
    QVERIFY(log.warnings().constFirst().contains(QStringLiteral("Failed to connect to socket /proc/self/fd/")));
    QVERIFY(!fixture.d->guard.isOpen());
    QVERIFY(!fixture.d->connection.isConnected());
}

void TstClientLink::cannotAcceptLibrary()
{
    MethodFixture fixture;
    auto *d = fixture.d;
    QVERIFY(fixture.link());
    QVERIFY(fixture.dropLink());

    // Leave two descriptors: for the connection to the client, and for the library's end of its own.
    std::array<int, 3> next = {};
    for (int &fd : next)
        fd = open("/dev/null", O_RDONLY | O_CLOEXEC);
    for (const int fd : next)
        QCOMPARE(close(fd), 0);
    rlimit former = {};
    QCOMPARE(getrlimit(RLIMIT_NOFILE, &former), 0);
    const auto restore = qScopeGuard([&] { setrlimit(RLIMIT_NOFILE, &former); });
    const rlimit limit = {rlim_t(next.back()), former.rlim_max};
    QCOMPARE(setrlimit(RLIMIT_NOFILE, &limit), 0);
    LogCapture log;

    QVERIFY(!d->connectToChild());
    QCOMPARE(log.warnings(),
             QStringList{QString(::cannotConnect)
                             .replace(QStringLiteral("Connection refused"), QStringLiteral("Too many open files"))});
    QVERIFY(!d->guard.isOpen());
    QVERIFY(!d->connection.isConnected());
}

void TstClientLink::userOfTheServer_data()
{
    QTest::addColumn<uint>("user");
    QTest::addColumn<bool>("linked");
    QTest::newRow("the user being authenticated") << TestDevice::alice << true;
    QTest::newRow("nobody is being authenticated") << 0u << true;
    QTest::newRow("another user is being authenticated") << TestDevice::bob << false;
}

void TstClientLink::userOfTheServer()
{
    QFETCH(uint, user);
    QFETCH(bool, linked);
    MethodFixture fixture;
    QVERIFY(fixture.link());
    QVERIFY(fixture.dropLink());
    fixture.d->currentUid = user;
    LogCapture log;
    QCOMPARE(fixture.d->connectToChild(), linked);
    QCOMPARE(fixture.d->guard.isOpen(), linked);
    QVERIFY(log.warnings().isEmpty());
}

void TstClientLink::serverOfAnotherUser_data()
{
    QTest::addColumn<uint>("user");
    QTest::addColumn<int>("warnings");
    QTest::newRow("for the client's user") << TestDevice::alice << 1;
    QTest::newRow("for nobody") << 0u << 1;
    // Otherwise the link could later carry alice's secret to bob.
    QTest::newRow("for the server's user") << TestDevice::bob << 0;
}

void TstClientLink::serverOfAnotherUser()
{
    QFETCH(uint, user);
    QFETCH(int, warnings);
    MethodFixture fixture;
    QVERIFY(fixture.link());
    QVERIFY(fixture.dropLink());
    // Bob listens on a socket that belongs to alice.
    const QByteArray path = QFile::encodeName(TestDevice::socketPath);
    QVERIFY(QFile::remove(TestDevice::socketPath));
    const pid_t server = TestDevice::idleProcess([&path] {
        const int socket = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_un address = {};
        address.sun_family = AF_UNIX;
        qstrncpy(address.sun_path, path.constData(), sizeof address.sun_path);
        return bind(socket, reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0
               && chown(path.constData(), TestDevice::alice, 0) == 0
               && setresuid(TestDevice::bob, TestDevice::bob, TestDevice::bob) == 0 && listen(socket, 1) == 0;
    });
    QVERIFY(server > 0);
    const auto end = qScopeGuard([server] {
        ::kill(server, SIGKILL);
        waitpid(server, nullptr, 0);
    });

    fixture.d->child.uid = TestDevice::bob; // as if a launch for bob had come due while alice's client was starting
    fixture.d->currentUid = user;
    LogCapture log;
    QVERIFY(!fixture.d->connectToChild());
    QVERIFY(!fixture.d->guard.isOpen());
    QCOMPARE(log.warnings().size(), warnings);
}

void TstClientLink::arguments_data()
{
    QTest::addColumn<uint>("user");
    QTest::addColumn<QString>("name");
    QTest::newRow("alice") << TestDevice::alice << QStringLiteral("alice");
    QTest::newRow("bob") << TestDevice::bob << QStringLiteral("bob");
}

void TstClientLink::arguments()
{
    QFETCH(uint, user);
    QFETCH(QString, name);
    MethodFixture fixture;
    QVERIFY(fixture.link({}, user));
    fixture.d->child.uid = TestDevice::carol; // whose launch is due
    fixture.d->checkPassword(QStringLiteral("pass wörd"));
    QTRY_COMPARE(fixture.told().size(), 1);
    fixture.d->validateCert(QStringLiteral("pkcs11:object=a"), QStringLiteral("1234"));
    QTRY_COMPARE(fixture.told().size(), 2);
    fixture.d->getCertList();
    QTRY_COMPARE(fixture.told().size(), 3);

    const QVector<QJsonArray> expected = {
        {QStringLiteral("checkPassword"), name, QStringLiteral("pass wörd")},
        {QStringLiteral("validateCert"), QStringLiteral("pkcs11:object=a"), name, QStringLiteral("1234")},
        {QStringLiteral("getCertList")},
    };
    QCOMPARE(TestDevice::calls(), expected);
    QCOMPARE(TestDevice::callees(), QVector<uint>(3, user));
}

void TstClientLink::userWithoutName()
{
    MethodFixture fixture;
    QVERIFY(fixture.link());
    // The user is removed from the database while the client runs.
    const QString database = QStringLiteral("/etc/passwd");
    const QByteArray users = TestDevice::readFile(database);
    QVERIFY(users.contains("\nalice:x:1000:"));
    const auto restore = qScopeGuard([&] { TestDevice::writeFile(database, users); });
    QVERIFY(TestDevice::writeFile(database, QByteArray(users).replace("\nalice:x:1000:", "\nalice:x:4242:")));
    fixture.d->checkPassword(QStringLiteral("secret"));
    QTRY_COMPARE(TestDevice::calls(),
                 (QVector<QJsonArray>{{QStringLiteral("checkPassword"), QString(), QStringLiteral("secret")}}));
}

void TstClientLink::reply_data()
{
    const QString signature = QStringLiteral("org.freedesktop.DBus.Error.InvalidSignature");
    const Call broken = RecordingDaemon::failed(enterPasswordOrPin, cannotCommunicateClient);

    QTest::addColumn<QString>("method");
    QTest::addColumn<QString>("word");
    QTest::addColumn<Call>("outcome");
    QTest::addColumn<QString>("warning");

    for (const QString &method : {QStringLiteral("checkPassword"), QStringLiteral("validateCert")}) {
        const auto row = [&method](const char *name, const QString &word, const Call &outcome,
                                   const QString &warning = {}) {
            QTest::addRow("%s: %s", qUtf8Printable(method), name) << method << word << outcome << warning;
        };
        row("success", success, RecordingDaemon::succeeded());
        row("failed", QStringLiteral("failed"), RecordingDaemon::failed(enterPasswordOrPin, authFailed));
        row("no answer known", QString(), RecordingDaemon::failed(enterPasswordOrPin, authFailed));
        row("more arguments", QStringLiteral("many"), RecordingDaemon::succeeded());
        row("error", QStringLiteral("error"), broken,
            failure(method, QStringLiteral("tarsk.Error"), QStringLiteral("No luck")));
        row("another type", QStringLiteral("number"), broken,
            failure(method, signature,
                    QStringLiteral("Unexpected reply signature: got \\\"i\\\", expected \\\"s\\\"")));
        row("no argument", QStringLiteral("nothing"), broken,
            failure(method, signature, QStringLiteral("Unexpected reply signature: got \\\"\\\", expected \\\"s\\\"")));
        row("client dies", QStringLiteral("die"), broken,
            failure(method, QStringLiteral("org.freedesktop.DBus.Error.Disconnected"), disconnected));
        row("link dropped", QStringLiteral("drop"), broken,
            failure(method, QStringLiteral("org.freedesktop.DBus.Error.Disconnected"), disconnected));
    }
}

void TstClientLink::reply()
{
    QFETCH(QString, method);
    QFETCH(QString, word);
    QFETCH(Call, outcome);
    QFETCH(QString, warning);

    MethodFixture fixture;
    QVERIFY(fixture.link());
    // The method must not connect to a client that is relaunched after it died.
    TestDevice::setScript({{QStringLiteral("socket"), QStringLiteral("never")}});
    LogCapture log;

    if (method == QLatin1String("checkPassword"))
        fixture.d->checkPassword(word);
    else
        fixture.d->validateCert(QStringLiteral("a certificate"), word);
    QVERIFY(fixture.isWaiting());
    QVERIFY(fixture.told().isEmpty());

    QTRY_VERIFY(!fixture.isWaiting());
    QStringList warnings = {warning};
    if (word == QLatin1String("die")) {
        QTRY_COMPARE(TestDevice::launches().size(), 2);
        QTRY_VERIFY(fixture.d->child.clientRunning);
        warnings << terminated;
    }
    QCOMPARE(fixture.daemon.outcomes(), QVector<Call>{outcome});
    QVERIFY(!fixture.d->currentRequest);
    QStringList logged = log.warnings();
    logged.sort();
    warnings.sort();
    warnings.removeAll(QString());
    QCOMPARE(logged, warnings);
    QCOMPARE(MethodFixture::calledMethods(), QStringList{method});
}

void TstClientLink::lateReply()
{
    MethodFixture fixture;
    QVERIFY(fixture.link());
    fixture.d->checkPassword(QStringLiteral("late"));
    QTRY_COMPARE(MethodFixture::calledMethods().size(), 1);

    // Only the newer request counts; the client's "success" for the older one comes too late.
    fixture.method.authenticate(TestDevice::alice, MethodFixture::passwordData(QStringLiteral("failed")));
    const QVector<Call> first = {RecordingDaemon::failed(enterPasswordOrPin, authFailed)};
    QTRY_COMPARE(fixture.told(), first);
    QVERIFY(fixture.isWaiting());

    LogCapture log(true);
    QVERIFY(TestDevice::writeFile(answerFile, {}));
    QTRY_VERIFY(!fixture.isWaiting());
    QCOMPARE(fixture.told(), first);
    QCOMPARE(log.debugs(), QStringList{dropped});
    QVERIFY(log.warnings().isEmpty());
}

// Without a password or certificate there is no newer request, so the reply still counts.
void TstClientLink::replyAfterAskingAgain()
{
    MethodFixture fixture;
    QVERIFY(fixture.link());
    fixture.method.authenticate(TestDevice::alice, MethodFixture::passwordData(QStringLiteral("late")));
    QTRY_COMPARE(MethodFixture::calledMethods().size(), 1);
    fixture.method.authenticate(TestDevice::alice, {});
    const Call asked = RecordingDaemon::asked(SettingsKavet::EnterPasswordOrPin);
    QCOMPARE(fixture.told(), QVector<Call>{asked});
    QVERIFY(TestDevice::writeFile(answerFile, {}));
    QTRY_COMPARE(fixture.told(), (QVector<Call>{asked, RecordingDaemon::succeeded()}));
}

void TstClientLink::requestsInFlight()
{
    MethodFixture fixture;
    QVERIFY(fixture.link());
    LogCapture log;
    fixture.d->checkPassword(QStringLiteral("never"));
    fixture.d->validateCert(QStringLiteral("a certificate"), QStringLiteral("never"));
    fixture.d->checkPassword(QStringLiteral("drop"));

    // Only the newest request is current.
    const Call broken = RecordingDaemon::failed(enterPasswordOrPin, cannotCommunicateClient);
    QTRY_VERIFY(!fixture.isWaiting());
    QCOMPARE(fixture.told(), QVector<Call>{broken});
    QCOMPARE(log.warnings().size(), 1);
}

// The failure of an earlier request is not reported as well.
void TstClientLink::requestBehindOneThatFailed()
{
    MethodFixture fixture;
    QVERIFY(fixture.link());
    fixture.d->checkPassword(QStringLiteral("never"));
    fixture.d->guard.close();
    fixture.d->child.socketPresent = false;
    fixture.d->checkPassword(success);
    QTRY_VERIFY(!fixture.isWaiting());
    QCOMPARE(fixture.told(), QVector<Call>{RecordingDaemon::failed(enterPasswordOrPin, cannotCommunicateClient)});
}

void TstClientLink::newLinkWhileInFlight_data()
{
    QTest::addColumn<bool>("forCerts");
    QTest::newRow("checkPassword") << false;
    QTest::newRow("getCertList") << true;
}

// The earlier link is given up while the library, which has not noticed its end, waits for a reply over it. The call
// fails once the library notices.
void TstClientLink::newLinkWhileInFlight()
{
    QFETCH(bool, forCerts);
    MethodFixture fixture;
    QVERIFY(fixture.link({{QStringLiteral("certsAnswer"), QStringLiteral("never")}}));
    if (forCerts)
        fixture.d->getCertList();
    else
        fixture.d->checkPassword(QStringLiteral("never"));
    QTRY_COMPARE(MethodFixture::calledMethods().size(), 1);
    {
        const OpenInnerConnection open;
        fixture.d->guard.close();
        QVERIFY(fixture.d->connectToChild());
        QVERIFY(fixture.isWaiting());
    }
    QTRY_VERIFY(!fixture.isWaiting());
    QVERIFY(!fixture.d->certListInFlight);
}

void TstClientLink::replyOverAnEarlierLink_data()
{
    QTest::addColumn<bool>("forCerts");
    QTest::addColumn<bool>("linkedAgain");
    QTest::newRow("checkPassword") << false << false;
    QTest::newRow("checkPassword, linked again") << false << true;
    QTest::newRow("getCertList") << true << false;
    QTest::newRow("getCertList, linked again") << true << true;
}

// The link is given up when the library has received the reply but has not delivered it yet.
void TstClientLink::replyOverAnEarlierLink()
{
    QFETCH(bool, forCerts);
    QFETCH(bool, linkedAgain);
    const QString late = QStringLiteral("late");
    MethodFixture fixture;
    QVERIFY(fixture.link({{QStringLiteral("certsAnswer"), late}}));
    if (forCerts)
        fixture.d->getCertList();
    else
        fixture.d->checkPassword(late);
    QTRY_COMPARE(MethodFixture::calledMethods().size(), 1);
    LogCapture log;
    QVERIFY(TestDevice::writeFile(answerFile, {}));
    pollfd reply = {endOfOuterConnection(fixture.d->child.processId()), POLLIN, 0};
    QCOMPARE(poll(&reply, 1, 20000), 1);
    QCoreApplication::processEvents();
    const auto *watcher = fixture.d->findChild<QDBusPendingCallWatcher *>();
    QVERIFY(watcher);
    QDBusPendingCall call = *watcher; // Unlike the watcher's, its function does not deliver the reply.
    call.waitForFinished();
    QVERIFY(!call.isError());
    fixture.d->guard.close();
    if (linkedAgain)
        QVERIFY(fixture.d->connectToChild());

    QTRY_VERIFY(!fixture.isWaiting());
    const QString noLink = QStringLiteral("No link to the client");
    if (forCerts) {
        QCOMPARE(fixture.told(), QVector<Call>{certsChanged({})});
        QCOMPARE(log.warnings(), QStringList{QStringLiteral("getCertList failed: \"%1\"").arg(noLink)});
    } else {
        QCOMPARE(fixture.told(), QVector<Call>{RecordingDaemon::failed(enterPasswordOrPin, cannotCommunicateClient)});
        QCOMPARE(log.warnings(),
                 QStringList{failure(QStringLiteral("checkPassword"),
                                     QStringLiteral("org.freedesktop.DBus.Error.Disconnected"), noLink)});
    }
}

void TstClientLink::manyRequests_data()
{
    QTest::addColumn<bool>("forCerts");
    QTest::newRow("checkPassword") << false;
    QTest::newRow("getCertList") << true;
}

// The limits on what the client sends hold for each request, not for the link.
void TstClientLink::manyRequests()
{
    QFETCH(bool, forCerts);
    MethodFixture fixture;
    QVERIFY(fixture.link({{certs, QJsonArray{QStringLiteral("one")}}}));
    const quint64 link = fixture.d->guard.link();
    for (int request = 1; request <= 20; ++request) {
        if (forCerts)
            fixture.d->getCertList();
        else
            fixture.d->checkPassword(success);
        QTRY_COMPARE(fixture.told().size(), request);
        QCOMPARE(fixture.told().constLast(),
                 forCerts ? certsChanged({QStringLiteral("one")}) : RecordingDaemon::succeeded());
    }
    QCOMPARE(fixture.d->guard.link(), link);
}

void TstClientLink::destroyedWhileInFlight_data()
{
    QTest::addColumn<bool>("available");
    QTest::newRow("link stands") << true;
    QTest::newRow("link given up") << false;
}

void TstClientLink::destroyedWhileInFlight()
{
    QFETCH(bool, available);
    RecordingDaemon daemon;
    std::optional<MethodFixture> fixture(std::in_place);
    QVERIFY(fixture->link({{QStringLiteral("certsAnswer"), QStringLiteral("never")}}));
    fixture->method.setNotificator(&daemon);
    fixture->d->checkPassword(QStringLiteral("never"));
    fixture->d->getCertList();
    QTRY_COMPARE(MethodFixture::calledMethods().size(), 2);
    if (!available)
        fixture->d->setChildUnavailable(true);
    const QVector<Call> before = daemon.calls;
    QVector<QPointer<QDBusPendingCallWatcher>> pending;
    const auto watchers = fixture->d->findChildren<QDBusPendingCallWatcher *>();
    for (QDBusPendingCallWatcher *watcher : watchers)
        pending << watcher;
    QCOMPARE(pending.size(), 2);
    const QDBusConnection connection(fixture->d->connection);

    const LogCapture log(true);
    fixture.reset();
    QVERIFY(std::all_of(pending.cbegin(), pending.cend(), [](const auto &watcher) { return watcher.isNull(); }));
    // The library reports the end of the link to nobody.
    QTRY_VERIFY(!connection.isConnected());
    QCoreApplication::processEvents();
    QCOMPARE(daemon.calls, before);
    QVERIFY(log.lines().isEmpty());

    // Another method makes a link of its own.
    TestDevice::reset();
    MethodFixture other;
    QVERIFY(other.link());
    other.d->checkPassword(success);
    QTRY_COMPARE(other.told(), QVector<Call>{RecordingDaemon::succeeded()});
    QVERIFY(log.warnings().isEmpty());
}

void TstClientLink::certListRequested()
{
    // The list is reported as it is, in its order and with duplicates.
    const QStringList list = {QStringLiteral("pkcs11:object=ä"), QStringLiteral("pkcs11:object=a"),
                              QStringLiteral("pkcs11:object=ä")};
    MethodFixture fixture;
    QVERIFY(fixture.link({{certs, QJsonArray::fromStringList(list)}}));
    fixture.d->certListPending = true;
    LogCapture log;

    QCOMPARE(fixture.d->getCertList(), QStringList{QStringLiteral(".")});
    QVERIFY(fixture.d->certListInFlight);
    QVERIFY(!fixture.d->certListPending);
    QVERIFY(fixture.told().isEmpty());

    QTRY_COMPARE(fixture.told(), QVector<Call>{certsChanged(list)});
    QVERIFY(!fixture.d->certListInFlight);
    QTRY_VERIFY(!fixture.isWaiting());
    QCOMPARE(fixture.told().size(), 1);
    QCOMPARE(MethodFixture::calledMethods(), QStringList{QStringLiteral("getCertList")});
    QVERIFY(log.lines().isEmpty());

    // The same again.
    QCOMPARE(fixture.d->getCertList(), QStringList{QStringLiteral(".")});
    QTRY_COMPARE(fixture.told(), (QVector<Call>{certsChanged(list), certsChanged(list)}));
}

void TstClientLink::certListAsksOnce()
{
    MethodFixture fixture;
    QVERIFY(fixture.link({{certs, QJsonArray()}, {QStringLiteral("certsAnswer"), QStringLiteral("late")}}));
    QCOMPARE(fixture.d->getCertList(), QStringList{QStringLiteral(".")});
    QTRY_COMPARE(MethodFixture::calledMethods().size(), 1);

    for (const bool present : {true, false}) {
        fixture.d->child.socketPresent = present; // It does not matter.
        fixture.d->certListPending = true;
        QCOMPARE(fixture.d->getCertList(), QStringList());
        QVERIFY(!fixture.d->certListPending);
        QVERIFY(fixture.d->certListInFlight);
        QCOMPARE(fixture.d->findChildren<QDBusPendingCallWatcher *>().size(), 1);
    }

    QVERIFY(TestDevice::writeFile(answerFile, {}));
    QTRY_COMPARE(fixture.told(), QVector<Call>{certsChanged({})});
    QTRY_VERIFY(!fixture.isWaiting());
    QCOMPARE(MethodFixture::calledMethods(), QStringList{QStringLiteral("getCertList")});
    QCOMPARE(fixture.told().size(), 1);
}

void TstClientLink::certListWithoutClient()
{
    MethodFixture fixture;
    LogCapture log(true);
    for (int i = 0; i < 2; ++i) {
        QCOMPARE(fixture.d->getCertList(), QStringList());
        QVERIFY(fixture.d->certListPending);
        QVERIFY(!fixture.d->certListInFlight);
    }
    QVERIFY(log.lines().isEmpty());
    QVERIFY(fixture.told().isEmpty());
}

void TstClientLink::certListFetchedOnceLinked()
{
    const QStringList list = {QStringLiteral("pkcs11:object=a")};
    MethodFixture fixture;
    QCOMPARE(fixture.d->getCertList(), QStringList());
    QVERIFY(fixture.d->certListPending);

    QVERIFY(fixture.link({{certs, QJsonArray::fromStringList(list)}}));
    QVERIFY(!fixture.d->certListPending);
    QTRY_COMPARE(certLists(fixture), QVector<Call>{certsChanged(list)});
    QVERIFY(!fixture.d->certListInFlight);

    // A later link does not fetch the list again.
    fixture.daemon.calls.clear();
    QVERIFY(fixture.dropLink());
    QVERIFY(fixture.d->connectToChild());
    fixture.d->checkPassword(success);
    QTRY_COMPARE(fixture.told(), QVector<Call>{RecordingDaemon::succeeded()});
    QCOMPARE(
        MethodFixture::calledMethods(),
        QStringList({QStringLiteral("getCertList"), QStringLiteral("checkPassword"), QStringLiteral("checkPassword")}));
}

void TstClientLink::certListAskedInsteadOfPending()
{
    MethodFixture fixture;
    QVERIFY(fixture.link({{certs, QJsonArray()}}));
    QVERIFY(fixture.dropLink());

    // The call connects to the client itself.
    QCOMPARE(fixture.d->getCertList(), QStringList{QStringLiteral(".")});
    QVERIFY(fixture.d->connection.isConnected());
    QTRY_COMPARE(fixture.told(), QVector<Call>{certsChanged({})});
    QCOMPARE(MethodFixture::calledMethods().count(QStringLiteral("getCertList")), 1);
}

void TstClientLink::certListStaysPending()
{
    MethodFixture fixture;
    QVERIFY(TestDevice::writeFile(TestDevice::socketPath, {}));
    fixture.d->child.clientRunning = true;
    fixture.d->child.clientUid = TestDevice::alice;
    fixture.d->child.socketPresent = true;
    LogCapture log;
    QCOMPARE(fixture.d->getCertList(), QStringList());
    QVERIFY(fixture.d->certListPending);
    QVERIFY(!fixture.d->certListInFlight);
    QCOMPARE(log.warnings(), QStringList{::cannotConnect});
    QVERIFY(fixture.told().isEmpty());
}

void TstClientLink::certListReply_data()
{
    const QString signature = QStringLiteral("Unexpected reply signature: got \\\"%1\\\", expected \\\"as\\\"");
    QTest::addColumn<QString>("word");
    QTest::addColumn<QStringList>("list");
    QTest::addColumn<QString>("warning");
    QTest::newRow("more arguments") << QStringLiteral("many") << QStringList{QStringLiteral("one")} << QString();
    QTest::newRow("error") << QStringLiteral("error") << QStringList() << QStringLiteral("No luck");
    QTest::newRow("another type") << QStringLiteral("number") << QStringList() << signature.arg(QLatin1Char('i'));
    QTest::newRow("a string") << QStringLiteral("text") << QStringList() << signature.arg(QLatin1Char('s'));
    QTest::newRow("no argument") << QStringLiteral("nothing") << QStringList() << signature.arg(QString());
    QTest::newRow("client dies") << QStringLiteral("die") << QStringList() << disconnected;
    QTest::newRow("link dropped") << QStringLiteral("drop") << QStringList() << disconnected;
}

void TstClientLink::certListReply()
{
    QFETCH(QString, word);
    QFETCH(QStringList, list);
    QFETCH(QString, warning);
    MethodFixture fixture;
    const QJsonArray all = {QStringLiteral("one")};
    QVERIFY(fixture.link({{certs, all}, {QStringLiteral("certsAnswer"), word}}));
    TestDevice::setScript({{QStringLiteral("socket"), QStringLiteral("never")}, {certs, all}});
    LogCapture log;

    QCOMPARE(fixture.d->getCertList(), QStringList{QStringLiteral(".")});
    QTRY_VERIFY(!fixture.isWaiting());
    QCOMPARE(certLists(fixture), QVector<Call>{certsChanged(list)});
    QVERIFY(fixture.daemon.outcomes().isEmpty());
    QVERIFY(!fixture.d->certListInFlight);
    QVERIFY(!fixture.d->certListPending);
    if (word == QLatin1String("die"))
        QTRY_COMPARE(TestDevice::launches().size(), 2);
    QStringList warnings = log.warnings();
    warnings.removeOne(terminated);
    QCOMPARE(warnings, warning.isEmpty() ? QStringList()
                                         : QStringList{QStringLiteral("getCertList failed: \"%1\"").arg(warning)});
}

void TstClientLink::certListAskedWhileReported()
{
    // Otherwise a daemon that requests the list on each change would do so forever.
    struct AskingDaemon : RecordingDaemon
    {
        MethodKavetPrivate *d = nullptr;
        QVector<QStringList> answers;
        void optionChanged(const QString &method, uint uid, const QString &option, const QVariant &value,
                           bool computed) override
        {
            if (option != certs)
                return;
            RecordingDaemon::optionChanged(method, uid, option, value, computed);
            answers << d->getCertList();
        }
    };

    MethodFixture fixture;
    AskingDaemon daemon;
    daemon.d = fixture.d;
    QVERIFY(fixture.link({{certs, QJsonArray{QStringLiteral("one")}}}));
    fixture.method.setNotificator(&daemon);
    fixture.d->getCertList();
    QTRY_COMPARE(daemon.callsOf(QStringLiteral("optionChanged")), QVector<Call>{certsChanged({QStringLiteral("one")})});
    QCOMPARE(daemon.answers, QVector<QStringList>{QStringList()});
    QVERIFY(!fixture.d->certListInFlight);
}

void TstClientLink::linkNeverMade()
{
    TestDevice::setScript({{QStringLiteral("socket"), goFile}, {certs, QJsonArray()}});
    MethodFixture fixture;
    auto *d = fixture.d;
    fixture.method.authenticate(TestDevice::alice, {});
    QTRY_VERIFY(d->child.clientRunning);
    QCOMPARE(d->getCertList(), QStringList());
    fixture.method.reset();
    QVERIFY(TestDevice::writeFile(goFile, {}));
    QTRY_VERIFY(d->child.socketPresent);
    QVERIFY(!d->clientInterface);

    fixture.method.reset();
    QCOMPARE(d->clientStage, int(MethodKavetPrivate::Linked));
    LogCapture log;
    fixture.method.authenticate(TestDevice::alice, MethodFixture::passwordData(success));
    QTRY_COMPARE(fixture.daemon.outcomes(), QVector<Call>{RecordingDaemon::succeeded()});
    // Connecting also fetches the certificates.
    QTRY_COMPARE(certLists(fixture), QVector<Call>{certsChanged({})});
    QVERIFY(d->connection.isConnected());
    QVERIFY(log.lines().isEmpty());
    QCOMPARE(fixture.told().size(), 2);
}

void TstClientLink::linkDropped_data()
{
    QTest::addColumn<bool>("withCert");
    QTest::newRow("checkPassword") << false;
    QTest::newRow("validateCert") << true;
}

void TstClientLink::linkDropped()
{
    QFETCH(bool, withCert);
    MethodFixture fixture;
    QVERIFY(fixture.link());
    QVERIFY(fixture.dropLink());
    const QPointer<KavetAuthInterface> proxy = fixture.d->clientInterface.data();
    fixture.method.reset();
    QCOMPARE(fixture.d->clientStage, int(MethodKavetPrivate::Linked));
    LogCapture log;

    fixture.method.authenticate(TestDevice::alice,
                                withCert ? MethodFixture::AuthData{{QStringLiteral("cert"), QStringLiteral("c")},
                                                                   {QStringLiteral("pin"), success}}
                                         : MethodFixture::passwordData(success));
    QVERIFY(!proxy);
    QTRY_COMPARE(fixture.told(), QVector<Call>{RecordingDaemon::succeeded()});
    QTRY_VERIFY(!fixture.isWaiting());
    QCOMPARE(fixture.told().size(), 1);
    QVERIFY(log.lines().isEmpty());
}

void TstClientLink::socketGone()
{
    MethodFixture fixture;
    QVERIFY(fixture.link());
    const QPointer<KavetAuthInterface> proxy = fixture.d->clientInterface.data();
    QVERIFY(QFile::remove(TestDevice::socketPath));
    QTRY_VERIFY(!fixture.d->child.socketPresent);
    LogCapture log;

    fixture.method.authenticate(TestDevice::alice, MethodFixture::passwordData(success));
    QTRY_COMPARE(fixture.told(), QVector<Call>{RecordingDaemon::succeeded()});
    QVERIFY(proxy);
    QCOMPARE(fixture.d->clientInterface.data(), proxy.data());
    QVERIFY(log.lines().isEmpty());
}

void TstClientLink::cannotLinkAgain_data()
{
    QTest::addColumn<bool>("withCert");
    QTest::addColumn<bool>("socketPresent");
    QTest::newRow("checkPassword, no socket") << false << false;
    QTest::newRow("checkPassword, refused") << false << true;
    QTest::newRow("validateCert, no socket") << true << false;
    QTest::newRow("validateCert, refused") << true << true;
}

void TstClientLink::cannotLinkAgain()
{
    QFETCH(bool, withCert);
    QFETCH(bool, socketPresent);
    MethodFixture fixture;
    QVERIFY(fixture.link());
    QVERIFY(fixture.dropLink());
    if (socketPresent) {
        QVERIFY(replaceSocket());
    } else {
        QVERIFY(QFile::remove(TestDevice::socketPath));
        QTRY_VERIFY(!fixture.d->child.socketPresent);
    }
    LogCapture log;

    fixture.method.authenticate(TestDevice::alice,
                                withCert ? MethodFixture::AuthData{{QStringLiteral("cert"), QStringLiteral("c")},
                                                                   {QStringLiteral("pin"), success}}
                                         : MethodFixture::passwordData(success));
    QCOMPARE(fixture.told(), QVector<Call>{RecordingDaemon::failed(enterPasswordOrPin, cannotCommunicateClient)});
    QStringList warnings = {failure(withCert ? QStringLiteral("validateCert") : QStringLiteral("checkPassword"),
                                    QStringLiteral("org.freedesktop.DBus.Error.Disconnected"),
                                    QStringLiteral("No link to the client"))};
    if (socketPresent)
        warnings.prepend(::cannotConnect);
    QCOMPARE(log.warnings(), warnings);
    QVERIFY(!fixture.isWaiting());
    QVERIFY(!fixture.d->pendingAuthData);
    QCOMPARE(MethodFixture::calledMethods(),
             QStringList{QStringLiteral("checkPassword")}); // the call that dropped the link
}

QTEST_GUILESS_MAIN(TstClientLink)
#include "tst_clientlink.moc"
