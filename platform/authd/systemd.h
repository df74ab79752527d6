// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#pragma once

/// What the daemon tells the service manager. Without one, nothing happens.
namespace Systemd {

/// The service is there. From now on, as long as the event loop runs, the watchdog is told so as often as it wants.
void tellReady();
/// The service ends.
void tellStopping();

} // namespace Systemd
