// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include "plugin/methodkavet.h"
#include "plugin/methodkavetprivate.h"
#include "support/recordingdaemon.h"
#include "support/testdevice.h"

#include <QDBusPendingCallWatcher>
#include <QJsonArray>
#include <QJsonObject>
#include <QTest>

/// The method with a daemon that records, and its private object.
struct MethodFixture
{
    using AuthData = QMap<QString, QVariant>;

    RecordingDaemon daemon;
    MethodKavet method;
    MethodKavetPrivate *const d = method.findChild<MethodKavetPrivate *>();

    MethodFixture() { method.setNotificator(&daemon); }

    /// Launches the scripted client for alice and waits for the link; `script` is its script but for the socket.
    /// Forgets that the daemon was then asked for input; alice stays the user being authenticated.
    bool link(QJsonObject script = {})
    {
        // A socket that appears before the process is known to run would not be noticed.
        const QString signalFile = QStringLiteral("/tmp/scripted-client/serve");
        script.insert(QStringLiteral("socket"), signalFile);
        TestDevice::setScript(script);
        method.authenticate(TestDevice::alice, {});
        const bool linked = QTest::qWaitFor([this] { return d->child.clientRunning; })
                            && TestDevice::writeFile(signalFile, {})
                            && QTest::qWaitFor([this] { return !daemon.outcomes().isEmpty(); })
                            && d->clientStage == MethodKavetPrivate::Linked && d->connection.isConnected();
        daemon.calls.removeOne(RecordingDaemon::asked(SettingsKavet::EnterPasswordOrPin));
        return linked;
    }

    /// What the daemon was told, but for the changed options that come with a launch.
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

    /// Has the living client drop the link. Forgets what the daemon was told about it.
    bool dropLink()
    {
        method.authenticate(TestDevice::alice, passwordData(QStringLiteral("drop")));
        const bool dropped = QTest::qWaitFor(
            [this] { return !d->connection.isConnected() && !daemon.outcomes().isEmpty() && !isWaiting(); });
        daemon.calls.clear();
        return dropped;
    }

    /// Whether a call to the client is still being waited for.
    bool isWaiting() const { return d->findChild<QDBusPendingCallWatcher *>() != nullptr; }

    /// The names of what scripted clients have been called with, in order.
    static QStringList calledMethods()
    {
        QStringList names;
        const QVector<QJsonArray> calls = TestDevice::calls();
        for (const QJsonArray &call : calls)
            names << call.first().toString();
        return names;
    }
};
