// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#include "methodfixture.h"
#include "support/logcapture.h"

#include <QTest>

/// A client that never replies. A separate program, because the D-Bus library gives up a call only after its default
/// timeout of 25 s. The two calls wait at the same time.
class TstClientTimeout : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase() { TestDevice::reset(); }
    void neverAnswered();
};

void TstClientTimeout::neverAnswered()
{
    using Call = RecordingDaemon::Call;

    MethodFixture fixture;
    QVERIFY(fixture.link({{QStringLiteral("certsAnswer"), QStringLiteral("never")}}));
    QCOMPARE(fixture.d->clientInterface->timeout(), -1); // the library's default
    LogCapture log;

    fixture.d->checkPassword(QStringLiteral("never"));
    QCOMPARE(fixture.d->getCertList(), QStringList{QStringLiteral(".")});
    QTRY_COMPARE(MethodFixture::calledMethods().size(), 2);
    QVERIFY(fixture.told().isEmpty());

    QTRY_VERIFY_WITH_TIMEOUT(!fixture.isWaiting(), 120000);
    const QString noReply =
        QStringLiteral("Did not receive a reply. Possible causes include: the remote application did not send a reply, "
                       "the message bus security policy blocked the reply, the reply timeout expired, or the network "
                       "connection was broken.");
    const QString error = QStringLiteral("QDBusError(\"org.freedesktop.DBus.Error.NoReply\", \"%1\")").arg(noReply);
    QStringList warnings = log.warnings();
    warnings.sort();
    QCOMPARE(warnings, QStringList({QStringLiteral("checkPassword failed: ") + error,
                                    QStringLiteral("getCertList failed: \"%1\"").arg(noReply)}));

    const Call broken =
        RecordingDaemon::failed(SettingsKavet::EnterPasswordOrPin, SettingsKavet::CannotCommunicateClient);
    QCOMPARE(fixture.daemon.outcomes(), QVector<Call>{broken});
    QCOMPARE(fixture.told().size(), 2);
    QVERIFY(
        fixture.told().contains({QStringLiteral("optionChanged"), {0U, QStringLiteral("certs"), QStringList(), true}}));
    QVERIFY(!fixture.d->certListInFlight);

    // The link is still up, and the client can be called again.
    fixture.daemon.calls.clear();
    fixture.d->checkPassword(QStringLiteral("success"));
    QTRY_COMPARE(fixture.told(), QVector<Call>{RecordingDaemon::succeeded()});
    QCOMPARE(TestDevice::launches().size(), 1);
}

QTEST_GUILESS_MAIN(TstClientTimeout)
#include "tst_clienttimeout.moc"
