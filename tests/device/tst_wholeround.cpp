// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#include "device/installed.h"
#include "support/logcapture.h"
#include "support/recordingdaemon.h"
#include "support/testdevice.h"
#include "support/wiper.h"

#include <authd/authplugininterface.h>

#include <QDBusConnection>
#include <QDBusMessage>
#include <QPluginLoader>
#include <QTest>

namespace {

using Call = RecordingDaemon::Call;
using Calls = QVector<Call>;

constexpr uint alice = TestDevice::alice;
constexpr int enterPasswordOrPin = 2;
constexpr int badPassword = 1;
constexpr int tooManyAttempts = 7;
constexpr int authFailed = 11;

const QString maxAttempts = QStringLiteral("max-attempts");
const QString attempts = QStringLiteral("attempts");
const QString delayedDeletion = QStringLiteral("delayed-deletion");
const QString userFile = TestDevice::sharedDirectory + QStringLiteral("/1000.conf");

Call stored(uint uid, const QString &option, const QVariant &value)
{
    return {QStringLiteral("optionChanged"), {uid, option, value, false}};
}

/// Sets `key` in `file` with the client's identity and rights.
bool writeAsClient(const QString &file, const QString &key, int value)
{
    return QProcess::execute(QStringLiteral("setpriv"),
                             {QStringLiteral("--reuid=alice"), QStringLiteral("--regid=auth-factor"),
                              QStringLiteral("--clear-groups"), QStringLiteral("sh"), QStringLiteral("-c"),
                              QStringLiteral("printf '[General]\\n%s=%s\\n' \"$2\" \"$3\" > \"$1\""),
                              QStringLiteral("sh"), file, key, QString::number(value)})
           == 0;
}

} // namespace

/// From the limit in the package's policy to the removal of the user's data: the plugin as the daemon loads it, its
/// options in their files, the client's files written by the client's user, and the wiper on the system bus.
class TstWholeRound : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase() { QVERIFY(startSystemBus()); }
    void init() { TestDevice::reset(); }

    void limitReached()
    {
        Wiper wiper;
        QVERIFY(wiper.start());
        QVERIFY(TestDevice::writeSetting(TestDevice::packagedPolicy, maxAttempts, QStringLiteral("3")));
        const QString go = QStringLiteral("/tmp/scripted-client/go");
        TestDevice::setScript({{QStringLiteral("socket"), go}});

        QPluginLoader loader(Installed::plugin);
        auto *method = qobject_cast<AuthPluginInterface *>(loader.instance());
        QVERIFY2(method, qPrintable(loader.errorString()));
        RecordingDaemon daemon;
        method->setNotificator(&daemon);
        const auto option = [&method](uint uid, const QString &name) {
            return method->getOptionInternal(uid, name);
        };
        QCOMPARE(option(0, maxAttempts), QVariant(QStringLiteral("3")));
        QCOMPARE(method->getAttempts(alice), 3);

        method->handleUserSessionTriggered(alice, true, true);
        QCOMPARE(daemon.calls, Calls());

        // Three failures. The method compares the limit with its computed count, which is always 0, so it never reaches
        // the limit of 3 itself. The client counts the failures in its own file, and the daemon's option follows that
        // file.
        for (int failure = 1; failure <= 3; ++failure) {
            const bool last = failure == 3;
            daemon.calls.clear();
            method->reset();
            method->authenticate(
                alice, {{QStringLiteral("password"), last ? QStringLiteral("remove") : QStringLiteral("failed")}});
            if (failure == 1) {
                // The method learns that the process runs before the socket appears.
                QTRY_COMPARE(TestDevice::launches().size(), 1);
                QCoreApplication::processEvents();
                QVERIFY(TestDevice::writeFile(go, {}));
            }
            QTRY_COMPARE(daemon.outcomes(),
                         Calls{RecordingDaemon::failed(enterPasswordOrPin, last ? tooManyAttempts : authFailed)});

            QCOMPARE(method->increaseAttempts(alice), badPassword);
            QCOMPARE(option(alice, attempts), QVariant(1));
            QVERIFY(writeAsClient(userFile, attempts, failure));
            QTRY_COMPARE(option(alice, attempts), QVariant(QString::number(failure)));
            QCOMPARE(method->getAttempts(alice), 3);
            QCOMPARE(daemon.callsOf(QStringLiteral("lockUser")), Calls());
            QCOMPARE(option(alice, delayedDeletion), QVariant(false));
        }
        QCOMPARE(TestDevice::launches().size(), 1);

        // After the third failure, the client lowers the limit to 1, so that the next failure reaches it.
        QVERIFY(writeAsClient(TestDevice::currentPolicy, maxAttempts, 1));
        QTRY_COMPARE(option(0, maxAttempts), QVariant(QStringLiteral("1")));
        QCOMPARE(method->getAttempts(alice), 1);
        method->reset();
        daemon.calls.clear();
        method->authenticate(alice, {{QStringLiteral("password"), QStringLiteral("remove")}});
        QTRY_COMPARE(daemon.outcomes(), Calls{RecordingDaemon::failed(enterPasswordOrPin, tooManyAttempts)});

        daemon.calls.clear();
        LogCapture log;
        QCOMPARE(method->increaseAttempts(alice), tooManyAttempts);
        const Calls lockout = {
            stored(alice, attempts, 1),
            {QStringLiteral("logEvent"),
             {QStringLiteral("WARN_LEVEL"), QStringLiteral("devlock-attempts-expired"), QString()}},
            stored(alice, attempts, 0),
            {QStringLiteral("lockUser"), {alice, true, QStringLiteral("kavet-max-attempts"), 4294967295u}},
            stored(alice, delayedDeletion, true)};
        QCOMPARE(daemon.calls, lockout);
        QCOMPARE(log.warnings(), QStringList{QStringLiteral("increaseAttempts Max attempts reached 1000 1 1")});
        QCOMPARE(wiper.calls().size(), 0);

        const auto stopSession = [&] {
            method->handleUserSessionTriggered(alice, false, true);
            method->reset();
        };
        stopSession();
        QTRY_COMPARE(daemon.callsOf(QStringLiteral("restartAuth")).size(), 1);

        // The wiper fails: the mark stays, even after a restart of the daemon.
        wiper.setScript({{QStringLiteral("alice"), QStringLiteral("error")}});
        log.clear();
        method->handleUserSessionTriggered(alice, true, true);
        QTRY_COMPARE(log.warnings(),
                     QStringList{QStringLiteral("Call \"ProcessTargetUser\" to \"qarv.userdata.wiper\" failed: "
                                                "\"Cannot wipe alice\"")});
        QCOMPARE(wiper.calls(), QVector<QJsonObject>(1, Wiper::callFor(QStringLiteral("alice"))));
        QCOMPARE(option(alice, delayedDeletion), QVariant(true));
        stopSession();
        delete method;
        method = qobject_cast<AuthPluginInterface *>(loader.instance());
        QVERIFY2(method, qPrintable(loader.errorString()));
        method->setNotificator(&daemon);
        QCOMPARE(option(alice, delayedDeletion), QVariant(true));
        QCOMPARE(option(0, maxAttempts), QVariant(QStringLiteral("1")));

        // The wiper succeeds: the mark is removed. No other user was ever marked.
        wiper.setScript({{QStringLiteral("alice"), QStringLiteral("success")}});
        daemon.calls.clear();
        method->handleUserSessionTriggered(alice, true, true);
        QTRY_VERIFY(daemon.calls.contains(stored(alice, delayedDeletion, false)));
        QCOMPARE(wiper.calls(), QVector<QJsonObject>(2, Wiper::callFor(QStringLiteral("alice"))));
        QCOMPARE(option(alice, delayedDeletion), QVariant(false));
        QCOMPARE(option(TestDevice::bob, delayedDeletion), QVariant(false));
        stopSession();

        // The wiper is called only once. The bus keeps messages in order, so a call would arrive before the ping.
        method->handleUserSessionTriggered(alice, true, true);
        const QDBusMessage ping =
            QDBusMessage::createMethodCall(QStringLiteral("qarv.userdata.wiper"), QStringLiteral("/"),
                                           QStringLiteral("org.freedesktop.DBus.Peer"), QStringLiteral("Ping"));
        QCOMPARE(QDBusConnection::systemBus().call(ping).type(), QDBusMessage::ReplyMessage);
        QCOMPARE(wiper.calls().size(), 2);
        delete method;
    }
};

QTEST_GUILESS_MAIN(TstWholeRound)
#include "tst_wholeround.moc"
