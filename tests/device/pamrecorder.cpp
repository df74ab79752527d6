// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <dlfcn.h>

// Preloaded into a program: reports on standard output which variables of the environment anybody reads, and what goes
// to the system's log.
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

void recordLog(int priority, const char *format, va_list arguments)
{
    std::printf("log %d ", priority);
    std::vprintf(format, arguments);
    std::putchar('\n');
    std::fflush(stdout);
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

void syslog(int priority, const char *format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    recordLog(priority, format, arguments);
    va_end(arguments);
}

// The same, as hardened libraries call it.
void checkedSyslog(int priority, int flag, const char *format, ...) __asm__("__syslog_chk");
void checkedSyslog(int priority, int /*flag*/, const char *format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    recordLog(priority, format, arguments);
    va_end(arguments);
}

} // extern "C"
#pragma GCC visibility pop
