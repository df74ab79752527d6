// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#include "world.h"

#include <QHash>

#include <algorithm>
#include <csignal>

namespace Sequences {

const Table &rules()
{
    static const Table all = [] {
        Table rows;
        for (const Table &(*table)() : {flowRules, linkRules, clientRules, sessionRules, watchingRules, settingsRules})
            rows.insert(rows.end(), table().cbegin(), table().cend());
        return rows;
    }();
    return all;
}

QString nameOfRow(size_t number)
{
    size_t first = number;
    while (first > 0 && rules().at(first - 1).step == rules().at(number).step)
        --first;
    return QStringLiteral("%1, row %2").arg(QLatin1String(rules().at(number).step)).arg(number - first + 1);
}

namespace {

/// The numbers of the rows of `step`.
QVector<int> rowsOf(Step step)
{
    static const QHash<Step, QVector<int>> rows = [] {
        QHash<Step, QVector<int>> found;
        for (size_t row = 0; row < rules().size(); ++row)
            found[rules().at(row).step] << int(row);
        return found;
    }();
    return rows.value(step);
}

} // namespace

void World::run(Step step)
{
    const QVector<int> rows = rowsOf(step);
    for (const int number : rows) {
        const Row &row = rules().at(size_t(number));
        const bool applies = std::all_of(row.conditions.cbegin(), row.conditions.cend(),
                                         [this](const Condition &condition) { return holds(condition); });
        if (!applies)
            continue;
        rowsTaken.set(size_t(number));
        for (const Effect &effect : row.effects)
            perform(effect);
        return;
    }
}

bool World::holds(const Condition &condition) const
{
    const auto other = Variable(condition.value);
    switch (condition.relation) {
    case Condition::Is:
        return get(condition.variable) == condition.value;
    case Condition::IsNot:
        return get(condition.variable) != condition.value;
    case Condition::IsMore:
        return get(condition.variable) > condition.value;
    case Condition::Same:
        return get(condition.variable) == get(other);
    case Condition::Differ:
        return get(condition.variable) != get(other);
    case Condition::Says:
        return text(condition.variable) == QLatin1String(condition.text);
    }
    return false;
}

void World::perform(const Effect &effect)
{
    const auto line = [this, &effect] {
        QString filled = QString::fromLatin1(effect.text);
        for (const Variable argument : effect.arguments)
            filled = filled.arg(text(argument));
        return filled;
    };
    const auto subject = size_t(effect.subject);
    const auto path = [this, &effect] {
        const auto place = Place(effect.subject);
        return pathOf(place, uint(values[place == Home ? HomeUser : FileUser]));
    };

    switch (effect.verb) {
    case Set:
        values[subject] = effect.value;
        break;
    case Copy:
        values[subject] = get(Variable(effect.value));
        break;
    case Decrement:
        --values[subject];
        break;
    case Run:
        run(effect.text);
        break;
    case Write:
        journal << line();
        break;
    case Return:
        returned = line();
        break;
    case StoreCount:
        store(effect.value == Values ? 0 : uint(get(Variable(effect.value))), Option(effect.subject),
              {QStringLiteral("int"), text(Count)});
        break;
    case StoreMark:
        store(uint(values[subject]), Deletion,
              {QStringLiteral("bool"), effect.value == yes ? QStringLiteral("true") : QStringLiteral("false")});
        break;
    case StorePolicyLimit:
        store(0, MaxAttempts, {QStringLiteral("QString"), fileAt(pathOf(PolicyFile, 0)).value});
        break;
    case StorePackagedLimit:
        store(0, MaxAttempts,
              packagedLimit.isNull() ? Value{QStringLiteral("int"), QStringLiteral("0")}
                                     : Value{QStringLiteral("QString"), packagedLimit});
        break;
    case StoreFileCount: {
        const File file = userFileNow();
        const bool doesCount = file.type == File::Regular && !file.value.isNull()
                               && (file.owner == 0 || int(file.owner) == values[FileUser]);
        store(uint(values[FileUser]), Attempts,
              doesCount ? Value{QStringLiteral("QString"), file.value}
                        : Value{QStringLiteral("int"), QStringLiteral("0")});
        break;
    }
    case Watch:
        watch(path());
        break;
    case WatchAnew:
        watchAnew(path());
        break;
    case Unwatch:
        unwatch(path());
        break;
    case PassClientDirectory:
        passClientDirectory();
        break;
    case PassSharedDirectory:
        passSharedDirectory();
        break;
    case CreateUserFile:
        createFile(userFile(uint(values[FileUser])),
                   {File::Regular, 0, uint(values[Uid]), uint(values[Gid]), QString()});
        break;
    case PutUserFileAside:
        putUserFileAside();
        break;
    case ChangeGroupOfUserFile:
        changeGroup();
        break;
    case WriteUserFile:
        writeCount();
        break;
    case RemoveSocketFile:
        if (is(SocketThere)) {
            socket = {};
            noteDirectory(pathOf(ClientDirectory, 0));
        }
        break;
    case StartProcess:
        startProcess();
        break;
    case KillProcess:
        signalProcess(crashBy(SIGKILL));
        break;
    case TerminateProcess:
        terminateProcess();
        break;
    case OpenLink:
        values[LinkOpen] = yes;
        break;
    case CloseLink:
        closeLink();
        break;
    case SendCall:
        outstanding << values[Sending];
        wire << Message{Message::Call, values[Sending], values[User]};
        break;
    case SendCertCall:
        outstanding << ofCertificates;
        wire << Message{Message::CertCall};
        break;
    case CallWiper:
        callWiper();
        break;
    case EndAll:
        endAll();
        break;
    }
}

int World::get(Variable variable) const
{
    if (variable < Values)
        return values[variable];
    const auto policyFile = [this] {
        return fileAt(pathOf(PolicyFile, 0));
    };
    const auto isKnown = [](int user) {
        return !nameOf(uint(user)).isNull();
    };
    switch (variable) {
    case UserKnown:
        return isKnown(values[User]);
    case EventUserKnown:
        return isKnown(values[EventUser]);
    case GroupId:
        return values[GroupMode] == Normal ? int(clientGroup) : 0;
    case SharedThere:
        return sharedExists && values[SharedBlocked] == no;
    case SocketThere:
        return values[DirectoryAway] == no && socket.exists;
    case SocketIsSocket:
        return socket.isSocket;
    case SocketOwner:
        return int(socket.owner);
    case Listener:
        return socket.isSocket ? socket.peer : nobody;
    case UserFileThere:
        return userFileNow().type != File::None;
    case UserFileRegular:
        return userFileNow().type == File::Regular;
    case UserFileOwner:
        return int(userFileNow().owner);
    case PolicyThere:
        return policyFile().type != File::None;
    case PolicyCounts:
        return policyFile().type != File::None
               && (policyFile().owner == 0 || int(policyFile().owner) == values[PolicyFor]);
    case PolicyReadable:
        return policyFile().type == File::Regular && !policyFile().value.isNull();
    case PackagedPolicy:
        return packagedPolicyThere;
    case MethodSettings:
        // Options that belong to no user come first.
        return !options.isEmpty() && options.firstKey().first == 0;
    case Limit:
        return option(0, MaxAttempts).text.toInt();
    case LimitIsNumber:
        return option(0, MaxAttempts).type == QLatin1String("int");
    case MarkerThere:
        return markers.contains(uint(values[EventUser]));
    case HomeMarkerThere:
        return markers.contains(uint(values[HomeUser]));
    case DeletionMarked:
        return option(uint(values[EventUser]), Deletion).text == QLatin1String("true");
    default:
        qFatal("There is no value of variable %d", variable);
    }
}

QString World::text(Variable variable) const
{
    const auto quoted = [](const QString &text) -> QString {
        return QLatin1Char('"') + text + QLatin1Char('"');
    };
    const auto methodOf = [this](int credential) {
        return credentials.at(credential - 1).second == CertAndPin ? QStringLiteral("validateCert")
                                                                   : QStringLiteral("checkPassword");
    };
    switch (variable) {
    case Answer:
        return answer;
    case UserFilePath:
        return quoted(userFile(uint(values[FileUser])));
    case AsidePath:
        return quoted(userFile(uint(values[FileUser])) + QStringLiteral(".UNIQUE"));
    case HomePath:
        return quoted(home(uint(values[HomeUser])));
    case SendingMethod:
        return methodOf(values[Sending]);
    case ArrivedMethod:
        return methodOf(values[Arrived]);
    case CertsReturned:
        return values[Outcome] == yes ? QStringLiteral(".") : QString();
    default:
        return QString::number(get(variable));
    }
}

} // namespace Sequences
