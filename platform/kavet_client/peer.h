// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <QBasicTimer>
#include <QObject>
#include <QSocketNotifier>

#include <systemd/sd-bus.h>

class KavetAuth;

/// The D-Bus connection of one peer, served on Qt's event loop. A peer that does not read its replies is not read from.
class Peer : public QObject
{
    Q_OBJECT

public:
    /// Takes over a connected socket that does not block. `auth` is what the peer calls; it must outlive the object.
    Peer(int socket, KavetAuth &auth, QObject *parent);
    /// Closes the connection.
    ~Peer() override;

    /// Begins the handshake; false when the connection cannot be served.
    bool start();
    /// Whether the handshake is over.
    bool isReady() const { return m_handshake == -1; }

Q_SIGNALS:
    /// The peer has left, broken the protocol, or taken too long for the handshake. Nothing is served after that.
    void gone();

protected:
    void timerEvent(QTimerEvent *event) override;

private:
    void receive();
    void shakeHands();
    /// Has the library answer a line of the handshake. False when the peer is gone.
    bool passLine();
    /// One step of the library's, as reading and answering one call. Positive when there may be more to do at once,
    /// negative when the peer is gone.
    int process();
    /// Waits for what the library waits for.
    void watch();
    void end();

    KavetAuth &m_auth;
    sd_bus *m_bus = nullptr;
    const int m_socket; // Closed by the library, as is m_input.
    int m_input = -1;
    int m_handshake = -1; // The pipe's end from which m_input reads; -1 when m_input is the socket.
    int m_handshakeSize = 0;
    QByteArray m_handshakeLine;
    QSocketNotifier m_readable;
    QSocketNotifier m_writable;
    QBasicTimer m_timer;
};
