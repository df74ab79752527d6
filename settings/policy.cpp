// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#include "client/methodkavetprivate.h"

#include "client/usersettings.h"
#include "plugin/methodkavet.h"
#include "settings/constants.h"

#include <QFileInfo>
#include <QSettings>

void MethodKavetPrivate::syncPolicy(const QString &path, bool force)
{
    const QString marker = Constants::methodSettingsPath.arg(Constants::methodsDirectory, q->name());
    if (!force && QFileInfo::exists(marker))
        return;

    QVariant value = 0;
    // The current policy lies where the user may put anything in its place; any other is the system's own.
    if (path == Constants::currentPolicyFile)
        value = UserSettings(path).value(Constants::maxAttempts, value);
    else if (QFileInfo(path).isFile()) // Opening a FIFO would wait for its other end.
        value = QSettings(path, QSettings::NativeFormat).value(Constants::maxAttempts, value);
    if (value.isValid())
        q->setOptionInternal(0, Constants::maxAttempts, value);
}
