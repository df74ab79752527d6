// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#include "authenticator.h"

#include "errors.h"
#include "lockstore.h"
#include "log.h"
#include "states.h"

#include <authd/libauthd.h>
#include <authd/validationscope.h>
#include <authd/vocabulary.h>

#include <QDBusArgument>
#include <QDBusMetaType>
#include <QDBusVariant>

#include <algorithm>

namespace Vocabulary = LibAuthd::Vocabulary;

namespace {

/// How long, in milliseconds, the outcome of an attempt that was given up may be on its way: longer than the bus lets a
/// call go without an answer.
constexpr qint64 OutcomeLimit = 30000;
constexpr int NoResultCode = -1;
constexpr QLatin1String WarningLevel = LibAuthd::Vocabulary::word("WARN_LEVEL");

/// Whether the bus can carry the value.
bool isTransferable(const QVariant &value)
{
    return value.isValid() && QDBusMetaType::typeToSignature(value.userType());
}

/// The value as one of the type of `model`; an invalid variant when that loses something. What has been lost shows in
/// the text, also where converting back brings an overflow back.
QVariant converted(const QVariant &value, const QVariant &model)
{
    if (value.userType() == model.userType())
        return value;
    QVariant result = value;
    return result.convert(model.userType()) && result.toString() == value.toString() ? result : QVariant();
}

/// What concerns the user among the parameters of an outcome.
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

Authenticator::Authenticator(std::vector<Method> methods, LockStore *locks)
    : m_locks(locks)
{
    for (Method &method : methods) {
        m_methods.push_back(Entry{std::move(method)});
        m_methods.back().plugin->setNotificator(this);
    }
}

Authenticator::~Authenticator()
{
    for (Entry &entry : m_methods) {
        entry.plugin->setNotificator(nullptr);
        entry.plugin.reset();
    }
}

QStringList Authenticator::methods() const
{
    QStringList names;
    for (const Entry &entry : m_methods)
        names << entry.name;
    return names;
}

Reply Authenticator::methodInfo(const QString &method) const
{
    Reply check = checkMethod(method);
    if (check.isError())
        return check;
    const Entry *entry = find(method);
    const AuthUiPages &pages = entry->plugin->pages();
    return Reply({QVariantMap{{QStringLiteral("description"), entry->description},
                              {QStringLiteral("version"), entry->version},
                              {QStringLiteral("priority"), entry->priority},
                              {QStringLiteral("types"), entry->plugin->types()},
                              {QStringLiteral("available"), entry->plugin->isAvailable(0)},
                              {Vocabulary::AuthPage, pages.authPage},
                              {Vocabulary::PrePage, pages.prePage},
                              {Vocabulary::InfoPage, pages.infoPage}}});
}

Reply Authenticator::openAttempt(uint uid, const QString &method, const QVariantMap &data)
{
    for (const Reply &check : {checkUser(uid), checkMethod(method)}) {
        if (check.isError())
            return check;
    }
    for (const QVariant &value : data) {
        if (value.canConvert<QDBusArgument>())
            return Reply(Errors::InvalidArgs, QStringLiteral("The data may hold plain values only"));
    }
    if (const std::optional<Lock> lock = m_locks->find(uid))
        return Reply(Errors::UserLocked, QStringLiteral("The user is locked: ") + lock->reason);

    Entry &entry = *find(method);
    const bool isFree = entry.attempt.phase == Attempt::Closed
                        || (entry.attempt.phase == Attempt::Restarted && entry.attempt.uid == uid);
    if (!isFree || (entry.keptFor != uid && !entry.keptUntil.hasExpired()))
        return Reply(Errors::Busy, QStringLiteral("The method has another attempt open"));

    Log::write(Log::Info, "attempt-opened", {{"method", method}, {"uid", uid}, {"challenge", data.isEmpty()}});
    entry.attempt = {Attempt::Open, uid, !data.isEmpty()};
    setState(uid, States::Pending, {{States::Method, method}});
    entry.plugin->reset();
    entry.plugin->authenticate(uid, data);
    return Reply();
}

Reply Authenticator::cancel(uint uid)
{
    Reply check = checkUser(uid);
    if (check.isError())
        return check;
    bool found = false;
    for (Entry &entry : m_methods) {
        if (entry.attempt.uid == uid && entry.attempt.isOpen()) {
            giveUp(entry);
            found = true;
        }
    }
    if (!found)
        return Reply(Errors::NoAttempt, QStringLiteral("The user has no attempt open"));
    setState(uid, States::Idle, {});
    return Reply();
}

Reply Authenticator::unlock(uint uid)
{
    Reply check = checkUser(uid);
    if (check.isError())
        return check;
    if (m_locks->unlock(uid)) {
        Log::write(Log::Notice, "user-unlocked", {{"uid", uid}});
        setState(uid, States::Idle, {});
        tellLocked(uid, false, QString(), 0);
    }
    return Reply();
}

Reply Authenticator::startSession(uint uid, bool manageClient)
{
    Reply check = checkUser(uid);
    if (check.isError())
        return check;
    Log::write(Log::Info, "session-started", {{"uid", uid}, {"manage-client", manageClient}});
    for (Entry &entry : m_methods)
        entry.plugin->handleUserSessionTriggered(uid, true, manageClient);
    return Reply();
}

Reply Authenticator::stopSession(uint uid, bool manageClient)
{
    Reply check = checkUser(uid);
    if (check.isError())
        return check;
    Log::write(Log::Info, "session-stopped", {{"uid", uid}, {"manage-client", manageClient}});
    for (Entry &entry : m_methods) {
        entry.plugin->handleUserSessionTriggered(uid, false, manageClient);
        // With the request still in mind, the method would start the client again as soon as it has ended.
        if (manageClient && entry.attempt.uid == uid)
            giveUp(entry);
    }
    if (manageClient)
        setState(uid, States::Idle, {});
    return Reply();
}

Reply Authenticator::state(uint uid) const
{
    Reply check = checkUser(uid);
    if (check.isError())
        return check;
    const State state = currentState(uid);
    return Reply({state.name, state.details});
}

Reply Authenticator::option(uint uid, const QString &method, const QString &option)
{
    Reply check = checkOptions(uid, method);
    if (check.isError())
        return check;
    Entry &entry = *find(method);
    if (!entry.plugin->defaultOptions(uid).contains(option))
        return Reply(Errors::NoSuchOption, QStringLiteral("The method has no such option"));
    return Reply({QVariant::fromValue(QDBusVariant(currentValue(entry, uid, option)))});
}

Reply Authenticator::options(uint uid, const QString &method)
{
    Reply check = checkOptions(uid, method);
    if (check.isError())
        return check;
    Entry &entry = *find(method);
    QVariantMap values;
    const QStringList names = entry.plugin->defaultOptions(uid).keys();
    for (const QString &name : names)
        values.insert(name, currentValue(entry, uid, name));
    return Reply({values});
}

Reply Authenticator::setOption(uint writer, uint uid, const QString &method, const QString &option,
                               const QVariant &value)
{
    Reply check = checkOptions(uid, method);
    if (check.isError())
        return check;
    AuthPluginInterface &plugin = *find(method)->plugin;
    const QMap<QString, QVariant> &defaults = plugin.defaultOptions(uid);
    if (!defaults.contains(option))
        return Reply(Errors::NoSuchOption, QStringLiteral("The method has no such option"));

    const ValidationScope &scope = plugin.getOptionsValidations(uid);
    const ValidationOptions rules = scope.rulesFor(option);
    if (!scope.contains(option) || rules.testFlag(MethodOnly))
        return Reply(Errors::AccessDenied, QStringLiteral("Only the method itself writes this option"));
    if (rules.testFlag(RootOnly) && writer != 0)
        return Reply(Errors::AccessDenied, QStringLiteral("Only root may write this option"));

    QVariant written = value;
    if (rules.testFlag(TypeOfDefault)) {
        const QVariant model = defaults.value(option);
        written = converted(value, model);
        if (!written.isValid())
            return Reply(Errors::InvalidArgs,
                         QStringLiteral("The option's values are of type ") + QString::fromLatin1(model.typeName()));
    }
    if (!plugin.setOption(uid, option, written))
        return Reply(Errors::StoreFailed, QStringLiteral("The value cannot be stored"));
    Log::write(Log::Notice, "option-set", {{"method", method}, {"uid", uid}, {"option", option}, {"by", writer}});
    return Reply();
}

void Authenticator::succeed(const QString &method)
{
    takeOutcome("success", method, [this](Entry &entry) {
        const uint uid = entry.attempt.uid;
        if (m_locks->find(uid)) {
            Log::write(Log::Warning, "success-of-locked-user", {{"method", entry.name}, {"uid", uid}});
            setState(uid, States::Idle, {});
            return;
        }
        entry.plugin->resetAttempts(uid);
        Log::write(Log::Notice, "authenticated", {{"method", entry.name}, {"uid", uid}});
        Q_EMIT authenticated(uid, entry.name);
        setState(uid, States::Authenticated, {{States::Method, entry.name}});
    });
}

void Authenticator::finish(const QString &method, bool success, const QMap<QString, QVariant> &params)
{
    if (success) {
        succeed(method);
        return;
    }
    takeOutcome("failure", method, [this, params](Entry &entry) {
        const uint uid = entry.attempt.uid;
        const int code = params.value(Vocabulary::ResultCode, NoResultCode).toInt();
        const QString name = entry.plugin->getErrorMessage(code);
        entry.plugin->increaseAttempts(uid);
        const int left = entry.plugin->getAttempts(uid);
        Log::write(Log::Notice, "authentication-failed",
                   {{"method", entry.name}, {"uid", uid}, {"code", code}, {"name", name}, {"attempts-left", left}});
        Q_EMIT authenticationFailed(uid, entry.name, code, name, left);
        setState(uid, States::Challenge, challengeDetails(entry.name, params));
    });
}

void Authenticator::inputRequested(const QString &method, const QMap<QString, QVariant> &params)
{
    takeOutcome("input-request", method, [this, params](Entry &entry) {
        Log::write(Log::Info, "input-requested", {{"method", entry.name}, {"uid", entry.attempt.uid}});
        setState(entry.attempt.uid, States::Challenge, challengeDetails(entry.name, params));
    });
}

void Authenticator::restartAuth(const QString &method, uint uid)
{
    // In turn with the outcomes, so that the last one told is the one that counts.
    postpone([this, method, uid] {
        Log::write(Log::Notice, "restart", {{"method", method}, {"uid", uid}});
        Entry *entry = find(method);
        if (!entry || uid == 0)
            return;
        QVariantMap details = {{States::Method, method}};
        if (entry->attempt.phase != Attempt::Closed && entry->attempt.uid == uid)
            details.insert(States::Restarted, true);
        if (entry->attempt.phase == Attempt::Open && entry->attempt.uid == uid)
            entry->attempt.phase = Attempt::Restarted;
        setState(uid, States::Challenge, details);
    });
}

void Authenticator::lockUser(const QString &method, uint uid, bool lock, const QString &reason, uint duration)
{
    if (uid == 0)
        return;
    // The lock holds at once; only telling of it must wait.
    if (lock) {
        Log::write(Log::Warning, "user-locked",
                   {{"method", method}, {"uid", uid}, {"reason", reason}, {"duration", duration}});
        m_locks->lock(uid, method, reason, duration);
    } else {
        Log::write(Log::Notice, "user-unlocked", {{"method", method}, {"uid", uid}});
        m_locks->unlock(uid);
    }
    postpone([this, uid, lock, reason, duration] {
        const State state = currentState(uid);
        Q_EMIT stateChanged(uid, state.name, state.details);
        tellLocked(uid, lock, reason, duration);
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
    Log::write(Log::Info, "option-changed",
               {{"method", method}, {"uid", uid}, {"option", option}, {"computed", computed}});
    if (!isTransferable(value))
        return;
    if (uid == 0)
        Q_EMIT methodOptionChanged(method, option, value);
    else
        Q_EMIT userMethodOptionChanged(uid, method, option, value);
}

const Authenticator::Entry *Authenticator::find(const QString &method) const
{
    const auto entry = std::find_if(m_methods.cbegin(), m_methods.cend(),
                                    [&method](const Entry &candidate) { return candidate.name == method; });
    return entry == m_methods.cend() ? nullptr : &*entry;
}

Authenticator::Entry *Authenticator::find(const QString &method)
{
    return const_cast<Entry *>(static_cast<const Authenticator *>(this)->find(method));
}

Reply Authenticator::checkUser(uint uid) const
{
    if (uid == 0 || LibAuthd::userName(uid).isNull())
        return Reply(Errors::NoSuchUser, QStringLiteral("There is no user %1 to authenticate").arg(uid));
    return Reply();
}

Reply Authenticator::checkMethod(const QString &method) const
{
    return find(method) ? Reply() : Reply(Errors::NoSuchMethod, QStringLiteral("There is no such method"));
}

Reply Authenticator::checkOptions(uint uid, const QString &method) const
{
    const Reply user = uid == 0 ? Reply() : checkUser(uid);
    return user.isError() ? user : checkMethod(method);
}

void Authenticator::postpone(const std::function<void()> &action)
{
    QMetaObject::invokeMethod(this, action, Qt::QueuedConnection);
}

void Authenticator::takeOutcome(const char *outcome, const QString &method, const std::function<void(Entry &)> &handle)
{
    Entry *entry = find(method);
    if (!entry || !entry->attempt.isOpen()) {
        Log::write(Log::Notice, "outcome-without-attempt",
                   {{"method", method}, {"outcome", QString::fromLatin1(outcome)}});
        return;
    }
    entry->attempt.phase = Attempt::Answered;
    postpone([entry, handle] {
        entry->attempt.phase = Attempt::Closed;
        handle(*entry);
    });
}

void Authenticator::giveUp(Entry &entry)
{
    if (entry.attempt.isOpen()) {
        Log::write(Log::Notice, "attempt-given-up", {{"method", entry.name}, {"uid", entry.attempt.uid}});
        if (entry.attempt.hasCredentials) {
            entry.keptFor = entry.attempt.uid;
            entry.keptUntil.setRemainingTime(OutcomeLimit);
        }
        entry.attempt.phase = Attempt::Closed;
    }
    entry.plugin->reset();
}

QVariant Authenticator::currentValue(Entry &entry, uint uid, const QString &option) const
{
    AuthPluginInterface &plugin = *entry.plugin;
    const QVariant model = plugin.defaultOptions(uid).value(option);
    QVariant value;
    if (plugin.getOptionsValidations(uid).rulesFor(option).testFlag(MethodOnly))
        value = plugin.getOption(uid, option);
    if (!value.isValid() || value.userType() != model.userType())
        value = plugin.getOptionInternal(uid, option);
    return isTransferable(value) ? value : model;
}

Authenticator::State Authenticator::currentState(uint uid) const
{
    if (const std::optional<Lock> lock = m_locks->find(uid))
        return {States::Locked,
                {{States::Method, lock->method}, {States::Reason, lock->reason}, {States::Duration, lock->duration()}}};
    return m_states.value(uid, {States::Idle, {}});
}

void Authenticator::setState(uint uid, const QString &name, const QVariantMap &details)
{
    m_states.insert(uid, {name, details});
    if (!m_locks->find(uid))
        Q_EMIT stateChanged(uid, name, details);
}

void Authenticator::tellLocked(uint uid, bool locked, const QString &reason, uint duration)
{
    for (Entry &entry : m_methods)
        entry.plugin->handleUserLocked(uid, locked, reason, duration);
}
