// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#include "accounts.h"
#include "authenticator.h"
#include "authservice.h"
#include "childrecord.h"
#include "lockstore.h"
#include "log.h"
#include "methodloader.h"
#include "methodoptions.h"
#include "sessions.h"
#include "signals.h"
#include "succession.h"
#include "systembus.h"
#include "systemd.h"

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QEventLoop>
#include <QFileInfo>
#include <QTimer>

#include <cerrno>
#include <cstdio>
#include <sys/prctl.h>

namespace {

enum ExitCode { Stopped = 0, Failed = 1, WrongUsage = 2, NoBus = 3, NoName = 4 };

/// The event loop's exit code that requests a restart.
constexpr int Restart = -1;
constexpr std::chrono::seconds DefaultAttemptTimeout{60};
constexpr std::chrono::hours LongestAttemptTimeout{24};
/// How often to retry the connection to an absent bus, in milliseconds.
constexpr int BusInterval = 250;

/// The parsed command line.
struct Settings
{
    QString methods;
    bool waitForBus = false;
    Accounts::Rule accounts = Accounts::ForPeople;
    std::chrono::seconds attemptTimeout = DefaultAttemptTimeout;
};

int run(const Settings &settings)
{
    if (!QFileInfo(settings.methods).isDir()) {
        Log::write(Log::Error, "no-methods-directory", {{"directory", settings.methods}});
        return Failed;
    }
    Succession succession;
    switch (succession.acquire()) {
    case Succession::Acquired:
        ChildRecord::endLeftovers();
        ChildRecord::begin();
        break;
    case Succession::Taken:
        Log::write(Log::Error, "name-taken", {{"by", QStringLiteral("another daemon")}});
        return NoName;
    case Succession::Unavailable:
        break; // Better to run without the lock than not at all.
    }
    LockStore locks;
    if (!locks.load())
        return Failed;

    Systemd::startWatchdog();
    SystemBus bus;
    if (!bus.open()) {
        Log::write(settings.waitForBus ? Log::Notice : Log::Error, "no-bus",
                   {{"error", bus.error()}, {"wait", settings.waitForBus}});
        if (!settings.waitForBus)
            return NoBus;
        QTimer timer;
        QObject::connect(&timer, &QTimer::timeout, &bus, [&bus] {
            if (bus.open())
                QCoreApplication::exit(Restart);
        });
        timer.start(BusInterval);
        if (QCoreApplication::exec() != Restart)
            return Stopped;
    }
    QObject::connect(&bus, &SystemBus::lost, [] {
        Log::write(Log::Warning, "bus-lost");
        QCoreApplication::exit(Restart);
    });

    const Methods methods(loadMethods(settings.methods));
    if (methods.names().isEmpty())
        Log::write(Log::Warning, "no-methods", {{"directory", settings.methods}});
    const Accounts accounts(settings.accounts);
    const MethodOptions options(&methods, &accounts);
    Sessions sessions;
    Authenticator authenticator(&methods, &accounts, &locks, &sessions, settings.attemptTimeout);
    AuthService service(&bus, &methods, &options, &authenticator);
    switch (bus.claim()) {
    case SystemBus::Claimed:
        break;
    case SystemBus::Taken:
        Log::write(Log::Error, "name-taken");
        return NoName;
    case SystemBus::Refused:
        Log::write(Log::Error, "name-refused", {{"error", bus.error()}});
        return NoName;
    }
    authenticator.resumeSessions(sessions.resume(QDBusConnection::systemBus()));
    bus.start();
    Log::write(Log::Info, "ready", {{"version", QCoreApplication::applicationVersion()}});
    Systemd::notifyReady();
    const int result = QCoreApplication::exec();
    Log::write(Log::Info, "stopping");
    Systemd::notifyStopping();
    return result;
}

} // namespace

int main(int argc, char *argv[])
{
    QCoreApplication application(argc, argv);
    QCoreApplication::setApplicationName(QStringLiteral("authd"));
    QCoreApplication::setApplicationVersion(QStringLiteral(KAVET_VERSION));

    const QCommandLineOption methods(QStringLiteral("methods"),
                                     QStringLiteral("Load the authentication methods in <directory>."),
                                     QStringLiteral("directory"), QStringLiteral(KAVET_METHODS_DIR));
    const QCommandLineOption journal(QStringLiteral("journal"),
                                     QStringLiteral("Log in the journal's format even if standard error is not "
                                                    "connected to the journal."));
    const QCommandLineOption waitForBus(QStringLiteral("wait-for-bus"),
                                        QStringLiteral("Wait for the system bus if it is not available."));
    const QCommandLineOption anyAccount(
        QStringLiteral("any-account"),
        QStringLiteral("Serve every account except root, not only those that people log in with."));
    const QCommandLineOption attemptTimeout(QStringLiteral("attempt-timeout"),
                                            QStringLiteral("Give up an attempt that has no outcome after <seconds>."),
                                            QStringLiteral("seconds"), QString::number(DefaultAttemptTimeout.count()));
    const QCommandLineOption help({QStringLiteral("h"), QStringLiteral("help")}, QStringLiteral("Show this help."));
    QCommandLineParser parser;
    parser.setApplicationDescription(
        QStringLiteral("Loads authentication methods and offers them on the system bus as the service\n"
                       "qarv.AuthService. Exits on SIGTERM, SIGINT and SIGHUP.\n\n"
                       "Exit codes: 0 stopped by a signal, 1 cannot start, 2 usage error, 3 no system bus,\n"
                       "4 the service's name is taken or not allowed."));
    parser.addOptions({methods, journal, waitForBus, anyAccount, attemptTimeout, help});
    const QCommandLineOption version = parser.addVersionOption();
    QString error;
    bool isNumber = false;
    Settings settings;
    if (!parser.parse(QCoreApplication::arguments()))
        error = parser.errorText();
    else if (!parser.positionalArguments().isEmpty())
        error = QStringLiteral("No arguments expected.");
    settings.methods = parser.value(methods);
    settings.waitForBus = parser.isSet(waitForBus);
    settings.accounts = parser.isSet(anyAccount) ? Accounts::All : Accounts::ForPeople;
    settings.attemptTimeout = std::chrono::seconds(parser.value(attemptTimeout).toUInt(&isNumber));
    if (error.isEmpty()
        && (!isNumber || settings.attemptTimeout.count() == 0 || settings.attemptTimeout > LongestAttemptTimeout))
        error = QStringLiteral("--attempt-timeout must be between 1 and 86400 seconds.");
    if (!error.isEmpty()) {
        std::fprintf(stderr, "authd: %s\nSee authd --help.\n", qUtf8Printable(error));
        return WrongUsage;
    }
    if (parser.isSet(help))
        parser.showHelp(Stopped);
    if (parser.isSet(version))
        parser.showVersion();

    Log::start(parser.isSet(journal));
    // Secrets pass through this process: leave no core file, and let no other process trace it.
    prctl(PR_SET_DUMPABLE, 0);
    if (!Signals::endEventLoop(Stopped)) {
        Log::write(Log::Error, "no-signals", {{"error", qt_error_string(errno)}});
        return Failed;
    }
    const int result = run(settings);
    if (result != Restart)
        return result;

    QStringList arguments = QCoreApplication::arguments();
    if (!settings.waitForBus)
        arguments << QLatin1String("--") + waitForBus.names().constFirst();
    Signals::startAnew(arguments);
    Log::write(Log::Error, "no-restart", {{"error", qt_error_string(errno)}});
    return Failed;
}
