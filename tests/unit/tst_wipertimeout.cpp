// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#include "plugin/methodkavet.h"
#include "plugin/methodkavetprivate.h"
#include "support/logcapture.h"
#include "support/recordingdaemon.h"
#include "support/testdevice.h"
#include "support/wiper.h"

#include <QElapsedTimer>
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

        const LogCapture log;
        QElapsedTimer elapsed;
        elapsed.start();
        method.findChild<MethodKavetPrivate *>()->removeUserDataInternal(TestDevice::alice, QStringLiteral("alice"));
        QTRY_COMPARE_WITH_TIMEOUT(log.warnings().size(), 1, 120000);
        const QString text = log.warnings().constFirst();
        QVERIFY2(text.startsWith(QStringLiteral("Call \"ProcessTargetUser\" to \"qarv.userdata.wiper\" failed: \""
                                                "Did not receive a reply.")),
                 qPrintable(text));
        // Only the library's own timeout applies.
        QVERIFY(elapsed.elapsed() > 20000);
        QCOMPARE(wiper.calls(), QVector<QJsonObject>{Wiper::callFor(QStringLiteral("alice"))});
        QCOMPARE(daemon.calls, QVector<RecordingDaemon::Call>());
        QCOMPARE(method.getOptionInternal(TestDevice::alice, QStringLiteral("delayed-deletion")), QVariant(true));
    }
};

QTEST_GUILESS_MAIN(TstWiperTimeout)
#include "tst_wipertimeout.moc"
