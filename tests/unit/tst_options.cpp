// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#include "client/methodkavetprivate.h"
#include "plugin/methodkavet.h"
#include "settings/constants.h"
#include "support/recordingdaemon.h"
#include "support/testdevice.h"

#include <authd/validationscope.h>
#include <authd/vocabulary.h>

#include <QDirIterator>
#include <QJsonArray>
#include <QRegularExpression>
#include <QTest>

namespace {

using Options = QMap<QString, QVariant>;
using Rules = ValidationScope::Rules;

const QString certs = QStringLiteral("certs");
const QString maxAttempts = QStringLiteral("max-attempts");
const QString attempts = QStringLiteral("attempts");
const QString delayedDeletion = QStringLiteral("delayed-deletion");

struct Text
{
    const char *name;
    QString constant;
    const char *text;
};

/// Spelt out once more, since whoever else uses them will not follow a change made here.
const QVector<Text> &texts()
{
    static const QVector<Text> texts = {
        {"methodName", Constants::methodName, "kavet"},
        {"methodsDirectory", Constants::methodsDirectory, "/var/lib/authd/methods/"},
        {"methodSettingsPath", Constants::methodSettingsPath, "%1/%2/current.conf"},
        {"systemLimitPath", Constants::systemLimitPath, "%1/%2/system-limit.conf"},
        {"userConfigFilePath", Constants::userConfigFilePath, "/var/lib/authd/users/%1.conf"},
        {"authPage", Constants::authPage, "MethodPageKavet"},
        {"prePage", Constants::prePage, "PreMethodPageKavet"},
        {"infoPage", Constants::infoPage, "KavetInfo"},
        {"certs", Constants::certs, "certs"},
        {"maxAttempts", Constants::maxAttempts, "max-attempts"},
        {"delayedDeletion", Constants::delayedDeletion, "delayed-deletion"},
        {"attempts", Constants::attempts, "attempts"},
        {"updatingCertList", Constants::updatingCertList, "."},
        {"password", Constants::password, "password"},
        {"cert", Constants::cert, "cert"},
        {"pin", Constants::pin, "pin"},
        {"answerSuccess", Constants::answerSuccess, "success"},
        {"answerLock", Constants::answerLock, "lock"},
        {"answerRemove", Constants::answerRemove, "remove"},
        {"answerNoUsb", Constants::answerNoUsb, "nousb"},
        {"answerConnectionError", Constants::answerConnectionError, "connerr"},
        {"answerFailed", Constants::answerFailed, "failed"},
        {"answerBadDefaultCert", Constants::answerBadDefaultCert, "firstcererr"},
        {"answerErrAuthType", Constants::answerErrAuthType, "errauthtype"},
        {"clientDirectory", Constants::clientDirectory, "/run/aux-auth/tarsk/kavet_client"},
        {"socketName", Constants::socketName, "kavet.socket"},
        {"filePath", Constants::filePath, "%1/%2"},
        {"peerAddress", Constants::peerAddress, "unix:path=/run/aux-auth/tarsk/kavet_client/kavet.socket"},
        {"peerConnection", Constants::peerConnection, "kavet_p2p_service"},
        {"clientService", Constants::clientService, "tarsk.kavet_client"},
        {"clientObjectPath", Constants::clientObjectPath, "/kavetauth"},
        {"notConnected", Constants::notConnected, "No link to the client"},
        {"cannotReachSocket", Constants::cannotReachSocket, "Failed to connect to socket %1: %2"},
        {"certListTooLong", Constants::certListTooLong, "The list of certificates is too long"},
        {"manifestPath", Constants::manifestPath, "/usr/share/applications/tarsk.kavet_client.desktop"},
        {"sharedRoot", Constants::sharedRoot, "/srv/shared"},
        {"userConfigName", Constants::userConfigName, "%1/%2.conf"},
        {"packagedPolicyFile", Constants::packagedPolicyFile, "/usr/share/tarsk.kavet_client/policy.conf"},
        {"currentPolicyFile", Constants::currentPolicyFile, "/srv/shared/tarsk/kavet_client/current.conf"},
        {"firstStartMarker", Constants::firstStartMarker, ".qarv-startupwizard-usersession-done"},
        {"sandboxLauncher", Constants::sandboxLauncher, "/usr/bin/firejail"},
        {"homeVariable", Constants::homeVariable, "HOME"},
        {"homeRoot", Constants::homeRoot, "/home/"},
        {"sessionBusVariable", Constants::sessionBusVariable, "DBUS_SESSION_BUS_ADDRESS"},
        {"sessionBusAddress", Constants::sessionBusAddress, "unix:path=/run/user/%1/dbus/user_bus_socket"},
        {"quietOption", Constants::quietOption, "--quiet"},
        {"organizationTemplateOption", Constants::organizationTemplateOption, "--template=OrganizationName:"},
        {"applicationTemplateOption", Constants::applicationTemplateOption, "--template=ApplicationName:"},
        {"privateBinOption", Constants::privateBinOption, "--private-bin="},
        {"whitelistOption", Constants::whitelistOption, "--whitelist="},
        {"mkdirOption", Constants::mkdirOption, "--mkdir="},
        {"ownUserBusNameOption", Constants::ownUserBusNameOption, "--dbus-user.own="},
        {"talkSystemBusNameOption", Constants::talkSystemBusNameOption, "--dbus-system.talk="},
        {"profileOption", Constants::profileOption, "--profile="},
        {"noGuiOption", Constants::noGuiOption, "--no-gui"},
        {"packagedDataRoot", Constants::packagedDataRoot, "/usr/share/"},
        {"userDataRoot", Constants::userDataRoot, "${HOME}/.local/share/"},
        {"userConfigRoot", Constants::userConfigRoot, "${HOME}/.config/"},
        {"userCacheRoot", Constants::userCacheRoot, "${HOME}/.cache/"},
        {"authService", Constants::authService, "qarv.AuthService"},
        {"permissionsDirectory", Constants::permissionsDirectory, "/etc/varnet/permissions/"},
        {"installedPermissionsDirectory", Constants::installedPermissionsDirectory, "/var/lib/varnet/permissions/"},
        {"permissionSuffix", Constants::permissionSuffix, ".permission"},
        {"basePermission", Constants::basePermission, "Base"},
        {"lockoutEventLevel", Constants::lockoutEventLevel, "WARN_LEVEL"},
        {"lockoutEvent", Constants::lockoutEvent, "devlock-attempts-expired"},
        {"lockoutReason", Constants::lockoutReason, "kavet-max-attempts"},
        {"wiperService", Constants::wiperService, "qarv.userdata.wiper"},
        {"wiperObjectPath", Constants::wiperObjectPath, "/qarv/userdata/wiper"},
        {"wiperInterface", Constants::wiperInterface, "qarv.userdata.wiper"},
        {"wiperMethod", Constants::wiperMethod, "ProcessTargetUser"},
        {"noSystemBus", Constants::noSystemBus, "Not connected to the system bus"},
    };
    return texts;
}

const QVector<Text> &vocabulary()
{
    namespace Vocabulary = LibAuthd::Vocabulary;
    static const QVector<Text> vocabulary = {
        {"NoUi", Vocabulary::NoUi, "no-ui"},
        {"AuthUi", Vocabulary::AuthUi, "auth-ui"},
        {"SecurityUi", Vocabulary::SecurityUi, "security-ui"},
        {"FactorName", Vocabulary::FactorName, "factor-name"},
        {"PrePage", Vocabulary::PrePage, "pre-page"},
        {"AuthPage", Vocabulary::AuthPage, "auth-page"},
        {"InfoPage", Vocabulary::InfoPage, "info-page"},
        {"UiType", Vocabulary::UiType, "ui-type"},
        {"CancelEnabled", Vocabulary::CancelEnabled, "cancel-enabled"},
        {"ResultCode", Vocabulary::ResultCode, "result-code"},
        {"InputRequestType", Vocabulary::InputRequestType, "input-request-type"},
        {"ForConfirm", Vocabulary::ForConfirm, "forConfirm"},
        {"TextForButton", Vocabulary::TextForButton, "textForButton"},
        {"AvailableServiceFactors", Vocabulary::AvailableServiceFactors, "available-service-factors"},
        {"AvailableServices", Vocabulary::AvailableServices, "available-services"},
        {"CanSwitchToUser", Vocabulary::CanSwitchToUser, "can-switch-to-user"},
        {"ShowLastLogin", Vocabulary::ShowLastLogin, "show-last-login"},
        {"LastLoginDate", Vocabulary::LastLoginDate, "last-login-date"},
        {"DisabledFactors", Vocabulary::DisabledFactors, "disabled-factors"},
        {"IsMultiFactorable", Vocabulary::IsMultiFactorable, "is-multi-factorable"},
        {"IsUserSettable", Vocabulary::IsUserSettable, "is-user-settable"},
        {"ServiceFactors", Vocabulary::ServiceFactors, "service-factors"},
        {"CountErrInMultifactorableAuth", Vocabulary::CountErrInMultifactorableAuth,
         "count-err-in-multifactorable-auth"},
        {"PermissiveMode", Vocabulary::PermissiveMode, "permissive-mode"},
        {"ShowNotifications", Vocabulary::ShowNotifications, "show-notifications"},
        {"AuthRequestInterval", Vocabulary::AuthRequestInterval, "auth-request-interval"},
        {"DevlockPrefix", Vocabulary::DevlockPrefix, "devlock/"},
        {"MethodsDirectory", Vocabulary::MethodsDirectory, "/var/lib/authd/methods/"},
        {"FactorMethod", Vocabulary::FactorMethod, "FactorMethod"},
        {"ActionMethod", Vocabulary::ActionMethod, "ActionMethod"},
        {"ActionUserMethod", Vocabulary::ActionUserMethod, "ActionUserMethod"},
        {"GetOption", Vocabulary::GetOption, "GetOption"},
        {"SetOption", Vocabulary::SetOption, "SetOption"},
        {"GetUserOption", Vocabulary::GetUserOption, "GetUserOption"},
        {"GetMethodOption", Vocabulary::GetMethodOption, "GetMethodOption"},
        {"SetMethodOption", Vocabulary::SetMethodOption, "SetMethodOption"},
        {"GetUserOptions", Vocabulary::GetUserOptions, "GetUserOptions"},
        {"SetUserOption", Vocabulary::SetUserOption, "SetUserOption"},
        {"GetUserMethodOption", Vocabulary::GetUserMethodOption, "GetUserMethodOption"},
        {"SetUserMethodOption", Vocabulary::SetUserMethodOption, "SetUserMethodOption"},
        {"RequestChallenge", Vocabulary::RequestChallenge, "RequestChallenge"},
        {"SetState", Vocabulary::SetState, "SetState"},
        {"GetState", Vocabulary::GetState, "GetState"},
        {"Authenticated", Vocabulary::Authenticated, "Authenticated"},
        {"AuthenticationFailed", Vocabulary::AuthenticationFailed, "AuthenticationFailed"},
        {"AuthDataChanged", Vocabulary::AuthDataChanged, "AuthDataChanged"},
        {"ChangeAuthDataFailed", Vocabulary::ChangeAuthDataFailed, "ChangeAuthDataFailed"},
        {"UnlockIfNeededFinished", Vocabulary::UnlockIfNeededFinished, "UnlockIfNeededFinished"},
        {"MethodActionCompleted", Vocabulary::MethodActionCompleted, "MethodActionCompleted"},
        {"Factor", Vocabulary::Factor, "Factor"},
        {"OptionChanged", Vocabulary::OptionChanged, "OptionChanged"},
        {"MethodOptionChanged", Vocabulary::MethodOptionChanged, "MethodOptionChanged"},
        {"UserOptionChanged", Vocabulary::UserOptionChanged, "UserOptionChanged"},
        {"UserMethodOptionChanged", Vocabulary::UserMethodOptionChanged, "UserMethodOptionChanged"},
        {"UserMethodActionCompleted", Vocabulary::UserMethodActionCompleted, "UserMethodActionCompleted"},
        {"StateChanged", Vocabulary::StateChanged, "StateChanged"},
        {"Worker", Vocabulary::Worker, "worker"},
        {"Unlock", Vocabulary::Unlock, "unlock"},
        {"Login", Vocabulary::Login, "login"},
    };
    return vocabulary;
}

QByteArray source(const QString &path)
{
    return TestDevice::readFile(QStringLiteral(SOURCE_DIR "/") + path);
}

/// The string literals of a source, without those in comments.
QStringList literals(const QByteArray &source)
{
    static const QRegularExpression expression(QStringLiteral("//[^\n]*|R?\"((?:[^\"\\\\\n]|\\\\.)*)\""));
    QStringList literals;
    auto matches = expression.globalMatch(QString::fromUtf8(source));
    while (matches.hasNext()) {
        const QRegularExpressionMatch match = matches.next();
        if (match.lastCapturedIndex() == 1)
            literals << match.captured(1);
    }
    return literals;
}

/// Lets alice authenticate and waits for the link to a client that answers getCertList with `list`. Its socket comes
/// once the process is known to run; an earlier one would not be noticed.
bool linkClient(MethodKavet &method, const QJsonArray &list)
{
    const QString go = QStringLiteral("/tmp/scripted-client/go");
    TestDevice::setScript({{QStringLiteral("certs"), list}, {QStringLiteral("socket"), go}});
    auto *d = method.findChild<MethodKavetPrivate *>();
    method.authenticate(TestDevice::alice, {});
    return QTest::qWaitFor([d] { return d->child.clientRunning; }) && TestDevice::writeFile(go, {})
           && QTest::qWaitFor([d] { return d->clientStage == MethodKavetPrivate::Linked; });
}

} // namespace

class TstOptions : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init() { TestDevice::reset(); }

    void methodDefaults()
    {
        MethodKavet method;
        const Options &defaults = method.defaultOptions(0);
        QCOMPARE(defaults.keys(), QStringList({certs, maxAttempts}));
        // The types count too, and comparing variants may convert.
        QCOMPARE(defaults.value(certs).userType(), int(QMetaType::QStringList));
        QCOMPARE(defaults.value(certs).toStringList(), QStringList());
        QVERIFY(defaults.value(certs).isValid());
        QCOMPARE(defaults.value(maxAttempts).userType(), int(QMetaType::Int));
        QCOMPARE(defaults.value(maxAttempts).toInt(), 0);
    }

    void userDefaults_data()
    {
        QTest::addColumn<uint>("uid");
        QTest::newRow("first") << 1u;
        QTest::newRow("alice") << TestDevice::alice;
        QTest::newRow("no such user") << 54321u;
        QTest::newRow("largest") << 4294967295u;
    }
    void userDefaults()
    {
        QFETCH(uint, uid);
        MethodKavet method;
        const Options &defaults = method.defaultOptions(uid);
        QCOMPARE(defaults.keys(), QStringList({attempts, delayedDeletion}));
        QCOMPARE(defaults.value(delayedDeletion).userType(), int(QMetaType::Bool));
        QCOMPARE(defaults.value(delayedDeletion).toBool(), false);
        QCOMPARE(defaults.value(attempts).userType(), int(QMetaType::Int));
        QCOMPARE(defaults.value(attempts).toInt(), 0);
        QCOMPARE(&defaults, &method.defaultOptions(TestDevice::bob));
    }

    void sameTablesEveryTime()
    {
        auto *method = new MethodKavet;
        const Options *methodWide = &method->defaultOptions(0);
        const Options *perUser = &method->defaultOptions(TestDevice::alice);
        const ValidationScope *methodScope = &method->getOptionsValidations(0);
        const ValidationScope *userScope = &method->getOptionsValidations(TestDevice::alice);
        QVERIFY(methodWide != perUser);
        QVERIFY(methodScope != userScope);
        QCOMPARE(&method->defaultOptions(0), methodWide);
        QCOMPARE(&method->defaultOptions(TestDevice::carol), perUser);
        QCOMPARE(&method->getOptionsValidations(0), methodScope);
        QCOMPARE(&method->getOptionsValidations(TestDevice::carol), userScope);

        // They outlive the method.
        delete method;
        MethodKavet other;
        QCOMPARE(&other.defaultOptions(0), methodWide);
        QCOMPARE(&other.defaultOptions(1), perUser);
        QCOMPARE(&other.getOptionsValidations(0), methodScope);
        QCOMPARE(&other.getOptionsValidations(1), userScope);
    }

    void tablesNeverChange()
    {
        MethodKavet method;
        const Options methodWide = method.defaultOptions(0);
        const Options perUser = method.defaultOptions(TestDevice::alice);

        QVERIFY(method.setOptionInternal(0, certs, QStringList{QStringLiteral("one")}));
        QVERIFY(method.setOptionInternal(0, maxAttempts, 7));
        QVERIFY(method.setOptionInternal(TestDevice::alice, attempts, 2));
        QVERIFY(method.setOptionInternal(TestDevice::alice, delayedDeletion, true));
        QVERIFY(method.setOptionInternal(TestDevice::alice, QStringLiteral("unknown"), 1));

        QCOMPARE(method.getOptionInternal(0, maxAttempts), QVariant(7));
        QCOMPARE(method.getOptionInternal(TestDevice::bob, attempts), QVariant(0));
        QCOMPARE(method.defaultOptions(0), methodWide);
        QCOMPARE(method.defaultOptions(TestDevice::alice), perUser);
        QCOMPARE(method.defaultOptions(0).value(maxAttempts), QVariant(0));
        QCOMPARE(method.defaultOptions(TestDevice::alice).value(attempts), QVariant(0));
        QCOMPARE(method.defaultOptions(TestDevice::alice).value(delayedDeletion), QVariant(false));
    }

    void methodValidations()
    {
        MethodKavet method;
        const Rules rules = method.getOptionsValidations(0).rules();
        QCOMPARE(rules.size(), 2);
        QCOMPARE(rules.value(QFlags<ValidationOption>(QFlag(7))), QStringList{certs});
        QCOMPARE(rules.value(QFlags<ValidationOption>(QFlag(3))), QStringList{maxAttempts});
    }

    void userValidations()
    {
        MethodKavet method;
        for (const uint uid : {1u, TestDevice::alice, 4294967295u}) {
            const Rules rules = method.getOptionsValidations(uid).rules();
            QCOMPARE(rules.size(), 1);
            QCOMPARE(rules.value(QFlags<ValidationOption>(QFlag(7))), QStringList({delayedDeletion, attempts}));
        }
    }

    void getOptionWithoutLink_data()
    {
        QTest::addColumn<QString>("name");
        QTest::newRow("certs") << certs;
        QTest::newRow("max-attempts") << maxAttempts;
        QTest::newRow("attempts") << attempts;
        QTest::newRow("delayed-deletion") << delayedDeletion;
        QTest::newRow("unknown") << QStringLiteral("unknown");
        QTest::newRow("empty") << QString();
    }
    void getOptionWithoutLink()
    {
        QFETCH(QString, name);
        MethodKavet method;
        auto *d = method.findChild<MethodKavetPrivate *>();
        QVERIFY(method.setOptionInternal(0, name.isEmpty() ? certs : name, 3));
        QVERIFY(method.setOptionInternal(TestDevice::alice, name.isEmpty() ? certs : name, 3));

        QVERIFY(!method.getOption(TestDevice::alice, name).isValid());
        QVERIFY(!method.getOption(1, name).isValid());
        QVERIFY(!d->certListPending);

        const QVariant option = method.getOption(0, name);
        QCOMPARE(option.userType(), int(QMetaType::QStringList));
        QCOMPARE(option.toStringList(), QStringList());
        QVERIFY(d->certListPending);
    }

    void getOptionAsksTheClient()
    {
        RecordingDaemon daemon;
        MethodKavet method;
        method.setNotificator(&daemon);
        auto *d = method.findChild<MethodKavetPrivate *>();
        QVERIFY(linkClient(method, {QStringLiteral("one"), QStringLiteral("two")}));
        daemon.calls.clear();

        const QStringList fetching{QStringLiteral(".")};
        const RecordingDaemon::Call arrived{
            QStringLiteral("optionChanged"),
            {0u, certs, QStringList{QStringLiteral("one"), QStringLiteral("two")}, true}};
        int asked = 0;
        for (const QString &name : {certs, maxAttempts, QStringLiteral("unknown")}) {
            // Each time afresh, whatever the name.
            const QVariant option = method.getOption(0, name);
            QCOMPARE(option.userType(), int(QMetaType::QStringList));
            QCOMPARE(option.toStringList(), fetching);
            QVERIFY(!method.getOption(TestDevice::alice, name).isValid());
            ++asked;
            QTRY_COMPARE(daemon.calls, QVector<RecordingDaemon::Call>(asked, arrived));
            QCOMPARE(TestDevice::calls().size(), asked);
            QCOMPARE(TestDevice::calls().constLast(), QJsonArray{QStringLiteral("getCertList")});
            QTRY_VERIFY(!d->certListInFlight);
        }
    }

    void constants()
    {
        const auto all = texts() + vocabulary();
        for (const Text &text : all)
            QVERIFY2(text.constant == QLatin1String(text.text), text.name);
    }

    void otherConstants()
    {
        QCOMPARE(Constants::clientGroup, "auth-factor");
        QCOMPARE(std::size(Constants::supplementaryGroups), size_t(1));
        QCOMPARE(Constants::supplementaryGroups[0], "inet");
        QCOMPARE(Constants::methodTypes, 20);
        QCOMPARE(Constants::launchBudget, 11u);
        QCOMPARE(Constants::unknownOwner, 4294967294u);
        QCOMPARE(Constants::lockoutDuration, 4294967295u);
    }

    void allConstantsAreTestedHere()
    {
        const QString header = QString::fromUtf8(source(QStringLiteral("settings/constants.h")));
        QVERIFY(!header.isEmpty());
        QStringList names;
        auto matches = QRegularExpression(QStringLiteral("extern const QString (\\w+);")).globalMatch(header);
        while (matches.hasNext())
            names << matches.next().captured(1);
        QStringList tested;
        for (const Text &text : texts())
            tested << QString::fromLatin1(text.name);
        names.sort();
        tested.sort();
        QCOMPARE(tested, names);
    }

    void eachTextStandsOnce()
    {
        const QStringList own = literals(source(QStringLiteral("settings/constants.cpp")));
        QVERIFY(own.contains(QStringLiteral("kavet")));
        for (const QString &text : own)
            QVERIFY2(own.count(text) == 1, qPrintable(text));

        QStringList once;
        const auto all = texts() + vocabulary();
        for (const Text &text : all)
            once << QString::fromLatin1(text.text);
        once << QString::fromLatin1(Constants::clientGroup);

        int sources = 0;
        for (const char *folder : {"plugin", "auth", "client", "settings"}) {
            QDirIterator files(QStringLiteral(SOURCE_DIR "/%1").arg(QLatin1String(folder)),
                               {QStringLiteral("*.cpp"), QStringLiteral("*.h")}, QDir::Files);
            while (files.hasNext()) {
                const QString path = files.next();
                ++sources;
                if (path.endsWith(QLatin1String("/settings/constants.cpp")))
                    continue;
                const QStringList found = literals(TestDevice::readFile(path));
                for (const QString &text : found) {
                    QVERIFY2(!once.contains(text),
                             qPrintable(QStringLiteral("%1 writes \"%2\" again").arg(path, text)));
                }
            }
        }
        QVERIFY(sources > 20);
    }
};

QTEST_GUILESS_MAIN(TstOptions)
#include "tst_options.moc"
