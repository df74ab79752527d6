// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#pragma once

namespace LibLuks {

/// Whether the encrypted partition is unlocked. The device's configuration "/etc/authd/luks.conf" names the mapping in
/// its group "Partition", key "Device"; a device without that file has no encrypted partition, which counts as
/// unlocked. A configuration that cannot be read or names no device counts as locked.
__attribute__((visibility("default"))) bool isDeviceActive();

} // namespace LibLuks
