// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#pragma once

namespace LibLuks {

/// Whether the encrypted partition is unlocked. The configuration file "/etc/authd/luks.conf" names its device mapping
/// under the key "Device" in the group "Partition". Without that file there is no encrypted partition, which counts as
/// unlocked. A configuration that cannot be read or names no device counts as locked.
__attribute__((visibility("default"))) bool isDeviceActive();

} // namespace LibLuks
