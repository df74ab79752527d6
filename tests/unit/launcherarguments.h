// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <QStringList>

/// The sandbox launcher's arguments for the stock manifest's names, with these profile options and this command.
inline QStringList launcherArguments(const QStringList &profiles, const QString &command)
{
    return QStringList{
               QStringLiteral("--quiet"),
               QStringLiteral("--template=OrganizationName:tarsk"),
               QStringLiteral("--template=ApplicationName:kavet_client"),
               QStringLiteral("--private-bin=tarsk.kavet_client"),
               QStringLiteral("--whitelist=/usr/share/tarsk.kavet_client"),
               QStringLiteral("--whitelist=${HOME}/.local/share/tarsk.kavet_client"),
               QStringLiteral("--whitelist=${HOME}/.config/tarsk.kavet_client"),
               QStringLiteral("--whitelist=${HOME}/.cache/tarsk.kavet_client"),
               QStringLiteral("--mkdir=${HOME}/.cache/tarsk/kavet_client"),
               QStringLiteral("--whitelist=${HOME}/.cache/tarsk/kavet_client"),
               QStringLiteral("--mkdir=${HOME}/.local/share/tarsk/kavet_client"),
               QStringLiteral("--whitelist=${HOME}/.local/share/tarsk/kavet_client"),
               QStringLiteral("--mkdir=${HOME}/.config/tarsk/kavet_client"),
               QStringLiteral("--whitelist=${HOME}/.config/tarsk/kavet_client"),
               QStringLiteral("--whitelist=/srv/shared/tarsk/kavet_client"),
               QStringLiteral("--dbus-user.own=tarsk.kavet_client"),
               QStringLiteral("--dbus-system.talk=qarv.AuthService"),
           }
           + profiles + QStringList{command, QStringLiteral("--no-gui")};
}
