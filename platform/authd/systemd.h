// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#pragma once

/// Notifications to the service manager. They do nothing without one.
namespace Systemd {

/// Sends watchdog notifications from now on while the event loop runs. The service manager may already expect them
/// while a restarted daemon waits for the bus.
void startWatchdog();
/// Reports that the service is ready.
void notifyReady();
/// Reports that the service is stopping.
void notifyStopping();

} // namespace Systemd
