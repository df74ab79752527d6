// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <QByteArray>
#include <QDBusMessage>
#include <QDBusVirtualObject>
#include <QMutex>
#include <QStringList>
#include <QThread>
#include <QVector>

#include <sys/types.h>

namespace Sequences {

/// The other ends of the private object's D-Bus links. Each user has a process that acts as the user's client,
/// independently of launches, so that the kernel reports the real listener. The wiper runs in a thread. Call all
/// functions from the main thread.
class Peer : public QDBusVirtualObject
{
public:
    /// A call to a client.
    struct Call
    {
        uint peer; ///< The user that the client runs as.
        QString method;
        QStringList arguments;

        /// As in the source.
        QString text() const;
        /// The user name and the credential; null for the list of certificates.
        QString user() const;
        QString credential() const;
    };

    /// Runs `program` as each user's client, and the wiper on the system bus.
    explicit Peer(const QString &program);
    ~Peer() override;

    /// Directory for the peers' sockets.
    static const QString directory;
    /// The socket of the client of `user`.
    static QString socketOf(uint user);

    /// The calls to the clients since forget().
    const QVector<Call> &calls();
    /// The users in calls to the wiper since forget().
    QStringList wipes() const;

    /// Closes all links.
    void drop();
    /// Closes all links and drops all held calls, when no caller waits for them any more.
    void closeAll();
    /// Closes all links and clears the recorded calls.
    void forget();
    /// Replies to the held call with `credential`, even if its link is closed.
    void reply(const QString &credential, const QString &answer);
    /// Replies to the last held certificate call.
    void replyCerts(int answer);
    void setCertsAnswer(int answer);
    void setWiper(int wiper);
    /// Replies to the first held wiper call.
    void replyWiper(bool success);

    QString introspect(const QString &path) const override;
    bool handleMessage(const QDBusMessage &message, const QDBusConnection &connection) override;

private:
    struct Process
    {
        uint user;
        pid_t pid;
        int commands;
    };

    template <typename Action>
    void inThread(const Action &action);
    void start(uint user, const QString &program);
    void command(const Process &process, const QStringList &words);
    void commandAll(const QStringList &words);
    const Process &processOf(uint user) const;

    QVector<Process> m_processes;
    int m_journal[2]; ///< Ends of the pipe.
    QByteArray m_unread;
    QVector<Call> m_calls;
    int m_certsAnswer = 0;

    QThread m_thread;
    QVector<QDBusMessage> m_heldWipes;
    int m_wiper = 0;
    mutable QMutex m_mutex;
    QStringList m_wipes;
};

} // namespace Sequences
