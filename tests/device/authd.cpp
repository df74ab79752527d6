// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#include "device/authd.h"

#include "support/testdevice.h"
#include "support/wiper.h"

#include <authd/authservice.h>

#include <QAtomicInt>
#include <QDBusArgument>
#include <QDBusConnectionInterface>
#include <QDeadlineTimer>
#include <QLibraryInfo>
#include <QRegularExpression>
#include <QTest>

#include <csignal>
#include <unistd.h>

namespace AuthService = LibAuthd::AuthService;

namespace {

QString uniqueName()
{
    static QAtomicInt count;
    return QStringLiteral("user %1").arg(count++);
}

/// The bus authenticates the effective user id at connection time.
QDBusConnection connectAs(uint uid, const QString &name)
{
    if (seteuid(uid) != 0)
        qFatal("Cannot become user %u", uid);
    QDBusConnection connection = QDBusConnection::connectToBus(QDBusConnection::SystemBus, name);
    if (seteuid(0) != 0)
        qFatal("Cannot become root again");
    if (!connection.isConnected())
        qFatal("No connection to the bus: %s", qPrintable(connection.lastError().message()));
    return connection;
}

} // namespace

Authd::~Authd()
{
    if (isRunning())
        stop(SIGKILL);
}

bool Authd::start(const QString &methods, const QStringList &arguments)
{
    m_log.clear();
    m_process.setReadChannel(QProcess::StandardError);
    std::signal(SIGHUP, SIG_DFL); // The daemon respects an ignored SIGHUP, as after nohup(1).
    m_process.start(Installed::authd, QStringList{QStringLiteral("--methods"), methods} + arguments);
    return m_process.waitForStarted() && waitForLog("event=ready");
}

int Authd::stop(int signal)
{
    if (!isRunning()) // The pid would be 0, and kill() would signal the test's process group.
        return -1;
    kill(pid_t(pid()), signal);
    if (!m_process.waitForFinished())
        return -1;
    log();
    const int exitCode = m_process.exitStatus() == QProcess::NormalExit ? m_process.exitCode() : -1;
    if (signal == SIGTERM && exitCode != 0)
        qWarning("The daemon wrote:\n%s", m_log.right(20000).constData());
    return exitCode;
}

bool Authd::waitForLog(const QByteArray &text, int count)
{
    const bool found = QTest::qWaitFor([&] { return log().count(text) >= count || !isRunning(); }, 30000)
                       && log().count(text) >= count;
    if (!found)
        qWarning("No '%s' in the log:\n%s", text.constData(), m_log.constData());
    return found;
}

QByteArray Authd::log()
{
    m_process.waitForReadyRead(0); // Includes output that arrived after the event loop last ran.
    m_log += m_process.readAllStandardError();
    return m_log;
}

QVector<QDBusPendingCall> Authd::sendAtOnce(const BusUser &user, const QVector<QDBusMessage> &calls) const
{
    kill(pid_t(pid()), SIGSTOP);
    QVector<QDBusPendingCall> pending;
    for (const QDBusMessage &call : calls)
        pending << user.connection().asyncCall(call);
    // The bus keeps messages in order, so after this reply it has accepted the calls.
    user.connection().interface()->isServiceRegistered(AuthService::Service);
    kill(pid_t(pid()), SIGCONT);
    return pending;
}

QPair<int, QByteArray> Authd::run(const QStringList &arguments)
{
    QProcess process;
    process.start(Installed::authd, arguments);
    if (!process.waitForFinished() || process.exitStatus() != QProcess::NormalExit)
        return {-1, process.readAllStandardError()};
    return {process.exitCode(), process.readAllStandardError() + process.readAllStandardOutput()};
}

void AuthdTest::initTestCase()
{
    // Overwrite freed memory, so that using it fails. glibc does not overwrite what its thread caches keep.
    qputenv("MALLOC_PERTURB_", "165");
    qputenv("GLIBC_TUNABLES", "glibc.malloc.tcache_count=0");
    QVERIFY(startSystemBus());
}

void AuthdTest::init()
{
    TestDevice::reset();
    setClientScript();
    QVERIFY(m_authd.start());
}

void AuthdTest::cleanup()
{
    if (m_authd.isRunning())
        QCOMPARE(m_authd.stop(SIGTERM), 0);
    if (QTest::currentTestFailed())
        qWarning("The daemon wrote:\n%s", m_authd.log().constData());
}

BusUser::BusUser(uint uid)
    : m_name(uniqueName())
    , m_connection(connectAs(uid, m_name))
{
}

BusUser::~BusUser()
{
    QDBusConnection::disconnectFromBus(m_name);
}

QDBusMessage BusUser::call(const QString &member, const QVariantList &arguments) const
{
    return m_connection.call(message(member, arguments));
}

QDBusMessage BusUser::message(const QString &member, const QVariantList &arguments)
{
    QDBusMessage call =
        QDBusMessage::createMethodCall(AuthService::Service, AuthService::ObjectPath, AuthService::Interface, member);
    call.setArguments(arguments);
    return call;
}

QString BusUser::error(const QString &member, const QVariantList &arguments) const
{
    return call(member, arguments).errorName();
}

Reports::Reports(const BusUser &user)
{
    user.connection().connect(AuthService::Service, AuthService::ObjectPath, AuthService::Interface, QString(), this,
                              SLOT(record(QDBusMessage)));
    user.call(QStringLiteral("Subscribe"));
}

bool Reports::waitFor(const QString &text)
{
    const bool found = QTest::qWaitFor([&] { return !texts.isEmpty() && texts.constLast().startsWith(text); }, 30000);
    if (!found)
        qWarning("Waited for '%s', have:\n%s", qPrintable(text), qPrintable(texts.join(QLatin1Char('\n'))));
    return found;
}

bool logIn(const BusUser &user, uint uid)
{
    Reports reports(user);
    const auto isTold = [&reports](const QString &text) {
        return !reports.texts.filter(text).isEmpty();
    };
    const QString done = QStringLiteral("Authenticated(%1, kavet)").arg(uid);
    const QString tooEarly = QStringLiteral("AuthenticationFailed(%1, kavet, 4, CannotConnectClient, false").arg(uid);
    const QVariantMap password = {{QStringLiteral("password"), QStringLiteral("success")}};
    const QDeadlineTimer deadline(30000);
    do {
        reports.texts.clear();
        user.call(QStringLiteral("Authenticate"), {uid, QStringLiteral("kavet"), password});
        if (!QTest::qWaitFor([&] { return isTold(done) || isTold(tooEarly); }, 30000))
            break;
    } while (!isTold(done) && !deadline.hasExpired());
    if (!isTold(done))
        qWarning("Waited for the login, have:\n%s", qPrintable(reports.texts.join(QLatin1Char('\n'))));
    return isTold(done);
}

void Reports::record(const QDBusMessage &signal)
{
    all << signal;
    if (signal.member().endsWith(QLatin1String("OptionChanged")))
        return;
    QStringList arguments;
    QVariantList values = signal.arguments();
    attempts << values.takeFirst().toULongLong();
    for (const QVariant &argument : qAsConst(values))
        arguments << reportText(argument);
    texts << signal.member() + QLatin1Char('(') + arguments.join(QStringLiteral(", ")) + QLatin1Char(')');
}

int unloggedBefore(const QByteArray &log)
{
    int sum = 0;
    auto match = QRegularExpression(QStringLiteral(" unlogged-before=(\\d+)")).globalMatch(QString::fromUtf8(log));
    while (match.hasNext())
        sum += match.next().captured(1).toInt();
    return sum;
}

bool heldSignalsBack(const QByteArray &errors)
{
    // Make sure that this version of the library still logs these words.
    const QByteArray told = "delivery is suspended";
    const QString library = QLibraryInfo::location(QLibraryInfo::LibrariesPath) + QStringLiteral("/libQt5DBus.so.5");
    if (!errors.contains("connected successfully") || !TestDevice::readFile(library).contains(told))
        qFatal("The D-Bus library does not tell what it does");
    return errors.contains(told);
}

QProcessEnvironment debuggedBus()
{
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert(QStringLiteral("QDBUS_DEBUG"), QStringLiteral("1"));
    return environment;
}

QSet<QString> longOptions(QString text)
{
    text.replace(QStringLiteral("\\-"), QStringLiteral("-"));
    QSet<QString> options;
    auto match = QRegularExpression(QStringLiteral("--[a-z][a-z-]*")).globalMatch(text);
    while (match.hasNext())
        options << match.next().captured();
    return options;
}

QString reportText(const QVariant &value)
{
    if (value.canConvert<QDBusVariant>())
        return reportText(value.value<QDBusVariant>().variant());
    if (value.canConvert<QDBusArgument>()) {
        QStringList entries;
        const QVariantMap map = qdbus_cast<QVariantMap>(value);
        for (auto entry = map.cbegin(); entry != map.cend(); ++entry)
            entries << entry.key() + QLatin1Char('=') + reportText(entry.value());
        return QLatin1Char('{') + entries.join(QStringLiteral(", ")) + QLatin1Char('}');
    }
    return value.toString();
}

void setClientScript(QJsonObject script)
{
    script.insert(QLatin1String("announce"), true);
    TestDevice::setScript(script);
}
