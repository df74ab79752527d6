// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause

// Linked into the tests when coverage is measured. A forked process that ends with _exit() would lose its counts.

#include <unistd.h>

extern "C" {

#include <gcov.h>

[[noreturn]] void __real__exit(int status);

[[noreturn]] void __wrap__exit(int status)
{
    if (geteuid() == 0) // Others cannot write to the build.
        __gcov_dump();
    __real__exit(status);
}

} // extern "C"
