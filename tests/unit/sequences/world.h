// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include "event.h"
#include "rules.h"

#include <QPair>
#include <QSet>
#include <QVector>

#include <array>
#include <bitset>

namespace Sequences {

constexpr size_t maximumRows = 256;
constexpr uint clientGroup = 960;
constexpr int ofCertificates = 0; ///< In place of a credential.

/// A cause of a process's end: the exit code or the signal, and above it the kind.
constexpr int exitBy(int code)
{
    return code;
}
constexpr int crashBy(int signal)
{
    return signal + (CrashExit << 8);
}

/// The file at one path.
struct File
{
    enum Type { None, Regular, Planted } type = None;
    int plant = 0;
    uint owner = 0;
    uint group = 0;
    QString value; ///< Null without the key.
    bool isWatched = false; ///< By the watch of its path, if that still exists.

    bool operator==(const File &other) const;
};

/// The file at the path of the client's socket.
struct Socket
{
    bool exists = false;
    bool isSocket = false;
    uint owner = 0;
    int peer = nobody;

    bool operator==(const Socket &other) const;
};

/// Of a directory that changes users.
struct Ownership
{
    uint owner = 0;
    uint group = 0;

    bool operator==(const Ownership &other) const { return owner == other.owner && group == other.group; }
};

/// A stored option.
struct Value
{
    QString type;
    QString text;

    QString rendered() const { return type + QLatin1Char(' ') + text; }
    bool operator==(const Value &other) const { return type == other.type && text == other.text; }
};

/// A message on the link.
struct Message
{
    enum Type { Call, CertCall, Reply, CertReply, Cut, Flood } type;
    int credential = 0;
    int value = 0; ///< The user in a call, or the list of certificates.
    QString answer = {};

    bool operator==(const Message &other) const;
};

/// One state of the method and its surroundings, as plain data. The tables say what the method does; this class what
/// the kernel, the framework and the processes around it do with that.
class World
{
public:
    explicit World(const Setup &setup);

    /// Whether `event` can happen now.
    bool allows(const Event &event) const;
    /// What `event` does at once.
    void happen(const Event &event);
    /// The states to which the delivery of one thing that is under way leads; empty if nothing is.
    QVector<World> next() const;
    /// Those to which the next report of the client's process leads.
    QVector<World> afterProcess() const;
    bool operator==(const World &other) const;

    int get(Variable variable) const;
    bool is(Variable variable) const { return get(variable) == yes; }
    /// The value as in a log line.
    QString text(Variable variable) const;
    Value option(uint user, Option option) const;
    /// The calls to the client and to the wiper that have no outcome yet.
    int unfinishedCalls() const { return outstanding.size() + lost.size() + heldWipes.size() + wiperReplies.size(); }
    /// Whether the client's reply to a credential has not arrived yet.
    bool isReplyUnderWay() const;
    /// The files below the directories that change users.
    QStringList files() const;

    static QString nameOf(uint user);
    static QString nameOf(Option option);
    static QString home(uint user);
    static QString userFile(uint user);
    static QString pathOf(Place place, uint user);

    std::array<int, Values> values = {};

    // Since the last event that was not hurried
    QStringList journal; ///< Calls to the daemon and log lines.
    QString returned;
    std::bitset<maximumRows> rowsTaken;
    QSet<QString> situations;

    // Since the start
    QStringList calls;
    QStringList launches;
    QStringList wiperCalls;
    QVector<QPair<QString, int>> credentials; ///< The client's reply, and the kind of data.

    QVector<int> heldCalls; ///< Those of closed links included.
    QVector<uint> heldWipes;
    QSet<QString> watches;

private:
    template <typename Delivery>
    World after(const Delivery &delivery) const;
    QVector<World> afterEarlyEnd() const;
    void begin();
    void forgetSteps();

    // Interpreter
    void run(Step step);
    bool holds(const Condition &condition) const;
    void perform(const Effect &effect);

    // Deliveries
    void deliverChange(const QString &path, bool isRemoval);
    void deliver(const Message &message);
    /// Delivers the link's end, and leaves the given number of replies, which were sent before it, for later.
    void deliverEarly(const Message &end, int replies);
    void deliverLoss(int credential);
    void endProcess(int cause);

    // What the method causes
    void store(uint user, Option option, const Value &value);
    void startProcess();
    void signalProcess(int cause);
    void terminateProcess();
    void closeLink();
    void callWiper();
    void endAll();

    // Files and watches
    void putSocket(const Event &event);
    void changeFile(const Event &event);
    File fileAt(const QString &path) const;
    File userFileNow() const;
    void noteDirectory(const QString &path);
    void noteFile(const QString &path, bool isRemoval = false);
    void createFile(const QString &path, const File &file);
    void removeFile(const QString &path);
    void putUserFileAside();
    void changeGroup();
    void writeCount();
    void watch(const QString &path);
    void unwatch(const QString &path);
    void watchAnew(const QString &path);
    void passClientDirectory();
    void passSharedDirectory();
    void giveSockets(const Socket &socket);

    QString answer; ///< That has arrived.
    QMap<QPair<uint, int>, Value> options;

    // Under way
    QMap<QString, bool> changes; ///< Of watched paths, and whether the file is gone.
    QMap<QString, bool> batch; ///< Changes that were read together; they come in any order.
    QVector<Message> wire;
    QVector<int> lost; ///< Calls whose link has ended. They fail in any order.
    QVector<QPair<uint, int>> wiperReplies;
    QVector<int> causes; ///< Of the process's end, any of which may come first: code, and above it the kind.
    QVector<int> outstanding; ///< On the present link.

    // Files
    bool sharedExists;
    Ownership clientDirectory;
    Ownership sharedDirectory;
    Socket socket;
    QMap<uint, Socket> socketsAside; ///< By the user whose turn is over.
    QMap<QString, File> present;
    QMap<uint, QMap<QString, File>> filesAside; ///< By the user whose turn is over.
    QSet<uint> markers;
    bool packagedPolicyThere;
    QString packagedLimit;
};

/// The owner and the listener of the socket of a choice, in a world.
uint socketOwner(const World &world, int choice);
int socketPeer(const World &world, int choice);

} // namespace Sequences
