// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#include <cstdio>
#include <cstdlib>
#include <dlfcn.h>

// Preloaded into a program: reports on standard output which variables of the environment anybody reads.
namespace {

char *recorded(const char *function, const char *name)
{
    using Function = char *(*)(const char *);
    static thread_local bool isBusy = false;
    if (!isBusy) {
        isBusy = true;
        std::printf("environment %s\n", name);
        std::fflush(stdout);
        isBusy = false;
    }
    return reinterpret_cast<Function>(dlsym(RTLD_NEXT, function))(name);
}

} // namespace

#pragma GCC visibility push(default)
extern "C" {

char *getenv(const char *name) noexcept
{
    return recorded("getenv", name);
}

char *secure_getenv(const char *name) noexcept
{
    return recorded("secure_getenv", name);
}

} // extern "C"
#pragma GCC visibility pop
