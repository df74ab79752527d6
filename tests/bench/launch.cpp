// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#include "bench.h"
#include "benchmarks.h"
#include "device/sandboxed.h"
#include "method.h"
#include "settings/constants.h"
#include "support/wiper.h"

#include <QDBusPendingReply>
#include <QFileSystemWatcher>

using Bench::require;

namespace {

/// Starts the launcher as the method does, waits for the client's socket, and makes a first call.
bool askByHand(ChildProcess &launcher, const QStringList &arguments)
{
    QFileSystemWatcher watcher({Constants::Link::directory});
    bool isThere = false;
    QObject::connect(&watcher, &QFileSystemWatcher::directoryChanged, &watcher,
                     [&isThere] { isThere = QFileInfo::exists(Constants::Link::socketPath); });
    launcher.start(Constants::Process::launcher, arguments, QIODevice::ReadWrite);
    waitFor([&isThere] { return isThere; });

    const QString name = QStringLiteral("by hand");
    auto connection = QDBusConnection::connectToPeer(Constants::Link::address, name);
    KavetAuthInterface proxy(Constants::Link::service, Constants::Link::objectPath, connection);
    QDBusPendingReply<QString> reply = proxy.checkPassword(QStringLiteral("alice"), QStringLiteral("password"));
    reply.waitForFinished();
    QDBusConnection::disconnectFromPeer(name);
    return reply.isValid();
}

} // namespace

void benchColdRequest()
{
    QProcess sessionBus;
    require(startSystemBus() && Sandboxed::startSessionBus(sessionBus), "the buses do not start");
    Method method;
    const ChildProcess &child = method.parts()->child;
    const QStringList arguments = method.parts()->getLaunchArgs();
    ChildProcess launcher(nullptr);
    launcher.uid = child.uid;
    launcher.gid = child.gid;
    launcher.setProcessEnvironment(child.processEnvironment());

    const auto endClients = [&](bool) {
        method.endClient();
        launcher.kill();
        launcher.waitForFinished();
        require(QTest::qWaitFor([] { return Sandboxed::clientPid() == 0; }), "the client does not end");
        QFile::remove(Constants::Link::socketPath);
    };
    Bench::compare(
        {QStringLiteral("cold request"), QStringLiteral("launcher and call by hand"), 1.05}, 5,
        [&method] { return method.ask(); }, [&] { return askByHand(launcher, arguments); }, endClients);
    endClients(true);
    sessionBus.kill();
    sessionBus.waitForFinished();
}
