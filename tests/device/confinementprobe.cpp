// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#include <QCoreApplication>
#include <QDBusConnection>
#include <QDBusMessage>
#include <QDir>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

// Replaces the client in the real sandbox. Tries the operations listed in the JSON object "probe.json" in the shared
// directory, and writes their results to "report.json" there:
//   "read", "list", "write", "connect": paths, each reported as true or false
//   "call": bus names on the system bus, "own": bus names on the session bus, each reported in the same way
namespace {

const QString sharedDirectory = QStringLiteral("/srv/shared/tarsk/kavet_client/");

bool canRead(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) && !file.readAll().isEmpty();
}

bool canList(const QString &path)
{
    return !QDir(path).entryList(QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot).isEmpty();
}

bool canWrite(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::WriteOnly) && file.write("probe") == 5;
}

bool canCall(const QString &service)
{
    const QDBusMessage call = QDBusMessage::createMethodCall(
        service, QStringLiteral("/"), QStringLiteral("org.freedesktop.DBus.Peer"), QStringLiteral("Ping"));
    return QDBusConnection::systemBus().call(call).type() == QDBusMessage::ReplyMessage;
}

bool canOwn(const QString &service)
{
    return QDBusConnection::sessionBus().registerService(service);
}

QJsonObject tried(const QJsonValue &subjects, bool (*attempt)(const QString &))
{
    QJsonObject results;
    for (const auto &subject : subjects.toArray()) // clazy:exclude=range-loop-detach
        results.insert(subject.toString(), attempt(subject.toString()));
    return results;
}

bool canConnect(const QString &path)
{
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    qstrncpy(address.sun_path, QFile::encodeName(path).constData(), sizeof(address.sun_path));
    const int descriptor = socket(AF_UNIX, SOCK_STREAM, 0);
    const bool connected = connect(descriptor, reinterpret_cast<sockaddr *>(&address), sizeof(address)) == 0;
    close(descriptor);
    return connected;
}

bool canOpenSocket(int family)
{
    const int descriptor = socket(family, SOCK_STREAM, 0);
    if (descriptor == -1)
        return false;
    close(descriptor);
    return true;
}

} // namespace

int main(int argc, char *argv[])
{
    QCoreApplication application(argc, argv);

    QFile file(sharedDirectory + QStringLiteral("probe.json"));
    if (!file.open(QIODevice::ReadOnly))
        qFatal("Nothing to try");
    const QJsonObject probe = QJsonDocument::fromJson(file.readAll()).object();

    QFile status(QStringLiteral("/proc/self/status"));
    if (!status.open(QIODevice::ReadOnly))
        qFatal("No status");
    const QJsonObject report{
        {QStringLiteral("arguments"), QJsonArray::fromStringList(QCoreApplication::arguments())},
        {QStringLiteral("status"), QString::fromLatin1(status.readAll())},
        {QStringLiteral("programs"),
         QJsonArray::fromStringList(
             QDir(QStringLiteral("/usr/bin")).entryList(QDir::AllEntries | QDir::NoDotAndDotDot))},
        {QStringLiteral("processes"), QDir(QStringLiteral("/proc")).entryList({QStringLiteral("[0-9]*")}).size()},
        {QStringLiteral("internet"), canOpenSocket(AF_INET) || canOpenSocket(AF_INET6)},
        {QStringLiteral("unix"), canOpenSocket(AF_UNIX)},
        {QStringLiteral("read"), tried(probe.value(QLatin1String("read")), canRead)},
        {QStringLiteral("list"), tried(probe.value(QLatin1String("list")), canList)},
        {QStringLiteral("write"), tried(probe.value(QLatin1String("write")), canWrite)},
        {QStringLiteral("connect"), tried(probe.value(QLatin1String("connect")), canConnect)},
        {QStringLiteral("call"), tried(probe.value(QLatin1String("call")), canCall)},
        {QStringLiteral("own"), tried(probe.value(QLatin1String("own")), canOwn)},
    };

    // Rename into place, so that no reader sees a partial file.
    QFile result(sharedDirectory + QStringLiteral("report.new"));
    if (!result.open(QIODevice::WriteOnly) || result.write(QJsonDocument(report).toJson()) == -1
        || !result.rename(sharedDirectory + QStringLiteral("report.json")))
        qFatal("Cannot report");
    return QCoreApplication::exec();
}
