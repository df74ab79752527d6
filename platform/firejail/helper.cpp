// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause

// Replaces the launcher's helpers, under the same names, in a device that an ordinary user entered. The launcher runs
// only helpers that root owns, but in a user namespace the stock ones appear to be owned by nobody. There they can be
// executed, but neither read nor copied.

#include <cstdio>
#include <cstring>
#include <string>

#include <unistd.h>

int main(int argc, char *argv[])
{
    const char *const slash = argc > 0 ? std::strrchr(argv[0], '/') : nullptr;
    const std::string name = slash ? slash + 1 : "";
    std::string program;
    if (name == "fcopy" && argc == 3) {
        // The stock fcopy looks itself up in /proc, which fails for a program that cannot be read.
        program = "/usr/bin/cp";
        char preserveMode[] = "--preserve=mode";
        char *const arguments[] = {argv[0], preserveMode, argv[1], argv[2], nullptr};
        execv(program.c_str(), arguments);
    } else {
        program = "/usr/libexec/firejail.stock/" + name;
        execv(program.c_str(), argv);
    }
    std::perror(program.c_str());
    return 1;
}
