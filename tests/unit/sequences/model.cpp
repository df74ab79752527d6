// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#include "model.h"

#include <algorithm>

namespace Sequences {

Model::Model(const Setup &setup)
    : m_worlds({World(setup)})
{
}

bool Model::allows(const Event &event) const
{
    return std::all_of(m_worlds.cbegin(), m_worlds.cend(),
                       [&event](const World &world) { return world.allows(event); });
}

bool Model::apply(const Event &event)
{
    for (World &world : m_worlds) {
        if (!m_isHurried)
            world.journal.clear();
        world.rowsTaken.reset();
        world.situations.clear();
        world.happen(event);
    }
    m_isHurried = event.hurried;
    if (m_isHurried)
        return false;
    // The test reads the watcher within the report of a failed start, where Qt cannot start the process again. So
    // nothing that is under way may lead to a launch then.
    const bool mayFailToStart = std::any_of(m_worlds.cbegin(), m_worlds.cend(), [](const World &world) {
        return world.get(Process) == Starting && world.get(ProcessMode) == IsMissing;
    });
    const bool reportComesFirst = event.overtaken && !mayFailToStart && report();
    settle();
    return reportComesFirst;
}

void Model::applyAll(const Event &event)
{
    apply(event);
    if (m_isHurried)
        return;
    do {
        while (advance()) { }
    } while (readWatcher());
}

bool Model::advance()
{
    const bool reported = report();
    settle();
    return reported;
}

/// Applies the next report of the process; false if there is none.
bool Model::report()
{
    QVector<World> next;
    bool isOver = true;
    for (const World &world : qAsConst(m_worlds)) {
        const QVector<World> after = world.afterProcess();
        isOver = isOver && after.isEmpty();
        next += after.isEmpty() ? QVector<World>{world} : after;
    }
    m_worlds = next;
    return !isOver;
}

bool Model::readWatcher()
{
    if (!m_worlds.first().is(WatcherDelayed))
        return false;
    for (World &world : m_worlds)
        world.values[WatcherDelayed] = no;
    settle();
    return true;
}

/// Delivers everything but the process's events, in every order.
void Model::settle()
{
    QVector<World> seen;
    QVector<World> settled;
    while (!m_worlds.isEmpty()) {
        const World world = m_worlds.takeLast();
        if (seen.contains(world))
            continue;
        seen << world;
        const QVector<World> next = world.next();
        if (next.isEmpty())
            settled << world;
        m_worlds += next;
    }
    m_worlds = settled;
}

QVector<Kind> Model::next() const
{
    const World &world = m_worlds.first();
    QVector<Kind> kinds;
    const auto add = [&kinds](bool applies, Kind kind, int weight) {
        if (applies)
            kinds += QVector<Kind>(weight, kind);
    };
    const bool isLinked = world.is(LinkOpen);
    const bool waits = world.get(Request) != none;
    const bool isSeldomWiper = world.get(WiperMode) == WiperHolds || world.get(WiperMode) == NoWiper;
    const bool isStarting = world.is(ClientStarting);
    const bool couldLink = world.is(SocketPresent) && !isLinked;
    const bool awaitsHome = world.watches.contains(World::home(uint(world.get(HomeUser))));

    add(world.is(ClientRunning) && !world.is(SocketPresent), Kind::PutSocket, 30);
    add(isLinked, Kind::Authenticate, 20);
    add(isLinked, Kind::DropLink, 3);
    add(isLinked, Kind::FetchCerts, world.get(CertsMode) == HoldCerts ? 20 : 14);
    add(isLinked, Kind::SetCertsAnswer, 10);
    add(couldLink, Kind::RemoveSocket, 8);
    add(couldLink, Kind::MoveClientDirectory, 10);
    add(couldLink && world.get(ServedUser) == nobody, Kind::FetchCerts, 20);
    add(couldLink && world.get(User) == 0, Kind::StopSession, 8);
    add(couldLink && world.get(User) == 0, Kind::FetchCerts, 8);
    add(couldLink && world.get(Stage) == Linked, Kind::Authenticate, 10);
    add(isLinked, Kind::StopClient, 3);
    add(waits, Kind::Reply, 15);
    add(world.isReplyUnderWay(), Kind::EndClient, 100);
    add(waits, Kind::Authenticate, 8);
    add(waits, Kind::Reset, 4);
    add(waits, Kind::StartSession, 4);
    add(!waits && !world.heldCalls.isEmpty(), Kind::Reply, 3);
    add(isStarting, Kind::StartSession, 8);
    add(isStarting, Kind::StopSession, 6);
    add(isStarting && world.get(ProcessMode) == IsMissing, Kind::Authenticate, 30);
    add(world.get(LimitUser) != nobody, Kind::SetLimit, 2);
    add(world.get(LimitUser) != nobody, Kind::RemoveMethodSettings, 1);
    add(world.get(CertsHeld) > 0, Kind::ReplyCerts, 15);
    add(world.get(CertsHeld) > 0, Kind::FetchCerts, 8);
    add(!world.heldWipes.isEmpty(), Kind::ReplyWiper, 15);
    for (const int rareMode : {IgnoresTerm, IsMissing})
        add(world.get(Process) == NotRunning && world.get(LauncherMode) == rareMode, Kind::Authenticate, 30);
    add(world.is(ClientRunning) && world.get(ProcessMode) == IgnoresTerm, Kind::StopSession, 15);
    add(isSeldomWiper, Kind::MarkForDeletion, 20);
    add(world.option(alice, Deletion).text == QLatin1String("true"), Kind::StartSession, isSeldomWiper ? 30 : 6);
    add(awaitsHome, Kind::CreateMarker, 8);
    add(awaitsHome, Kind::TouchHome, 4);
    return kinds;
}

uint Model::delayedUser() const
{
    const World &world = m_worlds.first();
    const int user = world.get(HomeUser);
    return user != nobody && world.watches.contains(World::home(uint(user))) ? uint(user) : alice;
}

// --- What can be seen -----------------------------------------------------------------------------------------------

Observation observation(const World &world, bool withOptions)
{
    const auto flag = [&world](Variable variable) {
        return world.is(variable) ? QStringLiteral("yes") : QStringLiteral("no");
    };
    const auto number = [&world](Variable variable) {
        return QString::number(world.get(variable));
    };
    const int fileUser = world.get(FileUser);
    const int homeUser = world.get(HomeUser);
    const int servedUser = std::max(world.get(ServedUser), 0);
    QStringList watched = world.watches.values();
    watched.sort();
    Observation seen = {
        {QStringLiteral("clientStage"), number(Stage)},
        {QStringLiteral("currentUid"), number(User)},
        {QStringLiteral("pendingAuthData"),
         world.get(PendingData) == none ? QStringLiteral("no") : QStringLiteral("yes")},
        {QStringLiteral("launchBudget"), number(Budget)},
        {QStringLiteral("certListInFlight"), flag(CertsInFlight)},
        {QStringLiteral("certListPending"), flag(CertsPending)},
        {QStringLiteral("uid"), number(Uid)},
        {QStringLiteral("gid"), number(Gid)},
        {QStringLiteral("clientStarting"), flag(ClientStarting)},
        {QStringLiteral("clientRunning"), flag(ClientRunning)},
        {QStringLiteral("socketPresent"), flag(SocketPresent)},
        {QStringLiteral("sharedDirectory"), world.is(SharedKnown) ? World::pathOf(SharedDirectory, 0) : QString()},
        {QStringLiteral("userConfigPath"), fileUser == nobody ? QString() : World::userFile(uint(fileUser))},
        {QStringLiteral("homeDirectory"), homeUser == nobody ? QString() : World::home(uint(homeUser))},
        {QStringLiteral("manifestExists"), flag(ManifestExists)},
        {QStringLiteral("manifestIsSymLink"), flag(ManifestIsLink)},
        {QStringLiteral("manifestParsed"), flag(ManifestParsed)},
        {QStringLiteral("process"), number(Process)},
        {QStringLiteral("user of the process"),
         world.get(Process) == NotRunning ? QString() : QString::number(servedUser)},
        {QStringLiteral("connected"), flag(LinkOpen)},
        {QStringLiteral("watched"), watched.join(QLatin1Char(' '))},
        {QStringLiteral("launches"), world.launches.join(QLatin1Char(' '))},
        {QStringLiteral("files"), world.files().join(QLatin1Char(' '))},
        {QStringLiteral("journal"), world.journal.join(QStringLiteral("\n    "))},
        {QStringLiteral("calls"), world.calls.join(QLatin1Char(' '))},
        {QStringLiteral("wiper calls"), world.wiperCalls.join(QLatin1Char(' '))},
        {QStringLiteral("unfinished calls"), QString::number(world.unfinishedCalls())},
        {QStringLiteral("returned"), world.returned},
        {QStringLiteral("isAvailable"), world.is(ManifestIsLink) ? QStringLiteral("yes") : flag(CommandKnown)},
    };
    if (!withOptions)
        return seen;
    for (const uint user : {0U, alice, bob, carol, unknownUser}) {
        for (const Option option : {Attempts, Deletion, MaxAttempts}) {
            if (option != MaxAttempts || user == 0)
                seen.insert(QStringLiteral("option %1 %2").arg(user).arg(World::nameOf(option)),
                            world.option(user, option).rendered());
        }
    }
    return seen;
}

bool World::isReplyUnderWay() const
{
    return std::any_of(wire.begin(), wire.end(), [](const Message &message) { return message.type == Message::Reply; });
}

QStringList World::files() const
{
    QStringList seen;
    const auto see = [&seen](const QString &path, const QString &type, uint owner, uint group, const QString &value) {
        seen << QStringLiteral("%1=%2:%3:%4:%5").arg(path, type).arg(owner).arg(group).arg(value);
    };
    const auto seeSocket = [&seen](const QString &directory, const Socket &there) {
        if (there.exists)
            seen << QStringLiteral("%1/kavet.socket=%2").arg(directory).arg(there.owner);
    };
    const QString shared = pathOf(SharedDirectory, 0);
    const auto seeFiles = [&see, &shared](const QString &suffix, const QMap<QString, File> &files) {
        static const QStringList plants = {QStringLiteral("link"), QStringLiteral("hard link"), QStringLiteral("FIFO"),
                                           QStringLiteral("directory")};
        for (auto file = files.cbegin(); file != files.cend(); ++file) {
            if (!file.key().endsWith(QLatin1String(".conf")))
                continue;
            see(shared + suffix + file.key().mid(shared.size()),
                file->type == File::Regular ? QStringLiteral("file") : plants.at(file->plant), file->owner, file->group,
                file->value);
        }
    };
    const auto placeOf = [](uint user) -> QString {
        return QLatin1Char('.') + QString::number(user);
    };

    const QString client = pathOf(ClientDirectory, 0);
    if (!is(DirectoryAway)) {
        see(client, QStringLiteral("directory"), clientDirectory.owner, clientDirectory.group, QString());
        seeSocket(client, socket);
    }
    for (auto aside = socketsAside.cbegin(); aside != socketsAside.cend(); ++aside)
        seeSocket(client + placeOf(aside.key()), aside.value());
    if (is(SharedThere)) {
        see(shared, QStringLiteral("directory"), sharedDirectory.owner, sharedDirectory.group, QString());
        seeFiles(QString(), present);
        for (auto aside = filesAside.cbegin(); aside != filesAside.cend(); ++aside)
            seeFiles(placeOf(aside.key()), aside.value());
    }
    seen.sort();
    return seen;
}

} // namespace Sequences
