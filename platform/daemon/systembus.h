// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <QDBusConnection>
#include <QObject>
#include <QString>

/// The daemon's own connection to the system bus.
class SystemBus : public QObject
{
    Q_OBJECT

public:
    enum Claim { Claimed, Taken, Refused };

    SystemBus() = default;
    ~SystemBus() override;

    /// Whether there is a connection now, after trying; a failure may be tried again.
    bool open();
    /// The connection, once it is open.
    QDBusConnection connection() const;
    /// Offers `object` with its adaptors as the service, and takes the service's name. Waits some seconds for one that
    /// is about to give it up.
    Claim claim(QObject *object);
    /// What the bus said to the last failure.
    QString error() const { return m_error; }

Q_SIGNALS:
    /// The bus has gone.
    void lost();

private:
    QString m_error;
};
