// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#include <QCoreApplication>
#include <QElapsedTimer>
#include <QPluginLoader>

#include <cstdio>
#include <cstdlib>

/// Usage: pluginprobe PLUGIN
/// Loads the plugin as the daemon does, and prints the time until its object is made, in nanoseconds. Is linked to the
/// libraries that the daemon uses.
int main(int argc, char *argv[])
{
    const QCoreApplication application(argc, argv);
    QElapsedTimer timer;
    timer.start();
    QPluginLoader loader(QString::fromLocal8Bit(argv[argc - 1]));
    loader.setLoadHints(QLibrary::ResolveAllSymbolsHint | QLibrary::PreventUnloadHint);
    const QObject *method = loader.instance();
    const qint64 time = timer.nsecsElapsed();
    if (!method) {
        std::fprintf(stderr, "%s\n", qPrintable(loader.errorString()));
        return EXIT_FAILURE;
    }
    std::printf("%lld\n", time);
    std::fflush(stdout);
    std::_Exit(EXIT_SUCCESS);
}
