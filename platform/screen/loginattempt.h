// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include "authserviceinterface.h"

#include <QObject>
#include <QVariant>
#include <QVector>

#include <functional>

/// One user's authentication by one method, as the method's pages see it. It follows the state of the user and of the
/// attempts that it opens itself; of other programs' attempts it reports only that they lock or unlock the user.
class LoginAttempt : public QObject
{
    Q_OBJECT
    Q_PROPERTY(uint uid READ uid CONSTANT)
    Q_PROPERTY(QString user READ user CONSTANT)
    Q_PROPERTY(QString method READ method CONSTANT)
    Q_PROPERTY(QString state READ state NOTIFY stateChanged)
    Q_PROPERTY(QVariantMap details READ details NOTIFY stateChanged)
    Q_PROPERTY(bool isSubmitted READ isSubmitted NOTIFY stateChanged)
    Q_PROPERTY(QVariantMap outcome READ outcome NOTIFY outcomeChanged)

public:
    LoginAttempt(AuthServiceInterface &service, uint uid, const QString &user, const QString &method, QObject *parent);
    /// Cancels an open attempt.
    ~LoginAttempt() override;

    uint uid() const { return m_uid; }
    /// What the screen calls the user.
    QString user() const { return m_user; }
    QString method() const { return m_method; }
    /// The state and its details, by the service's names.
    QString state() const { return m_state; }
    QVariantMap details() const { return m_details; }
    /// Whether the open attempt has the user's input, so that it is being checked.
    bool isSubmitted() const { return m_isSubmitted; }
    /// How the last attempt ended. Empty before the first end, and while an attempt is open.
    /// After success "succeeded": true. After a failure "code": int, "counted": bool and "attemptsLeft": int. After an
    /// attempt that was given up "reason": QString. After a refused call "error": QString, its D-Bus name.
    QVariantMap outcome() const { return m_outcome; }

    /// Opens an attempt, so that the method prepares to check.
    Q_INVOKABLE void requestChallenge();
    /// Sends `data`, with the text of `field` under the key `secretKey`. Then clears the field.
    Q_INVOKABLE void authenticate(const QString &secretKey, QObject *field, QVariantMap data = {});
    /// Clears `field`, and overwrites the memory of its text. That must not come from a literal.
    Q_INVOKABLE static void clear(QObject *field);
    /// Cancels the open attempt.
    Q_INVOKABLE void cancel();

Q_SIGNALS:
    void stateChanged();
    void outcomeChanged();

private:
    void open(const QDBusPendingReply<qulonglong> &reply, bool isSubmitted);
    /// Handles a report at once, or after the reply to a call that opens an attempt. Qt may deliver both in either
    /// order.
    void whenOpened(const std::function<void()> &handle);
    void handleState(qulonglong attempt, const QString &state, const QVariantMap &details);
    void handleOutcome(qulonglong attempt, const QVariantMap &outcome);
    /// Asks for the user's state.
    void refresh();
    void setState(const QString &state, const QVariantMap &details);
    void setOutcome(const QVariantMap &outcome);

    AuthServiceInterface &m_service;
    const uint m_uid;
    const QString m_user;
    const QString m_method;
    QString m_state;
    QVariantMap m_details;
    QVariantMap m_outcome;
    qulonglong m_attempt = 0; ///< The last one; 0 for none.
    QVector<std::function<void()>> m_held;
    bool m_isOpening = false; ///< The service has not replied yet.
    bool m_isOpen = false;
    bool m_isSubmitted = false;
};
