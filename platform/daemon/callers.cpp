// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#include "callers.h"

#include "servicelimits.h"

#include <QDBusConnectionInterface>
#include <QDBusPendingCallWatcher>
#include <QDBusPendingReply>

Callers::Callers(const QDBusConnection &bus)
    : m_bus(bus)
{
    // One rule for all connections that end, as the number of rules is limited and that of callers is not.
    const QStringList hasNoNewOwner = {QString(), QString(), QLatin1String("")};
    m_bus.connect(QStringLiteral("org.freedesktop.DBus"), QStringLiteral("/org/freedesktop/DBus"),
                  QStringLiteral("org.freedesktop.DBus"), QStringLiteral("NameOwnerChanged"), hasNoNewOwner,
                  QStringLiteral("sss"), this, SLOT(handleOwnerChange(QString, QString, QString)));
}

bool Callers::identify(const QString &name, const Handler &handler)
{
    const auto known = m_users.constFind(name);
    if (known != m_users.constEnd()) {
        handler({name, *known});
        return true;
    }
    QVector<Handler> &waiting = m_waiting[name];
    if (waiting.size() >= Limits::WaitingCallsPerConnection)
        return false;
    waiting << handler;
    if (waiting.size() > 1)
        return true;
    auto *pending =
        new QDBusPendingCallWatcher(m_bus.interface()->asyncCall(QStringLiteral("GetConnectionUnixUser"), name), this);
    connect(pending, &QDBusPendingCallWatcher::finished, this, [this, name](QDBusPendingCallWatcher *finished) {
        finished->deleteLater();
        const QDBusPendingReply<uint> uid = *finished;
        // An error means that the caller has gone; so does an entry that is no longer there.
        const QVector<Handler> handlers = m_waiting.take(name);
        if (uid.isError() || handlers.isEmpty())
            return;
        const Caller caller{name, uid.value()};
        m_users.insert(name, caller.uid);
        for (const Handler &handle : handlers)
            handle(caller);
    });
    return true;
}

void Callers::handleOwnerChange(const QString &name, const QString &, const QString &after)
{
    if (!after.isEmpty())
        return;
    m_waiting.remove(name);
    if (m_users.remove(name) > 0)
        Q_EMIT gone(name);
}
