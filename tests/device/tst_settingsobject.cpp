// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#include "device/authd.h"
#include "settings/settingskavet.h"
#include "support/testdevice.h"
#include "support/wiper.h"

#include <QJsonArray>
#include <QSignalSpy>
#include <QTest>

#include <csignal>
#include <cstdio>

namespace {

const QString kavetMethod = QStringLiteral("kavet");
const QString readOption = QStringLiteral("--read-option");

} // namespace

/// The settings object in its own process, as a settings screen uses it, with the running daemon.
class TstSettingsObject : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase()
    {
        QVERIFY(startSystemBus());
        TestDevice::reset();
        setClientScript({{QStringLiteral("certs"), QJsonArray{QStringLiteral("first"), QStringLiteral("second")}}});
        QVERIFY(m_authd.start());
        m_root.reset(new BusUser(0));
        m_reports.reset(new Reports(*m_root));
    }

    void cleanupTestCase()
    {
        m_reports.reset();
        QCOMPARE(m_authd.stop(SIGTERM), 0);
    }

    void followsTheDaemon();
    void withoutTheDaemon();
    void changesStayInOrder();

private:
    void attempt(const QString &password, const QString &end)
    {
        QCOMPARE(m_root->error(QStringLiteral("Authenticate"),
                               {TestDevice::alice, kavetMethod, QVariantMap{{QStringLiteral("password"), password}}}),
                 QString());
        QVERIFY(m_reports->waitFor(end));
    }

    Authd m_authd;
    QScopedPointer<BusUser> m_root;
    QScopedPointer<Reports> m_reports;
};

void TstSettingsObject::followsTheDaemon()
{
    attempt(QStringLiteral("success"), QStringLiteral("StateChanged(1000, authenticated"));

    SettingsKavet settings(nullptr);
    QSignalSpy listChanged(&settings, &SettingsKavet::certListChanged);
    QSignalSpy updatingChanged(&settings, &SettingsKavet::certListIsUpdatingChanged);
    QVERIFY(settings.certListIsUpdating());
    QCOMPARE(settings.certList(), QStringList());
    QTRY_VERIFY(!settings.certListIsUpdating());
    QCOMPARE(settings.certList(), (QStringList{QStringLiteral("first"), QStringLiteral("second")}));
    QCOMPARE(listChanged.size(), 1);
    QCOMPARE(updatingChanged.size(), 1);

    QSignalSpy maxChanged(&settings, &SettingsKavet::maxAttemptsChanged);
    QCOMPARE(settings.maxAttempts(), 0);
    QCOMPARE(m_root->error(QStringLiteral("SetMethodOption"),
                           {kavetMethod, QStringLiteral("max-attempts"), QVariant::fromValue(QDBusVariant(3))}),
             QString());
    QTRY_COMPARE(maxChanged.size(), 1);
    QCOMPARE(settings.maxAttempts(), 3);
    // Reading maxAttempts did not request the list.
    QVERIFY(!settings.certListIsUpdating());
    QCOMPARE(settings.certList().size(), 2);

    settings.setUid(TestDevice::alice);
    QCOMPARE(settings.currentAttempts(), 0);
    QSignalSpy attemptsChanged(&settings, &SettingsKavet::currentAttemptsChanged);
    attempt(QStringLiteral("failed"), QStringLiteral("StateChanged(1000, challenge"));
    QTRY_VERIFY(!attemptsChanged.isEmpty());
    QTRY_COMPARE(settings.currentAttempts(), 1);
    attempt(QStringLiteral("success"), QStringLiteral("StateChanged(1000, authenticated"));
    QTRY_COMPARE(settings.currentAttempts(), 0);

    settings.updateCertList();
    QVERIFY(settings.certListIsUpdating());
    QTRY_VERIFY(!settings.certListIsUpdating());
}

void TstSettingsObject::withoutTheDaemon()
{
    QCOMPARE(m_authd.stop(SIGTERM), 0);
    SettingsKavet settings(nullptr);
    settings.setUid(TestDevice::alice);
    QCOMPARE(settings.maxAttempts(), 0);
    QCOMPARE(settings.currentAttempts(), 0);
    QVERIFY(settings.certListIsUpdating());
    QVERIFY(m_authd.start());
    settings.updateCertList();
    QTRY_VERIFY(!settings.certListIsUpdating());
}

void TstSettingsObject::changesStayInOrder()
{
    QProcess program;
    program.setProcessEnvironment(debuggedBus());
    program.start(QCoreApplication::applicationFilePath(), {readOption});
    QVERIFY(program.waitForFinished());
    // Do not check the exit code: with QDBUS_DEBUG, the library may crash while the program exits.
    QVERIFY(!program.readAllStandardOutput().trimmed().isEmpty());
    QVERIFY(!heldSignalsBack(program.readAllStandardError()));
}

int main(int argc, char *argv[])
{
    QCoreApplication application(argc, argv);
    if (QCoreApplication::arguments().contains(readOption)) {
        std::puts(SettingsKavet(nullptr).getOption(0, QStringLiteral("max-attempts")).toByteArray().constData());
        std::fflush(stdout);
        return 0;
    }
    TstSettingsObject test;
    return QTest::qExec(&test, argc, argv);
}

#include "tst_settingsobject.moc"
