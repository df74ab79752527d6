// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include "event.h"

#include <QSet>
#include <QVector>

#include <optional>

namespace Sequences {

constexpr uint nobody = uint(-1);

/// Predicts what the private object does, by tables and rules over plain values. Shares no code with it. Also models
/// the object's environment: files, processes, the other end of the link.
class Model
{
public:
    explicit Model(const Setup &setup);

    /// Whether `event` can happen now and its result does not depend on the scheduling of independent parts of the
    /// system.
    bool allows(const Event &event) const;
    /// Applies the event at once and, unless it is hurried, all its consequences.
    void apply(const Event &event);

    Observation observation() const;
    /// The stored options. Reading them takes longer.
    Observation options() const;

    /// The number of credentials so far; each has the next number.
    int credentials() const { return m_credentials; }
    /// The numbers of calls to the client and to the wiper so far.
    int calls() const { return m_calls.size(); }
    int wipes() const { return m_wipes.size(); }
    /// Credentials in calls without a reply, including calls whose link has ended since.
    QStringList heldCalls() const { return m_heldCalls; }
    /// Whether the client's process has been stopped by a signal.
    bool isStopped() const { return m_stopped; }
    /// Whether a request that was sent to a client still has no outcome.
    bool hasCurrentRequest() const { return !m_current.isNull(); }
    /// Events that make progress from here and that random choice would seldom find, each repeated by its weight.
    QVector<Kind> next() const;
    /// The user whose first start is pending; the first user if there is none.
    uint delayedUser() const;
    /// The notable situations that the sequence has reached.
    const QSet<QString> &situations() const { return m_situations; }

    /// The owner of the socket in a choice of socket.
    uint socketOwner(int choice) const;
    /// The listening user in a choice of socket; nobody if there is none.
    uint socketPeer(int choice) const;
    QString userFile(uint user) const;

private:
    enum Stage { MustLaunch = 1, MustConnect = 2, Linked = 3 };
    enum Process { NotRunning, Starting, Running };
    enum Request { WithoutConnection = 0, Connecting = 1, EnterPasswordOrPin = 2 };
    enum Code {
        Success = 0,
        BadPassword = 1,
        CannotStartClient = 3,
        CannotConnectClient = 4,
        CannotCommunicateClient = 5,
        TooManyAttempts = 7
    };
    struct Data
    {
        int kind = Password;
        QString credential;
    };
    struct File
    {
        enum Type { None, Regular, Planted } type = None;
        int plant = 0;
        int inode = 0;
        uint owner = 0;
        uint group = 0;
        QString value; ///< Null without the key.
    };
    /// The file at the path of the client's socket.
    struct Socket
    {
        bool exists = false;
        bool isSocket = false;
        uint owner = 0;
        uint peer = nobody;
    };
    /// Of a directory that changes users.
    struct Ownership
    {
        uint owner = 0;
        uint group = 0;
    };
    struct Value
    {
        QString type;
        QString text;
        QString rendered() const { return type + QLatin1Char(' ') + text; }
        int toInt() const { return text.toInt(); }
        bool toBool() const { return text == QLatin1String("true"); }
    };
    /// A message that arrives over a bus when the event loop runs.
    struct Arrival
    {
        enum Type { Answer, Certs, LinkGone } type;
        QString credential;
        QString answer;
        int certs = 0; ///< Answer or, with the link gone, number of lost calls.
        QStringList lost = {};
    };
    using OptionKey = QPair<uint, QString>;

    void act(const Event &event);
    bool orderMatters() const;
    void settle();
    void construct();
    void destroy();

    // The authentication
    void makeAuth();
    void handleReply(const QString &credential, const QString &answer);
    void handleAnswer(const QString &answer);
    void requestInput(Request request, int code);
    bool connectToClient();
    void callClient(const QString &method, const QStringList &arguments, const QString &credential);
    QStringList getCertList();
    void handleCerts(int answer);
    void loseLink();
    void callsLost(const QStringList &calls, int certs);
    void dropReply();

    // The client
    bool launch();
    bool tryToParseManifest();
    bool parseManifest();
    void startProcess();
    void processStarted();
    void processFailedToStart();
    void processEnded();
    void setUnavailable(bool wasRunning);
    void terminate();
    void kill();

    // Sessions and watching
    void startSession(uint user, bool manageClient);
    void stopSession(bool manageClient);
    void deliverChanges();
    void directoryChanged(const QString &path);
    void fileChanged(const QString &path);
    void socketDirectoryChanged();
    void sharedDirectoryChanged();
    void homeChanged();
    void watch(const QString &path);
    void unwatch(const QString &path);
    void watchAnew(const QString &path);

    // Passing from user to user
    void passClientDirectory();
    void passSharedDirectory();
    void giveSockets(uint peer, uint owner);

    // Settings
    Value option(uint user, const QString &name) const;
    void setOption(uint user, const QString &name, const Value &value);
    uint userOfFile() const;
    Value childAttempts() const;
    bool policyCounts(uint user) const;
    bool followPolicy(uint user);
    uint policyUser() const;
    void takeLimit(uint user);
    bool limitIsUsers() const;
    void giveLimitBack(uint user);
    void takePackagedLimit();
    bool methodSettingsStored() const;
    int increaseAttempts(uint user);
    void tell(const QString &text);

    // Files
    bool sharedThere() const { return m_sharedExists && !m_sharedBlocked; }
    bool exists(const QString &path) const;
    void noteDirectory(const QString &path);
    void noteFile(const QString &path);
    void createFile(const QString &path, const File &file);
    void removeFile(const QString &path);
    void writeFile(const QString &path, const QString &value);
    bool changeGroup(const QString &path, uint owner, uint group);
    void put(const QString &path, const File &file);

    QStringList files() const;

    static bool isKnown(uint user);
    static QString home(uint user);
    static Value integer(int value);
    static Value text(const QString &value);

    // Surroundings
    bool m_partitionLocked = false;
    int m_launcher = Works;
    int m_group = Normal;
    int m_manifest;
    bool m_manifestIsLink;
    int m_wiper = WiperSucceeds;
    int m_certsAnswer = SomeCerts;
    bool m_clientDirectoryAway = false;
    bool m_sharedExists = false;
    bool m_sharedBlocked = false;
    Ownership m_clientDirectory;
    Ownership m_shared;
    Socket m_socket;
    QMap<uint, Socket> m_socketsAside; ///< By the user whose turn is over.
    QSet<uint> m_markers;
    QMap<QString, File> m_files;
    QMap<uint, QMap<QString, File>> m_filesAside; ///< By the user whose turn is over.
    std::optional<QString> m_packagedPolicy;
    int m_lastInode = 0;
    QSet<int> m_goneInodes;
    QMap<OptionKey, Value> m_options;
    /// The limit that users' policies replace; kept over restarts.
    struct SystemLimit
    {
        std::optional<int> limit; ///< None if the method had no settings.
        uint user; ///< The user of the last policy.
        bool wasNone; ///< Whether a policy without a limit has been applied meanwhile.
    };
    std::optional<SystemLimit> m_system;

    // Client process and link
    Process m_process = NotRunning;
    int m_processKind = Works;
    uint m_clientUid = 0; ///< The user that the process was launched for; 0 once it is to end.
    bool m_dying = false;
    bool m_stopped = false;
    bool m_termPending = false;
    bool m_connected = false;
    QStringList m_outstanding; ///< On the present link.
    QStringList m_heldCalls;
    int m_certsHeld = 0;
    QVector<uint> m_heldWipes;

    // In transit
    QSet<QString> m_changedDirectories;
    QSet<QString> m_changedFiles;
    QVector<Arrival> m_arrivals;
    QVector<uint> m_wiped;
    bool m_ambiguous = false;
    bool m_loopNeeded = false; ///< The event takes effect only when the event loop runs.

    // The private object
    bool m_wired = false;
    int m_stage = MustLaunch;
    uint m_currentUid = 0;
    std::optional<Data> m_pending;
    QString m_current; ///< The credential in the current request; null if there is none.
    uint m_budget = 11;
    bool m_certsInFlight = false;
    bool m_certsPending = false;
    uint m_uid = 0;
    uint m_gid = 0;
    bool m_starting = false;
    bool m_running = false;
    bool m_socketPresent = false;
    QString m_sharedDirectory;
    QString m_userConfigPath;
    QString m_homeDirectory;
    uint m_sessionUser = 0; ///< The user of the last session start.
    bool m_refusalTold = false;
    bool m_organizationKnown = false;
    bool m_commandKnown = false;
    bool m_manifestExists = false;
    bool m_manifestParsed = false;
    bool m_isSymLink = false;
    QMap<QString, int> m_watches; ///< Path and watched inode.

    // Counts of its log messages and calls
    int m_credentials = 0;
    QStringList m_told;
    int m_dropped = 0; ///< Replies.
    int m_refused = 0; ///< Warnings that the user's file belongs to another user.
    QStringList m_certsTold;
    QMap<OptionKey, QStringList> m_optionsTold;
    QStringList m_calls;
    QStringList m_launches;
    QStringList m_wipes;
    QStringList m_atOnce; ///< The calls to the daemon during an event.
    QString m_returned;
    QSet<QString> m_situations;
};

} // namespace Sequences
