// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#include "systembus.h"

#include <authd/authservice.h>

#include <QDBusConnectionInterface>
#include <QDBusError>
#include <QDBusReply>
#include <QDeadlineTimer>
#include <QThread>

#include <chrono>

namespace {

const QString connectionName = QStringLiteral("authd");
constexpr std::chrono::seconds Patience{5};
/// How often to try for the name, in milliseconds.
constexpr unsigned long ClaimInterval = 50;

} // namespace

SystemBus::~SystemBus()
{
    QDBusConnection::disconnectFromBus(connectionName);
}

bool SystemBus::open()
{
    QDBusConnection bus = QDBusConnection::connectToBus(QDBusConnection::SystemBus, connectionName);
    if (!bus.isConnected()) {
        m_error = bus.lastError().message();
        QDBusConnection::disconnectFromBus(connectionName);
        return false;
    }
    bus.connect(QString(), QStringLiteral("/org/freedesktop/DBus/Local"), QStringLiteral("org.freedesktop.DBus.Local"),
                QStringLiteral("Disconnected"), this, SIGNAL(lost()));
    return true;
}

QDBusConnection SystemBus::connection() const
{
    return QDBusConnection(connectionName);
}

SystemBus::Claim SystemBus::claim(QObject *object)
{
    QDBusConnection bus = connection();
    bus.registerObject(LibAuthd::AuthService::ObjectPath, object, QDBusConnection::ExportAdaptors);
    const QDeadlineTimer deadline(Patience);
    for (;;) {
        const QDBusReply<QDBusConnectionInterface::RegisterServiceReply> reply =
            bus.interface()->registerService(LibAuthd::AuthService::Service);
        if (!reply.isValid()) {
            m_error = reply.error().message();
            return Refused;
        }
        if (reply.value() == QDBusConnectionInterface::ServiceRegistered)
            return Claimed;
        if (deadline.hasExpired())
            return Taken;
        QThread::msleep(ClaimInterval);
    }
}
