// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include "event.h"
#include "model.h"
#include "peer.h"

#include "support/recordingdaemon.h"

#include <QPair>
#include <QTimer>
#include <QVector>

#include <atomic>
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
    /// Facts that only the method's log shows.
    struct Logged
    {
        std::atomic<int> repliesDropped{0};
        std::atomic<int> filesRefused{0};
    };

    /// Prepares the device and creates the method.
    System(const Setup &setup, Peer &peer, const Logged &logged);
    ~System();

    /// Call once before creating the first object.
    static void prepareDevice();
    /// The program that acts as the users' clients; valid once the device is prepared.
    static const QString peerProgram;

    /// Performs `event` and compares the result with the model, which `event` takes from `before` to `after`. Returns
    /// the differences; empty if there are none.
    QString perform(const Event &event, const Model &before, const Model &after);
    /// The differences between the new object and the model.
    QString compareStart(const Model &model);

private:
    void start();
    void act(const Event &event, const Model &before);
    void runWatcher();
    void awaitLaunches();
    void readLaunches();
    void awaitWipes(int wipes);
    void awaitOutcome();
    void startOver(uint user);
    QString settle(const Model &model);
    QString differences(const Model &model, bool arrivals);
    QString broken();
    void lookForSocket();
    static QStringList files();
    Observation observation();
    Observation options();

    void putManifest(int manifest);
    void plantFile(const QString &path, int plant, uint planter, uint other);
    void plantSocket(int choice, uint owner, uint peer);
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
    const Logged &m_logged;
    RecordingDaemon m_daemon;
    std::unique_ptr<MethodKavet> m_method;
    MethodKavetPrivate *m_private = nullptr;
    QSocketNotifier *m_watcherNotifier = nullptr;
    QTimer m_tick;

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

    int m_toldRead = 0;
    QStringList m_told;
    QStringList m_certsTold;
    QMap<QPair<uint, QString>, QStringList> m_optionsTold;
};

} // namespace Sequences
