// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#include "clientserver.h"

#include "peer.h"

#include <QFile>

#include <algorithm>
#include <cerrno>
#include <cstdio>

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

constexpr char socketPath[] = "/run/aux-auth/tarsk/kavet_client/kavet.socket";
constexpr char temporaryPath[] = "/run/aux-auth/tarsk/kavet_client/kavet.socket.new";

/// More than any plugin needs, and few enough to leave file descriptors for other work.
constexpr int maximumPeers = 64;

/// Intervals at which to announce the socket to a plugin that has not connected yet, in milliseconds. The interval
/// doubles each time.
constexpr int firstAnnouncement = 100;
constexpr int lastAnnouncement = 60000;

/// Returns 0 when there is no such file.
quint64 inode(const char *path)
{
    struct stat status = {};
    return lstat(path, &status) == 0 ? status.st_ino : 0;
}

/// Binds and listens under a temporary name.
bool listenOn(int socket)
{
    struct sockaddr_un address = {};
    static_assert(sizeof(temporaryPath) <= sizeof(address.sun_path));
    address.sun_family = AF_UNIX;
    std::copy(std::begin(temporaryPath), std::end(temporaryPath), address.sun_path);
    unlink(temporaryPath);
    return bind(socket, reinterpret_cast<const struct sockaddr *>(&address), sizeof(address)) == 0
           && chmod(temporaryPath, S_IRUSR | S_IWUSR) == 0 && ::listen(socket, SOMAXCONN) == 0;
}

bool isAllowed(int socket)
{
    struct ucred peer = {};
    socklen_t size = sizeof(peer);
    return getsockopt(socket, SOL_SOCKET, SO_PEERCRED, &peer, &size) == 0 && (peer.uid == 0 || peer.uid == getuid());
}

} // namespace

ClientServer::ClientServer(KavetAuth &auth)
    : m_auth(auth)
{
}

ClientServer::~ClientServer()
{
    if (inode(socketPath) == m_inode)
        unlink(socketPath);
}

QString ClientServer::listen()
{
    m_socket = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (m_socket == -1 || !listenOn(m_socket))
        return qt_error_string(errno);
    m_inode = inode(temporaryPath);
    // Rename last, so that the socket appears only once it is listening and its mode is set.
    if (std::rename(temporaryPath, socketPath) != 0) {
        QString message = qt_error_string(errno);
        unlink(temporaryPath);
        return message;
    }
    m_notifier = std::make_unique<QSocketNotifier>(m_socket, QSocketNotifier::Read);
    connect(m_notifier.get(), &QSocketNotifier::activated, this, &ClientServer::accept);
    m_interval = firstAnnouncement;
    m_announcement.start(m_interval, this);
    return {};
}

// The plugin checks for the socket when its directory changes, but only after it has learned that the client is
// running. If the client is faster than that, the plugin misses the change. Repeat the change until the plugin
// connects.
void ClientServer::timerEvent(QTimerEvent *)
{
    if (inode(socketPath) == m_inode)
        chmod(socketPath, S_IRUSR | S_IWUSR);
    m_interval *= 2;
    if (m_interval <= lastAnnouncement)
        m_announcement.start(m_interval, this);
    else
        m_announcement.stop();
}

void ClientServer::accept()
{
    const int socket = accept4(m_socket, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
    if (socket == -1)
        return;
    if (!isAllowed(socket) || !makeRoom()) {
        close(socket);
        return;
    }
    m_announcement.stop();
    auto *peer = new Peer(socket, m_auth, this);
    m_peers << peer;
    connect(peer, &Peer::gone, this, [this, peer] { drop(peer); });
    if (!peer->start())
        drop(peer);
}

bool ClientServer::makeRoom()
{
    if (m_peers.size() < maximumPeers)
        return true;
    // A peer that has not completed its handshake makes room for a new one.
    const auto silent =
        std::find_if(m_peers.cbegin(), m_peers.cend(), [](const Peer *peer) { return !peer->isReady(); });
    if (silent == m_peers.cend())
        return false;
    drop(*silent);
    return true;
}

void ClientServer::drop(Peer *peer)
{
    if (m_peers.removeOne(peer))
        peer->deleteLater();
}
