// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include "auth/messagegate.h"
#include "files/descriptor.h"

#include <QByteArray>
#include <QScopedPointer>
#include <QSocketNotifier>
#include <QString>

#include <sys/types.h>

/// A relay between the client's socket and the D-Bus library, because the library trusts its peer and the client cannot
/// be trusted. Opening a link never blocks. The guard checks the peer's user before it sends a byte, bounds the buffers
/// for unread data, and closes the link for both sides at once, even if somebody still refers to the library's
/// connection.
///
/// The guard connects to the client itself. The library connects to the guard's own socket, which no other process can
/// reach, and the guard copies bytes in both directions on the event loop. It passes no file descriptors.
class LinkGuard
{
public:
    /// Creates a guard without a link and starts to listen for the library.
    LinkGuard();
    /// Closes the link, if there is one.
    ~LinkGuard();

    /// Connects to the client's socket at `path`, which must not be a symbolic link. The process that serves it must
    /// run as user `uid` or as root. False on failure; errorString() says why.
    bool connectToClient(const QString &path, uid_t uid);
    /// The D-Bus address at which the library reaches the guard.
    QString address() const;
    /// Accepts the library's connection to address() and starts to copy bytes. False when there is none; the link is
    /// then closed.
    bool acceptLibrary();
    /// Allows the client to send the reply to one more request. The limits on what it sends start again.
    void allowReply();

    /// Whether the link is open. Either side may close it at any time. The guard closes it, with a warning, when the
    /// client exceeds a limit.
    bool isOpen() const { return m_toLibrary.readable; }
    /// Closes the link for both sides at once. The library may still deliver messages that it has already received.
    void close();
    /// Identifies the link. Every close() changes the number, so that the caller can recognise replies that came over
    /// an earlier link.
    quint64 link() const { return m_link; }
    /// Why connectToClient() failed.
    QString errorString() const { return m_errorString; }

private:
    /// The data that flow in one direction.
    struct Flow
    {
        QByteArray waiting; ///< Read from the sender, not yet written to the receiver.
        bool ended = false; ///< The sender has closed its side; the waiting data are still written.
        // Deleted later: a notifier's own signal may lead here.
        QScopedPointer<QSocketNotifier, QScopedPointerDeleteLater> readable;
        QScopedPointer<QSocketNotifier, QScopedPointerDeleteLater> writable;
    };

    bool listen();
    bool fail(int error);
    void start(Flow &flow, Descriptor &from, Descriptor &to);
    void read(Flow &flow, Descriptor &from, Descriptor &to);
    bool admits(const char *bytes, int size);
    bool hasMessageInHandshake(const char *bytes, int size);
    void write(Flow &flow, Descriptor &to);
    void drop(const char *reason);
    void end();

    Descriptor m_listener; ///< The library connects to it.
    Descriptor m_name; ///< The listener's deleted name, which can be reached only through this descriptor.
    Descriptor m_client;
    Descriptor m_library;
    Flow m_toClient;
    Flow m_toLibrary;
    bool m_handshakeOver = false;
    char m_lastByte = 0; ///< From the client during the handshake.
    int m_received = 0; ///< Bytes from the client during the handshake or, after it, since the last request.
    MessageGate m_messages; ///< Checks the client's messages.
    quint64 m_link = 0;
    QString m_errorString;

    Q_DISABLE_COPY(LinkGuard)
};
