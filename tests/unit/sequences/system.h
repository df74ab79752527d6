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
    /// Lays out the device and makes the method. `peer` serves at `servedSocket`.
    System(const Setup &setup, Peer &peer);
    ~System();

    /// To be called once before the first object is made.
    static void prepareDevice();
    static const QString servedSocket;

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
    void awaitCalls(int calls, int wipes);
    void awaitEndOfLink();
    QString settle(const Model &model);
    QString differences(const Model &model, bool arrivals);
    QString broken();
    void lookForSocket();
    Observation observation();
    Observation options();

    void putManifest(int manifest);
    void plantFile(const QString &path, int plant, uint other);
    void plantSocket(int choice, uint owner);
    void writePackagedPolicy(const QString &value);
    void setLauncher(int launcher);
    void setClientDirectoryAway(bool away);
    void setSharedBlocked(bool blocked);
    static void setGroup(int group);
    static void setPartitionLocked(bool locked);

    Peer &m_peer;
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
    int m_callsExpected = 0; ///< At the end of the event.
    int m_policyNumber = 0;

    // For what must never be, whatever the model says.
    int m_launchesSinceReset = 0;
    bool m_rightOwnerSeen = false; ///< Since the last launch.
    bool m_rightOwnerSeenBefore = false; ///< At the start of the event; what it led to may include a launch.
    int m_callsChecked = 0;
    QVector<QPair<QString, QString>> m_outside; ///< Planted files' targets and what they must stay.

    int m_toldRead = 0;
    QStringList m_told;
    QStringList m_certsTold;
    QMap<QPair<uint, QString>, QStringList> m_optionsTold;
};

} // namespace Sequences
