// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <QBasicTimer>
#include <QObject>
#include <QSocketNotifier>

#include <systemd/sd-bus.h>

class KavetAuth;

/// A D-Bus connection to one peer, served on Qt's event loop. While a peer does not read its replies, no more calls are
/// read from it.
class Peer : public QObject
{
    Q_OBJECT

public:
    /// Takes ownership of a connected, non-blocking socket. The peer calls `auth`, which must outlive the object.
    Peer(int socket, KavetAuth &auth, QObject *parent);
    /// Closes the connection.
    ~Peer() override;

    /// Starts the handshake. Returns false when the connection cannot be served.
    bool start();
    /// Whether the handshake is complete.
    bool isReady() const { return m_handshake == -1; }

Q_SIGNALS:
    /// The peer has disconnected, violated the protocol, or taken too long for the handshake. It is not served any
    /// more.
    void gone();

protected:
    void timerEvent(QTimerEvent *event) override;

private:
    void receive();
    void shakeHands();
    /// Passes one line of the handshake to the library. Returns false when the peer is gone.
    bool passLine();
    /// Lets the library do one step, such as handling one call. Returns a positive number when there may be more to do
    /// at once, a negative one when the peer is gone.
    int process();
    /// Waits for the events that the library needs.
    void watch();
    void end();

    KavetAuth &m_auth;
    sd_bus *m_bus = nullptr;
    const int m_socket; // closed by the library, like m_input
    int m_input = -1;
    int m_handshake = -1; // write end of the pipe behind m_input; -1 once m_input is the socket
    int m_handshakeSize = 0;
    QByteArray m_handshakeLine;
    QSocketNotifier m_readable;
    QSocketNotifier m_writable;
    QBasicTimer m_timer;
};
