// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#include "device/installed.h"
#include "support/testdevice.h"
#include "support/wiper.h"

#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <QDBusMessage>
#include <QDir>
#include <QFile>
#include <QProcess>
#include <QTest>

#include <sys/mount.h>

/// The reference user-data wiper on the device's system bus.
class TstWiper : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void init();
    void cleanup();

    void commandLine_data();
    void commandLine();
    void emptiesTheHome();
    void followsNoLink();
    void leavesOtherFileSystemsAlone();
    void refuses_data();
    void refuses();
    void onlyRootMayCall();
    void answersOthersMeanwhile();
    void cannotServeTwice();

private:
    QDBusMessage call(const QString &user);

    QProcess m_wiper;
};

namespace {

const QString service = QStringLiteral("qarv.userdata.wiper");
const QString aliceHome = QStringLiteral("/home/alice");

QDBusMessage request(const QString &user)
{
    QDBusMessage message = QDBusMessage::createMethodCall(service, QStringLiteral("/qarv/userdata/wiper"), service,
                                                          QStringLiteral("ProcessTargetUser"));
    message << user;
    return message;
}

QStringList entries(const QString &directory)
{
    return QDir(directory).entryList(QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot);
}

} // namespace

void TstWiper::initTestCase()
{
    QVERIFY(startSystemBus());
}

void TstWiper::init()
{
    TestDevice::reset();
    m_wiper.start(Installed::wiper, {});
    QTRY_VERIFY(QDBusConnection::systemBus().interface()->isServiceRegistered(service));
}

void TstWiper::cleanup()
{
    m_wiper.terminate();
    QVERIFY(m_wiper.waitForFinished());
    QTRY_VERIFY(!QDBusConnection::systemBus().interface()->isServiceRegistered(service));
}

QDBusMessage TstWiper::call(const QString &user)
{
    return QDBusConnection::systemBus().call(request(user));
}

void TstWiper::commandLine_data()
{
    QTest::addColumn<QString>("argument");
    QTest::addColumn<int>("exitCode");
    QTest::addColumn<QByteArray>("output");
    QTest::addColumn<QByteArray>("error");

    QTest::newRow("help") << QStringLiteral("--help") << 0 << QByteArray("qarv.userdata.wiper") << QByteArray();
    QTest::newRow("version") << QStringLiteral("--version") << 0 << QByteArray("qarv-userdata-wiper 0") << QByteArray();
    QTest::newRow("unknown option") << QStringLiteral("--nonsense") << 2 << QByteArray() << QByteArray("nonsense");
    QTest::newRow("argument") << QStringLiteral("alice") << 2 << QByteArray() << QByteArray("No arguments expected");
}

void TstWiper::commandLine()
{
    QFETCH(QString, argument);
    QFETCH(QByteArray, output);
    QFETCH(QByteArray, error);

    QProcess program;
    program.start(Installed::wiper, {argument});
    QVERIFY(program.waitForFinished());
    QTEST(program.exitCode(), "exitCode");
    const QByteArray printed = program.readAllStandardOutput();
    const QByteArray reported = program.readAllStandardError();
    QVERIFY2(output.isEmpty() ? printed.isEmpty() : printed.contains(output), printed.constData());
    QVERIFY2(error.isEmpty() ? reported.isEmpty() : reported.contains(error), reported.constData());
}

void TstWiper::emptiesTheHome()
{
    QVERIFY(TestDevice::writeFile(aliceHome + QStringLiteral("/.config/deep/er/file"), "secret"));
    QVERIFY(TestDevice::writeFile(aliceHome + QStringLiteral("/-name\nwith spaces"), "secret"));
    QVERIFY(TestDevice::writeFile(QStringLiteral("/home/bob/keep"), "bob's"));

    const QDBusMessage reply = call(QStringLiteral("alice"));
    QCOMPARE(reply.type(), QDBusMessage::ReplyMessage);
    QVERIFY(reply.arguments().isEmpty());
    QVERIFY(QDir(aliceHome).exists());
    QCOMPARE(entries(aliceHome), QStringList());
    QCOMPARE(TestDevice::readFile(QStringLiteral("/home/bob/keep")), QByteArray("bob's"));
    // An empty home directory is not an error.
    QCOMPARE(call(QStringLiteral("alice")).type(), QDBusMessage::ReplyMessage);
}

void TstWiper::followsNoLink()
{
    QVERIFY(TestDevice::writeFile(QStringLiteral("/srv/outside/keep"), "outside"));
    QVERIFY(QFile::link(QStringLiteral("/srv/outside"), aliceHome + QStringLiteral("/link")));
    QCOMPARE(call(QStringLiteral("alice")).type(), QDBusMessage::ReplyMessage);
    QCOMPARE(entries(aliceHome), QStringList());
    QCOMPARE(TestDevice::readFile(QStringLiteral("/srv/outside/keep")), QByteArray("outside"));
}

void TstWiper::leavesOtherFileSystemsAlone()
{
    const QString point = aliceHome + QStringLiteral("/mounted");
    QVERIFY(QDir().mkpath(point));
    QCOMPARE(mount("none", qPrintable(point), "tmpfs", 0, nullptr), 0);
    QVERIFY(TestDevice::writeFile(point + QStringLiteral("/keep"), "mounted"));

    const QDBusMessage reply = call(QStringLiteral("alice"));
    const QByteArray left = TestDevice::readFile(point + QStringLiteral("/keep"));
    QCOMPARE(umount(qPrintable(point)), 0);
    QCOMPARE(left, QByteArray("mounted"));
    QCOMPARE(reply.type(), QDBusMessage::ErrorMessage);
    QCOMPARE(reply.errorName(), QStringLiteral("qarv.userdata.wiper.Error.NotRemoved"));
    QVERIFY(reply.errorMessage().contains(point));
}

void TstWiper::refuses_data()
{
    QTest::addColumn<QString>("user");
    QTest::addColumn<QString>("home");
    QTest::addColumn<QString>("error");

    QTest::newRow("nobody") << "" << aliceHome << "NoSuchUser";
    QTest::newRow("unknown") << "mallory" << aliceHome << "NoSuchUser";
    QTest::newRow("root") << "root" << aliceHome << "SystemUser";
    QTest::newRow("no home") << "alice"
                             << "/home/missing"
                             << "NoHome";
    QTest::newRow("the system") << "alice"
                                << "/"
                                << "NoHome";
    QTest::newRow("another's") << "alice"
                               << "/home/bob"
                               << "NoHome";
    QTest::newRow("relative") << "alice"
                              << "home/alice"
                              << "NoHome";
    QTest::newRow("a link") << "alice"
                            << "/home/link"
                            << "NoHome";
}

void TstWiper::refuses()
{
    QFETCH(QString, user);
    QFETCH(QString, home);
    QFETCH(QString, error);

    const QByteArray users = TestDevice::readFile(QStringLiteral("/etc/passwd"));
    QVERIFY(users.contains(":/home/alice:"));
    QVERIFY(TestDevice::writeFile(QStringLiteral("/etc/passwd"),
                                  QByteArray(users).replace(":/home/alice:", ':' + home.toLatin1() + ':')));
    QFile::remove(QStringLiteral("/home/link"));
    QVERIFY(QFile::link(QStringLiteral("/srv"), QStringLiteral("/home/link")));
    QVERIFY(TestDevice::setOwner(QStringLiteral("/home/link"), TestDevice::alice, TestDevice::alice));
    QVERIFY(TestDevice::writeFile(aliceHome + QStringLiteral("/keep"), "alice's"));

    const QDBusMessage reply = call(user);
    QVERIFY(TestDevice::writeFile(QStringLiteral("/etc/passwd"), users));
    QCOMPARE(reply.type(), QDBusMessage::ErrorMessage);
    QCOMPARE(reply.errorName(), QStringLiteral("qarv.userdata.wiper.Error.") + error);
    QCOMPARE(TestDevice::readFile(aliceHome + QStringLiteral("/keep")), QByteArray("alice's"));
    QVERIFY(QDir(QStringLiteral("/srv/shared")).exists());
}

void TstWiper::onlyRootMayCall()
{
    QProcess sender;
    sender.start(QStringLiteral("setpriv"),
                 {QStringLiteral("--reuid=1001"), QStringLiteral("--clear-groups"), QStringLiteral("dbus-send"),
                  QStringLiteral("--system"), QStringLiteral("--print-reply"), QStringLiteral("--dest=") + service,
                  QStringLiteral("/qarv/userdata/wiper"), service + QStringLiteral(".ProcessTargetUser"),
                  QStringLiteral("string:alice")});
    QVERIFY(sender.waitForFinished());
    QVERIFY(sender.exitCode() != 0);
    QVERIFY(sender.readAllStandardError().contains("AccessDenied"));
    QVERIFY(!entries(aliceHome).isEmpty());
}

void TstWiper::answersOthersMeanwhile()
{
    const QDBusConnection bus = QDBusConnection::systemBus();
    QDBusPendingCall alice = bus.asyncCall(request(QStringLiteral("alice")));
    QDBusPendingCall mallory = bus.asyncCall(request(QStringLiteral("mallory")));
    QDBusPendingCall bob = bus.asyncCall(request(QStringLiteral("bob")));
    alice.waitForFinished();
    mallory.waitForFinished();
    bob.waitForFinished();
    QVERIFY(!alice.isError());
    QVERIFY(mallory.isError());
    QVERIFY(!bob.isError());
    QCOMPARE(entries(aliceHome) + entries(QStringLiteral("/home/bob")), QStringList());
}

void TstWiper::cannotServeTwice()
{
    QProcess second;
    second.start(Installed::wiper, {});
    QVERIFY(second.waitForFinished());
    QCOMPARE(second.exitCode(), 1);
    QVERIFY(second.readAllStandardError().startsWith("qarv-userdata-wiper: cannot serve on the system bus: "));
}

QTEST_GUILESS_MAIN(TstWiper)

#include "tst_wiper.moc"
