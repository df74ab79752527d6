// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include "support/fakeservice.h"
#include "support/files.h"

#include <QDBusArgument>
#include <QDBusMetaType>
#include <QDBusObjectPath>
#include <QDBusVariant>
#include <QVector>

/// A session as the login manager lists it, and its state; null when it ends before somebody asks for that.
struct LoginSession
{
    QString id;
    uint uid = 0;
    QString state = QStringLiteral("active");

    QDBusObjectPath path() const { return QDBusObjectPath(QStringLiteral("/org/freedesktop/login1/session/_") + id); }
};
Q_DECLARE_METATYPE(LoginSession)

inline QDBusArgument &operator<<(QDBusArgument &argument, const LoginSession &session)
{
    argument.beginStructure();
    argument << session.id << session.uid << QStringLiteral("user") << QStringLiteral("seat0") << session.path();
    argument.endStructure();
    return argument;
}

inline const QDBusArgument &operator>>(const QDBusArgument &argument, LoginSession &session)
{
    QString user;
    QString seat;
    QDBusObjectPath path;
    argument.beginStructure();
    argument >> session.id >> session.uid >> user >> seat >> path;
    argument.endStructure();
    return argument;
}

/// A login manager with these sessions. Its bus policy must be installed before the bus starts.
class FakeLoginManager : public FakeService
{
public:
    explicit FakeLoginManager(const QVector<LoginSession> &sessions)
        : FakeService(QStringLiteral("org.freedesktop.login1"), QStringLiteral("/org/freedesktop/login1"),
                      [sessions](const QDBusMessage &call, const QDBusConnection &bus) { answer(sessions, call, bus); })
    {
        qDBusRegisterMetaType<LoginSession>();
        qDBusRegisterMetaType<QList<LoginSession>>();
    }

    static bool installPolicy()
    {
        return TestDevice::writeFile(
            QStringLiteral("/usr/share/dbus-1/system.d/fake-login-manager.conf"),
            "<busconfig><policy user=\"root\"><allow own=\"org.freedesktop.login1\"/></policy>"
            "<policy context=\"default\"><allow send_destination=\"org.freedesktop.login1\"/></policy></busconfig>");
    }

private:
    static void answer(const QVector<LoginSession> &sessions, const QDBusMessage &call, const QDBusConnection &bus)
    {
        if (call.member() == QLatin1String("ListSessions")) {
            bus.send(call.createReply(QVariant::fromValue(QList<LoginSession>(sessions.cbegin(), sessions.cend()))));
            return;
        }
        for (const LoginSession &session : sessions) {
            if (session.path().path() == call.path() && !session.state.isNull()
                && call.arguments().value(1) == QLatin1String("State")) {
                bus.send(call.createReply(QVariant::fromValue(QDBusVariant(session.state))));
                return;
            }
        }
        bus.send(call.createErrorReply(QDBusError::UnknownObject, QStringLiteral("No such session")));
    }
};
