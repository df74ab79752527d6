// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#include "methodfixture.h"

#include <authd/libauthd.h>

#include <QTest>

// Replace the daemon library's functions, as on a device where the two maps share a key. A separate program, because
// they replace them for the whole program.
QMap<QString, QVariant> LibAuthd::inputRequestParams(int request)
{
    return {{QStringLiteral("request"), request}, {QStringLiteral("both"), QStringLiteral("from the request")}};
}

QMap<QString, QVariant> LibAuthd::resultCodeParams(int code)
{
    return {{QStringLiteral("both"), QStringLiteral("from the result")},
            {QStringLiteral("code"), code},
            {QStringLiteral("zone"), QStringLiteral("last")}};
}

class TstRequestParams : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase() { TestDevice::reset(); }
    void resultReplacesRequest_data();
    void resultReplacesRequest();
};

void TstRequestParams::resultReplacesRequest_data()
{
    QTest::addColumn<int>("request");
    QTest::addColumn<int>("code");
    QTest::newRow("asked") << 2 << 0;
    QTest::newRow("asked without connection") << 0 << 0;
    QTest::newRow("failed") << 2 << 11;
    QTest::newRow("failed while connecting") << 1 << 3;
}

void TstRequestParams::resultReplacesRequest()
{
    QFETCH(int, request);
    QFETCH(int, code);
    MethodFixture fixture;
    fixture.d->requestInput(SettingsKavet::InputRequest(request), SettingsKavet::ResultCode(code));

    const MethodFixture::AuthData params = {{QStringLiteral("request"), request},
                                            {QStringLiteral("both"), QStringLiteral("from the result")},
                                            {QStringLiteral("code"), code},
                                            {QStringLiteral("zone"), QStringLiteral("last")}};
    const RecordingDaemon::Call expected = code == 0 ? RecordingDaemon::Call{QStringLiteral("inputRequested"), {params}}
                                                     : RecordingDaemon::Call{QStringLiteral("finish"), {false, params}};
    QCOMPARE(fixture.daemon.calls, QVector<RecordingDaemon::Call>{expected});
}

QTEST_GUILESS_MAIN(TstRequestParams)
#include "tst_requestparams.moc"
