// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#include "device/authd.h"
#include "device/processmemory.h"
#include "device/screen.h"
#include "settings/settingskavet.h"
#include "support/testdevice.h"

#include <authd/authservice.h>

#include <QElapsedTimer>
#include <QGuiApplication>
#include <QJsonArray>
#include <QJsonDocument>
#include <QMetaEnum>
#include <QRegularExpression>
#include <QScopeGuard>
#include <QSignalSpy>
#include <QTest>
#include <QTimer>

#include <algorithm>
#include <csignal>

#include <unistd.h>

namespace {

constexpr uint alice = TestDevice::alice;
constexpr uint bob = TestDevice::bob;

const QString right = QStringLiteral("success"); // The scripted client replies with the password.
const QString wrong = QStringLiteral("failed");
const QString partition = QStringLiteral("/etc/authd/luks.conf");

QString cert(const QString &holder, const QString &token, const QString &issuer = QStringLiteral("Example CA"),
             const QString &expiry = QStringLiteral("2035-05-01"))
{
    return QStringLiteral("pkcs11:token=%1;id=%01;object=login;type=cert?holder=%2&issuer=%3&expires=%4")
        .arg(token, holder, issuer, expiry);
}

const QString badge = cert(QStringLiteral("Alice%20Liddell"), QStringLiteral("badge"));
const QString ring = cert(QStringLiteral("Alice%20Liddell%20(admin)"), QStringLiteral("key%20ring"));

void setCerts(const QStringList &certs)
{
    setClientScript({{QStringLiteral("certs"), QJsonArray::fromStringList(certs)}});
}

QStringList lastCall()
{
    const QVector<QJsonArray> calls = TestDevice::calls();
    QStringList words;
    for (auto call = calls.crbegin(); call != calls.crend() && words.isEmpty(); ++call) {
        if (call->first() != QLatin1String("getCertList")) {
            for (const QJsonValue &word : *call)
                words << word.toString();
        }
    }
    return words;
}

/// Sets the language of windows for the lifetime of the object.
class Language
{
public:
    explicit Language(QLocale::Language language) { QLocale::setDefault(QLocale(language)); }
    ~Language() { QLocale::setDefault(m_before); }

private:
    const QLocale m_before;

    Q_DISABLE_COPY(Language)
};

/// Removes this machine's own users from the device. The greeter would list them, too.
void removeOtherUsers()
{
    constexpr uint maximum = 60000; // That of useradd(8).
    const QString path = QStringLiteral("/etc/passwd");
    QByteArrayList lines = TestDevice::readFile(path).split('\n');
    const auto isOther = [](const QByteArray &line) {
        const uint uid = line.split(':').value(2).toUInt();
        return uid > TestDevice::carol && uid <= maximum;
    };
    lines.erase(std::remove_if(lines.begin(), lines.end(), isOther), lines.end());
    if (!TestDevice::isDevice() || !TestDevice::writeFile(path, lines.join('\n')))
        qFatal("Cannot remove users; run this test in the disposable device: device/enter");
}

} // namespace

#define VERIFY_SOUND(shown) QTRY_COMPARE((shown).faults().join(QLatin1Char('\n')), QString())

/// The screen in a real window, with the real daemon and the method's pages.
class TstScreen : public AuthdTest
{
    Q_OBJECT

private Q_SLOTS:
    void greeter();
    void wrongAndRightPassword();
    void certificateAndPin();
    void expiry();
    void resultCodes();
    void attemptsLeft();
    void tokenRemoved();
    void tokenAskedFor();
    void locked();
    void lockedForAWhile();
    void partitionLocked();
    void clientUnreachable();
    void clientRestarted();
    void queuedAndCancelled();
    void anotherCallerAtWork();
    void daemonGoneAndBack();
    void daemonHangs();
    void daemonHangsFromTheStart();
    void information();
    void leftBeforeTheReply();
    void secretIsHidden();
    void secretIsNotUndone();
    void secretIsOverwritten();
    void secretIsNotHeld();
    void manyCertificates();
    void longNames_data();
    void longNames();
    void hostileNames();
    void endlessName();
    void hostileUser();
    void rightToLeft();
    void german();
    void translations_data();
    void translations();
    void sizes_data();
    void sizes();

private:
    void setLimit(int limit);
};

void TstScreen::greeter()
{
    Shown shown(0);
    QVERIFY(shown.find(QStringLiteral("user-carol")));
    QCOMPARE(shown.screen.users().size(), 3); // and no service accounts
    VERIFY_SOUND(shown);
    shown.save(QStringLiteral("greeter"));

    // With the keyboard alone, to bob and back.
    QTRY_VERIFY(shown.hasFocus(QStringLiteral("user-alice")));
    for (const int key : {Qt::Key_Down, Qt::Key_Up, Qt::Key_Tab}) {
        shown.press(key);
        QVERIFY(shown.hasFocus(key == Qt::Key_Up ? QStringLiteral("user-alice") : QStringLiteral("user-bob")));
    }
    shown.press(Qt::Key_Return);
    QVERIFY(shown.find(QStringLiteral("secret")));
    QCOMPARE(shown.text(QStringLiteral("user")), QStringLiteral("Bob"));
    QTRY_VERIFY(shown.hasFocus(QStringLiteral("secret")));
    shown.press(Qt::Key_Escape);
    QTRY_VERIFY(shown.hasFocus(QStringLiteral("user-alice")));

    QVERIFY(shown.click(QStringLiteral("user-carol")));
    QTRY_COMPARE(shown.text(QStringLiteral("user")), QStringLiteral("Carol"));
    QVERIFY(shown.click(QStringLiteral("leave")));
    QVERIFY(shown.find(QStringLiteral("user-alice")));
}

void TstScreen::wrongAndRightPassword()
{
    Shown shown(alice);
    QSignalSpy authenticated(&shown.screen, &AuthScreen::authenticated);
    QTRY_VERIFY(shown.hasFocus(QStringLiteral("secret")));
    QVERIFY(!shown.find(QStringLiteral("signIn"))->isEnabled());
    VERIFY_SOUND(shown);
    shown.save(QStringLiteral("password"));

    QVERIFY(shown.submit(wrong));
    QTRY_COMPARE(shown.text(QStringLiteral("messageTitle")), QStringLiteral("The password is wrong."));
    QCOMPARE(lastCall(), (QStringList{QStringLiteral("checkPassword"), QStringLiteral("alice"), wrong}));
    QTRY_VERIFY(shown.hasFocus(QStringLiteral("secret")));
    QCOMPARE(shown.text(QStringLiteral("secret")), QString());
    VERIFY_SOUND(shown);

    shown.type(right);
    QVERIFY(shown.click(QStringLiteral("signIn")));
    QVERIFY(shown.find(QStringLiteral("welcome")));
    QCOMPARE(authenticated, (QList<QVariantList>{{alice, QStringLiteral("kavet")}}));
    QVERIFY(!shown.shows(QStringLiteral("secret")));
    VERIFY_SOUND(shown);
}

void TstScreen::certificateAndPin()
{
    setCerts({badge, ring});
    Shown shown(alice);
    QVERIFY(shown.find(QStringLiteral("certificate-1")));
    QTRY_VERIFY(shown.hasFocus(QStringLiteral("secret")));
    const QString text = shown.allText();
    for (const char *part : {"Alice Liddell\n", "Alice Liddell (admin)\n", "Example CA", "badge", "key ring", "2035"})
        QVERIFY2(text.contains(QLatin1String(part)), qPrintable(text));
    QVERIFY(!text.contains(QLatin1String("pkcs11:")));
    VERIFY_SOUND(shown);
    shown.save(QStringLiteral("certificate"));

    QVERIFY(shown.submit(wrong));
    QTRY_VERIFY(shown.text(QStringLiteral("messageTitle")).startsWith(QStringLiteral("The PIN is wrong")));
    QCOMPARE(lastCall(), (QStringList{QStringLiteral("validateCert"), badge, QStringLiteral("alice"), wrong}));
    QVERIFY(shown.click(QStringLiteral("certificate-1")));
    QVERIFY(shown.click(QStringLiteral("details")));
    QTRY_COMPARE(shown.text(QStringLiteral("detail")), ring.section(QLatin1Char('?'), 0, 0));
    QVERIFY(shown.click(QStringLiteral("secret")));
    QVERIFY(shown.submit(right));
    QVERIFY(shown.find(QStringLiteral("welcome")));
    QCOMPARE(lastCall(), (QStringList{QStringLiteral("validateCert"), ring, QStringLiteral("alice"), right}));
}

void TstScreen::expiry()
{
    const QString token = QStringLiteral("token");
    setCerts({cert(QStringLiteral("old"), token, token, QStringLiteral("2020-05-01")),
              cert(QStringLiteral("new"), token, token, QStringLiteral("2099-05-01")),
              cert(QStringLiteral("odd"), token, token, QStringLiteral("never"))});
    Shown shown(alice);
    QVERIFY(shown.find(QStringLiteral("certificate-2")));
    const QString text = shown.allText();
    for (const char *part : {"Expired on May 1, 2020", "Valid until May 1, 2099", "Valid until never"})
        QVERIFY2(text.contains(QLatin1String(part)), qPrintable(text));
}

// The codes that the client cannot cause come from another method, on the same page.
void TstScreen::resultCodes()
{
    struct Text
    {
        const char *what;
        const char *next;
    };
    const QVector<Text> texts = {
        {"The password is wrong.", "Check Caps Lock"},
        {"The device's storage is locked.", "Unlock the storage"},
        {"The check could not start.", "Try again."},
        {"The check cannot be reached right now.", "Wait a moment"},
        {"The check was interrupted.", "Nothing was counted."},
        {"Your token or your account is locked.", "Further attempts will not help."},
        {"That was the last attempt.", "Your data may be removed"},
        {"That was the last attempt.", "Your data are kept."},
        {"The token is not plugged in.", "Insert the token"},
        {"The token does not respond.", "Take it out"},
        {"The password is wrong.", "Check Caps Lock"},
        {"The default certificate cannot be used.", "Choose another certificate"},
        {"You may not unlock this device.", "Only the person who locked it"},
        {"This way of signing in is not set up for you.", "Use the other way"},
        {"Signing in has failed.", "Try again."},
    };
    // Success has a page of its own, and the last text is for any other code.
    QCOMPARE(texts.size(), QMetaEnum::fromType<SettingsKavet::ResultCode>().keyCount());

    m_authd.stop(SIGTERM);
    QVERIFY(m_authd.start(Installed::oddMethods));
    Shown shown(alice);
    QVERIFY(shown.click(QStringLiteral("cancel"))); // This method works until it is told to stop.
    for (int code = 1; code <= texts.size(); ++code) {
        QVERIFY(shown.submit(QStringLiteral("fail:%1").arg(code)));
        QTRY_COMPARE(shown.text(QStringLiteral("messageTitle")), QLatin1String(texts.at(code - 1).what));
        const QString next = shown.text(QStringLiteral("messageText"));
        QVERIFY2(next.startsWith(QLatin1String(texts.at(code - 1).next)), qPrintable(next));
        QTRY_VERIFY(shown.hasFocus(QStringLiteral("secret")));
        VERIFY_SOUND(shown);
    }
    // The message goes with the next attempt.
    QVERIFY(shown.submit(QStringLiteral("succeed")));
    QVERIFY(shown.find(QStringLiteral("welcome")));
    QVERIFY(!shown.shows(QStringLiteral("messageTitle")));
}

void TstScreen::setLimit(int limit)
{
    QCOMPARE(
        BusUser(0).error(QStringLiteral("SetMethodOption"), {QStringLiteral("kavet"), QStringLiteral("max-attempts"),
                                                             QVariant::fromValue(QDBusVariant(limit))}),
        QString());
}

void TstScreen::attemptsLeft()
{
    setLimit(5);
    Shown shown(alice);
    QVERIFY(shown.submit(wrong));
    QVERIFY(shown.find(QStringLiteral("failure")));
    QTRY_VERIFY2(shown.text(QStringLiteral("messageText")).endsWith(QStringLiteral("Attempts left: 4")),
                 qPrintable(shown.allText()));
    shown.save(QStringLiteral("wrong-password"));
    // An attempt that does not count leaves them.
    QVERIFY(shown.submit(QStringLiteral("connerr")));
    QTRY_COMPARE(shown.text(QStringLiteral("messageTitle")), QStringLiteral("The token does not respond."));
    QVERIFY(!shown.text(QStringLiteral("messageText")).contains(QStringLiteral("left")));
}

void TstScreen::tokenRemoved()
{
    setCerts({badge, ring});
    Shown shown(alice);
    QVERIFY(shown.click(QStringLiteral("certificate-1")));
    setCerts({badge});
    // The page looks for tokens at intervals.
    QTRY_VERIFY(!shown.shows(QStringLiteral("certificate-1")));
    QVERIFY(shown.shows(QStringLiteral("certificate-0")));

    // The chosen certificate has gone, so the other one is chosen.
    QVERIFY(shown.click(QStringLiteral("secret")));
    QVERIFY(shown.submit(wrong));
    QVERIFY(shown.find(QStringLiteral("failure")));
    QCOMPARE(lastCall().value(1), badge);

    setCerts({});
    QTRY_COMPARE(shown.text(QStringLiteral("title")), QStringLiteral("Insert your token"));
    QVERIFY(!shown.shows(QStringLiteral("secret")));
    VERIFY_SOUND(shown);
    shown.save(QStringLiteral("insert-token"));
    setCerts({ring});
    QVERIFY(shown.find(QStringLiteral("certificate-0")));
    QVERIFY(shown.submit(right));
    QVERIFY(shown.find(QStringLiteral("welcome")));
    QCOMPARE(lastCall().value(1), ring);
}

void TstScreen::tokenAskedFor()
{
    setCerts({});
    Shown shown(alice);
    QVERIFY(shown.click(QStringLiteral("otherWay")));
    QTRY_COMPARE(shown.text(QStringLiteral("title")), QStringLiteral("Insert your token"));
    QTRY_VERIFY(shown.hasFocus(QStringLiteral("preButton")));
    const auto *label = shown.find(QStringLiteral("preButton"))->property("contentItem").value<QQuickItem *>();
    QCOMPARE(label->property("lineCount").toInt(), 1); // as there is room
    shown.press(Qt::Key_Return);
    QVERIFY(shown.submit(right));
    QVERIFY(shown.find(QStringLiteral("welcome")));
    QCOMPARE(lastCall().constFirst(), QStringLiteral("checkPassword"));
}

void TstScreen::locked()
{
    setLimit(1);
    Shown shown(alice);
    QVERIFY(shown.submit(wrong));
    QTRY_COMPARE(shown.text(QStringLiteral("title")), QStringLiteral("This account is locked"));
    QCOMPARE(shown.text(QStringLiteral("text")),
             QStringLiteral("There were too many failed attempts.\nAsk your administrator to unlock it."));
    QVERIFY(!shown.shows(QStringLiteral("secret")));
    VERIFY_SOUND(shown);
    shown.save(QStringLiteral("locked"));

    // Another screen of a locked user says so at once.
    {
        const Shown another(alice);
        QTRY_COMPARE(another.text(QStringLiteral("title")), QStringLiteral("This account is locked"));
    }

    QCOMPARE(BusUser(0).error(QStringLiteral("Unlock"), {alice}), QString());
    QVERIFY(shown.submit(right));
    QVERIFY(shown.find(QStringLiteral("welcome")));
}

void TstScreen::lockedForAWhile()
{
    m_authd.stop(SIGTERM);
    QVERIFY(m_authd.start(Installed::oddMethods));
    const BusUser root(0);
    QCOMPARE(root.error(QStringLiteral("SetUserMethodOption"),
                        {alice, QStringLiteral("puppet"), QStringLiteral("do"),
                         QVariant::fromValue(QDBusVariant(QStringLiteral("lock:600")))}),
             QString());
    m_authd.stop(SIGTERM);
    QVERIFY(m_authd.start());
    Shown shown(alice);
    QTRY_COMPARE(shown.text(QStringLiteral("text")),
                 QStringLiteral("The reason: on strings\nMinutes until you can try again: 10"));
}

void TstScreen::partitionLocked()
{
    QVERIFY(QDir().mkpath(QFileInfo(partition).path()));
    QVERIFY(TestDevice::writeFile(partition, "[Partition]\nDevice=absent\n"));
    Shown shown(alice);
    QTRY_COMPARE(shown.text(QStringLiteral("title")), QStringLiteral("The device's storage is locked."));
    VERIFY_SOUND(shown);
    QVERIFY(QFile::remove(partition));
    QTRY_VERIFY(shown.hasFocus(QStringLiteral("preButton")));
    shown.press(Qt::Key_Return);
    QVERIFY(shown.submit(right));
    QVERIFY(shown.find(QStringLiteral("welcome")));
}

void TstScreen::clientUnreachable()
{
    setClientScript({{QStringLiteral("exit"), 1}});
    Shown shown(alice);
    QTRY_COMPARE(shown.text(QStringLiteral("title")), QStringLiteral("The check could not start."));
    VERIFY_SOUND(shown);
    setClientScript();
    QVERIFY(shown.click(QStringLiteral("preButton")));
    QVERIFY(shown.submit(right));
    QVERIFY(shown.find(QStringLiteral("welcome")));
}

void TstScreen::clientRestarted()
{
    m_authd.stop(SIGTERM);
    QVERIFY(m_authd.start(Installed::oddMethods));
    Shown shown(alice);
    QVERIFY(shown.click(QStringLiteral("cancel")));
    QVERIFY(shown.submit(QStringLiteral("restart")));
    QVERIFY(shown.find(QStringLiteral("restarted")));
    VERIFY_SOUND(shown);
    QVERIFY(shown.submit(QStringLiteral("succeed")));
    QVERIFY(shown.find(QStringLiteral("welcome")));
}

void TstScreen::queuedAndCancelled()
{
    setClientScript({{QStringLiteral("answer"), QStringLiteral("never")}});
    const BusUser other(bob);
    QCOMPARE(other.error(QStringLiteral("Authenticate"),
                         {bob, QStringLiteral("kavet"), QVariantMap{{QStringLiteral("password"), right}}}),
             QString());
    QTRY_VERIFY(!lastCall().isEmpty());
    Shown shown(alice);
    QTRY_COMPARE(shown.text(QStringLiteral("title")), QStringLiteral("Please wait"));
    VERIFY_SOUND(shown);

    // Bob's attempt is cut short, and alice's begins.
    QVERIFY(shown.submit(right));
    QVERIFY(shown.find(QStringLiteral("busy")));
    VERIFY_SOUND(shown);
    shown.save(QStringLiteral("checking"));
    QTRY_VERIFY(shown.hasFocus(QStringLiteral("cancel")));
    shown.press(Qt::Key_Escape);
    QTRY_COMPARE(shown.text(QStringLiteral("notice")), QStringLiteral("Cancelled."));
    QTRY_VERIFY(shown.hasFocus(QStringLiteral("secret")));
    QVERIFY(shown.submit(right));
    QVERIFY(shown.click(QStringLiteral("cancel")));
    QTRY_COMPARE(shown.text(QStringLiteral("notice")), QStringLiteral("Cancelled."));
}

void TstScreen::anotherCallerAtWork()
{
    setClientScript({{QStringLiteral("answer"), QStringLiteral("never")}});
    const BusUser other(0);
    QCOMPARE(other.error(QStringLiteral("RequestChallenge"), {alice, QStringLiteral("kavet")}), QString());
    // Root replaces others' attempts, so this must be the user's own screen.
    QVERIFY(seteuid(alice) == 0);
    Shown shown(alice);
    QVERIFY(seteuid(0) == 0);
    QTRY_VERIFY2(shown.text(QStringLiteral("notice")).startsWith(QStringLiteral("Another program is")),
                 qPrintable(shown.allText()));
    VERIFY_SOUND(shown);
}

void TstScreen::daemonGoneAndBack()
{
    Shown shown(alice);
    QTRY_VERIFY(shown.hasFocus(QStringLiteral("secret")));
    shown.type(QStringLiteral("half"));
    m_authd.stop(SIGKILL);
    QVERIFY(shown.find(QStringLiteral("absent")));
    QVERIFY(!shown.shows(QStringLiteral("secret")));
    VERIFY_SOUND(shown);
    shown.save(QStringLiteral("absent"));
    QVERIFY(m_authd.start());
    QTRY_VERIFY(shown.hasFocus(QStringLiteral("secret")));
    QCOMPARE(shown.text(QStringLiteral("secret")), QString());
    QVERIFY(shown.submit(right));
    QVERIFY(shown.find(QStringLiteral("welcome")));

    // A screen that starts first waits for the daemon.
    m_authd.stop(SIGTERM);
    Shown early(0);
    QVERIFY(early.find(QStringLiteral("absent")));
    QVERIFY(m_authd.start());
    QVERIFY(early.find(QStringLiteral("user-bob")));
}

// A service that hangs stays on the bus.
void TstScreen::daemonHangs()
{
    Shown shown(alice);
    QTRY_VERIFY(shown.hasFocus(QStringLiteral("secret")));
    QVERIFY(kill(pid_t(m_authd.pid()), SIGSTOP) == 0);
    const auto goOn = qScopeGuard([this] { kill(pid_t(m_authd.pid()), SIGCONT); });
    qint64 longestPause = 0;
    QElapsedTimer sinceLast;
    sinceLast.start();
    QTimer pulse;
    connect(&pulse, &QTimer::timeout, [&] { longestPause = qMax(longestPause, sinceLast.restart()); });
    pulse.start(0);

    QVERIFY(shown.find(QStringLiteral("unanswered")));
    VERIFY_SOUND(shown);
    shown.save(QStringLiteral("unanswered"));
    const QImage before = shown.window()->grabWindow();
    shown.type(right);
    QCOMPARE(shown.text(QStringLiteral("secret")), right);
    QVERIFY(shown.window()->grabWindow() != before);
    shown.press(Qt::Key_Return);
    QVERIFY(shown.find(QStringLiteral("busy")));
    // Longer than a call waits for its reply by default.
    const BusUser other(alice);
    AuthServiceInterface service(LibAuthd::AuthService::Service, LibAuthd::AuthService::ObjectPath, other.connection());
    QDBusPendingCallWatcher call(service.GetMethods());
    QTRY_VERIFY_WITH_TIMEOUT(call.isFinished(), 60000);
    QVERIFY(call.isError());
    constexpr int settingsTimeout = 5000; // milliseconds, in the settings' thread
    QVERIFY2(longestPause < settingsTimeout, qPrintable(QString::number(longestPause)));

    QVERIFY(kill(pid_t(m_authd.pid()), SIGCONT) == 0);
    QVERIFY(shown.find(QStringLiteral("welcome")));
    QTRY_VERIFY(!shown.shows(QStringLiteral("unanswered")));
}

void TstScreen::daemonHangsFromTheStart()
{
    QVERIFY(kill(pid_t(m_authd.pid()), SIGSTOP) == 0);
    const auto goOn = qScopeGuard([this] { kill(pid_t(m_authd.pid()), SIGCONT); });
    Shown shown(0);
    QVERIFY(shown.find(QStringLiteral("unanswered")));
    QVERIFY(!shown.shows(QStringLiteral("title")));
    VERIFY_SOUND(shown);
    QVERIFY(kill(pid_t(m_authd.pid()), SIGCONT) == 0);
    QVERIFY(shown.find(QStringLiteral("user-bob")));
    QTRY_VERIFY(!shown.shows(QStringLiteral("unanswered")));
}

void TstScreen::information()
{
    setLimit(5);
    setCerts({badge});
    Shown shown(alice);
    QVERIFY(shown.find(QStringLiteral("certificate-0")));
    QVERIFY(shown.submit(wrong));
    QVERIFY(shown.find(QStringLiteral("failure")));
    QVERIFY(shown.click(QStringLiteral("info")));
    QCOMPARE(shown.text(QStringLiteral("limit")), QStringLiteral("5"));
    QTRY_COMPARE(shown.text(QStringLiteral("failed")), QStringLiteral("1"));
    QVERIFY(shown.find(QStringLiteral("certificate-0")));
    VERIFY_SOUND(shown);
    shown.save(QStringLiteral("information"));
    setLimit(0);
    QTRY_COMPARE(shown.text(QStringLiteral("limit")), QStringLiteral("Unlimited"));

    setCerts({badge, ring});
    QTRY_VERIFY(shown.find(QStringLiteral("refresh"))->isEnabled());
    QVERIFY(shown.click(QStringLiteral("refresh")));
    QVERIFY(shown.find(QStringLiteral("certificate-1")));
    shown.press(Qt::Key_Escape);
    QTRY_VERIFY(shown.hasFocus(QStringLiteral("secret")));
}

// The service learns of the attempt's end even if its number was not known yet.
void TstScreen::leftBeforeTheReply()
{
    const BusUser root(0);
    const Reports reports(root);
    AuthServiceInterface service(LibAuthd::AuthService::Service, LibAuthd::AuthService::ObjectPath, root.connection());
    {
        LoginAttempt attempt(service, alice, QStringLiteral("Alice"), QStringLiteral("kavet"), nullptr);
        attempt.requestChallenge();
    }
    QTRY_COMPARE(reports.texts.filter(QStringLiteral("AttemptGivenUp")),
                 QStringList{QStringLiteral("AttemptGivenUp(1000, kavet, cancelled)")});
}

void TstScreen::secretIsHidden()
{
    Shown shown(alice);
    QTRY_VERIFY(shown.hasFocus(QStringLiteral("secret")));
    QQuickItem *field = shown.find(QStringLiteral("secret"));
    const auto displayed = [field] {
        return field->property("displayText").toString();
    };
    shown.type(QStringLiteral("abc"));
    QVERIFY(!displayed().contains(QRegularExpression(QStringLiteral("[abc]"))));
    QVERIFY(!shown.shows(QStringLiteral("capsLock")));
    QVERIFY(shown.click(QStringLiteral("reveal")));
    QCOMPARE(displayed(), QStringLiteral("abc"));
    QVERIFY(shown.click(QStringLiteral("secret")));
    shown.type(QStringLiteral("D"));
    QVERIFY(shown.find(QStringLiteral("capsLock")));
    VERIFY_SOUND(shown);
    shown.save(QStringLiteral("caps-lock"));
    QTest::sendKeyEvent(QTest::Click, shown.window(), Qt::Key_E, QStringLiteral("E"), Qt::ShiftModifier);
    QTRY_VERIFY(!shown.shows(QStringLiteral("capsLock")));

    // It does not outlive its use, nor does the wish to see it.
    shown.press(Qt::Key_Return);
    QCOMPARE(field->property("text").toString(), QString());
    QTRY_COMPARE(lastCall().value(2), QStringLiteral("abcDE"));
    QVERIFY(shown.find(QStringLiteral("failure")));
    QTRY_VERIFY(shown.hasFocus(QStringLiteral("secret")));
    shown.type(QStringLiteral("abc"));
    QVERIFY(shown.click(QStringLiteral("reveal")));
    QVERIFY(shown.click(QStringLiteral("info")));
    QVERIFY(shown.click(QStringLiteral("info")));
    QTRY_VERIFY(shown.hasFocus(QStringLiteral("secret")));
    QCOMPARE(field->property("text").toString(), QString());
    shown.type(QStringLiteral("abc"));
    QVERIFY(!displayed().contains(QLatin1Char('a')));
}

// The next person at the screen cannot bring back what was typed.
void TstScreen::secretIsNotUndone()
{
    Shown shown(alice);
    QTRY_VERIFY(shown.hasFocus(QStringLiteral("secret")));
    shown.type(QStringLiteral("abc"));
    QVERIFY(shown.click(QStringLiteral("info")));
    QVERIFY(shown.click(QStringLiteral("info")));
    QVERIFY(shown.click(QStringLiteral("reveal")));
    QVERIFY(shown.click(QStringLiteral("secret")));
    QTRY_VERIFY(shown.hasFocus(QStringLiteral("secret")));
    shown.press(Qt::Key_Z, Qt::ControlModifier);
    QCOMPARE(shown.text(QStringLiteral("secret")), QString());

    shown.type(QStringLiteral("abc"));
    for (int i = 0; i < 3; ++i)
        shown.press(Qt::Key_Backspace);
    shown.press(Qt::Key_Z, Qt::ControlModifier);
    QCOMPARE(shown.text(QStringLiteral("secret")), QString());
}

// All copies share the memory of the test's own, which therefore shows what becomes of it.
void TstScreen::secretIsOverwritten()
{
    const QString typed = QStringLiteral("abc");
    Shown shown(0);
    QString copy;
    const auto enter = [&] {
        QTRY_VERIFY(shown.hasFocus(QStringLiteral("secret")));
        shown.type(typed);
        copy = shown.text(QStringLiteral("secret"));
        QCOMPARE(copy, typed);
    };
    const auto isOverwritten = [&] {
        return copy == QString(typed.size(), QChar::Null);
    };
    QVERIFY(shown.click(QStringLiteral("user-alice")));
    enter();
    shown.press(Qt::Key_Return);
    QVERIFY(isOverwritten());

    // Typed, and then the page is left: for a token, the information, another user, and because the daemon has gone.
    enter();
    QVERIFY(shown.click(QStringLiteral("otherWay")));
    QVERIFY(isOverwritten());
    QVERIFY(shown.click(QStringLiteral("preButton")));
    enter();
    QVERIFY(shown.click(QStringLiteral("info")));
    QVERIFY(isOverwritten());
    QVERIFY(shown.click(QStringLiteral("info")));
    enter();
    QVERIFY(shown.click(QStringLiteral("leave")));
    QVERIFY(shown.click(QStringLiteral("user-alice")));
    QVERIFY(isOverwritten());
    enter();
    m_authd.stop(SIGKILL);
    QVERIFY(shown.find(QStringLiteral("absent")));
    QTRY_VERIFY(isOverwritten());
}

// Nor does the process hold the secret anywhere else, as a whole and as QString stores it. The test itself must not
// hold it, so it knows each character by the next one.
void TstScreen::secretIsNotHeld()
{
    const QByteArray masked = "Dpssfdu!Ipstf!Cbuufsz";
    const auto isHeld = [&masked] {
        const QByteArray memory = processMemory(getpid());
        if (memory.isNull())
            qFatal("Cannot read the memory");
        for (int i = 0; i + 2 * masked.size() <= memory.size(); i += 2) {
            int length = 0;
            while (length < masked.size() && memory.at(i + 2 * length) == masked.at(length) - 1
                   && memory.at(i + 2 * length + 1) == 0)
                ++length;
            if (length == masked.size())
                return true;
        }
        return false;
    };
    Shown shown(alice);
    QTRY_VERIFY(shown.hasFocus(QStringLiteral("secret")));
    for (const char character : masked)
        shown.type(QString(QLatin1Char(char(character - 1))));
    QVERIFY(isHeld());
    shown.press(Qt::Key_Return);
    QVERIFY(!isHeld());
    QVERIFY(shown.find(QStringLiteral("failure")));
    QVERIFY(!isHeld());
}

void TstScreen::manyCertificates()
{
    QStringList certs;
    for (int i = 0; i < 200; ++i)
        certs << cert(QStringLiteral("Person%20%1").arg(i, 3, 10, QLatin1Char('0')), QStringLiteral("token%1").arg(i));
    setCerts(certs);
    Shown shown(alice);
    QTRY_COMPARE(shown.text(QStringLiteral("count")), QStringLiteral("200 certificates"));
    VERIFY_SOUND(shown);
    shown.save(QStringLiteral("many-certificates"));
    // The field stays in sight.
    QTRY_VERIFY(shown.hasFocus(QStringLiteral("secret")));
    const QQuickItem *field = shown.find(QStringLiteral("secret"));
    QVERIFY(field->mapToScene(QPointF(0, field->height())).y() < shown.window()->height());

    // With the keyboard: search, choose, enter the PIN.
    while (!shown.hasFocus(QStringLiteral("search")))
        shown.press(Qt::Key_Tab, Qt::ShiftModifier);
    shown.type(QStringLiteral("token19"));
    QTRY_COMPARE(shown.text(QStringLiteral("count")), QStringLiteral("11 certificates"));
    shown.type(QStringLiteral("0"));
    QTRY_COMPARE(shown.text(QStringLiteral("count")), QStringLiteral("1 certificate"));
    shown.press(Qt::Key_Backspace);
    QTRY_COMPARE(shown.text(QStringLiteral("count")), QStringLiteral("11 certificates"));
    shown.press(Qt::Key_Return);
    QTRY_VERIFY(shown.hasFocus(QStringLiteral("certificates")));
    shown.press(Qt::Key_Up);
    shown.press(Qt::Key_Return);
    QVERIFY(shown.submit(wrong));
    QVERIFY(shown.find(QStringLiteral("failure")));
    QCOMPARE(lastCall().value(1), certs.at(19));

    // A PIN is for a certificate in sight only.
    QVERIFY(shown.click(QStringLiteral("search")));
    shown.type(QStringLiteral("x"));
    QVERIFY(shown.find(QStringLiteral("noMatch")));
    VERIFY_SOUND(shown);
    shown.press(Qt::Key_Down);
    QVERIFY(shown.hasFocus(QStringLiteral("search")));
    QVERIFY(shown.click(QStringLiteral("secret")));
    shown.type(right);
    QVERIFY(!shown.find(QStringLiteral("signIn"))->isEnabled());
    QVERIFY(shown.click(QStringLiteral("search")));
    shown.press(Qt::Key_Escape);
    QTRY_COMPARE(shown.text(QStringLiteral("count")), QStringLiteral("200 certificates"));
    shown.type(QStringLiteral("token77"));
    QTRY_COMPARE(shown.text(QStringLiteral("count")), QStringLiteral("1 certificate"));
    QVERIFY(shown.click(QStringLiteral("signIn")));
    QVERIFY(shown.find(QStringLiteral("welcome")));
    QCOMPARE(lastCall().value(1), certs.at(77));
}

void TstScreen::longNames_data()
{
    QTest::addColumn<QString>("name");
    QTest::newRow("words") << QStringLiteral("Alice Pleasance Liddell of Christ Church ").repeated(12).trimmed();
    QTest::newRow("one word") << QStringLiteral("Liddell").repeated(40);
}

void TstScreen::longNames()
{
    QFETCH(QString, name);
    const QString encoded = QString::fromLatin1(QUrl::toPercentEncoding(name));
    setCerts({cert(encoded, encoded, encoded), ring});
    for (const QSize &size : {QSize(320, 480), QSize(1280, 800)}) {
        Shown shown(alice, size);
        QVERIFY(shown.click(QStringLiteral("details")));
        QVERIFY(shown.allText().contains(name));
        VERIFY_SOUND(shown);
        QVERIFY(shown.click(QStringLiteral("info")));
        QVERIFY(shown.find(QStringLiteral("limit")));
        VERIFY_SOUND(shown);
    }
}

// Names come from certificates and tokens.
void TstScreen::hostileNames()
{
    setCerts({cert(QStringLiteral("%3Cb%3EAlice%3C/b%3E%0A%E2%80%AEecila"), QStringLiteral("%FF")),
              QStringLiteral("<img src=\"file:///etc/passwd\">"), QStringLiteral("pkcs11:"), QString()});
    Shown shown(alice);
    QVERIFY(shown.find(QStringLiteral("certificate-3")));
    const QString text = shown.allText();
    QVERIFY2(text.contains(QStringLiteral("<b>Alice</b>\ufffd\ufffdecila")), qPrintable(text));
    QVERIFY2(text.contains(QStringLiteral("Token: %FF")), qPrintable(text));
    QVERIFY2(text.contains(QStringLiteral("<img src=")), qPrintable(text));
    VERIFY_SOUND(shown);
}

// A token cannot push the other certificates out of reach.
void TstScreen::endlessName()
{
    setCerts({cert(QStringLiteral("X").repeated(8000), QStringLiteral("token")), badge});
    Shown shown(alice, QSize(320, 480));
    QVERIFY(shown.find(QStringLiteral("certificate-1")));
    QVERIFY(shown.allText().contains(QRegularExpression(QStringLiteral("\nX{512}…\n"))));
    VERIFY_SOUND(shown);
    shown.save(QStringLiteral("endless"));
}

// A full name can come from the user, too, and must not look like another line of the list.
void TstScreen::hostileUser()
{
    const QString file = QStringLiteral("/etc/passwd");
    const QByteArray before = TestDevice::readFile(file);
    const auto restore = qScopeGuard([&] { TestDevice::writeFile(file, before); });
    QVERIFY(TestDevice::writeFile(file, before + "mallory:x:1007:1007:<b>B\u00f6b</b>\u2028\u202ebob\a:/:/bin/sh\n"));
    const Shown shown(0);
    QVERIFY(shown.find(QStringLiteral("user-mallory")));
    QCOMPARE(shown.text(QStringLiteral("user-mallory")), QStringLiteral("<b>B\u00f6b</b>\ufffd\ufffdbob\ufffd"));
    VERIFY_SOUND(shown);
}

void TstScreen::rightToLeft()
{
    const Language language(QLocale::Arabic);
    setCerts({badge, ring});
    Shown shown(alice);
    QVERIFY(shown.find(QStringLiteral("certificate-1")));
    QTRY_VERIFY(shown.hasFocus(QStringLiteral("secret")));
    VERIFY_SOUND(shown);
    shown.save(QStringLiteral("right-to-left"));
    const auto left = [&shown](const char *name) {
        return shown.find(QLatin1String(name))->mapToScene({}).x();
    };
    QVERIFY(left("reveal") < shown.window()->width() / 3.);
    QVERIFY(left("details") < shown.window()->width() / 3.);
}

void TstScreen::german()
{
    const Language language(QLocale::German);
    setCerts({badge, ring});
    Shown shown(alice, QSize(520, 760), true);
    QVERIFY(shown.find(QStringLiteral("certificate-1")));
    QVERIFY(shown.submit(wrong));
    QVERIFY(shown.find(QStringLiteral("failure")));
    QTRY_VERIFY(shown.hasFocus(QStringLiteral("secret")));
    VERIFY_SOUND(shown);
    shown.save(QStringLiteral("german-dark"));
    const QString text = shown.allText();
    for (const char *part : {"Anmelden", "Informationen", "1. Mai 2035", "Die PIN"})
        QVERIFY2(text.contains(QLatin1String(part)), qPrintable(text));
}

void TstScreen::translations_data()
{
    QTest::addColumn<QString>("texts");
    QTest::addColumn<QStringList>("options");
    QTest::newRow("pages") << QStringLiteral("screens/i18n/kavet_de.ts") << QStringList();
    QTest::newRow("pages, English") << QStringLiteral("screens/i18n/kavet_en.ts")
                                    << QStringList{QStringLiteral("-pluralonly")};
    QTest::newRow("window") << QStringLiteral("platform/screen/i18n/authscreen_de.ts") << QStringList();
}

// Each text has a translation.
void TstScreen::translations()
{
    QFETCH(QString, texts);
    QFETCH(QStringList, options);
    const QString path = QStringLiteral(SOURCE_DIR "/") + texts;
    const QString copy = QStringLiteral("/tmp/texts.ts");
    QFile::remove(copy);
    QVERIFY(QFile::copy(path, copy));
    QCOMPARE(QProcess::execute(QStringLiteral("lupdate"),
                               options
                                   + QStringList{QStringLiteral("-silent"), QStringLiteral("-no-obsolete"),
                                                 QStringLiteral("-locations"), QStringLiteral("none"),
                                                 QFileInfo(path).path() + QStringLiteral("/.."), QStringLiteral("-ts"),
                                                 copy}),
             0);
    QCOMPARE(QString::fromUtf8(TestDevice::readFile(copy)), QString::fromUtf8(TestDevice::readFile(path)));
    QVERIFY(!TestDevice::readFile(path).contains("unfinished"));
}

void TstScreen::sizes_data()
{
    QTest::addColumn<QSize>("size");
    QTest::addColumn<int>("language");
    QTest::addColumn<qreal>("scale");
    QTest::addColumn<bool>("isDark");

    for (const QLocale::Language language : {QLocale::English, QLocale::German, QLocale::Arabic}) {
        for (const QSize &size : {QSize(320, 480), QSize(800, 900), QSize(1280, 800)}) {
            for (const qreal scale : {1., 2.})
                QTest::addRow("%s %d %g", qPrintable(QLocale::languageToString(language)), size.width(), scale)
                    << size << int(language) << scale << (scale > 1);
        }
    }
}

// The main states at all sizes: nothing is cut off, and each can be reached.
void TstScreen::sizes()
{
    QFETCH(QSize, size);
    QFETCH(int, language);
    QFETCH(qreal, scale);
    QFETCH(bool, isDark);

    const Language set{QLocale::Language(language)};
    const QFont before = QGuiApplication::font();
    QFont font = before;
    font.setPointSizeF(font.pointSizeF() * scale);
    QGuiApplication::setFont(font);
    const auto restore = qScopeGuard([before] { QGuiApplication::setFont(before); });
    const QString name = QString::fromLatin1(QTest::currentDataTag()).replace(QLatin1Char(' '), QLatin1Char('-'));

    setLimit(2);
    setCerts({badge, ring});
    Shown shown(0, size, isDark);
    QVERIFY(shown.find(QStringLiteral("user-carol")));
    VERIFY_SOUND(shown);
    shown.save(name + QStringLiteral("-greeter"));
    QTRY_VERIFY(shown.hasFocus(QStringLiteral("user-alice")));
    shown.press(Qt::Key_Return);
    QVERIFY(shown.find(QStringLiteral("certificate-1")));
    QVERIFY(shown.submit(wrong));
    QVERIFY(shown.find(QStringLiteral("failure")));
    QTRY_VERIFY(shown.hasFocus(QStringLiteral("secret")));
    VERIFY_SOUND(shown);
    // What has the focus is in sight, and so is the end of the message above it.
    const QQuickItem *field = shown.find(QStringLiteral("secret"));
    const QQuickItem *message = shown.find(QStringLiteral("messageText"));
    const auto bottom = [](const QQuickItem *item) {
        return item->mapToScene(QPointF(0, item->height())).y();
    };
    QTRY_VERIFY(field->mapToScene({}).y() >= 0 && bottom(field) <= shown.window()->height());
    QVERIFY(bottom(message) > 0 && bottom(message) < field->mapToScene({}).y());
    shown.save(name + QStringLiteral("-pin"));
    while (!shown.hasFocus(QStringLiteral("info")))
        shown.press(Qt::Key_Tab);
    shown.press(Qt::Key_Return);
    QVERIFY(shown.find(QStringLiteral("limit")));
    VERIFY_SOUND(shown);
    shown.save(name + QStringLiteral("-info"));
}

int main(int argc, char *argv[])
{
    removeOtherUsers();
    startDisplay();
    const QGuiApplication application(argc, argv);
    QLocale::setDefault(QLocale::English);
    TstScreen test;
    return QTest::qExec(&test, argc, argv);
}

#include "tst_screen.moc"
