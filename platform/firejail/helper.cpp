// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause

// Stands in for the launcher's helpers in an ordinary user's device, by their names. The launcher runs no helper that
// is not root's, and the stock ones belong to nobody in a user namespace; there they can be run, but neither read nor
// copied.

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
        // The stock one looks itself up in /proc, which is denied to a program that cannot be read.
        program = "/usr/bin/cp";
        char *const arguments[] = {argv[0], const_cast<char *>("--preserve=mode"), argv[1], argv[2], nullptr};
        execv(program.c_str(), arguments);
    } else {
        program = "/usr/libexec/firejail.stock/" + name;
        execv(program.c_str(), argv);
    }
    std::perror(program.c_str());
    return 1;
}
