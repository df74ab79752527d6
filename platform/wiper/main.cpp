// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#include "wiper.h"
#include "wiperadaptor.h"

#include <QCoreApplication>
#include <QDBusConnection>
#include <QDBusError>

#include <cstdio>
#include <cstdlib>

int main(int argc, char *argv[])
{
    // The default action for SIGTERM is good enough: the program keeps no state.
    QCoreApplication application(argc, argv);

    Wiper wiper;
    new WiperAdaptor(&wiper);
    QDBusConnection bus = QDBusConnection::systemBus();
    if (!bus.registerObject(QStringLiteral("/qarv/userdata/wiper"), &wiper)
        || !bus.registerService(QStringLiteral("qarv.userdata.wiper"))) {
        std::fprintf(stderr, "qarv-userdata-wiper: cannot serve on the system bus: %s\n",
                     qUtf8Printable(bus.lastError().message()));
        return EXIT_FAILURE;
    }
    return QCoreApplication::exec();
}
