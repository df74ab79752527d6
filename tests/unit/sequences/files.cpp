// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#include "world.h"

#include <tuple>
#include <utility>

namespace Sequences {

namespace {

const QString client = QStringLiteral("/run/aux-auth/tarsk/kavet_client");
const QString shared = QStringLiteral("/srv/shared/tarsk/kavet_client");
const QString policy = QStringLiteral("/srv/shared/tarsk/kavet_client/current.conf");
const QString putAside = QStringLiteral("warning: Put aside \"%1\" as \"%1.%2\""); ///< %1 = directory, %2 = user.

} // namespace

bool File::operator==(const File &other) const
{
    const auto all = [](const File &file) {
        return std::tie(file.type, file.plant, file.owner, file.group, file.value, file.isWatched);
    };
    return all(*this) == all(other);
}

bool Socket::operator==(const Socket &other) const
{
    return exists == other.exists && isSocket == other.isSocket && owner == other.owner && peer == other.peer;
}

bool Message::operator==(const Message &other) const
{
    return type == other.type && credential == other.credential && value == other.value && answer == other.answer;
}

QString World::nameOf(uint user)
{
    static const QMap<uint, QString> names = {{0, QStringLiteral("root")},
                                              {alice, QStringLiteral("alice")},
                                              {bob, QStringLiteral("bob")},
                                              {carol, QStringLiteral("carol")}};
    return names.value(user);
}

QString World::nameOf(Option option)
{
    static const QStringList names = {QStringLiteral("attempts"), QStringLiteral("delayed-deletion"),
                                      QStringLiteral("max-attempts")};
    return names.at(option);
}

QString World::home(uint user)
{
    return user == 0 ? QStringLiteral("/root") : QStringLiteral("/home/") + nameOf(user);
}

QString World::userFile(uint user)
{
    return QStringLiteral("%1/%2.conf").arg(shared).arg(user);
}

QString World::pathOf(Place place, uint user)
{
    switch (place) {
    case ClientDirectory:
        return client;
    case SharedDirectory:
        return shared;
    case Home:
        return home(user);
    case UserFile:
        return userFile(user);
    case PolicyFile:
        return policy;
    }
    return QString();
}

Value World::option(uint user, Option option) const
{
    const Value default_ = user == 0 && option != MaxAttempts ? Value()
                           : option == Deletion               ? Value{QStringLiteral("bool"), QStringLiteral("false")}
                                                              : Value{QStringLiteral("int"), QStringLiteral("0")};
    return options.value({user, option}, default_);
}

// --- Events ---------------------------------------------------------------------------------------------------------

void World::changeFile(const Event &event)
{
    const uint planter = event.flag ? event.user : 0;
    const uint other = event.user == bob ? alice : bob;
    const uint group = uint(get(GroupId));
    const QString ownFile = userFile(event.user);
    const QString &limit = limits.at(event.variant % limits.size());
    const QString &count = counts.at(event.variant % counts.size());
    const auto replace = [this, &event, group](const QString &path, const QString &value) {
        removeFile(path);
        createFile(path, {File::Regular, 0, event.user, group, value});
    };
    const auto write = [this, &replace](const QString &path, const QString &value) {
        if (present.value(path).type != File::Regular) {
            replace(path, value);
            return;
        }
        present[path].value = value;
        noteFile(path);
    };
    const auto plant = [this, &event, planter, other](const QString &path) {
        removeFile(path);
        if (event.variant == FileOfOther)
            createFile(path, {File::Regular, 0, other, other, QStringLiteral("5")});
        else
            createFile(path, {File::Planted, event.variant, planter, planter, QString()});
    };

    switch (event.kind) {
    case Kind::PutSocket:
        socket = {true, event.variant < LinkToSocket, socketOwner(*this, event.variant),
                  socketPeer(*this, event.variant)};
        if (event.variant != NotASocket)
            giveSockets(socket);
        noteDirectory(client);
        break;
    case Kind::RemoveSocket:
        socket = {};
        noteDirectory(client);
        break;
    case Kind::ChangeSocketOwner:
        socket.owner = socketOwner(*this, event.variant);
        if (socket.isSocket)
            giveSockets(socket);
        noteDirectory(client);
        break;
    case Kind::TouchClientDirectory:
        noteDirectory(client);
        break;
    case Kind::CreateMarker:
        markers << event.user;
        noteDirectory(home(event.user));
        break;
    case Kind::RemoveMarker:
        markers.remove(event.user);
        noteDirectory(home(event.user));
        break;
    case Kind::TouchHome:
        noteDirectory(home(event.user));
        break;
    case Kind::WritePolicy:
        write(policy, limit);
        break;
    case Kind::ReplacePolicy:
        replace(policy, limit);
        break;
    case Kind::PlantPolicy:
        plant(policy);
        break;
    case Kind::RemovePolicy:
        removeFile(policy);
        break;
    case Kind::WriteUserFile:
        write(ownFile, count);
        break;
    case Kind::ReplaceUserFile:
        replace(ownFile, count);
        break;
    case Kind::PlantUserFile:
        plant(ownFile);
        break;
    case Kind::RemoveUserFile:
        removeFile(ownFile);
        break;
    case Kind::TouchSharedDirectory:
        noteDirectory(shared);
        break;
    case Kind::WritePackagedPolicy:
        packagedPolicyThere = true;
        packagedLimit = limit;
        break;
    case Kind::RemovePackagedPolicy:
        packagedPolicyThere = false;
        packagedLimit.clear();
        break;
    default:
        break;
    }
}

uint socketOwner(const World &world, int choice)
{
    const auto owner = uint(world.get(Uid));
    switch (choice) {
    case Root:
        return 0;
    case OtherUser:
        return owner == bob ? alice : bob;
    default:
        return owner != 0 ? owner : alice;
    }
}

int socketPeer(const World &world, int choice)
{
    switch (choice) {
    case NobodyListens:
    case NotASocket:
        return nobody;
    case RootListens:
        return 0;
    case OtherListens:
        return int(socketOwner(world, OtherUser));
    default:
        return int(socketOwner(world, choice));
    }
}

/// All sockets of one listening process are one file.
void World::giveSockets(const Socket &given)
{
    for (Socket &aside : socketsAside) {
        if (aside.exists && aside.isSocket && aside.peer == given.peer)
            aside.owner = given.owner;
    }
}

// --- Files ----------------------------------------------------------------------------------------------------------

File World::fileAt(const QString &path) const
{
    return is(SharedThere) ? present.value(path) : File();
}

File World::userFileNow() const
{
    return values[FileUser] == nobody ? File() : fileAt(userFile(uint(values[FileUser])));
}

void World::createFile(const QString &path, const File &file)
{
    present.insert(path, file);
    noteDirectory(shared);
}

void World::removeFile(const QString &path)
{
    if (!present.contains(path))
        return;
    noteFile(path, true);
    present.remove(path);
    noteDirectory(shared);
}

void World::putUserFileAside()
{
    const QString path = userFile(uint(values[FileUser]));
    File file = present.value(path);
    removeFile(path);
    file.isWatched = false;
    for (int number = 0;; ++number) {
        const QString aside = QStringLiteral("%1.%2").arg(path).arg(number);
        if (!present.contains(aside)) {
            createFile(aside, file);
            return;
        }
    }
}

void World::changeGroup()
{
    File &file = present[userFile(uint(values[FileUser]))];
    if (file.group == uint(values[Gid]))
        return;
    file.group = uint(values[Gid]);
    noteFile(userFile(uint(values[FileUser])));
    noteDirectory(shared);
}

/// Writing replaces the file.
void World::writeCount()
{
    const QString path = userFile(uint(values[FileUser]));
    File file = present.value(path);
    const QString count = option(uint(values[FileUser]), Attempts).text;
    if (file.value == count && !file.value.isNull())
        return;
    file.value = count;
    file.isWatched = false;
    removeFile(path);
    createFile(path, file);
}

// --- Watches --------------------------------------------------------------------------------------------------------

void World::noteDirectory(const QString &path)
{
    if (watches.contains(path))
        changes.insert(path, changes.value(path));
}

void World::noteFile(const QString &path, bool isRemoval)
{
    if (watches.contains(path) && present.value(path).isWatched)
        changes.insert(path, isRemoval || changes.value(path));
}

void World::watch(const QString &path)
{
    if (watches.contains(path)
        || (path == shared ? !is(SharedThere) : path.startsWith(shared) && fileAt(path).type == File::None))
        return;
    watches << path;
    if (present.contains(path))
        present[path].isWatched = true;
}

/// Changes that are under way are lost with the watch.
void World::unwatch(const QString &path)
{
    watches.remove(path);
    changes.remove(path);
    batch.remove(path);
    const auto forget = [&path](QMap<QString, File> &files) {
        if (files.contains(path))
            files[path].isWatched = false;
    };
    forget(present);
    for (QMap<QString, File> &files : filesAside)
        forget(files);
}

/// The earlier watch does not matter. Only regular files are watched.
void World::watchAnew(const QString &path)
{
    unwatch(path);
    if (present.value(path).type != File::Planted)
        watch(path);
}

// --- Passing from user to user --------------------------------------------------------------------------------------

// A former user's directory is put aside as a whole and comes back in that user's next turn. What belongs to root or to
// the next user stays, unless the next user's directory has a file of that name.

void World::passClientDirectory()
{
    const auto user = uint(values[Uid]);
    const uint former = clientDirectory.owner;
    clientDirectory = {user, uint(values[Gid])};
    if (former == 0 || former == user) {
        noteDirectory(client);
        return;
    }
    Socket next = socketsAside.take(user);
    if (next.exists)
        situations << QStringLiteral("socket brought back");
    if (!next.exists && (socket.owner == 0 || socket.owner == user))
        std::swap(next, socket);
    if (socket.exists)
        journal << putAside.arg(client).arg(former);
    socketsAside.insert(former, socket);
    socket = next;
    unwatch(client);
    watch(client);
    unwatch(policy);
}

void World::passSharedDirectory()
{
    const auto user = uint(values[Uid]);
    const uint former = sharedExists ? sharedDirectory.owner : 0;
    sharedExists = true;
    sharedDirectory = {user, uint(values[Gid])};
    if (former == 0 || former == user) {
        noteDirectory(shared);
        return;
    }
    QMap<QString, File> next = filesAside.take(user);
    if (!next.isEmpty())
        situations << QStringLiteral("files brought back");
    QMap<QString, File> &aside = filesAside[former];
    for (auto file = present.cbegin(); file != present.cend(); ++file) {
        if ((file->owner != 0 && file->owner != user) || next.contains(file.key())) {
            aside.insert(file.key(), *file);
            continue;
        }
        noteFile(file.key(), true); // Moving a file ends its watch.
        File moved = *file;
        moved.isWatched = false;
        next.insert(file.key(), moved);
    }
    if (!aside.isEmpty())
        journal << putAside.arg(shared).arg(former);
    present = next;
    unwatch(shared);
    watch(shared);
    unwatch(policy);
}

} // namespace Sequences
