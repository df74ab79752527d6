// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#include "plugin/methodkavet.h"
#include "plugin/methodkavetprivate.h"
#include "support/logcapture.h"
#include "support/recordingdaemon.h"
#include "support/testdevice.h"

#include <QDBusPendingCallWatcher>
#include <QTest>

// A separate program, because a process looks for the system bus only once.
class TstNoSystemBus : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void removal()
    {
        TestDevice::reset();
        RecordingDaemon daemon;
        MethodKavet method;
        auto *d = method.findChild<MethodKavetPrivate *>();
        QVERIFY(method.setOptionInternal(TestDevice::alice, QStringLiteral("delayed-deletion"), true));
        method.setNotificator(&daemon);

        for (int attempt = 0; attempt < 2; ++attempt) {
            const LogCapture log;
            method.handleUserSessionTriggered(TestDevice::alice, true, true);
            // The reply is asynchronous, as with any other call.
            QVERIFY(log.lines().isEmpty());
            QTRY_COMPARE(log.warnings(),
                         QStringList{QStringLiteral("Call \"ProcessTargetUser\" to \"qarv.userdata.wiper\" failed: "
                                                    "\"Not connected to the system bus\"")});
            QTRY_VERIFY(d->findChildren<QDBusPendingCallWatcher *>().isEmpty());
            QCOMPARE(daemon.calls, QVector<RecordingDaemon::Call>());
            QCOMPARE(method.getOptionInternal(TestDevice::alice, QStringLiteral("delayed-deletion")), QVariant(true));
        }
    }
};

QTEST_GUILESS_MAIN(TstNoSystemBus)
#include "tst_nosystembus.moc"
