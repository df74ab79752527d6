// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#include "methodfixture.h"
#include "support/logcapture.h"

#include <QFile>
#include <QTest>

#include <functional>
#include <limits>
#include <utility>

Q_DECLARE_METATYPE(RecordingDaemon::Call)

namespace {

using Call = RecordingDaemon::Call;
using AuthData = MethodFixture::AuthData;

const QString luksConfiguration = QStringLiteral("/etc/authd/luks.conf");
const QString password = QStringLiteral("password");
const QString cert = QStringLiteral("cert");
const QString pin = QStringLiteral("pin");
const QString success = QStringLiteral("success");

// Simulates a device whose encrypted partition is locked.
bool lockPartition()
{
    return TestDevice::writeFile(luksConfiguration, "[Partition]\nDevice=kavet-test-inactive\n");
}

Call askedWithoutConnection()
{
    return RecordingDaemon::asked(SettingsKavet::EnterPasswordOrPinWithoutConnection);
}

Call asked()
{
    return RecordingDaemon::asked(SettingsKavet::EnterPasswordOrPin);
}

/// A daemon that makes another request at once when it is told the first outcome.
class InsistentDaemon : public RecordingDaemon
{
public:
    std::function<void()> requestAgain;

    void succeed(const QString &method) override
    {
        RecordingDaemon::succeed(method);
        insist();
    }
    void finish(const QString &method, bool succeeded, const QMap<QString, QVariant> &params) override
    {
        RecordingDaemon::finish(method, succeeded, params);
        insist();
    }
    void inputRequested(const QString &method, const QMap<QString, QVariant> &params) override
    {
        RecordingDaemon::inputRequested(method, params);
        insist();
    }

private:
    void insist()
    {
        if (const auto request = std::exchange(requestAgain, {}))
            request();
    }
};

} // namespace

class TstAuthFlow : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init();

    void partitionLocked_data();
    void partitionLocked();
    void partitionLockedWhileLaunching();
    void noUser_data();
    void noUser();
    void clientStarting_data();
    void clientStarting();
    void unknownStage_data();
    void unknownStage();

    void launch();
    void launchedAlready();
    void cannotStart_data();
    void cannotStart();
    void cannotConnect();
    void wholeFlow();

    void pendingData_data();
    void pendingData();
    void noPendingData();
    void latestDataCounts();
    void dataSentOnce();
    void requestFromWithin_data();
    void requestFromWithin();

    void answer_data();
    void answer();
    void requestInput_data();
    void requestInput();
    void countsNoAttempts();
};

void TstAuthFlow::init()
{
    TestDevice::reset();
    QFile::remove(luksConfiguration);
}

void TstAuthFlow::partitionLocked_data()
{
    QTest::addColumn<int>("stage");
    QTest::addColumn<uint>("uid");
    QTest::newRow("client to be launched") << 1 << TestDevice::alice;
    QTest::newRow("client to be connected") << 2 << TestDevice::alice;
    QTest::newRow("client linked") << 3 << TestDevice::alice;
    QTest::newRow("no user") << 1 << 0U;
}

void TstAuthFlow::partitionLocked()
{
    QFETCH(int, stage);
    QFETCH(uint, uid);
    MethodFixture fixture;
    QVERIFY(lockPartition());
    LogCapture log(true);
    fixture.d->clientStage = MethodKavetPrivate::Stage(stage);

    fixture.method.authenticate(uid, MethodFixture::passwordData(success));
    QCOMPARE(fixture.daemon.calls, QVector<Call>{askedWithoutConnection()});
    QCOMPARE(fixture.d->clientStage, stage);
    QCOMPARE(fixture.d->launchBudget, 11U);
    QCOMPARE(fixture.d->pendingAuthData, std::make_optional(MethodFixture::passwordData(success)));
    QCOMPARE(fixture.d->child.state(), QProcess::NotRunning);
    QVERIFY(log.lines().isEmpty());
}

void TstAuthFlow::partitionLockedWhileLaunching()
{
    MethodFixture fixture;
    QVERIFY(fixture.link());
    QVERIFY(lockPartition());
    fixture.d->child.clientStarting = true;
    fixture.method.authenticate(TestDevice::alice, MethodFixture::passwordData(success));
    QCOMPARE(fixture.told(), QVector<Call>{askedWithoutConnection()});

    // Once the partition is unlocked, the request continues with its original data.
    QVERIFY(QFile::remove(luksConfiguration));
    fixture.d->child.clientStarting = false;
    fixture.d->makeAuth();
    QTRY_COMPARE(fixture.told(), (QVector<Call>{askedWithoutConnection(), RecordingDaemon::succeeded()}));
}

void TstAuthFlow::noUser_data()
{
    QTest::addColumn<int>("stage");
    QTest::newRow("client to be launched") << 1;
    QTest::newRow("client to be connected") << 2;
    QTest::newRow("client linked") << 3;
}

void TstAuthFlow::noUser()
{
    QFETCH(int, stage);
    MethodFixture fixture;
    QVERIFY(fixture.link());
    fixture.d->clientStage = MethodKavetPrivate::Stage(stage);
    fixture.method.authenticate(0, MethodFixture::passwordData(success));
    QVERIFY(fixture.told().isEmpty());
    QVERIFY(!fixture.isWaiting());
    QCOMPARE(fixture.d->clientStage, stage);
    QVERIFY(fixture.d->pendingAuthData);
    QCOMPARE(fixture.d->child.clientUid, TestDevice::alice); // It was not told to end.
}

void TstAuthFlow::clientStarting_data()
{
    noUser_data();
}

void TstAuthFlow::clientStarting()
{
    QFETCH(int, stage);
    MethodFixture fixture;
    QVERIFY(fixture.link());
    fixture.d->clientStage = MethodKavetPrivate::Stage(stage);
    fixture.d->child.clientStarting = true;
    fixture.method.authenticate(TestDevice::alice, MethodFixture::passwordData(success));
    QVERIFY(fixture.told().isEmpty());
    QVERIFY(!fixture.isWaiting());
    QCOMPARE(fixture.d->clientStage, stage);
    QVERIFY(fixture.d->pendingAuthData);
}

void TstAuthFlow::unknownStage_data()
{
    QTest::addColumn<int>("stage");
    for (const int stage : {0, 4, -1, std::numeric_limits<int>::min(), std::numeric_limits<int>::max()})
        QTest::addRow("%d", stage) << stage;
}

void TstAuthFlow::unknownStage()
{
    QFETCH(int, stage);
    MethodFixture fixture;
    QVERIFY(fixture.link());
    fixture.d->clientStage = MethodKavetPrivate::Stage(stage);
    fixture.method.authenticate(TestDevice::alice, MethodFixture::passwordData(success));
    QVERIFY(fixture.told().isEmpty());
    QVERIFY(!fixture.isWaiting());
    QCOMPARE(fixture.d->clientStage, stage);
    QVERIFY(fixture.d->pendingAuthData);
}

void TstAuthFlow::launch()
{
    TestDevice::setScript({{QStringLiteral("socket"), QStringLiteral("never")}});
    MethodFixture fixture;
    fixture.method.authenticate(TestDevice::alice, MethodFixture::passwordData(success));

    // The flow continues only when the process has started and its socket appears.
    QVERIFY(fixture.d->child.clientStarting);
    QCOMPARE(fixture.d->clientStage, 2);
    QCOMPARE(fixture.d->launchBudget, 10U);
    QTRY_COMPARE(TestDevice::launches().size(), 1);
    QTRY_VERIFY(fixture.d->child.clientRunning);
    QVERIFY(fixture.told().isEmpty());
    QCOMPARE(fixture.d->clientStage, 2);
    QCOMPARE(fixture.d->pendingAuthData, std::make_optional(MethodFixture::passwordData(success)));
}

void TstAuthFlow::launchedAlready()
{
    MethodFixture fixture;
    QVERIFY(fixture.link());
    fixture.d->clientStage = MethodKavetPrivate::MustLaunch;
    fixture.method.authenticate(TestDevice::alice, {});
    QCOMPARE(fixture.told(), QVector<Call>{asked()});
    QCOMPARE(fixture.d->clientStage, 3);
    QCOMPARE(fixture.d->launchBudget, 10U);
    QCOMPARE(TestDevice::launches().size(), 1);
}

void TstAuthFlow::cannotStart_data()
{
    QTest::addColumn<uint>("budget");
    QTest::addColumn<uint>("uid");
    QTest::newRow("no launches left") << 0U << TestDevice::alice;
    QTest::newRow("no such user") << 11U << 4242U;
}

void TstAuthFlow::cannotStart()
{
    QFETCH(uint, budget);
    QFETCH(uint, uid);
    MethodFixture fixture;
    fixture.d->launchBudget = budget;
    fixture.method.authenticate(uid, MethodFixture::passwordData(success));
    QCOMPARE(fixture.told(),
             QVector<Call>{RecordingDaemon::failed(SettingsKavet::Connecting, SettingsKavet::CannotStartClient)});
    QCOMPARE(fixture.d->clientStage, 1);
    QVERIFY(fixture.d->pendingAuthData);
    QVERIFY(TestDevice::launches().isEmpty());
}

void TstAuthFlow::cannotConnect()
{
    TestDevice::setScript({{QStringLiteral("socket"), QStringLiteral("never")}});
    MethodFixture fixture;
    fixture.method.authenticate(TestDevice::alice, {});
    QTRY_VERIFY(fixture.d->child.clientRunning);
    LogCapture log;

    fixture.method.authenticate(TestDevice::alice, MethodFixture::passwordData(success));
    QCOMPARE(fixture.told(),
             QVector<Call>{RecordingDaemon::failed(SettingsKavet::Connecting, SettingsKavet::CannotConnectClient)});
    QCOMPARE(fixture.d->clientStage, 2);
    QVERIFY(fixture.d->pendingAuthData);
    QCOMPARE(fixture.d->launchBudget, 10U);
    QVERIFY(log.lines().isEmpty());
}

void TstAuthFlow::wholeFlow()
{
    const QString goFile = QStringLiteral("/tmp/scripted-client/go");
    TestDevice::setScript({{QStringLiteral("socket"), goFile}});
    MethodFixture fixture;
    fixture.method.authenticate(TestDevice::alice, MethodFixture::passwordData(success));
    QTRY_VERIFY(fixture.d->child.clientRunning);
    QVERIFY(TestDevice::writeFile(goFile, {}));
    QTRY_COMPARE(fixture.told(), QVector<Call>{RecordingDaemon::succeeded()});
    QCOMPARE(fixture.d->clientStage, 3);
    QCOMPARE(fixture.daemon.methods, QStringList{QStringLiteral("kavet")});

    // The user's next request uses the existing link.
    fixture.method.reset();
    fixture.method.authenticate(TestDevice::alice, {{cert, QStringLiteral("c")}, {pin, QStringLiteral("nousb")}});
    QTRY_COMPARE(fixture.told().size(), 2);
    QCOMPARE(fixture.told().constLast(),
             RecordingDaemon::failed(SettingsKavet::EnterPasswordOrPin, SettingsKavet::NoUsbDevice));
    QCOMPARE(TestDevice::calls(),
             (QVector<QJsonArray>{{QStringLiteral("checkPassword"), QStringLiteral("alice"), success},
                                  {QStringLiteral("validateCert"), QStringLiteral("c"), QStringLiteral("alice"),
                                   QStringLiteral("nousb")}}));
    QCOMPARE(TestDevice::launches().size(), 1);
}

void TstAuthFlow::pendingData_data()
{
    using CalledWith = QVector<QJsonArray>;
    const QString certValue = QStringLiteral("pkcs11:object=a");
    const CalledWith passwordChecked = {{QStringLiteral("checkPassword"), QStringLiteral("alice"), success}};

    QTest::addColumn<AuthData>("data");
    QTest::addColumn<CalledWith>("calledWith");
    QTest::newRow("password") << AuthData{{password, success}} << passwordChecked;
    QTest::newRow("password as bytes") << AuthData{{password, QByteArray("success")}} << passwordChecked;
    QTest::newRow("empty password") << AuthData{
        {password, QString()}} << CalledWith{{QStringLiteral("checkPassword"), QStringLiteral("alice"), QString()}};
    QTest::newRow("cert and pin") << AuthData{{cert, certValue}, {pin, success}}
                                  << CalledWith{
                                         {QStringLiteral("validateCert"), certValue, QStringLiteral("alice"), success}};
    QTest::newRow("cert and pin, a number")
        << AuthData{{cert, certValue}, {pin, 1234}}
        << CalledWith{{QStringLiteral("validateCert"), certValue, QStringLiteral("alice"), QStringLiteral("1234")}};
    QTest::newRow("password and cert") << AuthData{{password, success}, {cert, certValue}} << passwordChecked;
    QTest::newRow("all three") << AuthData{{password, success}, {cert, certValue}, {pin, QStringLiteral("1234")}}
                               << passwordChecked;
    QTest::newRow("cert only") << AuthData{{cert, certValue}} << CalledWith();
    QTest::newRow("pin only") << AuthData{{pin, success}} << CalledWith();
    QTest::newRow("something else") << AuthData{{QStringLiteral("Password"), success}} << CalledWith();
    QTest::newRow("empty") << AuthData() << CalledWith();
}

void TstAuthFlow::pendingData()
{
    QFETCH(AuthData, data);
    QFETCH(QVector<QJsonArray>, calledWith);
    MethodFixture fixture;
    QVERIFY(fixture.link());
    fixture.method.authenticate(TestDevice::alice, data);
    QVERIFY(!fixture.d->pendingAuthData);
    QCOMPARE(fixture.d->clientStage, 3);
    if (calledWith.isEmpty()) {
        QCOMPARE(fixture.told(), QVector<Call>{asked()});
        QVERIFY(!fixture.isWaiting());
        QVERIFY(TestDevice::calls().isEmpty());
        return;
    }
    QVERIFY(fixture.told().isEmpty());
    QTRY_COMPARE(fixture.told().size(), 1);
    QCOMPARE(TestDevice::calls(), calledWith);
}

void TstAuthFlow::noPendingData()
{
    MethodFixture fixture;
    QVERIFY(fixture.link());
    QVERIFY(!fixture.d->pendingAuthData);
    fixture.d->makeAuth();
    QCOMPARE(fixture.told(), QVector<Call>{asked()});
    QVERIFY(!fixture.d->pendingAuthData);
    QVERIFY(TestDevice::calls().isEmpty());
}

void TstAuthFlow::latestDataCounts()
{
    const QString goFile = QStringLiteral("/tmp/scripted-client/go");
    TestDevice::setScript({{QStringLiteral("socket"), goFile}});
    MethodFixture fixture;
    fixture.method.authenticate(TestDevice::alice, MethodFixture::passwordData(QStringLiteral("lock")));
    fixture.method.authenticate(TestDevice::alice, MethodFixture::passwordData(success));
    QCOMPARE(fixture.d->pendingAuthData, std::make_optional(MethodFixture::passwordData(success)));
    QTRY_VERIFY(fixture.d->child.clientRunning);
    QVERIFY(TestDevice::writeFile(goFile, {}));
    QTRY_COMPARE(fixture.told(), QVector<Call>{RecordingDaemon::succeeded()});
    QCOMPARE(MethodFixture::calledMethods(), QStringList{QStringLiteral("checkPassword")});
}

void TstAuthFlow::dataSentOnce()
{
    MethodFixture fixture;
    QVERIFY(fixture.link());
    fixture.method.authenticate(TestDevice::alice, MethodFixture::passwordData(QStringLiteral("late")));
    // Resuming the flow meanwhile does not send the password again.
    fixture.d->makeAuth();
    QCOMPARE(fixture.told(), QVector<Call>{asked()});
    QTRY_COMPARE(MethodFixture::calledMethods().size(), 1);
    QVERIFY(TestDevice::writeFile(QStringLiteral("/tmp/scripted-client/answer"), {}));
    QTRY_COMPARE(fixture.told(), (QVector<Call>{asked(), RecordingDaemon::succeeded()}));
    QCOMPARE(MethodFixture::calledMethods().size(), 1);
}

void TstAuthFlow::requestFromWithin_data()
{
    // The way to each outcome.
    QTest::addColumn<QString>("way");
    QTest::addColumn<Call>("outcome");
    QTest::addColumn<uint>("user"); // of the other request
    for (const uint user : {TestDevice::alice, TestDevice::bob}) {
        const auto row = [user](const char *way, const Call &outcome) {
            QTest::addRow("%s, %u", way, user) << QString::fromLatin1(way) << outcome << user;
        };
        row("partition locked", askedWithoutConnection());
        row("cannot start", RecordingDaemon::failed(SettingsKavet::Connecting, SettingsKavet::CannotStartClient));
        row("cannot connect", RecordingDaemon::failed(SettingsKavet::Connecting, SettingsKavet::CannotConnectClient));
        row("no data", asked());
        row("unusable data", asked());
        row("no link",
            RecordingDaemon::failed(SettingsKavet::EnterPasswordOrPin, SettingsKavet::CannotCommunicateClient));
        row("error",
            RecordingDaemon::failed(SettingsKavet::EnterPasswordOrPin, SettingsKavet::CannotCommunicateClient));
        row("failed", RecordingDaemon::failed(SettingsKavet::EnterPasswordOrPin, SettingsKavet::AuthFailed));
        row("success", RecordingDaemon::succeeded());
    }
}

// The former request must not touch the new one once the daemon has returned.
void TstAuthFlow::requestFromWithin()
{
    QFETCH(QString, way);
    QFETCH(Call, outcome);
    QFETCH(uint, user);
    const QString goFile = QStringLiteral("/tmp/scripted-client/go");
    InsistentDaemon daemon;
    MethodFixture fixture;
    auto *d = fixture.d;
    const bool runs = way != QLatin1String("cannot start");
    QVERIFY(!runs || fixture.link());
    TestDevice::setScript({{QStringLiteral("socket"), goFile}});
    fixture.method.setNotificator(&daemon);

    AuthData data = MethodFixture::passwordData(way);
    if (way == QLatin1String("partition locked")) {
        QVERIFY(lockPartition());
    } else if (way == QLatin1String("cannot start")) {
        d->launchBudget = 0;
    } else if (way == QLatin1String("cannot connect")) {
        d->clientStage = MethodKavetPrivate::MustConnect;
        d->child.socketPresent = false;
    } else if (way == QLatin1String("unusable data")) {
        data = {{pin, success}};
    } else if (way == QLatin1String("no link")) {
        d->guard.close();
        d->child.socketPresent = false;
    }
    daemon.requestAgain = [&] {
        QFile::remove(luksConfiguration);
        d->launchBudget = 1;
        d->child.socketPresent = runs;
        fixture.method.authenticate(user, MethodFixture::passwordData(success));
    };
    if (way == QLatin1String("no data"))
        d->makeAuth();
    else
        fixture.method.authenticate(TestDevice::alice, data);

    QTRY_VERIFY(d->child.clientUid == user && d->child.clientRunning);
    QVERIFY(TestDevice::writeFile(goFile, {}));
    QTRY_COMPARE(daemon.outcomes(), (QVector<Call>{outcome, RecordingDaemon::succeeded()}));
    QCOMPARE(TestDevice::calls().constLast(),
             (QJsonArray{QStringLiteral("checkPassword"),
                         user == TestDevice::alice ? QStringLiteral("alice") : QStringLiteral("bob"), success}));
    QCOMPARE(TestDevice::callees().constLast(), user);
}

void TstAuthFlow::answer_data()
{
    QTest::addColumn<QString>("answer");
    QTest::addColumn<int>("code");
    QTest::newRow("success") << QStringLiteral("success") << 0;
    QTest::newRow("lock") << QStringLiteral("lock") << 6;
    QTest::newRow("remove") << QStringLiteral("remove") << 7;
    QTest::newRow("nousb") << QStringLiteral("nousb") << 9;
    QTest::newRow("connerr") << QStringLiteral("connerr") << 10;
    QTest::newRow("failed") << QStringLiteral("failed") << 11;
    QTest::newRow("firstcererr") << QStringLiteral("firstcererr") << 12;
    QTest::newRow("errauthtype") << QStringLiteral("errauthtype") << 14;

    for (const QString &other :
         {QStringLiteral("SUCCESS"), QStringLiteral("Success"), QStringLiteral("success "), QStringLiteral(" success"),
          QStringLiteral("success\n"), QStringLiteral("LOCK"), QStringLiteral("NoUsb"), QStringLiteral("firstcerterr"),
          QStringLiteral("unknown"), QStringLiteral("0")})
        QTest::addRow("\"%s\"", qUtf8Printable(other)) << other << 11;
    QTest::newRow("empty") << QString::fromLatin1("") << 11;
    QTest::newRow("null") << QString() << 11;
    QTest::newRow("huge") << QString(1 << 20, QLatin1Char('s')) << 11;
}

void TstAuthFlow::answer()
{
    QFETCH(QString, answer);
    QFETCH(int, code);
    MethodFixture fixture;
    fixture.d->handleResult(answer);
    QCOMPARE(fixture.daemon.calls,
             QVector<Call>{code == 0 ? RecordingDaemon::succeeded() : RecordingDaemon::failed(2, code)});
}

void TstAuthFlow::requestInput_data()
{
    QTest::addColumn<int>("request");
    QTest::addColumn<int>("code");
    for (const int request : {0, 1, 2}) {
        for (int code = 0; code <= 14; ++code)
            QTest::addRow("%d, %d", request, code) << request << code;
    }
}

void TstAuthFlow::requestInput()
{
    QFETCH(int, request);
    QFETCH(int, code);
    MethodFixture fixture;
    fixture.d->requestInput(SettingsKavet::InputRequest(request), SettingsKavet::ResultCode(code));
    const AuthData params = {{QStringLiteral("input-request-type"), request}, {QStringLiteral("result-code"), code}};
    const Call expected =
        code == 0 ? Call{QStringLiteral("inputRequested"), {params}} : Call{QStringLiteral("finish"), {false, params}};
    QCOMPARE(fixture.daemon.calls, QVector<Call>{expected});
}

void TstAuthFlow::countsNoAttempts()
{
    MethodFixture fixture;
    QVERIFY(fixture.link());
    fixture.daemon.calls.clear();
    for (const char *word : {"failed", "lock", "remove", "success"}) {
        fixture.daemon.calls.clear();
        fixture.method.authenticate(TestDevice::alice, MethodFixture::passwordData(QString::fromLatin1(word)));
        QTRY_COMPARE(fixture.daemon.outcomes().size(), 1);
        QCOMPARE(fixture.told().size(), 1);
        QCOMPARE(fixture.method.getOptionInternal(TestDevice::alice, QStringLiteral("attempts")).toInt(), 0);
    }
}

QTEST_GUILESS_MAIN(TstAuthFlow)
#include "tst_authflow.moc"
