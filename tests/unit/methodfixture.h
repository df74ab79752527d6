// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include "plugin/methodkavet.h"
#include "plugin/methodkavetprivate.h"
#include "support/recordingdaemon.h"
#include "support/testdevice.h"
#include "support/waiting.h"

#include <QDBusPendingCallWatcher>
#include <QJsonArray>
#include <QJsonObject>
#include <QTest>

/// The method, its private object and a recording daemon.
struct MethodFixture
{
    using AuthData = QMap<QString, QVariant>;

    RecordingDaemon daemon;
    MethodKavet method;
    MethodKavetPrivate *const d = method.findChild<MethodKavetPrivate *>();

    MethodFixture() { method.setNotificator(&daemon); }

    /// Launches the scripted client for `user` and waits for the link. `script` is its script without the socket.
    /// Clears the recorded request for input; `user` stays the user being authenticated.
    bool link(QJsonObject script = {}, uint user = TestDevice::alice)
    {
        // The method ignores a socket that appears before it knows that the process runs.
        const QString signalFile = QStringLiteral("/tmp/scripted-client/serve");
        script.insert(QStringLiteral("socket"), signalFile);
        TestDevice::setScript(script);
        method.authenticate(user, {});
        const bool linked = waitUntil([this] { return d->child.clientRunning; })
                            && TestDevice::writeFile(signalFile, {})
                            && waitUntil([this] { return !daemon.outcomes().isEmpty(); })
                            && d->clientStage == MethodKavetPrivate::Linked && d->connection.isConnected();
        daemon.calls.removeOne(RecordingDaemon::asked(SettingsKavet::EnterPasswordOrPin));
        return linked;
    }

    /// The calls to the daemon, without the option changes of a launch.
    QVector<RecordingDaemon::Call> told() const
    {
        QVector<RecordingDaemon::Call> calls;
        for (const RecordingDaemon::Call &call : daemon.calls) {
            if (call.operation != QLatin1String("optionChanged") || call.arguments.at(1) == QLatin1String("certs"))
                calls << call;
        }
        return calls;
    }

    static AuthData passwordData(const QString &password) { return {{QStringLiteral("password"), password}}; }

    /// Makes the running client drop the link. Clears the recorded calls.
    bool dropLink()
    {
        method.authenticate(TestDevice::alice, passwordData(QStringLiteral("drop")));
        const bool dropped =
            waitUntil([this] { return !d->connection.isConnected() && !daemon.outcomes().isEmpty() && !isWaiting(); });
        daemon.calls.clear();
        return dropped;
    }

    /// Whether a call to the client is pending.
    bool isWaiting() const { return d->findChild<QDBusPendingCallWatcher *>() != nullptr; }

    /// The methods called on scripted clients, in order.
    static QStringList calledMethods()
    {
        QStringList names;
        const QVector<QJsonArray> calls = TestDevice::calls();
        for (const QJsonArray &call : calls)
            names << call.first().toString();
        return names;
    }
};
