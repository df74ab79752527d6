// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause

// Empty: it only carries the precompiled headers that the tests share.
