// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#include "platformtest.h"
#include "support/fakeservice.h"

#include <authd/authservice.h>
#include <authd/factorsettingsbase.h>
#include <authd/vocabulary.h>

#include <QAtomicInt>
#include <QCoreApplication>
#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <QDBusMessage>
#include <QDBusVariant>
#include <QElapsedTimer>
#include <QMutex>
#include <QProcess>
#include <QTest>

#include <memory>

namespace AuthService = LibAuthd::AuthService;
namespace Vocabulary = LibAuthd::Vocabulary;
using PlatformTest::PlatformLog;

namespace {

const QString activationFile = QStringLiteral("/usr/share/dbus-1/system-services/qarv.AuthService.service");
const QString activationMark = QStringLiteral("/tmp/tst_factorsettingsbase-activated");
constexpr uint alice = 1000;

QString own()
{
    return QStringLiteral("kavet");
}

/// A settings object that records the changes it is notified of.
class Settings : public FactorSettingsBase
{
public:
    explicit Settings(const QString &name = own())
        : FactorSettingsBase(nullptr, name)
    {
    }
    void handleOptionChanged(uint uid, const QString &option, const QVariant &value) override
    {
        changes << QVariantList{uid, option, value};
    }
    QVector<QVariantList> changes;
};

QVariant wrapped(const QVariant &value)
{
    return QVariant::fromValue(QDBusVariant(value));
}

/// A fake daemon that sends the prepared reply and records the questions.
class RunningService
{
public:
    enum Reply { Value, Error, NoValue, PlainValue, TwoValues, Silence };

    void prepare(Reply reply, const QVariant &value = QVariant())
    {
        const QMutexLocker locker(&m_mutex);
        m_reply = reply;
        m_value = value;
        m_asked.clear();
    }
    int subscriptions() const { return m_subscriptions; }
    QVector<QVariantList> asked() const
    {
        const QMutexLocker locker(&m_mutex);
        return m_asked;
    }
    bool isRunning() const { return m_service.isRunning(); }

    void sendSignal(const QString &signal, const QVariantList &arguments, const QString &path = AuthService::ObjectPath,
                    const QString &interface = AuthService::Interface)
    {
        QDBusMessage message = QDBusMessage::createSignal(path, interface, signal);
        message.setArguments(arguments);
        m_service.send(message);
    }

private:
    void handle(const QDBusMessage &call, const QDBusConnection &bus)
    {
        const QMutexLocker locker(&m_mutex);
        if (call.member() == QLatin1String("Subscribe")) {
            ++m_subscriptions;
            bus.send(call.createReply());
            return;
        }
        m_asked << call.arguments();
        switch (m_reply) {
        case Value:
            bus.send(call.createReply(wrapped(m_value)));
            break;
        case Error:
            bus.send(call.createErrorReply(QStringLiteral("qarv.AuthService.Error.NoSuchOption"),
                                           QStringLiteral("No such option")));
            break;
        case NoValue:
            bus.send(call.createReply());
            break;
        case PlainValue:
            bus.send(call.createReply(m_value));
            break;
        case TwoValues:
            bus.send(call.createReply({wrapped(m_value), wrapped(m_value)}));
            break;
        case Silence:
            break;
        }
    }

    mutable QMutex m_mutex;
    Reply m_reply = Value;
    QVariant m_value = 0;
    QVector<QVariantList> m_asked;
    QAtomicInt m_subscriptions;
    const FakeService m_service{AuthService::Service, AuthService::ObjectPath,
                                [this](const QDBusMessage &call, const QDBusConnection &bus) {
                                    handle(call, bus);
                                }};
};

/// What a screen sees on a device without a system bus; returns the exit code of the program.
int tryWithoutBus()
{
    Settings settings;
    if (settings.getOption(0, QStringLiteral("certs")).isValid())
        return 1;
    if (settings.getOption(alice, QStringLiteral("attempts")).isValid())
        return 2;
    QCoreApplication::processEvents();
    return settings.changes.isEmpty() ? 0 : 3;
}

} // namespace

class TstFactorSettingsBase : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void names();
    void values_data();
    void values();
    void asksForWhat();
    void noService();
    void failures_data();
    void failures();
    void silence();
    void compound();
    void changes();
    void ignoredChanges();
    void otherMethod();
    void serviceComesAndGoes();
    void deletedBeforeChange();
    void base();
    void busDies();

private:
    QProcess m_bus;
    void subscribes();
};

void TstFactorSettingsBase::initTestCase()
{
    PlatformTest::requireDevice();

    QProcess program;
    program.start(QCoreApplication::applicationFilePath(), {QStringLiteral("--without-bus")});
    QVERIFY(program.waitForFinished());
    QCOMPARE(program.exitStatus(), QProcess::NormalExit);
    QCOMPARE(program.exitCode(), 0);

    // Make the service activatable, so that a call that permits activation leaves a trace.
    QVERIFY(TestDevice::writeFile(activationFile, "[D-BUS Service]\nName=qarv.AuthService\nUser=root\nExec=/bin/touch "
                                                      + QFile::encodeName(activationMark) + "\n"));
    m_bus.setProcessChannelMode(QProcess::ForwardedErrorChannel);
    m_bus.start(QStringLiteral("dbus-daemon"), {QStringLiteral("--system"), QStringLiteral("--nofork"),
                                                QStringLiteral("--nopidfile"), QStringLiteral("--print-address")});
    QVERIFY2(m_bus.waitForReadyRead(), qPrintable(m_bus.errorString()));
    QVERIFY2(QDBusConnection::systemBus().isConnected(),
             qPrintable(QDBusConnection::systemBus().lastError().message()));
    QVERIFY(QDBusConnection::systemBus().interface()->activatableServiceNames().value().contains(AuthService::Service));
}

void TstFactorSettingsBase::names()
{
    QCOMPARE(AuthService::Service, QLatin1String("qarv.AuthService"));
    QCOMPARE(AuthService::ObjectPath, QLatin1String("/qarv/AuthService"));
    QCOMPARE(AuthService::Interface, QLatin1String("qarv.AuthService"));
}

void TstFactorSettingsBase::values_data()
{
    QTest::addColumn<QVariant>("value");
    const auto row = [](const char *name, const QVariant &value) {
        QTest::newRow(name) << value;
    };
    row("bool", true);
    row("int", -5);
    row("uint", 4294967295U);
    row("int64", qlonglong(-5000000000));
    row("uint64", qulonglong(18446744073709551615U));
    row("double", 0.5);
    row("text", QString::fromUtf8("ключ"));
    row("empty text", QString(QLatin1String("")));
    row("list", QStringList{QStringLiteral("a"), QString::fromUtf8("ключ")});
    row("empty list", QStringList());
    row("bytes", QByteArray("a\0b", 3));
}

void TstFactorSettingsBase::values()
{
    QFETCH(QVariant, value);
    RunningService running;
    QVERIFY(running.isRunning());
    running.prepare(RunningService::Value, value);
    const Settings settings;
    const PlatformLog log;
    for (const uint uid : {0U, alice}) {
        const QVariant answer = settings.getOption(uid, QStringLiteral("any"));
        QCOMPARE(answer.userType(), value.userType());
        QCOMPARE(answer, value);
    }
    running.prepare(RunningService::Value, wrapped(value));
    QCOMPARE(settings.getOption(0, QStringLiteral("any")), value);
    QCOMPARE(log.lines(), QStringList());
}

void TstFactorSettingsBase::asksForWhat()
{
    RunningService running;
    QVERIFY(running.isRunning());
    running.prepare(RunningService::Value, 1);
    const Settings settings;
    settings.getOption(0, QStringLiteral("certs"));
    settings.getOption(alice, QStringLiteral("attempts"));
    settings.getOption(4294967295U, QStringLiteral("attempts"));
    QCOMPARE(running.asked(), (QVector<QVariantList>{{own(), QStringLiteral("certs")},
                                                     {alice, own(), QStringLiteral("attempts")},
                                                     {4294967295U, own(), QStringLiteral("attempts")}}));
}

void TstFactorSettingsBase::noService()
{
    const Settings settings;
    const PlatformLog log;
    QVERIFY(!settings.getOption(0, QStringLiteral("certs")).isValid());
    QVERIFY(!settings.getOption(alice, QStringLiteral("attempts")).isValid());
    QCOMPARE(log.lines(), (QStringList{QStringLiteral("getOption \"kavet\" 0 \"certs\" "
                                                      "\"org.freedesktop.DBus.Error.NameHasNoOwner\""),
                                       QStringLiteral("getOption \"kavet\" 1000 \"attempts\" "
                                                      "\"org.freedesktop.DBus.Error.NameHasNoOwner\"")}));
    QVERIFY(!QTest::qWaitFor([] { return QFile::exists(activationMark); }, 500));
}

void TstFactorSettingsBase::failures_data()
{
    QTest::addColumn<int>("answer");
    QTest::addColumn<QString>("line");
    const QString line = QStringLiteral("getOption \"kavet\" 1000 \"attempts\" ");
    QTest::newRow("error") << int(RunningService::Error)
                           << line + QStringLiteral("\"qarv.AuthService.Error.NoSuchOption\"");
    QTest::newRow("no value") << int(RunningService::NoValue) << line + QStringLiteral("Unexpected reply \"\"");
    QTest::newRow("plain value") << int(RunningService::PlainValue) << line + QStringLiteral("Unexpected reply \"i\"");
    QTest::newRow("two values") << int(RunningService::TwoValues) << line + QStringLiteral("Unexpected reply \"vv\"");
}

void TstFactorSettingsBase::failures()
{
    QFETCH(int, answer);
    QFETCH(QString, line);
    RunningService running;
    QVERIFY(running.isRunning());
    running.prepare(RunningService::Reply(answer), 5);
    const Settings settings;
    const PlatformLog log;
    QVERIFY(!settings.getOption(alice, QStringLiteral("attempts")).isValid());
    QCOMPARE(log.lines(), QStringList{line});
    // The next call succeeds again.
    running.prepare(RunningService::Value, 5);
    QCOMPARE(settings.getOption(alice, QStringLiteral("attempts")), QVariant(5));
}

void TstFactorSettingsBase::silence()
{
    RunningService running;
    QVERIFY(running.isRunning());
    running.prepare(RunningService::Silence);
    const Settings settings;
    const PlatformLog log;
    QElapsedTimer timer;
    timer.start();
    QVERIFY(!settings.getOption(0, QStringLiteral("certs")).isValid());
    // The limit is five seconds. Allow for load, but stay below the D-Bus library's default timeout.
    QVERIFY(timer.elapsed() < 20000);
    QCOMPARE(log.lines(),
             QStringList{QStringLiteral("getOption \"kavet\" 0 \"certs\" \"org.freedesktop.DBus.Error.NoReply\"")});
}

void TstFactorSettingsBase::compound()
{
    RunningService running;
    QVERIFY(running.isRunning());
    Settings settings;
    const QVariantMap map = {{QStringLiteral("a"), 1}};
    running.prepare(RunningService::Value, map);
    QVERIFY(!settings.getOption(0, QStringLiteral("certs")).isValid());
    running.prepare(RunningService::Value, wrapped(map));
    QVERIFY(!settings.getOption(0, QStringLiteral("certs")).isValid());
    running.sendSignal(Vocabulary::MethodOptionChanged, {own(), QStringLiteral("certs"), wrapped(map)});
    QTRY_COMPARE(settings.changes.size(), 1);
    QCOMPARE(settings.changes.constFirst(), (QVariantList{0U, QStringLiteral("certs"), QVariant()}));
}

void TstFactorSettingsBase::changes()
{
    RunningService running;
    QVERIFY(running.isRunning());
    Settings settings;
    QTRY_COMPARE(running.subscriptions(), 1);
    const QStringList certs = {QStringLiteral("a"), QStringLiteral("b")};
    running.sendSignal(Vocabulary::MethodOptionChanged, {own(), QStringLiteral("certs"), wrapped(certs)});
    running.sendSignal(Vocabulary::MethodOptionChanged, {own(), QStringLiteral("certs"), wrapped(QStringList())});
    running.sendSignal(Vocabulary::MethodOptionChanged, {own(), QStringLiteral("max-attempts"), wrapped(3)});
    running.sendSignal(Vocabulary::UserMethodOptionChanged, {alice, own(), QStringLiteral("attempts"), wrapped(2)});
    running.sendSignal(Vocabulary::UserMethodOptionChanged,
                       {4294967295U, own(), QStringLiteral("attempts"), wrapped(QStringLiteral("2"))});
    running.sendSignal(Vocabulary::UserMethodOptionChanged,
                       {alice, own(), QStringLiteral("certs"), wrapped(wrapped(certs))});
    QTRY_COMPARE(settings.changes.size(), 6);
    QCOMPARE(settings.changes, (QVector<QVariantList>{{0U, QStringLiteral("certs"), certs},
                                                      {0U, QStringLiteral("certs"), QStringList()},
                                                      {0U, QStringLiteral("max-attempts"), 3},
                                                      {alice, QStringLiteral("attempts"), 2},
                                                      {4294967295U, QStringLiteral("attempts"), QStringLiteral("2")},
                                                      {alice, QStringLiteral("certs"), certs}}));
    QCOMPARE(settings.changes.at(1).at(2).userType(), int(QMetaType::QStringList));
    QCOMPARE(settings.changes.at(3).at(2).userType(), int(QMetaType::Int));
}

void TstFactorSettingsBase::ignoredChanges()
{
    RunningService running;
    QVERIFY(running.isRunning());
    Settings settings;
    const QString certs = QStringLiteral("certs");
    const QVariantList change = {own(), certs, wrapped(1)};
    running.sendSignal(Vocabulary::MethodOptionChanged, {QStringLiteral("other"), certs, wrapped(1)});
    running.sendSignal(Vocabulary::UserMethodOptionChanged, {alice, QStringLiteral("other"), certs, wrapped(1)});
    running.sendSignal(Vocabulary::MethodOptionChanged, {QString(), certs, wrapped(1)});
    running.sendSignal(Vocabulary::MethodOptionChanged, {own(), certs, 1});
    running.sendSignal(Vocabulary::MethodOptionChanged, {own(), certs});
    running.sendSignal(Vocabulary::MethodOptionChanged, {});
    running.sendSignal(Vocabulary::UserMethodOptionChanged, change);
    running.sendSignal(Vocabulary::OptionChanged, change);
    running.sendSignal(Vocabulary::MethodOptionChanged, change, QStringLiteral("/elsewhere"));
    running.sendSignal(Vocabulary::MethodOptionChanged, change, AuthService::ObjectPath, QStringLiteral("some.other"));

    // Another bus client forges the signal. The bus keeps messages in order, so after the next reply it has delivered
    // the signal.
    QDBusConnection stranger = QDBusConnection::connectToBus(QDBusConnection::SystemBus, QStringLiteral("stranger"));
    QDBusMessage pretence =
        QDBusMessage::createSignal(AuthService::ObjectPath, AuthService::Interface, Vocabulary::MethodOptionChanged);
    pretence.setArguments(change);
    QVERIFY(stranger.send(pretence));
    QVERIFY(stranger.interface()->isServiceRegistered(AuthService::Service).isValid());
    QDBusConnection::disconnectFromBus(QStringLiteral("stranger"));

    running.sendSignal(Vocabulary::MethodOptionChanged, {own(), QStringLiteral("last"), wrapped(1)});
    QTRY_VERIFY(!settings.changes.isEmpty());
    QCOMPARE(settings.changes, (QVector<QVariantList>{{0U, QStringLiteral("last"), 1}}));
}

void TstFactorSettingsBase::otherMethod()
{
    RunningService running;
    QVERIFY(running.isRunning());
    Settings settings(QStringLiteral("other"));
    Settings ours;
    running.prepare(RunningService::Value, 1);
    QCOMPARE(settings.getOption(0, QStringLiteral("certs")), QVariant(1));
    QCOMPARE(running.asked(), (QVector<QVariantList>{{QStringLiteral("other"), QStringLiteral("certs")}}));
    running.sendSignal(Vocabulary::MethodOptionChanged, {QStringLiteral("other"), QStringLiteral("certs"), wrapped(1)});
    running.sendSignal(Vocabulary::MethodOptionChanged, {own(), QStringLiteral("certs"), wrapped(2)});
    QTRY_COMPARE(ours.changes.size(), 1);
    QTRY_COMPARE(settings.changes.size(), 1);
    QCOMPARE(settings.changes.constFirst(), (QVariantList{0U, QStringLiteral("certs"), 1}));
    QCOMPARE(ours.changes.constFirst(), (QVariantList{0U, QStringLiteral("certs"), 2}));
}

void TstFactorSettingsBase::serviceComesAndGoes()
{
    Settings settings;
    for (int round = 1; round <= 2; ++round) {
        {
            RunningService running;
            QVERIFY(running.isRunning());
            // Each instance of the service needs a new subscription.
            QTRY_COMPARE(running.subscriptions(), 1);
            running.prepare(RunningService::Value, round);
            QCOMPARE(settings.getOption(0, QStringLiteral("certs")), QVariant(round));
            running.sendSignal(Vocabulary::MethodOptionChanged, {own(), QStringLiteral("certs"), wrapped(round)});
            QTRY_COMPARE(settings.changes.size(), round);
        }
        const PlatformLog log;
        QVERIFY(!settings.getOption(0, QStringLiteral("certs")).isValid());
    }
}

void TstFactorSettingsBase::deletedBeforeChange()
{
    RunningService running;
    QVERIFY(running.isRunning());
    std::unique_ptr<Settings> gone(new Settings);
    Settings settings;
    running.sendSignal(Vocabulary::MethodOptionChanged, {own(), QStringLiteral("certs"), wrapped(1)});
    gone.reset();
    QTRY_COMPARE(settings.changes.size(), 1);
}

void TstFactorSettingsBase::base()
{
    RunningService running;
    QVERIFY(running.isRunning());
    QObject parent;
    auto *settings = new FactorSettingsBase(&parent, own());
    QCOMPARE(settings->parent(), &parent);
    Settings witness;
    running.sendSignal(Vocabulary::MethodOptionChanged, {own(), QStringLiteral("certs"), wrapped(1)});
    QTRY_COMPARE(witness.changes.size(), 1);
}

void TstFactorSettingsBase::busDies()
{
    Settings settings;
    m_bus.kill();
    QVERIFY(m_bus.waitForFinished());
    const PlatformLog log;
    QVERIFY(!settings.getOption(0, QStringLiteral("certs")).isValid());
    QTRY_VERIFY(!QDBusConnection::systemBus().isConnected());
    QVERIFY(!settings.getOption(0, QStringLiteral("certs")).isValid());
    QVERIFY(!Settings().getOption(0, QStringLiteral("certs")).isValid());
    QCOMPARE(log.lines().size(), 3);
}

void TstFactorSettingsBase::subscribes()
{
    const Settings early;
    {
        const RunningService running;
        QVERIFY(running.isRunning());
        // A daemon that starts later has no subscribers.
        QTRY_VERIFY(running.subscriptions() > 0);
    }
    const RunningService running;
    QTRY_VERIFY(running.subscriptions() > 0);
    const int before = running.subscriptions();
    const Settings late;
    QTRY_VERIFY(running.subscriptions() > before);
}

int main(int argc, char *argv[])
{
    QCoreApplication application(argc, argv);
    if (QCoreApplication::arguments().contains(QLatin1String("--without-bus")))
        return tryWithoutBus();
    TstFactorSettingsBase test;
    return QTest::qExec(&test, argc, argv);
}

#include "tst_factorsettingsbase.moc"
