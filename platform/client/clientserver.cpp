// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#include "clientserver.h"

#include <QDBusConnection>
#include <QDBusError>
#include <QDBusServer>
#include <QFile>

#include <cerrno>
#include <cstdio>

#include <sys/stat.h>

namespace {

const QString socketPath = QStringLiteral("/run/aux-auth/tarsk/kavet_client/kavet.socket");
const QString temporaryPath = socketPath + QStringLiteral(".new");
const QString objectPath = QStringLiteral("/kavetauth");

/// More than anybody needs, and few enough to leave file descriptors for the client's own work.
constexpr int maximumPeers = 256;

/// When to show the socket again to a plugin that has not taken notice, in milliseconds; each time twice as late.
constexpr int firstAnnouncement = 100;
constexpr int lastAnnouncement = 60000;

/// 0 when there is no such file.
quint64 inode(const QString &path)
{
    struct stat status = {};
    return lstat(QFile::encodeName(path).constData(), &status) == 0 ? status.st_ino : 0;
}

} // namespace

ClientServer::ClientServer(QObject *served)
    : m_served(served)
{
}

ClientServer::~ClientServer()
{
    if (m_inode != 0 && inode(socketPath) == m_inode)
        QFile::remove(socketPath);
    delete m_server;
    for (const QString &peer : qAsConst(m_peers))
        QDBusConnection::disconnectFromPeer(peer);
}

QString ClientServer::listen()
{
    // Made under another name first, so that nobody meets a socket that is not listened on or open to others.
    const QByteArray from = QFile::encodeName(temporaryPath);
    const QByteArray to = QFile::encodeName(socketPath);
    QFile::remove(temporaryPath);
    m_server = new QDBusServer(QStringLiteral("unix:path=") + temporaryPath, this);
    if (!m_server->isConnected())
        return m_server->lastError().message();
    connect(m_server, &QDBusServer::newConnection, this, &ClientServer::accept);
    m_inode = inode(temporaryPath);
    if (chmod(from.constData(), S_IRUSR | S_IWUSR) != 0 || std::rename(from.constData(), to.constData()) != 0) {
        QString message = qt_error_string(errno);
        QFile::remove(temporaryPath);
        return message;
    }
    m_interval = firstAnnouncement;
    m_announcement.start(m_interval, this);
    return {};
}

// The plugin looks at the socket when something in its directory changes, and only once it knows that the client runs.
// A client that starts faster than the plugin learns of it would never be connected to.
void ClientServer::timerEvent(QTimerEvent *)
{
    if (inode(socketPath) == m_inode)
        chmod(QFile::encodeName(socketPath).constData(), S_IRUSR | S_IWUSR);
    m_interval *= 2;
    if (m_interval <= lastAnnouncement)
        m_announcement.start(m_interval, this);
    else
        m_announcement.stop();
}

void ClientServer::accept(QDBusConnection connection)
{
    if (m_peers.size() >= maximumPeers) {
        QDBusConnection::disconnectFromPeer(connection.name());
        return;
    }
    m_announcement.stop();
    m_peers << connection.name();
    connection.registerObject(objectPath, m_served);
    connection.connect(QString(), QStringLiteral("/org/freedesktop/DBus/Local"),
                       QStringLiteral("org.freedesktop.DBus.Local"), QStringLiteral("Disconnected"), this,
                       SLOT(forgetPeer()));
}

void ClientServer::forgetPeer()
{
    const QString peer = connection().name();
    m_peers.remove(peer);
    QDBusConnection::disconnectFromPeer(peer);
}
