// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#include "client/methodkavetprivate.h"

#include "client/userfiles.h"
#include "plugin/methodkavet.h"
#include "settings/constants.h"

#include <QFileInfo>
#include <QSettings>

void MethodKavetPrivate::syncPolicy(const QString &path, bool force)
{
    const QString marker = Constants::methodSettingsPath.arg(Constants::methodsDirectory, q->name());
    if (!force && QFileInfo::exists(marker))
        return;

    // The current policy lies where the user may put anything in its place; any other is the system's own.
    const QVariant value = path == Constants::currentPolicyFile
                               ? UserSettings(path).value(Constants::maxAttempts, 0)
                               : QSettings(path, QSettings::NativeFormat).value(Constants::maxAttempts, 0);
    if (value.isValid())
        q->setOptionInternal(0, Constants::maxAttempts, value);
}
