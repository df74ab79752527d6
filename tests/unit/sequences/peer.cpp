// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#include "peer.h"

#include "event.h"

#include <QDBusConnection>
#include <QDBusError>
#include <QDBusServer>

#include <csignal>

namespace Sequences {

namespace {

const QString busName = QStringLiteral("sequences");
const QString wiperService = QStringLiteral("qarv.userdata.wiper");

QDBusMessage errorReply(const QDBusMessage &call)
{
    return call.createErrorReply(QStringLiteral("tarsk.Error"), QStringLiteral("No luck"));
}

} // namespace

Peer::Peer(const QString &path)
{
    moveToThread(&m_thread);
    m_thread.start();
    inThread([this, path] {
        m_server = new QDBusServer(QStringLiteral("unix:path=") + path, this);
        if (!m_server->isConnected())
            qFatal("Cannot serve: %s", qPrintable(m_server->lastError().message()));
        connect(m_server, &QDBusServer::newConnection, this, [this](const QDBusConnection &connection) {
            m_links << connection.name();
            QDBusConnection(connection).registerVirtualObject(QStringLiteral("/kavetauth"), this);
        });
        QDBusConnection bus = QDBusConnection::connectToBus(QDBusConnection::SystemBus, busName);
        if (!bus.registerService(wiperService)
            || !bus.registerVirtualObject(QStringLiteral("/qarv/userdata/wiper"), this))
            qFatal("Cannot serve as the wiper: %s", qPrintable(bus.lastError().message()));
    });
}

Peer::~Peer()
{
    inThread([this] {
        closeLinks();
        QDBusConnection::disconnectFromBus(busName);
        delete m_server;
    });
    m_thread.quit();
    m_thread.wait();
}

QStringList Peer::calls() const
{
    const QMutexLocker locker(&m_mutex);
    return m_calls;
}

QStringList Peer::wipes() const
{
    const QMutexLocker locker(&m_mutex);
    return m_wipes;
}

void Peer::drop()
{
    inThread([this] { closeLinks(); });
}

void Peer::closeAll()
{
    inThread([this] {
        closeLinks();
        // The bus lets only so many calls wait for their answers.
        for (const QDBusMessage &call : qAsConst(m_heldWipes))
            QDBusConnection(busName).send(errorReply(call));
        m_heldWipes.clear();
    });
}

void Peer::forget()
{
    closeAll();
    const QMutexLocker locker(&m_mutex);
    m_calls.clear();
    m_wipes.clear();
}

void Peer::reply(int index, const QString &answer)
{
    inThread([this, index, answer] { send(m_held.takeAt(index), answer); });
}

void Peer::replyCerts(int answer)
{
    inThread([this, answer] { sendCerts(m_heldCerts.takeFirst(), answer); });
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
    if (path != QLatin1String("/kavetauth"))
        return QString();
    return QStringLiteral("<interface name=\"tarsk.kavet_auth\">"
                          "<method name=\"checkPassword\"><arg direction=\"in\" type=\"s\"/>"
                          "<arg direction=\"in\" type=\"s\"/><arg direction=\"out\" type=\"s\"/></method>"
                          "<method name=\"validateCert\"><arg direction=\"in\" type=\"s\"/>"
                          "<arg direction=\"in\" type=\"s\"/><arg direction=\"in\" type=\"s\"/>"
                          "<arg direction=\"out\" type=\"s\"/></method>"
                          "<method name=\"getCertList\"><arg direction=\"out\" type=\"as\"/></method>"
                          "</interface>");
}

bool Peer::handleMessage(const QDBusMessage &message, const QDBusConnection &connection)
{
    if (message.interface() == QLatin1String("tarsk.kavet_auth"))
        return handleCall(message, connection);
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

bool Peer::handleCall(const QDBusMessage &message, const QDBusConnection &connection)
{
    QStringList arguments;
    const QVariantList values = message.arguments();
    for (const QVariant &argument : values)
        arguments << argument.toString();
    {
        const QMutexLocker locker(&m_mutex);
        m_calls << message.member() + QLatin1Char('(') + arguments.join(QLatin1Char(',')) + QLatin1Char(')');
    }

    const Held call{message, connection.name()};
    if (message.member() == QLatin1String("getCertList")) {
        if (certsAnswer == HoldCerts)
            m_heldCerts << call;
        else
            sendCerts(call, certsAnswer);
        return true;
    }

    const QString credential = arguments.value(arguments.size() - 1);
    const QString answer = credential.left(credential.indexOf(QLatin1Char('#')));
    if (answer == QLatin1String("<hold>")) {
        m_held << call;
    } else if (answer == QLatin1String("<die>")) {
        m_held << call;
        kill(clientPid, SIGKILL);
    } else if (answer == QLatin1String("<drop>")) {
        // Not from within a function of the connection's own.
        QMetaObject::invokeMethod(
            this, [this] { closeLinks(); }, Qt::QueuedConnection);
    } else {
        send(call, answer);
    }
    return true;
}

void Peer::send(const Held &call, const QString &answer)
{
    const QDBusConnection connection(call.connection);
    if (answer == QLatin1String("<error>"))
        connection.send(errorReply(call.message));
    else if (answer == QLatin1String("<number>"))
        connection.send(call.message.createReply(42));
    else if (answer == QLatin1String("<nothing>"))
        connection.send(call.message.createReply());
    else if (answer == QLatin1String("<many>"))
        connection.send(call.message.createReply({answers.first(), QStringLiteral("lock"), 7}));
    else
        connection.send(call.message.createReply(answer));
}

void Peer::sendCerts(const Held &call, int answer)
{
    const QDBusConnection connection(call.connection);
    switch (answer) {
    case SomeCerts:
        connection.send(
            call.message.createReply(QStringList{QStringLiteral("pkcs11:one"), QStringLiteral("pkcs11:two")}));
        break;
    case NoCerts:
        connection.send(call.message.createReply(QStringList()));
        break;
    case CertsError:
        connection.send(errorReply(call.message));
        break;
    case CertsNumber:
        connection.send(call.message.createReply(42));
        break;
    default:
        connection.send(call.message.createReply());
        break;
    }
}

void Peer::closeLinks()
{
    m_held.clear();
    m_heldCerts.clear();
    for (const QString &link : qAsConst(m_links))
        QDBusConnection::disconnectFromPeer(link);
    m_links.clear();
}

template <typename Action>
void Peer::inThread(const Action &action)
{
    QMetaObject::invokeMethod(this, action, Qt::BlockingQueuedConnection);
}

} // namespace Sequences
