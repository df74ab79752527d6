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

// Beside the system's limit, which has the option's own key and is missing when none was ever set.
constexpr QLatin1String limitUser("user"); ///< Whose policy stands in for it.
constexpr QLatin1String noLimitTaken("no-limit-taken"); ///< A policy has set none meanwhile.

/// Tells the file at `path` from the one that replaces it.
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

    // The current policy lies where the user may put anything in its place; any other is the system's own.
    if (path == Constants::Paths::currentPolicy) {
        takeLimit(PinnedFile(path), policyUser());
        return;
    }
    QVariant value = 0;
    if (QFileInfo(path).isFile()) // Opening a FIFO would wait for its other end.
        value = QSettings(path, QSettings::NativeFormat).value(Constants::Options::maxAttempts, value);
    if (setLimit(value))
        QFile::remove(settingsPath(Constants::Paths::systemLimit));
}

/// Whose current policy counts: the client's user's or, while there is no client, the user's whose session has started.
uint MethodKavetPrivate::policyUser() const
{
    return child.uid != 0 ? child.uid : m_sessionUser;
}

// The current policy is the client's, and so its user's; what anybody else has left there sets no limit.
std::optional<PinnedFile> MethodKavetPrivate::currentPolicyOf(uint user) const
{
    PinnedFile policy(Constants::Paths::currentPolicy);
    if (!policy.countsFor(user))
        return std::nullopt;
    return policy;
}

// One that was followed before may be, or have become, somebody else's. The end of one is still to be told.
std::optional<PinnedFile> MethodKavetPrivate::policyToFollow(uint user)
{
    auto policy = currentPolicyOf(user);
    if (!policy && PinnedFile(Constants::Paths::currentPolicy).exists())
        watcher.removePath(Constants::Paths::currentPolicy);
    return policy;
}

/// Puts the limit of a policy of `user` in force, or of none that can be read, for as long as it is that user's turn.
void MethodKavetPrivate::takeLimit(PinnedFile policy, uint user)
{
    const QVariant value = UserSettings(std::move(policy)).value(Constants::Options::maxAttempts, 0);
    if (!value.isValid() || !rememberSystemLimit(user, value.type() == QVariant::Int))
        return;
    setLimit(value);
    m_settingsOfUsersLimit = versionOf(settingsPath(Constants::Paths::methodSettings));
}

/// The current policy has gone, and with it the limit of whoever set it.
void MethodKavetPrivate::dropLimit()
{
    const QSettings memory(settingsPath(Constants::Paths::systemLimit), QSettings::NativeFormat);
    takeLimit(PinnedFile(Constants::Paths::currentPolicy), memory.value(limitUser, policyUser()).toUInt());
}

/// Puts the system's limit back in force for `user`, who has no policy, after another user's policy. It would lock this
/// user out or leave this user unprotected.
void MethodKavetPrivate::giveLimitBack(uint user)
{
    const QSettings memory(settingsPath(Constants::Paths::systemLimit), QSettings::NativeFormat);
    if (!memory.contains(limitUser) || memory.value(limitUser) == user)
        return;
    // Nor is the end of that policy this user's.
    watcher.removePath(Constants::Paths::currentPolicy);
    if (limitIsUsers()) {
        if (!memory.contains(Constants::Options::maxAttempts))
            syncPolicy(Constants::Paths::packagedPolicy, true);
        else if (!setLimit(memory.value(Constants::Options::maxAttempts).toInt()))
            return;
    }
    QFile::remove(settingsPath(Constants::Paths::systemLimit));
}

/// Whether the limit in force comes from a user's policy. One that root has set since is an int, as the option is; a
/// policy gives text, and 0 when it has none to give.
bool MethodKavetPrivate::limitIsUsers() const
{
    const QSettings memory(settingsPath(Constants::Paths::systemLimit), QSettings::NativeFormat);
    if (!memory.contains(limitUser) || !QFileInfo::exists(settingsPath(Constants::Paths::methodSettings)))
        return false;
    // A policy may be changed all the time, and hold a value that takes long to read.
    if (versionOf(settingsPath(Constants::Paths::methodSettings)) == m_settingsOfUsersLimit)
        return true;
    const QVariant limit = q->getOptionInternal(0, Constants::Options::maxAttempts);
    return limit.type() != QVariant::Int || (limit == 0 && memory.contains(noLimitTaken));
}

/// Keeps on disk, before a policy of `user` takes its place, what limit the system has. False when that fails.
bool MethodKavetPrivate::rememberSystemLimit(uint user, bool noLimit)
{
    QSettings memory(settingsPath(Constants::Paths::systemLimit), QSettings::NativeFormat);
    // A storm of changes must not cost a write each.
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
