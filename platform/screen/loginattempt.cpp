// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#include "loginattempt.h"

#include "states.h"
#include "wipe.h"

#include <QPointer>

#include <utility>

namespace {

constexpr char Text[] = "text";

} // namespace

LoginAttempt::LoginAttempt(AuthServiceInterface &service, uint uid, const QString &user, const QString &method,
                           QObject *parent)
    : QObject(parent)
    , m_service(service)
    , m_uid(uid)
    , m_user(user)
    , m_method(method)
    , m_state(States::Idle)
{
    connect(&service, &AuthServiceInterface::StateChanged, this,
            [this](qulonglong attempt, uint who, const QString &state, const QVariantMap &details) {
                if (who == m_uid)
                    whenOpened([=] { handleState(attempt, state, details); });
            });
    connect(&service, &AuthServiceInterface::Authenticated, this, [this](qulonglong attempt) {
        handleOutcome(attempt, {{QStringLiteral("succeeded"), true}});
    });
    connect(
        &service, &AuthServiceInterface::AuthenticationFailed, this,
        [this](qulonglong attempt, uint, const QString &, int code, const QString &, bool counted, int attemptsLeft) {
            handleOutcome(attempt, {{QStringLiteral("code"), code},
                                    {QStringLiteral("counted"), counted},
                                    {QStringLiteral("attemptsLeft"), attemptsLeft}});
        });
    connect(&service, &AuthServiceInterface::AttemptGivenUp, this,
            [this](qulonglong attempt, uint, const QString &, const QString &reason) {
                handleOutcome(attempt, {{QStringLiteral("reason"), reason}});
            });
    refresh();
}

LoginAttempt::~LoginAttempt()
{
    cancel();
}

void LoginAttempt::requestChallenge()
{
    open(m_service.RequestChallenge(m_uid, m_method), false);
}

void LoginAttempt::authenticate(const QString &secretKey, QObject *field, QVariantMap data)
{
    data.insert(secretKey, field->property(Text));
    open(m_service.Authenticate(m_uid, m_method, data), true);
    clear(field);
}

void LoginAttempt::clear(QObject *field)
{
    // All copies share the memory of this one, also that in the message that the reply refers to.
    Wipe::text(field->property(Text).toString());
    field->setProperty(Text, QString());
}

void LoginAttempt::cancel()
{
    whenOpened([this] {
        if (m_isOpen)
            m_service.Cancel(m_attempt);
    });
}

void LoginAttempt::open(const QDBusPendingReply<qulonglong> &reply, bool isSubmitted)
{
    setOutcome({});
    m_isSubmitted = isSubmitted;
    m_isOpening = true;
    m_attempt = 0; // Another attempt's end is not this one's.
    auto *watcher = new QDBusPendingCallWatcher(reply, &m_service);
    connect(watcher, &QDBusPendingCallWatcher::finished, &m_service,
            [this, self = QPointer<LoginAttempt>(this), service = &m_service, watcher] {
                watcher->deleteLater();
                const QDBusPendingReply<qulonglong> opened = *watcher;
                if (!self) { // Only now can the attempt be named.
                    if (opened.isValid())
                        service->Cancel(opened.value());
                    return;
                }
                m_isOpening = false;
                if (opened.isError()) {
                    setOutcome({{QStringLiteral("error"), opened.error().name()}});
                    refresh();
                } else {
                    m_attempt = opened.value();
                    m_isOpen = true;
                }
                const QVector<std::function<void()>> held = std::exchange(m_held, {});
                for (const auto &handle : held)
                    handle();
            });
    setState(States::Pending, {});
}

void LoginAttempt::whenOpened(const std::function<void()> &handle)
{
    if (m_isOpening)
        m_held << handle;
    else
        handle();
}

void LoginAttempt::handleState(qulonglong attempt, const QString &state, const QVariantMap &details)
{
    if (state == States::Locked || (attempt != 0 && attempt == m_attempt))
        setState(state, details);
    else if (m_state == States::Locked)
        setState(States::Idle, {});
}

void LoginAttempt::handleOutcome(qulonglong attempt, const QVariantMap &outcome)
{
    whenOpened([=] {
        if (attempt == m_attempt)
            setOutcome(outcome);
    });
}

void LoginAttempt::refresh()
{
    auto *watcher = new QDBusPendingCallWatcher(m_service.GetState(m_uid), this);
    connect(watcher, &QDBusPendingCallWatcher::finished, this, [this, watcher] {
        watcher->deleteLater();
        const QDBusPendingReply<qulonglong, QString, QVariantMap> reply = *watcher;
        if (reply.isValid() && reply.argumentAt<1>() == States::Locked)
            setState(States::Locked, reply.argumentAt<2>());
        else if (!m_isOpening && !m_isOpen)
            setState(States::Idle, {});
    });
}

void LoginAttempt::setState(const QString &state, const QVariantMap &details)
{
    m_state = state;
    m_details = details;
    Q_EMIT stateChanged();
}

void LoginAttempt::setOutcome(const QVariantMap &outcome)
{
    m_outcome = outcome;
    m_isOpen = false;
    m_isSubmitted = false;
    Q_EMIT outcomeChanged();
}
