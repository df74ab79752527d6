// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#include "device/installed.h"
#include "plugin/methodkavet.h"
#include "plugin/methodkavetprivate.h"
#include "support/recordingdaemon.h"
#include "support/testdevice.h"
#include "support/wiper.h"

#include <QDBusConnection>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QProcess>
#include <QTest>

/// What the client can and cannot do in the real sandbox, with the device's launcher and permission profiles. A probe
/// program replaces the client.
class TstConfinement : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();

    void givesUpAllPrivileges();
    void seesItsOwnProgramOnly();
    void cannotReadOthers();
    void cannotWriteOutside();
    void talksToTheNamedServiceOnly();
    void ownsItsOwnNameOnly();
    void hasNoNetwork();
    void endsWithTheLauncher();

private:
    MethodKavet m_method;
    MethodKavetPrivate *m_private = nullptr;
    RecordingDaemon m_daemon;
    QProcess m_sessionBus;
    QJsonObject m_report;

    bool result(const char *kind, const QString &subject) const;
};

namespace {

const QString report = TestDevice::sharedDirectory + QStringLiteral("/report.json");
const QString bobsFile = QStringLiteral("/home/bob/diary");
const QString alicesFile = QStringLiteral("/home/alice/diary");
const QString ownName = QStringLiteral("tarsk.kavet_client");
const QString otherName = QStringLiteral("tarsk.other");
const QString authService = QStringLiteral("qarv.AuthService");
const QString otherService = QStringLiteral("tarsk.everybody");
const QStringList ownFiles = {TestDevice::clientDirectory + QStringLiteral("/probe"),
                              TestDevice::sharedDirectory + QStringLiteral("/probe"),
                              QStringLiteral("/home/alice/.config/tarsk/kavet_client/probe"),
                              QStringLiteral("/home/alice/.cache/tarsk/kavet_client/probe"),
                              QStringLiteral("/home/alice/.local/share/tarsk/kavet_client/probe")};
const QString probeName = QStringLiteral("/probe");
// World-writable, so that only the sandbox keeps the client out.
const QStringList otherDirectories = {QStringLiteral("/srv/shared/other"), QStringLiteral("/home/bob/open"),
                                      QStringLiteral("/home/alice/open"), QStringLiteral("/tmp/open"),
                                      QStringLiteral("/mnt/open")};

bool mayBeCalledOutside(const QString &service)
{
    QProcess caller;
    caller.start(QStringLiteral("setpriv"),
                 {QStringLiteral("--reuid=1000"), QStringLiteral("--clear-groups"), QStringLiteral("dbus-send"),
                  QStringLiteral("--system"), QStringLiteral("--print-reply"), QStringLiteral("--dest=") + service,
                  QStringLiteral("/"), QStringLiteral("org.freedesktop.DBus.Peer.Ping")});
    // This process sends the reply, so it must process events.
    [&] {
        QTRY_COMPARE(caller.state(), QProcess::NotRunning);
    }();
    return caller.exitStatus() == QProcess::NormalExit && caller.exitCode() == 0;
}

} // namespace

void TstConfinement::initTestCase()
{
    QVERIFY2(TestDevice::isDevice(), "Run this test in the disposable device: device/enter");

    QVERIFY(TestDevice::writeFile(
        QStringLiteral("/usr/share/dbus-1/system.d/tarsk.everybody.conf"),
        "<!DOCTYPE busconfig PUBLIC \"-//freedesktop//DTD D-BUS Bus Configuration 1.0//EN\""
        " \"http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd\">"
        "<busconfig><policy user=\"root\"><allow own=\"tarsk.everybody\"/></policy>"
        "<policy context=\"default\"><allow send_destination=\"tarsk.everybody\"/></policy></busconfig>"));
    QVERIFY(startSystemBus());
    QVERIFY(QDBusConnection::systemBus().registerService(authService));
    QVERIFY(QDBusConnection::systemBus().registerService(otherService));
    QVERIFY(mayBeCalledOutside(authService));
    QVERIFY(mayBeCalledOutside(otherService));

    const QString busDirectory = QStringLiteral("/run/user/1000/dbus");
    QVERIFY(QDir().mkpath(busDirectory));
    QVERIFY(TestDevice::setOwner(busDirectory, TestDevice::alice, TestDevice::alice));
    m_sessionBus.start(QStringLiteral("setpriv"),
                       {QStringLiteral("--reuid=1000"), QStringLiteral("--clear-groups"), QStringLiteral("dbus-daemon"),
                        QStringLiteral("--session"), QStringLiteral("--nofork"),
                        QStringLiteral("--address=unix:path=") + busDirectory + QStringLiteral("/user_bus_socket")});
    QTRY_VERIFY(QFileInfo::exists(busDirectory + QStringLiteral("/user_bus_socket")));

    QVERIFY(QFile::remove(Installed::client));
    QVERIFY(QFile::copy(Installed::confinementProbe, Installed::client));
    for (const QString &file : {bobsFile, alicesFile}) {
        QVERIFY(TestDevice::writeFile(file, "secret"));
        QVERIFY(QFile::setPermissions(file, QFileDevice::Permissions(0x6666)));
    }
    QVERIFY(QFile::setPermissions(QStringLiteral("/home/bob"), QFileDevice::Permissions(0x7777)));
    QStringList otherFiles;
    for (const QString &directory : otherDirectories) {
        QVERIFY(QDir().mkpath(directory));
        QVERIFY(QFile::setPermissions(directory, QFileDevice::Permissions(0x7777)));
        otherFiles << directory + probeName;
    }

    const QJsonObject probe{
        {QStringLiteral("read"),
         QJsonArray{bobsFile, alicesFile, QStringLiteral("/usr/share/tarsk.kavet_client/policy.conf")}},
        {QStringLiteral("list"), QJsonArray{QStringLiteral("/home/bob"), QStringLiteral("/var/lib/authd")}},
        {QStringLiteral("write"), QJsonArray::fromStringList(ownFiles + otherFiles)},
        {QStringLiteral("call"), QJsonArray{authService, otherService}},
        {QStringLiteral("own"), QJsonArray{ownName, otherName}},
    };
    QVERIFY(TestDevice::writeFile(TestDevice::sharedDirectory + QStringLiteral("/probe.json"),
                                  QJsonDocument(probe).toJson()));

    m_private = m_method.findChild<MethodKavetPrivate *>();
    m_method.setNotificator(&m_daemon);
    m_method.authenticate(TestDevice::alice, {{QStringLiteral("password"), QStringLiteral("secret")}});
    QTRY_VERIFY_WITH_TIMEOUT(QFileInfo::exists(report), 30000);
    m_report = QJsonDocument::fromJson(TestDevice::readFile(report)).object();
    QVERIFY(!m_report.isEmpty());
}

bool TstConfinement::result(const char *kind, const QString &subject) const
{
    const QJsonObject results = m_report.value(QLatin1String(kind)).toObject();
    if (!results.contains(subject))
        qFatal("%s %s was not tried", kind, qPrintable(subject));
    return results.value(subject).toBool();
}

void TstConfinement::givesUpAllPrivileges()
{
    const QString status = m_report.value(QLatin1String("status")).toString();
    const uint group = TestDevice::groupId("auth-factor");
    QVERIFY2(status.contains(QStringLiteral("Uid:\t1000\t1000\t1000\t1000\n")), qPrintable(status));
    QVERIFY2(status.contains(QStringLiteral("Gid:\t%1\t%1\t%1\t%1\n").arg(group)), qPrintable(status));
    QVERIFY2(status.contains(QStringLiteral("Groups:\t%1 \n").arg(TestDevice::groupId("inet"))), qPrintable(status));
    for (const char *set : {"CapInh", "CapPrm", "CapEff", "CapBnd", "CapAmb"})
        QVERIFY2(status.contains(QStringLiteral("%1:\t0000000000000000\n").arg(QLatin1String(set))),
                 qPrintable(status));
    QVERIFY2(status.contains(QStringLiteral("NoNewPrivs:\t1\n")), qPrintable(status));
    QVERIFY2(status.contains(QStringLiteral("Seccomp:\t2\n")), qPrintable(status));
}

void TstConfinement::seesItsOwnProgramOnly()
{
    QCOMPARE(m_report.value(QLatin1String("programs")).toArray(), (QJsonArray{ownName}));
    const QJsonArray arguments = m_report.value(QLatin1String("arguments")).toArray();
    QCOMPARE(arguments, (QJsonArray{QStringLiteral("/usr/bin/tarsk.kavet_client"), QStringLiteral("--no-gui")}));
    // The launcher's init process and the client.
    QVERIFY2(m_report.value(QLatin1String("processes")).toInt() <= 4,
             QByteArray::number(m_report.value(QLatin1String("processes")).toInt()).constData());
}

void TstConfinement::cannotReadOthers()
{
    QVERIFY(!result("read", bobsFile));
    QVERIFY(!result("list", QStringLiteral("/home/bob")));
    QVERIFY(!result("list", QStringLiteral("/var/lib/authd")));
    // Not even its own user's files outside its folders.
    QVERIFY(!result("read", alicesFile));
    QVERIFY(result("read", QStringLiteral("/usr/share/tarsk.kavet_client/policy.conf")));
}

void TstConfinement::cannotWriteOutside()
{
    for (const QString &file : ownFiles) {
        QVERIFY2(result("write", file), qPrintable(file));
        QCOMPARE(TestDevice::readFile(file), QByteArray("probe"));
    }
    // Some writes may succeed inside the sandbox, but none may reach the device.
    for (const QString &directory : otherDirectories) {
        result("write", directory + probeName);
        QVERIFY2(QDir(directory).isEmpty(), qPrintable(directory));
    }
}

void TstConfinement::talksToTheNamedServiceOnly()
{
    QVERIFY(result("call", authService));
    QVERIFY(!result("call", otherService));
}

void TstConfinement::ownsItsOwnNameOnly()
{
    QVERIFY(result("own", ownName));
    QVERIFY(!result("own", otherName));
}

void TstConfinement::hasNoNetwork()
{
    QVERIFY(!m_report.value(QLatin1String("internet")).toBool());
    QVERIFY(m_report.value(QLatin1String("unix")).toBool());
}

void TstConfinement::endsWithTheLauncher()
{
    const auto clients = [] {
        int count = 0;
        const QStringList processes = QDir(QStringLiteral("/proc")).entryList({QStringLiteral("[0-9]*")});
        for (const QString &process : processes) {
            if (TestDevice::readFile(QStringLiteral("/proc/%1/cmdline").arg(process))
                    .startsWith("/usr/bin/tarsk.kavet_client"))
                ++count;
        }
        return count;
    };
    QCOMPARE(clients(), 1);
    m_method.reset(); // So that the method does not launch it again.
    m_method.handleUserSessionTriggered(TestDevice::alice, false, true);
    QTRY_COMPARE(m_private->child.state(), QProcess::NotRunning);
    QTRY_COMPARE(clients(), 0);
}

QTEST_GUILESS_MAIN(TstConfinement)

#include "tst_confinement.moc"
