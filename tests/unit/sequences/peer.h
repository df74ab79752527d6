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

/// The other ends of the private object's D-Bus links. There is a process for each user that serves as the user's
/// client, whatever has been launched, so that the kernel tells the truth about who listens. The wiper is served in a
/// thread. All functions are called from the main thread.
class Peer : public QDBusVirtualObject
{
public:
    /// What a client has been called with.
    struct Call
    {
        uint peer; ///< The user that the client runs as.
        QString method;
        QStringList arguments;

        /// As in the source.
        QString text() const;
        /// User named and credential; null for the list of certificates.
        QString user() const;
        QString credential() const;
    };

    /// Serves clients, for which `program` is run as each user, and the wiper on the system bus.
    explicit Peer(const QString &program);
    ~Peer() override;

    /// Directory for the peers' sockets.
    static const QString directory;
    /// The socket at which the client of `user` is served.
    static QString socketOf(uint user);

    /// The calls to the clients since forget().
    const QVector<Call> &calls();
    /// Users that the wiper has been called for since forget().
    QStringList wipes() const;

    /// Closes all links.
    void drop();
    /// Closes all links, and gives up all that is held; for when nobody waits for it any more.
    void closeAll();
    /// Closes all links and forgets what has been called.
    void forget();
    /// Answers the call that has `credential` and is held, whether or not its link still stands.
    void reply(const QString &credential, const QString &answer);
    /// Answers the last certificate call that is held.
    void replyCerts(int answer);
    void setCertsAnswer(int answer);
    void setWiper(int wiper);
    /// Answers the first wiper call that is held.
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
