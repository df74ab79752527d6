// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#include "sessions.h"

#include "log.h"
#include "regularfile.h"
#include "rundirectory.h"

#include <QDBusArgument>
#include <QDBusConnectionInterface>
#include <QDBusMessage>

namespace {

const QString loginManager = QStringLiteral("org.freedesktop.login1");
const QString managerPath = QStringLiteral("/org/freedesktop/login1");
const QString managerInterface = QStringLiteral("org.freedesktop.login1.Manager");
const QString listSessions = QStringLiteral("ListSessions");
/// How long to wait for the login manager's reply, in milliseconds.
constexpr int ReplyTimeout = 5000;

} // namespace

Sessions::Sessions()
{
    const std::optional<std::string> content =
        readRegularFile(RunDirectory::SessionsFile, O_NOFOLLOW, RunDirectory::SizeLimit);
    if (!content)
        return;
    const QList<QByteArray> lines = QByteArray(content->data(), int(content->size())).split('\n');
    for (const QByteArray &line : lines) {
        const QList<QByteArray> words = line.split(' ');
        bool isNumber = false;
        const uint uid = words.first().toUInt(&isNumber);
        if (isNumber && words.size() == 2)
            m_sessions.insert(uid, words.last() == "1");
    }
}

Sessions::Map Sessions::resume(const QDBusConnection &bus)
{
    QDBusConnectionInterface *const names = bus.interface(); // null after the connection has been lost
    if (!names || !names->isServiceRegistered(loginManager))
        return m_sessions;
    const QDBusMessage call = QDBusMessage::createMethodCall(loginManager, managerPath, managerInterface, listSessions);
    const QDBusMessage reply = bus.call(call, QDBus::Block, ReplyTimeout);
    if (reply.type() != QDBusMessage::ReplyMessage || reply.signature() != QLatin1String("a(susso)")) {
        Log::write(Log::Warning, "no-sessions-from-login-manager", {{"error", reply.errorName()}});
        return m_sessions;
    }
    Map present;
    const auto list = reply.arguments().constFirst().value<QDBusArgument>();
    list.beginArray();
    while (!list.atEnd()) {
        QString id;
        QString user;
        QString seat;
        uint uid = 0;
        QDBusObjectPath path;
        list.beginStructure();
        list >> id >> uid >> user >> seat >> path;
        list.endStructure();
        // A session without a record is new to the methods.
        present.insert(uid, m_sessions.value(uid, true));
    }
    list.endArray();
    m_sessions = present;
    save();
    return present;
}

void Sessions::start(uint uid, bool manageClient)
{
    m_sessions.insert(uid, manageClient || m_sessions.value(uid, false));
    save();
}

void Sessions::stop(uint uid)
{
    if (m_sessions.remove(uid) > 0)
        save();
}

void Sessions::handleLock(uint uid)
{
    const auto session = m_sessions.find(uid);
    if (session == m_sessions.end() || !session.value())
        return;
    session.value() = false;
    save();
}

void Sessions::save() const
{
    QByteArray content;
    for (auto session = m_sessions.cbegin(); session != m_sessions.cend(); ++session)
        content += QByteArray::number(session.key()) + (session.value() ? " 1\n" : " 0\n");
    RunDirectory::write(RunDirectory::SessionsFile, content);
}
