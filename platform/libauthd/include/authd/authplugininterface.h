// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <authd/authdexport.h>
#include <authd/authuipages.h>
#include <authd/basehandler.h>

#include <QtPlugin>

/// An authentication method, as the daemon sees it. The daemon loads one object per method from a Qt plugin and calls
/// it on its own thread; no call may block. The outcome of a request is reported later through succeed(), finish() or
/// inputRequested().
///
/// The order of the virtual functions is binary interface, see LibAuthd::BaseHandler.
class AUTHD_EXPORT AuthPluginInterface : public LibAuthd::BaseHandler
{
    Q_OBJECT

public:
    /// A method named `name`; its options are stored under that name.
    explicit AuthPluginInterface(QString name);
    ~AuthPluginInterface() override;

    /// Sets the daemon's handler, which must outlive this object or be replaced; null stops notifications.
    virtual void setNotificator(NotificationHandler *notificator);
    /// The method's screens. The object belongs to the method.
    virtual const AuthUiPages &pages() const = 0;
    /// What kinds of secret the method works with, as the daemon's method-type bits.
    virtual int types() const = 0;
    /// The name of result code `code`; a null string when there is no such code.
    virtual QString getErrorMessage(int code) const = 0;
    /// Whether the device may be handed to user `uid` by this method. The base says true.
    virtual bool canSwitchToUser(uint uid);
    /// Forgets the request in progress.
    virtual void reset() = 0;
    /// Starts authenticating user `uid` with what the user has entered: values by the method's own keys, among them the
    /// secret; empty when nothing has been entered yet.
    virtual void authenticate(uint uid, const QMap<QString, QVariant> &data) = 0;
    /// Whether the method can be offered to user `uid`.
    virtual bool isAvailable(uint uid) = 0;
    /// Changes the user's secret; false when the method cannot. The base cannot.
    virtual bool changeAuthData(uint uid, const QMap<QString, QVariant> &data);
    /// The session of user `uid` has started or stopped. `manageClient` false: only what the method keeps about the
    /// session is to be refreshed, programs that run for the user are left alone.
    virtual void handleUserSessionTriggered(uint uid, bool started, bool manageClient) = 0;
    /// User `uid` has been locked or unlocked, for the `reason` and the `duration` (in seconds) that lockUser() takes.
    /// The base does nothing.
    virtual void handleUserLocked(uint uid, bool locked, const QString &reason, uint duration);
    /// The system time has moved by `seconds`. The base does nothing.
    virtual void handleTimeSettingsChanged(long seconds);
    /// The method has been switched on or off for user `uid`. The base does nothing.
    virtual void handleSetEnabled(uint uid, bool enabled);
    /// Whether user `uid` has a secret with this method. The base says true.
    virtual bool hasAuthData(uint uid) const;
    /// The secret in what the user has entered; a null string when there is none.
    virtual QString getAuthData(const QMap<QString, QVariant> &data) = 0;
    /// Counts a failed attempt of user `uid`; returns the method's result code for it.
    virtual int increaseAttempts(uint uid) = 0;
    /// How many failed attempts the method allows; 0 means no limit, which the base says.
    virtual int getMaxAttempts();
    /// How many attempts user `uid` has left; not above 0 when they are used up.
    virtual int getAttempts(uint uid) = 0;
    /// Forgets the failed attempts of user `uid`.
    virtual void resetAttempts(uint uid) = 0;
    /// Whether user `uid` must change the secret at the next opportunity. The base says false.
    virtual bool needChangeNextTime(uint uid);
    /// Whether user `uid` has chosen this method. The base says false.
    virtual bool wasChosen(uint uid) const;
    /// Whether what the method relies on works for user `uid`. The base says true.
    virtual bool checkBackend(uint uid);
    /// The device's main screen has appeared or gone. The base does nothing.
    virtual void onMainPageVisibleChanged();

    /// Reports that the attempt in progress has succeeded.
    void succeed();
    /// Reports that the attempt in progress has ended, see NotificationHandler::finish().
    void finish(bool success, const QMap<QString, QVariant> &params);
    /// Asks for input from the user, see NotificationHandler::inputRequested().
    void inputRequested(const QMap<QString, QVariant> &params);
    /// Asks the daemon to start the authentication of user `uid` afresh.
    void restartAuth(uint uid);
    /// Asks the daemon to lock or unlock user `uid`, see NotificationHandler::lockUser().
    void lockUser(uint uid, bool lock, const QString &reason, uint duration);

private:
    Q_DISABLE_COPY(AuthPluginInterface)
};

Q_DECLARE_INTERFACE(AuthPluginInterface, "qarv.authplugin")
