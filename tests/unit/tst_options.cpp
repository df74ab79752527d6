// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#include "plugin/methodkavet.h"
#include "plugin/methodkavetprivate.h"
#include "settings/constants.h"
#include "support/recordingdaemon.h"
#include "support/testdevice.h"
#include "support/waiting.h"

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

/// Repeated here, because other programs rely on these values.
const QVector<Text> &texts()
{
    static const QVector<Text> texts = {
        {"Method::name", Constants::Method::name, "kavet"},
        {"Paths::methods", Constants::Paths::methods, "/var/lib/authd/methods/"},
        {"Paths::methodSettings", Constants::Paths::methodSettings, "%1/%2/current.conf"},
        {"Paths::systemLimit", Constants::Paths::systemLimit, "%1/%2/system-limit.conf"},
        {"Paths::userOptions", Constants::Paths::userOptions, "/var/lib/authd/users/%1.conf"},
        {"Method::page", Constants::Method::page, "MethodPageKavet"},
        {"Method::prePage", Constants::Method::prePage, "PreMethodPageKavet"},
        {"Method::infoPage", Constants::Method::infoPage, "KavetInfo"},
        {"Options::certs", Constants::Options::certs, "certs"},
        {"Options::maxAttempts", Constants::Options::maxAttempts, "max-attempts"},
        {"Options::delayedDeletion", Constants::Options::delayedDeletion, "delayed-deletion"},
        {"Options::attempts", Constants::Options::attempts, "attempts"},
        {"Options::updatingCerts", Constants::Options::updatingCerts, "."},
        {"Request::password", Constants::Request::password, "password"},
        {"Request::cert", Constants::Request::cert, "cert"},
        {"Request::pin", Constants::Request::pin, "pin"},
        {"Answers::success", Constants::Answers::success, "success"},
        {"Answers::lock", Constants::Answers::lock, "lock"},
        {"Answers::remove", Constants::Answers::remove, "remove"},
        {"Answers::noUsb", Constants::Answers::noUsb, "nousb"},
        {"Answers::connectionError", Constants::Answers::connectionError, "connerr"},
        {"Answers::failed", Constants::Answers::failed, "failed"},
        {"Answers::badDefaultCert", Constants::Answers::badDefaultCert, "firstcererr"},
        {"Answers::unknownRequest", Constants::Answers::unknownRequest, "errauthtype"},
        {"Link::directory", Constants::Link::directory, "/run/aux-auth/tarsk/kavet_client"},
        {"Link::socketName", Constants::Link::socketName, "kavet.socket"},
        {"Link::socketPath", Constants::Link::socketPath, "/run/aux-auth/tarsk/kavet_client/kavet.socket"},
        {"Link::address", Constants::Link::address, "unix:path=/run/aux-auth/tarsk/kavet_client/kavet.socket"},
        {"Link::connectionName", Constants::Link::connectionName, "kavet_p2p_service"},
        {"Link::service", Constants::Link::service, "tarsk.kavet_client"},
        {"Link::objectPath", Constants::Link::objectPath, "/kavetauth"},
        {"Paths::manifest", Constants::Paths::manifest, "/usr/share/applications/tarsk.kavet_client.desktop"},
        {"Paths::shared", Constants::Paths::shared, "/srv/shared"},
        {"Paths::userSettings", Constants::Paths::userSettings, "%1/%2.conf"},
        {"Paths::packagedPolicy", Constants::Paths::packagedPolicy, "/usr/share/tarsk.kavet_client/policy.conf"},
        {"Paths::currentPolicy", Constants::Paths::currentPolicy, "/srv/shared/tarsk/kavet_client/current.conf"},
        {"Paths::firstStartMarker", Constants::Paths::firstStartMarker, ".qarv-startupwizard-usersession-done"},
        {"Process::launcher", Constants::Process::launcher, "/usr/bin/firejail"},
        {"Process::homeVariable", Constants::Process::homeVariable, "HOME"},
        {"Paths::homes", Constants::Paths::homes, "/home/"},
        {"Process::sessionBusVariable", Constants::Process::sessionBusVariable, "DBUS_SESSION_BUS_ADDRESS"},
        {"Process::sessionBusAddress", Constants::Process::sessionBusAddress,
         "unix:path=/run/user/%1/dbus/user_bus_socket"},
        {"Sandbox::quiet", Constants::Sandbox::quiet, "--quiet"},
        {"Sandbox::organizationTemplate", Constants::Sandbox::organizationTemplate, "--template=OrganizationName:"},
        {"Sandbox::applicationTemplate", Constants::Sandbox::applicationTemplate, "--template=ApplicationName:"},
        {"Sandbox::privateBin", Constants::Sandbox::privateBin, "--private-bin="},
        {"Sandbox::whitelist", Constants::Sandbox::whitelist, "--whitelist="},
        {"Sandbox::mkdir", Constants::Sandbox::mkdir, "--mkdir="},
        {"Sandbox::ownUserBusName", Constants::Sandbox::ownUserBusName, "--dbus-user.own="},
        {"Sandbox::talkSystemBusName", Constants::Sandbox::talkSystemBusName, "--dbus-system.talk="},
        {"Sandbox::profile", Constants::Sandbox::profile, "--profile="},
        {"Sandbox::noGui", Constants::Sandbox::noGui, "--no-gui"},
        {"Sandbox::packagedData", Constants::Sandbox::packagedData, "/usr/share/"},
        {"Sandbox::userData", Constants::Sandbox::userData, "${HOME}/.local/share/"},
        {"Sandbox::userConfig", Constants::Sandbox::userConfig, "${HOME}/.config/"},
        {"Sandbox::userCache", Constants::Sandbox::userCache, "${HOME}/.cache/"},
        {"Sandbox::authService", Constants::Sandbox::authService, "qarv.AuthService"},
        {"Sandbox::permissions", Constants::Sandbox::permissions, "/etc/varnet/permissions/"},
        {"Sandbox::installedPermissions", Constants::Sandbox::installedPermissions, "/var/lib/varnet/permissions/"},
        {"Sandbox::permissionSuffix", Constants::Sandbox::permissionSuffix, ".permission"},
        {"Sandbox::basePermission", Constants::Sandbox::basePermission, "Base"},
        {"Lockout::eventLevel", Constants::Lockout::eventLevel, "WARN_LEVEL"},
        {"Lockout::event", Constants::Lockout::event, "devlock-attempts-expired"},
        {"Lockout::reason", Constants::Lockout::reason, "kavet-max-attempts"},
        {"Wiper::service", Constants::Wiper::service, "qarv.userdata.wiper"},
        {"Wiper::objectPath", Constants::Wiper::objectPath, "/qarv/userdata/wiper"},
        {"Wiper::interface", Constants::Wiper::interface, "qarv.userdata.wiper"},
        {"Wiper::method", Constants::Wiper::method, "ProcessTargetUser"},
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

/// Lets alice authenticate and waits for the link to a client that replies to getCertList with `list`. The socket
/// appears once the method knows that the process runs; the method ignores an earlier one.
bool linkClient(MethodKavet &method, const QJsonArray &list)
{
    const QString go = QStringLiteral("/tmp/scripted-client/go");
    TestDevice::setScript({{QStringLiteral("certs"), list}, {QStringLiteral("socket"), go}});
    auto *d = method.findChild<MethodKavetPrivate *>();
    method.authenticate(TestDevice::alice, {});
    return waitUntil([d] { return d->child.clientRunning; }) && TestDevice::writeFile(go, {})
           && waitUntil([d] { return d->clientStage == MethodKavetPrivate::Linked; });
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
        // Compare the types too, because comparing variants may convert them.
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
            // The result is computed each time, whatever the name.
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
        QCOMPARE(Constants::Process::group, "auth-factor");
        QCOMPARE(std::size(Constants::Process::supplementaryGroups), size_t(1));
        QCOMPARE(Constants::Process::supplementaryGroups[0], "inet");
        QCOMPARE(Constants::Method::types, 20);
        QCOMPARE(Constants::Process::launchBudget, 11u);
        QCOMPARE(Constants::Process::unknownOwner, 4294967294u);
        QCOMPARE(Constants::Lockout::duration, 4294967295u);
    }

    void allConstantsAreTestedHere()
    {
        const QString header = QString::fromUtf8(source(QStringLiteral("settings/constants.h")));
        QVERIFY(!header.isEmpty());
        QStringList names;
        QString subject;
        const QRegularExpression line(QStringLiteral("^namespace (\\w+) \\{|^extern const QString (\\w+);"),
                                      QRegularExpression::MultilineOption);
        auto matches = line.globalMatch(header);
        while (matches.hasNext()) {
            const QRegularExpressionMatch match = matches.next();
            if (match.captured(2).isEmpty())
                subject = match.captured(1);
            else
                names << subject + QStringLiteral("::") + match.captured(2);
        }
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
        once << QString::fromLatin1(Constants::Process::group);

        int sources = 0;
        for (const char *folder : {"plugin", "auth", "client", "files", "settings"}) {
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
