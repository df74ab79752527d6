// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#include "systemd.h"

#include <QCoreApplication>
#include <QTimer>

#include <chrono>
#include <systemd/sd-daemon.h>

namespace {

constexpr int KeepEnvironment = 0;

} // namespace

void Systemd::startWatchdog()
{
    uint64_t limit = 0; // microseconds
    if (sd_watchdog_enabled(KeepEnvironment, &limit) <= 0)
        return;
    auto *timer = new QTimer(qApp);
    QObject::connect(timer, &QTimer::timeout, [] { sd_notify(KeepEnvironment, "WATCHDOG=1"); });
    timer->start(std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::microseconds(limit / 2)));
}

void Systemd::notifyReady()
{
    sd_notify(KeepEnvironment, "READY=1");
}

void Systemd::notifyStopping()
{
    sd_notify(KeepEnvironment, "STOPPING=1");
}
