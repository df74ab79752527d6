// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#include "methodfixture.h"
#include "support/waiting.h"

#include <QDir>
#include <QFile>
#include <QJsonObject>
#include <QTest>

#include <malloc.h>

using namespace TestDevice;

namespace {

constexpr int loginsByDefault = 300;
constexpr int warmUp = 100; ///< Logins before the first count, which fill caches.
constexpr char allocator[] = "glibc.malloc.tcache_count=0"; ///< Makes glibc count freed memory as free.

/// What this process holds.
struct Holdings
{
    int descriptors;
    int watches;
    int objects; ///< Below the method.
    qint64 bytes; ///< Allocated.
};

Holdings holdings(const MethodFixture &fixture)
{
    const QString directory = QStringLiteral("/proc/self/fdinfo/");
    const QStringList descriptors = QDir(directory).entryList(QDir::Files);
    Holdings now = {descriptors.size(), 0, fixture.method.findChildren<QObject *>().size(), 0};
    for (const QString &descriptor : descriptors)
        now.watches += readFile(directory + descriptor).count("inotify wd:");
    now.bytes = qint64(mallinfo2().uordblks);
    return now;
}

} // namespace

/// Counts what logins leave behind. KAVET_LEAKS is the number of logins.
class TstLeaks : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void logins();

private:
    static bool login(MethodFixture &fixture);
};

/// A session with a launch, a wrong and a right password, a change of the policy, and the client's end.
bool TstLeaks::login(MethodFixture &fixture)
{
    fixture.daemon.calls.clear();
    if (!QFile::remove(currentPolicy))
        writeSetting(currentPolicy, QStringLiteral("max-attempts"), QStringLiteral("7"));
    const auto outcome = [&fixture](const RecordingDaemon::Call &expected) {
        return waitUntil([&] { return fixture.daemon.outcomes().contains(expected); });
    };
    fixture.method.reset();
    fixture.method.handleUserSessionTriggered(alice, true, true);
    fixture.method.authenticate(alice, {});
    if (!outcome(RecordingDaemon::asked(SettingsKavet::EnterPasswordOrPin)))
        return false;
    fixture.method.authenticate(alice, MethodFixture::passwordData(QStringLiteral("failed")));
    if (!waitUntil([&] { return !fixture.daemon.callsOf(QStringLiteral("finish")).isEmpty(); }))
        return false;
    fixture.method.authenticate(alice, MethodFixture::passwordData(QStringLiteral("success")));
    if (!outcome(RecordingDaemon::succeeded()))
        return false;
    fixture.method.handleUserSessionTriggered(alice, false, true);
    return waitUntil([&] { return !fixture.d->child.clientRunning; });
}

void TstLeaks::logins()
{
    QVERIFY2(qgetenv("GLIBC_TUNABLES").contains(allocator), "Set GLIBC_TUNABLES=glibc.malloc.tcache_count=0");
    const int count =
        qEnvironmentVariableIsSet("KAVET_LEAKS") ? qEnvironmentVariableIntValue("KAVET_LEAKS") : loginsByDefault;
    QVERIFY(count > 0);
    reset();
    setScript({{QStringLiteral("announce"), true}});
    MethodFixture fixture;
    Holdings before = {};
    for (int number = 0; number < warmUp + count; ++number) {
        if (number == warmUp)
            before = holdings(fixture);
        QVERIFY2(login(fixture), qPrintable(QString::number(number)));
    }
    // Either count may include what the last login has not yet given back: the D-Bus library closes links in a thread
    // of its own, and objects are deleted later.
    Holdings after = {};
    const auto hasNotGrown = [&] {
        after = holdings(fixture);
        // The allocator rounds; a byte that each login leaves behind is more than that.
        return after.descriptors <= before.descriptors && after.watches <= before.watches
               && after.objects <= before.objects && after.bytes < before.bytes + count;
    };
    const auto text = [](const Holdings &held) {
        return QStringLiteral("%1 descriptors, %2 watches, %3 objects, %4 bytes")
            .arg(held.descriptors)
            .arg(held.watches)
            .arg(held.objects)
            .arg(held.bytes);
    };
    QVERIFY2(waitUntil(hasNotGrown), qPrintable(text(before) + QStringLiteral("; then ") + text(after)));
}

QTEST_GUILESS_MAIN(TstLeaks)

#include "tst_leaks.moc"
