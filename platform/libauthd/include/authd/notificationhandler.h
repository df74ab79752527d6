// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <authd/authdexport.h>

#include <QMap>
#include <QString>
#include <QVariant>

/// What methods tell the daemon. The daemon implements it once and hands it to every method
/// (AuthPluginInterface::setNotificator); each call names the method that makes it.
///
/// All calls arrive on the thread of the method, directly from the method's code, so an implementation must not call
/// back into the method from within one unless it is written for that.
class AUTHD_EXPORT NotificationHandler
{
public:
    NotificationHandler() = default;
    virtual ~NotificationHandler();

    /// The attempt in progress has succeeded.
    virtual void succeed(const QString &method) = 0;
    /// The attempt in progress has ended; `success` false means it failed. `params` says why
    /// (LibAuthd::resultCodeParams) and what to ask the user next (LibAuthd::inputRequestParams).
    virtual void finish(const QString &method, bool success, const QMap<QString, QVariant> &params) = 0;
    /// The method needs input from the user to go on; `params` describes it (LibAuthd::inputRequestParams).
    virtual void inputRequested(const QString &method, const QMap<QString, QVariant> &params) = 0;
    /// The authentication of user `uid` must start afresh; 0 when the method has no user at the moment.
    virtual void restartAuth(const QString &method, uint uid) = 0;
    /// Lock (`lock` true) or unlock user `uid` for `reason`. `duration` is in seconds; the largest value means
    /// until root unlocks the user.
    virtual void lockUser(const QString &method, uint uid, bool lock, const QString &reason, uint duration) = 0;
    /// Record `event` with `details` in the system's event journal at `level`.
    virtual void logEvent(const QString &method, const QString &level, const QString &event,
                          const QString &details) = 0;
    /// Option `option` of user `uid` (0: of the method as a whole) has the new value `value`. `computed` tells that the
    /// method computes the value itself and that it is not in the option store.
    virtual void optionChanged(const QString &method, uint uid, const QString &option, const QVariant &value,
                               bool computed) = 0;

private:
    Q_DISABLE_COPY(NotificationHandler)
};
