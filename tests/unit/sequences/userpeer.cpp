// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#include "event.h"

#include <QCoreApplication>
#include <QDBusConnection>
#include <QDBusError>
#include <QDBusMessage>
#include <QDBusServer>
#include <QDBusVirtualObject>
#include <QFile>
#include <QSocketNotifier>
#include <QVector>

#include <cerrno>
#include <csignal>

#include <sys/prctl.h>
#include <sys/socket.h>
#include <unistd.h>

using namespace Sequences;

// Replies to the method's calls as the client of the user it runs as. The arguments are the path of the socket to serve
// and two file descriptors: a socket for commands, each acknowledged when done, and a pipe to which calls are reported.

namespace {

QDBusMessage errorReply(const QDBusMessage &call)
{
    return call.createErrorReply(QStringLiteral("tarsk.Error"), QStringLiteral("No luck"));
}

class UserPeer : public QDBusVirtualObject
{
public:
    UserPeer(const QString &path, int commands, int journal)
        : m_server(QStringLiteral("unix:path=") + path)
        , m_commands(commands, QSocketNotifier::Read)
        , m_journal(journal)
    {
        if (!m_server.isConnected())
            qFatal("Cannot serve: %s", qPrintable(m_server.lastError().message()));
        connect(&m_server, &QDBusServer::newConnection, this, &UserPeer::serve);
        connect(&m_commands, &QSocketNotifier::activated, this, &UserPeer::obey);
    }

    QString introspect(const QString &path) const override
    {
        Q_UNUSED(path)
        return QString();
    }

    bool handleMessage(const QDBusMessage &message, const QDBusConnection &connection) override
    {
        if (message.interface() != QLatin1String("tarsk.kavet_auth"))
            return false;
        QStringList arguments;
        const QVariantList values = message.arguments();
        for (const QVariant &argument : values)
            arguments << argument.toString();
        const QByteArray line =
            (QStringList{QString::number(getuid()), message.member()} + arguments).join(QLatin1Char('\t')).toUtf8()
            + '\n';
        if (write(m_journal, line.constData(), size_t(line.size())) != line.size())
            qFatal("Cannot tell of a call");

        const Held call{message, connection.name()};
        if (message.member() == QLatin1String("getCertList")) {
            if (m_certsAnswer == HoldCerts)
                m_heldCerts << call;
            else
                sendCerts(call, m_certsAnswer);
            return true;
        }
        const QString credential = arguments.value(arguments.size() - 1);
        const QString answer = credential.left(credential.indexOf(QLatin1Char('#')));
        if (answer == QLatin1String("<hold>")) {
            m_held.insert(credential, call);
        } else if (answer == QLatin1String("<die>")) {
            m_held.insert(credential, call);
            QFile launched(QStringLiteral("/tmp/kavet-sequences/pid"));
            const pid_t pid = launched.open(QIODevice::ReadOnly) ? launched.readAll().toInt() : 0;
            // It may already have ended.
            if (pid <= 0 || (kill(pid, SIGKILL) != 0 && errno != ESRCH))
                qFatal("Cannot kill the client");
        } else if (answer == QLatin1String("<drop>")) {
            // Delayed, because a connection must not be closed from within its own functions.
            QMetaObject::invokeMethod(this, &UserPeer::closeLinks, Qt::QueuedConnection);
        } else {
            send(call, answer);
        }
        return true;
    }

private:
    struct Held
    {
        QDBusMessage message;
        QString connection;
    };

    void serve(const QDBusConnection &connection)
    {
        // The method closes links too.
        const QStringList links = m_links;
        for (const QString &link : links) {
            if (!QDBusConnection(link).isConnected()) {
                QDBusConnection::disconnectFromPeer(link);
                m_links.removeOne(link);
            }
        }
        // The library names a link after its address, which may have been that of a closed link.
        for (Held &call : m_held) {
            if (call.connection == connection.name())
                call.connection.clear();
        }
        m_links << connection.name();
        QDBusConnection(connection).registerVirtualObject(QStringLiteral("/kavetauth"), this);
    }

    void obey()
    {
        char buffer[512];
        const ssize_t size = recv(int(m_commands.socket()), buffer, sizeof buffer, 0);
        if (size <= 0) {
            QCoreApplication::quit();
            return;
        }
        const QStringList words = QString::fromUtf8(buffer, int(size)).split(QLatin1Char('\t'));
        const QString &command = words.first();
        if (command == QLatin1String("drop") || command == QLatin1String("forget"))
            closeLinks();
        if (command == QLatin1String("forget")) {
            m_held.clear();
            m_heldCerts.clear();
        } else if (command == QLatin1String("certs")) {
            m_certsAnswer = words.at(1).toInt();
        } else if (command == QLatin1String("reply")) {
            send(m_held.take(words.at(1)), words.at(2));
        } else if (command == QLatin1String("reply-certs")) {
            // Earlier held calls belong to closed links.
            sendCerts(m_heldCerts.takeLast(), words.at(1).toInt());
        }
        if (::send(int(m_commands.socket()), "done", 4, MSG_NOSIGNAL) != 4)
            QCoreApplication::quit();
    }

    static void send(const Held &call, const QString &answer)
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
        else if (answer == QLatin1String("<flood>"))
            connection.send(call.message.createReply(QString(flood, QLatin1Char('x'))));
        else
            connection.send(call.message.createReply(answer));
    }

    static void sendCerts(const Held &call, int answer)
    {
        const auto list = [&call](int count, int size) {
            QStringList certs;
            for (int i = 0; i < count; ++i)
                certs << QStringLiteral("pkcs11:").leftJustified(size, QLatin1Char('x'));
            return call.message.createReply(certs);
        };
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
        case MostCerts:
            // The total size is also the largest permitted.
            connection.send(list(mostCerts, largestCerts / mostCerts));
            break;
        case TooManyCerts:
            connection.send(list(mostCerts + 1, 10));
            break;
        case TooLargeCerts:
            connection.send(list(2, largestCerts / 2 + 1));
            break;
        default:
            connection.send(call.message.createReply());
            break;
        }
    }

    void closeLinks()
    {
        for (const QString &link : qAsConst(m_links))
            QDBusConnection::disconnectFromPeer(link);
        m_links.clear();
    }

    static constexpr int flood = 1024 * 1024; ///< Together with the message's header, larger than a reply may be.

    QDBusServer m_server;
    QSocketNotifier m_commands;
    const int m_journal;
    int m_certsAnswer = SomeCerts;
    QStringList m_links;
    QMap<QString, Held> m_held; ///< By credential.
    QVector<Held> m_heldCerts;
};

} // namespace

int main(int argc, char *argv[])
{
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    QCoreApplication application(argc, argv);
    if (argc != 4)
        return 99;
    const UserPeer peer(QString::fromLocal8Bit(argv[1]), QByteArray(argv[2]).toInt(), QByteArray(argv[3]).toInt());
    // What answers to the start.
    if (send(QByteArray(argv[2]).toInt(), "done", 4, MSG_NOSIGNAL) != 4)
        return 98;
    return QCoreApplication::exec();
}
