// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause

// Nothing but the headers that are compiled with it, for the tests to share.
