// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#include "hostilesocket.h"

#include <QCoreApplication>

#include <cstdio>

// Usage: hostileserver SOCKET ATTACK
// A server that a hostile user runs instead of the client.
int main(int argc, char *argv[])
{
    const QCoreApplication application(argc, argv);
    const QStringList arguments = QCoreApplication::arguments();
    if (arguments.size() != 3) {
        std::fputs("Usage: hostileserver SOCKET ATTACK\n", stderr);
        return 2;
    }
    serveHostile(arguments.at(1), arguments.at(2));
}
