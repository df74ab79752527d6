// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#include "hostilesocket.h"

#include <QBasicTimer>
#include <QCoreApplication>
#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusServer>
#include <QDBusVirtualObject>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QFileSystemWatcher>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcessEnvironment>

#include <csignal>
#include <cstdio>
#include <functional>
#include <thread>

#include <fcntl.h>
#include <grp.h>
#include <sys/stat.h>
#include <unistd.h>

// Replaces the sandbox launcher: records how it was launched, then acts as the client according to a script. The script
// is a JSON object, read at launch:
//   "exit": N         exit at once with exit code N
//   "crash": true     die of a signal at once
//   "stdout", "stderr": text to print first
//   "socket": "now" (default), "never", or a path: serve as soon as that file exists
//   "hostile": serve the socket with this attack; see hostilesocket.h
//   "stop": true      stop itself as by SIGSTOP before serving
//   "behind": true    act in a child process that outlives this one
//   "announce": true  announce the socket repeatedly until somebody connects
//   "certs": [...]    the reply to getCertList, read at each call; without it at launch, an error
//   "errorText": the text of error replies
//   "chatter": N      write to file descriptor N endlessly
//   "certsAnswer": one of the words below, for getCertList
//   "answer": one of the words below, for checkPassword and validateCert
//   "ignoreTerm": true   ignore SIGTERM
// Without "answer", the password or PIN decides the reply to checkPassword and validateCert:
//   "error"           an error reply
//   "number"          a reply of another type
//   "nothing"         a reply without arguments
//   "many"            "success" and two more arguments
//   "never"           no reply
//   "late"            "success" once the file /tmp/scripted-client/answer exists
//   "die"             exits without a reply
//   "drop"            closes the link without a reply and serves again
//   anything else     that text itself
namespace {

const QString stateDirectory = QStringLiteral("/tmp/scripted-client/");
const QString socketPath = QStringLiteral("/run/aux-auth/tarsk/kavet_client/kavet.socket");

// One write per line, so that lines of several clients do not mix.
void record(const QString &journal, const QJsonDocument &entry)
{
    const int descriptor =
        open(QFile::encodeName(stateDirectory + journal).constData(), O_WRONLY | O_APPEND | O_CLOEXEC);
    const QByteArray line = entry.toJson(QJsonDocument::Compact) + '\n';
    if (descriptor == -1 || write(descriptor, line.constData(), size_t(line.size())) != line.size())
        qFatal("Cannot record");
    close(descriptor);
}

/// The inherited file descriptors. Call this before opening any.
QJsonArray openDescriptors()
{
    QJsonArray open;
    for (int descriptor = 0; descriptor < 1024; ++descriptor) {
        if (fcntl(descriptor, F_GETFD) != -1)
            open << descriptor;
    }
    return open;
}

void recordLaunch(const QStringList &arguments, const QJsonArray &descriptors)
{
    uid_t uids[3];
    gid_t gids[3];
    getresuid(&uids[0], &uids[1], &uids[2]);
    getresgid(&gids[0], &gids[1], &gids[2]);
    gid_t groups[64];
    QJsonArray groupList;
    for (int i = 0, count = getgroups(64, groups); i < count; ++i)
        groupList << int(groups[i]);
    const QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    QJsonObject variables;
    const QStringList keys = environment.keys();
    for (const QString &key : keys)
        variables.insert(key, environment.value(key));

    record(QStringLiteral("launches"),
           QJsonDocument(QJsonObject{{QStringLiteral("pid"), int(getpid())},
                                     {QStringLiteral("descriptors"), descriptors},
                                     {QStringLiteral("arguments"), QJsonArray::fromStringList(arguments)},
                                     {QStringLiteral("environment"), variables},
                                     {QStringLiteral("directory"), QDir::currentPath()},
                                     {QStringLiteral("uids"), QJsonArray{int(uids[0]), int(uids[1]), int(uids[2])}},
                                     {QStringLiteral("gids"), QJsonArray{int(gids[0]), int(gids[1]), int(gids[2])}},
                                     {QStringLiteral("groups"), groupList}}));
}

QJsonObject readScript()
{
    QFile file(stateDirectory + QStringLiteral("script.json"));
    if (!file.open(QIODevice::ReadOnly))
        qFatal("No script");
    return QJsonDocument::fromJson(file.readAll()).object();
}

void whenExists(const QString &path, QObject *context, const std::function<void()> &action)
{
    if (QFileInfo::exists(path)) {
        action();
        return;
    }
    auto *watcher = new QFileSystemWatcher({QFileInfo(path).path()}, context);
    const auto look = [watcher, path, action] {
        if (QFileInfo::exists(path)) {
            watcher->deleteLater();
            watcher->disconnect();
            action();
        }
    };
    QObject::connect(watcher, &QFileSystemWatcher::directoryChanged, context, look);
    look();
}

class Client : public QDBusVirtualObject
{
public:
    explicit Client(const QJsonObject &script)
        : m_script(script)
    {
    }

    void serve()
    {
        delete m_server;
        QFile::remove(socketPath);
        // Rename into place, so that the plugin never sees a socket that nobody listens on.
        const QString temporary = socketPath + QStringLiteral(".new");
        QFile::remove(temporary);
        m_server = new QDBusServer(QStringLiteral("unix:path=") + temporary, this);
        if (!m_server->isConnected())
            qFatal("Cannot serve: %s", qPrintable(m_server->lastError().message()));
        connect(m_server, &QDBusServer::newConnection, this, [this](const QDBusConnection &connection) {
            m_peers << connection.name();
            QDBusConnection peer(connection);
            peer.registerVirtualObject(QStringLiteral("/kavetauth"), this);
        });
        if (!QFile::rename(temporary, socketPath))
            qFatal("Cannot put the socket into its place");
        if (m_script.value(QLatin1String("announce")).toBool())
            m_announcement.start(20, this);
    }

    QString introspect(const QString &) const override
    {
        return QStringLiteral("<interface name=\"tarsk.kavet_auth\">"
                              "<method name=\"checkPassword\"><arg direction=\"in\" type=\"s\"/>"
                              "<arg direction=\"in\" type=\"s\"/><arg direction=\"out\" type=\"s\"/></method>"
                              "<method name=\"validateCert\"><arg direction=\"in\" type=\"s\"/>"
                              "<arg direction=\"in\" type=\"s\"/><arg direction=\"in\" type=\"s\"/>"
                              "<arg direction=\"out\" type=\"s\"/></method>"
                              "<method name=\"getCertList\"><arg direction=\"out\" type=\"as\"/></method>"
                              "</interface>");
    }

    bool handleMessage(const QDBusMessage &message, const QDBusConnection &connection) override
    {
        if (message.interface() != QLatin1String("tarsk.kavet_auth"))
            return false;
        QJsonArray call{message.member()};
        const QVariantList values = message.arguments();
        for (const QVariant &argument : values)
            call << argument.toString();
        record(QStringLiteral("calls"), QJsonDocument(call));
        record(QStringLiteral("callees"), QJsonDocument(QJsonArray{int(getuid())}));

        if (message.member() != QLatin1String("getCertList"))
            return answer(m_script.value(QLatin1String("answer")).toString(message.arguments().constLast().toString()),
                          QStringLiteral("success"), message, connection);
        if (m_script.contains(QLatin1String("certsAnswer")))
            return answer(m_script.value(QLatin1String("certsAnswer")).toString(), certs(), message, connection);
        return m_script.contains(QLatin1String("certs")) ? connection.send(message.createReply(certs()))
                                                         : answer(QStringLiteral("error"), {}, message, connection);
    }

protected:
    void timerEvent(QTimerEvent *) override
    {
        // Watching the directory also reports changes of the file.
        chmod(QFile::encodeName(socketPath).constData(), 0600);
        if (!m_peers.isEmpty())
            m_announcement.stop();
    }

private:
    bool answer(const QString &word, const QVariant &success, const QDBusMessage &message,
                const QDBusConnection &connection)
    {
        if (word == QLatin1String("error"))
            return connection.send(message.createErrorReply(
                QStringLiteral("tarsk.Error"),
                m_script.value(QLatin1String("errorText")).toString(QStringLiteral("No luck"))));
        if (word == QLatin1String("number"))
            return connection.send(message.createReply(42));
        if (word == QLatin1String("nothing"))
            return connection.send(message.createReply());
        if (word == QLatin1String("many"))
            return connection.send(message.createReply({success, QStringLiteral("lock"), 7}));
        if (word == QLatin1String("never"))
            return true;
        if (word == QLatin1String("late")) {
            whenExists(stateDirectory + QStringLiteral("answer"), this,
                       [message, success, connection]() mutable { connection.send(message.createReply(success)); });
            return true;
        }
        if (word == QLatin1String("die"))
            _exit(0);
        if (word == QLatin1String("drop")) {
            QMetaObject::invokeMethod(
                this,
                [this] {
                    for (const QString &peer : qAsConst(m_peers))
                        QDBusConnection::disconnectFromPeer(peer);
                    m_peers.clear();
                },
                Qt::QueuedConnection);
            return true;
        }
        return connection.send(message.createReply(word));
    }

    QVariant certs() const
    {
        QStringList list;
        const QJsonArray listed = readScript().value(QLatin1String("certs")).toArray();
        for (const auto &cert : listed)
            list << cert.toString();
        return list;
    }

    const QJsonObject m_script;
    QDBusServer *m_server = nullptr;
    QStringList m_peers;
    QBasicTimer m_announcement;
};

} // namespace

int main(int argc, char *argv[])
{
    const QJsonArray descriptors = openDescriptors();
    QCoreApplication application(argc, argv);
    const QStringList arguments = QCoreApplication::arguments();
    recordLaunch(arguments.mid(1), descriptors);

    const QJsonObject script = readScript();

    std::fputs(qUtf8Printable(script.value(QLatin1String("stdout")).toString()), stdout);
    std::fflush(stdout);
    std::fputs(qUtf8Printable(script.value(QLatin1String("stderr")).toString()), stderr);
    if (script.contains(QLatin1String("exit")))
        return script.value(QLatin1String("exit")).toInt();
    if (script.value(QLatin1String("crash")).toBool())
        abort();
    if (script.value(QLatin1String("ignoreTerm")).toBool())
        signal(SIGTERM, SIG_IGN);

    if (script.contains(QLatin1String("chatter"))) {
        std::thread([stream = script.value(QLatin1String("chatter")).toInt()] {
            for (const QByteArray text(4096, 'x'); write(stream, text.constData(), size_t(text.size())) > 0;) { }
        }).detach();
    }
    if (script.value(QLatin1String("stop")).toBool())
        raise(SIGSTOP);
    if (script.value(QLatin1String("behind")).toBool() && fork() != 0) {
        for (;;)
            pause();
    }

    Client client(script);
    const QString attack = script.value(QLatin1String("hostile")).toString();
    const auto serve = [&client, attack] {
        if (attack.isEmpty())
            client.serve();
        else
            serveHostile(socketPath, attack);
    };
    const QString socket = script.value(QLatin1String("socket")).toString(QStringLiteral("now"));
    if (socket == QLatin1String("now"))
        serve();
    else if (socket != QLatin1String("never"))
        whenExists(socket, &client, serve);
    return QCoreApplication::exec();
}
