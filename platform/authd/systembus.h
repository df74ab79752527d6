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

/// The daemon's own connection to the system bus. It reads messages one by one, no faster than they are handled, so a
/// flood of calls does not queue up in the daemon. As refusing a call takes less time than the bus needs to deliver it,
/// the flood queues up at its sender, where it delays nobody else.
class SystemBus : public QObject
{
    Q_OBJECT

public:
    enum Claim { Claimed, Taken, Refused };

    SystemBus() = default;
    ~SystemBus() override;

    /// Connects to the bus. Returns false on failure; may be called again.
    bool open();
    /// The connection, after a successful open().
    sd_bus *handle() const { return m_bus; }
    /// Acquires the service's name. Waits a few seconds for a previous owner to release it.
    Claim claim();
    /// Starts to process messages.
    void start();
    /// The error message of the last failure.
    QString error() const { return m_error; }

    /// Sends a signal of the service to the connection `name` alone.
    void sendSignal(const QString &name, const QString &member, const QVariantList &arguments) const;

Q_SIGNALS:
    /// The connection to the bus was lost.
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
