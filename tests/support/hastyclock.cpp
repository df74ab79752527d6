// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#undef _FORTIFY_SOURCE // With it, <poll.h> defines these functions.
#include <atomic>
#include <csignal>
#include <cstdlib>
#include <ctime>
#include <dlfcn.h>
#include <poll.h>

// Preloaded into a program: when it would sleep longer than the seconds in LONGEST_SLEEP, it does not, and its
// monotonic clock is set forward instead.
namespace {

std::atomic<time_t> skipped{0};

/// The function of this name that the program would otherwise call.
template <typename Function>
Function *next(Function *, const char *name)
{
    return reinterpret_cast<Function *>(dlsym(RTLD_NEXT, name));
}

} // namespace

#pragma GCC visibility push(default)
extern "C" {

int clock_gettime(clockid_t clock, timespec *time) noexcept
{
    const int result = next(clock_gettime, "clock_gettime")(clock, time);
    if (clock == CLOCK_MONOTONIC)
        time->tv_sec += skipped;
    return result;
}

int ppoll(pollfd *descriptors, nfds_t count, const timespec *timeout, const sigset_t *signals)
{
    auto *wait = next(ppoll, "ppoll");
    static const time_t longest = std::atoi(std::getenv("LONGEST_SLEEP"));
    if (!timeout || timeout->tv_sec < longest)
        return wait(descriptors, count, timeout, signals);
    constexpr timespec now = {};
    const int result = wait(descriptors, count, &now, signals);
    if (result == 0)
        skipped += timeout->tv_sec + 1;
    return result;
}

int poll(pollfd *descriptors, nfds_t count, int timeout)
{
    if (timeout < 0)
        return ppoll(descriptors, count, nullptr, nullptr);
    const timespec time = {timeout / 1000, timeout % 1000 * 1000000};
    return ppoll(descriptors, count, &time, nullptr);
}

} // extern "C"
#pragma GCC visibility pop
