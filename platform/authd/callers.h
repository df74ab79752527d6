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

/// Who the service's callers are, and when they leave.
class Callers : public QObject
{
    Q_OBJECT

public:
    using Handler = std::function<void(const Caller &)>;

    /// On `bus`, which must outlive this object.
    explicit Callers(sd_bus *bus);
    ~Callers() override;

    /// Whose the connection `name` is, when that is known.
    std::optional<Caller> find(const char *name) const;
    /// Has `handler` called as soon as it is known whose the connection `name` is, never when it has gone. False when
    /// too many calls of the connection wait for that.
    bool identify(const char *name, const Handler &handler);

Q_SIGNALS:
    /// The connection has left the bus.
    void gone(const QString &name);

private:
    static int handleAnswer(sd_bus_message *answer, void *waiting, sd_bus_error *);
    static int handleOwnerChange(sd_bus_message *signal, void *callers, sd_bus_error *);

    /// Calls that wait for the bus to say whose the connection is.
    struct Waiting
    {
        Callers *callers = nullptr;
        QByteArray name;
        QVector<Handler> handlers;
        sd_bus_slot *question = nullptr;
    };
    void forget(const QByteArray &name);

    sd_bus *const m_bus;
    sd_bus_slot *m_ownerChanges = nullptr;
    /// The connections that have called.
    QHash<QByteArray, Caller> m_callers;
    std::map<QByteArray, Waiting> m_waiting;
};
