// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <authd/factorsettingsbase.h>

#include <QStringList>

/// The method's settings for its screens: the available certificates, the limit of failed attempts, and one user's
/// count of them. It also defines the codes that method, daemon and screens exchange.
class Q_DECL_EXPORT SettingsKavet : public FactorSettingsBase
{
    Q_OBJECT
    Q_PROPERTY(QStringList certList READ certList NOTIFY certListChanged)
    Q_PROPERTY(bool certListIsUpdating READ certListIsUpdating NOTIFY certListIsUpdatingChanged)
    Q_PROPERTY(int maxAttempts READ maxAttempts NOTIFY maxAttemptsChanged)
    Q_PROPERTY(uint uid READ uid WRITE setUid NOTIFY uidChanged)
    Q_PROPERTY(int currentAttempts READ currentAttempts NOTIFY currentAttemptsChanged)

public:
    /// The input that the method asks for. The daemon receives the numbers as plain integers.
    enum InputRequest {
        EnterPasswordOrPinWithoutConnection = 0, ///< A password or PIN, although there is no connection to the client.
        Connecting = 1, ///< No input: the client could not be reached.
        EnterPasswordOrPin = 2 ///< A password, or a certificate and its PIN.
    };
    Q_ENUM(InputRequest)

    /// The outcome of an authentication step. The daemon receives the numbers as plain integers.
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

    /// Creates settings owned by `parent` and requests the certificate list.
    explicit SettingsKavet(QObject *parent);
    ~SettingsKavet() override;

    /// The last certificate list received; empty before the first one.
    QStringList certList() const;
    /// Whether a request for the certificate list is pending, so that certList() may be out of date.
    bool certListIsUpdating() const;
    /// The limit of failed attempts for all users; 0 for no limit.
    int maxAttempts() const;
    /// The number of failed attempts of user uid(); 0 if it is unknown.
    int currentAttempts() const;
    /// The user whose attempts currentAttempts() returns; 0 until setUid() is called.
    unsigned int uid() const;
    /// Sets the user whose attempts currentAttempts() returns.
    void setUid(unsigned int uid);

    /// Requests the certificate list again. certListIsUpdating() is true until it has arrived.
    Q_INVOKABLE void updateCertList();

    /// Sets the certificate list to `value`. Ignores a value that cannot be converted to a list of strings, and the
    /// list with the single element ".", which means that an update is pending.
    void updateCerts(const QVariant &value);

    /// Handles a change of `option` of user `uid` (0: of the whole method). Passes the value of "certs" to
    /// updateCerts(). Emits the signals for "max-attempts" and, if `uid` is uid(), for "attempts". Ignores `value` for
    /// both.
    void handleOptionChanged(unsigned int uid, const QString &option, const QVariant &value) override;

Q_SIGNALS:
    /// A certificate list has arrived, possibly without a change.
    void certListChanged();
    /// A certificate list has been requested or has arrived.
    void certListIsUpdatingChanged();
    /// The limit of failed attempts may have changed.
    void maxAttemptsChanged();
    /// The number of failed attempts of user uid() may have changed.
    void currentAttemptsChanged();
    /// setUid() has set another user.
    void uidChanged();

private:
    QStringList m_certList;
    bool m_certListIsUpdating = true;
    unsigned int m_uid = 0;
};
