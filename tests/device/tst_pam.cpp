// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#include "device/authctl.h"
#include "device/authd.h"
#include "device/pam.h"
#include "device/processmemory.h"
#include "support/testdevice.h"
#include "support/wiper.h"

#include <QFile>
#include <QJsonArray>
#include <QScopeGuard>
#include <QTest>

#include <csignal>
#include <security/pam_appl.h>

/// The PAM module with the daemon, the method and a scripted client.
class TstPam : public AuthdTest
{
    Q_OBJECT

private Q_SLOTS:
    void passwords_data();
    void passwords();
    void pins_data();
    void pins();
    void certificates_data();
    void certificates();
    void noCertificates();
    void attemptWithoutAnswer();
    void silent();
    void emptyInput();
    void invalidText();
    void firstPass();
    void passwordForNextModule();
    void unknownUsers();
    void otherUsers();
    void lockedUser();
    void locksAtTheLimit();
    void lockedWhileTyping();
    void unknownOptions();
    void wantsOtherInput();
    void credentials();
    void sessions();

    void timesOut();
    void slowTypist();
    void attemptEndsWhileTyping_data();
    void attemptEndsWhileTyping();
    void conversationFails();
    void clientDies();
    void daemonStopped();
    void daemonKilled_data();
    void daemonKilled();
    void secretsAreWiped_data();
    void secretsAreWiped();
};

namespace {

using Pam::authenticate;
const QString unavailable = QStringLiteral("error The authentication service is not available");

QStringList ended(const QString &text, int code)
{
    return {QStringLiteral("error ") + text, QStringLiteral("authenticate %1").arg(code)};
}

} // namespace

void TstPam::passwords_data()
{
    QTest::addColumn<QByteArray>("answer");
    QTest::addColumn<QString>("text");
    QTest::addColumn<int>("code");

    QTest::newRow("wrong") << QByteArray("failed") << "Wrong password" << PAM_AUTH_ERR;
    QTest::newRow("locked") << QByteArray("lock") << "This user is locked" << PAM_PERM_DENIED;
    QTest::newRow("no token") << QByteArray("nousb") << "No token" << PAM_AUTHINFO_UNAVAIL;
    QTest::newRow("token fails") << QByteArray("connerr") << "The token does not answer" << PAM_AUTHINFO_UNAVAIL;
    QTest::newRow("kind") << QByteArray("errauthtype") << "Passwords are not accepted" << PAM_AUTHINFO_UNAVAIL;
    QTest::newRow("error") << QByteArray("error") << "The authentication client does not answer"
                           << PAM_AUTHINFO_UNAVAIL;
    QTest::newRow("other word") << QByteArray("Success") << "Wrong password" << PAM_AUTH_ERR;
}

void TstPam::passwords()
{
    QFETCH(QByteArray, answer);
    QFETCH(QString, text);
    QFETCH(int, code);
    QVERIFY(Pam::makeService({QStringLiteral("auth required")}));
    Pam::Result result = Pam::run(authenticate, answer + '\n');
    QCOMPARE(result.events, QStringList{QStringLiteral("secret Password: ")} + ended(text, code));
    QCOMPARE(result.code, code);

    result = Pam::run(authenticate, "success\n");
    QCOMPARE(result.events, (QStringList{QStringLiteral("secret Password: "), QStringLiteral("authenticate 0")}));
    QCOMPARE(TestDevice::calls().constLast(),
             (QJsonArray{QStringLiteral("checkPassword"), QStringLiteral("alice"), QStringLiteral("success")}));
}

void TstPam::pins_data()
{
    QTest::addColumn<QByteArray>("answer");
    QTest::addColumn<QString>("text");
    QTest::addColumn<int>("code");

    QTest::newRow("wrong") << QByteArray("failed") << "Wrong PIN or certificate" << PAM_AUTH_ERR;
    QTest::newRow("blocked") << QByteArray("lock") << "PIN blocked, or this user is locked" << PAM_MAXTRIES;
    QTest::newRow("no token") << QByteArray("nousb") << "No token" << PAM_AUTHINFO_UNAVAIL;
    QTest::newRow("bad certificate") << QByteArray("firstcererr") << "The certificate cannot be used"
                                     << PAM_AUTHINFO_UNAVAIL;
    QTest::newRow("kind") << QByteArray("errauthtype") << "Certificates are not accepted" << PAM_AUTHINFO_UNAVAIL;
}

void TstPam::pins()
{
    QFETCH(QByteArray, answer);
    QFETCH(QString, text);
    QFETCH(int, code);
    QVERIFY(Pam::makeService({QStringLiteral("auth required method=kavet cert=pkcs11:token=a")}));
    QCOMPARE(Pam::run(authenticate, answer + '\n').events,
             QStringList{QStringLiteral("secret PIN: ")} + ended(text, code));
    QCOMPARE(Pam::run(authenticate, "success\n").events,
             (QStringList{QStringLiteral("secret PIN: "), QStringLiteral("authenticate 0")}));
    QCOMPARE(TestDevice::calls().constLast(),
             (QJsonArray{QStringLiteral("validateCert"), QStringLiteral("pkcs11:token=a"), QStringLiteral("alice"),
                         QStringLiteral("success")}));
}

void TstPam::certificates_data()
{
    QTest::addColumn<QJsonArray>("certs");
    QTest::addColumn<QByteArray>("input");
    QTest::addColumn<QStringList>("events");
    QTest::addColumn<QString>("chosen");

    const QJsonArray two{QStringLiteral("pkcs11:token=my%20badge;object=login;type=cert"),
                         QStringLiteral("pkcs11:token=ring;object=login;type=cert")};
    const QString question = QStringLiteral("question 1: login (my badge)|2: login (ring)|Number of the certificate: ");
    const QString success = QStringLiteral("authenticate 0");
    QTest::newRow("one") << QJsonArray{QStringLiteral("name")} << QByteArray("success\n")
                         << QStringList{QStringLiteral("secret PIN of name: "), success} << "name";
    QTest::newRow("first") << two << QByteArray("1\nsuccess\n")
                           << QStringList{question, QStringLiteral("secret PIN of login (my badge): "), success}
                           << two.at(0).toString();
    QTest::newRow("second") << two << QByteArray("2\nsuccess\n")
                            << QStringList{question, QStringLiteral("secret PIN of login (ring): "), success}
                            << two.at(1).toString();
    QTest::newRow("corrected") << two << QByteArray("0\n3\n2\nsuccess\n")
                               << QStringList{question, question, question,
                                              QStringLiteral("secret PIN of login (ring): "), success}
                               << two.at(1).toString();
    QTest::newRow("none") << two << QByteArray("x\n-1\n\n")
                          << QStringList{question, question, question}
                                 + ended(QStringLiteral("No certificate was chosen"), PAM_AUTH_ERR)
                          << QString();
    QJsonArray many;
    QString list;
    for (int number = 1; number <= 33; ++number) {
        many << QStringLiteral("badge%1").arg(number);
        if (number <= 32)
            list += QStringLiteral("%1: badge%1|").arg(number);
    }
    const QString listed = QStringLiteral("question ") + list + QStringLiteral("Number of the certificate: ");
    QTest::newRow("many") << many << QByteArray("33\n32\nsuccess\n")
                          << QStringList{listed, listed, QStringLiteral("secret PIN of badge32: "), success}
                          << "badge32";
    QTest::newRow("hostile") << QJsonArray{QStringLiteral("pkcs11:token=%1b[2J;object=a%0ab;type=cert"),
                                           QString::fromUtf8("x\u202ey\u009b31m")}
                             << QByteArray("2\nsuccess\n")
                             << QStringList{QStringLiteral("question 1: a\\u000ab (\\u001b[2J)|2: x\\u202ey\\u009b31m|"
                                                           "Number of the certificate: "),
                                            QStringLiteral("secret PIN of x\\u202ey\\u009b31m: "), success}
                             << QString::fromUtf8("x\u202ey\u009b31m");
}

void TstPam::certificates()
{
    QFETCH(QJsonArray, certs);
    QFETCH(QByteArray, input);
    QFETCH(QString, chosen);
    setClientScript({{QStringLiteral("certs"), certs}});
    QVERIFY(Pam::makeService({QStringLiteral("auth required cert=ask")}));
    const Pam::Result result = Pam::run(authenticate, input);
    QTEST(result.events, "events");
    if (chosen.isNull()) {
        QVERIFY(m_authd.waitForLog("uid=1000 reason=cancelled\n"));
    } else {
        QCOMPARE(TestDevice::calls().constLast(), (QJsonArray{QStringLiteral("validateCert"), chosen,
                                                              QStringLiteral("alice"), QStringLiteral("success")}));
        QCOMPARE(m_authd.log().count("event=attempt-begun"), 2); // once for the list, once for the PIN
        QCOMPARE(m_authd.log().count("event=attempt-given-up"), 0);
    }
}

void TstPam::noCertificates()
{
    QVERIFY(Pam::makeService({QStringLiteral("auth required cert=ask")}));
    const QStringList expected = ended(QStringLiteral("No token with a certificate"), PAM_AUTHINFO_UNAVAIL);
    // The client replies with an error, then with an empty list.
    QCOMPARE(Pam::run(authenticate).events, expected);
    QCOMPARE(m_authd.stop(SIGTERM), 0);
    setClientScript({{QStringLiteral("certs"), QJsonArray()}});
    QVERIFY(m_authd.start());
    QCOMPARE(Pam::run(authenticate).events, expected);
    QVERIFY(m_authd.waitForLog("uid=1000 reason=cancelled\n"));
}

void TstPam::attemptWithoutAnswer()
{
    QCOMPARE(m_authd.stop(SIGTERM), 0);
    QVERIFY(m_authd.start(Installed::methods, {QStringLiteral("--attempt-timeout"), QStringLiteral("1")}));
    QVERIFY(Pam::makeService({QStringLiteral("auth required")}));
    QCOMPARE(Pam::run(authenticate, "never\n").told(),
             ended(QStringLiteral("The authentication timed out"), PAM_AUTHINFO_UNAVAIL));
}

void TstPam::silent()
{
    QVERIFY(Pam::makeService({QStringLiteral("auth required")}));
    const Pam::Result result = Pam::run(QStringLiteral("--silent alice authenticate"), "failed\n");
    QCOMPARE(result.events, (QStringList{QStringLiteral("secret Password: "), QStringLiteral("authenticate 7")}));
}

void TstPam::emptyInput()
{
    // An empty password may be right, unless the program says no. A PIN cannot be.
    QVERIFY(Pam::makeService({QStringLiteral("auth required")}));
    QCOMPARE(Pam::run(authenticate, "\n").code, PAM_AUTH_ERR);
    QCOMPARE(TestDevice::calls().size(), 1);
    QCOMPARE(TestDevice::calls().constLast().last().toString(), QString());
    QCOMPARE(Pam::run(QStringLiteral("--no-null alice authenticate"), "\n").code, PAM_AUTH_ERR);
    QVERIFY(Pam::makeService({QStringLiteral("auth required cert=x")}));
    QCOMPARE(Pam::run(authenticate, "\n").code, PAM_AUTH_ERR);
    QCOMPARE(TestDevice::calls().size(), 1);
}

void TstPam::invalidText()
{
    QVERIFY(Pam::makeService({QStringLiteral("auth required")}));
    const Pam::Result result = Pam::run(authenticate, "J\xfcrgen\n");
    QCOMPARE(result.told(), ended(QStringLiteral("What was entered is not valid text"), PAM_AUTH_ERR));
    QCOMPARE(TestDevice::calls().size(), 0);
}

void TstPam::firstPass()
{
    // Without an earlier password
    QVERIFY(Pam::makeService({QStringLiteral("auth required use_first_pass")}));
    QCOMPARE(Pam::run(authenticate, "success\n").events, QStringList{QStringLiteral("authenticate 7")});
    QVERIFY(Pam::makeService({QStringLiteral("auth required try_first_pass")}));
    QCOMPARE(Pam::run(authenticate, "success\n").events,
             (QStringList{QStringLiteral("secret Password: "), QStringLiteral("authenticate 0")}));

    // With one
    for (const char *option : {"use_first_pass", "try_first_pass", "cert=x use_first_pass"}) {
        QVERIFY(Pam::makeService(
            {QStringLiteral("auth optional"), QStringLiteral("auth required ") + QLatin1String(option)}));
        QCOMPARE(Pam::run(authenticate, "success\nnever\n").events.count(QStringLiteral("secret Password: ")), 1);
        QCOMPARE(TestDevice::calls().constLast().last().toString(), QStringLiteral("success"));
    }
    // A wrong one is replaced, or not.
    QVERIFY(Pam::makeService({QStringLiteral("auth optional"), QStringLiteral("auth required try_first_pass")}));
    QCOMPARE(Pam::run(authenticate, "failed\nsuccess\n").code, PAM_SUCCESS);
    QVERIFY(Pam::makeService({QStringLiteral("auth optional"), QStringLiteral("auth required use_first_pass")}));
    QCOMPARE(Pam::run(authenticate, "failed\nsuccess\n").code, PAM_AUTH_ERR);
}

void TstPam::passwordForNextModule()
{
    // A PIN is not for others.
    QVERIFY(Pam::makeService({QStringLiteral("auth optional cert=x"), QStringLiteral("auth required use_first_pass")}));
    QCOMPARE(Pam::run(authenticate, "nousb\nsuccess\n").code, PAM_AUTH_ERR);
    QCOMPARE(TestDevice::calls().size(), 1);
}

void TstPam::unknownUsers()
{
    QVERIFY(Pam::makeService(
        {QStringLiteral("auth required"), QStringLiteral("account required"), QStringLiteral("session required")}));
    for (const char *user : {"root", "mallory", "nobody"}) {
        const Pam::Result result = Pam::run(QLatin1String(user) + QStringLiteral(" authenticate"), "success\n");
        QCOMPARE(result.told(), QStringList{QStringLiteral("authenticate %1").arg(PAM_USER_UNKNOWN)});
    }
    // Not even asked
    QCOMPARE(Pam::run(QStringLiteral("root authenticate")).events.size(), 1);
    for (const char *operation : {"account", "open", "close"})
        QCOMPARE(Pam::run(QStringLiteral("mallory ") + QLatin1String(operation)).code, PAM_USER_UNKNOWN);
    QCOMPARE(TestDevice::launches().size(), 0);
    // Nothing stops a session of root, or of an account that only services use.
    QVERIFY(Pam::makeService({QStringLiteral("account required"), QStringLiteral("account required pam_permit.so"),
                              QStringLiteral("session required"), QStringLiteral("session required pam_permit.so")}));
    for (const char *user : {"root", "nobody"}) {
        QCOMPARE(Pam::run(QLatin1String(user) + QStringLiteral(" account open close")).events,
                 (QStringList{QStringLiteral("account 0"), QStringLiteral("open 0"), QStringLiteral("close 0")}));
    }
}

void TstPam::otherUsers()
{
    QVERIFY(Pam::makeService({QStringLiteral("auth required"), QStringLiteral("session required")}));
    QCOMPARE(Pam::run(authenticate, "success\n", TestDevice::alice).code, PAM_SUCCESS);
    const Pam::Result others = Pam::run(authenticate, "success\n", TestDevice::bob);
    QCOMPARE(others.told(),
             ended(QStringLiteral("This program may not authenticate this user"), PAM_CRED_INSUFFICIENT));
    // Only root starts sessions.
    QCOMPARE(Pam::run(QStringLiteral("alice open"), {}, TestDevice::alice).code, PAM_SESSION_ERR);
}

void TstPam::lockedUser()
{
    QVERIFY(Pam::makeService({QStringLiteral("auth required"), QStringLiteral("account required")}));
    QCOMPARE(Pam::run(QStringLiteral("alice account")).events, QStringList{QStringLiteral("account 0")});
    QCOMPARE(Authctl::run(QStringLiteral("options max-attempts 1")).exitCode, int(Authctl::Success));
    QCOMPARE(Authctl::run(QStringLiteral("login alice"), "failed\n").exitCode, int(Authctl::Locked));

    const QString text =
        QStringLiteral("error This user is locked until an administrator unlocks it (kavet-max-attempts)");
    const Pam::Result account = Pam::run(QStringLiteral("alice account"));
    QCOMPARE(account.events, (QStringList{text, QStringLiteral("account %1").arg(PAM_PERM_DENIED)}));
    QCOMPARE(Pam::run(QStringLiteral("--silent alice account")).events.size(), 1);
    // Nothing is asked in vain.
    QCOMPARE(Pam::run(authenticate, "success\n").events,
             (QStringList{text, QStringLiteral("authenticate %1").arg(PAM_PERM_DENIED)}));
    QCOMPARE(Pam::run(QStringLiteral("bob account")).code, PAM_SUCCESS);
    QCOMPARE(Authctl::run(QStringLiteral("unlock alice")).exitCode, int(Authctl::Success));
    QCOMPARE(Pam::run(QStringLiteral("alice account")).code, PAM_SUCCESS);
}

void TstPam::locksAtTheLimit()
{
    QCOMPARE(Authctl::run(QStringLiteral("options max-attempts 1")).exitCode, int(Authctl::Success));
    QVERIFY(Pam::makeService({QStringLiteral("auth required")}));
    QCOMPARE(Pam::run(authenticate, "failed\n").told(),
             ended(QStringLiteral("Too many failed attempts: this user is locked until an administrator unlocks it "
                                  "(kavet-max-attempts)"),
                   PAM_MAXTRIES));
}

void TstPam::lockedWhileTyping()
{
    QCOMPARE(Authctl::run(QStringLiteral("options max-attempts 1")).exitCode, int(Authctl::Success));
    QVERIFY(Pam::makeService({QStringLiteral("auth required")}));
    QProcess login;
    Pam::start(login, authenticate);
    QVERIFY(Pam::waitFor(login, "secret Password: "));
    QCOMPARE(Authctl::run(QStringLiteral("login alice"), "failed\n").exitCode, int(Authctl::Locked));
    login.write("success\n");
    QCOMPARE(Pam::finish(login).told(),
             ended(QStringLiteral("The user is locked: kavet-max-attempts"), PAM_PERM_DENIED));
}

void TstPam::unknownOptions()
{
    QVERIFY(Pam::makeService({QStringLiteral("auth required nullok timeout=0 timeout=x cert= debug timeout=20")}));
    QCOMPARE(Pam::run(authenticate, "success\n").code, PAM_SUCCESS);
    QVERIFY(Pam::makeService({QStringLiteral("auth required method=other")}));
    QCOMPARE(Pam::run(authenticate, "success\n").told(),
             ended(QStringLiteral("The authentication method is not available"), PAM_AUTHINFO_UNAVAIL));
}

void TstPam::wantsOtherInput()
{
    // While the encrypted partition is locked, the method only asks for input.
    const QString configuration = QStringLiteral("/etc/authd/luks.conf");
    QVERIFY(TestDevice::writeFile(configuration, "[Partition]\nDevice=no-such-mapping\n"));
    const auto remove = qScopeGuard([configuration] { QFile::remove(configuration); });
    QVERIFY(Pam::makeService({QStringLiteral("auth required")}));
    const QStringList expected =
        ended(QStringLiteral("The authentication method asks for something else"), PAM_AUTHINFO_UNAVAIL);
    QCOMPARE(Pam::run(authenticate, "success\n").told(), expected);
    QVERIFY(m_authd.waitForLog("uid=1000 reason=cancelled\n"));
    // There is no client that could list certificates.
    QVERIFY(Pam::makeService({QStringLiteral("auth required cert=ask")}));
    QCOMPARE(Pam::run(authenticate).events, expected);
}

void TstPam::credentials()
{
    QVERIFY(Pam::makeService({QStringLiteral("auth required")}));
    QCOMPARE(Pam::run(QStringLiteral("alice setcred")).events, QStringList{QStringLiteral("setcred 0")});
}

void TstPam::sessions()
{
    QVERIFY(Pam::makeService({QStringLiteral("session required")}));
    QCOMPARE(Pam::run(QStringLiteral("alice open")).events, QStringList{QStringLiteral("open 0")});
    QCOMPARE(TestDevice::readFile(QStringLiteral("/run/authd/sessions")), QByteArray("1000 1\n"));
    QCOMPARE(Pam::run(QStringLiteral("alice close")).events, QStringList{QStringLiteral("close 0")});
    QCOMPARE(TestDevice::readFile(QStringLiteral("/run/authd/sessions")), QByteArray());
}

void TstPam::timesOut()
{
    QVERIFY(Pam::makeService({QStringLiteral("auth required timeout=1")}));
    QCOMPARE(Pam::run(authenticate, "never\n").told(),
             ended(QStringLiteral("The authentication service does not answer in time"), PAM_AUTHINFO_UNAVAIL));
    // The attempt has been given up, so the next one can begin.
    QVERIFY(m_authd.waitForLog("uid=1000 reason=cancelled\n"));
    QVERIFY(Pam::makeService({QStringLiteral("auth required")}));
    QCOMPARE(Pam::run(authenticate, "success\n").code, PAM_SUCCESS);
}

void TstPam::slowTypist()
{
    setClientScript({{QStringLiteral("certs"), QJsonArray{QStringLiteral("a"), QStringLiteral("b")}}});
    QVERIFY(Pam::makeService({QStringLiteral("auth required cert=ask timeout=3")}));
    QProcess login;
    Pam::start(login, authenticate);
    QVERIFY(Pam::waitFor(login, "question "));
    QTest::qWait(4000); // longer than the timeout
    login.write("1\n");
    QVERIFY(Pam::waitFor(login, "secret "));
    login.write("success\n");
    QCOMPARE(Pam::finish(login).code, PAM_SUCCESS);
}

void TstPam::attemptEndsWhileTyping_data()
{
    QTest::addColumn<QString>("end");
    QTest::addColumn<QByteArray>("pin");
    QTest::addColumn<int>("code");
    QTest::newRow("timeout") << QStringLiteral("timed-out") << QByteArray("success") << int(PAM_SUCCESS);
    QTest::newRow("timeout and lock") << QStringLiteral("timed-out") << QByteArray("failed") << int(PAM_MAXTRIES);
    QTest::newRow("cancelled") << QStringLiteral("cancelled") << QByteArray("success") << int(PAM_AUTHINFO_UNAVAIL);
}

void TstPam::attemptEndsWhileTyping()
{
    QFETCH(QString, end);
    QFETCH(QByteArray, pin);
    QFETCH(int, code);
    QCOMPARE(m_authd.stop(SIGTERM), 0);
    setClientScript({{QStringLiteral("certs"), QJsonArray{QStringLiteral("a")}}});
    const bool timesOut = end == QLatin1String("timed-out");
    QVERIFY(m_authd.start(Installed::methods, {QStringLiteral("--attempt-timeout"),
                                               timesOut ? QStringLiteral("2") : QStringLiteral("60")}));
    QCOMPARE(Authctl::run(QStringLiteral("options max-attempts 1")).exitCode, int(Authctl::Success));
    QVERIFY(Pam::makeService({QStringLiteral("auth required cert=ask")}));
    QProcess login;
    Pam::start(login, authenticate);
    QVERIFY(Pam::waitFor(login, "secret "));
    if (!timesOut)
        QCOMPARE(Authctl::run(QStringLiteral("cancel alice")).exitCode, int(Authctl::Success));
    QVERIFY(m_authd.waitForLog("uid=1000 reason=" + end.toLatin1() + '\n'));
    login.write(pin + '\n');
    QCOMPARE(Pam::finish(login).code, code);
}

void TstPam::conversationFails()
{
    QVERIFY(Pam::makeService({QStringLiteral("auth required")}));
    const QStringList expected{QStringLiteral("authenticate %1").arg(PAM_CONV_ERR)};
    QCOMPARE(Pam::run(authenticate).told(), expected);
    QCOMPARE(Pam::run(QStringLiteral("--no-answer ") + authenticate).told(), expected);
    setClientScript({{QStringLiteral("certs"), QJsonArray{QStringLiteral("a")}}});
    QVERIFY(Pam::makeService({QStringLiteral("auth required cert=ask")}));
    QCOMPARE(Pam::run(authenticate).told(), expected);
    QVERIFY(m_authd.waitForLog("uid=1000 reason=cancelled\n"));
}

void TstPam::clientDies()
{
    QVERIFY(Pam::makeService({QStringLiteral("auth required")}));
    setClientScript({{QStringLiteral("exit"), 1}});
    QCOMPARE(Pam::run(authenticate, "success\n").told(),
             ended(QStringLiteral("The authentication client does not start"), PAM_AUTHINFO_UNAVAIL));
    const ClientAside aside;
    QVERIFY(QFile::remove(TestDevice::launcher));
    QCOMPARE(Pam::run(authenticate, "success\n").code, PAM_AUTHINFO_UNAVAIL);
}

void TstPam::daemonStopped()
{
    QCOMPARE(m_authd.stop(SIGTERM), 0);
    QVERIFY(Pam::makeService(
        {QStringLiteral("auth required"), QStringLiteral("account required"), QStringLiteral("session required")}));
    // Nobody is asked in vain, and only those who authenticate are told.
    QCOMPARE(Pam::run(authenticate, "success\n").events,
             (QStringList{unavailable, QStringLiteral("authenticate %1").arg(PAM_AUTHINFO_UNAVAIL)}));
    QCOMPARE(Pam::run(QStringLiteral("alice account")).events,
             QStringList{QStringLiteral("account %1").arg(PAM_AUTHINFO_UNAVAIL)});
    QCOMPARE(Pam::run(QStringLiteral("alice open")).events,
             QStringList{QStringLiteral("open %1").arg(PAM_SESSION_ERR)});
    QCOMPARE(Pam::run(QStringLiteral("alice close")).code, PAM_SESSION_ERR);
}

void TstPam::daemonKilled_data()
{
    QTest::addColumn<bool>("isTyping");
    QTest::newRow("while the person types") << true;
    QTest::newRow("while the client checks") << false;
}

void TstPam::daemonKilled()
{
    QFETCH(bool, isTyping);
    QVERIFY(Pam::makeService({QStringLiteral("auth required timeout=300")}));
    QProcess login;
    Pam::start(login, authenticate);
    QVERIFY(Pam::waitFor(login, "secret "));
    if (!isTyping) {
        login.write("never\n");
        QTRY_COMPARE(TestDevice::calls().size(), 1);
    }
    m_authd.stop(SIGKILL);
    if (isTyping)
        login.write("success\n");
    // Long before the timeout
    QCOMPARE(Pam::finish(login).told(),
             (QStringList{unavailable, QStringLiteral("authenticate %1").arg(PAM_AUTHINFO_UNAVAIL)}));
}

void TstPam::secretsAreWiped_data()
{
    QTest::addColumn<QString>("options");
    QTest::addColumn<QByteArray>("suffix");
    QTest::addColumn<int>("times");
    QTest::newRow("password") << QString() << QByteArray() << 1;
    QTest::newRow("PIN") << QStringLiteral(" cert=pkcs11:token=a") << QByteArray() << 1;
    QTest::newRow("invalid text") << QString() << QByteArray("\xff") << 1;
    QTest::newRow("no answer") << QStringLiteral(" timeout=3") << QByteArray() << 1;
    QTest::newRow("in place of a number") << QStringLiteral(" cert=ask") << QByteArray() << 3;
}

void TstPam::secretsAreWiped()
{
    QFETCH(QString, options);
    QFETCH(QByteArray, suffix);
    QFETCH(int, times);
    setClientScript({{QStringLiteral("certs"), QJsonArray{QStringLiteral("a"), QStringLiteral("b")}}});
    QVERIFY(Pam::makeService({QStringLiteral("auth required") + options}));
    const bool isStopped = options.contains(QLatin1String("timeout"));
    // The whole must not remain, nor a part that a buffer has kept.
    const QByteArray secret = QByteArray("Xq7#") + QByteArray(200, 'v') + "tR9!wZ2&" + suffix;
    const QByteArray part = "vvvvvvvvtR9!wZ2&";
    QProcess login;
    Pam::start(login, authenticate + QStringLiteral(" wait"));
    QVERIFY(Pam::waitFor(login, times > 1 ? "question " : "secret "));
    if (isStopped)
        kill(pid_t(m_authd.pid()), SIGSTOP);
    const auto resume = qScopeGuard([this] { kill(pid_t(m_authd.pid()), SIGCONT); });
    login.write(QByteArray(secret + '\n').repeated(times));
    QVERIFY(Pam::waitFor(login, "authenticate "));
    const QByteArray memory = processMemory(login.processId());
    QVERIFY(memory.contains("authenticate"));
    QVERIFY(!memory.contains(part));
    QVERIFY(!memory.contains(QByteArray("Xq7#vvvvvvvv")));
    login.write("\n");
    Pam::finish(login);
}

QTEST_GUILESS_MAIN(TstPam)

#include "tst_pam.moc"
