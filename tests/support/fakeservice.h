// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusVirtualObject>
#include <QThread>

#include <functional>

/// A service on the system bus for as long as the object lives. It runs in a thread and on a connection of its own,
/// because callers may block until they have a reply.
class FakeService : public QDBusVirtualObject
{
public:
    /// Called in the service's thread for each call to the object or one below it; sends the reply itself.
    using Handler = std::function<void(const QDBusMessage &call, const QDBusConnection &bus)>;

    FakeService(const QString &service, const QString &path, const Handler &handler);
    ~FakeService() override;

    /// Whether the service owns its name and its object.
    bool isRunning() const { return m_isRunning; }
    void send(const QDBusMessage &message) const;

    QString introspect(const QString &path) const override;
    bool handleMessage(const QDBusMessage &call, const QDBusConnection &bus) override;

private:
    const QString m_service;
    const QString m_path;
    const Handler m_handler;
    QDBusConnection m_connection;
    bool m_isRunning = false;
    QThread m_thread;

    Q_DISABLE_COPY(FakeService)
};
