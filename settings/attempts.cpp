// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#include "plugin/methodkavet.h"

#include "client/methodkavetprivate.h"
#include "client/usersettings.h"
#include "plugin/logging.h"
#include "settings/constants.h"
#include "settings/settingskavet.h"

#include <utility>

int MethodKavet::getAttempts(unsigned int uid)
{
    const int max = getOptionInternal(0, Constants::maxAttempts).toInt();
    if (max == 0)
        return 1;

    const int current = getOption(uid, Constants::attempts).toInt();
    return max - current;
}

int MethodKavet::increaseAttempts(unsigned int uid)
{
    const int max = getOptionInternal(0, Constants::maxAttempts).toInt();
    if (max == 0)
        return SettingsKavet::BadPassword;

    int current = getOption(uid, Constants::attempts).toInt();
    if (max > current) {
        ++current;
        setOptionInternal(uid, Constants::attempts, current);
        if (max > current)
            return SettingsKavet::BadPassword;
    }

    qCWarning(kavet) << __func__ << "Max attempts reached" << uid << current << max;
    logEvent(Constants::lockoutEventLevel, Constants::lockoutEvent, QString());
    resetAttempts(uid);
    lockUser(uid, true, Constants::lockoutReason, Constants::lockoutDuration);
    setOptionInternal(uid, Constants::delayedDeletion, true);
    return SettingsKavet::TooManyAttempts;
}

void MethodKavet::resetAttempts(unsigned int uid)
{
    setOptionInternal(uid, Constants::attempts, 0);
}

QVariant MethodKavetPrivate::getChildAttempts()
{
    PinnedFile file(child.userConfigPath);
    const QVariant none = 0;
    return file.countsFor(child.uid) ? UserSettings(std::move(file)).value(Constants::attempts, none) : none;
}
