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

/// Stands between the client's socket and the D-Bus library, since the client is not to be trusted and the library
/// trusts its peers. Opening a link never waits, the peer's user is known before a byte is sent, what either side
/// leaves unread is bounded, and closing the link ends it for both sides at once, whoever still refers to the library's
/// connection.
///
/// The guard connects to the client itself. The library connects to a socket of the guard's, which no other process can
/// reach, and the guard carries the bytes both ways on the event loop. File descriptors do not pass.
class LinkGuard
{
public:
    /// A guard without a link, which listens for the library from now on.
    LinkGuard();
    /// Ends the link, if there is one, as close() does.
    ~LinkGuard();

    /// Connects to the client's socket, which must stand at `path` itself, not behind a link, and whose server must be
    /// a process of user `uid` or of root. False when that fails; errorString() says why.
    bool connectToClient(const QString &path, uid_t uid);
    /// The D-Bus address at which the library reaches the guard.
    QString address() const;
    /// Takes the connection that the library has made to address() and starts to carry bytes. False, with the link
    /// closed, when there is none.
    bool acceptLibrary();
    /// Allows the client to send the reply to one more request; without that it may not go on sending for ever.
    void allowReply();

    /// Whether bytes are carried. Both sides may end the link at any time; the guard ends it, with a warning, when a
    /// limit is exceeded.
    bool isOpen() const { return m_toLibrary.readable; }
    /// Ends the link for both sides at once. What has been carried before may still reach the library's user.
    void close();
    /// Identifies the link: changes with every close(), so that what came over a link that has been given up can be
    /// told from the rest.
    quint64 link() const { return m_link; }
    /// Why connectToClient() failed.
    QString errorString() const { return m_errorString; }

private:
    enum class End { Client, Library };
    /// What flows one way.
    struct Flow
    {
        QByteArray waiting; ///< Read from one side, not yet taken by the other.
        bool ended = false; ///< The sending side has closed; what is waiting still goes out.
        // Deleted later, as one of them may be the caller.
        QScopedPointer<QSocketNotifier, QScopedPointerDeleteLater> readable;
        QScopedPointer<QSocketNotifier, QScopedPointerDeleteLater> writable;
    };

    bool listen();
    bool fail(int error);
    void start(Flow &flow, Descriptor &from, Descriptor &to);
    void read(Flow &flow, Descriptor &from, Descriptor &to);
    bool admits(const char *bytes, int size);
    void write(Flow &flow, Descriptor &to);
    void drop(const char *reason);
    void end();

    Descriptor m_listener; ///< Where the library connects.
    Descriptor m_name; ///< Keeps the listener's name reachable through /proc, and only there.
    Descriptor m_client;
    Descriptor m_library;
    Flow m_toClient;
    Flow m_toLibrary;
    bool m_handshakeOver = false;
    int m_received = 0; ///< Bytes from the client in the handshake; after it, since the last request.
    MessageGate m_messages; ///< From the client.
    quint64 m_link = 0;
    QString m_errorString;

    Q_DISABLE_COPY(LinkGuard)
};
