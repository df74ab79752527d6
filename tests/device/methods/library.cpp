// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
/// A library without anything that a plugin has.
extern "C" __attribute__((visibility("default"))) int answer()
{
    return 42;
}
