// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#include "systembus.h"

#include "busvalues.h"

#include <authd/authservice.h>

#include <QAbstractEventDispatcher>
#include <QDeadlineTimer>
#include <QThread>

#include <cerrno>
#include <chrono>
#include <ctime>
#include <poll.h>

namespace AuthService = LibAuthd::AuthService;

namespace {

constexpr std::chrono::seconds ClaimTimeout{5};
/// How often to retry acquiring the name, in milliseconds.
constexpr unsigned long ClaimInterval = 50;
/// How many messages to process before returning to the event loop.
constexpr int MessagesAtOnce = 32;

/// The current time in microseconds, on the clock that sd-bus uses for timeouts.
uint64_t now()
{
    constexpr uint64_t microsecondsPerSecond = 1000000;
    constexpr uint64_t nanosecondsPerMicrosecond = 1000;
    timespec time = {};
    clock_gettime(CLOCK_MONOTONIC, &time);
    return uint64_t(time.tv_sec) * microsecondsPerSecond + uint64_t(time.tv_nsec) / nanosecondsPerMicrosecond;
}

} // namespace

SystemBus::~SystemBus()
{
    sd_bus_flush_close_unref(m_bus);
}

bool SystemBus::open()
{
    const int result = sd_bus_open_system(&m_bus);
    // A call completes the handshake.
    sd_bus_message *reply = nullptr;
    sd_bus_error error = {};
    const int answer = result < 0 ? result
                                  : sd_bus_call_method(m_bus, "org.freedesktop.DBus", "/org/freedesktop/DBus",
                                                       "org.freedesktop.DBus", "GetId", &error, &reply, "");
    sd_bus_message_unref(reply);
    sd_bus_error_free(&error);
    if (answer >= 0)
        return true;
    m_error = qt_error_string(-answer);
    m_bus = sd_bus_close_unref(m_bus);
    return false;
}

SystemBus::Claim SystemBus::claim()
{
    const QDeadlineTimer deadline(ClaimTimeout);
    for (;;) {
        const int result = sd_bus_request_name(m_bus, AuthService::Service.data(), 0);
        if (result >= 0 || result == -EALREADY)
            return Claimed;
        if (result != -EEXIST) {
            m_error = qt_error_string(-result);
            return Refused;
        }
        if (deadline.hasExpired())
            return Taken;
        QThread::msleep(ClaimInterval);
    }
}

void SystemBus::start()
{
    m_timer.setSingleShot(true);
    connect(&m_timer, &QTimer::timeout, this, &SystemBus::work);
    m_readable.reset(new QSocketNotifier(sd_bus_get_fd(m_bus), QSocketNotifier::Read));
    m_writable.reset(new QSocketNotifier(sd_bus_get_fd(m_bus), QSocketNotifier::Write));
    connect(m_readable.data(), &QSocketNotifier::activated, this, &SystemBus::work);
    connect(m_writable.data(), &QSocketNotifier::activated, this, &SystemBus::work);
    // Other code may have queued messages to write.
    connect(QAbstractEventDispatcher::instance(), &QAbstractEventDispatcher::aboutToBlock, this, &SystemBus::watch);
}

void SystemBus::work()
{
    if (m_isLost)
        return;
    int result = 1;
    for (int i = 0; i < MessagesAtOnce && result > 0; ++i)
        result = sd_bus_process(m_bus, nullptr);
    if (result < 0 || sd_bus_is_open(m_bus) <= 0) {
        m_isLost = true;
        m_timer.stop();
        m_readable->setEnabled(false);
        m_writable->setEnabled(false);
        Q_EMIT lost();
    }
}

void SystemBus::watch()
{
    if (m_isLost)
        return;
    m_writable->setEnabled((sd_bus_get_events(m_bus) & POLLOUT) != 0);
    uint64_t time = 0;
    if (sd_bus_get_timeout(m_bus, &time) <= 0 || time == UINT64_MAX) {
        m_timer.stop();
        return;
    }
    constexpr uint64_t microsecondsPerMillisecond = 1000;
    const uint64_t present = now();
    const int wait = time <= present ? 0 : int((time - present) / microsecondsPerMillisecond) + 1;
    if (!m_timer.isActive() || m_timer.remainingTime() > wait)
        m_timer.start(wait);
}

void SystemBus::sendSignal(const QString &name, const QString &member, const QVariantList &arguments) const
{
    sd_bus_message *signal = nullptr;
    if (sd_bus_message_new_signal(m_bus, &signal, AuthService::ObjectPath.data(), AuthService::Interface.data(),
                                  member.toLatin1().constData())
            >= 0
        && BusValues::append(signal, arguments) >= 0)
        sd_bus_send_to(m_bus, signal, name.toLatin1().constData(), nullptr);
    sd_bus_message_unref(signal);
}
