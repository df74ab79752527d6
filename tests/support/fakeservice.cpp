// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#include "support/fakeservice.h"

#include <QDBusConnectionInterface>

FakeService::FakeService(const QString &service, const QString &path, const Handler &handler)
    : m_service(service)
    , m_path(path)
    , m_handler(handler)
    , m_connection(QDBusConnection::connectToBus(QDBusConnection::SystemBus, QStringLiteral("fake ") + service))
{
    // Registering gives the object a child, which must belong to the same thread.
    const bool isRegistered =
        m_connection.isConnected() && m_connection.registerVirtualObject(m_path, this, QDBusConnection::SubPath);
    moveToThread(&m_thread);
    m_thread.start();
    m_isRunning =
        isRegistered
        && m_connection.interface()->registerService(m_service) == QDBusConnectionInterface::ServiceRegistered;
}

FakeService::~FakeService()
{
    m_connection.unregisterService(m_service);
    m_connection.unregisterObject(m_path);
    m_thread.quit();
    m_thread.wait();
    QDBusConnection::disconnectFromBus(m_connection.name());
}

void FakeService::send(const QDBusMessage &message) const
{
    m_connection.send(message);
}

QString FakeService::introspect(const QString &) const
{
    return {};
}

bool FakeService::handleMessage(const QDBusMessage &call, const QDBusConnection &bus)
{
    m_handler(call, bus);
    return true;
}
