// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#include "system.h"

#include "plugin/methodkavet.h"
#include "plugin/methodkavetprivate.h"

#include "support/testdevice.h"

#include <QCoreApplication>
#include <QDBusPendingCallWatcher>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>
#include <QRegularExpression>
#include <QSocketNotifier>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

namespace Sequences {

const QString System::peerProgram = QStringLiteral("/usr/bin/kavet-sequences-peer");

namespace {

// Also the directory of the peers' sockets.
const QString deadSocket = Peer::directory + QStringLiteral("/dead");
const QString stateDirectory = QStringLiteral("/tmp/kavet-sequences");
const QString program = QStringLiteral("/usr/bin/kavet-sequences-client");
const QString linkedManifest = QStringLiteral("/tmp/kavet-sequences/manifest.desktop");
const QString outsideDirectory = QStringLiteral("/srv/kavet-sequences");
const QString groupFile = QStringLiteral("/etc/group");
const QString partitionFile = QStringLiteral("/etc/authd/luks.conf");
const QString awaySuffix = QStringLiteral(".away");
// The D-Bus library's thread and the method learn of the end of a link in any order.
const QRegularExpression linkEnded(
    QStringLiteral("(QDBusError\\(\"[^\"]*\", )?\"(Message recipient disconnected from message bus without replying|"
                   "Not connected to D-Bus server|No link to the client)\"\\)?"));
const QRegularExpression uniqueSuffix(QStringLiteral("\\.[0-9a-f]{8}(-[0-9a-f]{4}){3}-[0-9a-f]{12}"));

constexpr int patience = 20000; // Reached only if the condition never holds.
constexpr int impatience = 1000; // While a failed sequence is shrunk.
bool hasFailed = false;

System *current = nullptr;
int launchesDescriptor = -1;
QByteArray originalGroups;

QByteArray name(const QString &path)
{
    return QFile::encodeName(path);
}

void need(bool done, const char *what)
{
    if (!done)
        qFatal("Cannot %s: %s", what, std::strerror(errno));
}

void write(const QString &path, const QByteArray &content, uint owner, uint group, mode_t mode)
{
    const int file = open(name(path), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOFOLLOW, mode);
    need(file != -1 && ::write(file, content.constData(), size_t(content.size())) == content.size()
             && fchown(file, owner, group) == 0,
         "write a file");
    close(file);
}

void overwrite(const QString &path, const QByteArray &content)
{
    const int file = open(name(path), O_WRONLY | O_TRUNC | O_CLOEXEC | O_NOFOLLOW);
    need(file != -1 && ::write(file, content.constData(), size_t(content.size())) == content.size(),
         "overwrite a file");
    close(file);
}

QByteArray settings(const QString &key, const QString &value)
{
    return value.isNull() ? QByteArrayLiteral("[General]\nother=1\n")
                          : QStringLiteral("[General]\n%1=%2\n").arg(key, value).toUtf8();
}

bool isThere(const QString &path)
{
    struct stat status;
    return lstat(name(path), &status) == 0;
}

void remove(const QString &path)
{
    const QByteArray file = name(path);
    need(unlink(file) == 0 || (errno == EISDIR && rmdir(file) == 0) || errno == ENOENT, "remove a file");
}

/// The attributes of other users' files, which the private object must not change.
QString stateOf(const QString &path)
{
    struct stat status;
    if (lstat(name(path), &status) != 0)
        return QStringLiteral("gone");
    return QStringLiteral("owner %1:%2 mode %3 content %4")
        .arg(status.st_uid)
        .arg(status.st_gid)
        .arg(status.st_mode, 0, 8)
        .arg(QString::fromUtf8(TestDevice::readFile(path)));
}

QString home(uint user)
{
    switch (user) {
    case 0:
        return QStringLiteral("/root");
    case 1000:
        return QStringLiteral("/home/alice");
    case 1001:
        return QStringLiteral("/home/bob");
    default:
        return QStringLiteral("/home/carol");
    }
}

QString marker(uint user)
{
    return home(user) + QStringLiteral("/.qarv-startupwizard-usersession-done");
}

QString loginName(uint user)
{
    return user == 0 ? QStringLiteral("root") : home(user).section(QLatin1Char('/'), -1);
}

bool succeeds(const QString &answer)
{
    return answer == answers.first() || answer == QLatin1String("<many>");
}

QString rendered(const QVariant &value)
{
    return QString::fromLatin1(value.typeName()) + QLatin1Char(' ') + value.toString();
}

QString rendered(const RecordingDaemon::Call &call)
{
    QString text = call.operation;
    if (call.operation == QLatin1String("optionChanged")) {
        const QStringList certs = call.arguments.at(2).toStringList();
        const bool isComputed = call.arguments.at(3).toBool();
        return QStringLiteral("%1 %2 %3 %4")
            .arg(text, call.arguments.at(0).toString(), call.arguments.at(1).toString(),
                 !isComputed        ? rendered(call.arguments.at(2))
                 : certs.size() > 2 ? QStringLiteral("[%1]").arg(certs.size())
                                    : QStringLiteral("[%1]").arg(certs.join(QLatin1Char(','))));
    }
    for (const QVariant &argument : call.arguments) {
        if (argument.userType() == QMetaType::QVariantMap) {
            const QMap<QString, QVariant> params = argument.toMap();
            text += QStringLiteral(" %1/%2")
                        .arg(params.value(QStringLiteral("input-request-type")).toInt())
                        .arg(params.value(QStringLiteral("result-code")).toInt());
            if (params.size() != 2)
                text += QStringLiteral(" and more");
        } else {
            text += QLatin1Char(' ') + argument.toString();
        }
    }
    return text;
}

} // namespace

void System::prepareDevice()
{
    TestDevice::reset();
    QFile::remove(TestDevice::launcher);
    for (const auto &copy :
         {qMakePair(QStringLiteral(LAUNCHED_CLIENT), program), qMakePair(QStringLiteral(USER_PEER), peerProgram)}) {
        QFile::remove(copy.second);
        need(QFile::copy(copy.first, copy.second) && chmod(name(copy.second), 0755) == 0, "install a program");
    }
    for (const QString &directory :
         {stateDirectory, outsideDirectory, QString(Peer::directory), QFileInfo(partitionFile).path()})
        need(QDir().mkpath(directory), "make a directory");
    for (const QString &directory : {stateDirectory, QString(Peer::directory)})
        need(chmod(name(directory), 0755) == 0, "open a directory");

    const QByteArray launches = name(stateDirectory + QStringLiteral("/launches"));
    need(mkfifo(launches, 0666) == 0 && chmod(launches, 0666) == 0, "make a FIFO");
    launchesDescriptor = open(launches, O_RDWR | O_NONBLOCK | O_CLOEXEC);
    need(launchesDescriptor != -1, "open a FIFO");

    // A bound socket on which nobody listens any more.
    const int descriptor = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, name(deadSocket).constData(), sizeof address.sun_path - 1);
    need(descriptor != -1 && bind(descriptor, reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0,
         "bind a socket");
    close(descriptor);

    originalGroups = TestDevice::readFile(groupFile);
}

System::System(const Setup &setup, Peer &peer)
    : m_peer(peer)
    , m_model(setup)
    , m_manifestIsLink(setup.manifestIsLink)
{
    current = this;
    for (const QString &directory : {QStringLiteral("/run/aux-auth/tarsk"), QStringLiteral("/srv/shared"),
                                     QStringLiteral("/var/lib/authd"), outsideDirectory})
        QDir(directory).removeRecursively();
    for (const QString &directory :
         {QStringLiteral("/run/aux-auth"), QStringLiteral("/srv/shared"), QStringLiteral("/var/lib/authd"),
          outsideDirectory, QFileInfo(TestDevice::packagedPolicy).path()})
        QDir().mkpath(directory);
    for (const uint user : {0U, 1000U, 1001U, 1002U}) {
        remove(marker(user));
        if (user == alice || user == bob)
            write(marker(user), {}, user, user, 0600);
    }
    remove(TestDevice::packagedPolicy);
    remove(TestDevice::manifest);
    remove(linkedManifest);
    setPartitionLocked(false);
    setGroup(Normal);
    setLauncher(Works);
    m_peer.forget();
    m_peer.setWiper(WiperSucceeds);
    m_peer.setCertsAnswer(SomeCerts);

    if (m_manifestIsLink)
        need(symlink(name(linkedManifest), name(TestDevice::manifest)) == 0, "make a link");
    putManifest(setup.manifest);
    if (setup.packagedPolicy)
        writePackagedPolicy(limits.first());
    if (setup.sharedDirectory)
        QDir().mkpath(TestDevice::sharedDirectory);
    if (setup.currentPolicy)
        write(TestDevice::currentPolicy, settings(QStringLiteral("max-attempts"), limits.at(1)), alice,
              TestDevice::groupId("auth-factor"), 0600);
    start();
}

System::~System()
{
    awaitWipes(world().wiperCalls.size());
    m_method.reset();
    current = nullptr;
    QDBusConnection::disconnectFromPeer(QStringLiteral("kavet_p2p_service"));
}

void System::start()
{
    m_method = std::make_unique<MethodKavet>();
    m_private = m_method->findChild<MethodKavetPrivate *>();
    m_method->setNotificator(&m_daemon);
    // The method creates the directory, unless it supervises no client.
    if (!m_private->child.manifestExists)
        QDir().mkpath(TestDevice::clientDirectory);

    // The test reads the watcher explicitly, before anything else runs.
    m_watcherNotifier = m_private->watcher.findChild<QSocketNotifier *>();
    need(m_watcherNotifier, "find the watcher's notifier");
    m_watcherNotifier->setEnabled(false);

    QObject::connect(&m_private->child, &QProcess::stateChanged, m_private, [this](QProcess::ProcessState state) {
        if (state != QProcess::Starting)
            return;
        ++m_launchesSinceReset;
        if (m_launcher != IsMissing)
            ++m_started;
    });
    // One report of the process at a time, and the watcher comes first.
    const auto stop = [this] {
        runWatcher();
        holdProcess();
        m_hasReported = true;
    };
    QProcess *const child = &m_private->child;
    QObject::connect(child, &QProcess::started, m_private, stop);
    QObject::connect(child, QOverload<int, QProcess::ExitStatus>::of(&QProcess::finished), m_private, stop);
    for (const Qt::ConnectionType type : {Qt::DirectConnection, Qt::QueuedConnection}) {
        QObject::connect(
            child, &QProcess::errorOccurred, m_private,
            [stop](QProcess::ProcessError error) {
                if (error == QProcess::FailedToStart)
                    stop();
            },
            type);
    }
    m_launchesSinceReset = 0;
}

QString System::compareStart()
{
    return settle();
}

QString System::perform(const Event &event)
{
    const World before = world();
    const bool reportComesFirst = m_model.apply(event);
    if (!m_isHurried)
        m_journal.clear();
    m_isHurried = event.hurried;
    m_isWatcherDelayed = event.delayed;
    m_returned.clear();
    m_rightOwnerSeenBefore = m_rightOwnerSeen;
    awaitWipes(before.wiperCalls.size());
    act(event, before);
    lookForSocket();
    m_rightOwnerSeenBefore = m_rightOwnerSeenBefore || m_rightOwnerSeen;
    awaitLaunches();
    if (reportComesFirst)
        releaseProcess(true);
    QString difference = event.hurried ? differences(false) : settle();
    if (difference.isEmpty())
        m_model.keep(m_agreeing);
    else
        hasFailed = true;
    return difference;
}

void System::log(const QString &line)
{
    if (!current)
        return;
    current->readCalls();
    current->m_journal << QString(line)
                              .replace(uniqueSuffix, QStringLiteral(".UNIQUE"))
                              .replace(linkEnded, QStringLiteral("LINK ENDED"));
}

void System::readCalls()
{
    for (; m_callsRead < m_daemon.calls.size(); ++m_callsRead)
        m_journal << rendered(m_daemon.calls.at(m_callsRead));
}

void System::act(const Event &event, const World &before)
{
    const uint group = TestDevice::groupId("auth-factor");
    const QString &limit = limits.at(event.variant % limits.size());
    const QString &count = counts.at(event.variant % counts.size());
    const QString userFile = World::userFile(event.user);
    const uint other = event.user == bob ? alice : bob;
    const uint planter = event.flag ? event.user : 0;
    const auto writeFile = [](const QString &path, const QByteArray &content, uint owner, uint ownerGroup) {
        struct stat status;
        if (lstat(name(path), &status) == 0 && S_ISREG(status.st_mode) && status.st_nlink == 1) {
            overwrite(path, content);
            return;
        }
        remove(path);
        write(path, content, owner, ownerGroup, 0600);
    };
    const auto replaceFile = [](const QString &path, const QByteArray &content, uint owner, uint ownerGroup) {
        const QString next = outsideDirectory + QStringLiteral("/new");
        write(next, content, owner, ownerGroup, 0600);
        need(rename(name(next), name(path)) == 0, "replace a file");
    };
    const auto touchDirectory = [](const QString &directory) {
        const QString file = directory + QStringLiteral("/touched");
        write(file, {}, 0, 0, 0600);
        remove(file);
    };
    switch (event.kind) {
    case Kind::Authenticate: {
        const QString credential = event.answer + QLatin1Char('#') + QString::number(before.credentials.size() + 1);
        QMap<QString, QVariant> data;
        if (event.variant == Password || event.variant == PasswordAndPin)
            data.insert(QStringLiteral("password"), credential);
        if (event.variant == CertAndPin || event.variant == CertOnly || event.variant == PasswordAndPin)
            data.insert(QStringLiteral("cert"), QStringLiteral("pkcs11:one"));
        if (event.variant == CertAndPin)
            data.insert(QStringLiteral("pin"), credential);
        if (event.variant == PasswordAndPin)
            data.insert(QStringLiteral("pin"), QStringLiteral("unused"));
        if (event.user != m_user)
            startOver(event.user);
        m_attempts.insert(credential, {event.user, event.answer, m_turn});
        if (event.variant != CertOnly && event.variant != EmptyMap)
            ++m_outcomesDue;
        m_method->authenticate(event.user, data);
        break;
    }
    case Kind::Reset:
        startOver(0);
        m_method->reset();
        m_launchesSinceReset = 0;
        break;
    case Kind::EndClient: {
        static constexpr int signalNumbers[] = {SIGUSR1, SIGUSR2, SIGABRT, SIGKILL};
        need(kill(m_pid, before.is(Stopped) ? SIGKILL : signalNumbers[event.variant % 4]) == 0, "end the client");
        break;
    }
    case Kind::StopClient:
        need(kill(m_pid, before.is(Stopped) ? SIGCONT : SIGSTOP) == 0, "stop the client");
        if (!before.is(Stopped)) {
            // A signal sent before the process has stopped would still be handled.
            siginfo_t status = {};
            need(TEMP_FAILURE_RETRY(waitid(P_PID, id_t(m_pid), &status, WSTOPPED | WNOWAIT)) == 0, "see it stop");
        }
        break;
    case Kind::PutSocket:
        plantSocket(event.variant, socketOwner(before, event.variant), socketPeer(before, event.variant));
        break;
    case Kind::RemoveSocket:
        remove(TestDevice::socketPath);
        break;
    case Kind::ChangeSocketOwner:
        need(TestDevice::setOwner(TestDevice::socketPath, socketOwner(before, event.variant), 0), "give a socket away");
        break;
    case Kind::TouchClientDirectory:
        touchDirectory(TestDevice::clientDirectory);
        break;
    case Kind::DropLink: {
        // The other end may not have accepted a new link yet, and can close it only after that.
        QElapsedTimer waiting;
        waiting.start();
        do {
            m_peer.drop();
            QCoreApplication::processEvents();
        } while (m_private->guard.isOpen() && waiting.elapsed() < patience);
        break;
    }
    case Kind::Reply: {
        const int number = before.heldCalls.at(event.variant % before.heldCalls.size());
        const QString credential = QStringLiteral("%1#%2").arg(before.credentials.at(number - 1).first).arg(number);
        m_attempts[credential].answer = lateAnswer(event.answer);
        m_peer.reply(credential, lateAnswer(event.answer));
        break;
    }
    case Kind::FetchCerts:
        m_returned = m_method->getOption(0, QStringLiteral("certs")).toStringList().join(QLatin1Char(','));
        break;
    case Kind::SetCertsAnswer:
        m_peer.setCertsAnswer(event.variant);
        break;
    case Kind::ReplyCerts:
        m_peer.replyCerts(event.variant);
        break;
    case Kind::StartSession:
    case Kind::StopSession:
        m_method->handleUserSessionTriggered(event.user, event.kind == Kind::StartSession, event.flag);
        break;
    case Kind::CreateMarker:
        write(marker(event.user), {}, event.user, event.user, 0600);
        break;
    case Kind::RemoveMarker:
        remove(marker(event.user));
        break;
    case Kind::TouchHome:
        touchDirectory(home(event.user));
        break;
    case Kind::WritePolicy:
        writeFile(TestDevice::currentPolicy, settings(QStringLiteral("max-attempts"), limit), event.user, group);
        break;
    case Kind::ReplacePolicy:
        replaceFile(TestDevice::currentPolicy, settings(QStringLiteral("max-attempts"), limit), event.user, group);
        break;
    case Kind::PlantPolicy:
        plantFile(TestDevice::currentPolicy, event.variant, planter, other);
        break;
    case Kind::RemovePolicy:
        remove(TestDevice::currentPolicy);
        break;
    case Kind::WriteUserFile:
        writeFile(userFile, settings(QStringLiteral("attempts"), count), event.user, group);
        break;
    case Kind::ReplaceUserFile:
        replaceFile(userFile, settings(QStringLiteral("attempts"), count), event.user, group);
        break;
    case Kind::PlantUserFile:
        plantFile(userFile, event.variant, planter, other);
        break;
    case Kind::RemoveUserFile:
        remove(userFile);
        break;
    case Kind::TouchSharedDirectory:
        touchDirectory(TestDevice::sharedDirectory);
        break;
    case Kind::WritePackagedPolicy:
        writePackagedPolicy(limit);
        break;
    case Kind::RemovePackagedPolicy:
        remove(TestDevice::packagedPolicy);
        break;
    case Kind::RemoveMethodSettings:
        remove(QStringLiteral("/var/lib/authd/methods/kavet/current.conf"));
        break;
    case Kind::SetLimit:
        m_method->setOption(0, QStringLiteral("max-attempts"), limit.toInt());
        break;
    case Kind::LockPartition:
        setPartitionLocked(true);
        break;
    case Kind::UnlockPartition:
        setPartitionLocked(false);
        break;
    case Kind::IncreaseAttempts:
        m_returned = QString::number(m_method->increaseAttempts(event.user));
        break;
    case Kind::ResetAttempts:
        m_method->resetAttempts(event.user);
        break;
    case Kind::GetAttempts:
        m_returned = QString::number(m_method->getAttempts(event.user));
        break;
    case Kind::MarkForDeletion:
        m_method->setOptionInternal(event.user, QStringLiteral("delayed-deletion"), true);
        break;
    case Kind::SetLauncher:
        setLauncher(event.variant);
        break;
    case Kind::SetGroup:
        setGroup(event.variant);
        break;
    case Kind::MoveClientDirectory:
        setClientDirectoryAway(!m_clientDirectoryAway);
        break;
    case Kind::BlockSharedDirectory:
        setSharedBlocked(!m_sharedBlocked);
        break;
    case Kind::SetManifest:
        putManifest(event.variant);
        break;
    case Kind::SetWiper:
        // A round trip, so that the bus has delivered all earlier calls to the wiper.
        QDBusConnection::systemBus().call(
            QDBusMessage::createMethodCall(QStringLiteral("org.freedesktop.DBus"), QStringLiteral("/"),
                                           QStringLiteral("org.freedesktop.DBus"), QStringLiteral("GetId")));
        m_peer.setWiper(event.variant);
        break;
    case Kind::ReplyWiper:
        m_peer.replyWiper(event.flag);
        break;
    case Kind::Repair:
        setPartitionLocked(false);
        setLauncher(Works);
        setGroup(Normal);
        setClientDirectoryAway(false);
        setSharedBlocked(false);
        putManifest(Stock);
        break;
    case Kind::Restart:
        startOver(0);
        m_method.reset();
        QDBusConnection::disconnectFromPeer(QStringLiteral("kavet_p2p_service"));
        m_peer.closeAll();
        start();
        break;
    case Kind::Count:
        break;
    }
}

// --- Waiting --------------------------------------------------------------------------------------------------------

/// Reads the watcher until it is empty, including changes that its handlers make.
void System::runWatcher()
{
    if (m_isWatcherDelayed)
        return;
    pollfd watcher = {int(m_watcherNotifier->socket()), POLLIN, 0};
    while (poll(&watcher, 1, 0) > 0) {
        QEvent ready(QEvent::SockAct);
        QCoreApplication::sendEvent(m_watcherNotifier, &ready);
    }
}

/// Waits until every started client can be ended.
void System::awaitLaunches()
{
    readLaunches();
    QElapsedTimer waiting;
    waiting.start();
    while (m_launches.size() < m_started) {
        pollfd launches = {launchesDescriptor, POLLIN, 0};
        // SIGCHLD of another client interrupts the call.
        if (poll(&launches, 1, patience) == 0 || waiting.elapsed() > patience)
            qFatal("A client was started and never came up");
        readLaunches();
    }
}

/// Waits for that many calls to the wiper, so that none is lost or handled after later changes.
void System::awaitWipes(int wipes)
{
    QElapsedTimer waiting;
    waiting.start();
    while (m_peer.wipes().size() < wipes && waiting.elapsed() < impatience)
        QThread::yieldCurrentThread();
}

/// From here on, earlier requests no longer count.
void System::startOver(uint user)
{
    m_user = user;
    ++m_turn;
    m_outcomesDue = 0;
}

void System::readLaunches()
{
    char buffer[1024];
    for (;;) {
        const ssize_t size = read(launchesDescriptor, buffer, sizeof buffer);
        if (size <= 0)
            break;
        m_launchBuffer.append(buffer, int(size));
    }
    for (int end = m_launchBuffer.indexOf('\n'); end != -1; end = m_launchBuffer.indexOf('\n')) {
        const QList<QByteArray> ids = m_launchBuffer.left(end).split(' ');
        m_launchBuffer.remove(0, end + 1);
        m_pid = ids.at(0).toInt();
        write(stateDirectory + QStringLiteral("/pid"), QByteArray::number(m_pid), 0, 0, 0644);
        m_rightOwnerSeen = false;
        const bool agree =
            ids.at(1) == ids.at(2) && ids.at(2) == ids.at(3) && ids.at(4) == ids.at(5) && ids.at(5) == ids.at(6);
        m_launches << (agree ? QString::fromLatin1(ids.at(1) + ':' + ids.at(4))
                             : QString::fromLatin1(ids.mid(1).join(',')));
    }
}

QString System::settle()
{
    QString difference = awaitAgreement(false);
    do {
        while (difference.isEmpty() && m_model.advance()) {
            releaseProcess(false);
            difference = awaitAgreement(false);
        }
        m_isWatcherDelayed = false;
    } while (difference.isEmpty() && m_model.readWatcher() && (difference = awaitAgreement(false)).isEmpty());
    return difference.isEmpty() ? awaitAgreement(true) : difference;
}

QString System::awaitAgreement(bool isOver)
{
    QElapsedTimer waiting;
    waiting.start();
    for (;;) {
        // Compare once more after they agree, to detect unexpected events.
        QString difference;
        for (int round = 0; round < 2 && difference.isEmpty(); ++round) {
            runWatcher();
            holdProcess();
            QCoreApplication::processEvents();
            awaitLaunches();
            runWatcher();
            holdProcess();
            difference = differences(isOver && round == 1);
        }
        if (difference.isEmpty())
            m_model.keep(m_agreeing);
        if (difference.isEmpty() || waiting.elapsed() > (hasFailed ? impatience : patience))
            return difference;
        m_tick.start(2);
        QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents);
        m_tick.stop();
    }
}

/// From here on, the process reports nothing.
void System::holdProcess()
{
    const auto notifiers = m_private->child.findChildren<QSocketNotifier *>();
    for (QSocketNotifier *notifier : notifiers) {
        if (notifier->isEnabled()) {
            notifier->setEnabled(false);
            m_heldNotifiers << notifier;
        }
    }
}

/// Lets the process report one thing: before anything else arrives if it overtakes.
void System::releaseProcess(bool overtakes)
{
    m_hasReported = false;
    for (QSocketNotifier *notifier : qAsConst(m_heldNotifiers)) {
        if (notifier)
            notifier->setEnabled(true);
    }
    m_heldNotifiers.clear();
    QElapsedTimer waiting;
    waiting.start();
    m_tick.start(2);
    while (!m_hasReported && waiting.elapsed() < (hasFailed ? impatience : patience)) {
        if (overtakes)
            handleProcess();
        else
            QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents);
    }
    m_tick.stop();
}

/// Handles an event of the process, if there is one, and nothing else.
void System::handleProcess()
{
    const auto notifiers = m_private->child.findChildren<QSocketNotifier *>();
    for (QSocketNotifier *notifier : notifiers) {
        pollfd entry = {int(notifier->socket()), POLLIN, 0};
        if (notifier->type() == QSocketNotifier::Read && notifier->isEnabled() && poll(&entry, 1, 0) > 0) {
            QEvent ready(QEvent::SockAct);
            QCoreApplication::sendEvent(notifier, &ready);
            return; // Others may be gone now.
        }
    }
    QThread::yieldCurrentThread();
}

// --- Looking --------------------------------------------------------------------------------------------------------

/// The differences to the nearest of the states that the model allows; empty if some agree.
QString System::differences(bool isOver)
{
    const Observation seen = observation(isOver);
    QVector<World> agreeing;
    QStringList nearest;
    for (const World &world : m_model.worlds()) {
        const Observation expected = Sequences::observation(world, isOver);
        QStringList differing;
        for (auto value = expected.cbegin(); value != expected.cend(); ++value) {
            static const QStringList later = {QStringLiteral("calls"), QStringLiteral("wiper calls"),
                                              QStringLiteral("unfinished calls"), QStringLiteral("connected")};
            if (value.value() != seen.value(value.key()) && !(m_isHurried && later.contains(value.key())))
                differing << QStringLiteral("\n  %1: \"%2\", expected \"%3\"")
                                 .arg(value.key(), seen.value(value.key()), value.value());
        }
        if (differing.isEmpty())
            agreeing << world;
        else if (nearest.isEmpty() || differing.size() < nearest.size())
            nearest = differing;
    }
    if (agreeing.isEmpty())
        return broken() + QStringLiteral("\n  the nearest of %1 results:").arg(m_model.worlds().size())
               + nearest.join(QString());
    m_agreeing = agreeing;
    return broken();
}

/// The violated invariants.
QString System::broken()
{
    QString text;
    if (m_launchesSinceReset > 11)
        text += QStringLiteral("\n  %1 launches since the last reset").arg(m_launchesSinceReset);
    for (const QString &ids : qAsConst(m_launches)) {
        if (ids.split(QRegExp(QStringLiteral("[:,]"))).contains(QStringLiteral("0")))
            text += QStringLiteral("\n  a client was launched as ") + ids;
    }

    lookForSocket();
    const QVector<Peer::Call> &calls = m_peer.calls();
    for (; m_callsChecked < calls.size(); ++m_callsChecked) {
        const Peer::Call &call = calls.at(m_callsChecked);
        if (!m_rightOwnerSeen && !m_rightOwnerSeenBefore)
            m_broken += QStringLiteral("\n  called before a socket with the right owner was seen: ") + call.text();
        if (call.method == QLatin1String("getCertList"))
            continue;
        const QString credential = call.credential();
        const Attempt attempt = m_attempts.value(credential);
        if (call.user() != loginName(attempt.user))
            m_broken += QStringLiteral("\n  given for user %1: ").arg(attempt.user) + call.text();
        if (call.peer != attempt.user && call.peer != 0)
            m_broken += QStringLiteral("\n  a process of user %1 was sent ").arg(call.peer) + call.text();
        if (m_sent.contains(credential))
            m_broken += QStringLiteral("\n  a credential was forwarded twice");
        m_sent << credential;
    }
    for (; m_outcomesChecked < m_daemon.calls.size(); ++m_outcomesChecked) {
        const RecordingDaemon::Call &call = m_daemon.calls.at(m_outcomesChecked);
        const bool success = call.operation == QLatin1String("succeed");
        if (!success && !rendered(call).startsWith(QLatin1String("finish false 2/")))
            continue;
        if (--m_outcomesDue < 0)
            m_broken += QStringLiteral("\n  nobody has asked for the outcome ") + rendered(call);
        const Attempt attempt = m_sent.isEmpty() ? Attempt() : m_attempts.value(m_sent.last());
        if (success && (attempt.turn != m_turn || attempt.user != m_user || !succeeds(attempt.answer)))
            m_broken += QStringLiteral("\n  user %1 was let in").arg(m_user);
    }
    text += m_broken;

    QStringList watched = m_private->watcher.files() + m_private->watcher.directories();
    const int count = watched.size();
    if (watched.removeDuplicates() != 0)
        text += QStringLiteral("\n  watched twice: ") + watched.join(QLatin1Char(' '));
    const QByteArray watches =
        TestDevice::readFile(QStringLiteral("/proc/self/fdinfo/%1").arg(m_watcherNotifier->socket()));
    if (watches.count("inotify wd:") > count)
        text += QStringLiteral("\n  %1 paths are watched by %2 watches").arg(count).arg(watches.count("inotify wd:"));

    for (const QPair<QString, QString> &file : qAsConst(m_outside)) {
        if (stateOf(file.first) != file.second)
            text += QStringLiteral("\n  a file elsewhere was touched: %1 instead of %2")
                        .arg(stateOf(file.first), file.second);
    }
    return text;
}

void System::lookForSocket()
{
    struct stat status;
    if (m_private->child.state() != QProcess::NotRunning && lstat(name(TestDevice::socketPath), &status) == 0
        && S_ISSOCK(status.st_mode) && status.st_uid == m_private->child.uid)
        m_rightOwnerSeen = true;
}

Observation System::observation(bool withOptions)
{
    readCalls();
    const auto flag = [](bool value) {
        return value ? QStringLiteral("yes") : QStringLiteral("no");
    };
    const ChildProcess &child = m_private->child;
    QStringList watched = m_private->watcher.files() + m_private->watcher.directories();
    watched.sort();
    QStringList calls;
    for (const Peer::Call &call : m_peer.calls())
        calls << call.text();
    Observation seen = {
        {QStringLiteral("clientStage"), QString::number(m_private->clientStage)},
        {QStringLiteral("currentUid"), QString::number(m_private->currentUid)},
        {QStringLiteral("pendingAuthData"), flag(m_private->pendingAuthData.has_value())},
        {QStringLiteral("launchBudget"), QString::number(m_private->launchBudget)},
        {QStringLiteral("certListInFlight"), flag(m_private->certListInFlight)},
        {QStringLiteral("certListPending"), flag(m_private->certListPending)},
        {QStringLiteral("uid"), QString::number(child.uid)},
        {QStringLiteral("gid"), QString::number(child.gid)},
        {QStringLiteral("clientStarting"), flag(child.clientStarting)},
        {QStringLiteral("clientRunning"), flag(child.clientRunning)},
        {QStringLiteral("socketPresent"), flag(child.socketPresent)},
        {QStringLiteral("sharedDirectory"), child.sharedDirectory},
        {QStringLiteral("userConfigPath"), child.userConfigPath},
        {QStringLiteral("homeDirectory"), child.homeDirectory},
        {QStringLiteral("manifestExists"), flag(child.manifestExists)},
        {QStringLiteral("manifestIsSymLink"), flag(child.manifestIsSymLink)},
        {QStringLiteral("manifestParsed"), flag(child.manifestParsed)},
        {QStringLiteral("process"), QString::number(child.state())},
        {QStringLiteral("user of the process"),
         child.state() == QProcess::NotRunning ? QString() : QString::number(child.clientUid)},
        {QStringLiteral("connected"), flag(m_private->guard.isOpen() && m_private->connection.isConnected())},
        {QStringLiteral("files"), files().join(QLatin1Char(' '))},
        {QStringLiteral("watched"), watched.join(QLatin1Char(' '))},
        {QStringLiteral("launches"), m_launches.join(QLatin1Char(' '))},
        {QStringLiteral("journal"), m_journal.join(QStringLiteral("\n    "))},
        {QStringLiteral("calls"), calls.join(QLatin1Char(' '))},
        {QStringLiteral("wiper calls"), m_peer.wipes().join(QLatin1Char(' '))},
        {QStringLiteral("unfinished calls"),
         QString::number(m_private->findChildren<QDBusPendingCallWatcher *>().size())},
        {QStringLiteral("returned"), m_returned},
        {QStringLiteral("isAvailable"), flag(m_method->isAvailable(0))},
    };
    if (!withOptions)
        return seen;
    for (const uint user : {0U, alice, bob, carol, unknownUser}) {
        for (const Option option : {Attempts, Deletion, MaxAttempts}) {
            const QString key = World::nameOf(option);
            if (option != MaxAttempts || user == 0)
                seen.insert(QStringLiteral("option %1 %2").arg(user).arg(key),
                            rendered(m_method->getOptionInternal(user, key)));
        }
    }
    return seen;
}

QStringList System::files()
{
    QStringList seen;
    const auto see = [&seen](const QString &path) {
        struct stat status;
        if (lstat(name(path), &status) == -1)
            return;
        const bool isLinked = S_ISREG(status.st_mode) && status.st_nlink > 1;
        const bool isFile = S_ISREG(status.st_mode) && !isLinked;
        QString type = S_ISLNK(status.st_mode)    ? QStringLiteral("link")
                       : S_ISFIFO(status.st_mode) ? QStringLiteral("FIFO")
                       : S_ISDIR(status.st_mode)  ? QStringLiteral("directory")
                       : isLinked                 ? QStringLiteral("hard link")
                                                  : QStringLiteral("file");
        if (isFile && (status.st_mode & 07777) != 0600)
            type += QStringLiteral(" for others");
        QString value;
        const QList<QByteArray> lines = isFile ? TestDevice::readFile(path).split('\n') : QList<QByteArray>();
        for (const QByteArray &line : lines) {
            if (line.startsWith("attempts=") || line.startsWith("max-attempts="))
                value = QString::fromUtf8(line.mid(line.indexOf('=') + 1));
        }
        seen << QStringLiteral("%1=%2:%3:%4:%5").arg(path, type).arg(status.st_uid).arg(status.st_gid).arg(value);
    };
    see(TestDevice::clientDirectory);
    see(TestDevice::sharedDirectory);
    for (const QString &suffix :
         {QString(), QStringLiteral(".1000"), QStringLiteral(".1001"), QStringLiteral(".1002")}) {
        struct stat status;
        const QString socket =
            TestDevice::clientDirectory + suffix + TestDevice::socketPath.mid(TestDevice::clientDirectory.size());
        if (lstat(name(socket), &status) == 0)
            seen << QStringLiteral("%1=%2").arg(socket).arg(status.st_uid);
        for (const char *file : {"current", "0", "1000", "1001", "1002", "4242"})
            see(QStringLiteral("%1%2/%3.conf").arg(TestDevice::sharedDirectory, suffix, QLatin1String(file)));
    }
    seen.sort();
    return seen;
}

// --- Surroundings ---------------------------------------------------------------------------------------------------

void System::putManifest(int manifest)
{
    const QString path = m_manifestIsLink ? linkedManifest : TestDevice::manifest;
    if (manifest == NoManifest) {
        remove(path);
        return;
    }
    QByteArray content = "[X-Application]\nApplicationName=kavet_client\n";
    if (manifest == Damaged)
        content = "[Another group]\n";
    if (manifest != NoOrganization)
        content += "OrganizationName=tarsk\n";
    if (manifest != NoCommand)
        content += "ExecCmd=/usr/bin/true\n";
    write(path, content, 0, 0, 0644);
}

void System::plantFile(const QString &path, int plant, uint planter, uint other)
{
    const QString outside = QStringLiteral("%1/%2").arg(outsideDirectory).arg(m_outside.size());
    remove(path);
    switch (plant) {
    case SymbolicLink:
    case HardLink:
        write(outside, settings(QStringLiteral("attempts"), QStringLiteral("666")), 0, 0, 0640);
        need((plant == SymbolicLink ? symlink(name(outside), name(path)) : link(name(outside), name(path))) == 0,
             "plant a link");
        need(TestDevice::setOwner(path, planter, planter), "give a link away");
        m_outside.append({outside, stateOf(outside)});
        break;
    case Fifo:
        need(mkfifo(name(path), 0600) == 0 && TestDevice::setOwner(path, planter, planter), "plant a FIFO");
        break;
    case Directory:
        need(mkdir(name(path), 0700) == 0 && TestDevice::setOwner(path, planter, planter), "plant a directory");
        break;
    default:
        write(path,
              settings(path == TestDevice::currentPolicy ? QStringLiteral("max-attempts") : QStringLiteral("attempts"),
                       QStringLiteral("5")),
              other, other, 0600);
        break;
    }
}

void System::plantSocket(int choice, uint owner, int peer)
{
    const QString socket = peer == nobody ? deadSocket : Peer::socketOf(uint(peer));
    remove(TestDevice::socketPath);
    if (choice == NotASocket) {
        write(TestDevice::socketPath, {}, owner, 0, 0600);
        return;
    }
    need(chown(name(socket), owner, 0) == 0, "give a socket away");
    if (choice == LinkToSocket)
        need(symlink(name(socket), name(TestDevice::socketPath)) == 0
                 && TestDevice::setOwner(TestDevice::socketPath, owner, 0),
             "put a link");
    else
        need(link(name(socket), name(TestDevice::socketPath)) == 0, "put a socket");
}

void System::writePackagedPolicy(const QString &value)
{
    // Use a new size each time, because QSettings caches a file while its size and time stay the same.
    remove(TestDevice::packagedPolicy);
    write(TestDevice::packagedPolicy,
          settings(QStringLiteral("max-attempts"), value) + QByteArray(1, ';') + QByteArray(++m_policyNumber * 10, '-')
              + '\n',
          0, 0, 0644);
}

void System::setLauncher(int launcher)
{
    if (launcher == m_launcher)
        return;
    m_launcher = launcher;
    remove(TestDevice::launcher);
    if (launcher != IsMissing)
        need(symlink(name(program), name(TestDevice::launcher)) == 0, "install the launcher");
    const char *modes = "rr03i";
    write(stateDirectory + QStringLiteral("/mode"), QByteArray(1, modes[launcher]), 0, 0, 0644);
}

void System::setClientDirectoryAway(bool away)
{
    if (away == m_clientDirectoryAway)
        return;
    m_clientDirectoryAway = away;
    const QString other = TestDevice::clientDirectory + awaySuffix;
    need((away ? rename(name(TestDevice::clientDirectory), name(other))
               : rename(name(other), name(TestDevice::clientDirectory)))
             == 0,
         "move the client's directory");
}

void System::setSharedBlocked(bool blocked)
{
    if (blocked == m_sharedBlocked)
        return;
    m_sharedBlocked = blocked;
    const QString parent = QFileInfo(TestDevice::sharedDirectory).path();
    if (blocked) {
        m_sharedSetAside = isThere(parent);
        need(!m_sharedSetAside || rename(name(parent), name(parent + awaySuffix)) == 0, "set a directory aside");
        write(parent, {}, 0, 0, 0600);
    } else {
        remove(parent);
        need(!m_sharedSetAside || rename(name(parent + awaySuffix), name(parent)) == 0, "bring a directory back");
    }
}

void System::setGroup(int group)
{
    static int current = Normal;
    if (group == current)
        return;
    current = group;
    QByteArray groups;
    const QList<QByteArray> lines = originalGroups.split('\n');
    for (const QByteArray &line : lines) {
        if (line.isEmpty())
            continue;
        if (!line.startsWith("auth-factor:") || group == Normal)
            groups += line + '\n';
        else if (group == GroupOfRoot)
            groups += "auth-factor:x:0:\n";
    }
    const QString other = groupFile + QStringLiteral(".new");
    write(other, groups, 0, 0, 0644);
    need(rename(name(other), name(groupFile)) == 0, "change the groups");
}

void System::setPartitionLocked(bool locked)
{
    if (locked)
        write(partitionFile, "[Partition]\nDevice=absent\n", 0, 0, 0644);
    else
        remove(partitionFile);
}

} // namespace Sequences
