// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause

// What the leak sanitizer does not report in the daemon. Qt's D-Bus thread wakes the main thread, which waits for its
// end, before it frees its own data. The process may exit in between.

#include <QtGlobal>

extern "C" {

Q_DECL_EXPORT const char *__lsan_default_suppressions()
{
    return "leak:QThread::QThread\n";
}

Q_DECL_EXPORT const char *__lsan_default_options()
{
    return "print_suppressions=0";
}

} // extern "C"
