// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
/// A library that is no Qt plugin.
extern "C" __attribute__((visibility("default"))) int answer()
{
    return 42;
}
