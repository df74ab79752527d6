// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#include "device/clientfixture.h"
#include "device/polltimeout.h"
#include "device/rawconnection.h"
#include "support/waiting.h"

#include <QCryptographicHash>
#include <QXmlStreamReader>

#include <csignal>
#include <memory>
#include <vector>

#include <sys/stat.h>

namespace {

const QString right = QStringLiteral("correct horse, 52 µg");
const QString success = QStringLiteral("success");
const QString failed = QStringLiteral("failed");

/// More peers than the client accepts at once.
constexpr int crowdSize = 500;

/// What the client may keep of the memory that it has given back, in kilobytes. A sanitizer keeps some itself.
#ifdef __SANITIZE_ADDRESS__
constexpr qint64 maxGrowth = 4000;
#else
constexpr qint64 maxGrowth = 1000;
#endif

using Crowd = std::vector<std::unique_ptr<RawConnection>>;

/// Sets the process's effective user for the lifetime of the object.
class EffectiveUser
{
public:
    explicit EffectiveUser(uint uid)
        : m_changed(seteuid(uid) == 0)
    {
    }
    ~EffectiveUser()
    {
        if (seteuid(0) != 0)
            qFatal("Cannot become root again");
    }

    bool isChanged() const { return m_changed; }

private:
    const bool m_changed;

    Q_DISABLE_COPY(EffectiveUser)
};

/// Starts the client without connecting to it.
void startOnly(ClientFixture &client, const QStringList &environment = {})
{
    ClientFixture::asUser(client.process, ClientFixture::program, {QStringLiteral("--no-gui")});
    ClientFixture::addToEnvironment(client.process, environment);
    client.process.start();
    client.process.waitForStarted(); // Else it might be up before this process notices that it has started.
}

/// The methods of the client's interface in a description, as "checkPassword in:user:s ..."
QStringList methods(const QByteArray &xml)
{
    QStringList found;
    QXmlStreamReader reader(xml);
    bool inside = false;
    while (!reader.atEnd()) {
        reader.readNext();
        const QXmlStreamAttributes attributes = reader.attributes();
        if (reader.name() == QLatin1String("interface"))
            inside =
                reader.isStartElement() && attributes.value(QLatin1String("name")) == QLatin1String("tarsk.kavet_auth");
        if (!inside || !reader.isStartElement())
            continue;
        if (reader.name() == QLatin1String("method"))
            found << attributes.value(QLatin1String("name")).toString();
        if (reader.name() == QLatin1String("arg"))
            found.last() += QStringLiteral(" %1:%2:%3")
                                .arg(attributes.value(QLatin1String("direction")),
                                     attributes.value(QLatin1String("name")), attributes.value(QLatin1String("type")));
    }
    return found;
}

} // namespace

/// How the reference client's peers can affect it and each other.
class TstClientPeers : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init();

    void interfaceIsAsDescribed();
    void onlyRootAndItsUser();
    void foreignersAreNotHeard_data();
    void foreignersAreNotHeard();
    void foreignerComesFirst();
    void nonsense_data();
    void nonsense();
    void longHandshake_data();
    void longHandshake();
    void oneReplyForEachCall_data();
    void oneReplyForEachCall();
    void descriptors_data();
    void descriptors();
    void hugeArray();
    void connections();
    void connectionsWhileBusy();
    void silentPeerIsGivenUp();
    void silentCrowd();
    void speakingCrowd();
    void peersThatVanish();
    void peerThatDoesNotRead();
    void noSecrets_data();
    void noSecrets();
};

void TstClientPeers::init()
{
    TestDevice::reset();
    ClientFixture::prepare();
    QVERIFY(ClientFixture::setPassword(right));
}

void TstClientPeers::interfaceIsAsDescribed()
{
    ClientFixture client;
    QVERIFY(client.start());
    const QDBusMessage reply = client.call(QDBusMessage::createMethodCall(
        QString(), QStringLiteral("/kavetauth"), QStringLiteral("org.freedesktop.DBus.Introspectable"),
        QStringLiteral("Introspect")));
    QCOMPARE(reply.type(), QDBusMessage::ReplyMessage);
    const QStringList described = methods(TestDevice::readFile(QStringLiteral(KAVET_AUTH_XML)));
    QCOMPARE(described.size(), 3);
    QCOMPARE(methods(reply.arguments().constFirst().toString().toUtf8()), described);
}

void TstClientPeers::onlyRootAndItsUser()
{
    const QStringList call = {QStringLiteral("--print-reply"),
                              QString(QStringLiteral("--peer=unix:path=") + TestDevice::socketPath),
                              QStringLiteral("/kavetauth"), QStringLiteral("tarsk.kavet_auth.getCertList")};
    const auto reaches = [&call](uint uid) {
        QProcess process;
        ClientFixture::asUser(process, QStringLiteral("dbus-send"), call, uid);
        process.start();
        return process.waitForFinished() && process.exitCode() == 0;
    };

    ClientFixture client;
    QVERIFY(client.start());
    QVERIFY(reaches(0));
    QVERIFY(reaches(TestDevice::alice));
    QVERIFY(!reaches(TestDevice::bob));
    // The client checks its peers itself and does not rely on the socket's mode.
    chmod(QFile::encodeName(TestDevice::socketPath).constData(), 0666);
    QVERIFY(!reaches(TestDevice::bob));
    QVERIFY(reaches(TestDevice::alice));
}

void TstClientPeers::foreignersAreNotHeard_data()
{
    QTest::addColumn<QByteArray>("words");
    QTest::newRow("nothing") << QByteArray();
    QTest::newRow("as root") << RawConnection::handshake;
    QTest::newRow("as nobody in particular") << QByteArray("\0AUTH ANONYMOUS\r\nBEGIN\r\n", 24);
}

void TstClientPeers::foreignersAreNotHeard()
{
    QFETCH(QByteArray, words);
    ClientFixture client;
    QVERIFY(client.start());
    chmod(QFile::encodeName(TestDevice::socketPath).constData(), 0666);
    {
        const EffectiveUser bob(TestDevice::bob);
        QVERIFY(bob.isChanged());
        const RawConnection connection;
        QVERIFY(connection.isConnected());
        connection.send(words);
        // The client closes the connection without a reply.
        QVERIFY(connection.receive().isEmpty());
        QVERIFY(connection.hasEnded());
    }
    QCOMPARE(client.checkPassword(right), success);
}

void TstClientPeers::foreignerComesFirst()
{
    ClientFixture client;
    startOnly(client);
    const QByteArray path = QFile::encodeName(TestDevice::socketPath);
    const auto isRefused = [&path] {
        chmod(path.constData(), 0666); // The client may undo this before bob connects.
        const EffectiveUser bob(TestDevice::bob);
        const RawConnection connection;
        return bob.isChanged() && connection.isConnected() && connection.hasEnded();
    };
    QTRY_VERIFY(isRefused());
    // The client still announces its socket, and only its user may connect.
    QCOMPARE(chmod(path.constData(), 0666), 0);
    struct stat status = {};
    QTRY_VERIFY_WITH_TIMEOUT(stat(path.constData(), &status) == 0 && (status.st_mode & 0777U) == 0600, 60000);
}

void TstClientPeers::nonsense_data()
{
    QTest::addColumn<QByteArray>("words");
    const QByteArray call = RawConnection::call("checkPassword", {"alice", "wrong"});
    QTest::newRow("no handshake") << call;
    QTest::newRow("no zero byte") << RawConnection::handshake.mid(1);
    QTest::newRow("endless line") << QByteArray(1, '\0') + QByteArray(100000, 'a');
    QTest::newRow("endless handshake") << QByteArray(1, '\0') + QByteArray("AUTH\r\n").repeated(20000);
    QTest::newRow("nobody in particular") << QByteArray("\0AUTH ANONYMOUS\r\nBEGIN\r\n", 24);
    QTest::newRow("noise for a message") << RawConnection::handshake + QByteArray(1000, '\xff');
    QTest::newRow("impossible size") << RawConnection::handshake + call.left(4) + QByteArray(100, '\x7f');
}

void TstClientPeers::nonsense()
{
    QFETCH(QByteArray, words);
    ClientFixture client;
    QVERIFY(client.start());
    QCOMPARE(client.checkPassword(right), success);
    const int descriptors = client.openDescriptors();
    {
        const RawConnection connection;
        QVERIFY(connection.isConnected());
        connection.send(words);
        QVERIFY(connection.hasEnded());
    }
    QTRY_COMPARE(client.openDescriptors(), descriptors);
    QCOMPARE(client.checkPassword(right), success);
    QCOMPARE(ClientFixture::attempts(), 0);
}

void TstClientPeers::longHandshake_data()
{
    QTest::addColumn<int>("size");
    QTest::addColumn<bool>("served");
    QTest::newRow("longest") << 4096 << true;
    QTest::newRow("longer") << 4097 << false;
}

void TstClientPeers::longHandshake()
{
    QFETCH(int, size);
    QFETCH(bool, served);
    ClientFixture client;
    QVERIFY(client.start());
    // The library answers an unknown command, and goes on.
    QByteArray words = RawConnection::handshake;
    words.insert(1, QByteArray(size - words.size() - 2, 'a') + "\r\n");
    QCOMPARE(words.size(), size);
    const RawConnection connection;
    QVERIFY(connection.send(words + RawConnection::call("checkPassword", {"bob", "any"})));
    QCOMPARE(connection.receives("failed"), served);
    QCOMPARE(client.checkPassword(right), success);
}

void TstClientPeers::oneReplyForEachCall_data()
{
    QTest::addColumn<QString>("authType");
    QTest::addColumn<QByteArray>("method");
    QTest::addColumn<QByteArrayList>("arguments");
    const auto row = [](const char *name, const char *authType, const char *method, const QByteArrayList &arguments) {
        QTest::newRow(name) << QString::fromLatin1(authType) << QByteArray(method) << arguments;
    };
    row("right password", "any", "checkPassword", {"alice", right.toUtf8()});
    row("wrong password", "any", "checkPassword", {"alice", "wrong"});
    row("another's password", "any", "checkPassword", {"bob", "any"});
    row("no passwords", "cert", "checkPassword", {"alice", right.toUtf8()});
    row("PIN", "any", "validateCert", {"", "alice", "1234"});
    row("another's PIN", "any", "validateCert", {"", "bob", "1234"});
    row("no PINs", "password", "validateCert", {"", "alice", "1234"});
    row("list", "any", "getCertList", {});
    row("no list", "password", "getCertList", {});
}

void TstClientPeers::oneReplyForEachCall()
{
    QFETCH(QString, authType);
    QFETCH(QByteArray, method);
    QFETCH(QByteArrayList, arguments);
    QVERIFY(ClientFixture::setSetting(QStringLiteral("auth-type"), authType));
    ClientFixture client;
    QVERIFY(client.start());
    const RawConnection connection;
    QVERIFY(connection.send(RawConnection::handshake + RawConnection::call(method, arguments)
                            + RawConnection::call("nonsense", {})));
    QByteArray replies;
    while (!replies.contains("Unknown method nonsense")) {
        const QByteArray more = connection.receive();
        QVERIFY2(!more.isEmpty(), replies.constData());
        replies += more;
    }
    // A second reply to the first call would be such an error, too.
    QCOMPARE(replies.count("Unknown method"), 1);
}

void TstClientPeers::descriptors_data()
{
    QTest::addColumn<QByteArray>("words");
    QTest::newRow("in the handshake") << QByteArray("\0AUTH EXTERNAL 30\r\nNEGOTIATE_UNIX_FD\r\n", 38);
    QTest::newRow("with a call") << RawConnection::handshake + RawConnection::call("checkPassword", {"bob", "any"});
}

void TstClientPeers::descriptors()
{
    QFETCH(QByteArray, words);
    ClientFixture client;
    QVERIFY(client.start());
    QCOMPARE(client.checkPassword(right), success);
    const int descriptors = client.openDescriptors();
    {
        const RawConnection connection;
        QVERIFY(connection.isConnected());
        QVERIFY(connection.send(words));
        QVERIFY(connection.receives(words.contains("checkPassword") ? "failed" : "ERROR"));
        const int served = client.openDescriptors();
        QVERIFY(connection.sendDescriptors(RawConnection::call("checkPassword", {"bob", "any"})));
        for (int i = 1; i < 20; ++i) // The client may have closed the connection by now.
            connection.sendDescriptors(RawConnection::call("checkPassword", {"bob", "any"}));
        // The client handles calls in order, so it has handled the earlier ones now.
        for (int i = 0; i < 3; ++i)
            QCOMPARE(client.checkPassword(right), success);
        QVERIFY2(client.openDescriptors() <= served, qPrintable(QString::number(client.openDescriptors())));
    }
    QTRY_COMPARE(client.openDescriptors(), descriptors);
    QCOMPARE(client.checkPassword(right), success);
}

void TstClientPeers::hugeArray()
{
    ClientFixture client;
    QVERIFY(client.start());
    QStringList texts;
    for (int i = 0; i < 500000; ++i)
        texts << QStringLiteral("text");
    for (const char *method : {"checkPassword", "validateCert", "getCertList", "openDoor"}) {
        const QDBusMessage reply = client.call(ClientFixture::request(QLatin1String(method), {texts}));
        QCOMPARE(reply.type(), QDBusMessage::ErrorMessage);
    }
    QCOMPARE(client.checkPassword(right), success);
    QCOMPARE(ClientFixture::attempts(), 0);
}

void TstClientPeers::connections()
{
    ClientFixture client;
    QVERIFY(client.start());
    QCOMPARE(client.checkPassword(right), success);
    const int descriptors = client.openDescriptors();
    const auto crowd = [](int count) {
        for (int i = 0; i < count; ++i) {
            const RawConnection connection;
            if (!connection.isConnected())
                return false;
            // Wait for the client at every other connection, so that it always keeps up.
            if (i % 2 && !(connection.send("No D-Bus at all\r\n") && connection.hasEnded()))
                return false;
        }
        return true;
    };
    QVERIFY(crowd(500));
    QTRY_COMPARE(client.openDescriptors(), descriptors);
    QCOMPARE(client.checkPassword(right), success);
    const qint64 memory = client.privateMemory();
    QVERIFY(crowd(2000));
    QTRY_COMPARE(client.openDescriptors(), descriptors);
    QCOMPARE(client.checkPassword(right), success);
    // The client frees a peer's memory when the peer leaves.
    QVERIFY2(client.privateMemory() - memory < maxGrowth, qPrintable(QString::number(client.privateMemory() - memory)));
}

void TstClientPeers::connectionsWhileBusy()
{
    ClientFixture client;
    QVERIFY(client.start());
    // From now on, this peer is not one that makes room for others.
    QCOMPARE(client.checkPassword(right), success);
    // The plugin does not wait until there is room for its connection.
    kill(pid_t(client.process.processId()), SIGSTOP);
    Crowd crowd;
    for (int i = 0; i < ClientFixture::maximumPeers; ++i) {
        crowd.push_back(std::make_unique<RawConnection>(SOCK_NONBLOCK));
        QVERIFY2(crowd.back()->isConnected(), qPrintable(QString::number(i)));
    }
    kill(pid_t(client.process.processId()), SIGCONT);
    QCOMPARE(client.checkPassword(right), success);
}

void TstClientPeers::silentPeerIsGivenUp()
{
    {
        ClientFixture client;
        QVERIFY(client.start());
        const RawConnection connection;
        constexpr int limit = 90000 * 105 / 100; // milliseconds; timers may fire 5 percent late
        const auto sleep = [&client] {
            return pollTimeout(client.process.processId());
        };
        // Until then, the client does not wake up for it again and again.
        QVERIFY(waitUntil([&] { return sleep() > limit / 2 && sleep() <= limit; }));
    }
    // The preloaded clock skips that time.
    ClientFixture client;
    startOnly(client, ClientFixture::hastyClock(80));
    const auto isGivenUp = [] {
        const RawConnection connection;
        return connection.isConnected() && connection.hasEnded();
    };
    QTRY_VERIFY(isGivenUp());
    QCOMPARE(client.process.state(), QProcess::Running);
}

void TstClientPeers::silentCrowd()
{
    ClientFixture client;
    QVERIFY(client.start());
    QCOMPARE(client.checkPassword(right), success);
    const int descriptors = client.openDescriptors();
    {
        Crowd crowd;
        for (int i = 0; i < crowdSize; ++i) {
            crowd.push_back(std::make_unique<RawConnection>());
            QVERIFY(crowd.back()->isConnected());
        }
        // The earlier peer is still served, and so is a new peer that sends a call.
        QCOMPARE(client.checkPassword(right), success);
        QTRY_VERIFY(client.openDescriptors() < crowdSize);
        // Those that have been silent for longest make room, not a peer whose handshake has just begun.
        const int begin = RawConnection::handshake.indexOf("BEGIN");
        const RawConnection slow;
        QVERIFY(slow.send(RawConnection::handshake.left(begin)) && slow.receives("OK "));
        const RawConnection later;
        QVERIFY(later.isConnected());
        for (int i = 0; i < 2; ++i) // The client has accepted the later peer after the second call at the latest.
            QCOMPARE(client.checkPassword(right), success);
        QVERIFY(slow.send(RawConnection::handshake.mid(begin) + RawConnection::call("checkPassword", {"bob", "any"})));
        QVERIFY(slow.receives("failed"));
        ClientFixture another;
        QVERIFY(another.reconnect());
        QCOMPARE(another.checkPassword(right), success);
        QCOMPARE(client.checkPassword(right), success);
    }
    QTRY_COMPARE(client.openDescriptors(), descriptors);
}

void TstClientPeers::speakingCrowd()
{
    ClientFixture client;
    QVERIFY(client.start());
    QCOMPARE(client.checkPassword(right), success);
    const int descriptors = client.openDescriptors();
    int refused = 0;
    {
        Crowd crowd;
        for (int i = 0; i < crowdSize; ++i) {
            auto connection = std::make_unique<RawConnection>();
            QVERIFY(connection->isConnected());
            connection->send(RawConnection::handshake + RawConnection::call("checkPassword", {"bob", "any"}));
            if (connection->receives("failed"))
                crowd.push_back(std::move(connection));
            else
                ++refused;
        }
        QCOMPARE(refused, crowdSize - (ClientFixture::maximumPeers - 1)); // The client also serves its first peer.
        QCOMPARE(client.checkPassword(right), success);
    }
    QTRY_COMPARE(client.openDescriptors(), descriptors);
    QVERIFY(client.reconnect());
    QCOMPARE(client.checkPassword(right), success);
}

void TstClientPeers::peersThatVanish()
{
    ClientFixture client;
    QVERIFY(client.start());
    QCOMPARE(client.checkPassword(right), success);
    const int descriptors = client.openDescriptors();
    for (int i = 0; i < 20; ++i) {
        client.sendAndVanish(right);
        client.reconnect();
    }
    QCOMPARE(client.checkPassword(right), success);
    QTRY_COMPARE(client.openDescriptors(), descriptors);
}

void TstClientPeers::peerThatDoesNotRead()
{
    ClientFixture client;
    QVERIFY(client.start());
    QCOMPARE(client.checkPassword(right), success);
    const qint64 memory = client.privateMemory();

    const RawConnection flood;
    QVERIFY(flood.send(RawConnection::handshake));
    const QByteArray call = RawConnection::call("checkPassword", {"bob", "any"});
    constexpr int tooMany = 100000;
    int sent = 0;
    // When 20 attempts in a row cannot send anything, the client has stopped reading.
    for (int refusals = 0; refusals < 20 && sent < tooMany;) {
        if (flood.send(call, MSG_DONTWAIT)) {
            ++sent;
            refusals = 0;
        } else {
            ++refusals;
            QCOMPARE(client.checkPassword(right, QStringLiteral("bob")), failed);
        }
    }
    QVERIFY2(sent < tooMany, "What a peer does not read is piled up");
    QCOMPARE(client.checkPassword(right), success);
    QVERIFY2(client.privateMemory() - memory < maxGrowth, qPrintable(QString::number(client.privateMemory() - memory)));

    // When the peer reads, it gets every reply.
    QByteArray answers;
    while (answers.count("failed") < sent) {
        const QByteArray more = flood.receive();
        QVERIFY2(!more.isEmpty(), qPrintable(QStringLiteral("%1 of %2").arg(answers.count("failed")).arg(sent)));
        answers += more;
    }
}

void TstClientPeers::noSecrets_data()
{
    QTest::addColumn<QByteArray>("method");
    QTest::addColumn<int>("size");
    QTest::addColumn<bool>("atOnce");
    QTest::addColumn<QByteArray>("answer");

    const auto add = [](const char *name, const char *method, const char *answer) {
        for (const int size : {8, 60, 400, 40000}) {
            for (const bool atOnce : {false, true})
                QTest::newRow(qPrintable(
                    QStringLiteral("%1, %2 bytes, %3")
                        .arg(QLatin1String(name))
                        .arg(size)
                        .arg(atOnce ? QStringLiteral("with the handshake") : QStringLiteral("after the handshake"))))
                    << QByteArray(method) << size << atOnce << QByteArray(answer);
        }
    };
    add("password", "checkPassword", "failed");
    add("PIN", "validateCert", "failed");
    add("mistaken call", "checkPasword", "UnknownMethod");
    add("missing argument", "validateCert/1", "InvalidArgs");
}

// A call that arrives together with the handshake must not leave parts of itself in the handshake's buffer.
void TstClientPeers::noSecrets()
{
    QFETCH(QByteArray, method);
    QFETCH(int, size);
    QFETCH(bool, atOnce);
    QFETCH(QByteArray, answer);

    QByteArray secret;
    while (secret.size() < size)
        secret += QCryptographicHash::hash(method + QByteArray::number(secret.size()), QCryptographicHash::Md5)
                      .toBase64(QByteArray::OmitTrailingEquals);
    secret.truncate(size);
    QByteArrayList arguments = {"alice", secret};
    if (method == "validateCert") // For a user who is not served, so that the client starts no process.
        arguments = {"pkcs11:", "bob", secret};
    else if (method == "validateCert/1")
        arguments = {secret};
    const QByteArray call = RawConnection::call(method.split('/').constFirst(), arguments);

    ClientFixture client;
    QVERIFY(client.start());
    const RawConnection connection;
    if (atOnce) {
        // Two adjacent calls.
        QVERIFY(connection.send(RawConnection::handshake + call + call));
    } else {
        QVERIFY(connection.send(RawConnection::handshake));
        QVERIFY(connection.receives("OK "));
        QVERIFY(connection.send(call));
    }
    QVERIFY(connection.receives(answer, atOnce ? 2 : 1));
    // What a register holds, the dynamic linker may save.
    const auto registersHold = [&client](const QByteArray &part) {
        const QByteArray registers = vectorRegisters(pid_t(client.process.processId()));
        return registers.isEmpty() || registers.contains(part);
    };
    QTRY_VERIFY(!registersHold(secret.left(16).right(6)));
    // Once the client has replied to another peer, it has finished its work after the earlier call.
    QCOMPARE(client.checkPassword(right), success);
    const qint64 pid = client.process.processId();
    for (const QByteArray &part : {secret.left(16).right(6), secret.right(6), secret.left(16)})
        QVERIFY2(!ClientFixture::memoryHolds(pid, part), part.constData());
}

QTEST_GUILESS_MAIN(TstClientPeers)
#include "tst_clientpeers.moc"
