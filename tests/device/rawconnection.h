// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include "support/testdevice.h"

#include <QFile>
#include <QtEndian>

#include <algorithm>
#include <cerrno>

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

/// A connection to the client's socket without a D-Bus library, closed on destruction.
class RawConnection
{
public:
    /// The handshake of a peer that does not wait for replies.
    static inline const QByteArray handshake = QByteArray("\0AUTH EXTERNAL 30\r\nBEGIN\r\n", 26);

    /// `flags` are more flags of socket(2).
    explicit RawConnection(int flags = 0)
        : m_descriptor(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | flags, 0))
    {
        struct sockaddr_un address = {};
        address.sun_family = AF_UNIX;
        const QByteArray path = QFile::encodeName(TestDevice::socketPath);
        memcpy(address.sun_path, path.constData(), size_t(path.size()));
        const struct timeval patience = {10, 0};
        setsockopt(m_descriptor, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof(patience));
        m_connected = connect(m_descriptor, reinterpret_cast<const struct sockaddr *>(&address), sizeof(address)) == 0;
    }
    ~RawConnection() { close(m_descriptor); }

    bool isConnected() const { return m_connected; }

    /// Sends bytes, with the `flags` of send(2); false if not all could be sent.
    bool send(const QByteArray &bytes, int flags = 0) const
    {
        return ::send(m_descriptor, bytes.constData(), size_t(bytes.size()), flags | MSG_NOSIGNAL) == bytes.size();
    }

    /// Sends bytes with as many file descriptors as the kernel passes in one message.
    bool sendDescriptors(const QByteArray &bytes) const
    {
        constexpr int count = 253;
        alignas(struct cmsghdr) char control[CMSG_SPACE(count * sizeof(int))] = {};
        struct iovec data = {const_cast<char *>(bytes.constData()), size_t(bytes.size())};
        struct msghdr message = {};
        message.msg_iov = &data;
        message.msg_iovlen = 1;
        message.msg_control = control;
        message.msg_controllen = sizeof(control);
        struct cmsghdr *header = CMSG_FIRSTHDR(&message);
        header->cmsg_level = SOL_SOCKET;
        header->cmsg_type = SCM_RIGHTS;
        header->cmsg_len = CMSG_LEN(count * sizeof(int));
        std::fill_n(reinterpret_cast<int *>(CMSG_DATA(header)), count, m_descriptor);
        return sendmsg(m_descriptor, &message, MSG_NOSIGNAL) == bytes.size();
    }

    /// Waits for data and returns it; empty if the peer has closed the connection or on timeout.
    QByteArray receive() const
    {
        QByteArray bytes(4096, '\0');
        const ssize_t size = recv(m_descriptor, bytes.data(), size_t(bytes.size()), 0);
        bytes.truncate(size < 0 ? 0 : int(size));
        return bytes;
    }

    /// Whether `text` arrives so many times, however it is split.
    bool receives(const QByteArray &text, int times = 1) const
    {
        QByteArray seen;
        while (seen.count(text) < times) {
            const QByteArray more = receive();
            if (more.isEmpty())
                return false;
            seen += more;
        }
        return true;
    }

    /// Reads all pending data and returns whether the peer has closed the connection.
    bool hasEnded() const
    {
        char byte = 0;
        ssize_t size = 0;
        do {
            size = recv(m_descriptor, &byte, 1, 0);
        } while (size == 1);
        return size == 0 || errno == ECONNRESET;
    }

    /// A method call with string arguments in wire format.
    static QByteArray call(const QByteArray &method, const QByteArrayList &arguments)
    {
        QByteArray body;
        for (const QByteArray &argument : arguments)
            appendText(body, argument);
        QByteArray fields;
        appendField(fields, 1, "o", "/kavetauth");
        appendField(fields, 2, "s", "tarsk.kavet_auth");
        appendField(fields, 3, "s", method);
        pad(fields, 8);
        fields += QByteArray("\x08\x01g\0", 4) + char(arguments.size()) + QByteArray(arguments.size(), 's') + '\0';
        QByteArray message("l\x01\0\x01", 4); // A call, in little-endian, of version 1.
        appendNumber(message, quint32(body.size()));
        appendNumber(message, 1);
        appendNumber(message, quint32(fields.size()));
        message += fields;
        pad(message, 8);
        return message + body;
    }

private:
    static void pad(QByteArray &bytes, int alignment)
    {
        while (bytes.size() % alignment != 0)
            bytes += '\0';
    }
    static void appendNumber(QByteArray &bytes, quint32 number)
    {
        pad(bytes, 4);
        number = qToLittleEndian(number);
        bytes.append(reinterpret_cast<const char *>(&number), int(sizeof(number)));
    }
    static void appendText(QByteArray &bytes, const QByteArray &text)
    {
        appendNumber(bytes, quint32(text.size()));
        bytes += text + '\0';
    }
    static void appendField(QByteArray &bytes, char code, const QByteArray &type, const QByteArray &value)
    {
        pad(bytes, 8);
        bytes += code + QByteArray(1, '\x01') + type + '\0';
        appendText(bytes, value);
    }

    const int m_descriptor;
    bool m_connected;

    Q_DISABLE_COPY(RawConnection)
};
