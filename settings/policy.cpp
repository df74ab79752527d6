// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#include "plugin/methodkavetprivate.h"

#include "files/usersettings.h"
#include "plugin/methodkavet.h"
#include "settings/constants.h"

#include <authd/libauthd.h>

#include <QFile>
#include <QFileInfo>
#include <QSettings>

#include <utility>

#include <sys/stat.h>

namespace {

// Keys of the file that stores the system's limit. The limit has the option's key, which is missing if none was set.
const QString limitUser = QStringLiteral("user"); ///< The user whose policy is in force instead.
/// That policy has set the limit to 0 at some time.
const QString noLimitTaken = QStringLiteral("no-limit-taken");

/// Identifies the current version of the file at `path`, which is replaced at every change.
QPair<quint64, qint64> versionOf(const QString &path)
{
    struct stat status = {};
    if (stat(QFile::encodeName(path).constData(), &status) == -1)
        return {};
    constexpr qint64 second = 1000000000; // ns
    return {status.st_ino, status.st_mtim.tv_sec * second + status.st_mtim.tv_nsec};
}

} // namespace

void MethodKavetPrivate::syncPolicy(const QString &path, bool force)
{
    if (!force && QFileInfo::exists(settingsPath(Constants::Paths::methodSettings)))
        return;

    // A user can put anything in place of the current policy. Only root can write the other policies.
    if (path == Constants::Paths::currentPolicy) {
        takeLimit(PinnedFile(path), policyUser());
        return;
    }
    QVariant value = 0;
    if (QFileInfo(path).isFile()) // Opening a FIFO would block.
        value = QSettings(path, QSettings::NativeFormat).value(Constants::Options::maxAttempts, value);
    if (setLimit(value))
        QFile::remove(settingsPath(Constants::Paths::systemLimit));
}

/// The user whose current policy applies: the client's user or, without a client, the user of the last session started.
uint MethodKavetPrivate::policyUser() const
{
    return child.uid != 0 ? child.uid : m_sessionUser;
}

// The client writes the current policy as its user. A file that another user has left there does not apply.
std::optional<PinnedFile> MethodKavetPrivate::currentPolicyOf(uint user) const
{
    PinnedFile policy(Constants::Paths::currentPolicy);
    if (!policy.countsFor(user))
        return {};
    return policy;
}

// Stops watching a policy of another user. Keeps watching a removed one, so that the watcher reports the removal.
std::optional<PinnedFile> MethodKavetPrivate::policyToFollow(uint user)
{
    auto policy = currentPolicyOf(user);
    if (!policy && PinnedFile(Constants::Paths::currentPolicy).exists())
        watcher.removePath(Constants::Paths::currentPolicy);
    return policy;
}

/// Applies the limit of `user`'s policy until a launch for another user. It is 0 if the policy cannot be read.
void MethodKavetPrivate::takeLimit(PinnedFile policy, uint user)
{
    const QVariant value = UserSettings(std::move(policy)).value(Constants::Options::maxAttempts, 0);
    if (!value.isValid() || !rememberSystemLimit(user, value.type() == QVariant::Int))
        return;
    setLimit(value);
    m_settingsOfUsersLimit = versionOf(settingsPath(Constants::Paths::methodSettings));
}

/// Handles the removal of the current policy: its user has no limit now.
void MethodKavetPrivate::dropLimit()
{
    const QSettings memory(settingsPath(Constants::Paths::systemLimit), QSettings::NativeFormat);
    takeLimit(PinnedFile(Constants::Paths::currentPolicy), memory.value(limitUser, policyUser()).toUInt());
}

/// Restores the system's limit for `user`, who has no policy. The limit of another user's policy could lock this user
/// out or leave the account unprotected.
void MethodKavetPrivate::giveLimitBack(uint user)
{
    const QSettings memory(settingsPath(Constants::Paths::systemLimit), QSettings::NativeFormat);
    if (!memory.contains(limitUser) || memory.value(limitUser) == user)
        return;
    // The removal of that policy must not affect this user.
    watcher.removePath(Constants::Paths::currentPolicy);
    if (limitIsUsers()) {
        if (!memory.contains(Constants::Options::maxAttempts))
            syncPolicy(Constants::Paths::packagedPolicy, true);
        else if (!setLimit(memory.value(Constants::Options::maxAttempts).toInt()))
            return;
    }
    QFile::remove(settingsPath(Constants::Paths::systemLimit));
}

/// Whether a user's policy has set the current limit. Root sets an int, which is the option's type. A policy sets a
/// string, or int 0 if it has no value.
bool MethodKavetPrivate::limitIsUsers() const
{
    const QSettings memory(settingsPath(Constants::Paths::systemLimit), QSettings::NativeFormat);
    if (!memory.contains(limitUser) || !QFileInfo::exists(settingsPath(Constants::Paths::methodSettings)))
        return false;
    // Avoid reading the option: a user can change the policy very often and give it a value that is slow to read.
    if (versionOf(settingsPath(Constants::Paths::methodSettings)) == m_settingsOfUsersLimit)
        return true;
    const QVariant limit = q->getOptionInternal(0, Constants::Options::maxAttempts);
    return limit.type() != QVariant::Int || (limit == 0 && memory.contains(noLimitTaken));
}

/// Stores the system's limit on disk before `user`'s policy replaces it. False on failure.
bool MethodKavetPrivate::rememberSystemLimit(uint user, bool noLimit)
{
    QSettings memory(settingsPath(Constants::Paths::systemLimit), QSettings::NativeFormat);
    // A user can change the policy very often, so write only a changed value.
    const auto keep = [&memory](const QString &key, const QVariant &value) {
        if (memory.value(key).toString() != value.toString())
            memory.setValue(key, value);
    };
    if (!limitIsUsers()) {
        memory.clear();
        if (QFileInfo::exists(settingsPath(Constants::Paths::methodSettings)))
            keep(Constants::Options::maxAttempts, q->getOptionInternal(0, Constants::Options::maxAttempts).toInt());
    }
    keep(limitUser, user);
    if (noLimit)
        keep(noLimitTaken, true);
    memory.sync();
    if (memory.status() == QSettings::AccessError)
        return false;
    LibAuthd::restrictPermissions(memory.fileName());
    return true;
}

QString MethodKavetPrivate::settingsPath(const QString &name) const
{
    return name.arg(Constants::Paths::methods, q->name());
}

bool MethodKavetPrivate::setLimit(const QVariant &value)
{
    return value.isValid() && q->setOptionInternal(0, Constants::Options::maxAttempts, value);
}
