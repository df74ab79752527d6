// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#include "auth/linkguard.h"

#include "plugin/logging.h"
#include "settings/constants.h"

#include <QFile>
#include <QTemporaryDir>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

constexpr int maximumWaiting = 1024 * 1024; ///< Bytes that one side may leave unread.
constexpr int maximumReceived = 1024 * 1024; ///< Bytes that the client may send for one request.
constexpr int maximumHandshake = 4 * 1024; ///< Bytes that the client may send before the first message.
constexpr int chunkSize = 64 * 1024; ///< Bytes to copy before control returns to the event loop.
const QString listenerDirectory = QStringLiteral("/run/kavet-XXXXXX");
const QString listenerName = QStringLiteral("/link");
constexpr char handshakeEnd[] = "BEGIN\r\n"; ///< Sent by the library; messages follow it.

int makeSocket()
{
    return socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
}

sockaddr_un socketAddress(const QByteArray &path)
{
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, path.constData(), sizeof address.sun_path - 1);
    return address;
}

/// The credentials of the peer: of the process that connected if this side accepted, else of the process that listens.
ucred peerCredentials(int descriptor)
{
    ucred credentials = {-1, uid_t(-1), gid_t(-1)};
    socklen_t size = sizeof credentials;
    getsockopt(descriptor, SOL_SOCKET, SO_PEERCRED, &credentials, &size);
    return credentials;
}

/// Overwrites and clears `bytes`, which may hold a secret.
void wipe(QByteArray &bytes)
{
    // What has been sent remains behind the end.
    explicit_bzero(bytes.data(), size_t(bytes.capacity()));
    bytes.clear();
}

/// Appends to `bytes`, which may hold a secret. Overwrites the memory that they outgrow.
void append(QByteArray &bytes, const char *more, int size)
{
    QByteArray outgrown;
    if (bytes.size() + size > bytes.capacity()) {
        bytes.swap(outgrown);
        bytes.reserve(2 * (outgrown.size() + size));
        bytes.append(outgrown.constData(), outgrown.size());
    }
    bytes.append(more, size);
    wipe(outgrown);
}

} // namespace

// Listens from the start: later, a user could prevent it by filling the file system.
LinkGuard::LinkGuard()
{
    listen();
}

LinkGuard::~LinkGuard()
{
    end();
}

// QTemporaryDir deletes the socket's name at once. Only an O_PATH descriptor of it remains. The path to that descriptor
// leads through this process's directory in /proc, to which others have no access.
bool LinkGuard::listen()
{
    if (m_name.isValid())
        return true;

    const QTemporaryDir directory(listenerDirectory);
    if (!directory.isValid())
        return false;
    const QByteArray path = QFile::encodeName(directory.path() + listenerName);
    const sockaddr_un address = socketAddress(path);
    m_listener.reset(makeSocket());
    if (bind(m_listener.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address) == -1
        || ::listen(m_listener.get(), 1) == -1)
        return false;
    m_name.reset(open(path.constData(), O_PATH | O_CLOEXEC));
    return m_name.isValid();
}

bool LinkGuard::connectToClient(const QString &path, uid_t uid)
{
    close();
    if (!listen())
        return fail(errno);
    // Discard pending connections: one that the library has given up, or one of root's, must not be accepted in place
    // of the library's next connection.
    while (Descriptor(accept4(m_listener.get(), nullptr, nullptr, SOCK_CLOEXEC)).isValid()) { }

    // connect() would follow a symbolic link in a path. On a descriptor of the link itself it fails.
    const Descriptor name(open(QFile::encodeName(path).constData(), O_PATH | O_NOFOLLOW | O_CLOEXEC));
    if (!name.isValid())
        return fail(errno);
    m_client.reset(makeSocket());
    const sockaddr_un address = socketAddress(pathOf(name.get()));
    if (::connect(m_client.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address) == -1)
        return fail(errno);
    const uid_t peer = peerCredentials(m_client.get()).uid;
    return peer == uid || peer == 0 || fail(EPERM);
}

QString LinkGuard::address() const
{
    return QStringLiteral("unix:path=") + QString::fromLatin1(pathOf(m_name.get()));
}

bool LinkGuard::acceptLibrary()
{
    m_library.reset(accept4(m_listener.get(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC));
    if (!m_library.isValid())
        return fail(errno);
    if (peerCredentials(m_library.get()).pid != getpid())
        return fail(EPERM);

    m_handshakeOver = false;
    m_lastByte = 0;
    m_received = 0;
    m_messages.reset();
    start(m_toClient, m_library, m_client);
    start(m_toLibrary, m_client, m_library);
    return true;
}

void LinkGuard::allowReply()
{
    m_received = 0;
    m_messages.allowReply();
}

void LinkGuard::close()
{
    ++m_link;
    end();
}

bool LinkGuard::fail(int error)
{
    end();
    m_errorString = QString::fromLocal8Bit(std::strerror(error));
    return false;
}

void LinkGuard::start(Flow &flow, Descriptor &from, Descriptor &to)
{
    flow.readable.reset(new QSocketNotifier(from.get(), QSocketNotifier::Read));
    flow.writable.reset(new QSocketNotifier(to.get(), QSocketNotifier::Write));
    QSocketNotifier *const readable = flow.readable.data();
    QSocketNotifier *const writable = flow.writable.data();
    QObject::connect(readable, &QSocketNotifier::activated, readable,
                     [this, &flow, &from, &to] { read(flow, from, to); });
    QObject::connect(writable, &QSocketNotifier::activated, writable, [this, &flow, &to] { write(flow, to); });
}

void LinkGuard::read(Flow &flow, Descriptor &from, Descriptor &to)
{
    char chunk[chunkSize];
    const ssize_t size = recv(from.get(), chunk, sizeof chunk, 0);
    if (size == -1)
        return; // After an error, the next call reports the end.
    if (size == 0) {
        flow.ended = true;
        flow.readable->setEnabled(false);
    }
    if (&flow == &m_toLibrary && !admits(chunk, int(size)))
        return;
    append(flow.waiting, chunk, int(size));
    explicit_bzero(chunk, size_t(size));
    if (&flow == &m_toClient && !m_handshakeOver && flow.waiting.contains(handshakeEnd)) {
        m_handshakeOver = true;
        m_received = 0;
    }
    write(flow, to);
}

// Drops the link when the client's bytes must not be passed on.
bool LinkGuard::admits(const char *bytes, int size)
{
    m_received += size;
    if (!m_handshakeOver && m_received > maximumHandshake)
        drop("its handshake is too long");
    else if (!m_handshakeOver && hasMessageInHandshake(bytes, size))
        drop("it has sent a message during the handshake");
    else if (m_received > maximumReceived)
        drop("it has sent more than a reply needs");
    else if (m_handshakeOver && !m_messages.admits(bytes, size))
        drop("it has sent a message that is no valid reply");
    return isOpen();
}

// A message has to wait for the end of the handshake. If its beginning was passed on before, the library and the gate
// would not agree where the next one begins. No line of the handshake begins with a letter for a byte order.
bool LinkGuard::hasMessageInHandshake(const char *bytes, int size)
{
    for (const char *byte = bytes; byte < bytes + size; ++byte) {
        if (m_lastByte == '\n' && (*byte == 'l' || *byte == 'B'))
            return true;
        m_lastByte = *byte;
    }
    return false;
}

void LinkGuard::write(Flow &flow, Descriptor &to)
{
    if (!flow.waiting.isEmpty()) {
        const ssize_t size = send(to.get(), flow.waiting.constData(), size_t(flow.waiting.size()), MSG_NOSIGNAL);
        if (size == -1 && errno != EAGAIN) {
            end();
            return;
        }
        if (size == flow.waiting.size())
            wipe(flow.waiting);
        else
            flow.waiting.remove(0, int(std::max<ssize_t>(size, 0)));
        if (flow.waiting.size() > maximumWaiting) {
            drop(&flow == &m_toClient ? "it does not read its messages" : "its messages are not read fast enough");
            return;
        }
    }
    flow.writable->setEnabled(!flow.waiting.isEmpty());
    if (flow.ended && flow.waiting.isEmpty())
        end();
}

void LinkGuard::drop(const char *reason)
{
    qCWarning(kavet) << "Dropping the link to the client:" << reason;
    end();
}

void LinkGuard::end()
{
    for (Flow *flow : {&m_toClient, &m_toLibrary}) {
        for (auto *notifier : {&flow->readable, &flow->writable}) {
            if (*notifier)
                (*notifier)->setEnabled(false); // The descriptors are closed below, before it is deleted.
            notifier->reset();
        }
        wipe(flow->waiting);
        flow->ended = false;
    }
    m_client.reset();
    m_library.reset();
}
