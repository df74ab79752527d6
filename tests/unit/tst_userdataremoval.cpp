// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#include "plugin/methodkavet.h"
#include "plugin/methodkavetprivate.h"
#include "settings/userconfigpath.h"
#include "support/logcapture.h"
#include "support/recordingdaemon.h"
#include "support/testdevice.h"
#include "support/wiper.h"

#include <QDBusPendingCallWatcher>
#include <QLoggingCategory>
#include <QTest>

#include <csignal>
#include <memory>

namespace {

using Call = RecordingDaemon::Call;
using Calls = QVector<Call>;

const QString delayedDeletion = QStringLiteral("delayed-deletion");
const QString alice = QStringLiteral("alice");
const QString bob = QStringLiteral("bob");
const QString carol = QStringLiteral("carol");

Call cleared(uint uid)
{
    return {QStringLiteral("optionChanged"), {uid, delayedDeletion, false, false}};
}

LogCapture::Line warning(const QString &message)
{
    return {QtWarningMsg, QStringLiteral("authd.method.kavet"),
            QStringLiteral("Call \"ProcessTargetUser\" to \"qarv.userdata.wiper\" failed: \"%1\"").arg(message)};
}

using Lines = QVector<LogCapture::Line>;

/// The method, with all three users marked.
struct Fixture
{
    RecordingDaemon daemon;
    std::unique_ptr<MethodKavet> method = std::make_unique<MethodKavet>();
    MethodKavetPrivate *const d = method->findChild<MethodKavetPrivate *>();

    Fixture()
    {
        for (const uint uid : {TestDevice::alice, TestDevice::bob, TestDevice::carol})
            method->setOptionInternal(uid, delayedDeletion, true);
        method->setNotificator(&daemon);
    }
    bool isMarked(uint uid) { return method->getOptionInternal(uid, delayedDeletion).toBool(); }
    int callsInFlight() { return d->findChildren<QDBusPendingCallWatcher *>().size(); }
};

} // namespace

class TstUserDataRemoval : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase() { QVERIFY(startSystemBus()); }
    void init() { TestDevice::reset(); }

    void success_data()
    {
        QTest::addColumn<QString>("word");
        QTest::newRow("success") << QStringLiteral("success");
        QTest::newRow("with values") << QStringLiteral("values");
    }
    void success()
    {
        QFETCH(QString, word);
        Wiper wiper;
        QVERIFY(wiper.start());
        wiper.setScript({{alice, word}});
        Fixture fixture;
        // The session's user does not matter.
        fixture.d->currentUid = TestDevice::bob;
        fixture.d->child.uid = TestDevice::carol;

        const LogCapture log;
        fixture.d->removeUserDataInternal(TestDevice::alice, alice);
        QTRY_COMPARE(fixture.daemon.calls, Calls{cleared(TestDevice::alice)});
        QCOMPARE(wiper.calls(), QVector<QJsonObject>{Wiper::callFor(alice)});
        const QVariant mark = fixture.method->getOptionInternal(TestDevice::alice, delayedDeletion);
        QCOMPARE(mark.userType(), int(QMetaType::Bool));
        QCOMPARE(mark.toBool(), false);
        // The mark is stored as false, not removed.
        QCOMPARE(TestDevice::readFile(Authd::getUserConfigFilePath(TestDevice::alice)),
                 QByteArray("[kavet]\ndelayed-deletion=false\n"));
        QVERIFY(fixture.isMarked(TestDevice::bob));
        QVERIFY(fixture.isMarked(TestDevice::carol));
        QVERIFY(log.lines().isEmpty());
        QTRY_COMPARE(fixture.callsInFlight(), 0);
    }

    void userNames_data()
    {
        QTest::addColumn<QString>("name");
        QTest::newRow("of another") << QStringLiteral("somebody");
        QTest::newRow("not ASCII") << QString::fromUtf8("j\xc3\xbcrgen");
        QTest::newRow("spaces") << QStringLiteral("a user; rm -rf /tmp");
        QTest::newRow("empty") << QString();
        QTest::newRow("long") << QString(10000, QLatin1Char('x'));
    }
    void userNames()
    {
        QFETCH(QString, name);
        Wiper wiper;
        QVERIFY(wiper.start());
        wiper.setScript({{name, QStringLiteral("success")}});
        Fixture fixture;
        fixture.d->removeUserDataInternal(TestDevice::bob, name);
        QTRY_COMPARE(fixture.daemon.calls, Calls{cleared(TestDevice::bob)});
        QCOMPARE(wiper.calls(), QVector<QJsonObject>{Wiper::callFor(name.isNull() ? QLatin1String("") : name)});
    }

    void error_data()
    {
        QTest::addColumn<QString>("word");
        QTest::addColumn<QString>("message");
        QTest::newRow("error") << QStringLiteral("error") << QStringLiteral("Cannot wipe alice");
        QTest::newRow("vanishes") << QStringLiteral("vanish")
                                  << QStringLiteral("Message recipient disconnected from message bus without replying");
        QTest::newRow("not there") << QString()
                                   << QStringLiteral("The name qarv.userdata.wiper was not provided by any .service "
                                                     "files");
    }
    void error()
    {
        QFETCH(QString, word);
        QFETCH(QString, message);
        Wiper wiper;
        if (!word.isNull())
            QVERIFY(wiper.start());
        wiper.setScript({{alice, word}});
        Fixture fixture;

        LogCapture log;
        fixture.d->removeUserDataInternal(TestDevice::alice, alice);
        QTRY_COMPARE(log.lines(), Lines{warning(message)});
        QTRY_COMPARE(fixture.callsInFlight(), 0);
        QCOMPARE(fixture.daemon.calls, Calls());
        QVERIFY(fixture.isMarked(TestDevice::alice));

        // The next call may succeed.
        wiper.stop();
        QVERIFY(wiper.start());
        wiper.setScript({{alice, QStringLiteral("success")}});
        fixture.d->removeUserDataInternal(TestDevice::alice, alice);
        QTRY_COMPARE(fixture.daemon.calls, Calls{cleared(TestDevice::alice)});
        QCOMPARE(log.lines().size(), 1);
    }

    void warningsOff()
    {
        Wiper wiper;
        QVERIFY(wiper.start());
        wiper.setScript({{alice, QStringLiteral("error")}, {bob, QStringLiteral("success")}});
        Fixture fixture;
        const LogCapture log;
        QLoggingCategory::setFilterRules(QStringLiteral("authd.method.kavet.warning=false"));
        fixture.d->removeUserDataInternal(TestDevice::alice, alice);
        QTRY_COMPARE(fixture.callsInFlight(), 0);
        QVERIFY(log.lines().isEmpty());
        QVERIFY(fixture.isMarked(TestDevice::alice));
    }

    void returnsAtOnce()
    {
        Wiper wiper;
        QVERIFY(wiper.start());
        wiper.setScript({{alice, QStringLiteral("late")}});
        Fixture fixture;
        fixture.d->removeUserDataInternal(TestDevice::alice, alice);
        QCOMPARE(fixture.callsInFlight(), 1);
        QTRY_COMPARE(wiper.calls().size(), 1);
        QCOMPARE(fixture.daemon.calls, Calls());
        QVERIFY(fixture.isMarked(TestDevice::alice));
        wiper.answer(alice);
        QTRY_COMPARE(fixture.daemon.calls, Calls{cleared(TestDevice::alice)});
        QTRY_COMPARE(fixture.callsInFlight(), 0);
    }

    void severalInFlight()
    {
        Wiper wiper;
        QVERIFY(wiper.start());
        wiper.setScript(
            {{alice, QStringLiteral("late")}, {bob, QStringLiteral("lateError")}, {carol, QStringLiteral("late")}});
        Fixture fixture;
        fixture.d->removeUserDataInternal(TestDevice::alice, alice);
        fixture.d->removeUserDataInternal(TestDevice::bob, bob);
        fixture.d->removeUserDataInternal(TestDevice::carol, carol);
        QCOMPARE(fixture.callsInFlight(), 3);
        QTRY_COMPARE(wiper.calls(),
                     QVector<QJsonObject>({Wiper::callFor(alice), Wiper::callFor(bob), Wiper::callFor(carol)}));
        QCOMPARE(fixture.daemon.calls, Calls());

        const LogCapture log;
        wiper.answer(carol);
        QTRY_COMPARE(fixture.daemon.calls, Calls{cleared(TestDevice::carol)});
        QTRY_COMPARE(fixture.callsInFlight(), 2);
        QVERIFY(fixture.isMarked(TestDevice::alice));
        QVERIFY(fixture.isMarked(TestDevice::bob));

        wiper.answer(bob);
        QTRY_COMPARE(log.lines(), Lines{warning(QStringLiteral("Cannot wipe bob"))});
        QTRY_COMPARE(fixture.callsInFlight(), 1);
        QVERIFY(fixture.isMarked(TestDevice::bob));

        wiper.answer(alice);
        QTRY_COMPARE(fixture.daemon.calls, Calls({cleared(TestDevice::carol), cleared(TestDevice::alice)}));
        QTRY_COMPARE(fixture.callsInFlight(), 0);
        QVERIFY(fixture.isMarked(TestDevice::bob));
    }

    void destroyedMeanwhile_data()
    {
        QTest::addColumn<QString>("word");
        QTest::newRow("success") << QStringLiteral("late");
        QTest::newRow("error") << QStringLiteral("lateError");
    }
    void destroyedMeanwhile()
    {
        QFETCH(QString, word);
        Wiper wiper;
        QVERIFY(wiper.start());
        wiper.setScript({{alice, word}, {bob, QStringLiteral("success")}});
        Fixture fixture;
        const LogCapture log;
        fixture.d->removeUserDataInternal(TestDevice::alice, alice);
        QTRY_COMPARE(wiper.calls().size(), 1);
        fixture.method.reset();
        wiper.answer(alice);

        // A later reply on the same connection proves that the first has been delivered.
        Fixture other;
        other.d->removeUserDataInternal(TestDevice::bob, bob);
        QTRY_COMPARE(other.daemon.calls, Calls{cleared(TestDevice::bob)});
        QCOMPARE(fixture.daemon.calls, Calls());
        QVERIFY(other.isMarked(TestDevice::alice));
        QVERIFY(log.lines().isEmpty());
    }

    void sessionStart_data()
    {
        QTest::addColumn<uint>("uid");
        QTest::addColumn<QString>("name"); // the user's name; null: no call
        QTest::addColumn<QVariant>("mark");
        QTest::addColumn<bool>("started");
        QTest::addColumn<bool>("manageClient");
        QTest::newRow("marked") << TestDevice::alice << alice << QVariant(true) << true << true;
        QTest::newRow("another") << TestDevice::bob << bob << QVariant(true) << true << true;
        QTest::newRow("not marked") << TestDevice::alice << QString() << QVariant(false) << true << true;
        QTest::newRow("never marked") << TestDevice::alice << QString() << QVariant() << true << true;
        QTest::newRow("stopped") << TestDevice::alice << QString() << QVariant(true) << false << true;
        QTest::newRow("client not managed") << TestDevice::alice << QString() << QVariant(true) << true << false;
        QTest::newRow("before the first start") << TestDevice::carol << QString() << QVariant(true) << true << true;
        QTest::newRow("no such user") << 54321u << QString() << QVariant(true) << true << true;
    }
    void sessionStart()
    {
        QFETCH(uint, uid);
        QFETCH(QString, name);
        QFETCH(QVariant, mark);
        QFETCH(bool, started);
        QFETCH(bool, manageClient);
        Wiper wiper;
        QVERIFY(wiper.start());
        wiper.setScript(
            {{alice, QStringLiteral("success")}, {bob, QStringLiteral("success")}, {carol, QStringLiteral("success")}});
        Fixture fixture;
        fixture.method->setNotificator(nullptr);
        fixture.method->setOptionInternal(uid, delayedDeletion, mark);
        fixture.method->setNotificator(&fixture.daemon);

        fixture.method->handleUserSessionTriggered(uid, started, manageClient);
        QCOMPARE(fixture.callsInFlight(), name.isNull() ? 0 : 1);
        if (!name.isNull()) {
            QTRY_COMPARE(fixture.daemon.calls, Calls{cleared(uid)});
            QCOMPARE(wiper.calls(), QVector<QJsonObject>{Wiper::callFor(name)});
        }
    }

    /// This test must be the last, because it ends the process's bus.
    void busGoesAway()
    {
        Wiper wiper;
        QVERIFY(wiper.start());
        wiper.setScript({{alice, QStringLiteral("late")}});
        Fixture fixture;
        LogCapture log;
        fixture.d->removeUserDataInternal(TestDevice::alice, alice);
        QTRY_COMPARE(wiper.calls().size(), 1);

        const pid_t bus = TestDevice::readFile(QStringLiteral("/run/dbus/pid")).trimmed().toInt();
        QVERIFY(bus > 1);
        QCOMPARE(kill(bus, SIGKILL), 0);
        const QString failed = QStringLiteral("Call \"ProcessTargetUser\" to \"qarv.userdata.wiper\" failed: \"");
        QTRY_COMPARE(log.warnings().size(), 1);
        QVERIFY2(log.warnings().at(0).startsWith(failed), qPrintable(log.warnings().at(0)));
        QTRY_COMPARE(fixture.callsInFlight(), 0);

        log.clear();
        fixture.d->removeUserDataInternal(TestDevice::alice, alice);
        QTRY_COMPARE(log.lines(), Lines{warning(QStringLiteral("Not connected to the system bus"))});
        QTRY_COMPARE(fixture.callsInFlight(), 0);
        QVERIFY(fixture.isMarked(TestDevice::alice));
        QCOMPARE(fixture.daemon.calls, Calls());
    }
};

QTEST_GUILESS_MAIN(TstUserDataRemoval)
#include "tst_userdataremoval.moc"
