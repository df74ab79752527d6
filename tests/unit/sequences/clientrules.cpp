// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#include "rules.h"

namespace Sequences {

namespace {

constexpr char withManifest[] = "launch: with a manifest";
constexpr char withGroup[] = "launch: with a group";
constexpr char prepared[] = "launch: directories prepared";
constexpr char policyAtLaunch[] = "launch: policy";
constexpr char userFile[] = "launch: user's file";
constexpr char processGone[] = "process gone";

} // namespace

const Table &clientRules()
{
    static const Table table = {
        {launch, {is(ClientRunning, yes)}, {outcome(yes)}},
        {launch, {is(Budget, 0)}, {outcome(no)}},
        {launch, {}, {decrement(Budget), run(tryManifest), run(withManifest)}},
        {withManifest, {is(Outcome, no)}, {}},
        {withManifest, {is(SharedKnown, no)}, {write("critical: Shared directory is not set"), outcome(no)}},
        {withManifest, {is(UserKnown, no)}, {write("critical: Cannot name for %1", {User}), outcome(no)}},
        {withManifest, {is(GroupMode, NoGroup)}, {write("critical: Cannot get GID of \"auth-factor\""), outcome(no)}},
        {withManifest, {}, {set(RefusalTold, no), copy(Uid, User), copy(Gid, GroupId), run(withGroup)}},

        {withGroup,
         {is(CommandKnown, no)},
         {write("critical: Empty ExecCmd= statement in desktop file."), outcome(no)}},
        {withGroup,
         {is(ManifestFile, NoManifest)},
         {write("critical: Cannot open desktop file "
                "\"/usr/share/applications/tarsk.kavet_client.desktop\""),
          outcome(no)}},
        {withGroup,
         {is(ManifestFile, Damaged)},
         {write("critical: Cannot open desktop file "
                "\"/usr/share/applications/tarsk.kavet_client.desktop\""),
          outcome(no)}},
        {withGroup, {is(Uid, 0)}, {outcome(no)}},
        {withGroup, {is(Gid, 0)}, {outcome(no)}},
        {withGroup, {is(DirectoryAway, yes)}, {write("critical: Cannot change owner of directory"), outcome(no)}},
        {withGroup, {}, {PassClientDirectory, run(prepared)}},

        {prepared, {is(SharedBlocked, yes)}, {write("warning: Cannot create directory"), outcome(no)}},
        {prepared,
         {},
         {PassSharedDirectory, watch(SharedDirectory), copy(PolicyFor, Uid), run(policyAtLaunch), copy(FileUser, User),
          run(userFile), watchAnew(UserFile), StartProcess, WriteUserFile, outcome(yes)}},
        {policyAtLaunch, {is(PolicyCounts, yes)}, {run(takeLimit), watchAnew(PolicyFile)}},
        {policyAtLaunch, {is(PolicyThere, yes)}, {unwatch(PolicyFile), run(giveLimitBack)}},
        {policyAtLaunch, {}, {run(giveLimitBack)}},
        {userFile, {is(UserFileThere, no)}, {CreateUserFile}},
        {userFile, {is(UserFileRegular, yes), same(UserFileOwner, Uid)}, {ChangeGroupOfUserFile}},
        {userFile,
         {},
         {PutUserFileAside, write("warning: Put aside %1 as %2", {UserFilePath, AsidePath}), CreateUserFile}},

        // The process
        {processStarting,
         {},
         {set(ClientStarting, yes), run(clientUnavailable),
          write("debug: onChildStateChanged \"Client is starting\"")}},
        {processStarted,
         {},
         {set(Process, Running), set(ClientStarting, no), set(ClientRunning, yes),
          write("debug: onChildStateChanged \"Client has started\"")}},
        {processFailedToStart,
         {},
         {set(Process, NotRunning), set(ClientStarting, no), run(clientUnavailable),
          write("debug: onChildStateChanged \"Client is not running\""), set(ResumeQueued, yes),
          write("debug: onChildErrorOccurred error 0")}},
        // Only if a request waits for this process to end.
        {failedStartResumed, {is(Process, NotRunning), is(ServedUser, nobody)}, {run(flow)}},
        {processEnded, {is(ExitStatus, CrashExit)}, {write("debug: onChildErrorOccurred error 1"), run(processGone)}},
        {processEnded, {}, {run(processGone)}},
        {processGone,
         {},
         {set(Process, NotRunning), set(ClientStarting, no), run(clientUnavailable),
          write("debug: onChildStateChanged \"Client is not running\""),
          write("warning: onChildFinished Client has terminated exitCode %1 exitStatus %2", {ExitCode, ExitStatus}),
          run(clientUnavailable), run(flow)}},

        {clientUnavailable, {is(ClientRunning, no)}, {set(Stage, MustLaunch), set(SocketPresent, no)}},
        {clientUnavailable,
         {},
         {set(Stage, MustLaunch), set(ClientRunning, no), set(SocketPresent, no), CloseLink, unwatch(UserFile),
          set(FileUser, nobody), unwatch(PolicyFile), set(Uid, 0), set(Gid, 0), RemoveSocketFile,
          write("debug: setChildUnavailable locking the screen"), write("restartAuth %1", {User})}},

        // It serves nobody from here on.
        {killClient, {}, {set(ServedUser, nobody), CloseLink, KillProcess}},
    };
    return table;
}

} // namespace Sequences
