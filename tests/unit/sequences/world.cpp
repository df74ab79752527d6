// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#include "world.h"

#include <algorithm>
#include <csignal>

namespace Sequences {

World::World(const Setup &setup)
    : sharedExists(setup.sharedDirectory)
    , markers({alice, bob})
    , packagedPolicyThere(setup.packagedPolicy)
    , packagedLimit(limits.first())
{
    values[ManifestFile] = setup.manifest;
    values[ManifestLinked] = setup.manifestIsLink;
    values[LimitUser] = nobody;
    if (setup.currentPolicy)
        present.insert(pathOf(PolicyFile, 0), {File::Regular, 0, alice, clientGroup, limits.at(1)});
    begin();
}

bool World::allows(const Event &event) const
{
    const File policy = present.value(pathOf(PolicyFile, 0));
    const File file = present.value(userFile(event.user));
    const bool isDying = !causes.isEmpty();
    const bool isMissing = get(ProcessMode) == IsMissing;

    switch (event.kind) {
    case Kind::Authenticate:
        // The client may get later calls before it closes the link, or after.
        return !event.hurried || (event.answer != QLatin1String("<drop>") && event.answer != QLatin1String("<flood>"));
    case Kind::EndClient:
        return get(Process) != NotRunning && !isMissing && !isDying;
    case Kind::StopClient:
        return get(Process) == Running && !isDying && !event.hurried;
    case Kind::PutSocket:
    case Kind::TouchClientDirectory:
    case Kind::Restart:
        return !is(DirectoryAway);
    case Kind::RemoveSocket:
    case Kind::ChangeSocketOwner:
        return !is(DirectoryAway) && socket.exists;
    case Kind::DropLink:
        // The end of the link is delivered in order with all other events.
        return is(LinkOpen) && !event.hurried && !isDying && get(Process) != Starting && changes.isEmpty()
               && wire.isEmpty();
    case Kind::Reply:
        return !heldCalls.isEmpty();
    case Kind::ReplyCerts:
        return get(CertsHeld) > 0 && event.variant != HoldCerts;
    case Kind::ReplyWiper:
        // Without a mark to clear, a success leaves no trace.
        return !heldWipes.isEmpty()
               && (!event.flag || option(heldWipes.first(), Deletion).text == QLatin1String("true"));
    case Kind::WritePolicy:
    case Kind::PlantPolicy:
    case Kind::WriteUserFile:
    case Kind::PlantUserFile:
    case Kind::TouchSharedDirectory:
        return is(SharedThere);
    case Kind::ReplacePolicy:
        return is(SharedThere) && policy.type == File::Regular;
    case Kind::ReplaceUserFile:
        return is(SharedThere) && file.type == File::Regular;
    case Kind::RemovePolicy:
        return is(SharedThere) && policy.type != File::None;
    case Kind::RemoveUserFile:
        return is(SharedThere) && file.type != File::None;
    case Kind::RemovePackagedPolicy:
        return packagedPolicyThere;
    case Kind::CreateMarker:
        return !nameOf(event.user).isNull() && !markers.contains(event.user);
    case Kind::RemoveMarker:
        return markers.contains(event.user);
    case Kind::TouchHome:
        return !nameOf(event.user).isNull();
    case Kind::SetLauncher:
    case Kind::Repair:
        return get(Process) != Starting || !isMissing; // The launcher might be found just in time.
    default:
        return true;
    }
}

void World::happen(const Event &event)
{
    returned.clear();
    values[EventUser] = int(event.user);
    values[EventFlag] = event.flag;
    values[WatcherDelayed] = event.delayed;
    switch (event.kind) {
    case Kind::Authenticate:
        credentials.append({event.answer, event.variant});
        values[EventData] = event.variant;
        values[EventCredential] = credentials.size();
        run(authenticate);
        break;
    case Kind::Reset:
        run(reset);
        break;
    case Kind::EndClient: {
        static constexpr int ways[] = {exitBy(0), exitBy(7), crashBy(SIGABRT), crashBy(SIGKILL)};
        causes << (is(Stopped) ? crashBy(SIGKILL) : ways[event.variant % 4]);
        break;
    }
    case Kind::StopClient:
        values[Stopped] = is(Stopped) ? no : yes;
        if (!is(Stopped) && is(TermPending))
            causes << crashBy(SIGTERM);
        break;
    case Kind::DropLink:
        closeLink();
        break;
    case Kind::Reply: {
        const int credential = heldCalls.takeAt(event.variant % heldCalls.size());
        if (outstanding.contains(credential))
            wire << Message{Message::Reply, credential, 0, lateAnswer(event.answer)};
        else
            situations << QStringLiteral("answered after the link");
        break;
    }
    case Kind::FetchCerts:
        run(getCertificates);
        break;
    case Kind::SetCertsAnswer:
        values[CertsMode] = event.variant;
        break;
    case Kind::ReplyCerts:
        --values[CertsHeld];
        wire << Message{Message::CertReply, ofCertificates, event.variant};
        break;
    case Kind::StartSession:
        run(sessionStarts);
        break;
    case Kind::StopSession:
        run(sessionStops);
        break;
    case Kind::RemoveMethodSettings:
        for (auto option = options.begin(); option != options.end();)
            option = option.key().first == 0 ? options.erase(option) : option + 1;
        break;
    case Kind::SetLimit:
        store(0, MaxAttempts,
              {QStringLiteral("int"), QString::number(limits.at(event.variant % limits.size()).toInt())});
        break;
    case Kind::LockPartition:
        values[Partition] = yes;
        break;
    case Kind::UnlockPartition:
        values[Partition] = no;
        break;
    case Kind::IncreaseAttempts:
        run(increaseAttempts);
        break;
    case Kind::ResetAttempts:
        run(resetAttempts);
        break;
    case Kind::GetAttempts:
        run(getAttempts);
        break;
    case Kind::MarkForDeletion:
        store(event.user, Deletion, {QStringLiteral("bool"), QStringLiteral("true")});
        break;
    case Kind::SetLauncher:
        values[LauncherMode] = event.variant;
        break;
    case Kind::SetGroup:
        values[GroupMode] = event.variant;
        break;
    case Kind::MoveClientDirectory:
        values[DirectoryAway] = is(DirectoryAway) ? no : yes;
        break;
    case Kind::BlockSharedDirectory:
        values[SharedBlocked] = is(SharedBlocked) ? no : yes;
        break;
    case Kind::SetManifest:
        values[ManifestFile] = event.variant;
        break;
    case Kind::SetWiper:
        values[WiperMode] = event.variant;
        break;
    case Kind::ReplyWiper:
        wiperReplies.append({heldWipes.takeFirst(), event.flag ? WiperSucceeds : WiperFails});
        break;
    case Kind::Repair:
        for (const Variable repaired : {Partition, LauncherMode, GroupMode, DirectoryAway, SharedBlocked, ManifestFile})
            values[repaired] = 0;
        break;
    case Kind::Restart:
        run(destroy);
        begin();
        break;
    default:
        changeFile(event);
        break;
    }
    forgetSteps();
}

/// What one step has passed to the next no longer counts.
void World::forgetSteps()
{
    std::fill(values.begin() + Outcome, values.begin() + Partition, 0);
    answer.clear();
}

/// Makes a new object, to which the daemon listens once it is made.
void World::begin()
{
    for (int member = Stage; member <= DaemonListens; ++member)
        values[size_t(member)] = 0;
    values[Stage] = MustLaunch;
    values[PendingData] = values[Request] = none;
    values[Budget] = 11;
    values[FileUser] = values[HomeUser] = nobody;
    watches.clear();
    run(construct);
    values[DaemonListens] = yes;
}

template <typename Delivery>
World World::after(const Delivery &delivery) const
{
    World world = *this;
    delivery(world);
    world.forgetSteps();
    return world;
}

// The test reads the watcher before anything else, and lets the process report only when nothing else is under way.

QVector<World> World::next() const
{
    QVector<World> worlds;
    for (auto change = batch.cbegin(); change != batch.cend(); ++change)
        worlds << after([change](World &world) { world.deliverChange(change.key(), world.batch.take(change.key())); });
    if (batch.isEmpty() && !changes.isEmpty() && !is(WatcherDelayed))
        worlds << after([](World &world) { std::swap(world.batch, world.changes); });
    if (!worlds.isEmpty())
        return worlds;

    if (is(ResumeQueued))
        worlds << after([](World &world) {
            world.values[ResumeQueued] = no;
            world.run(failedStartResumed);
        });
    if (!wire.isEmpty())
        worlds << after([](World &world) { world.deliver(world.wire.takeFirst()); });
    worlds += afterEarlyEnd();
    for (const int credential : lost)
        worlds << after([credential](World &world) {
            world.lost.removeOne(credential);
            world.deliverLoss(credential);
        });
    if (!wiperReplies.isEmpty())
        worlds << after([](World &world) {
            const QPair<uint, int> reply = world.wiperReplies.takeFirst();
            world.values[EventUser] = int(reply.first);
            world.values[WiperReply] = reply.second;
            world.run(wiperAnswered);
        });
    return worlds;
}

// The link may end before the earlier replies have been delivered. Those that have reached the library still are.
QVector<World> World::afterEarlyEnd() const
{
    const auto isReply = [](const Message &message) {
        return message.type == Message::Reply || message.type == Message::CertReply;
    };
    const auto isEnd = [](const Message &message) {
        return message.type == Message::Cut || message.type == Message::Flood;
    };
    const auto end = std::find_if(wire.begin(), wire.end(), isEnd);
    const int replies = int(std::find_if_not(wire.begin(), end, isReply) - wire.begin());
    QVector<World> worlds;
    for (int count = 0; end != wire.end() && count <= replies; ++count)
        worlds << after([count, end](World &world) { world.deliverEarly(*end, count); });
    return worlds;
}

QVector<World> World::afterProcess() const
{
    QVector<World> worlds;
    const bool isMissing = get(ProcessMode) == IsMissing;
    if (get(Process) == Starting && isMissing)
        worlds << after([](World &world) {
            world.causes.clear();
            world.run(processFailedToStart);
        });
    // A signal may come before the launcher is found to be missing.
    if (get(Process) == Starting && (!isMissing || !causes.isEmpty()))
        worlds << after([](World &world) { world.run(processStarted); });
    if (get(Process) == Running) {
        for (const int cause : causes)
            worlds << after([cause](World &world) { world.endProcess(cause); });
    }
    return worlds;
}

} // namespace Sequences
