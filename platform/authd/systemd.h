// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#pragma once

/// Notifications to the service manager. They do nothing without one.
namespace Systemd {

/// Reports that the service is ready, and from then on sends watchdog notifications while the event loop runs.
void notifyReady();
/// Reports that the service is stopping.
void notifyStopping();

} // namespace Systemd
