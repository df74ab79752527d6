// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#include <csignal>
#include <cstdio>

#include <fcntl.h>
#include <sys/prctl.h>
#include <unistd.h>

// Replaces the sandbox launcher and its client where only the process's life and end matter. It is small, so that
// thousands of launches take seconds. Writes its ids to the FIFO "launches". Then the first character of the file
// "mode" decides: run (r), run and ignore SIGTERM (i), or exit with that digit as the code.
int main()
{
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    char mode = 'r';
    const int modeFile = open("/tmp/kavet-sequences/mode", O_RDONLY | O_CLOEXEC);
    if (modeFile == -1 || read(modeFile, &mode, 1) != 1)
        return 99;
    signal(SIGUSR1, [](int) { _exit(0); });
    signal(SIGUSR2, [](int) { _exit(7); });
    if (mode == 'i')
        signal(SIGTERM, SIG_IGN);

    uid_t uids[3];
    gid_t gids[3];
    getresuid(&uids[0], &uids[1], &uids[2]);
    getresgid(&gids[0], &gids[1], &gids[2]);
    char line[128];
    const int size = snprintf(line, sizeof line, "%d %u %u %u %u %u %u\n", int(getpid()), uids[0], uids[1], uids[2],
                              gids[0], gids[1], gids[2]);
    const int launches = open("/tmp/kavet-sequences/launches", O_WRONLY | O_CLOEXEC);
    if (launches == -1 || write(launches, line, size_t(size)) != size)
        return 98;
    if (mode >= '0' && mode <= '9')
        return mode - '0';
    for (;;)
        pause();
}
