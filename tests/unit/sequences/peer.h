// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <QDBusMessage>
#include <QDBusVirtualObject>
#include <QMutex>
#include <QStringList>
#include <QThread>
#include <QVector>

#include <atomic>

#include <sys/types.h>

class QDBusServer;

namespace Sequences {

/// The other ends of the private object's D-Bus links, the client's and the wiper's, in a thread of their own, since
/// making the link waits for them. All functions are called from the main thread.
class Peer : public QDBusVirtualObject
{
public:
    /// Serves clients at the socket `path` and the wiper on the system bus.
    explicit Peer(const QString &path);
    ~Peer() override;

    /// Process that a credential of "<die>" ends.
    std::atomic<pid_t> clientPid{0};
    std::atomic<int> certsAnswer{0};

    /// Names and arguments of the calls to the client since forget().
    QStringList calls() const;
    /// Users that the wiper has been called for since forget().
    QStringList wipes() const;

    /// Closes all links.
    void drop();
    /// Closes all links, and gives up all that is held; for when nobody waits for it any more.
    void closeAll();
    /// Closes all links and forgets what has been called.
    void forget();
    /// Answers the call that is held as number `index`.
    void reply(int index, const QString &answer);
    void replyCerts(int answer);
    void setWiper(int wiper);
    /// Answers the first wiper call that is held.
    void replyWiper(bool success);

    QString introspect(const QString &path) const override;
    bool handleMessage(const QDBusMessage &message, const QDBusConnection &connection) override;

private:
    struct Held
    {
        QDBusMessage message;
        QString connection;
    };

    template <typename Action>
    void inThread(const Action &action);
    bool handleCall(const QDBusMessage &message, const QDBusConnection &connection);
    void send(const Held &call, const QString &answer);
    void sendCerts(const Held &call, int answer);
    void closeLinks();

    QThread m_thread;
    QDBusServer *m_server = nullptr;
    QStringList m_links;
    QVector<Held> m_held;
    QVector<Held> m_heldCerts;
    QVector<QDBusMessage> m_heldWipes;
    int m_wiper = 0;
    mutable QMutex m_mutex;
    QStringList m_calls;
    QStringList m_wipes;
};

} // namespace Sequences
