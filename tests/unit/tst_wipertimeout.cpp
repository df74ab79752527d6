// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#include "plugin/methodkavet.h"
#include "plugin/methodkavetprivate.h"
#include "support/logcapture.h"
#include "support/recordingdaemon.h"
#include "support/testdevice.h"
#include "support/wiper.h"

#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusPendingCallWatcher>
#include <QTest>

// A separate program, because it waits for the D-Bus library's timeout.
class TstWiperTimeout : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void neverAnswered()
    {
        QVERIFY(startSystemBus());
        TestDevice::reset();
        Wiper wiper;
        QVERIFY(wiper.start());
        wiper.setScript({{QStringLiteral("alice"), QStringLiteral("never")}});
        RecordingDaemon daemon;
        MethodKavet method;
        QVERIFY(method.setOptionInternal(TestDevice::alice, QStringLiteral("delayed-deletion"), true));
        method.setNotificator(&daemon);

        // Only the library's own timeout applies: the call ends between two that have it.
        const QDBusMessage call = QDBusMessage::createMethodCall(
            QStringLiteral("qarv.userdata.wiper"), QStringLiteral("/qarv/userdata/wiper"),
            QStringLiteral("qarv.userdata.wiper"), QStringLiteral("ProcessTargetUser"));
        const LogCapture log;
        QVector<int> warningsAtEnd;
        const auto callAsWell = [&] {
            QDBusMessage sameCall = call;
            sameCall.setArguments({QStringLiteral("alice")});
            auto *watcher = new QDBusPendingCallWatcher(QDBusConnection::systemBus().asyncCall(sameCall), &method);
            // It ends with the method, and no event loop runs after this function.
            connect(watcher, &QDBusPendingCallWatcher::finished, watcher,
                    [&] { warningsAtEnd << log.warnings().size(); }); // clazy:exclude=lambda-in-connect
        };
        callAsWell();
        method.findChild<MethodKavetPrivate *>()->removeUserDataInternal(TestDevice::alice, QStringLiteral("alice"));
        callAsWell();
        QTRY_COMPARE_WITH_TIMEOUT(warningsAtEnd.size(), 2, 120000);
        QCOMPARE(warningsAtEnd, QVector<int>({0, 1}));
        QCOMPARE(log.warnings().size(), 1);
        const QString text = log.warnings().constFirst();
        QVERIFY2(text.startsWith(QStringLiteral("Call \"ProcessTargetUser\" to \"qarv.userdata.wiper\" failed: \""
                                                "Did not receive a reply.")),
                 qPrintable(text));
        QCOMPARE(wiper.calls(), QVector<QJsonObject>(3, Wiper::callFor(QStringLiteral("alice"))));
        QCOMPARE(daemon.calls, QVector<RecordingDaemon::Call>());
        QCOMPARE(method.getOptionInternal(TestDevice::alice, QStringLiteral("delayed-deletion")), QVariant(true));
    }
};

QTEST_GUILESS_MAIN(TstWiperTimeout)
#include "tst_wipertimeout.moc"
