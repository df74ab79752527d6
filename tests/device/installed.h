// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <QFile>
#include <QString>

/// Where the device has what the build installs. Whole-system tests run these files and nothing in the build tree,
/// which the device's users may be unable to reach.
namespace Installed {

inline const QString authd = QStringLiteral(INSTALLED_SBINDIR "/authd");
inline const QString authctl = QStringLiteral(INSTALLED_BINDIR "/authctl");
inline const QString client = QStringLiteral(INSTALLED_BINDIR "/tarsk.kavet_client");
inline const QString wiper = QStringLiteral(INSTALLED_SBINDIR "/qarv-userdata-wiper");
inline const QString methods = QStringLiteral(INSTALLED_METHODS_DIR);
inline const QString plugin = QStringLiteral(INSTALLED_METHODS_DIR "/libkavet.so");

// What stands in for others.
inline const QString confinementProbe = QStringLiteral(INSTALLED_TESTS_DIR "/confinementprobe");
inline const QString unrulyToken = QStringLiteral(INSTALLED_TESTS_DIR "/libunrulytoken.so");
/// Methods, and what only looks like one.
inline const QString oddMethods = QStringLiteral(INSTALLED_TESTS_DIR "/methods");

} // namespace Installed

/// The device without its client, for the life of the object.
class ClientAside
{
public:
    ClientAside()
    {
        if (!QFile::rename(Installed::client, m_aside))
            qFatal("No client to be put aside");
    }
    ~ClientAside()
    {
        QFile::remove(Installed::client);
        QFile::rename(m_aside, Installed::client);
    }

private:
    const QString m_aside = Installed::client + QStringLiteral(".aside");

    Q_DISABLE_COPY(ClientAside)
};
