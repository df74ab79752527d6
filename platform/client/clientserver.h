// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <QBasicTimer>
#include <QDBusContext>
#include <QObject>
#include <QSet>

class QDBusConnection;
class QDBusServer;

/// Serves an object to D-Bus peers on the client's socket. Only root and the user that the client runs as get through:
/// the socket's mode lets nobody else connect, and the D-Bus library refuses them too.
class ClientServer : public QObject, protected QDBusContext
{
    Q_OBJECT

public:
    /// `served` is what peers find at the protocol's path; it must outlive the server.
    explicit ClientServer(QObject *served);
    /// Drops the peers and removes the socket, unless another client has put its own there.
    ~ClientServer() override;

    /// Opens the socket. Returns what went wrong, or an empty string.
    QString listen();

protected:
    void timerEvent(QTimerEvent *event) override;

private Q_SLOTS:
    void forgetPeer();

private:
    void accept(QDBusConnection connection);

    QObject *const m_served;
    QDBusServer *m_server = nullptr;
    QSet<QString> m_peers;
    quint64 m_inode = 0;
    QBasicTimer m_announcement;
    int m_interval = 0; // Milliseconds.
};
