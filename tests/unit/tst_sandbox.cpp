// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#include "launcherarguments.h"
#include "plugin/methodkavet.h"
#include "plugin/methodkavetprivate.h"
#include "support/logcapture.h"
#include "support/testdevice.h"

#include <QDir>
#include <QFile>
#include <QTest>

namespace {

const QString stockCommand = QStringLiteral("/usr/bin/tarsk.kavet_client");
const QString baseProfile = QStringLiteral("--profile=/etc/varnet/permissions/Base.permission");
constexpr int fixedArguments = 17;

/// The method's private object, with the present manifest.
struct Method
{
    MethodKavet method;
    MethodKavetPrivate *const d = method.findChild<MethodKavetPrivate *>();
};

bool grantIn(const QString &directory, const QString &permission)
{
    return TestDevice::writeFile(directory + QLatin1Char('/') + permission + QStringLiteral(".permission"), "net none");
}

bool grantInEtc(const QString &permission)
{
    return grantIn(QStringLiteral("/etc/varnet/permissions"), permission);
}

bool grantInVar(const QString &permission)
{
    return grantIn(QStringLiteral("/var/lib/varnet/permissions"), permission);
}

/// The profile arguments for a manifest with these permissions. Also checks the arguments around them.
QStringList profiles(const QStringList &permissions)
{
    TestDevice::writeManifest(QStringLiteral("tarsk"), QStringLiteral("kavet_client"), stockCommand, permissions);
    const Method method;
    const QStringList arguments = method.d->getLaunchArgs();
    if (arguments.size() < fixedArguments + 2
        || arguments.at(fixedArguments - 1) != QLatin1String("--dbus-system.talk=qarv.AuthService")
        || arguments.mid(arguments.size() - 2) != QStringList{stockCommand, QStringLiteral("--no-gui")})
        return QStringList{QStringLiteral("out of place:")} + arguments;
    return arguments.mid(fixedArguments, arguments.size() - fixedArguments - 2);
}

} // namespace

class TstSandbox : public QObject
{
    Q_OBJECT

public:
    /// Profile names may contain other than ASCII characters.
    static void initMain() { qputenv("LC_ALL", "C.UTF-8"); }

private Q_SLOTS:
    void init();

    void stockManifest();
    void oddNames();
    void commandIsOneArgument();

    void profileOfEitherDirectory();
    void profileOfAnyKind();
    void baseProfileNeedNotExist();
    void permissionsInOrder();
    void oddPermissions();
    void manyPermissions();

    void onlyPermissionsAreReadAfresh();

    void preconditions_data();
    void preconditions();
    void unreadableManifest_data();
    void unreadableManifest();
};

void TstSandbox::init()
{
    TestDevice::reset();
}

void TstSandbox::stockManifest()
{
    LogCapture log(true);
    const Method method;
    const QStringList arguments = method.d->getLaunchArgs();
    QCOMPARE(arguments, launcherArguments({baseProfile}, stockCommand));
    QCOMPARE(arguments.size(), 20);
    QVERIFY(log.lines().isEmpty());
}

void TstSandbox::oddNames()
{
    QVERIFY(TestDevice::writeManifest(QStringLiteral("Zwei Öre"), QStringLiteral("клиент ☂.x"),
                                      QStringLiteral("/opt/ö ☂/run \"a  b\" --x=1"), {QStringLiteral("Token")}));
    QVERIFY(grantInEtc(QStringLiteral("Token")));

    const Method method;
    const QStringList expected = {
        QStringLiteral("--quiet"),
        QStringLiteral("--template=OrganizationName:Zwei Öre"),
        QStringLiteral("--template=ApplicationName:клиент ☂.x"),
        QStringLiteral("--private-bin=Zwei Öre.клиент ☂.x"),
        QStringLiteral("--whitelist=/usr/share/Zwei Öre.клиент ☂.x"),
        QStringLiteral("--whitelist=${HOME}/.local/share/Zwei Öre.клиент ☂.x"),
        QStringLiteral("--whitelist=${HOME}/.config/Zwei Öre.клиент ☂.x"),
        QStringLiteral("--whitelist=${HOME}/.cache/Zwei Öre.клиент ☂.x"),
        QStringLiteral("--mkdir=${HOME}/.cache/Zwei Öre/клиент ☂.x"),
        QStringLiteral("--whitelist=${HOME}/.cache/Zwei Öre/клиент ☂.x"),
        QStringLiteral("--mkdir=${HOME}/.local/share/Zwei Öre/клиент ☂.x"),
        QStringLiteral("--whitelist=${HOME}/.local/share/Zwei Öre/клиент ☂.x"),
        QStringLiteral("--mkdir=${HOME}/.config/Zwei Öre/клиент ☂.x"),
        QStringLiteral("--whitelist=${HOME}/.config/Zwei Öre/клиент ☂.x"),
        QStringLiteral("--whitelist=/srv/shared/Zwei Öre/клиент ☂.x"),
        QStringLiteral("--dbus-user.own=Zwei Öre.клиент ☂.x"),
        QStringLiteral("--dbus-system.talk=qarv.AuthService"),
        QStringLiteral("--profile=/etc/varnet/permissions/Token.permission"),
        QStringLiteral("--profile=/etc/varnet/permissions/Base.permission"),
        QStringLiteral("/opt/ö ☂/run \"a  b\" --x=1"),
        QStringLiteral("--no-gui"),
    };
    QCOMPARE(method.d->getLaunchArgs(), expected);

    method.d->child.orgName = QStringLiteral(" a ");
    method.d->child.appName = QStringLiteral(" b ");
    QCOMPARE(method.d->getLaunchArgs().mid(1, 3),
             (QStringList{QStringLiteral("--template=OrganizationName: a "),
                          QStringLiteral("--template=ApplicationName: b "), QStringLiteral("--private-bin= a . b ")}));
}

void TstSandbox::commandIsOneArgument()
{
    const QString command = QStringLiteral("/usr/bin/tarsk.kavet_client -x 'a b'  \"c\" --no-gui");
    QVERIFY(TestDevice::writeManifest(QStringLiteral("tarsk"), QStringLiteral("kavet_client"), command, {}));

    const Method method;
    const QStringList arguments = method.d->getLaunchArgs();
    QCOMPARE(arguments.size(), 20);
    QCOMPARE(arguments.mid(17), (QStringList{baseProfile, command, QStringLiteral("--no-gui")}));

    for (const QString &blank : {QStringLiteral("  /usr/bin/x\t "), QStringLiteral(" ")}) {
        method.d->child.exec = blank;
        QCOMPARE(method.d->getLaunchArgs().mid(18), (QStringList{blank, QStringLiteral("--no-gui")}));
    }
}

void TstSandbox::profileOfEitherDirectory()
{
    const QStringList permission = {QStringLiteral("Token")};
    const QString inEtc = QStringLiteral("--profile=/etc/varnet/permissions/Token.permission");
    const QString inVar = QStringLiteral("--profile=/var/lib/varnet/permissions/Token.permission");
    LogCapture log(true);

    QCOMPARE(profiles(permission), QStringList{baseProfile});
    QVERIFY(grantInVar(QStringLiteral("Token")));
    QCOMPARE(profiles(permission), (QStringList{inVar, baseProfile}));
    QVERIFY(grantInEtc(QStringLiteral("Token")));
    QCOMPARE(profiles(permission), (QStringList{inEtc, baseProfile}));
    QVERIFY(QFile::remove(QStringLiteral("/var/lib/varnet/permissions/Token.permission")));
    QCOMPARE(profiles(permission), (QStringList{inEtc, baseProfile}));
    QVERIFY(log.lines().isEmpty());
}

void TstSandbox::profileOfAnyKind()
{
    const QString inEtc = QStringLiteral("/etc/varnet/permissions/Token.permission");
    QVERIFY(grantInVar(QStringLiteral("Token")));
    QVERIFY(QDir().mkpath(QStringLiteral("/etc/varnet/permissions")));
    QVERIFY(QFile::link(QStringLiteral("/nowhere"), inEtc)); // does not exist
    QCOMPARE(profiles({QStringLiteral("Token")}),
             (QStringList{QStringLiteral("--profile=/var/lib/varnet/permissions/Token.permission"), baseProfile}));
    QVERIFY(QFile::remove(inEtc));
    QVERIFY(QDir().mkdir(inEtc));
    QCOMPARE(profiles({QStringLiteral("Token")}), (QStringList{QStringLiteral("--profile=") + inEtc, baseProfile}));
}

void TstSandbox::baseProfileNeedNotExist()
{
    QVERIFY(!QFile::exists(QStringLiteral("/etc/varnet/permissions/Base.permission")));
    QCOMPARE(profiles({}), QStringList{baseProfile});
    QVERIFY(grantInEtc(QStringLiteral("Base")));
    QCOMPARE(profiles({}), QStringList{baseProfile});
    // A permission that the manifest names keeps its place. The last one is still appended.
    QVERIFY(grantInVar(QStringLiteral("Zone")));
    QCOMPARE(profiles({QStringLiteral("Base"), QStringLiteral("Zone")}),
             (QStringList{baseProfile, QStringLiteral("--profile=/var/lib/varnet/permissions/Zone.permission"),
                          baseProfile}));
}

void TstSandbox::permissionsInOrder()
{
    QVERIFY(grantInVar(QStringLiteral("Zoo")));
    QVERIFY(grantInEtc(QStringLiteral("Audio")));
    QVERIFY(grantInEtc(QStringLiteral("Middle")));
    QVERIFY(grantInVar(QStringLiteral("Middle")));

    QCOMPARE(profiles({QStringLiteral("Zoo"), QStringLiteral("None"), QStringLiteral("Middle"), QStringLiteral("Audio"),
                       QStringLiteral("Zoo")}),
             (QStringList{QStringLiteral("--profile=/var/lib/varnet/permissions/Zoo.permission"),
                          QStringLiteral("--profile=/etc/varnet/permissions/Middle.permission"),
                          QStringLiteral("--profile=/etc/varnet/permissions/Audio.permission"),
                          QStringLiteral("--profile=/var/lib/varnet/permissions/Zoo.permission"), baseProfile}));
}

void TstSandbox::oddPermissions()
{
    QVERIFY(grantInEtc(QStringLiteral("Smart Card")));
    QVERIFY(grantInVar(QStringLiteral("Сеть ☂")));
    QVERIFY(grantInVar(QStringLiteral("nested/One")));

    QCOMPARE(profiles({QStringLiteral("Smart Card"), QStringLiteral("Сеть ☂"), QStringLiteral("nested/One"),
                       QStringLiteral("smart card")}),
             (QStringList{QStringLiteral("--profile=/etc/varnet/permissions/Smart Card.permission"),
                          QStringLiteral("--profile=/var/lib/varnet/permissions/Сеть ☂.permission"),
                          QStringLiteral("--profile=/var/lib/varnet/permissions/nested/One.permission"), baseProfile}));
}

void TstSandbox::manyPermissions()
{
    QStringList permissions;
    QStringList expected;
    for (int i = 0; i < 500; ++i) {
        const QString name = QStringLiteral("Permission%1").arg(i);
        permissions << name;
        if (i % 3 == 0) {
            QVERIFY(grantInEtc(name));
            expected << QStringLiteral("--profile=/etc/varnet/permissions/%1.permission").arg(name);
        } else if (i % 3 == 1) {
            QVERIFY(grantInVar(name));
            expected << QStringLiteral("--profile=/var/lib/varnet/permissions/%1.permission").arg(name);
        }
    }
    QCOMPARE(profiles(permissions), expected + QStringList{baseProfile});
}

void TstSandbox::onlyPermissionsAreReadAfresh()
{
    QVERIFY(grantInEtc(QStringLiteral("Old")));
    QVERIFY(grantInEtc(QStringLiteral("New")));
    QVERIFY(TestDevice::writeManifest(QStringLiteral("tarsk"), QStringLiteral("kavet_client"), stockCommand,
                                      {QStringLiteral("Old")}));
    const Method method;
    const QStringList before = method.d->getLaunchArgs();
    QCOMPARE(before.at(17), QStringLiteral("--profile=/etc/varnet/permissions/Old.permission"));

    QVERIFY(TestDevice::writeManifest(QStringLiteral("other"), QStringLiteral("program"),
                                      QStringLiteral("/usr/bin/other"), {QStringLiteral("New")}));
    QStringList expected = before;
    expected[17] = QStringLiteral("--profile=/etc/varnet/permissions/New.permission");
    QCOMPARE(method.d->getLaunchArgs(), expected);
}

void TstSandbox::preconditions_data()
{
    const QString noOrganization = QStringLiteral("Empty OrganizationName= statement in desktop file");
    const QString noApplication = QStringLiteral("Empty ApplicationName= statement in desktop file");
    const QString noCommand = QStringLiteral("Empty ExecCmd= statement in desktop file.");
    const QString noManifest =
        QStringLiteral("Cannot open desktop file \"/usr/share/applications/tarsk.kavet_client.desktop\"");

    QTest::addColumn<bool>("organization");
    QTest::addColumn<bool>("application");
    QTest::addColumn<bool>("command");
    QTest::addColumn<bool>("manifest");
    QTest::addColumn<QString>("message");

    QTest::newRow("no organization") << false << true << true << true << noOrganization;
    QTest::newRow("no application") << true << false << true << true << noApplication;
    QTest::newRow("no command") << true << true << false << true << noCommand;
    QTest::newRow("no manifest") << true << true << true << false << noManifest;
    // The first missing one is reported.
    QTest::newRow("nothing at all") << false << false << false << false << noOrganization;
    QTest::newRow("only an organization") << true << false << false << false << noApplication;
    QTest::newRow("only the names") << true << true << false << false << noCommand;
    QTest::newRow("no organization and no manifest") << false << true << true << false << noOrganization;
}

void TstSandbox::preconditions()
{
    QFETCH(bool, organization);
    QFETCH(bool, application);
    QFETCH(bool, command);
    QFETCH(bool, manifest);
    QFETCH(QString, message);

    const auto named = [](bool present, const QString &name) {
        return present ? name : QString();
    };
    QVERIFY(TestDevice::writeManifest(named(organization, QStringLiteral("tarsk")),
                                      named(application, QStringLiteral("kavet_client")), named(command, stockCommand),
                                      {}));
    const Method method;
    if (!manifest)
        QVERIFY(QFile::remove(TestDevice::manifest));

    LogCapture log(true);
    QCOMPARE(method.d->getLaunchArgs(), QStringList());
    QCOMPARE(log.criticals(), QStringList{message});
    QCOMPARE(log.lines().size(), 1);
}

void TstSandbox::unreadableManifest_data()
{
    QTest::addColumn<QString>("kind");
    QTest::newRow("directory") << QStringLiteral("directory");
    QTest::newRow("link that leads nowhere") << QStringLiteral("link");
    QTest::newRow("no manifest at all") << QStringLiteral("noise");
    QTest::newRow("without the group") << QStringLiteral("group");
}

void TstSandbox::unreadableManifest()
{
    QFETCH(QString, kind);

    const Method method;
    QVERIFY(!method.d->getLaunchArgs().isEmpty());
    QVERIFY(QFile::remove(TestDevice::manifest));
    if (kind == QLatin1String("directory"))
        QVERIFY(QDir().mkpath(TestDevice::manifest));
    else if (kind == QLatin1String("link"))
        QVERIFY(QFile::link(QStringLiteral("/nowhere"), TestDevice::manifest));
    else if (kind == QLatin1String("noise"))
        QVERIFY(TestDevice::writeFile(TestDevice::manifest, QByteArray(4096, '\x80')));
    else
        QVERIFY(TestDevice::writeFile(TestDevice::manifest, "[Desktop Entry]\nType=Application\n"));

    LogCapture log(true);
    QCOMPARE(method.d->getLaunchArgs(), QStringList());
    QCOMPARE(log.criticals(), QStringList{QStringLiteral(
                                  "Cannot open desktop file \"/usr/share/applications/tarsk.kavet_client.desktop\"")});
    QCOMPARE(log.lines().size(), 1);
}

QTEST_GUILESS_MAIN(TstSandbox)
#include "tst_sandbox.moc"
