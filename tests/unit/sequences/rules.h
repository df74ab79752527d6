// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include "event.h"

#include <limits>
#include <utility>
#include <vector>

/// The vocabulary of the tables that say what the method does: for each step, rows of conditions and effects. The first
/// row of a step whose conditions all hold applies; without one, nothing happens.
namespace Sequences {

constexpr int no = 0;
constexpr int yes = 1;
constexpr int none = -1;
constexpr int nobody = -1;
constexpr int noLimit = std::numeric_limits<int>::min();

enum ClientStage { MustLaunch = 1, MustConnect = 2, Linked = 3 };
enum ProcessState { NotRunning, Starting, Running };
enum ExitKind { NormalExit, CrashExit };

/// What conditions ask about. Up to Values, plain values; after that, facts about files and other surroundings.
enum Variable {
    // Members of the private object
    Stage,
    User, ///< Being authenticated.
    PendingData, ///< The kind of data not yet sent; none if there are none.
    PendingCredential,
    Request, ///< The credential of the current request; none without one.
    Budget,
    CertsInFlight,
    CertsPending,
    Uid,
    Gid,
    ClientStarting,
    ClientRunning,
    SocketPresent,
    SharedKnown,
    CommandKnown,
    FileUser, ///< Whose file the method follows.
    HomeUser, ///< Whose first start the method awaits.
    SessionUser,
    RefusalTold,
    ManifestExists,
    ManifestParsed,
    ManifestIsLink,
    DaemonListens,

    // On disk, while a user's policy sets the limit
    LimitUser, ///< Whose policy that is.
    LimitBefore, ///< none if there were no settings of the method.
    NoLimitTaken,

    // Passed from one step to the next
    Outcome,
    Sending,
    PolicyFor,
    Count,

    // What the event brings
    EventUser,
    EventFlag,
    EventData,
    EventCredential,
    Arrived,
    CertsReply,
    WiperReply,
    ExitCode,
    ExitStatus,

    // Surroundings
    Partition, ///< Locked?
    LauncherMode,
    GroupMode,
    ManifestFile,
    ManifestLinked,
    WiperMode,
    CertsMode,
    DirectoryAway,
    SharedBlocked,
    Process,
    ProcessMode,
    ServedUser, ///< Whom the process was launched for; nobody once it is to end.
    Stopped,
    TermPending,
    LinkOpen,
    CertsHeld,
    ResumeQueued,
    WatcherDelayed,
    Values,

    // Facts
    Answer,
    UserKnown,
    EventUserKnown,
    GroupId,
    SharedThere,
    SocketThere,
    SocketIsSocket,
    SocketOwner,
    Listener,
    UserFileThere,
    UserFileRegular,
    UserFileOwner,
    PolicyThere,
    PolicyCounts, ///< For PolicyFor.
    PolicyReadable,
    PackagedPolicy,
    MethodSettings,
    Limit,
    LimitIsNumber,
    MarkerThere, ///< Of EventUser.
    HomeMarkerThere, ///< Of HomeUser.
    DeletionMarked, ///< For EventUser.

    // Texts only
    UserFilePath,
    AsidePath,
    HomePath,
    SendingMethod,
    ArrivedMethod,
    CertsReturned
};

enum Place { ClientDirectory, SharedDirectory, Home, UserFile, PolicyFile };
enum Option { Attempts, Deletion, MaxAttempts };

enum Verb {
    Set,
    Copy,
    Decrement,
    Run,
    Write, ///< A log line or a call to the daemon, in their common order.
    Return,
    // Options
    StoreCount,
    StoreMark,
    StorePolicyLimit,
    StorePackagedLimit,
    StoreFileCount,
    // Files
    Watch,
    WatchAnew,
    Unwatch,
    PassClientDirectory,
    PassSharedDirectory,
    CreateUserFile,
    PutUserFileAside,
    ChangeGroupOfUserFile,
    WriteUserFile,
    RemoveSocketFile,
    // Other processes
    StartProcess,
    KillProcess,
    TerminateProcess,
    OpenLink,
    CloseLink,
    SendCall,
    SendCertCall,
    CallWiper,
    EndAll
};

struct Condition
{
    enum Relation { Is, IsNot, IsMore, Same, Differ, Says };

    Variable variable;
    Relation relation;
    int value;
    const char *text;
};

/// The name of a step. Compared by address.
using Step = const char *;

struct Effect
{
    // Implicit, so that a verb alone is an effect.
    Effect(Verb what, int of = 0, int to = 0, const char *line = nullptr, std::vector<Variable> with = {})
        : verb(what)
        , subject(of)
        , value(to)
        , text(line)
        , arguments(std::move(with))
    {
    }

    Verb verb;
    int subject;
    int value;
    const char *text; ///< A step or, with "%1" and so on for the arguments, a line.
    std::vector<Variable> arguments;
};

struct Row
{
    Step step;
    std::vector<Condition> conditions;
    std::vector<Effect> effects;
};

using Table = std::vector<Row>;

// Conditions
inline Condition is(Variable variable, int value)
{
    return {variable, Condition::Is, value, nullptr};
}
inline Condition isNot(Variable variable, int value)
{
    return {variable, Condition::IsNot, value, nullptr};
}
inline Condition isMore(Variable variable, int value)
{
    return {variable, Condition::IsMore, value, nullptr};
}
inline Condition same(Variable variable, Variable other)
{
    return {variable, Condition::Same, other, nullptr};
}
inline Condition differ(Variable variable, Variable other)
{
    return {variable, Condition::Differ, other, nullptr};
}
inline Condition says(Variable variable, const char *text)
{
    return {variable, Condition::Says, 0, text};
}

// Effects
inline Effect set(Variable variable, int value)
{
    return {Set, variable, value};
}
inline Effect copy(Variable to, Variable from)
{
    return {Copy, to, from};
}
inline Effect decrement(Variable variable)
{
    return {Decrement, variable};
}
inline Effect run(Step step)
{
    return {Run, 0, 0, step};
}
/// The outcome for the step that has run this one.
inline Effect outcome(int value)
{
    return {Set, Outcome, value};
}
/// A call to the daemon, as "OPERATION ARGUMENTS", or a log line, as "LEVEL: TEXT".
inline Effect write(const char *line, std::vector<Variable> arguments = {})
{
    return {Write, 0, 0, line, std::move(arguments)};
}
/// The result for the caller.
inline Effect returns(const char *text, std::vector<Variable> arguments = {})
{
    return {Return, 0, 0, text, std::move(arguments)};
}
inline Effect watch(Place place)
{
    return {Watch, place};
}
inline Effect watchAnew(Place place)
{
    return {WatchAnew, place};
}
inline Effect unwatch(Place place)
{
    return {Unwatch, place};
}
/// Stores Count; the limit belongs to no user.
inline Effect storeCount(Option option, Variable user = Values)
{
    return {StoreCount, option, user};
}
inline Effect storeMark(Variable user, int value)
{
    return {StoreMark, user, value};
}

// What the daemon calls
inline constexpr char construct[] = "construct";
inline constexpr char destroy[] = "destroy";
inline constexpr char authenticate[] = "authenticate";
inline constexpr char reset[] = "reset";
inline constexpr char getCertificates[] = "get certificates";
inline constexpr char sessionStarts[] = "session starts";
inline constexpr char sessionStops[] = "session stops";
inline constexpr char increaseAttempts[] = "increase attempts";
inline constexpr char resetAttempts[] = "reset attempts";
inline constexpr char getAttempts[] = "get attempts";

// What happens
inline constexpr char processStarted[] = "process started";
inline constexpr char processFailedToStart[] = "process failed to start";
inline constexpr char processEnded[] = "process ended";
inline constexpr char failedStartResumed[] = "failed start resumed";
inline constexpr char clientDirectoryChanged[] = "client directory changed";
inline constexpr char sharedDirectoryChanged[] = "shared directory changed";
inline constexpr char homeChanged[] = "home changed";
inline constexpr char userFileChanged[] = "user's file changed";
inline constexpr char policyChanged[] = "policy changed";
inline constexpr char callAnswered[] = "call answered";
inline constexpr char callLost[] = "call lost";
inline constexpr char certificatesAnswered[] = "certificates answered";
inline constexpr char linkFlooded[] = "link flooded";
inline constexpr char wiperAnswered[] = "wiper answered";

// Steps that several tables share
inline constexpr char flow[] = "flow";
inline constexpr char launch[] = "launch";
inline constexpr char killClient[] = "kill client";
inline constexpr char getCertList[] = "get certificate list";
inline constexpr char tryManifest[] = "try manifest";
inline constexpr char parseManifest[] = "parse manifest";
inline constexpr char clientUnavailable[] = "client unavailable";
inline constexpr char processStarting[] = "process starting";
inline constexpr char choosePolicyUser[] = "choose policy user";
inline constexpr char seedLimit[] = "seed limit";
inline constexpr char policyNow[] = "policy now";
inline constexpr char takeLimit[] = "take limit";
inline constexpr char giveLimitBack[] = "give limit back";

/// The rows of all tables.
const Table &rules();
/// For messages.
QString nameOfRow(size_t number);

const Table &flowRules();
const Table &linkRules();
const Table &clientRules();
const Table &sessionRules();
const Table &watchingRules();
const Table &settingsRules();

} // namespace Sequences
