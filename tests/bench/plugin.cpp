// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#include "bench.h"
#include "benchmarks.h"
#include "device/authd.h"
#include "program.h"
#include "support/testdevice.h"
#include "support/wiper.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>

using Bench::require;

namespace {

const QString tests = QStringLiteral(INSTALLED_TESTS_DIR "/");
const QString empty = tests + QStringLiteral("libemptymethod.so");
const QString against = QStringLiteral("empty plugin");

double loadingTime(Program &probe)
{
    const QByteArray time = probe.run();
    require(!time.isNull(), "the plugin cannot be loaded");
    return time.toDouble();
}

/// A directory that holds only this plugin.
QString directoryOf(const QString &plugin)
{
    QString directory = QStringLiteral("/tmp/methods/") + QFileInfo(plugin).baseName();
    require(QDir().mkpath(directory)
                && QFile::copy(plugin, directory + QLatin1Char('/') + QFileInfo(plugin).fileName()),
            "cannot copy the plugin");
    return directory;
}

/// The memory of the daemon that no file holds, after it has started with the plugins of a directory, in KiB.
double privateMemory(const QString &plugins)
{
    Authd authd;
    require(authd.start(plugins) && authd.log().count("event=method-loaded") == 1, "the daemon does not start");
    const QByteArray rollup = TestDevice::readFile(QStringLiteral("/proc/%1/smaps_rollup").arg(authd.pid()));
    const QByteArray field = "Anonymous:";
    require(rollup.contains(field), "cannot read the daemon's memory");
    return rollup.mid(rollup.indexOf(field) + field.size()).simplified().split(' ').constFirst().toDouble();
}

} // namespace

void benchPlugin()
{
    require(startSystemBus(), "the bus does not start");
    Program kavetProbe({tests + QStringLiteral("pluginprobe"), Installed::plugin});
    Program emptyProbe({tests + QStringLiteral("pluginprobe"), empty});
    Bench::compareValues(
        {QStringLiteral("loading the plugin"), against, 1.2}, 10, [&] { return loadingTime(kavetProbe); },
        [&] { return loadingTime(emptyProbe); });
    const QString kavetDirectory = directoryOf(Installed::plugin);
    const QString emptyDirectory = directoryOf(empty);
    Bench::compareValues(
        {QStringLiteral("private memory of the daemon"), against, 200, {}, QStringLiteral("KiB")}, 3,
        [&] { return privateMemory(kavetDirectory); }, [&] { return privateMemory(emptyDirectory); });
}
