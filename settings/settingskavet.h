// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <authd/factorsettingsbase.h>

#include <QStringList>

/// The method's settings as its screens see them: the certificates to choose from, the limit of failed attempts, and
/// how many of them one user has used up. Also the home of the codes that method, daemon and screens exchange.
class Q_DECL_EXPORT SettingsKavet : public FactorSettingsBase
{
    Q_OBJECT
    Q_PROPERTY(QStringList certList READ certList NOTIFY certListChanged)
    Q_PROPERTY(bool certListIsUpdating READ certListIsUpdating NOTIFY certListIsUpdatingChanged)
    Q_PROPERTY(int maxAttempts READ maxAttempts NOTIFY maxAttemptsChanged)
    Q_PROPERTY(uint uid READ uid WRITE setUid NOTIFY uidChanged)
    Q_PROPERTY(int currentAttempts READ currentAttempts NOTIFY currentAttemptsChanged)

public:
    /// What the method asks the user for. The numbers travel to the daemon as plain integers.
    enum InputRequest {
        EnterPasswordOrPinWithoutConnection = 0, ///< A password or PIN, while the client cannot be reached yet.
        Connecting = 1, ///< Nothing: the client could not be reached.
        EnterPasswordOrPin = 2 ///< A password, or a certificate and its PIN.
    };
    Q_ENUM(InputRequest)

    /// Outcome of an authentication step. The numbers travel to the daemon as plain integers.
    enum ResultCode {
        Success = 0,
        BadPassword = 1,
        EncryptedPartitionLocked = 2,
        CannotStartClient = 3,
        CannotConnectClient = 4,
        CannotCommunicateClient = 5,
        UserLocked = 6,
        TooManyAttempts = 7,
        TooManyAttemptsWithoutDeleted = 8,
        NoUsbDevice = 9,
        ConnectionError = 10,
        AuthFailed = 11,
        BadDefaultCert = 12,
        UserCannotUnlock = 13,
        ErrAuthType = 14
    };
    Q_ENUM(ResultCode)

    /// Settings owned by `parent`; asks for the certificate list at once.
    explicit SettingsKavet(QObject *parent);
    ~SettingsKavet() override;

    /// The certificates last known; empty until the first list has arrived.
    QStringList certList() const;
    /// Whether a certificate list is being fetched, so that certList() is not current yet.
    bool certListIsUpdating() const;
    /// The limit of failed attempts, the same for all users; 0 when there is none.
    int maxAttempts() const;
    /// The failed attempts of the user uid(); 0 when none are known.
    int currentAttempts() const;
    /// The user whom currentAttempts() reports on; 0 until one is set.
    unsigned int uid() const;
    /// Sets the user whom currentAttempts() reports on.
    void setUid(unsigned int uid);

    /// Asks for the certificate list again. certListIsUpdating() is true until a list has arrived.
    Q_INVOKABLE void updateCertList();

    /// Takes `value` as the certificate list. A value that is no list of strings, or the list of a single "." that
    /// stands for one still being fetched, changes nothing.
    void updateCerts(const QVariant &value);

    /// Takes notice that `option` of user `uid` (0: of the method as a whole) has changed: takes "certs" as
    /// updateCerts() does, and tells of "max-attempts" and of "attempts" of the user uid() by their signals. `value` is
    /// looked at for "certs" alone.
    void handleOptionChanged(unsigned int uid, const QString &option, const QVariant &value) override;

Q_SIGNALS:
    /// A certificate list has arrived; it may be the same as before.
    void certListChanged();
    /// A certificate list has been asked for or has arrived.
    void certListIsUpdatingChanged();
    /// The limit of failed attempts may have changed.
    void maxAttemptsChanged();
    /// The failed attempts of the user uid() may have changed.
    void currentAttemptsChanged();
    /// Another user has been set.
    void uidChanged();

private:
    QStringList m_certList;
    bool m_certListIsUpdating = true;
    unsigned int m_uid = 0;
};
