// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <authd/authplugininterface.h>

#include <QScopedPointer>

class MethodKavetPrivate;

/// The method "kavet" as the daemon sees it: authentication with a certificate on a token or with a password, checked
/// by a client application that runs as the user in a sandbox. What each operation is for stands with
/// AuthPluginInterface; here is what this method makes of it.
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
    /// (bool, false) and "attempts" (int, 0). Each is one object, the same for all users and as long as the library.
    const QMap<QString, QVariant> &defaultOptions(unsigned int uid) override;
    /// For user 0 the certificate list, whatever `name` is, as MethodKavetPrivate::getCertList() answers it; for any
    /// other user an invalid variant.
    QVariant getOption(unsigned int uid, const QString &name) override;
    /// Nobody outside writes any option but "max-attempts", and that only root.
    const ValidationScope &getOptionsValidations(unsigned int uid) override;
    const AuthUiPages &pages() const override;
    int types() const override;
    /// The name of the SettingsKavet::ResultCode `code`.
    QString getErrorMessage(int code) const override;
    /// Forgets the request and its user and allows the full number of launches again. The client keeps running.
    void reset() override;
    /// Starts, or starts anew with the latest data, the authentication of user `uid`. Reads "password", or "cert" and
    /// "pin".
    void authenticate(unsigned int uid, const QMap<QString, QVariant> &data) override;
    /// Whether the client's command is there to be run; also while its manifest is a link, since what that leads to
    /// may appear later. The same for all users.
    bool isAvailable(unsigned int uid) override;
    void handleUserSessionTriggered(unsigned int uid, bool started, bool manageClient) override;
    /// "password", else "pin" when there is a "cert" too, else a null string.
    QString getAuthData(const QMap<QString, QVariant> &data) override;
    /// Counts a failed attempt. SettingsKavet::BadPassword, or SettingsKavet::TooManyAttempts when that reached the
    /// limit: then the event is logged, the count starts again, and the user is locked and marked for data removal.
    /// The count is the one that getOption() answers.
    int increaseAttempts(unsigned int uid) override;
    /// The attempts left of "max-attempts", which may be negative; 1 while there is no limit.
    int getAttempts(unsigned int uid) override;
    void resetAttempts(unsigned int uid) override;

private:
    const QScopedPointer<MethodKavetPrivate> d;

    Q_DISABLE_COPY(MethodKavet)
};
