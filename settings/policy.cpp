// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#include "client/methodkavetprivate.h"

#include "client/usersettings.h"
#include "plugin/methodkavet.h"
#include "settings/constants.h"

#include <QFileInfo>
#include <QSettings>

#include <utility>

void MethodKavetPrivate::syncPolicy(const QString &path, bool force)
{
    const QString marker = Constants::methodSettingsPath.arg(Constants::methodsDirectory, q->name());
    if (!force && QFileInfo::exists(marker))
        return;

    // The current policy lies where the user may put anything in its place; any other is the system's own.
    if (path == Constants::currentPolicyFile) {
        takeLimit(PinnedFile(path));
        return;
    }
    m_limitIsUsers = false;
    QVariant value = 0;
    if (QFileInfo(path).isFile()) // Opening a FIFO would wait for its other end.
        value = QSettings(path, QSettings::NativeFormat).value(Constants::maxAttempts, value);
    if (value.isValid())
        q->setOptionInternal(0, Constants::maxAttempts, value);
}

// The current policy is the client's, and so its user's; what anybody else has left there sets no limit.
std::optional<PinnedFile> MethodKavetPrivate::currentPolicyOf(uint user) const
{
    PinnedFile policy(Constants::currentPolicyFile);
    if (!policy.countsFor(user))
        return std::nullopt;
    return policy;
}

// One that was followed before may be, or have become, somebody else's. The end of one is still to be told.
std::optional<PinnedFile> MethodKavetPrivate::policyToFollow(uint user)
{
    auto policy = currentPolicyOf(user);
    if (!policy && PinnedFile(Constants::currentPolicyFile).exists())
        watcher.removePath(Constants::currentPolicyFile);
    return policy;
}

void MethodKavetPrivate::takeLimit(PinnedFile policy)
{
    m_limitIsUsers = true;
    const QVariant value = UserSettings(std::move(policy)).value(Constants::maxAttempts, 0);
    if (value.isValid())
        q->setOptionInternal(0, Constants::maxAttempts, value);
}
