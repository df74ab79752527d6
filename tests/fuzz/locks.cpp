// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
// The daemon's file of locked users.
#include "fuzz.h"
#include "keyfile.h"
#include "lockstore.h"
#include "log.h"

#include <QDateTime>
#include <QSet>

namespace {

const QString path = QStringLiteral("/var/lib/authd/locks.conf");
constexpr uint nobody = 65534;

/// The users whom the file names, which must be valid.
QSet<uint> users(const QByteArray &content)
{
    KeyFile file(QByteArray{});
    file.parse(content.toStdString(), G_KEY_FILE_NONE);
    g_auto(GStrv) groups = g_key_file_get_groups(file.keys(), nullptr);
    QSet<uint> uids;
    for (char **group = groups; *group; ++group) {
        REQUIRE(g_key_file_get_int64(file.keys(), *group, "until", nullptr) >= 0);
        uids << QByteArray(*group).toUInt();
    }
    return uids;
}

/// Whether both are the same lock, or one has just ended.
bool areSame(const std::optional<Lock> &one, const std::optional<Lock> &other)
{
    constexpr qint64 tolerance = 10; // seconds
    for (const std::optional<Lock> &lock : {one, other}) {
        if (lock && lock->until != 0 && lock->until < QDateTime::currentSecsSinceEpoch() + tolerance)
            return true;
    }
    return one.has_value() == other.has_value()
           && (!one || (one->method == other->method && one->reason == other->reason && one->until == other->until));
}

} // namespace

void Log::write(Priority, const char *, const Fields &) { }

int LLVMFuzzerInitialize(int *argc, char ***argv)
{
    Fuzz::start(argc, argv);
    return 0;
}

int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    const QByteArray content = Fuzz::bytes(data, size);
    TestDevice::writeFile(path, content);
    LockStore store;
    if (!store.load())
        return 0;

    store.countUnlock(nobody); // Writes the file.
    LockStore again;
    REQUIRE(again.load());
    const QSet<uint> uids = users(content);
    for (const uint uid : uids) {
        REQUIRE(areSame(again.find(uid), store.find(uid)));
        REQUIRE(again.unlocks(uid) == store.unlocks(uid));
        REQUIRE(again.unlock(uid) == store.find(uid).has_value());
    }
    REQUIRE(again.unlocks(nobody) == store.unlocks(nobody));
    return 0;
}
