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

/// The real private object on the real paths, with a small program in the launcher's place, and the other ends of its
/// links in a thread of this process.
class System
{
public:
    /// What the method tells of nothing but its log.
    struct Logged
    {
        std::atomic<int> repliesDropped{0};
        std::atomic<int> filesRefused{0};
    };

    /// Lays out the device and makes the method.
    System(const Setup &setup, Peer &peer, const Logged &logged);
    ~System();

    /// To be called once before the first object is made.
    static void prepareDevice();
    /// The program of the clients' other ends, once the device is prepared.
    static const QString peerProgram;

    /// Has `event` happen, where the model was in state `before` and is expected in state `after`. Returns in what the
    /// two differ, an empty text when they agree.
    QString perform(const Event &event, const Model &before, const Model &after);
    /// In what the new object differs from the model's.
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

    /// A request that has been made.
    struct Attempt
    {
        uint user = 0;
        QString answer; ///< What the client says to it.
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

    // For what must never be, whatever the model says.
    int m_launchesSinceReset = 0;
    bool m_rightOwnerSeen = false; ///< Since the last launch.
    bool m_rightOwnerSeenBefore = false; ///< At the start of the event; what it led to may include a launch.
    int m_callsChecked = 0;
    int m_outcomesChecked = 0;
    QMap<QString, Attempt> m_attempts; ///< By credential.
    QStringList m_sent; ///< Credentials that have reached a client.
    uint m_user = 0; ///< Whose turn it is, which ends with a reset or another user's request.
    int m_turn = 0;
    int m_outcomesDue = 0; ///< Requests of this turn that can still have one.
    QString m_broken; ///< By what has been checked so far.
    QVector<QPair<QString, QString>> m_outside; ///< Planted files' targets and what they must stay.

    int m_toldRead = 0;
    QStringList m_told;
    QStringList m_certsTold;
    QMap<QPair<uint, QString>, QStringList> m_optionsTold;
};

} // namespace Sequences
