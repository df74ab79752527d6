// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <QBasicTimer>
#include <QObject>
#include <QSocketNotifier>
#include <QVector>

#include <memory>

class KavetAuth;
class Peer;

/// Serves D-Bus peers on the client's socket. Only root and the user that the client runs as get through: the socket's
/// mode lets nobody else connect, and the server looks at the credentials that the kernel has of each peer.
class ClientServer : public QObject
{
    Q_OBJECT

public:
    /// `auth` is what peers call; it must outlive the server.
    explicit ClientServer(KavetAuth &auth);
    /// Drops the peers and removes the socket, unless another client has put its own there.
    ~ClientServer() override;

    /// Opens the socket. Returns what went wrong, or an empty string.
    QString listen();

protected:
    void timerEvent(QTimerEvent *event) override;

private:
    void accept();
    /// Sees to it that one more peer may come; false when it may not.
    bool makeRoom();
    void drop(Peer *peer);

    KavetAuth &m_auth;
    int m_socket = -1;
    std::unique_ptr<QSocketNotifier> m_notifier;
    QVector<Peer *> m_peers; // The oldest first.
    quint64 m_inode = 0;
    QBasicTimer m_announcement;
    int m_interval = 0; // Milliseconds.
};
