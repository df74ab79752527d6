// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <authd/authplugininterface.h>

#include <QScopedPointer>

class MethodKavetPrivate;

/// The method "kavet" as the daemon sees it: authentication with a certificate on a token or with a password, checked
/// by a client application that runs as the user in a sandbox. AuthPluginInterface documents the operations; the
/// comments here say what this method does in each.
class MethodKavet : public AuthPluginInterface
{
    Q_OBJECT
    Q_PLUGIN_METADATA(IID "qarv.auth.kavet" FILE "kavet.json")
    Q_INTERFACES(AuthPluginInterface)

public:
    MethodKavet();
    ~MethodKavet() override;

    /// "kavet".
    QString name() const override;
    /// Method-wide: "certs" (string list, empty) and "max-attempts" (int, 0: no limit). Per user: "delayed-deletion"
    /// (bool, false) and "attempts" (int, 0). All users share the returned object, which lives as long as the library.
    const QMap<QString, QVariant> &defaultOptions(unsigned int uid) override;
    /// For user 0 the result of MethodKavetPrivate::getCertList(), for any `name`; for other users an invalid variant.
    QVariant getOption(unsigned int uid, const QString &name) override;
    /// Callers may write only the option "max-attempts", and only as root.
    const ValidationScope &getOptionsValidations(unsigned int uid) override;
    const AuthUiPages &pages() const override;
    int types() const override;
    /// The name of the SettingsKavet::ResultCode `code`.
    QString getErrorMessage(int code) const override;
    /// Forgets the request and its user, and restores the full launch budget. The client keeps running.
    void reset() override;
    /// Starts authenticating user `uid`, or restarts it with new data. Reads "password", or "cert" and "pin".
    void authenticate(unsigned int uid, const QMap<QString, QVariant> &data) override;
    /// Whether the client's command exists and is executable. Always true for a manifest that is a link, since its
    /// target may appear later. The same for all users.
    bool isAvailable(unsigned int uid) override;
    void handleUserSessionTriggered(unsigned int uid, bool started, bool manageClient) override;
    /// The value of "password"; without one, that of "pin" if there is also a "cert"; else a null string.
    QString getAuthData(const QMap<QString, QVariant> &data) override;
    /// Counts a failed attempt and returns SettingsKavet::BadPassword. At the limit it returns
    /// SettingsKavet::TooManyAttempts, logs the event, resets the count, locks the user and marks the user's data for
    /// removal. The count is the value that getOption() returns.
    int increaseAttempts(unsigned int uid) override;
    /// The number of attempts left, which may be negative; 1 if there is no limit.
    int getAttempts(unsigned int uid) override;
    void resetAttempts(unsigned int uid) override;

private:
    const QScopedPointer<MethodKavetPrivate> d;

    Q_DISABLE_COPY(MethodKavet)
};
