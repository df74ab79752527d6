// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#include "model.h"

#include <utility>

namespace Sequences {

namespace {

const QString clientDirectory = QStringLiteral("/run/aux-auth/tarsk/kavet_client");
const QString shared = QStringLiteral("/srv/shared/tarsk/kavet_client");
const QString policy = QStringLiteral("/srv/shared/tarsk/kavet_client/current.conf");
const QString socketName = QStringLiteral("kavet.socket");
const QString attempts = QStringLiteral("attempts");
const QString maxAttempts = QStringLiteral("max-attempts");
const QString deletion = QStringLiteral("delayed-deletion");
constexpr uint clientGroup = 960;
constexpr uint fullBudget = 11;

QString loginName(uint user)
{
    static const QMap<uint, QString> names = {{0, QStringLiteral("root")},
                                              {1000, QStringLiteral("alice")},
                                              {1001, QStringLiteral("bob")},
                                              {1002, QStringLiteral("carol")}};
    return names.value(user);
}

QString answerTo(const QString &credential)
{
    return credential.left(credential.indexOf(QLatin1Char('#')));
}

} // namespace

Model::Model(const Setup &setup)
    : m_manifest(setup.manifest)
    , m_manifestIsLink(setup.manifestIsLink)
    , m_sharedExists(setup.sharedDirectory)
    , m_markers({1000, 1001})
{
    if (setup.packagedPolicy)
        m_packagedPolicy = limits.first();
    if (setup.currentPolicy)
        put(policy, {File::Regular, 0, 0, alice, clientGroup, limits.at(1)});
    construct();
}

// --- Events ---------------------------------------------------------------------------------------------------------

bool Model::allows(const Event &event) const
{
    const auto possible = [this, &event] {
        switch (event.kind) {
        case Kind::EndClient:
            return m_process != NotRunning && m_processKind != IsMissing && !m_dying;
        case Kind::StopClient:
            return m_process == Running && !m_dying && !event.hurried;
        case Kind::PutSocket:
        case Kind::TouchClientDirectory:
            return !m_clientDirectoryAway;
        case Kind::RemoveSocket:
        case Kind::ChangeSocketOwner:
            return !m_clientDirectoryAway && m_socket.exists;
        case Kind::DropLink:
            // The end of the link is delivered in order with all other events.
            return m_connected && !event.hurried && !m_dying && m_process != Starting && m_changedDirectories.isEmpty()
                   && m_changedFiles.isEmpty();
        case Kind::Reply:
            return !m_heldCalls.isEmpty();
        case Kind::ReplyCerts:
            return m_certsHeld > 0 && event.variant != HoldCerts;
        case Kind::ReplyWiper:
            // Without a mark to clear, a success leaves no trace.
            return !m_heldWipes.isEmpty() && (!event.flag || option(m_heldWipes.first(), deletion).toBool());
        case Kind::WritePolicy:
        case Kind::PlantPolicy:
        case Kind::WriteUserFile:
        case Kind::PlantUserFile:
        case Kind::TouchSharedDirectory:
            return sharedThere();
        case Kind::ReplacePolicy:
            return sharedThere() && m_files.value(policy).type == File::Regular;
        case Kind::ReplaceUserFile:
            return sharedThere() && m_files.value(userFile(event.user)).type == File::Regular;
        case Kind::RemovePolicy:
            return sharedThere() && m_files.contains(policy);
        case Kind::RemoveUserFile:
            return sharedThere() && m_files.contains(userFile(event.user));
        case Kind::RemovePackagedPolicy:
            return m_packagedPolicy.has_value();
        case Kind::CreateMarker:
            return isKnown(event.user) && !m_markers.contains(event.user);
        case Kind::RemoveMarker:
            return m_markers.contains(event.user);
        case Kind::TouchHome:
            return isKnown(event.user);
        case Kind::SetLauncher:
        case Kind::Repair:
            return m_process != Starting || m_processKind != IsMissing; // The launcher might be found just in time.
        case Kind::Restart:
            return !m_clientDirectoryAway;
        default:
            return true;
        }
    };
    if (!possible())
        return false;

    Model after = *this;
    after.act(event);
    if (after.orderMatters())
        return false;
    if (event.hurried)
        return !after.m_ambiguous && !after.m_loopNeeded && after.m_arrivals.isEmpty() && after.m_wiped.isEmpty();
    after.settle();
    return !after.m_ambiguous;
}

/// Simultaneous changes are reported in any order. A change of the home directory may launch a client, which writes the
/// user's file and ends another user's turn.
bool Model::orderMatters() const
{
    return m_changedDirectories.contains(m_homeDirectory)
           && (m_changedDirectories.contains(shared) || m_changedFiles.contains(m_userConfigPath)
               || m_changedFiles.contains(policy) || m_changedDirectories.contains(policy));
}

QVector<Kind> Model::next() const
{
    QVector<Kind> kinds;
    if (m_running && !m_socketPresent)
        kinds += QVector<Kind>(30, Kind::PutSocket);
    if (m_connected)
        kinds += QVector<Kind>(20, Kind::Authenticate) + QVector<Kind>(3, Kind::DropLink)
                 + QVector<Kind>(m_certsAnswer == HoldCerts ? 20 : 4, Kind::FetchCerts);
    if (!m_outstanding.isEmpty())
        kinds += QVector<Kind>(15, Kind::Reply) + QVector<Kind>(8, Kind::Authenticate) + QVector<Kind>(4, Kind::Reset)
                 + QVector<Kind>(4, Kind::StartSession);
    else if (!m_heldCalls.isEmpty())
        kinds += QVector<Kind>(3, Kind::Reply);
    if (m_connected)
        kinds += QVector<Kind>(3, Kind::StopClient);
    if (m_starting)
        kinds += QVector<Kind>(8, Kind::StartSession);
    if (m_certsHeld > 0)
        kinds += QVector<Kind>(15, Kind::ReplyCerts) + QVector<Kind>(8, Kind::FetchCerts);
    if (!m_heldWipes.isEmpty())
        kinds += QVector<Kind>(15, Kind::ReplyWiper);
    if (m_process == NotRunning && m_launcher == IgnoresTerm)
        kinds += QVector<Kind>(30, Kind::Authenticate);
    if (m_running && m_processKind == IgnoresTerm)
        kinds += QVector<Kind>(15, Kind::StopSession);
    if (m_wiper == WiperHolds)
        kinds += QVector<Kind>(20, Kind::MarkForDeletion);
    if (option(alice, deletion).toBool())
        kinds += QVector<Kind>(m_wiper == WiperHolds ? 30 : 6, Kind::StartSession);
    if (m_watches.contains(m_homeDirectory))
        kinds += QVector<Kind>(8, Kind::CreateMarker) + QVector<Kind>(4, Kind::TouchHome);
    return kinds;
}

uint Model::delayedUser() const
{
    for (const uint user : {0U, 1000U, 1001U, 1002U}) {
        if (m_watches.contains(m_homeDirectory) && home(user) == m_homeDirectory)
            return user;
    }
    return alice;
}

void Model::apply(const Event &event)
{
    act(event);
    if (!event.hurried)
        settle();
}

void Model::act(const Event &event)
{
    const uint planter = event.flag ? event.user : 0;
    const auto plant = [this, &event, planter](const QString &path, uint other) {
        if (m_files.contains(path))
            removeFile(path);
        if (event.variant == FileOfOther)
            createFile(path, {File::Regular, 0, 0, other, other, QStringLiteral("5")});
        else
            createFile(path, {File::Planted, event.variant, 0, planter, planter, QString()});
    };
    const uint group = m_group == Normal ? clientGroup : 0;
    const auto write = [this, group](const QString &path, uint owner, const QString &value) {
        if (m_files.value(path).type == File::Regular) {
            writeFile(path, value);
            return;
        }
        if (m_files.contains(path))
            removeFile(path);
        createFile(path, {File::Regular, 0, 0, owner, group, value});
    };
    const auto replace = [this, group](const QString &path, uint owner, const QString &value) {
        removeFile(path);
        createFile(path, {File::Regular, 0, 0, owner, group, value});
    };
    const uint other = event.user == bob ? alice : bob;

    m_returned.clear();
    m_atOnce.clear();
    m_loopNeeded = false;
    switch (event.kind) {
    case Kind::Authenticate:
        // One user's outcome would be taken for another's.
        if (event.user != m_currentUid)
            m_current.clear();
        m_currentUid = event.user;
        m_pending = Data{event.variant, event.answer + QLatin1Char('#') + QString::number(++m_credentials)};
        makeAuth();
        break;
    case Kind::Reset:
        m_pending.reset();
        m_current.clear();
        m_currentUid = 0;
        m_budget = fullBudget;
        m_stage = m_running ? MustConnect + int(m_socketPresent) : MustLaunch;
        if (m_stage == Linked && !m_connected)
            m_situations << QStringLiteral("last stage without a link");
        break;
    case Kind::EndClient:
        m_dying = true;
        break;
    case Kind::StopClient:
        m_stopped = !m_stopped;
        m_dying = !m_stopped && m_termPending;
        break;
    case Kind::PutSocket:
        m_socket = {true, event.variant < LinkToSocket, socketOwner(event.variant), socketPeer(event.variant)};
        if (event.variant != NotASocket)
            giveSockets(m_socket.peer, m_socket.owner);
        noteDirectory(clientDirectory);
        break;
    case Kind::RemoveSocket:
        m_socket = {};
        noteDirectory(clientDirectory);
        break;
    case Kind::ChangeSocketOwner:
        m_socket.owner = socketOwner(event.variant);
        if (m_socket.isSocket)
            giveSockets(m_socket.peer, m_socket.owner);
        noteDirectory(clientDirectory);
        break;
    case Kind::TouchClientDirectory:
        noteDirectory(clientDirectory);
        break;
    case Kind::DropLink:
        loseLink();
        break;
    case Kind::Reply: {
        const QString credential = m_heldCalls.takeAt(event.variant % m_heldCalls.size());
        if (m_outstanding.removeOne(credential))
            m_arrivals << Arrival{Arrival::Answer, credential, lateAnswer(event.answer)};
        else
            m_situations << QStringLiteral("answered after the link");
        break;
    }
    case Kind::FetchCerts:
        m_returned = getCertList().join(QLatin1Char(','));
        break;
    case Kind::SetCertsAnswer:
        m_certsAnswer = event.variant;
        break;
    case Kind::ReplyCerts:
        --m_certsHeld;
        m_arrivals << Arrival{Arrival::Certs, QString(), QString(), event.variant};
        break;
    case Kind::StartSession:
        startSession(event.user, event.flag);
        break;
    case Kind::StopSession:
        stopSession(event.flag);
        break;
    case Kind::CreateMarker:
        m_markers << event.user;
        noteDirectory(home(event.user));
        break;
    case Kind::RemoveMarker:
        m_markers.remove(event.user);
        noteDirectory(home(event.user));
        break;
    case Kind::TouchHome:
        noteDirectory(home(event.user));
        break;
    case Kind::WritePolicy:
        write(policy, event.user, limits.at(event.variant % limits.size()));
        break;
    case Kind::ReplacePolicy:
        replace(policy, event.user, limits.at(event.variant % limits.size()));
        break;
    case Kind::PlantPolicy:
        plant(policy, other);
        break;
    case Kind::RemovePolicy:
        removeFile(policy);
        break;
    case Kind::WriteUserFile:
        write(userFile(event.user), event.user, counts.at(event.variant % counts.size()));
        break;
    case Kind::ReplaceUserFile:
        replace(userFile(event.user), event.user, counts.at(event.variant % counts.size()));
        break;
    case Kind::PlantUserFile:
        plant(userFile(event.user), other);
        break;
    case Kind::RemoveUserFile:
        removeFile(userFile(event.user));
        break;
    case Kind::TouchSharedDirectory:
        noteDirectory(shared);
        break;
    case Kind::WritePackagedPolicy:
        m_packagedPolicy = limits.at(event.variant % limits.size());
        break;
    case Kind::RemovePackagedPolicy:
        m_packagedPolicy.reset();
        break;
    case Kind::RemoveMethodSettings:
        for (auto option = m_options.begin(); option != m_options.end();)
            option = option.key().first == 0 ? m_options.erase(option) : option + 1;
        break;
    case Kind::SetLimit:
        setOption(0, maxAttempts, integer(limits.at(event.variant % limits.size()).toInt()));
        break;
    case Kind::LockPartition:
        m_partitionLocked = true;
        break;
    case Kind::UnlockPartition:
        m_partitionLocked = false;
        break;
    case Kind::IncreaseAttempts: {
        const int result = increaseAttempts(event.user);
        m_returned = QString::number(result) + QLatin1Char(':') + m_atOnce.join(QLatin1Char(';'));
        break;
    }
    case Kind::ResetAttempts:
        setOption(event.user, attempts, integer(0));
        m_returned = m_atOnce.join(QLatin1Char(';'));
        break;
    case Kind::GetAttempts: {
        const int limit = option(0, maxAttempts).toInt();
        if (limit != 0 && event.user == 0)
            getCertList();
        m_returned = QString::number(limit == 0 ? 1 : limit);
        break;
    }
    case Kind::MarkForDeletion:
        setOption(event.user, deletion, {QStringLiteral("bool"), QStringLiteral("true")});
        break;
    case Kind::SetLauncher:
        m_launcher = event.variant;
        break;
    case Kind::SetGroup:
        m_group = event.variant;
        break;
    case Kind::MoveClientDirectory:
        m_clientDirectoryAway = !m_clientDirectoryAway;
        break;
    case Kind::BlockSharedDirectory:
        m_sharedBlocked = !m_sharedBlocked;
        break;
    case Kind::SetManifest:
        m_manifest = event.variant;
        break;
    case Kind::SetWiper:
        m_wiper = event.variant;
        break;
    case Kind::ReplyWiper: {
        const uint user = m_heldWipes.takeFirst();
        if (event.flag)
            m_wiped << user;
        break;
    }
    case Kind::Repair:
        m_partitionLocked = false;
        m_launcher = Works;
        m_group = Normal;
        m_clientDirectoryAway = false;
        m_sharedBlocked = false;
        m_manifest = Stock;
        break;
    case Kind::Restart:
        destroy();
        construct();
        break;
    case Kind::Count:
        break;
    }
}

void Model::settle()
{
    for (;;) {
        deliverChanges();
        if (m_process == Starting && m_processKind == IsMissing) {
            processFailedToStart();
        } else if (m_process == Starting) {
            processStarted();
        } else if (m_process == Running && m_dying) {
            processEnded();
        } else if (!m_arrivals.isEmpty()) {
            const Arrival arrival = m_arrivals.takeFirst();
            switch (arrival.type) {
            case Arrival::Answer:
                handleReply(arrival.credential, arrival.answer);
                break;
            case Arrival::Certs:
                handleCerts(arrival.certs);
                break;
            case Arrival::LinkGone:
                callsLost(arrival.lost, arrival.certs);
                break;
            }
        } else if (!m_wiped.isEmpty()) {
            m_situations << QStringLiteral("data removed");
            setOption(m_wiped.takeFirst(), deletion, {QStringLiteral("bool"), QStringLiteral("false")});
        } else {
            return;
        }
    }
}

void Model::construct()
{
    m_wired = false;
    m_stage = MustLaunch;
    m_currentUid = 0;
    m_pending.reset();
    m_current.clear();
    m_budget = fullBudget;
    m_certsInFlight = m_certsPending = false;
    m_uid = m_gid = 0;
    m_starting = m_running = m_socketPresent = false;
    m_sharedDirectory = m_userConfigPath = m_homeDirectory = QString();
    m_organizationKnown = m_commandKnown = false;
    m_manifestExists = m_manifestParsed = m_isSymLink = false;
    m_watches.clear();
    m_refusalTold = false;
    m_sessionUser = 0;

    if (m_manifestIsLink) {
        m_manifestExists = m_isSymLink = true;
        m_wired = m_manifest == NoManifest || parseManifest();
    } else {
        m_manifestExists = m_manifest != NoManifest;
        m_wired = m_manifestExists && parseManifest();
    }
    if (!m_wired) {
        m_situations << QStringLiteral("inert");
        return;
    }
    watch(clientDirectory);
    if (!m_sharedDirectory.isEmpty())
        watch(shared);
    if (m_packagedPolicy) {
        const auto told = m_optionsTold;
        if (!methodSettingsStored())
            takePackagedLimit();
        m_optionsTold = told; // No daemon is connected yet.
    }
}

void Model::destroy()
{
    if (policyCounts(policyUser()))
        takeLimit(policyUser());
    m_process = NotRunning;
    m_dying = m_stopped = m_termPending = false;
    m_connected = false;
    m_outstanding.clear();
    m_heldCalls.clear();
    m_certsHeld = 0;
    m_heldWipes.clear();
    m_changedDirectories.clear();
    m_changedFiles.clear();
}

// --- The authentication ---------------------------------------------------------------------------------------------

void Model::makeAuth()
{
    for (;;) {
        if (m_partitionLocked) {
            m_situations << QStringLiteral("partition locked");
            requestInput(WithoutConnection, Success);
            return;
        }
        if (m_currentUid == 0)
            return;
        if (m_process != NotRunning && m_clientUid != m_currentUid) {
            if (m_clientUid != 0) {
                m_situations << (m_starting        ? QStringLiteral("another user's client killed while starting")
                                 : m_stopped       ? QStringLiteral("another user's stopped client killed")
                                 : m_connected     ? QStringLiteral("another user's linked client killed")
                                 : m_socketPresent ? QStringLiteral("another user's client killed before the link")
                                                   : QStringLiteral("another user's client killed before its socket"));
                if (m_processKind == IgnoresTerm)
                    m_situations << QStringLiteral("another user's stubborn client killed");
                if (m_uid == m_currentUid)
                    m_situations << QStringLiteral("another user's client killed after a launch was delayed");
            } else {
                m_situations << QStringLiteral("waited for a client to end");
            }
            kill();
            return;
        }
        if (m_starting) {
            m_situations << QStringLiteral("asked while starting");
            return;
        }
        if (m_stage == MustLaunch) {
            if (!launch()) {
                requestInput(Connecting, CannotStartClient);
                return;
            }
            m_stage = MustConnect;
        } else if (m_stage == MustConnect) {
            if (!connectToClient()) {
                requestInput(Connecting, CannotConnectClient);
                return;
            }
            m_stage = Linked;
        } else {
            if (!m_pending) {
                requestInput(EnterPasswordOrPin, Success);
                return;
            }
            const Data data = *m_pending;
            m_pending.reset();
            if (data.kind == Password || data.kind == PasswordAndPin)
                callClient(QStringLiteral("checkPassword"), {loginName(m_currentUid), data.credential},
                           data.credential);
            else if (data.kind == CertAndPin)
                callClient(QStringLiteral("validateCert"),
                           {QStringLiteral("pkcs11:one"), loginName(m_currentUid), data.credential}, data.credential);
            else
                requestInput(EnterPasswordOrPin, Success);
            return;
        }
    }
}

void Model::handleReply(const QString &credential, const QString &answer)
{
    if (credential != m_current) {
        dropReply();
        return;
    }
    m_current.clear();
    handleAnswer(answer);
}

void Model::dropReply()
{
    m_situations << QStringLiteral("reply dropped");
    ++m_dropped;
}

void Model::handleAnswer(const QString &answer)
{
    static const QMap<QString, int> codes = {{QStringLiteral("success"), Success},
                                             {QStringLiteral("<many>"), Success},
                                             {QStringLiteral("lock"), 6},
                                             {QStringLiteral("remove"), 7},
                                             {QStringLiteral("nousb"), 9},
                                             {QStringLiteral("connerr"), 10},
                                             {QStringLiteral("failed"), 11},
                                             {QStringLiteral("firstcererr"), 12},
                                             {QStringLiteral("errauthtype"), 14},
                                             {QStringLiteral("<error>"), CannotCommunicateClient},
                                             {QStringLiteral("<number>"), CannotCommunicateClient},
                                             {QStringLiteral("<nothing>"), CannotCommunicateClient}};
    const int code = codes.value(answer, 11);
    m_situations << QStringLiteral("outcome %1").arg(code);
    if (code == Success)
        tell(QStringLiteral("succeed"));
    else
        requestInput(EnterPasswordOrPin, code);
}

void Model::requestInput(Request request, int code)
{
    tell((code == Success ? QStringLiteral("inputRequested %1/%2") : QStringLiteral("finish false %1/%2"))
             .arg(request)
             .arg(code));
}

bool Model::connectToClient()
{
    if (!m_running || !m_socketPresent)
        return false;
    if (m_connected)
        return true;
    if (m_clientUid == 0) {
        m_situations << QStringLiteral("no link to a client being killed");
        return false;
    }
    if (m_clientDirectoryAway || !m_socket.exists || !m_socket.isSocket || m_socket.peer == nobody) {
        m_situations << QStringLiteral("connection refused");
        return false;
    }
    if (m_socket.peer != 0 && m_socket.peer != (m_currentUid == 0 ? m_clientUid : m_currentUid)) {
        m_situations << QStringLiteral("another user listens");
        return false;
    }
    m_situations << (m_socket.peer == 0 ? QStringLiteral("root listens") : QStringLiteral("linked"));
    m_connected = true;
    if (m_certsPending) {
        m_certsPending = false;
        m_situations << QStringLiteral("certificates fetched once linked");
        getCertList();
    }
    return true;
}

void Model::callClient(const QString &method, const QStringList &arguments, const QString &credential)
{
    if (!m_connected) {
        if (!connectToClient()) {
            m_situations << QStringLiteral("no link at the last stage");
            requestInput(EnterPasswordOrPin, CannotCommunicateClient);
            return;
        }
        m_situations << QStringLiteral("link made at the last stage");
    }
    m_calls << method + QLatin1Char('(') + arguments.join(QLatin1Char(',')) + QLatin1Char(')');
    m_ambiguous = m_ambiguous || m_dying;
    m_loopNeeded = true;
    m_current = credential;
    const QString answer = answerTo(credential);
    if (answer == QLatin1String("<hold>") || answer == QLatin1String("<die>")) {
        m_outstanding << credential;
        m_heldCalls << credential;
        m_dying = answer == QLatin1String("<die>");
    } else if (answer == QLatin1String("<drop>") || answer == QLatin1String("<flood>")) {
        m_ambiguous = m_ambiguous || !m_arrivals.isEmpty() || m_changedDirectories.contains(clientDirectory);
        if (answer == QLatin1String("<flood>"))
            m_situations << QStringLiteral("link cut for a flood");
        m_outstanding << credential;
        loseLink();
    } else {
        m_arrivals << Arrival{Arrival::Answer, credential, answer};
    }
}

QStringList Model::getCertList()
{
    if (m_certsInFlight) {
        m_situations << QStringLiteral("certificates asked for twice");
        m_certsPending = false;
        return {};
    }
    if (!connectToClient()) {
        m_certsPending = true;
        return {};
    }
    m_certsPending = false;
    m_certsInFlight = true;
    m_calls << QStringLiteral("getCertList()");
    m_ambiguous = m_ambiguous || m_dying;
    m_loopNeeded = true;
    if (m_certsAnswer == HoldCerts)
        ++m_certsHeld;
    else
        m_arrivals << Arrival{Arrival::Certs, QString(), QString(), m_certsAnswer};
    return {QStringLiteral(".")};
}

void Model::handleCerts(int answer)
{
    if (answer == TooManyCerts || answer == TooLargeCerts)
        m_situations << QStringLiteral("certificate list too long");
    m_certsTold << (answer == SomeCerts   ? QStringLiteral("[pkcs11:one,pkcs11:two]")
                    : answer == MostCerts ? QStringLiteral("[%1]").arg(mostCerts)
                                          : QStringLiteral("[]"));
    m_certsInFlight = false;
}

/// The link is closed at once; its calls end later.
void Model::loseLink()
{
    m_connected = false;
    if (!m_outstanding.isEmpty() || m_certsHeld > 0)
        m_arrivals << Arrival{Arrival::LinkGone, QString(), QString(), m_certsHeld, m_outstanding};
    m_outstanding.clear();
    m_certsHeld = 0;
}

void Model::callsLost(const QStringList &calls, int certs)
{
    for (const QString &credential : calls) {
        if (credential != m_current) {
            dropReply();
            continue;
        }
        m_current.clear();
        m_situations << QStringLiteral("call lost with the link");
        requestInput(EnterPasswordOrPin, CannotCommunicateClient);
    }
    for (int i = 0; i < certs; ++i)
        handleCerts(CertsError);
}

// --- The client -----------------------------------------------------------------------------------------------------

bool Model::launch()
{
    if (m_running)
        return true;
    if (m_budget == 0) {
        m_situations << QStringLiteral("budget exhausted");
        return false;
    }
    --m_budget;
    if (!tryToParseManifest() || m_sharedDirectory.isEmpty() || (m_currentUid != 0 && !isKnown(m_currentUid))
        || m_group == NoGroup)
        return false;
    m_refusalTold = false;
    m_uid = m_currentUid;
    m_gid = m_group == GroupOfRoot ? 0 : clientGroup;
    if (!m_organizationKnown || !m_commandKnown || m_manifest == NoManifest || m_manifest == Damaged)
        return false;
    if (m_uid == 0 || m_gid == 0) {
        m_situations << (m_uid == 0 ? QStringLiteral("no launch for root") : QStringLiteral("no launch for group 0"));
        return false;
    }

    if (m_clientDirectoryAway)
        return false;
    passClientDirectory();
    if (m_sharedBlocked)
        return false;
    passSharedDirectory();

    watch(shared);
    if (!followPolicy(m_uid))
        m_situations << QStringLiteral("policy of another user at a launch");
    if (!policyCounts(m_uid))
        giveLimitBack(m_uid);
    m_userConfigPath = userFile(m_currentUid);
    const File present = m_files.value(m_userConfigPath);
    if (present.type != File::Regular || present.owner != m_uid) {
        if (present.type != File::None) {
            m_situations << QStringLiteral("user's file put aside");
            removeFile(m_userConfigPath);
        }
        createFile(m_userConfigPath, {File::Regular, 0, 0, m_uid, m_gid, QString()});
    }
    changeGroup(m_userConfigPath, m_uid, m_gid);
    const QString count = option(m_currentUid, attempts).text;
    watchAnew(m_userConfigPath);
    startProcess();
    File file = m_files.value(m_userConfigPath);
    if (file.value != count) {
        file.value = count;
        removeFile(m_userConfigPath);
        createFile(m_userConfigPath, file);
    }
    return true;
}

bool Model::tryToParseManifest()
{
    if (!m_manifestExists)
        return false;
    if (m_manifestParsed)
        return true;
    if (!m_isSymLink)
        return false;
    m_situations << QStringLiteral("manifest read late");
    return parseManifest();
}

bool Model::parseManifest()
{
    if (m_manifest == NoManifest || m_manifest == Damaged) {
        m_manifestExists = m_manifestParsed = false;
        return false;
    }
    m_organizationKnown = m_manifest != NoOrganization;
    m_commandKnown = m_manifest != NoCommand;
    if (m_organizationKnown)
        m_sharedDirectory = shared;
    m_manifestParsed = true;
    return true;
}

void Model::startProcess()
{
    if (m_process != NotRunning)
        return;
    m_process = Starting;
    m_processKind = m_launcher;
    m_clientUid = m_currentUid;
    m_starting = true;
    setUnavailable(m_running);
    if (m_processKind == IsMissing)
        return;
    m_launches << QStringLiteral("%1:%2").arg(m_uid).arg(m_gid);
    m_dying = m_processKind == ExitsAtOnce || m_processKind == FailsAtOnce;
}

void Model::processStarted()
{
    m_process = Running;
    m_starting = false;
    m_running = true;
}

void Model::processFailedToStart()
{
    m_situations << QStringLiteral("failed start");
    m_process = NotRunning;
    m_dying = m_stopped = m_termPending = false;
    m_starting = false;
    setUnavailable(m_running);
}

void Model::processEnded()
{
    if (!m_arrivals.isEmpty())
        m_ambiguous = true;
    const int launches = m_launches.size();
    const bool waited = m_clientUid == 0 && m_pending;
    m_process = NotRunning;
    m_dying = m_stopped = m_termPending = false;
    m_starting = false;
    setUnavailable(m_running);
    setUnavailable(m_running);
    makeAuth();
    if (m_launches.size() > launches)
        m_situations << (waited ? QStringLiteral("launched when the other client had ended")
                                : QStringLiteral("relaunched"));
}

void Model::setUnavailable(bool wasRunning)
{
    m_stage = MustLaunch;
    m_running = false;
    m_socketPresent = false;
    if (!wasRunning)
        return;
    loseLink();
    unwatch(m_userConfigPath);
    m_userConfigPath.clear();
    unwatch(policy);
    m_uid = m_gid = 0;
    if (!m_clientDirectoryAway && m_socket.exists) {
        m_socket = {};
        noteDirectory(clientDirectory);
    }
    tell(QStringLiteral("restartAuth %1").arg(m_currentUid));
}

void Model::terminate()
{
    if (m_process == Starting && m_processKind == IsMissing)
        m_ambiguous = true;
    if (m_processKind == IgnoresTerm)
        m_situations << QStringLiteral("termination ignored");
    else if (m_stopped)
        m_termPending = true;
    else
        m_dying = true;
}

/// Also closes the link, which ends its calls at once, before the process ends.
void Model::kill()
{
    if (m_process == Starting && m_processKind == IsMissing)
        m_ambiguous = true;
    if (!m_arrivals.isEmpty())
        m_ambiguous = true;
    const bool wasDying = m_dying;
    m_clientUid = 0;
    m_dying = true;
    loseLink();
    if (m_arrivals.isEmpty())
        return;
    // A process that was told to end earlier may already have ended, and its end may be reported first.
    if (wasDying)
        m_ambiguous = true;
    const Arrival lost = m_arrivals.takeLast();
    callsLost(lost.lost, lost.certs);
    m_loopNeeded = true;
}

// --- Sessions and watching ------------------------------------------------------------------------------------------

void Model::startSession(uint user, bool manageClient)
{
    if (!tryToParseManifest())
        return;
    if (!m_sharedDirectory.isEmpty())
        watch(shared);
    if (m_packagedPolicy && !methodSettingsStored())
        takePackagedLimit();
    m_sessionUser = user;
    if (!followPolicy(m_running ? m_uid : user))
        m_situations << QStringLiteral("policy of another user at a session's start");
    if (!manageClient)
        return;
    if (m_running) {
        m_situations << QStringLiteral("client of an earlier session killed");
        kill();
    }
    if (!isKnown(user))
        return;
    if (m_markers.contains(user)) {
        if (option(user, deletion).toBool()) {
            if (m_wiper != NoWiper)
                m_wipes << loginName(user);
            if (m_wiper == WiperSucceeds)
                m_wiped << user;
            else if (m_wiper == WiperHolds)
                m_heldWipes << user;
        }
        return;
    }
    m_situations << QStringLiteral("launch delayed");
    m_uid = user;
    m_homeDirectory = home(user);
    watch(m_homeDirectory);
}

void Model::stopSession(bool manageClient)
{
    if (!m_manifestExists)
        return;
    if (!m_userConfigPath.isEmpty())
        unwatch(m_userConfigPath);
    if (manageClient && m_process != NotRunning) {
        terminate();
        m_clientUid = 0;
    }
}

void Model::deliverChanges()
{
    while (!m_changedDirectories.isEmpty() || !m_changedFiles.isEmpty()) {
        const QSet<QString> files = m_changedFiles;
        const QSet<QString> directories = m_changedDirectories;
        m_changedFiles.clear();
        m_changedDirectories.clear();
        for (const QString &path : files) {
            if (!m_watches.contains(path))
                continue;
            if (m_goneInodes.contains(m_watches.value(path)))
                unwatch(path);
            fileChanged(path);
        }
        for (const QString &path : directories) {
            if (!m_watches.contains(path))
                continue;
            if (m_goneInodes.contains(m_watches.value(path)))
                unwatch(path);
            directoryChanged(path);
        }
    }
}

void Model::directoryChanged(const QString &path)
{
    if (path == clientDirectory)
        socketDirectoryChanged();
    else if (path == m_sharedDirectory)
        sharedDirectoryChanged();
    else if (path == m_homeDirectory)
        homeChanged();
}

void Model::fileChanged(const QString &path)
{
    if (path == m_userConfigPath && m_uid != 0) {
        setOption(userOfFile(), attempts, childAttempts());
    } else if (path == policy && !exists(policy)) {
        takeLimit(m_system ? m_system->user : policyUser());
    } else if (path == policy && policyCounts(policyUser())) {
        if (m_uid == 0 && m_sessionUser != 0)
            m_situations << QStringLiteral("policy of a session without a client");
        takeLimit(policyUser());
    }
}

void Model::socketDirectoryChanged()
{
    if (!m_running)
        return;
    if (m_clientDirectoryAway || !m_socket.exists) {
        m_socketPresent = false;
        return;
    }
    if (m_socket.owner != m_uid) {
        m_situations << QStringLiteral("wrong owner");
        return;
    }
    if (!m_socket.isSocket) {
        m_situations << QStringLiteral("no socket");
        return;
    }
    if (m_socketPresent)
        return;
    m_socketPresent = true;
    if (m_currentUid == 0) {
        m_situations << QStringLiteral("socket without an authentication");
        return;
    }
    m_stage = MustConnect;
    makeAuth();
}

void Model::sharedDirectoryChanged()
{
    if (m_uid != 0 && !m_userConfigPath.isEmpty() && exists(m_userConfigPath)) {
        if (!changeGroup(m_userConfigPath, userOfFile(), m_gid) && !m_refusalTold) {
            m_refusalTold = true;
            ++m_refused;
            m_situations << QStringLiteral("user's file refused");
        }
        watchAnew(m_userConfigPath);
        setOption(userOfFile(), attempts, childAttempts());
        if (userOfFile() != m_uid)
            m_situations << QStringLiteral("user's file after a launch was delayed");
    }
    if (!followPolicy(policyUser()))
        m_situations << QStringLiteral("policy of another user while watching");
}

void Model::homeChanged()
{
    if (m_uid == 0) {
        m_situations << QStringLiteral("home changed unexpectedly");
        unwatch(m_homeDirectory);
        return;
    }
    bool finished = false;
    for (const uint user : qAsConst(m_markers))
        finished = finished || home(user) == m_homeDirectory;
    if (!finished)
        return;
    if (launch())
        m_situations << QStringLiteral("delayed launch");
    unwatch(m_homeDirectory);
}

void Model::watch(const QString &path)
{
    if (m_watches.contains(path))
        return;
    if (path == shared ? sharedThere() : !path.startsWith(shared) || exists(path))
        m_watches.insert(path, m_files.value(path).inode);
}

void Model::unwatch(const QString &path)
{
    m_watches.remove(path);
    // Removing a watch discards its pending changes.
    m_changedFiles.remove(path);
    m_changedDirectories.remove(path);
}

/// The earlier watch does not matter. Only regular files are watched.
void Model::watchAnew(const QString &path)
{
    unwatch(path);
    if (m_files.value(path).type != File::Planted)
        watch(path);
}

// --- Passing from user to user --------------------------------------------------------------------------------------

/// A former user's files are put aside together and restored in that user's next turn. Files of root and the next user
/// stay, unless the next user's restored directory has a file of the same name.
void Model::passClientDirectory()
{
    const uint former = m_clientDirectory.owner;
    m_clientDirectory = {m_uid, m_gid};
    if (former == 0 || former == m_uid) {
        noteDirectory(clientDirectory);
        return;
    }
    m_situations << QStringLiteral("client directory passed on");
    Socket present = m_socketsAside.take(m_uid);
    if (present.exists)
        m_situations << QStringLiteral("socket brought back");
    if (!present.exists && (m_socket.owner == 0 || m_socket.owner == m_uid))
        std::swap(present, m_socket);
    m_socketsAside.insert(former, m_socket);
    m_socket = present;
    watchAnew(clientDirectory);
    unwatch(policy);
}

void Model::passSharedDirectory()
{
    if (!m_sharedExists)
        m_shared = {};
    m_sharedExists = true;
    const uint former = m_shared.owner;
    m_shared = {m_uid, m_gid};
    if (former == 0 || former == m_uid) {
        noteDirectory(shared);
        return;
    }
    m_situations << QStringLiteral("shared directory passed on");
    QMap<QString, File> present = m_filesAside.take(m_uid);
    if (!present.isEmpty())
        m_situations << QStringLiteral("files brought back");
    QMap<QString, File> &aside = m_filesAside[former];
    for (auto left = m_files.cbegin(); left != m_files.cend(); ++left) {
        File file = left.value();
        if ((file.owner != 0 && file.owner != m_uid) || present.contains(left.key())) {
            aside.insert(left.key(), file);
            continue;
        }
        // Moving a file ends its watch.
        m_goneInodes << file.inode;
        if (m_watches.value(left.key(), -1) == file.inode)
            m_changedFiles << left.key();
        file.inode = ++m_lastInode;
        present.insert(left.key(), file);
    }
    m_files = present;
    watchAnew(shared);
    unwatch(policy);
}

/// All sockets of one listening process are equivalent.
void Model::giveSockets(uint peer, uint owner)
{
    for (Socket &socket : m_socketsAside) {
        if (socket.exists && socket.isSocket && socket.peer == peer)
            socket.owner = owner;
    }
}

// --- Settings -------------------------------------------------------------------------------------------------------

Model::Value Model::option(uint user, const QString &name) const
{
    const Value none = user == 0 && name != maxAttempts ? Value()
                       : name == deletion               ? Value{QStringLiteral("bool"), QStringLiteral("false")}
                                                        : integer(0);
    return m_options.value({user, name}, none);
}

void Model::setOption(uint user, const QString &name, const Value &value)
{
    if (m_options.contains({user, name}) && option(user, name).rendered() == value.rendered())
        return;
    m_options.insert({user, name}, value);
    QStringList &told = m_optionsTold[{user, name}];
    if (told.isEmpty() || told.last() != value.rendered())
        told << value.rendered();
    m_atOnce << QStringLiteral("optionChanged %1 %2 %3").arg(user).arg(name, value.rendered());
}

/// The user of the client's file, regardless of later session starts.
uint Model::userOfFile() const
{
    for (const uint user : {1000U, 1001U, 1002U}) {
        if (m_userConfigPath == userFile(user))
            return user;
    }
    return 0;
}

Model::Value Model::childAttempts() const
{
    const File file = m_files.value(m_userConfigPath);
    const bool doesCount = file.type == File::Regular && (file.owner == 0 || file.owner == userOfFile());
    return exists(m_userConfigPath) && doesCount && !file.value.isNull() ? text(file.value) : integer(0);
}

/// The file may belong to the user or root.
bool Model::policyCounts(uint user) const
{
    const uint owner = m_files.value(policy).owner;
    return exists(policy) && (owner == 0 || owner == user);
}

/// False if there is a file that does not count; it is no longer watched.
bool Model::followPolicy(uint user)
{
    if (!exists(policy))
        return true;
    if (!policyCounts(user)) {
        if (m_watches.contains(policy))
            m_situations << QStringLiteral("policy no longer watched");
        unwatch(policy);
        return false;
    }
    watchAnew(policy);
    takeLimit(user);
    return true;
}

/// The client's user or, without a client, the session's.
uint Model::policyUser() const
{
    return m_uid != 0 ? m_uid : m_sessionUser;
}

/// Applies the current policy. A missing or unreadable one sets no limit.
void Model::takeLimit(uint user)
{
    const File file = m_files.value(policy);
    const bool isReadable = exists(policy) && file.type == File::Regular && !file.value.isNull();
    if (!limitIsUsers())
        m_system = SystemLimit{
            methodSettingsStored() ? std::optional<int>(option(0, maxAttempts).toInt()) : std::nullopt, 0, false};
    m_system->user = user;
    m_system->wasNone = m_system->wasNone || !isReadable;
    setOption(0, maxAttempts, isReadable ? text(file.value) : integer(0));
}

/// A limit that root has set since belongs to root, except that two missing limits cannot be told apart.
bool Model::limitIsUsers() const
{
    if (!m_system || !methodSettingsStored())
        return false;
    const Value limit = option(0, maxAttempts);
    return limit.type != integer(0).type || (limit.toInt() == 0 && m_system->wasNone);
}

/// The limit comes from another user, and `user` has no policy.
void Model::giveLimitBack(uint user)
{
    if (!m_system || m_system->user == user)
        return;
    unwatch(policy);
    const SystemLimit system = *m_system;
    const bool wasUsers = limitIsUsers();
    m_system.reset();
    if (!wasUsers) {
        m_situations << QStringLiteral("root's limit for the next user");
    } else if (system.limit) {
        m_situations << QStringLiteral("former limit for the next user");
        setOption(0, maxAttempts, integer(*system.limit));
    } else if (m_packagedPolicy) {
        m_situations << QStringLiteral("packaged limit for the next user");
        takePackagedLimit();
    } else {
        m_situations << QStringLiteral("no limit for the next user");
        setOption(0, maxAttempts, integer(0));
    }
}

void Model::takePackagedLimit()
{
    m_system.reset();
    setOption(0, maxAttempts, m_packagedPolicy->isNull() ? integer(0) : text(*m_packagedPolicy));
}

bool Model::methodSettingsStored() const
{
    // Options that belong to no user come first.
    return !m_options.isEmpty() && m_options.firstKey().first == 0;
}

int Model::increaseAttempts(uint user)
{
    const int limit = option(0, maxAttempts).toInt();
    if (limit == 0)
        return BadPassword;
    if (user == 0)
        getCertList();
    if (limit > 0) {
        setOption(user, attempts, integer(1));
        if (limit > 1)
            return BadPassword;
    }
    m_situations << QStringLiteral("user locked");
    tell(QStringLiteral("logEvent WARN_LEVEL devlock-attempts-expired "));
    setOption(user, attempts, integer(0));
    tell(QStringLiteral("lockUser %1 true kavet-max-attempts 4294967295").arg(user));
    setOption(user, deletion, {QStringLiteral("bool"), QStringLiteral("true")});
    return TooManyAttempts;
}

void Model::tell(const QString &text)
{
    m_told << text;
    m_atOnce << text;
}

// --- Files ----------------------------------------------------------------------------------------------------------

bool Model::exists(const QString &path) const
{
    return sharedThere() && m_files.contains(path);
}

void Model::noteDirectory(const QString &path)
{
    if (m_watches.contains(path))
        m_changedDirectories << path;
}

void Model::noteFile(const QString &path)
{
    if (m_watches.contains(path) && m_watches.value(path) == m_files.value(path).inode)
        m_changedFiles << path;
}

void Model::put(const QString &path, const File &file)
{
    m_files.insert(path, file);
    m_files[path].inode = ++m_lastInode;
}

void Model::createFile(const QString &path, const File &file)
{
    put(path, file);
    noteDirectory(shared);
}

void Model::removeFile(const QString &path)
{
    const File file = m_files.value(path);
    m_goneInodes << file.inode;
    if (m_watches.value(path, -1) == file.inode)
        m_changedFiles << path;
    m_files.remove(path);
    noteDirectory(shared);
}

void Model::writeFile(const QString &path, const QString &value)
{
    m_files[path].value = value;
    noteFile(path);
}

/// Only for a file that belongs to `owner`.
bool Model::changeGroup(const QString &path, uint owner, uint group)
{
    File &file = m_files[path];
    if (file.type != File::Regular || file.owner != owner)
        return false;
    if (file.group == group)
        return true;
    file.group = group;
    noteFile(path);
    noteDirectory(shared);
    return true;
}

uint Model::socketOwner(int choice) const
{
    switch (choice) {
    case Root:
        return 0;
    case OtherUser:
        return m_uid == bob ? alice : bob;
    default:
        return m_uid != 0 ? m_uid : alice;
    }
}

uint Model::socketPeer(int choice) const
{
    switch (choice) {
    case NobodyListens:
    case NotASocket:
        return nobody;
    case RootListens:
        return 0;
    case OtherListens:
        return socketOwner(OtherUser);
    default:
        return socketOwner(choice);
    }
}

QString Model::userFile(uint user) const
{
    return QStringLiteral("%1/%2.conf").arg(shared).arg(user);
}

bool Model::isKnown(uint user)
{
    return !loginName(user).isNull();
}

QString Model::home(uint user)
{
    return user == 0 ? QStringLiteral("/root") : QStringLiteral("/home/") + loginName(user);
}

Model::Value Model::integer(int value)
{
    return {QStringLiteral("int"), QString::number(value)};
}

Model::Value Model::text(const QString &value)
{
    return {QStringLiteral("QString"), value};
}

// --- What can be seen -----------------------------------------------------------------------------------------------

Observation Model::observation() const
{
    const auto flag = [](bool value) {
        return value ? QStringLiteral("yes") : QStringLiteral("no");
    };
    const QStringList watched = m_watches.keys();
    Observation seen = {
        {QStringLiteral("clientStage"), QString::number(m_stage)},
        {QStringLiteral("currentUid"), QString::number(m_currentUid)},
        {QStringLiteral("pendingAuthData"), flag(m_pending.has_value())},
        {QStringLiteral("launchBudget"), QString::number(m_budget)},
        {QStringLiteral("certListInFlight"), flag(m_certsInFlight)},
        {QStringLiteral("certListPending"), flag(m_certsPending)},
        {QStringLiteral("uid"), QString::number(m_uid)},
        {QStringLiteral("gid"), QString::number(m_gid)},
        {QStringLiteral("clientStarting"), flag(m_starting)},
        {QStringLiteral("clientRunning"), flag(m_running)},
        {QStringLiteral("socketPresent"), flag(m_socketPresent)},
        {QStringLiteral("sharedDirectory"), m_sharedDirectory},
        {QStringLiteral("userConfigPath"), m_userConfigPath},
        {QStringLiteral("homeDirectory"), m_homeDirectory},
        {QStringLiteral("manifestExists"), flag(m_manifestExists)},
        {QStringLiteral("manifestIsSymLink"), flag(m_isSymLink)},
        {QStringLiteral("manifestParsed"), flag(m_manifestParsed)},
        {QStringLiteral("process"), QString::number(m_process)},
        {QStringLiteral("connected"), flag(m_connected)},
        {QStringLiteral("watched"), watched.join(QLatin1Char(' '))},
        {QStringLiteral("launches"), m_launches.join(QLatin1Char(' '))},
        {QStringLiteral("user of the process"), m_process == NotRunning ? QString() : QString::number(m_clientUid)},
        {QStringLiteral("replies dropped"), QString::number(m_dropped)},
        {QStringLiteral("user's files refused"), QString::number(m_refused)},
        {QStringLiteral("files"), files().join(QLatin1Char(' '))},
        {QStringLiteral("told"), m_told.join(QStringLiteral(", "))},
        {QStringLiteral("certs told"), m_certsTold.join(QLatin1Char(' '))},
        {QStringLiteral("calls"), m_calls.join(QLatin1Char(' '))},
        {QStringLiteral("wiper calls"), m_wipes.join(QLatin1Char(' '))},
        {QStringLiteral("returned"), m_returned},
        {QStringLiteral("isAvailable"), flag(m_isSymLink || m_commandKnown)},
    };
    for (auto told = m_optionsTold.cbegin(); told != m_optionsTold.cend(); ++told)
        seen.insert(QStringLiteral("told %1 %2").arg(told.key().first).arg(told.key().second),
                    told.value().join(QStringLiteral(", ")));
    return seen;
}

/// The files below the directories that change users.
QStringList Model::files() const
{
    QStringList seen;
    const auto see = [&seen](const QString &path, const QString &type, uint owner, uint group, const QString &value) {
        seen << QStringLiteral("%1=%2:%3:%4:%5").arg(path, type).arg(owner).arg(group).arg(value);
    };
    const auto seeSocket = [&seen](const QString &directory, const Socket &socket) {
        if (socket.exists)
            seen << QStringLiteral("%1/%2=%3").arg(directory, socketName).arg(socket.owner);
    };
    const auto seeFiles = [&see](const QString &suffix, const QMap<QString, File> &files) {
        static const QStringList plants = {QStringLiteral("link"), QStringLiteral("hard link"), QStringLiteral("FIFO"),
                                           QStringLiteral("directory")};
        for (auto file = files.cbegin(); file != files.cend(); ++file) {
            const QString path = shared + suffix + file.key().mid(shared.size());
            if (file->type == File::Regular)
                see(path, QStringLiteral("file"), file->owner, file->group, file->value);
            else
                see(path, plants.at(file->plant), file->owner, file->group, QString());
        }
    };
    const QString none;
    if (!m_clientDirectoryAway) {
        see(clientDirectory, QStringLiteral("directory"), m_clientDirectory.owner, m_clientDirectory.group, none);
        seeSocket(clientDirectory, m_socket);
    }
    for (auto aside = m_socketsAside.cbegin(); aside != m_socketsAside.cend(); ++aside)
        seeSocket(clientDirectory + QLatin1Char('.') + QString::number(aside.key()), aside.value());
    if (sharedThere()) {
        see(shared, QStringLiteral("directory"), m_shared.owner, m_shared.group, none);
        seeFiles(none, m_files);
        for (auto aside = m_filesAside.cbegin(); aside != m_filesAside.cend(); ++aside)
            seeFiles(QLatin1Char('.') + QString::number(aside.key()), aside.value());
    }
    seen.sort();
    return seen;
}

Observation Model::options() const
{
    Observation seen;
    for (const uint user : {0U, 1000U, 1001U, 1002U, unknownUser}) {
        for (const QString &name : {attempts, deletion, maxAttempts}) {
            if (name != maxAttempts || user == 0)
                seen.insert(QStringLiteral("option %1 %2").arg(user).arg(name), option(user, name).rendered());
        }
    }
    return seen;
}

} // namespace Sequences
