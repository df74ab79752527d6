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

/// Tells the service's callers what happens: each those things that concern it, by signals to it alone. What is about a
/// user goes to the subscribers that are the user's or root's, and what is about an attempt also to its caller.
class Reporter : public QObject
{
    Q_OBJECT

public:
    /// Reports what `authenticator` tells. All must outlive this object.
    Reporter(const SystemBus *bus, const Authenticator *authenticator, const MethodOptions *options);

    /// Has the caller told of what concerns its user.
    Reply subscribe(const Caller &caller);
    void unsubscribe(const QString &name) { m_subscribers.remove(name); }

private:
    /// Whether a subscriber of the user `reader` is to be told.
    using Audience = std::function<bool(uint reader)>;

    void send(const QString &member, const QVariantList &arguments, const Audience &audience,
              const QString &caller = {}) const;
    static Audience rootAnd(uint uid);
    void reportOption(uint uid, const QString &method, const QString &option, const QVariant &value) const;

    const SystemBus *const m_bus;
    const MethodOptions *const m_options;
    /// The subscribed connections with their users.
    QHash<QString, uint> m_subscribers;
};
