// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#include "plugin/methodkavet.h"

#include "files/usersettings.h"
#include "plugin/logging.h"
#include "plugin/methodkavetprivate.h"
#include "settings/constants.h"
#include "settings/settingskavet.h"

#include <QFileInfo>

#include <utility>

int MethodKavet::getAttempts(unsigned int uid)
{
    const int max = getOptionInternal(0, Constants::Options::maxAttempts).toInt();
    if (max == 0)
        return 1;

    const int current = getOption(uid, Constants::Options::attempts).toInt();
    return max - current;
}

int MethodKavet::increaseAttempts(unsigned int uid)
{
    const int max = getOptionInternal(0, Constants::Options::maxAttempts).toInt();
    if (max == 0)
        return SettingsKavet::BadPassword;

    int current = getOption(uid, Constants::Options::attempts).toInt();
    if (max > current) {
        ++current;
        setOptionInternal(uid, Constants::Options::attempts, current);
        if (max > current)
            return SettingsKavet::BadPassword;
    }

    qCWarning(kavet) << __func__ << "Max attempts reached" << uid << current << max;
    logEvent(Constants::Lockout::eventLevel, Constants::Lockout::event, QString());
    resetAttempts(uid);
    lockUser(uid, true, Constants::Lockout::reason, Constants::Lockout::duration);
    setOptionInternal(uid, Constants::Options::delayedDeletion, true);
    return SettingsKavet::TooManyAttempts;
}

void MethodKavet::resetAttempts(unsigned int uid)
{
    setOptionInternal(uid, Constants::Options::attempts, 0);
}

/// The user of the client's settings file. While a launch for another user is delayed, child.uid is the other user.
uint MethodKavetPrivate::userOfFile() const
{
    bool isNamed = false;
    const uint user = QFileInfo(child.userConfigPath).completeBaseName().toUInt(&isNamed);
    return isNamed ? user : child.uid;
}

QVariant MethodKavetPrivate::getChildAttempts()
{
    PinnedFile file(child.userConfigPath);
    const QVariant none = 0;
    return file.countsFor(userOfFile()) ? UserSettings(std::move(file)).value(Constants::Options::attempts, none)
                                        : none;
}
