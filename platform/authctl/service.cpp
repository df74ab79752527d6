// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#include "service.h"

#include "errors.h"
#include "heldsignals.h"

#include <authd/authservice.h>

#include <QTimer>

namespace AuthService = LibAuthd::AuthService;

namespace {

// Qt delivers the signals of its shared connection late, only once the event loop runs, so later ones may overtake
// them. A private connection keeps the signals of an attempt in order.
const QString connectionName = QStringLiteral("authctl");

/// Qt's D-Bus thread inherits the blocked signals, so only the main thread receives them.
QDBusConnection systemBus()
{
    const HeldSignals held;
    return QDBusConnection::connectToBus(QDBusConnection::SystemBus, connectionName);
}

} // namespace

Service::Service(int timeout)
    : AuthServiceInterface(AuthService::Service, AuthService::ObjectPath, systemBus())
    , m_watcher(AuthService::Service, connection(), QDBusServiceWatcher::WatchForUnregistration)
{
    setTimeout(timeout);
    connect(&m_watcher, &QDBusServiceWatcher::serviceUnregistered, this, [this] {
        m_isGone = true;
        m_loop.exit(Gone);
    });
}

QString Service::methodOrFirst(const std::optional<QString> &method)
{
    if (method)
        return *method;
    const QStringList names = result(GetMethods()).value();
    if (names.isEmpty())
        throw Failure{Refused, QStringLiteral("The service has no authentication methods"), Errors::NoSuchMethod};
    return names.constFirst();
}

bool Service::handleReports(std::optional<int> timeout)
{
    QTimer timer;
    timer.setSingleShot(true);
    connect(&timer, &QTimer::timeout, &m_loop, [this] { m_loop.exit(Late); });
    if (timeout)
        timer.start(*timeout);
    const int end = m_isGone ? Gone : m_loop.exec();
    if (end == Gone)
        throw Failure{Unreachable, QStringLiteral("The authentication service left the bus")};
    return end == Finished;
}

Failure Service::failure(const QDBusError &error)
{
    const QString name = error.name();
    switch (error.type()) {
    case QDBusError::ServiceUnknown:
    case QDBusError::NoServer:
    case QDBusError::NoNetwork:
    case QDBusError::Disconnected:
        return {Unreachable, QStringLiteral("The authentication service cannot be reached"), name};
    case QDBusError::NoReply:
    case QDBusError::Timeout:
    case QDBusError::TimedOut:
        return {Unreachable, QStringLiteral("The authentication service does not reply"), name};
    default:
        return {name == Errors::UserLocked ? Locked : Refused, error.message(), name};
    }
}
