// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#include "world.h"

#include <algorithm>
#include <csignal>
#include <tuple>

namespace Sequences {

// --- Deliveries -----------------------------------------------------------------------------------------------------

void World::deliverChange(const QString &path, bool isRemoval)
{
    if (isRemoval)
        unwatch(path);
    if (path == pathOf(ClientDirectory, 0))
        run(clientDirectoryChanged);
    else if (path == pathOf(SharedDirectory, 0) && is(SharedKnown))
        run(sharedDirectoryChanged);
    else if (path == home(uint(values[HomeUser])))
        run(homeChanged);
    else if (path == userFile(uint(values[FileUser])) && values[Uid] != 0)
        run(userFileChanged);
    else if (path == pathOf(PolicyFile, 0))
        run(policyChanged);
}

void World::deliver(const Message &message)
{
    const auto lose = [this](const QString &situation) {
        situations << situation;
        closeLink();
    };
    values[Arrived] = message.credential;
    switch (message.type) {
    case Message::Call: {
        // What the client does
        const QPair<QString, int> &data = credentials.at(message.credential - 1);
        const QString credential = QStringLiteral("%1#%2").arg(data.first).arg(message.credential);
        const QString user = nameOf(uint(message.value));
        calls << (data.second == CertAndPin ? QStringLiteral("validateCert(pkcs11:one,%1,%2)").arg(user, credential)
                                            : QStringLiteral("checkPassword(%1,%2)").arg(user, credential));
        if (data.first == QLatin1String("<hold>") || data.first == QLatin1String("<die>")) {
            heldCalls << message.credential;
            if (data.first == QLatin1String("<die>"))
                signalProcess(crashBy(SIGKILL));
        } else if (data.first == QLatin1String("<drop>")) {
            wire << Message{Message::Cut};
        } else if (data.first == QLatin1String("<flood>")) {
            wire << Message{Message::Flood};
        } else {
            wire << Message{Message::Reply, message.credential, 0, data.first};
        }
        break;
    }
    case Message::CertCall:
        calls << QStringLiteral("getCertList()");
        if (values[CertsMode] == HoldCerts)
            ++values[CertsHeld];
        else
            wire << Message{Message::CertReply, ofCertificates, values[CertsMode]};
        break;
    case Message::Reply:
        outstanding.removeOne(message.credential);
        answer = message.answer;
        run(callAnswered);
        break;
    case Message::CertReply:
        outstanding.removeOne(ofCertificates);
        values[CertsReply] = message.value;
        run(certificatesAnswered);
        break;
    case Message::Cut:
        lose(QStringLiteral("link cut"));
        break;
    case Message::Flood:
        run(linkFlooded);
        break;
    }
}

void World::deliverEarly(const Message &end, int replies)
{
    const QVector<Message> late = wire.mid(0, replies);
    deliver(end);
    for (const Message &reply : late) {
        lost.removeOne(reply.credential);
        outstanding << reply.credential;
        wire << reply;
    }
}

void World::deliverLoss(int credential)
{
    values[Arrived] = credential;
    values[CertsReply] = CertsLost;
    run(credential == ofCertificates ? certificatesAnswered : callLost);
}

void World::endProcess(int cause)
{
    if (isReplyUnderWay())
        situations << QStringLiteral("reply overtaken");
    values[ExitCode] = cause & 0xff;
    values[ExitStatus] = cause >> 8;
    causes.clear();
    values[Stopped] = values[TermPending] = no;
    run(processEnded);
}

// --- What the method causes -----------------------------------------------------------------------------------------

void World::store(uint user, Option option, const Value &value)
{
    const QPair<uint, int> key(user, option);
    if (options.contains(key) && options.value(key) == value)
        return;
    options.insert(key, value);
    if (is(DaemonListens))
        journal << QStringLiteral("optionChanged %1 %2 %3").arg(user).arg(nameOf(option), value.rendered());
}

void World::startProcess()
{
    if (values[Process] != NotRunning)
        return;
    values[Process] = Starting;
    values[ProcessMode] = values[LauncherMode];
    values[ServedUser] = values[User];
    const int gid = values[Gid];
    const int uid = values[Uid];
    run(processStarting);
    if (values[ProcessMode] == IsMissing)
        return;
    launches << QStringLiteral("%1:%2").arg(uid).arg(gid);
    if (values[ProcessMode] == ExitsAtOnce)
        causes << exitBy(0);
    else if (values[ProcessMode] == FailsAtOnce)
        causes << exitBy(3);
}

void World::signalProcess(int cause)
{
    if (values[Process] != NotRunning && !causes.contains(cause))
        causes << cause;
}

void World::terminateProcess()
{
    if (values[ProcessMode] == IgnoresTerm)
        situations << QStringLiteral("termination ignored");
    else if (is(Stopped))
        values[TermPending] = yes;
    else
        signalProcess(crashBy(SIGTERM));
}

/// What is under way is lost; the calls fail later.
void World::closeLink()
{
    values[LinkOpen] = no;
    lost += outstanding;
    wire.clear();
    outstanding.clear();
    values[CertsHeld] = 0;
}

void World::callWiper()
{
    const auto user = uint(values[EventUser]);
    if (values[WiperMode] != NoWiper)
        wiperCalls << nameOf(user);
    if (values[WiperMode] == WiperHolds)
        heldWipes << user;
    else
        wiperReplies.append({user, values[WiperMode]});
}

void World::endAll()
{
    for (const Variable ended : {Process, Stopped, TermPending, LinkOpen, CertsHeld, ResumeQueued})
        values[ended] = no;
    causes.clear();
    outstanding.clear();
    wire.clear();
    lost.clear();
    heldCalls.clear();
    heldWipes.clear();
    wiperReplies.clear();
    changes.clear();
}

bool World::operator==(const World &other) const
{
    const auto all = [](const World &world) {
        return std::tie(world.values, world.journal, world.returned, world.calls, world.launches, world.wiperCalls,
                        world.heldCalls, world.heldWipes, world.watches, world.answer, world.options, world.changes,
                        world.batch, world.wire, world.lost, world.wiperReplies, world.causes, world.outstanding,
                        world.clientDirectory, world.sharedDirectory, world.socket, world.socketsAside, world.present,
                        world.filesAside);
    };
    return all(*this) == all(other);
}

} // namespace Sequences
