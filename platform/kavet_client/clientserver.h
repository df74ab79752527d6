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

/// Serves D-Bus peers on the client's socket. Accepts only root and the client's own user: the socket's mode keeps
/// others out, and the server checks the credentials that the kernel reports for each peer.
class ClientServer : public QObject
{
    Q_OBJECT

public:
    /// Peers call `auth`, which must outlive the server.
    explicit ClientServer(KavetAuth &auth);
    /// Disconnects all peers and removes the socket, unless another client has replaced it.
    ~ClientServer() override;

    /// Opens the socket. Returns an error message, or an empty string on success.
    QString listen();

protected:
    void timerEvent(QTimerEvent *event) override;

private:
    void accept();
    /// Makes room for another peer. Returns false when there is none.
    bool makeRoom();
    void drop(Peer *peer);

    KavetAuth &m_auth;
    int m_socket = -1; // open until the process ends
    std::unique_ptr<QSocketNotifier> m_notifier;
    QVector<Peer *> m_peers; // oldest first
    quint64 m_inode = 0;
    QBasicTimer m_announcement;
    int m_interval = 0; // milliseconds
};
