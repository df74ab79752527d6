// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <QFile>
#include <QString>

/// The installed files. Whole-system tests run these and nothing from the build tree, because the device's users may
/// have no access to the build tree.
namespace Installed {

inline const QString authd = QStringLiteral(INSTALLED_SBINDIR "/authd");
inline const QString authctl = QStringLiteral(INSTALLED_BINDIR "/authctl");
inline const QString client = QStringLiteral(INSTALLED_BINDIR "/tarsk.kavet_client");
inline const QString wiper = QStringLiteral(INSTALLED_SBINDIR "/qarv-userdata-wiper");
inline const QString methods = QStringLiteral(INSTALLED_METHODS_DIR);
inline const QString plugin = QStringLiteral(INSTALLED_METHODS_DIR "/libkavet.so");
inline const QString screens = QStringLiteral(INSTALLED_SCREENS_DIR);

// Test doubles.
inline const QString confinementProbe = QStringLiteral(INSTALLED_TESTS_DIR "/confinementprobe");
inline const QString hastyClock = QStringLiteral(INSTALLED_TESTS_DIR "/libhastyclock.so");
inline const QString holdings = QStringLiteral(INSTALLED_TESTS_DIR "/libholdings.so");
inline const QString unrulyToken = QStringLiteral(INSTALLED_TESTS_DIR "/libunrulytoken.so");
/// The test methods, and libraries that only look like methods.
inline const QString oddMethods = QStringLiteral(INSTALLED_TESTS_DIR "/methods");

} // namespace Installed

/// Removes the client from the device for the lifetime of the object.
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
