// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include "device/clientfixture.h"

/// What the client in the real sandbox needs, and how to find it.
namespace Sandboxed {

/// Starts alice's session bus, which ends with `bus`; false on failure.
inline bool startSessionBus(QProcess &bus)
{
    const QString socket = QStringLiteral("/run/user/1000/dbus/user_bus_socket");
    const QString directory = QFileInfo(socket).path();
    if (!QDir().mkpath(directory) || !TestDevice::setOwner(directory, TestDevice::alice, TestDevice::alice))
        return false;
    ClientFixture::asUser(
        bus, QStringLiteral("dbus-daemon"),
        {QStringLiteral("--session"), QStringLiteral("--nofork"), QStringLiteral("--address=unix:path=") + socket});
    bus.start();
    return waitUntil([&socket] { return QFileInfo::exists(socket); });
}

/// The client's pid; 0 if there is none.
inline int clientPid()
{
    const QStringList processes = QDir(QStringLiteral("/proc")).entryList({QStringLiteral("[0-9]*")});
    for (const QString &process : processes) {
        const QByteArray command = TestDevice::readFile(QStringLiteral("/proc/%1/cmdline").arg(process));
        if (command.startsWith(Installed::client.toLatin1() + '\0'))
            return process.toInt();
    }
    return 0;
}

} // namespace Sandboxed
