// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#include "rules.h"

namespace Sequences {

namespace {

constexpr char wire[] = "construct: wire";
constexpr char wireIfParsed[] = "construct: wire if parsed";
constexpr char watchShared[] = "watch shared directory";
constexpr char saveLimit[] = "destroy: save limit";
constexpr char withManifest[] = "session starts: with a manifest";
constexpr char policyAtStart[] = "session starts: policy user";
constexpr char followPolicy[] = "follow policy";
constexpr char manageStart[] = "session starts: manage client";
constexpr char firstStart[] = "session starts: first start";
constexpr char stopClient[] = "session stops: client";

} // namespace

const Table &sessionRules()
{
    static const Table table = {
        {construct,
         {is(ManifestLinked, yes), is(ManifestFile, NoManifest)},
         {set(ManifestExists, yes), set(ManifestIsLink, yes), run(wire)}},
        {construct,
         {is(ManifestLinked, yes)},
         {set(ManifestExists, yes), set(ManifestIsLink, yes), run(parseManifest), run(wireIfParsed)}},
        // Inert for good
        {construct, {is(ManifestFile, NoManifest)}, {}},
        {construct, {}, {set(ManifestExists, yes), run(parseManifest), run(wireIfParsed)}},
        {wireIfParsed, {is(Outcome, yes)}, {run(wire)}},
        {wire, {}, {watch(ClientDirectory), run(watchShared), run(seedLimit)}},
        {watchShared, {is(SharedKnown, yes)}, {watch(SharedDirectory)}},

        {destroy, {}, {run(choosePolicyUser), run(saveLimit), EndAll}},
        {saveLimit, {is(PolicyCounts, yes)}, {run(takeLimit)}},

        {tryManifest, {is(ManifestExists, no)}, {outcome(no)}},
        {tryManifest, {is(ManifestParsed, yes)}, {outcome(yes)}},
        // Only a link may lead to a manifest later.
        {tryManifest, {}, {run(parseManifest)}},
        {parseManifest,
         {is(ManifestFile, NoManifest)},
         {write("critical: Cannot open or parse manifest file "
                "\"/usr/share/applications/tarsk.kavet_client.desktop\""),
          set(ManifestExists, no), outcome(no)}},
        {parseManifest,
         {is(ManifestFile, Damaged)},
         {write("critical: Cannot open or parse manifest file "
                "\"/usr/share/applications/tarsk.kavet_client.desktop\""),
          set(ManifestExists, no), outcome(no)}},
        {parseManifest,
         {is(ManifestFile, NoOrganization)},
         {set(CommandKnown, yes), set(ManifestParsed, yes), outcome(yes)}},
        {parseManifest, {is(ManifestFile, NoCommand)}, {set(SharedKnown, yes), set(ManifestParsed, yes), outcome(yes)}},
        {parseManifest, {}, {set(CommandKnown, yes), set(SharedKnown, yes), set(ManifestParsed, yes), outcome(yes)}},

        {sessionStarts, {}, {run(tryManifest), run(withManifest)}},
        {withManifest,
         {is(Outcome, yes)},
         {run(watchShared), run(seedLimit), copy(SessionUser, EventUser), run(policyAtStart), run(followPolicy),
          run(manageStart)}},
        {policyAtStart, {is(ClientRunning, yes)}, {copy(PolicyFor, Uid)}},
        {policyAtStart, {}, {copy(PolicyFor, EventUser)}},
        {manageStart, {is(EventFlag, no)}, {}},
        {manageStart,
         {is(ClientRunning, yes)},
         {write("warning: handleUserSessionStarted Kavet client is already running, terminate..."), run(killClient),
          run(firstStart)}},
        {manageStart, {}, {run(firstStart)}},
        {firstStart, {is(EventUserKnown, no)}, {write("warning: Cannot get name for %1", {EventUser})}},
        {firstStart, {is(MarkerThere, yes), is(DeletionMarked, yes)}, {CallWiper}},
        {firstStart, {is(MarkerThere, yes)}, {}},
        {firstStart,
         {},
         {write("warning: Delaying child launch for %1", {EventUser}), copy(Uid, EventUser), copy(HomeUser, EventUser),
          watch(Home)}},
        {wiperAnswered, {is(WiperReply, WiperSucceeds)}, {storeMark(EventUser, no)}},
        {wiperAnswered,
         {is(WiperReply, NoWiper)},
         {write("warning: Call \"ProcessTargetUser\" to \"qarv.userdata.wiper\" failed: "
                "\"The name qarv.userdata.wiper was not provided by any .service files\"")}},
        {wiperAnswered,
         {},
         {write("warning: Call \"ProcessTargetUser\" to \"qarv.userdata.wiper\" failed: \"No luck\"")}},

        {sessionStops, {is(ManifestExists, no)}, {}},
        {sessionStops, {}, {unwatch(UserFile), run(stopClient)}},
        {stopClient, {is(EventFlag, no)}, {}},
        {stopClient,
         {is(Process, NotRunning)},
         {write("warning: handleUserSessionStopped Kavet client is not launched"),
          write("warning: handleUserSessionStopped Kavet client is not running")}},
        {stopClient,
         {is(ClientRunning, no)},
         {write("warning: handleUserSessionStopped Kavet client is not launched"), TerminateProcess,
          set(ServedUser, nobody)}},
        {stopClient, {}, {TerminateProcess, set(ServedUser, nobody)}},
    };
    return table;
}

const Table &watchingRules()
{
    static constexpr char launchedForHome[] = "home changed: launched";
    static constexpr char groupOfFile[] = "shared directory changed: group of the file";

    static const Table table = {
        {clientDirectoryChanged, {is(ClientRunning, no)}, {}},
        {clientDirectoryChanged,
         {is(SocketThere, no)},
         {write("debug: handleChildSocket kavet client socket removed"), set(SocketPresent, no)}},
        {clientDirectoryChanged,
         {differ(SocketOwner, Uid)},
         {write("debug: handleChildSocket Wrong socket owner %1", {SocketOwner})}},
        {clientDirectoryChanged, {is(SocketIsSocket, no)}, {write("debug: handleChildSocket Not a socket")}},
        {clientDirectoryChanged, {is(SocketPresent, yes)}, {}},
        {clientDirectoryChanged,
         {is(User, 0)},
         {write("debug: handleChildSocket kavet client socket appeared"), set(SocketPresent, yes)}},
        {clientDirectoryChanged,
         {},
         {write("debug: handleChildSocket kavet client socket appeared"), set(SocketPresent, yes),
          set(Stage, MustConnect), run(flow)}},

        {sharedDirectoryChanged,
         {isNot(Uid, 0), is(UserFileThere, yes)},
         {run(groupOfFile), watchAnew(UserFile), StoreFileCount, run(choosePolicyUser), run(followPolicy)}},
        {sharedDirectoryChanged, {}, {run(choosePolicyUser), run(followPolicy)}},
        {groupOfFile, {is(UserFileRegular, yes), same(UserFileOwner, FileUser)}, {ChangeGroupOfUserFile}},
        // Once a launch
        {groupOfFile, {is(RefusalTold, yes)}, {}},
        {groupOfFile,
         {},
         {set(RefusalTold, yes),
          write("warning: Failed to change owner for %1 to %2 %3", {UserFilePath, FileUser, Gid})}},
        {followPolicy, {is(PolicyCounts, yes)}, {watchAnew(PolicyFile), run(takeLimit)}},
        {followPolicy, {is(PolicyThere, yes)}, {unwatch(PolicyFile)}},

        {userFileChanged, {}, {StoreFileCount}},
        {policyChanged, {}, {run(choosePolicyUser), run(policyNow)}},

        {homeChanged,
         {is(Uid, 0)},
         {write("warning: handleHomeDirectory unexpected home directory change %1", {HomePath}), unwatch(Home)}},
        {homeChanged, {is(HomeMarkerThere, yes)}, {run(launch), run(launchedForHome), unwatch(Home)}},
        {launchedForHome, {is(Outcome, no)}, {write("warning: handleHomeDirectory Couldn't start Kavet client")}},
    };
    return table;
}

} // namespace Sequences
