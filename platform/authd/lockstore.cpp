// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#include "lockstore.h"

#include "keyfile.h"
#include "log.h"
#include "regularfile.h"
#include "rundirectory.h"
#include "states.h"

#include <QDateTime>
#include <QDir>
#include <QFileInfo>

#include <cstring>
#include <glib.h>
#include <unistd.h>

namespace {

constexpr char LockFile[] = "/var/lib/authd/locks.conf";
/// How long to wait before retrying a failed write, in milliseconds.
constexpr int RetryInterval = 2000;
constexpr std::size_t SizeLimit = std::size_t(16) * 1024 * 1024;
constexpr char MethodKey[] = "method";
constexpr char ReasonKey[] = "reason";
constexpr char UntilKey[] = "until";
constexpr char UnlocksKey[] = "unlocks";

qint64 now()
{
    return QDateTime::currentSecsSinceEpoch();
}

bool lastsLonger(const Lock &lock, const Lock &other)
{
    return lock.until == 0 || (other.until != 0 && lock.until > other.until);
}

void report(const char *event, const char *file, const QString &error)
{
    Log::write(Log::Error, event, {{"file", QString::fromLatin1(file)}, {"error", error}});
}

} // namespace

uint Lock::duration() const
{
    if (until == 0)
        return States::UntilUnlocked;
    return static_cast<uint>(qBound(qint64(0), until - now(), qint64(States::UntilUnlocked) - 1));
}

LockStore::LockStore()
{
    m_retry.setSingleShot(true);
    QObject::connect(&m_retry, &QTimer::timeout, &m_retry, [this] { save(); });
}

bool LockStore::load()
{
    // The copy in the run directory is newer, if there is one.
    if (access(RunDirectory::UnsavedLocksFile, F_OK) != 0)
        return load(LockFile);
    if (!load(RunDirectory::UnsavedLocksFile))
        return false;
    save();
    return true;
}

bool LockStore::load(const char *path)
{
    const std::optional<std::string> content = readRegularFile(path, O_NOFOLLOW, SizeLimit);
    if (!content && errno == ENOENT)
        return true;
    if (!content) {
        report("locks-unreadable", path, qt_error_string(errno));
        return false;
    }

    KeyFile file(path);
    QString parseError;
    if (!file.parse(*content, G_KEY_FILE_NONE, &parseError)) {
        report("locks-damaged", path, parseError);
        return false;
    }
    GKeyFile *const keys = file.keys();
    g_autoptr(GError) error = nullptr;
    bool good = true;
    g_auto(GStrv) groups = g_key_file_get_groups(keys, nullptr);
    for (char **group = groups; good && *group; ++group) {
        const uint uid = QByteArray(*group).toUInt(&good);
        if (!good)
            break;
        const auto has = [&](const char *key) {
            return g_key_file_has_key(keys, *group, key, nullptr) != FALSE;
        };
        if (has(UnlocksKey)) {
            m_unlocks.insert(uid, uint(g_key_file_get_uint64(keys, *group, UnlocksKey, &error)));
            good = !error;
            if (!good || (!has(MethodKey) && !has(ReasonKey) && !has(UntilKey)))
                continue;
        }
        g_autofree char *method = g_key_file_get_string(keys, *group, MethodKey, &error);
        g_autofree char *reason = error ? nullptr : g_key_file_get_string(keys, *group, ReasonKey, &error);
        const qint64 until = error ? 0 : g_key_file_get_int64(keys, *group, UntilKey, &error);
        good = !error && until >= 0;
        m_locks.insert(uid, {QString::fromUtf8(method), QString::fromUtf8(reason), until});
    }
    if (!good)
        report("locks-damaged", path,
               error ? QString::fromUtf8(error->message) : QStringLiteral("not a list of locks"));
    return good;
}

std::optional<Lock> LockStore::find(uint uid) const
{
    const auto lock = m_locks.constFind(uid);
    if (lock == m_locks.constEnd() || (lock->until != 0 && lock->until <= now()))
        return std::nullopt;
    return *lock;
}

void LockStore::lock(uint uid, const QString &method, const QString &reason, uint duration)
{
    const Lock lock = {method, reason, duration == States::UntilUnlocked ? 0 : now() + duration};
    const std::optional<Lock> present = find(uid);
    if (present && !lastsLonger(lock, *present))
        return;
    m_locks.insert(uid, lock);
    save();
}

bool LockStore::unlock(uint uid)
{
    const bool wasLocked = find(uid).has_value();
    if (m_locks.remove(uid) > 0)
        save();
    return wasLocked;
}

void LockStore::countUnlock(uint uid)
{
    ++m_unlocks[uid];
    save();
}

void LockStore::save()
{
    const KeyFile file(LockFile);
    GKeyFile *const keys = file.keys();
    for (auto unlocks = m_unlocks.cbegin(); unlocks != m_unlocks.cend(); ++unlocks)
        g_key_file_set_uint64(keys, QByteArray::number(unlocks.key()).constData(), UnlocksKey, unlocks.value());
    for (auto lock = m_locks.cbegin(); lock != m_locks.cend(); ++lock) {
        if (!find(lock.key()))
            continue;
        const QByteArray group = QByteArray::number(lock.key());
        g_key_file_set_string(keys, group.constData(), MethodKey, lock->method.toUtf8().constData());
        g_key_file_set_string(keys, group.constData(), ReasonKey, lock->reason.toUtf8().constData());
        g_key_file_set_int64(keys, group.constData(), UntilKey, lock->until);
    }
    QString error;
    QDir().mkpath(QFileInfo(QString::fromLatin1(LockFile)).path());
    if (file.write(&error)) {
        m_retry.stop();
        unlink(RunDirectory::UnsavedLocksFile);
        return;
    }
    if (!m_retry.isActive())
        report("locks-not-saved", LockFile, error);
    RunDirectory::write(RunDirectory::UnsavedLocksFile, file.content());
    m_retry.start(RetryInterval);
}
