// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#include "peer.h"

#include "event.h"

#include <QDBusConnection>
#include <QDBusError>
#include <QDir>
#include <QFile>

#include <cerrno>
#include <csignal>
#include <cstring>

#include <fcntl.h>
#include <grp.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace Sequences {

// On the file system of the client's directory, because sockets are put there by hard links.
const QString Peer::directory = QStringLiteral("/run/aux-auth/kavet-sequences");

namespace {

const QString busName = QStringLiteral("sequences");
const QString wiperService = QStringLiteral("qarv.userdata.wiper");
constexpr uint users[] = {0, alice, bob, carol};

QDBusMessage errorReply(const QDBusMessage &call)
{
    return call.createErrorReply(QStringLiteral("tarsk.Error"), QStringLiteral("No luck"));
}

void need(bool done, const char *what)
{
    if (!done)
        qFatal("Cannot %s: %s", what, std::strerror(errno));
}

} // namespace

QString Peer::Call::text() const
{
    return method + QLatin1Char('(') + arguments.join(QLatin1Char(',')) + QLatin1Char(')');
}

QString Peer::Call::user() const
{
    return method == QLatin1String("validateCert") ? arguments.value(1) : arguments.value(0);
}

QString Peer::Call::credential() const
{
    return arguments.value(arguments.size() - 1);
}

Peer::Peer(const QString &program)
{
    need(pipe2(m_journal, O_CLOEXEC) == 0 && fcntl(m_journal[0], F_SETFL, O_NONBLOCK) == 0, "make a pipe");
    for (const uint user : users)
        start(user, program);

    moveToThread(&m_thread);
    m_thread.start();
    inThread([this] {
        QDBusConnection bus = QDBusConnection::connectToBus(QDBusConnection::SystemBus, busName);
        if (!bus.registerService(wiperService)
            || !bus.registerVirtualObject(QStringLiteral("/qarv/userdata/wiper"), this))
            qFatal("Cannot serve as the wiper: %s", qPrintable(bus.lastError().message()));
    });
}

Peer::~Peer()
{
    inThread([] { QDBusConnection::disconnectFromBus(busName); });
    m_thread.quit();
    m_thread.wait();
    for (const Process &process : qAsConst(m_processes)) {
        close(process.commands);
        kill(process.pid, SIGKILL);
        waitpid(process.pid, nullptr, 0);
    }
    close(m_journal[0]);
    close(m_journal[1]);
}

QString Peer::socketOf(uint user)
{
    return QStringLiteral("%1/%2/socket").arg(directory).arg(user);
}

void Peer::start(uint user, const QString &program)
{
    const QByteArray home = QFile::encodeName(QStringLiteral("%1/%2").arg(directory).arg(user));
    need(QDir().mkpath(QFile::decodeName(home)) && chown(home, user, user) == 0, "make a directory");
    int commands[2];
    need(socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, commands) == 0, "make a socket");

    const QByteArray name = QFile::encodeName(program);
    const QByteArray socket = QFile::encodeName(socketOf(user));
    const QByteArray commandsText = QByteArray::number(commands[1]);
    const QByteArray journalText = QByteArray::number(m_journal[1]);
    const pid_t pid = fork();
    need(pid != -1, "start a process");
    if (pid == 0) {
        if (fcntl(commands[1], F_SETFD, 0) == 0 && fcntl(m_journal[1], F_SETFD, 0) == 0 && setgroups(0, nullptr) == 0
            && setresgid(user, user, user) == 0 && setresuid(user, user, user) == 0)
            execl(name, name.constData(), socket.constData(), commandsText.constData(), journalText.constData(),
                  nullptr);
        _exit(97);
    }
    close(commands[1]);
    m_processes.append({user, pid, commands[0]});
    char started[8];
    need(recv(commands[0], started, sizeof started, 0) > 0, "start a client's other end");
}

const QVector<Peer::Call> &Peer::calls()
{
    char buffer[4096];
    for (ssize_t size = 0; (size = read(m_journal[0], buffer, sizeof buffer)) > 0;)
        m_unread.append(buffer, int(size));
    for (int end = m_unread.indexOf('\n'); end != -1; end = m_unread.indexOf('\n')) {
        QStringList words = QString::fromUtf8(m_unread.left(end)).split(QLatin1Char('\t'));
        m_unread.remove(0, end + 1);
        const uint peer = words.takeFirst().toUInt();
        const QString method = words.takeFirst();
        m_calls.append({peer, method, words});
    }
    return m_calls;
}

QStringList Peer::wipes() const
{
    const QMutexLocker locker(&m_mutex);
    return m_wipes;
}

void Peer::drop()
{
    commandAll({QStringLiteral("drop")});
}

void Peer::closeAll()
{
    commandAll({QStringLiteral("forget")});
    inThread([this] {
        // The bus limits the number of pending replies.
        for (const QDBusMessage &call : qAsConst(m_heldWipes))
            QDBusConnection(busName).send(errorReply(call));
        m_heldWipes.clear();
    });
}

void Peer::forget()
{
    closeAll();
    calls();
    m_calls.clear();
    const QMutexLocker locker(&m_mutex);
    m_wipes.clear();
}

void Peer::reply(const QString &credential, const QString &answer)
{
    for (const Call &call : calls()) {
        if (call.credential() == credential) {
            command(processOf(call.peer), {QStringLiteral("reply"), credential, answer});
            return;
        }
    }
    qFatal("A call is to be answered that nobody has received");
}

void Peer::replyCerts(int answer)
{
    const QVector<Call> &all = calls();
    for (auto call = all.crbegin(); call != all.crend(); ++call) {
        if (call->method == QLatin1String("getCertList")) {
            command(processOf(call->peer), {QStringLiteral("reply-certs"), QString::number(answer)});
            return;
        }
    }
    qFatal("A call is to be answered that nobody has received");
}

void Peer::setCertsAnswer(int answer)
{
    if (answer == m_certsAnswer)
        return;
    m_certsAnswer = answer;
    commandAll({QStringLiteral("certs"), QString::number(answer)});
}

void Peer::setWiper(int wiper)
{
    inThread([this, wiper] {
        if ((m_wiper == NoWiper) != (wiper == NoWiper)) {
            QDBusConnection bus(busName);
            if (!(wiper == NoWiper ? bus.unregisterService(wiperService) : bus.registerService(wiperService)))
                qFatal("Cannot change the wiper");
        }
        m_wiper = wiper;
    });
}

void Peer::replyWiper(bool success)
{
    inThread([this, success] {
        const QDBusMessage call = m_heldWipes.takeFirst();
        QDBusConnection(busName).send(success ? call.createReply() : errorReply(call));
    });
}

QString Peer::introspect(const QString &path) const
{
    Q_UNUSED(path)
    return QString();
}

bool Peer::handleMessage(const QDBusMessage &message, const QDBusConnection &connection)
{
    if (message.interface() != wiperService || message.member() != QLatin1String("ProcessTargetUser"))
        return false;
    {
        const QMutexLocker locker(&m_mutex);
        m_wipes << message.arguments().value(0).toString();
    }
    if (m_wiper == WiperHolds)
        m_heldWipes << message;
    else
        connection.send(m_wiper == WiperSucceeds ? message.createReply() : errorReply(message));
    return true;
}

/// Sends a command to a process and waits until it is done.
void Peer::command(const Process &process, const QStringList &words)
{
    const QByteArray text = words.join(QLatin1Char('\t')).toUtf8();
    char done[8];
    // SIGCHLD interrupts the call.
    need(TEMP_FAILURE_RETRY(send(process.commands, text.constData(), size_t(text.size()), MSG_NOSIGNAL)) == text.size()
             && TEMP_FAILURE_RETRY(recv(process.commands, done, sizeof done, 0)) > 0,
         "command a client's other end");
}

void Peer::commandAll(const QStringList &words)
{
    for (const Process &process : qAsConst(m_processes))
        command(process, words);
}

const Peer::Process &Peer::processOf(uint user) const
{
    for (const Process &process : m_processes) {
        if (process.user == user)
            return process;
    }
    qFatal("There is no client of user %u", user);
}

template <typename Action>
void Peer::inThread(const Action &action)
{
    QMetaObject::invokeMethod(this, action, Qt::BlockingQueuedConnection);
}

} // namespace Sequences
