// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include "loginattempt.h"

#include <QDBusServiceWatcher>
#include <QScopedPointer>
#include <QVariant>

/// The authentication service for the window: whether it is there, its methods and users, and the current attempt.
class AuthScreen : public QObject
{
    Q_OBJECT
    Q_PROPERTY(bool isServicePresent READ isServicePresent NOTIFY changed)
    Q_PROPERTY(bool isAnswering READ isAnswering NOTIFY isAnsweringChanged)
    Q_PROPERTY(bool isReady READ isReady NOTIFY changed)
    Q_PROPERTY(QVariantList methods READ methods NOTIFY changed)
    Q_PROPERTY(QVariantList users READ users NOTIFY changed)
    Q_PROPERTY(bool isGreeter READ isGreeter CONSTANT)
    Q_PROPERTY(LoginAttempt *attempt READ attempt NOTIFY attemptChanged)

public:
    struct Account
    {
        uint uid;
        QString login;
        QString name;
    };

    /// `pages` is the directory of the methods' pages. A lock screen is for the user `lockedUid`; 0 makes a greeter.
    AuthScreen(const QString &pages, uint lockedUid);
    ~AuthScreen() override;

    /// Whether the system bus can be reached.
    bool isConnected() const { return m_service.connection().isConnected(); }
    bool isServicePresent() const { return m_isServicePresent; }
    /// Whether the service had replied to the last probe when the next one was due.
    bool isAnswering() const { return m_isAnswering; }
    /// Whether methods() and users() are known.
    bool isReady() const { return m_isReady; }
    /// The available methods that have a page to authenticate on, highest priority first. Each is an object with
    /// "name", "description" and the addresses "authPage", "prePage" and "infoPage", which are empty where there is no
    /// page.
    QVariantList methods() const { return m_methods; }
    /// Objects with "uid", "login" and "name". A lock screen has one user.
    QVariantList users() const { return m_users; }
    bool isGreeter() const { return m_lockedUid == 0; }
    /// The current attempt; null for none.
    LoginAttempt *attempt() const { return m_attempt; }

    /// Finds out whether the service answers.
    Q_INVOKABLE void probe();
    /// Replaces the current attempt.
    Q_INVOKABLE void begin(uint uid, const QString &user, const QString &method);
    /// Ends the current attempt.
    Q_INVOKABLE void end();

Q_SIGNALS:
    void changed();
    void isAnsweringChanged();
    void attemptChanged();
    void authenticated(uint uid, const QString &method);

private:
    void setServicePresent(bool isPresent);
    void setAnswering(bool isAnswering);
    /// Calls `handle` with the reply, unless the service goes away before.
    template <typename Reply, typename Handler>
    void whenReplied(const Reply &call, Handler handle);
    /// Adds those of the methods that can be offered, then the users.
    void addMethods(QStringList names);
    /// Adds those of the accounts that are users. Then the screen is ready.
    void addUsers(QList<Account> accounts);
    QString page(const QVariant &name) const;
    void replaceAttempt(LoginAttempt *attempt);

    const QString m_pages;
    const uint m_lockedUid;
    AuthServiceInterface m_service;
    QDBusServiceWatcher m_watcher;
    QScopedPointer<QObject> m_fetch; ///< Owns the calls to which the service that is present has not replied.
    bool m_isServicePresent = false;
    bool m_isAnswering = true;
    bool m_isProbing = false;
    bool m_isReady = false;
    QVariantList m_methods;
    QVariantList m_users;
    LoginAttempt *m_attempt = nullptr;
};
