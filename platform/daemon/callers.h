// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include "attempt.h"

#include <QDBusConnection>
#include <QHash>
#include <QObject>
#include <QVector>

#include <functional>

/// Who the service's callers are, and when they leave.
class Callers : public QObject
{
    Q_OBJECT

public:
    using Handler = std::function<void(const Caller &)>;

    explicit Callers(const QDBusConnection &bus);

    /// Has `handler` called as soon as it is known whose the connection `name` is: at once when it has called before,
    /// never when it has gone. False when too many calls of the connection wait for that.
    bool identify(const QString &name, const Handler &handler);

Q_SIGNALS:
    /// The connection has left the bus.
    void gone(const QString &name);

private Q_SLOTS:
    void handleOwnerChange(const QString &name, const QString &before, const QString &after);

private:
    QDBusConnection m_bus;
    /// The user ids of the connections that have called.
    QHash<QString, uint> m_users;
    QHash<QString, QVector<Handler>> m_waiting;
};
