// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#include "plugin/methodkavet.h"
#include "plugin/methodkavetprivate.h"
#include "support/logcapture.h"
#include "support/recordingdaemon.h"
#include "support/testdevice.h"

#include <QFile>
#include <QJsonObject>
#include <QPointer>
#include <QTest>

#include <typeinfo>

namespace {

/// The class that declares a member function.
template <typename Class, typename Function>
const std::type_info &provider(Function Class::*)
{
    return typeid(Class);
}

/// Gives access to protected members.
class Method : public MethodKavet
{
public:
    static const std::type_info &timerEventProvider() { return provider(&Method::timerEvent); }
    static const std::type_info &childEventProvider() { return provider(&Method::childEvent); }
    static const std::type_info &customEventProvider() { return provider(&Method::customEvent); }
    static const std::type_info &connectNotifyProvider() { return provider(&Method::connectNotify); }
    static const std::type_info &disconnectNotifyProvider() { return provider(&Method::disconnectNotify); }
};

MethodKavetPrivate *privateOf(MethodKavet &method)
{
    return method.findChild<MethodKavetPrivate *>(QString(), Qt::FindDirectChildrenOnly);
}

} // namespace

/// The method object as the daemon sees it.
class TstMethodKavet : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init() { TestDevice::reset(); }

    void providers()
    {
        QVERIFY(provider(&MethodKavet::event) == typeid(QObject));
        QVERIFY(provider(&MethodKavet::eventFilter) == typeid(QObject));
        QVERIFY(Method::timerEventProvider() == typeid(QObject));
        QVERIFY(Method::childEventProvider() == typeid(QObject));
        QVERIFY(Method::customEventProvider() == typeid(QObject));
        QVERIFY(Method::connectNotifyProvider() == typeid(QObject));
        QVERIFY(Method::disconnectNotifyProvider() == typeid(QObject));

        QVERIFY(provider(&MethodKavet::setOption) == typeid(LibAuthd::BaseHandler));
        QVERIFY(provider(&MethodKavet::action) == typeid(LibAuthd::BaseHandler));
        QVERIFY(provider(&MethodKavet::getActionsValidations) == typeid(LibAuthd::BaseHandler));
        QVERIFY(provider(&MethodKavet::handleUserRemovedInternal) == typeid(LibAuthd::BaseHandler));
        QVERIFY(provider(&MethodKavet::handleOptionChanged) == typeid(LibAuthd::BaseHandler));

        QVERIFY(provider(&MethodKavet::setNotificator) == typeid(AuthPluginInterface));
        QVERIFY(provider(&MethodKavet::canSwitchToUser) == typeid(AuthPluginInterface));
        QVERIFY(provider(&MethodKavet::changeAuthData) == typeid(AuthPluginInterface));
        QVERIFY(provider(&MethodKavet::handleUserLocked) == typeid(AuthPluginInterface));
        QVERIFY(provider(&MethodKavet::handleTimeSettingsChanged) == typeid(AuthPluginInterface));
        QVERIFY(provider(&MethodKavet::handleSetEnabled) == typeid(AuthPluginInterface));
        QVERIFY(provider(&MethodKavet::hasAuthData) == typeid(AuthPluginInterface));
        QVERIFY(provider(&MethodKavet::getMaxAttempts) == typeid(AuthPluginInterface));
        QVERIFY(provider(&MethodKavet::needChangeNextTime) == typeid(AuthPluginInterface));
        QVERIFY(provider(&MethodKavet::wasChosen) == typeid(AuthPluginInterface));
        QVERIFY(provider(&MethodKavet::checkBackend) == typeid(AuthPluginInterface));
        QVERIFY(provider(&MethodKavet::onMainPageVisibleChanged) == typeid(AuthPluginInterface));

        QVERIFY(provider(&MethodKavet::metaObject) == typeid(MethodKavet));
        QVERIFY(provider(&MethodKavet::qt_metacast) == typeid(MethodKavet));
        QVERIFY(provider(&MethodKavet::qt_metacall) == typeid(MethodKavet));
        QVERIFY(provider(&MethodKavet::name) == typeid(MethodKavet));
        QVERIFY(provider(&MethodKavet::defaultOptions) == typeid(MethodKavet));
        QVERIFY(provider(&MethodKavet::getOption) == typeid(MethodKavet));
        QVERIFY(provider(&MethodKavet::getOptionsValidations) == typeid(MethodKavet));
        QVERIFY(provider(&MethodKavet::pages) == typeid(MethodKavet));
        QVERIFY(provider(&MethodKavet::types) == typeid(MethodKavet));
        QVERIFY(provider(&MethodKavet::getErrorMessage) == typeid(MethodKavet));
        QVERIFY(provider(&MethodKavet::reset) == typeid(MethodKavet));
        QVERIFY(provider(&MethodKavet::authenticate) == typeid(MethodKavet));
        QVERIFY(provider(&MethodKavet::isAvailable) == typeid(MethodKavet));
        QVERIFY(provider(&MethodKavet::handleUserSessionTriggered) == typeid(MethodKavet));
        QVERIFY(provider(&MethodKavet::getAuthData) == typeid(MethodKavet));
        QVERIFY(provider(&MethodKavet::increaseAttempts) == typeid(MethodKavet));
        QVERIFY(provider(&MethodKavet::getAttempts) == typeid(MethodKavet));
        QVERIFY(provider(&MethodKavet::resetAttempts) == typeid(MethodKavet));
    }

    void identity()
    {
        MethodKavet method;
        QCOMPARE(method.name(), QStringLiteral("kavet"));
        QCOMPARE(method.types(), 20);
        QCOMPARE(method.parent(), nullptr);
    }

    void baseHasTheName()
    {
        // The base class stores the options under the name it was given.
        MethodKavet method;
        QVERIFY(method.setOptionInternal(0, QStringLiteral("max-attempts"), 5));
        QVERIFY(QFile::exists(QStringLiteral("/var/lib/authd/methods/kavet/current.conf")));
    }

    void pages()
    {
        MethodKavet method;
        MethodKavet other;
        const AuthUiPages &pages = method.pages();
        QCOMPARE(pages.authPage, QStringLiteral("MethodPageKavet"));
        QCOMPARE(pages.prePage, QStringLiteral("PreMethodPageKavet"));
        QCOMPARE(pages.infoPage, QStringLiteral("KavetInfo"));
        QCOMPARE(&other.pages(), &pages);
    }

    void privateObject()
    {
        auto *method = new MethodKavet;
        const QList<MethodKavetPrivate *> found = method->findChildren<MethodKavetPrivate *>();
        QCOMPARE(found.size(), 1);
        QCOMPARE(found.first()->q, method);

        // The private object is destroyed while the method still exists.
        QByteArray className;
        connect(found.first(), &QObject::destroyed, this, [&] { className = method->metaObject()->className(); });
        const QPointer<MethodKavetPrivate> d = found.first();
        delete method;
        QVERIFY(d.isNull());
        QCOMPARE(className, QByteArray("MethodKavet"));
    }

    void errorMessages_data()
    {
        QTest::addColumn<int>("code");
        QTest::addColumn<QString>("message");

        const char *const names[] = {"Success",           "BadPassword",         "EncryptedPartitionLocked",
                                     "CannotStartClient", "CannotConnectClient", "CannotCommunicateClient",
                                     "UserLocked",        "TooManyAttempts",     "TooManyAttemptsWithoutDeleted",
                                     "NoUsbDevice",       "ConnectionError",     "AuthFailed",
                                     "BadDefaultCert",    "UserCannotUnlock",    "ErrAuthType"};
        int code = 0;
        for (const char *name : names)
            QTest::newRow(name) << code++ << QString::fromLatin1(name);
        for (int unknown : {-1, 15, 99, std::numeric_limits<int>::min(), std::numeric_limits<int>::max()})
            QTest::newRow(qPrintable(QString::number(unknown))) << unknown << QString();
    }

    void errorMessages()
    {
        QFETCH(int, code);
        QFETCH(QString, message);

        const MethodKavet method;
        QCOMPARE(method.getErrorMessage(code), message);
        QCOMPARE(method.getErrorMessage(code).isNull(), message.isNull());
    }

    void authData_data()
    {
        const QString password = QStringLiteral("password");
        const QString cert = QStringLiteral("cert");
        const QString pin = QStringLiteral("pin");
        using Data = QMap<QString, QVariant>;

        QTest::addColumn<Data>("data");
        QTest::addColumn<QString>("secret");

        QTest::newRow("password") << Data{{password, QStringLiteral("p")}} << QStringLiteral("p");
        QTest::newRow("password and pin")
            << Data{{password, QStringLiteral("p")}, {pin, QStringLiteral("1")}} << QStringLiteral("p");
        QTest::newRow("all") << Data{{password, QStringLiteral("p")},
                                     {cert, QStringLiteral("c")},
                                     {pin, QStringLiteral("1")}}
                             << QStringLiteral("p");
        QTest::newRow("empty password counts")
            << Data{{password, QString(QLatin1String(""))}, {cert, QStringLiteral("c")}, {pin, QStringLiteral("1")}}
            << QString::fromLatin1("");
        QTest::newRow("cert and pin") << Data{{cert, QStringLiteral("c")}, {pin, QStringLiteral("1")}}
                                      << QStringLiteral("1");
        QTest::newRow("number as pin") << Data{{cert, QStringLiteral("c")}, {pin, 1234}} << QStringLiteral("1234");
        QTest::newRow("number as password") << Data{{password, 99}} << QStringLiteral("99");
        QTest::newRow("cert alone") << Data{{cert, QStringLiteral("c")}} << QString();
        QTest::newRow("pin alone") << Data{{pin, QStringLiteral("1")}} << QString();
        QTest::newRow("other key") << Data{{QStringLiteral("Password"), QStringLiteral("p")}} << QString();
        QTest::newRow("nothing") << Data{} << QString();
    }

    void authData()
    {
        using Data = QMap<QString, QVariant>;
        QFETCH(Data, data);
        QFETCH(QString, secret);

        MethodKavet method;
        QCOMPARE(method.getAuthData(data), secret);
        QCOMPARE(method.getAuthData(data).isNull(), secret.isNull());
    }

    void availability_data()
    {
        QTest::addColumn<QString>("command");
        QTest::addColumn<int>("mode"); // of /opt/x/client
        QTest::addColumn<bool>("available");

        QTest::newRow("there") << QStringLiteral("/opt/x/client") << 0755 << true;
        QTest::newRow("arguments") << QStringLiteral("/opt/x/client --flag /nowhere") << 0755 << true;
        QTest::newRow("owner may") << QStringLiteral("/opt/x/client") << 0100 << true;
        QTest::newRow("owner may not") << QStringLiteral("/opt/x/client") << 0655 << false;
        QTest::newRow("nobody may") << QStringLiteral("/opt/x/client --flag") << 0644 << false;
        QTest::newRow("not there") << QStringLiteral("/opt/x/none") << 0755 << false;
        QTest::newRow("not there, arguments are") << QStringLiteral("/opt/x/none /opt/x/client") << 0755 << false;
        QTest::newRow("tab") << QStringLiteral("/opt/x/client\\t--flag") << 0755 << false;
        // The parser skips white space before a value unless it is escaped.
        QTest::newRow("space first") << QStringLiteral("\\s/opt/x/client") << 0755 << false;
        QTest::newRow("two spaces") << QStringLiteral("/opt/x/client  --flag") << 0755 << true;
        QTest::newRow("directory") << QStringLiteral("/opt/x") << 0755 << true;
        QTest::newRow("empty") << QString::fromLatin1("") << 0755 << false;
        QTest::newRow("none") << QString() << 0755 << false;
    }

    void availability()
    {
        QFETCH(QString, command);
        QFETCH(int, mode);
        QFETCH(bool, available);

        QVERIFY(TestDevice::writeFile(QStringLiteral("/opt/x/client"), "#!/bin/sh\n"));
        QVERIFY(QFile::setPermissions(QStringLiteral("/opt/x/client"), permissions(mode)));
        QVERIFY(TestDevice::writeManifest(QStringLiteral("tarsk"), QStringLiteral("kavet_client"), command, {}));

        MethodKavet method;
        for (uint uid : {0U, TestDevice::alice, TestDevice::bob, 4294967295U})
            QCOMPARE(method.isAvailable(uid), available);
    }

    void availabilityWithoutManifest()
    {
        QVERIFY(QFile::remove(TestDevice::manifest));
        MethodKavet method;
        QVERIFY(!method.isAvailable(TestDevice::alice));
    }

    void availabilityFollowsTheCommand()
    {
        const QString client = QStringLiteral("/opt/x/client");
        QFile::remove(client);
        QVERIFY(TestDevice::writeManifest(QStringLiteral("tarsk"), QStringLiteral("kavet_client"), client, {}));
        MethodKavet method;
        QVERIFY(!method.isAvailable(TestDevice::alice));
        QVERIFY(TestDevice::writeFile(client, {}));
        QVERIFY(!method.isAvailable(TestDevice::alice));
        QVERIFY(QFile::setPermissions(client, permissions(0755)));
        QVERIFY(method.isAvailable(TestDevice::alice));
    }

    void availabilityOfALink()
    {
        const QString target = QStringLiteral("/opt/x/manifest");
        QFile::remove(target);
        QVERIFY(QFile::remove(TestDevice::manifest));
        QVERIFY(QFile::link(target, TestDevice::manifest));
        {
            MethodKavet method;
            QVERIFY(method.isAvailable(TestDevice::alice));
        }

        QVERIFY(TestDevice::writeFile(target, "[X-Application]\nExecCmd=/opt/x/none\n"));
        MethodKavet method;
        QCOMPARE(privateOf(method)->child.exec, QStringLiteral("/opt/x/none"));
        QVERIFY(method.isAvailable(TestDevice::alice));
    }

    void reset_data()
    {
        QTest::addColumn<bool>("running");
        QTest::addColumn<bool>("socket");
        QTest::addColumn<int>("stage");

        QTest::newRow("no client") << false << false << 1;
        QTest::newRow("socket without a client") << false << true << 1;
        QTest::newRow("client") << true << false << 2;
        QTest::newRow("client with socket") << true << true << 3;
    }

    void reset()
    {
        QFETCH(bool, running);
        QFETCH(bool, socket);
        QFETCH(int, stage);

        RecordingDaemon daemon;
        MethodKavet method;
        method.setNotificator(&daemon);
        MethodKavetPrivate *const d = privateOf(method);
        for (const auto before :
             {MethodKavetPrivate::MustLaunch, MethodKavetPrivate::MustConnect, MethodKavetPrivate::Linked}) {
            d->clientStage = before;
            d->child.clientRunning = running;
            d->child.socketPresent = socket;
            d->currentUid = TestDevice::alice;
            d->pendingAuthData = QMap<QString, QVariant>();
            d->launchBudget = 0;

            method.reset();
            QCOMPARE(d->clientStage, stage);
            QCOMPARE(d->child.clientRunning, running);
            QCOMPARE(d->child.socketPresent, socket);
            QCOMPARE(d->currentUid, 0U);
            QVERIFY(!d->pendingAuthData.has_value());
            QCOMPARE(d->launchBudget, 11U);

            method.reset();
            QCOMPARE(d->clientStage, stage);
            QCOMPARE(d->launchBudget, 11U);
        }
        QVERIFY(daemon.calls.isEmpty());
    }

    void resetKeepsTheClient()
    {
        RecordingDaemon daemon;
        MethodKavet method;
        method.setNotificator(&daemon);
        MethodKavetPrivate *const d = privateOf(method);
        // The method ignores the socket until it knows that the process runs.
        const QString go = QStringLiteral("/tmp/scripted-client/go");
        TestDevice::setScript({{QStringLiteral("socket"), go}});
        method.authenticate(TestDevice::alice, {{QStringLiteral("password"), QStringLiteral("success")}});
        QTRY_VERIFY(d->child.clientRunning);
        QVERIFY(TestDevice::writeFile(go, {}));
        QTRY_COMPARE(daemon.outcomes(), QVector<RecordingDaemon::Call>{RecordingDaemon::succeeded()});
        method.reset();
        QCOMPARE(d->clientStage, 3);
        QCOMPARE(d->child.state(), QProcess::Running);
        QVERIFY(d->connection.isConnected());
    }

    void authenticateStoresTheRequest()
    {
        using Data = QMap<QString, QVariant>;
        RecordingDaemon daemon;
        MethodKavet method;
        method.setNotificator(&daemon);
        MethodKavetPrivate *const d = privateOf(method);
        // This stops the flow before it handles the request.
        d->child.clientStarting = true;

        Data data = {{QStringLiteral("password"), QStringLiteral("p")}, {QStringLiteral("other"), 7}};
        const Data original = data;
        method.authenticate(TestDevice::alice, data);
        data.clear();
        QCOMPARE(d->currentUid, TestDevice::alice);
        QVERIFY(d->pendingAuthData.has_value());
        QCOMPARE(*d->pendingAuthData, original);

        // The latest request replaces the earlier one, even if it is empty.
        method.authenticate(TestDevice::bob, {});
        QCOMPARE(d->currentUid, TestDevice::bob);
        QVERIFY(d->pendingAuthData.has_value());
        QVERIFY(d->pendingAuthData->isEmpty());
        QVERIFY(daemon.calls.isEmpty());
    }

    void authenticateRunsTheFlow()
    {
        RecordingDaemon daemon;
        MethodKavet method;
        method.setNotificator(&daemon);
        privateOf(method)->launchBudget = 0;
        method.authenticate(TestDevice::alice, {{QStringLiteral("password"), QStringLiteral("p")}});
        QCOMPARE(daemon.calls, QVector<RecordingDaemon::Call>{RecordingDaemon::failed(1, 3)});
        QCOMPARE(daemon.methods, QStringList(QStringLiteral("kavet")));
    }

    void sessionsAreForwarded_data()
    {
        QTest::addColumn<uint>("uid");
        QTest::addColumn<bool>("started");
        QTest::addColumn<bool>("manageClient");
        QTest::addColumn<QStringList>("warnings");

        QTest::newRow("started") << TestDevice::carol << true << true
                                 << QStringList(QStringLiteral("Delaying child launch for 1002"));
        QTest::newRow("started, other user")
            << 4242U << true << true << QStringList(QStringLiteral("Cannot get name for 4242"));
        QTest::newRow("started, client left alone") << TestDevice::carol << true << false << QStringList();
        QTest::newRow("stopped") << TestDevice::carol << false << true
                                 << QStringList(
                                        {QStringLiteral("handleUserSessionStopped Kavet client is not launched"),
                                         QStringLiteral("handleUserSessionStopped Kavet client is not running")});
        QTest::newRow("stopped, client left alone") << TestDevice::carol << false << false << QStringList();
    }

    void sessionsAreForwarded()
    {
        QFETCH(uint, uid);
        QFETCH(bool, started);
        QFETCH(bool, manageClient);
        QFETCH(QStringList, warnings);

        MethodKavet method;
        // Every session start does this, with or without managing the client.
        QVERIFY(
            TestDevice::writeSetting(TestDevice::currentPolicy, QStringLiteral("max-attempts"), QStringLiteral("4")));
        const LogCapture log;
        method.handleUserSessionTriggered(uid, started, manageClient);
        QCOMPARE(log.warnings(), warnings);
        QCOMPARE(privateOf(method)->watcher.directories().contains(TestDevice::sharedDirectory), started);
    }

private:
    static QFileDevice::Permissions permissions(int mode)
    {
        // The flags are the mode's octal digits as hexadecimal digits.
        return QFileDevice::Permissions((mode & 0700) << 6 | (mode & 0070) << 1 | (mode & 0007));
    }
};

QTEST_GUILESS_MAIN(TstMethodKavet)
#include "tst_methodkavet.moc"
