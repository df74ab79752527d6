// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include "event.h"
#include "model.h"
#include "peer.h"

#include "support/recordingdaemon.h"

#include <QPair>
#include <QPointer>
#include <QTimer>
#include <QVector>

#include <memory>

class MethodKavet;
class MethodKavetPrivate;
class QSocketNotifier;

namespace Sequences {

/// The real private object on the real paths, with a small program in place of the launcher, and the other ends of its
/// links in other processes.
class System
{
public:
    /// Prepares the device and creates the method.
    System(const Setup &setup, Peer &peer);
    ~System();

    /// Call once before creating the first object.
    static void prepareDevice();
    /// The program that acts as the users' clients; valid once the device is prepared.
    static const QString peerProgram;

    /// The differences between the new object and the model; empty if there are none.
    QString compareStart();
    /// Performs `event`. Returns the differences to all results that the model allows; empty if there are none.
    QString perform(const Event &event);
    /// The state that the method is in, according to the model.
    const World &world() const { return m_model.worlds().first(); }
    /// Takes down a line of the method's log.
    static void log(const QString &line);

private:
    void start();
    void act(const Event &event, const World &before);
    void runWatcher();
    void awaitLaunches();
    void readLaunches();
    void awaitWipes(int wipes);
    void startOver(uint user);
    QString settle();
    QString awaitAgreement(bool isOver);
    void holdProcess();
    void releaseProcess(bool overtakes);
    void handleProcess();
    QString differences(bool isOver);
    QString broken();
    void readCalls();
    void lookForSocket();
    static QStringList files();
    Observation observation(bool withOptions);

    void putManifest(int manifest);
    void plantFile(const QString &path, int plant, uint planter, uint other);
    void plantSocket(int choice, uint owner, int peer);
    void writePackagedPolicy(const QString &value);
    void setLauncher(int launcher);
    void setClientDirectoryAway(bool away);
    void setSharedBlocked(bool blocked);
    static void setGroup(int group);
    static void setPartitionLocked(bool locked);

    /// A request.
    struct Attempt
    {
        uint user = 0;
        QString answer; ///< The client's reply.
        int turn = -1;
    };

    Peer &m_peer;
    Model m_model;
    QVector<World> m_agreeing; ///< Of the model's states, at the last comparison.
    RecordingDaemon m_daemon;
    std::unique_ptr<MethodKavet> m_method;
    MethodKavetPrivate *m_private = nullptr;
    QSocketNotifier *m_watcherNotifier = nullptr;
    QTimer m_tick;
    QVector<QPointer<QSocketNotifier>> m_heldNotifiers; ///< Of the process, which reports nothing meanwhile.
    bool m_hasReported = false;
    bool m_isWatcherDelayed = false;

    bool m_manifestIsLink;
    int m_launcher = -1;
    bool m_clientDirectoryAway = false;
    bool m_sharedBlocked = false;
    bool m_sharedSetAside = false;
    int m_started = 0;
    QStringList m_launches;
    pid_t m_pid = 0;
    QByteArray m_launchBuffer;
    QString m_returned;
    int m_policyNumber = 0;

    // State for checking invariants, independent of the model.
    int m_launchesSinceReset = 0;
    bool m_rightOwnerSeen = false; ///< Since the last launch.
    bool m_rightOwnerSeenBefore = false; ///< At the start of the event, because the event may include a launch.
    int m_callsChecked = 0;
    int m_outcomesChecked = 0;
    QMap<QString, Attempt> m_attempts; ///< By credential.
    QStringList m_sent; ///< Credentials that have reached a client.
    uint m_user = 0; ///< The user of the present turn. A reset or another user's request ends the turn.
    int m_turn = 0;
    int m_outcomesDue = 0; ///< The requests of this turn that still may have an outcome.
    QString m_broken; ///< The first violated invariant; empty if there is none.
    QVector<QPair<QString, QString>> m_outside; ///< The targets of planted files and their original attributes.

    int m_callsRead = 0;
    QStringList m_journal; ///< Calls to the daemon and log lines since the last event that was not hurried.
    bool m_isHurried = false;
};

} // namespace Sequences
