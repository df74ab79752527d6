// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#include "device/clientfixture.h"
#include "device/sandboxed.h"
#include "device/softtokens.h"
#include "support/wiper.h"
#include "unit/methodfixture.h"

#include <QJsonDocument>

#include <algorithm>

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

/// Checks that the reference client can use a token in the real sandbox with no more permissions than it requests. Uses
/// the device's launcher and permission profiles. The token is outside the sandbox; the client reaches it through a
/// socket.
class TstClientSandbox : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void init();

    void permissionOpensTokensSockets_data();
    void permissionOpensTokensSockets();
    void tokenNeedsPermission_data();
    void tokenNeedsPermission();
    void answers();
    void registeredModule_data();
    void registeredModule();
    void cleanupTestCase();

private:
    QProcess m_sessionBus;
    QString m_cert;
};

namespace {

const QString &client = Installed::client;
const QString configuration = QStringLiteral("/home/alice/.config/tarsk/kavet_client");
const QString tokenPermission = QStringLiteral("Token");
const QString report = TestDevice::sharedDirectory + QStringLiteral("/report.json");
const QString cardService = QStringLiteral("/run/pcscd/pcscd.comm");
const QString tokenServer = QStringLiteral("/run/user/1000/p11-kit/pkcs11");

/// Longer than the client waits for a token, in milliseconds.
constexpr int patience = 30000;

bool setPermissions(const QStringList &permissions)
{
    return TestDevice::writeManifest(QStringLiteral("tarsk"), QStringLiteral("kavet_client"), client, permissions);
}

/// A world-connectable socket, like that of a smart-card service, for the lifetime of the object.
class OpenSocket
{
public:
    explicit OpenSocket(const QString &path)
    {
        sockaddr_un address = {};
        address.sun_family = AF_UNIX;
        qstrncpy(address.sun_path, QFile::encodeName(path).constData(), sizeof(address.sun_path));
        m_listens = QDir().mkpath(QFileInfo(path).path())
                    && bind(m_descriptor, reinterpret_cast<sockaddr *>(&address), sizeof(address)) == 0
                    && chmod(address.sun_path, 0666) == 0 && listen(m_descriptor, SOMAXCONN) == 0;
        m_path = path;
    }
    ~OpenSocket()
    {
        close(m_descriptor);
        QFile::remove(m_path);
    }

    bool listens() const { return m_listens; }

private:
    const int m_descriptor = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    QString m_path;
    bool m_listens;

    Q_DISABLE_COPY(OpenSocket)
};

/// The method with its client in the sandbox. The client ends with the fixture.
struct SandboxFixture : MethodFixture
{
    ~SandboxFixture()
    {
        d->currentUid = 0; // Otherwise the method would restart the client.
        d->child.terminate();
        d->child.waitForFinished();
    }

    /// Starts the client and waits for the link.
    bool link()
    {
        method.authenticate(TestDevice::alice, {});
        return QTest::qWaitFor([this] { return !daemon.outcomes().isEmpty(); }, patience)
               && d->clientStage == MethodKavetPrivate::Linked;
    }

    /// The certificates as the daemon sees them.
    QStringList certs()
    {
        const auto changes = [this] {
            QVector<RecordingDaemon::Call> calls = daemon.callsOf(QStringLiteral("optionChanged"));
            const auto isOther = [](const RecordingDaemon::Call &call) {
                return call.arguments.at(1) != QLatin1String("certs");
            };
            calls.erase(std::remove_if(calls.begin(), calls.end(), isOther), calls.end());
            return calls;
        };
        const int before = changes().size();
        method.getOption(0, QStringLiteral("certs"));
        return QTest::qWaitFor([&] { return changes().size() > before; }, patience)
                   ? changes().constLast().arguments.at(2).toStringList()
                   : QStringList{QStringLiteral("no answer")};
    }

    RecordingDaemon::Call login(const QString &cert, const QString &pin)
    {
        daemon.calls.clear();
        method.authenticate(TestDevice::alice, {{QStringLiteral("cert"), cert}, {QStringLiteral("pin"), pin}});
        return QTest::qWaitFor([this] { return !daemon.outcomes().isEmpty(); }, patience)
                   ? daemon.outcomes().constFirst()
                   : RecordingDaemon::Call{QStringLiteral("nothing"), {}};
    }
};

RecordingDaemon::Call failedWith(SettingsKavet::ResultCode code)
{
    return RecordingDaemon::failed(SettingsKavet::EnterPasswordOrPin, code);
}

} // namespace

void TstClientSandbox::initTestCase()
{
    QVERIFY2(TestDevice::isDevice(), "Run this test in the disposable device: device/enter");
    // The module looks for the server here by default. The environment of the test may name another place.
    qunsetenv("XDG_RUNTIME_DIR");
    qunsetenv("P11_KIT_SERVER_ADDRESS");

    QVERIFY(startSystemBus());
    QVERIFY(Sandboxed::startSessionBus(m_sessionBus));

    const QString one = QStringLiteral("one");
    QVERIFY(SoftTokens::reset());
    QVERIFY(SoftTokens::add(one));
    const QString cert = SoftTokens::issue(QStringLiteral("good"), SoftTokens::loginTemplate());
    QVERIFY(SoftTokens::enroll(one, QStringLiteral("01"), cert));
    // The served module forwards every call to the soft tokens' module.
    QVERIFY(SoftTokens::serve(Installed::unrulyToken));
}

void TstClientSandbox::init()
{
    QFile::remove(report);
    ClientFixture::prepare();
    // The client sees nothing else of the home directory.
    const QString anchors = configuration + QStringLiteral("/anchors.pem");
    QVERIFY(ClientFixture::setSetting(QStringLiteral("trust-anchors"), anchors));
    QVERIFY(ClientFixture::setSetting(QStringLiteral("module"), QStringLiteral("p11-kit-client.so")));
    QVERIFY(QFile::copy(SoftTokens::authority, anchors));
    QVERIFY(TestDevice::setOwner(anchors, TestDevice::alice, TestDevice::alice));

    if (m_cert.isEmpty()) {
        const ClientFixture::Result result = ClientFixture::run({QStringLiteral("--certs")}, {});
        m_cert = QString::fromUtf8(result.output).trimmed();
        QVERIFY2(m_cert.startsWith(QStringLiteral("pkcs11:")), result.error.constData());
    }
}

void TstClientSandbox::permissionOpensTokensSockets_data()
{
    QTest::addColumn<QStringList>("permissions");
    QTest::addColumn<bool>("open");
    QTest::newRow("without permission") << QStringList() << false;
    QTest::newRow("with it") << QStringList{tokenPermission} << true;
}

// A probe program replaces the client.
void TstClientSandbox::permissionOpensTokensSockets()
{
    QFETCH(QStringList, permissions);
    QFETCH(bool, open);
    const OpenSocket socket(cardService);
    QVERIFY(socket.listens());
    const QString modules = QStringLiteral("/usr/share/p11-kit/modules");
    const QStringList others = {QStringLiteral("/usr/share/doc"), QStringLiteral("/home/alice/tokens"),
                                QStringLiteral("/home/alice/ca")};
    const QJsonObject probe{
        {QStringLiteral("connect"), QJsonArray{cardService, tokenServer}},
        {QStringLiteral("list"), QJsonArray::fromStringList(others + QStringList{modules})},
    };
    QVERIFY(TestDevice::writeFile(TestDevice::sharedDirectory + QStringLiteral("/probe.json"),
                                  QJsonDocument(probe).toJson()));
    const ClientAside aside;
    QVERIFY(QFile::copy(Installed::confinementProbe, client));
    QVERIFY(setPermissions(permissions));
    SandboxFixture fixture;
    fixture.method.authenticate(TestDevice::alice, {});
    QTRY_VERIFY_WITH_TIMEOUT(QFileInfo::exists(report), patience);
    const QJsonObject result = QJsonDocument::fromJson(TestDevice::readFile(report)).object();
    QCOMPARE(result.value(QLatin1String("connect")).toObject(),
             (QJsonObject{{cardService, open}, {tokenServer, open}}));
    QJsonObject listed{{modules, open}};
    for (const QString &other : others)
        listed.insert(other, false);
    QCOMPARE(result.value(QLatin1String("list")).toObject(), listed);
}

void TstClientSandbox::tokenNeedsPermission_data()
{
    QTest::addColumn<QStringList>("permissions");
    QTest::addColumn<bool>("reached");
    QTest::newRow("without permission") << QStringList() << false;
    QTest::newRow("with another") << QStringList{QStringLiteral("Camera")} << false;
    QTest::newRow("with it") << QStringList{tokenPermission} << true;
}

void TstClientSandbox::tokenNeedsPermission()
{
    QFETCH(QStringList, permissions);
    QFETCH(bool, reached);
    QVERIFY(setPermissions(permissions));
    SandboxFixture fixture;
    QVERIFY(fixture.link());
    QCOMPARE(fixture.certs(), reached ? QStringList{m_cert} : QStringList());
    QCOMPARE(fixture.login(m_cert, SoftTokens::pin),
             reached ? RecordingDaemon::succeeded() : failedWith(SettingsKavet::NoUsbDevice));
}

void TstClientSandbox::answers()
{
    QVERIFY(setPermissions({tokenPermission}));
    QVERIFY(ClientFixture::setSetting(QStringLiteral("lock-after"), 0));
    SandboxFixture fixture;
    QVERIFY(fixture.link());
    const QString wrong = QStringLiteral("31415927");
    QCOMPARE(fixture.login(m_cert, wrong), failedWith(SettingsKavet::AuthFailed));
    QCOMPARE(ClientFixture::attempts(), 1);
    QCOMPARE(ClientFixture::ownAttempts(), QByteArray("1\n"));
    QVERIFY(SoftTokens::remove());
    QCOMPARE(fixture.login(m_cert, SoftTokens::pin), failedWith(SettingsKavet::NoUsbDevice));
    QCOMPARE(fixture.certs(), QStringList());
    QVERIFY(SoftTokens::putBack());
    QCOMPARE(fixture.certs(), QStringList{m_cert});
    QCOMPARE(fixture.login(m_cert, SoftTokens::pin), RecordingDaemon::succeeded());
    QCOMPARE(ClientFixture::attempts(), 0);
    for (const SettingsKavet::ResultCode code :
         {SettingsKavet::AuthFailed, SettingsKavet::AuthFailed, SettingsKavet::UserLocked})
        QCOMPARE(fixture.login(m_cert, wrong), failedWith(code));
    QCOMPARE(fixture.login(m_cert, SoftTokens::pin), failedWith(SettingsKavet::UserLocked));
    QVERIFY(QFile::remove(QStringLiteral("/home/alice/wrong-pins.one")));

    // The client also wipes secrets in the sandbox.
    QVERIFY(Sandboxed::clientPid() != 0);
    QVERIFY(ClientFixture::memoryHolds(Sandboxed::clientPid(), "HOME=/home/alice"));
    for (const QString &pin : {SoftTokens::pin, wrong})
        QVERIFY(!ClientFixture::memoryHoldsText(Sandboxed::clientPid(), pin));
}

void TstClientSandbox::registeredModule_data()
{
    tokenNeedsPermission_data();
}

void TstClientSandbox::registeredModule()
{
    QVERIFY(ClientFixture::setSetting(QStringLiteral("module"), QString()));
    QVERIFY(TestDevice::writeFile(QStringLiteral("/usr/share/p11-kit/modules/served.module"),
                                  "module: p11-kit-client.so\n"));
    tokenNeedsPermission();
}

void TstClientSandbox::cleanupTestCase()
{
    m_sessionBus.kill();
    m_sessionBus.waitForFinished();
}

QTEST_GUILESS_MAIN(TstClientSandbox)
#include "tst_clientsandbox.moc"
