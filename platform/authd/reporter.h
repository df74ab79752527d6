// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include "attempt.h"
#include "reply.h"
#include "userstates.h"

#include <QHash>
#include <QObject>

#include <functional>

class Authenticator;
class MethodOptions;
class SystemBus;

/// Sends the service's signals, each to the connections that it concerns and to no others. Signals about a user go to
/// subscribers of that user and of root. Signals about an attempt also go to its caller.
class Reporter : public QObject
{
    Q_OBJECT

public:
    /// Sends a signal for each notification of `authenticator`. All arguments must outlive this object.
    Reporter(const SystemBus *bus, const Authenticator *authenticator, const MethodOptions *options);

    /// Subscribes the caller to the signals that concern its user.
    Reply subscribe(const Caller &caller);
    void unsubscribe(const QString &name) { m_subscribers.remove(name); }

private:
    /// Whether subscribers of the user `reader` receive the signal.
    using Audience = std::function<bool(uint reader)>;

    void send(const QString &member, const QVariantList &arguments, const Audience &audience,
              const QString &caller = {}) const;
    static Audience rootAnd(uint uid);
    void reportOption(uint uid, const QString &method, const QString &option, const QVariant &value) const;

    const SystemBus *const m_bus;
    const MethodOptions *const m_options;
    /// The subscribed connections and their users.
    QHash<QString, uint> m_subscribers;
};
