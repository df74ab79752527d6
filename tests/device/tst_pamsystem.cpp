// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#include "device/authctl.h"
#include "device/authd.h"
#include "device/clientfixture.h"
#include "device/fakeloginmanager.h"
#include "device/pam.h"
#include "device/softtokens.h"
#include "support/testdevice.h"
#include "support/wiper.h"

#include <QDir>
#include <QFile>
#include <QJsonArray>
#include <QProcess>
#include <QRegularExpression>
#include <QTest>

#include <csignal>
#include <security/pam_appl.h>
#include <sys/stat.h>

/// The PAM module as programs use it: with the reference client and tokens, with pamtester, and in the configuration
/// that pam-auth-update(8) writes.
class TstPamSystem : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void init();
    void cleanup();

    void module();
    void password();
    void certificate();
    void pinBlocked();
    void clientLocksUser();
    void pamtester();
    void otherSessions_data();
    void otherSessions();
    void profile();

private:
    Authd m_authd;
};

namespace {

using Pam::authenticate;
const QString token = QStringLiteral("badge");
const QString wrongPin = QStringLiteral("27182818");
// The daemon does not know which of the two it is.
const QStringList blocked{QStringLiteral("error PIN blocked, or this user is locked"),
                          QStringLiteral("authenticate %1").arg(PAM_MAXTRIES)};
const QByteArray pin = SoftTokens::pin.toLatin1();

bool set(const char *key, const QVariant &value)
{
    return ClientFixture::setSetting(QString::fromLatin1(key), value);
}

bool enroll()
{
    if (!SoftTokens::reset())
        return false;
    const QString cert = SoftTokens::issue(QStringLiteral("good"), SoftTokens::loginTemplate());
    return set("trust-anchors", SoftTokens::authority) && set("module", SoftTokens::module) && SoftTokens::add(token)
           && SoftTokens::enroll(token, QStringLiteral("01"), cert);
}

QByteArray output(const QString &program, const QStringList &arguments, const QByteArray &input = {})
{
    QProcess process;
    process.setProcessChannelMode(QProcess::MergedChannels);
    process.start(program, arguments);
    process.write(input);
    process.closeWriteChannel();
    if (!process.waitForFinished(60000))
        return "does not end";
    return process.readAll();
}

/// The configuration that services share, which pam-auth-update writes.
QByteArray commonConfiguration()
{
    QByteArray content;
    for (const char *name : {"auth", "account", "session", "session-noninteractive", "password"})
        content += TestDevice::readFile(QStringLiteral("/etc/pam.d/common-") + QLatin1String(name));
    return content;
}

bool replaceFile(const QString &path, const QByteArray &content)
{
    return QFile::remove(path) && TestDevice::writeFile(path, content);
}

/// Replaces the files that pam-auth-update writes by copies. In an ordinary user's device, the system's own belong to
/// nobody, and some cannot be read.
bool takeOverConfiguration()
{
    for (const char *directory : {"/etc/pam.d", "/var/lib/pam", "/var/cache/debconf"}) {
        const QFileInfoList files = QDir(QString::fromLatin1(directory)).entryInfoList(QDir::Files);
        for (const QFileInfo &file : files) {
            if (!replaceFile(file.filePath(), TestDevice::readFile(file.filePath())))
                return false;
        }
    }
    return true;
}

bool updateConfiguration(const char *option)
{
    QProcess process;
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert(QStringLiteral("DEBIAN_FRONTEND"), QStringLiteral("noninteractive"));
    process.setProcessEnvironment(environment);
    process.setProcessChannelMode(QProcess::ForwardedChannels);
    process.start(QStringLiteral("pam-auth-update"), {QString::fromLatin1(option), QStringLiteral("qarv")});
    return process.waitForFinished(60000) && process.exitCode() == 0;
}

} // namespace

void TstPamSystem::initTestCase()
{
    QVERIFY(FakeLoginManager::installPolicy());
    QVERIFY(startSystemBus());
}

void TstPamSystem::init()
{
    TestDevice::reset();
    setClientScript();
    ClientFixture::prepare();
}

void TstPamSystem::cleanup()
{
    if (m_authd.isRunning())
        QCOMPARE(m_authd.stop(SIGTERM), 0);
}

void TstPamSystem::module()
{
    const QString path = Pam::module;
    QVERIFY2(path.contains(QRegularExpression(QStringLiteral("^/usr/lib/[^/]+/security/"))), qPrintable(path));
    const QStringList lines =
        QString::fromLatin1(
            output(QStringLiteral("nm"), {QStringLiteral("-D"), QStringLiteral("--defined-only"), path}))
            .split(QLatin1Char('\n'), Qt::SkipEmptyParts);
    QStringList symbols;
    for (const QString &line : lines)
        symbols << line.section(QLatin1Char(' '), -1);
    QCOMPARE(symbols, (QStringList{QStringLiteral("pam_sm_acct_mgmt"), QStringLiteral("pam_sm_authenticate"),
                                   QStringLiteral("pam_sm_close_session"), QStringLiteral("pam_sm_open_session"),
                                   QStringLiteral("pam_sm_setcred")}));

    const QByteArray dynamic =
        output(QStringLiteral("readelf"), {QStringLiteral("--dynamic"), QStringLiteral("--wide"), path});
    QStringList libraries;
    auto needed =
        QRegularExpression(QStringLiteral("Shared library: \\[(lib[^.]*)")).globalMatch(QString::fromLatin1(dynamic));
    while (needed.hasNext())
        libraries << needed.next().captured(1);
    libraries.sort();
    QCOMPARE(libraries, (QStringList{QStringLiteral("libc"), QStringLiteral("libpam"), QStringLiteral("libsystemd")}));
    QVERIFY(dynamic.contains("BIND_NOW") && !dynamic.contains("PATH"));
}

void TstPamSystem::password()
{
    QVERIFY(ClientFixture::takeLaunchersPlace());
    QVERIFY(ClientFixture::setPassword(QStringLiteral("correct horse")));
    QVERIFY(m_authd.start());
    QVERIFY(Pam::makeService({QStringLiteral("auth required"), QStringLiteral("account required")}));
    QCOMPARE(Pam::run(QStringLiteral("alice authenticate account"), "correct horse\n").events,
             (QStringList{QStringLiteral("secret Password: "), QStringLiteral("authenticate 0"),
                          QStringLiteral("account 0")}));
    QCOMPARE(Pam::run(authenticate, "battery staple\n").told(),
             (QStringList{QStringLiteral("error Wrong password"), QStringLiteral("authenticate 7")}));
}

void TstPamSystem::certificate()
{
    QVERIFY(enroll());
    QVERIFY(ClientFixture::takeLaunchersPlace(SoftTokens::environment()));
    QVERIFY(m_authd.start());
    QVERIFY(Pam::makeService({QStringLiteral("auth required cert=ask")}));
    const QString question = QStringLiteral("secret PIN of certificate (badge): ");
    QCOMPARE(Pam::run(authenticate, pin + '\n').events, (QStringList{question, QStringLiteral("authenticate 0")}));
    QCOMPARE(
        Pam::run(authenticate, wrongPin.toLatin1() + '\n').events,
        (QStringList{question, QStringLiteral("error Wrong PIN or certificate"), QStringLiteral("authenticate 7")}));

    // The token is removed before, and while the person types.
    QProcess login;
    Pam::start(login, authenticate);
    QVERIFY(Pam::waitFor(login, "secret "));
    QVERIFY(SoftTokens::remove());
    login.write(pin + '\n');
    QCOMPARE(Pam::finish(login).told(),
             (QStringList{QStringLiteral("error No token"), QStringLiteral("authenticate 9")}));
    QCOMPARE(Pam::run(authenticate, pin + '\n').events,
             (QStringList{QStringLiteral("error No token with a certificate"), QStringLiteral("authenticate 9")}));
    QVERIFY(SoftTokens::putBack());
    QVERIFY(Pam::makeService({QStringLiteral("auth required cert=pkcs11:token=badge;type=cert")}));
    QCOMPARE(Pam::run(authenticate, pin + '\n').code, PAM_SUCCESS);
}

void TstPamSystem::pinBlocked()
{
    // Soft tokens do not block a PIN, so a module in front of theirs does.
    QVERIFY(enroll());
    QVERIFY(set("lock-after", 0));
    QVERIFY(set("module", Installed::unrulyToken));
    QVERIFY(TestDevice::writeFile(QStringLiteral("/home/alice/unruly-token"), "none"));
    QVERIFY(ClientFixture::takeLaunchersPlace(SoftTokens::environment()));
    QVERIFY(m_authd.start());
    QVERIFY(Pam::makeService({QStringLiteral("auth required cert=pkcs11:token=badge;type=cert")}));
    for (int tries = 0; tries < 2; ++tries)
        QCOMPARE(Pam::run(authenticate, wrongPin.toLatin1() + '\n').code, PAM_AUTH_ERR);
    QCOMPARE(Pam::run(authenticate, wrongPin.toLatin1() + '\n').told(), blocked);
    QCOMPARE(Pam::run(authenticate, pin + '\n').told(), blocked);
}

void TstPamSystem::clientLocksUser()
{
    QVERIFY(enroll());
    QVERIFY(set("lock-after", 1));
    QVERIFY(ClientFixture::takeLaunchersPlace(SoftTokens::environment()));
    QVERIFY(m_authd.start());
    QVERIFY(Pam::makeService({QStringLiteral("auth required cert=pkcs11:token=badge;type=cert")}));
    QCOMPARE(Pam::run(authenticate, wrongPin.toLatin1() + '\n').told(), blocked);
    QCOMPARE(Pam::run(authenticate, pin + '\n').told(), blocked);
    QCOMPARE(Authctl::run(QStringLiteral("unlock alice")).exitCode, int(Authctl::Success));
    QCOMPARE(Pam::run(authenticate, pin + '\n').code, PAM_SUCCESS);
}

void TstPamSystem::pamtester()
{
    QVERIFY(m_authd.start());
    QVERIFY(Pam::makeService(
        {QStringLiteral("auth required"), QStringLiteral("account required"), QStringLiteral("session required")}));
    const auto test = [](const QByteArray &answer) {
        return QString::fromUtf8(
            output(QStringLiteral("pamtester"),
                   {QStringLiteral("qarv-test"), QStringLiteral("alice"), QStringLiteral("authenticate(0)"),
                    QStringLiteral("acct_mgmt"), QStringLiteral("open_session"), QStringLiteral("close_session")},
                   answer + '\n'));
    };
    QCOMPARE(
        test("success"),
        QStringLiteral("Password: pamtester: successfully authenticated\n"
                       "pamtester: account management done.\n"
                       "pamtester: successfully opened a session\npamtester: session has successfully been closed.\n"));
    QCOMPARE(test("failed"), QStringLiteral("Password: Wrong password\npamtester: Authentication failure\n"));
    QCOMPARE(m_authd.stop(SIGTERM), 0);
    QCOMPARE(test("success"),
             QStringLiteral("The authentication service is not available\n"
                            "pamtester: Authentication service cannot retrieve authentication info\n"));
}

void TstPamSystem::otherSessions_data()
{
    QTest::addColumn<QVector<LoginSession>>("sessions");
    QTest::addColumn<bool>("isReported");

    const LoginSession own{QStringLiteral("1"), TestDevice::alice};
    const LoginSession second{QStringLiteral("2"), TestDevice::alice};
    const LoginSession closing{QStringLiteral("3"), TestDevice::alice, QStringLiteral("closing")};
    const LoginSession ended{QStringLiteral("5"), TestDevice::alice, QString()};
    const LoginSession bobs{QStringLiteral("4"), TestDevice::bob};
    QTest::newRow("none") << QVector<LoginSession>() << true;
    QTest::newRow("own") << QVector<LoginSession>{own} << true;
    QTest::newRow("others") << QVector<LoginSession>{own, bobs} << true;
    QTest::newRow("closing") << QVector<LoginSession>{own, closing} << true;
    QTest::newRow("ended") << QVector<LoginSession>{ended, own} << true;
    QTest::newRow("second") << QVector<LoginSession>{bobs, own, closing, second} << false;
}

void TstPamSystem::otherSessions()
{
    QFETCH(QVector<LoginSession>, sessions);
    QFETCH(bool, isReported);
    QVERIFY(m_authd.start());
    const FakeLoginManager manager(sessions);
    QVERIFY(manager.isRunning());
    QVERIFY(Pam::makeService({QStringLiteral("session required")}));
    const QString record = QStringLiteral("/run/authd/sessions");
    const QByteArray none = TestDevice::readFile(record);
    QCOMPARE(Pam::run(QStringLiteral("--session=1 alice open")).code, PAM_SUCCESS);
    QCOMPARE(TestDevice::readFile(record), isReported ? QByteArray("1000 1\n") : none);

    const BusUser root(0);
    QCOMPARE(root.error(QStringLiteral("SessionStarted"), {TestDevice::alice, true}), QString());
    QCOMPARE(Pam::run(QStringLiteral("--session=1 alice close")).code, PAM_SUCCESS);
    QCOMPARE(TestDevice::readFile(record), isReported ? QByteArray() : QByteArray("1000 1\n"));
}

void TstPamSystem::profile()
{
    QVERIFY(takeOverConfiguration());
    QVERIFY(updateConfiguration("--disable"));
    const QByteArray before = commonConfiguration();
    QVERIFY(!before.contains("pam_qarv")); // Off by default
    QVERIFY(updateConfiguration("--enable"));
    QVERIFY(commonConfiguration().contains("pam_qarv"));

    // The system's password is "system".
    const QByteArray hash =
        output(QStringLiteral("openssl"), {QStringLiteral("passwd"), QStringLiteral("-6"), QStringLiteral("system")});
    QVERIFY(replaceFile(QStringLiteral("/etc/shadow"), "root:*:19000:0:99999:7:::\nalice:" + hash.trimmed()
                                                           + ":19000:0:99999:7:::\nbob:*:19000:0:99999:7:::\n"));
    QVERIFY(Pam::makeService({QStringLiteral("@include common-auth"), QStringLiteral("@include common-account"),
                              QStringLiteral("@include common-session")}));
    const QString login = QStringLiteral("alice authenticate account open close");
    const auto codes = [](const Pam::Result &result) {
        return result.events.filter(QRegularExpression(QStringLiteral("^(authenticate|account|open|close) ")));
    };
    const QStringList success{QStringLiteral("authenticate 0"), QStringLiteral("account 0"), QStringLiteral("open 0"),
                              QStringLiteral("close 0")};

    // Without the daemon, only the system's password counts.
    QCOMPARE(codes(Pam::run(login, "system\n")), success);
    QCOMPARE(codes(Pam::run(login, "success\n")).constFirst(), QStringLiteral("authenticate 7"));

    QVERIFY(m_authd.start());
    QCOMPARE(codes(Pam::run(login, "success\n")), success);
    QCOMPARE(TestDevice::calls().size(), 1);
    // The system's password is a way in also when the client refuses it, without being entered twice.
    QCOMPARE(codes(Pam::run(login, "system\n")), success);
    QCOMPARE(codes(Pam::run(login, "failed\n")).constFirst(), QStringLiteral("authenticate 7"));
    // Root is none of the daemon's users.
    QCOMPARE(codes(Pam::run(QStringLiteral("root account open close"))),
             (QStringList{QStringLiteral("account 0"), QStringLiteral("open 0"), QStringLiteral("close 0")}));

    // A locked user stays out.
    QCOMPARE(Authctl::run(QStringLiteral("options max-attempts 1")).exitCode, int(Authctl::Success));
    QCOMPARE(Authctl::run(QStringLiteral("login alice"), "failed\n").exitCode, int(Authctl::Locked));
    QCOMPARE(Pam::run(QStringLiteral("alice account")).code, PAM_PERM_DENIED);
    QCOMPARE(m_authd.stop(SIGTERM), 0);
    QCOMPARE(Pam::run(QStringLiteral("alice account")).code, PAM_SUCCESS);

    QVERIFY(updateConfiguration("--disable"));
    QCOMPARE(commonConfiguration(), before);
}

QTEST_GUILESS_MAIN(TstPamSystem)

#include "tst_pamsystem.moc"
