// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#include <QAbstractEventDispatcher>
#include <QCoreApplication>
#include <QHash>
#include <QSet>
#include <QSocketNotifier>
#include <QThread>
#include <QVector>

#include <cstdio>
#include <cstdlib>
#include <malloc.h>
#include <mutex>
#include <unistd.h>

// Preloaded into a Qt program: for each byte on standard input, prints how many objects, running timers and allocated
// bytes the program has.

/// Qt's hooks for development tools. The indexes are those of its private header qhooks_p.h.
extern Q_CORE_EXPORT quintptr qtHookData[];

/// In the address sanitizer's runtime, whose allocator glibc does not count.
extern "C" size_t __sanitizer_get_current_allocated_bytes() __attribute__((weak));

namespace {

constexpr int addObjectHook = 3;
constexpr int removeObjectHook = 4;

std::mutex mutex;

/// Never destroyed, because some objects outlive static variables.
QSet<QObject *> &objects()
{
    static auto *const all = new QSet<QObject *>;
    return *all;
}

void addObject(QObject *object)
{
    const std::lock_guard<std::mutex> guard(mutex);
    objects().insert(object);
}

void removeObject(QObject *object)
{
    const std::lock_guard<std::mutex> guard(mutex);
    objects().remove(object);
}

QHash<QThread *, QVector<QObject *>> objectsByThread()
{
    const std::lock_guard<std::mutex> guard(mutex);
    QHash<QThread *, QVector<QObject *>> all;
    for (QObject *object : qAsConst(objects()))
        all[object->thread()] << object;
    return all;
}

size_t allocatedBytes()
{
    if (__sanitizer_get_current_allocated_bytes)
        return __sanitizer_get_current_allocated_bytes();
    const struct mallinfo2 heap = mallinfo2();
    return heap.uordblks + heap.hblkhd;
}

void answer()
{
    char request = 0;
    if (read(STDIN_FILENO, &request, sizeof request) != sizeof request)
        std::abort();
    const size_t bytes = allocatedBytes();
    int count = 0;
    int timers = 0;
    const auto all = objectsByThread();
    for (auto entry = all.cbegin(); entry != all.cend(); ++entry) {
        count += entry->size();
        QThread *const thread = entry.key();
        if (auto *const dispatcher = QAbstractEventDispatcher::instance(thread)) {
            const auto countTimers = [&] {
                for (QObject *object : *entry)
                    timers += dispatcher->registeredTimers(object).size();
            };
            QMetaObject::invokeMethod(dispatcher, countTimers,
                                      thread == QThread::currentThread() ? Qt::DirectConnection
                                                                         : Qt::BlockingQueuedConnection);
        }
    }
    dprintf(STDOUT_FILENO, "%d %d %zu\n", count, timers, bytes); // printf() would allocate a buffer.
}

void listen()
{
    auto *const requests = new QSocketNotifier(STDIN_FILENO, QSocketNotifier::Read, qApp);
    QObject::connect(requests, &QSocketNotifier::activated, answer);
}

[[gnu::constructor]] void start()
{
    unsetenv("LD_PRELOAD"); // Not for the programs that this one starts.
    qtHookData[addObjectHook] = quintptr(addObject);
    qtHookData[removeObjectHook] = quintptr(removeObject);
}

} // namespace

Q_COREAPP_STARTUP_FUNCTION(listen)
