// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#include "wiper.h"
#include "wiperadaptor.h"

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QDBusConnection>
#include <QDBusError>

#include <cstdio>

namespace {

enum ExitCode { Failed = 1, WrongUsage = 2 };

} // namespace

int main(int argc, char *argv[])
{
    // The default action for SIGTERM is good enough: the program keeps no state.
    QCoreApplication application(argc, argv);
    QCoreApplication::setApplicationName(QStringLiteral("qarv-userdata-wiper"));
    QCoreApplication::setApplicationVersion(QStringLiteral(KAVET_VERSION));
    QCommandLineParser parser;
    parser.setApplicationDescription(
        QStringLiteral("Empties the home directories of users, as the service qarv.userdata.wiper on the system bus."));
    const QCommandLineOption help({QStringLiteral("h"), QStringLiteral("help")}, QStringLiteral("Show this help."));
    parser.addOption(help);
    const QCommandLineOption version = parser.addVersionOption();
    QString error;
    if (!parser.parse(QCoreApplication::arguments()))
        error = parser.errorText();
    else if (!parser.positionalArguments().isEmpty())
        error = QStringLiteral("No arguments expected.");
    if (!error.isEmpty()) {
        std::fprintf(stderr, "qarv-userdata-wiper: %s\nSee qarv-userdata-wiper --help.\n", qUtf8Printable(error));
        return WrongUsage;
    }
    if (parser.isSet(help))
        parser.showHelp();
    if (parser.isSet(version))
        parser.showVersion();

    Wiper wiper;
    new WiperAdaptor(&wiper);
    QDBusConnection bus = QDBusConnection::systemBus();
    if (!bus.registerObject(QStringLiteral("/qarv/userdata/wiper"), &wiper)
        || !bus.registerService(QStringLiteral("qarv.userdata.wiper"))) {
        std::fprintf(stderr, "qarv-userdata-wiper: cannot serve on the system bus: %s\n",
                     qUtf8Printable(bus.lastError().message()));
        return Failed;
    }
    return QCoreApplication::exec();
}
