// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#include "device/authd.h"
#include "device/clientfixture.h"
#include "support/fakeservice.h"
#include "support/testdevice.h"
#include "support/wiper.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QScopedPointer>
#include <QTest>

#include <atomic>
#include <csignal>

namespace {

const QString right = QStringLiteral("right");
const QString wrong = QStringLiteral("wrong");
const QString lock = QStringLiteral("lock");
const uint alice = TestDevice::alice;
const uint bob = TestDevice::bob;

} // namespace

/// Root unlocks a user whom the reference client has locked by its own count of failed attempts.
class TstUnlocking : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase() { QVERIFY(startSystemBus()); }
    void init()
    {
        TestDevice::reset();
        ClientFixture::prepare();
        QVERIFY(ClientFixture::setPassword(right));
        QVERIFY(ClientFixture::setSetting(QStringLiteral("lock-after"), QStringLiteral("2")));
        QVERIFY(m_authd.start());
        m_root.reset(new BusUser(0));
        m_client.reset(new ClientFixture);
        QVERIFY(m_client->start());
    }
    void cleanup()
    {
        m_client.reset();
        m_root.reset();
        if (m_authd.isRunning())
            QCOMPARE(m_authd.stop(SIGTERM), 0);
    }

    void rootUnlocks();
    void nothingElseUnlocks();
    void anyOtherNumberUnlocks();
    void numberOutlivesTheDaemon();
    void uselessReply();
    void silentBus();

private:
    void lockOut()
    {
        m_client->checkPassword(wrong);
        m_client->checkPassword(wrong);
        QCOMPARE(m_client->checkPassword(right), lock);
    }
    void unlock(uint uid) { QCOMPARE(m_root->error(QStringLiteral("Unlock"), {uid}), QString()); }
    uint unlocks(uint uid) const
    {
        return m_root->call(QStringLiteral("GetUnlocks"), {uid}).arguments().value(0).toUInt();
    }
    void restartDaemon()
    {
        m_root.reset();
        m_authd.stop(SIGKILL);
        QVERIFY(m_authd.start());
        m_root.reset(new BusUser(0));
    }

    Authd m_authd;
    QScopedPointer<BusUser> m_root;
    QScopedPointer<ClientFixture> m_client;
};

void TstUnlocking::rootUnlocks()
{
    lockOut();
    unlock(alice);
    QCOMPARE(m_client->checkPassword(right), QStringLiteral("success"));
    QCOMPARE(ClientFixture::ownAttempts(), QByteArray("0 1\n"));
    // Unlocking works repeatedly.
    lockOut();
    unlock(alice);
    QCOMPARE(m_client->checkPassword(wrong), QStringLiteral("failed"));
    QCOMPARE(ClientFixture::attempts(), 1);
    QCOMPARE(ClientFixture::ownAttempts(), QByteArray("1 2\n"));
    // Later failures, while the service is away, are as old as this number.
    QCOMPARE(m_client->checkPassword(right), QStringLiteral("success"));
    QCOMPARE(ClientFixture::ownAttempts(), QByteArray("0 2\n"));
}

void TstUnlocking::nothingElseUnlocks()
{
    lockOut();
    unlock(bob);
    restartDaemon();
    QVERIFY(ClientFixture::setAttempts("0")); // The plugin does this at each launch.
    m_client.reset(new ClientFixture);
    QVERIFY(m_client->start());
    QCOMPARE(m_client->checkPassword(right), lock);
    // The user stays locked while the service is not running.
    unlock(alice);
    m_root.reset();
    QCOMPARE(m_authd.stop(SIGTERM), 0);
    QCOMPARE(m_client->checkPassword(right), lock);
    // The unlocking takes effect once the service is back, and lasts when it is away again.
    QVERIFY(m_authd.start());
    QCOMPARE(m_client->validateCert(QStringLiteral("pkcs11:"), QStringLiteral("1234")), QStringLiteral("nousb"));
    QCOMPARE(m_authd.stop(SIGTERM), 0);
    QCOMPARE(m_client->checkPassword(right), QStringLiteral("success"));
    // A count without the number of unlocks is not known to be older than any of them.
    QVERIFY(QFile::remove(ClientFixture::ownCounterPath));
    lockOut();
    QVERIFY(m_authd.start());
    QCOMPARE(m_client->checkPassword(right), lock);
}

void TstUnlocking::anyOtherNumberUnlocks()
{
    unlock(alice);
    unlock(alice);
    lockOut();
    // Root unlocks all users.
    QCOMPARE(m_authd.stop(SIGTERM), 0);
    QVERIFY(QFile::remove(QStringLiteral("/var/lib/authd/locks.conf")));
    QVERIFY(m_authd.start());
    QCOMPARE(m_client->checkPassword(right), QStringLiteral("success"));
}

void TstUnlocking::numberOutlivesTheDaemon()
{
    QCOMPARE(unlocks(alice), 0U);
    unlock(alice);
    unlock(alice);
    QCOMPARE(unlocks(alice), 2U);
    QCOMPARE(unlocks(bob), 0U);
    restartDaemon();
    QCOMPARE(unlocks(alice), 2U);
    QCOMPARE(BusUser(alice).error(QStringLiteral("GetUnlocks"), {alice}), QString());
    QCOMPARE(BusUser(alice).error(QStringLiteral("GetUnlocks"), {bob}),
             QStringLiteral("org.freedesktop.DBus.Error.AccessDenied"));
}

void TstUnlocking::uselessReply()
{
    lockOut();
    m_root.reset();
    QCOMPARE(m_authd.stop(SIGTERM), 0);
    std::atomic<int> asked = 0;
    const FakeService service(QStringLiteral("qarv.AuthService"), QStringLiteral("/qarv/AuthService"),
                              [&asked](const QDBusMessage &call, const QDBusConnection &bus) {
                                  ++asked;
                                  bus.send(call.createReply(QStringLiteral("1"))); // a text, not a number
                              });
    QVERIFY(service.isRunning());
    QCOMPARE(m_client->checkPassword(right), lock);
    QVERIFY(asked > 0);
    // As long as nothing has failed, the client need not ask.
    QVERIFY(QFile::remove(ClientFixture::ownCounterPath) && ClientFixture::setAttempts("00"));
    asked = 0;
    QCOMPARE(m_client->checkPassword(right), QStringLiteral("success"));
    QCOMPARE(int(asked), 0);
}

void TstUnlocking::silentBus()
{
    constexpr int callTimeout = 25000; // After so many milliseconds, D-Bus libraries give a call up.
    lockOut();
    const pid_t bus = TestDevice::readFile(QStringLiteral("/run/dbus/pid")).trimmed().toInt();
    QVERIFY(bus > 0 && kill(bus, SIGSTOP) == 0);
    QElapsedTimer clock;
    clock.start();
    const QString answer = m_client->checkPassword(right);
    const qint64 elapsed = clock.elapsed();
    kill(bus, SIGCONT);
    QCOMPARE(answer, lock);
    QCoreApplication::processEvents();
    QCOMPARE(m_client->output(), QByteArray());
    QVERIFY2(elapsed < callTimeout, qPrintable(QString::number(elapsed)));
}

QTEST_GUILESS_MAIN(TstUnlocking)

#include "tst_unlocking.moc"
