// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#include "reporter.h"

#include "authenticator.h"
#include "errors.h"
#include "methodoptions.h"
#include "servicelimits.h"
#include "systembus.h"

#include <authd/vocabulary.h>

#include <QDBusVariant>

namespace Vocabulary = LibAuthd::Vocabulary;

Reporter::Reporter(const SystemBus *bus, const Authenticator *authenticator, const MethodOptions *options)
    : m_bus(bus)
    , m_options(options)
{
    connect(authenticator, &Authenticator::authenticated, this,
            [this](const AttemptName &attempt, uint uid, const QString &method) {
                send(Vocabulary::Authenticated, {attempt.id, uid, method}, rootAnd(uid), attempt.caller);
            });
    connect(authenticator, &Authenticator::authenticationFailed, this,
            [this](const AttemptName &attempt, uint uid, const QString &method, int code, const QString &name,
                   bool isCounted, int attemptsLeft) {
                send(Vocabulary::AuthenticationFailed, {attempt.id, uid, method, code, name, isCounted, attemptsLeft},
                     rootAnd(uid), attempt.caller);
            });
    connect(authenticator, &Authenticator::attemptGivenUp, this,
            [this](const AttemptName &attempt, uint uid, const QString &method, const QString &reason) {
                send(Vocabulary::AttemptGivenUp, {attempt.id, uid, method, reason}, rootAnd(uid), attempt.caller);
            });
    connect(authenticator, &Authenticator::stateChanged, this, [this](uint uid, const UserStates::State &state) {
        send(Vocabulary::StateChanged, {state.attempt.id, uid, state.name, state.details}, rootAnd(uid),
             state.attempt.caller);
    });
    connect(authenticator, &Authenticator::optionHasChanged, this, &Reporter::reportOption);
}

Reply Reporter::subscribe(const Caller &caller)
{
    int count = 0;
    for (auto subscriber = m_subscribers.cbegin(); subscriber != m_subscribers.cend(); ++subscriber)
        count += subscriber.value() == caller.uid && subscriber.key() != caller.name;
    if (!caller.isRoot() && count >= Limits::SubscribersPerUser)
        return Reply(Errors::LimitsExceeded, QStringLiteral("Too many programs of the user have subscribed"));
    m_subscribers.insert(caller.name, caller.uid);
    return Reply();
}

void Reporter::reportOption(uint uid, const QString &method, const QString &option, const QVariant &value) const
{
    const QVariant variant = QVariant::fromValue(QDBusVariant(value));
    if (uid == 0)
        send(Vocabulary::MethodOptionChanged, {method, option, variant},
             [this, &method, &option](uint reader) { return m_options->mayKnow(reader, method, option); });
    else
        send(Vocabulary::UserMethodOptionChanged, {uid, method, option, variant}, rootAnd(uid));
}

Reporter::Audience Reporter::rootAnd(uint uid)
{
    return [uid](uint reader) {
        return reader == 0 || reader == uid;
    };
}

void Reporter::send(const QString &member, const QVariantList &arguments, const Audience &audience,
                    const QString &caller) const
{
    if (!caller.isEmpty())
        m_bus->sendSignal(caller, member, arguments);
    for (auto subscriber = m_subscribers.cbegin(); subscriber != m_subscribers.cend(); ++subscriber) {
        if (subscriber.key() != caller && audience(subscriber.value()))
            m_bus->sendSignal(subscriber.key(), member, arguments);
    }
}
