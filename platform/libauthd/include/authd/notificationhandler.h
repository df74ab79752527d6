// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <authd/authdexport.h>

#include <QMap>
#include <QString>
#include <QVariant>

/// The notifications that methods send to the daemon. The daemon implements this once and passes it to every method
/// (AuthPluginInterface::setNotificator). Each call names the method that makes it.
///
/// A method calls directly from its own code, on its own thread. An implementation must not call back into the method
/// from here unless the method is written for that.
class AUTHD_EXPORT NotificationHandler
{
public:
    NotificationHandler() = default;
    virtual ~NotificationHandler();

    /// The attempt in progress has succeeded.
    virtual void succeed(const QString &method) = 0;
    /// The attempt in progress has ended. It failed if `success` is false. `params` says why
    /// (LibAuthd::resultCodeParams) and what to ask the user next (LibAuthd::inputRequestParams).
    virtual void finish(const QString &method, bool success, const QMap<QString, QVariant> &params) = 0;
    /// The method needs input from the user to continue. `params` describes it (LibAuthd::inputRequestParams).
    virtual void inputRequested(const QString &method, const QMap<QString, QVariant> &params) = 0;
    /// The authentication of user `uid` must be restarted. `uid` is 0 when the method currently has no user.
    virtual void restartAuth(const QString &method, uint uid) = 0;
    /// Lock (`lock` true) or unlock user `uid` for `reason`. `duration` is in seconds; the largest value means until
    /// root unlocks the user.
    virtual void lockUser(const QString &method, uint uid, bool lock, const QString &reason, uint duration) = 0;
    /// Record `event` with `details` in the system's event journal at `level`.
    virtual void logEvent(const QString &method, const QString &level, const QString &event,
                          const QString &details) = 0;
    /// Option `option` of user `uid` (0: of the method as a whole) has the new value `value`. `computed` means that the
    /// method computes the value and does not store it.
    virtual void optionChanged(const QString &method, uint uid, const QString &option, const QVariant &value,
                               bool computed) = 0;

private:
    Q_DISABLE_COPY(NotificationHandler)
};
