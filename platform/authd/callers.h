// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include "attempt.h"

#include <QHash>
#include <QObject>
#include <QVector>

#include <functional>
#include <map>
#include <optional>

#include <systemd/sd-bus.h>

/// Identifies the service's callers and reports when they leave the bus.
class Callers : public QObject
{
    Q_OBJECT

public:
    using Handler = std::function<void(const Caller &)>;

    /// `bus` must outlive this object.
    explicit Callers(sd_bus *bus);
    ~Callers() override;

    /// The caller behind the connection `name`, if it is already known.
    std::optional<Caller> find(const char *name) const;
    /// Counts a call of the connection `name` as waiting, and calls `handler` as soon as the owner of the connection is
    /// known; never if the connection has left. Returns false when too many calls of the connection are already
    /// waiting.
    bool identify(const char *name, const Handler &handler);
    /// Calls `handler` after those that wait for the owner of the connection `name` already.
    void await(const char *name, const Handler &handler);

Q_SIGNALS:
    /// The connection has left the bus.
    void gone(const QString &name);

private:
    static int handleAnswer(sd_bus_message *answer, void *waiting, sd_bus_error *);
    static int handleOwnerChange(sd_bus_message *signal, void *callers, sd_bus_error *);

    /// Calls that wait until the bus reports the owner of their connection.
    struct Waiting
    {
        Callers *callers = nullptr;
        QByteArray name;
        int calls = 0;
        QVector<Handler> handlers;
        sd_bus_slot *query = nullptr;
    };
    void forget(const QByteArray &name);

    sd_bus *const m_bus;
    sd_bus_slot *m_ownerChanges = nullptr;
    /// The connections that have been identified.
    QHash<QByteArray, Caller> m_callers;
    std::map<QByteArray, Waiting> m_waiting;
};
