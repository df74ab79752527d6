// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <authd/authdexport.h>
#include <authd/authuipages.h>
#include <authd/basehandler.h>

#include <QtPlugin>

/// An authentication method, as the daemon sees it. The daemon loads one object per method from a Qt plugin and calls
/// it on its own thread. No call may block. A method reports the outcome of a request later, through succeed(),
/// finish() or inputRequested().
///
/// The order of the virtual functions is part of the binary interface, see LibAuthd::BaseHandler.
class AUTHD_EXPORT AuthPluginInterface : public LibAuthd::BaseHandler
{
    Q_OBJECT

public:
    /// Creates a method named `name`. Its options are stored under that name.
    explicit AuthPluginInterface(QString name);
    ~AuthPluginInterface() override;

    /// Sets the daemon's handler. It must outlive this object or be replaced. Null stops notifications.
    virtual void setNotificator(NotificationHandler *notificator);
    /// The method's screens. The method owns the object.
    virtual const AuthUiPages &pages() const = 0;
    /// The kinds of secret that the method accepts, as the daemon's method-type bits.
    virtual int types() const = 0;
    /// The name of result code `code`; a null string when there is no such code.
    virtual QString getErrorMessage(int code) const = 0;
    /// Whether this method allows switching the device to user `uid`. The base returns true.
    virtual bool canSwitchToUser(uint uid);
    /// Drops the request in progress.
    virtual void reset() = 0;
    /// Starts authenticating user `uid`. `data` is the user's input under the method's own keys, including the secret;
    /// it is empty if the user has not entered anything yet.
    virtual void authenticate(uint uid, const QMap<QString, QVariant> &data) = 0;
    /// Whether user `uid` can use the method.
    virtual bool isAvailable(uint uid) = 0;
    /// Changes the user's secret. Returns false when the method cannot, as the base does.
    virtual bool changeAuthData(uint uid, const QMap<QString, QVariant> &data);
    /// Called when a session of user `uid` has started or stopped. If `manageClient` is false, the method only
    /// refreshes its own record of the session and leaves the user's client alone.
    virtual void handleUserSessionTriggered(uint uid, bool started, bool manageClient) = 0;
    /// Called when user `uid` has been locked or unlocked, with the `reason` and the `duration` (in seconds) of
    /// lockUser(). The base does nothing.
    virtual void handleUserLocked(uint uid, bool locked, const QString &reason, uint duration);
    /// Called when the system time has moved by `seconds`. The base does nothing.
    virtual void handleTimeSettingsChanged(long seconds);
    /// Called when the method has been enabled or disabled for user `uid`. The base does nothing.
    virtual void handleSetEnabled(uint uid, bool enabled);
    /// Whether user `uid` has a secret for this method. The base returns true.
    virtual bool hasAuthData(uint uid) const;
    /// Returns the secret in the user's input, or a null string when there is none.
    virtual QString getAuthData(const QMap<QString, QVariant> &data) = 0;
    /// Counts a failed attempt of user `uid`. Returns the method's result code for it.
    virtual int increaseAttempts(uint uid) = 0;
    /// The number of failed attempts that the method allows. 0 means no limit, which the base returns.
    virtual int getMaxAttempts();
    /// The number of attempts that user `uid` has left; 0 or less when none are left.
    virtual int getAttempts(uint uid) = 0;
    /// Resets the count of failed attempts of user `uid`.
    virtual void resetAttempts(uint uid) = 0;
    /// Whether user `uid` must change the secret at the next opportunity. The base returns false.
    virtual bool needChangeNextTime(uint uid);
    /// Whether user `uid` has chosen this method. The base returns false.
    virtual bool wasChosen(uint uid) const;
    /// Whether the method's backend works for user `uid`. The base returns true.
    virtual bool checkBackend(uint uid);
    /// Called when the device's main screen has been shown or hidden. The base does nothing.
    virtual void onMainPageVisibleChanged();

    /// Reports that the attempt in progress has succeeded.
    void succeed();
    /// Reports that the attempt in progress has ended, see NotificationHandler::finish().
    void finish(bool success, const QMap<QString, QVariant> &params);
    /// Asks for input from the user, see NotificationHandler::inputRequested().
    void inputRequested(const QMap<QString, QVariant> &params);
    /// Asks the daemon to restart the authentication of user `uid`.
    void restartAuth(uint uid);
    /// Asks the daemon to lock or unlock user `uid`, see NotificationHandler::lockUser().
    void lockUser(uint uid, bool lock, const QString &reason, uint duration);

private:
    Q_DISABLE_COPY(AuthPluginInterface)
};

Q_DECLARE_INTERFACE(AuthPluginInterface, "qarv.authplugin")
