// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <QObject>
#include <QScopedPointer>
#include <QSocketNotifier>
#include <QString>
#include <QTimer>
#include <QVariant>

#include <systemd/sd-bus.h>

/// The daemon's own connection to the system bus. It takes messages in one by one and no faster than they are worked
/// on: what a caller sends in haste waits with that caller, where it keeps nobody else waiting, and not in the daemon.
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
    sd_bus *handle() const { return m_bus; }
    /// Takes the service's name. Waits some seconds for one that is about to give it up.
    Claim claim();
    /// Begins to take messages in.
    void start();
    /// What the bus said to the last failure.
    QString error() const { return m_error; }

    /// Sends a signal of the service to the connection `name` alone.
    void sendSignal(const QString &name, const QString &member, const QVariantList &arguments) const;

Q_SIGNALS:
    /// The bus has gone.
    void lost();

private:
    void work();
    void watch();

    sd_bus *m_bus = nullptr;
    QScopedPointer<QSocketNotifier> m_readable;
    QScopedPointer<QSocketNotifier> m_writable;
    bool m_isLost = false;
    QTimer m_timer;
    QString m_error;
};
