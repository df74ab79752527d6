// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#include "authenticator.h"
#include "busvalues.h"
#include "lockstore.h"
#include "log.h"
#include "methodoptions.h"
#include "requestdata.h"
#include "resultcodes.h"
#include "servicelimits.h"
#include "states.h"

#include <authd/vocabulary.h>

namespace Vocabulary = LibAuthd::Vocabulary;

namespace {

constexpr QLatin1String WarningLevel = Vocabulary::word("WARN_LEVEL");

/// The parameters of an outcome that the user needs.
QVariantMap challengeDetails(const QString &method, const QVariantMap &params)
{
    QVariantMap details = {{States::Method, method}};
    for (const QLatin1String key : {Vocabulary::InputRequestType, Vocabulary::ResultCode}) {
        if (params.contains(key))
            details.insert(key, params.value(key).toInt());
    }
    return details;
}

} // namespace

void Authenticator::succeed(const QString &method)
{
    takeOutcome("success", method, [this](const Attempt &attempt) { handleSuccess(m_queue.close(attempt.id)); });
}

void Authenticator::finish(const QString &method, bool success, const QMap<QString, QVariant> &params)
{
    if (success) {
        succeed(method);
        return;
    }
    takeOutcome("failure", method,
                [this, params](const Attempt &attempt) { handleFailure(m_queue.close(attempt.id), params); });
}

void Authenticator::inputRequested(const QString &method, const QMap<QString, QVariant> &params)
{
    takeOutcome("input-request", method, [this, params](Attempt &attempt) { handleInputRequest(attempt, params); });
}

void Authenticator::takeOutcome(const char *outcome, const QString &method,
                                const std::function<void(Attempt &)> &handle)
{
    Attempt *attempt = m_queue.active();
    if (!attempt || attempt->method != method || attempt->phase == Attempt::Answered) {
        Log::write(Log::Notice, "outcome-without-attempt",
                   {{"method", method}, {"outcome", QString::fromLatin1(outcome)}});
        return;
    }
    attempt->phase = Attempt::Answered;
    postpone([this, handle, id = attempt->id] { handle(*m_queue.find(id)); });
}

void Authenticator::handleSuccess(Attempt attempt)
{
    RequestData::wipe(attempt.data);
    if (m_locks->find(attempt.uid)) {
        Log::write(Log::Warning, "success-of-locked-user", {{"method", attempt.method}, {"uid", attempt.uid}});
        Q_EMIT attemptGivenUp(attempt.name(), attempt.uid, attempt.method, Reasons::Locked);
        m_states.set(attempt.uid, attempt.name(), States::Idle);
        return;
    }
    m_methods->find(attempt.method)->resetAttempts(attempt.uid);
    Log::write(Log::Notice, "authenticated",
               {{"attempt", attempt.id}, {"method", attempt.method}, {"uid", attempt.uid}});
    Q_EMIT authenticated(attempt.name(), attempt.uid, attempt.method);
    m_states.set(attempt.uid, attempt.name(), States::Authenticated, {{States::Method, attempt.method}});
}

void Authenticator::handleFailure(Attempt attempt, const QMap<QString, QVariant> &params)
{
    AuthPluginInterface &plugin = *m_methods->find(attempt.method);
    const int code = params.value(Vocabulary::ResultCode, ResultCodes::None).toInt();
    const QString codeName = plugin.getErrorMessage(code);
    const bool isCounted = ResultCodes::isCounted(code);
    if (isCounted) {
        RequestData::wipe(attempt.data);
        plugin.increaseAttempts(attempt.uid);
    } else {
        // The method may not have used the data yet, and must not use it later.
        forgetRequest(attempt.method, attempt.data);
    }
    const int left = plugin.getAttempts(attempt.uid);
    Log::write(Log::Notice, "authentication-failed",
               {{"attempt", attempt.id},
                {"method", attempt.method},
                {"uid", attempt.uid},
                {"code", code},
                {"name", codeName},
                {"counted", isCounted},
                {"attempts-left", left}});
    Q_EMIT authenticationFailed(attempt.name(), attempt.uid, attempt.method, code, codeName, isCounted, left);
    m_states.set(attempt.uid, attempt.name(), States::Challenge, challengeDetails(attempt.method, params));
}

void Authenticator::handleInputRequest(Attempt &attempt, const QMap<QString, QVariant> &params)
{
    Log::write(Log::Info, "input-requested",
               {{"attempt", attempt.id}, {"method", attempt.method}, {"uid", attempt.uid}});
    if (!attempt.data.isEmpty())
        forgetRequest(attempt.method, attempt.data);
    m_queue.awaitInput(attempt.id);
    m_states.set(attempt.uid, attempt.name(), States::Challenge, challengeDetails(attempt.method, params));
}

void Authenticator::restartAuth(const QString &method, uint uid)
{
    // Postponed like the outcomes, so that the last notification takes effect last.
    postpone([this, method, uid] {
        Log::write(Log::Notice, "restart", {{"method", method}, {"uid", uid}});
        if (uid == 0)
            return;
        QVariantMap details = {{States::Method, method}};
        AttemptName name;
        Attempt *attempt = m_queue.active();
        if (attempt && attempt->uid == uid && attempt->method == method) {
            details.insert(States::Restarted, true);
            name = attempt->name();
            if (attempt->phase == Attempt::Active)
                attempt->phase = Attempt::Restarted;
        } else if (m_queue.ofUser(uid)) {
            // The user's attempt is still queued, so nothing changes for the user.
            return;
        }
        m_states.set(uid, name, States::Challenge, details);
    });
}

void Authenticator::lockUser(const QString &method, uint uid, bool lock, const QString &reason, uint duration)
{
    if (uid == 0)
        return;
    // The lock takes effect at once. Only the reports about it are postponed.
    if (lock) {
        Log::write(Log::Warning, "user-locked",
                   {{"method", method}, {"uid", uid}, {"reason", reason}, {"duration", duration}});
        m_locks->lock(uid, method, reason, duration);
        m_sessions->handleLock(uid);
    } else {
        Log::write(Log::Notice, "user-unlocked", {{"method", method}, {"uid", uid}});
        m_locks->unlock(uid);
    }
    m_states.expectLock(uid);
    postpone([this, uid, lock, reason, duration] {
        if (lock)
            giveUpOf(uid, Reasons::Locked);
        m_states.handleLock(uid);
        notifyMethodsOfLock(uid, lock, reason, duration);
    });
}

void Authenticator::logEvent(const QString &method, const QString &level, const QString &event, const QString &details)
{
    Log::write(level == WarningLevel ? Log::Warning : Log::Notice, "method-event",
               {{"method", method}, {"level", level}, {"name", event}, {"details", details}});
}

void Authenticator::optionChanged(const QString &method, uint uid, const QString &option, const QVariant &value,
                                  bool computed)
{
    // Limit the log lines: a user's files set some options, and the user may rewrite those files without end.
    LogLimit &limit = m_changes.try_emplace(uid, Limits::ChangesPerSecond, Limits::ChangeBurst).first->second;
    if (const std::optional<int> unlogged = limit.pass()) {
        Log::Fields fields = {{"method", method}, {"uid", uid}, {"option", option}, {"computed", computed}};
        if (*unlogged > 0)
            fields.append({"unlogged-before", *unlogged});
        Log::write(Log::Info, "option-changed", fields);
    }
    if (BusValues::isWritable(value))
        Q_EMIT optionHasChanged(uid, method, option, value);
}
