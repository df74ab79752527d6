// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#include "authenticator.h"
#include "authservice.h"
#include "lockstore.h"
#include "log.h"
#include "methodloader.h"
#include "systembus.h"

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QEventLoop>
#include <QFileInfo>
#include <QSocketNotifier>
#include <QTimer>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <fcntl.h>
#include <unistd.h>

namespace {

enum ExitCode { Stopped = 0, Failed = 1, WrongUsage = 2, NoBus = 3, NoName = 4 };

/// The end of the event loop that asks for a new start.
constexpr int Restart = -1;
/// How often to look for a bus that is not there, in milliseconds.
constexpr int BusInterval = 250;

int signalPipe[2];
pid_t ownPid;

void handleSignal(int number)
{
    // A program that a method is just starting shares handler and pipe with the daemon until it is executed; what ends
    // it is not meant for the daemon.
    if (getpid() != ownPid) {
        signal(number, SIG_DFL);
        raise(number);
        return;
    }
    const int error = errno;
    const char byte = 0;
    [[maybe_unused]] const ssize_t written = write(signalPipe[1], &byte, 1);
    errno = error;
}

/// Whoever reads the log must not end the daemon by going away. The signal is not ignored, since the programs that
/// methods start would inherit that.
void survive(int) { }

sigset_t terminationSignals()
{
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGTERM);
    sigaddset(&set, SIGINT);
    sigaddset(&set, SIGHUP);
    return set;
}

bool isIgnored(int signal)
{
    struct sigaction present = {};
    return sigaction(signal, nullptr, &present) == 0 && present.sa_handler == SIG_IGN;
}

/// Has the signals end the event loop. They are not blocked, since the programs that methods start would inherit that.
bool catchSignals()
{
    if (pipe2(signalPipe, O_CLOEXEC | O_NONBLOCK) != 0)
        return false;
    auto *notifier = new QSocketNotifier(signalPipe[0], QSocketNotifier::Read, qApp);
    QObject::connect(notifier, &QSocketNotifier::activated, qApp, [notifier] {
        notifier->setEnabled(false);
        QCoreApplication::exit(Stopped);
    });
    ownPid = getpid();
    struct sigaction action = {};
    action.sa_handler = handleSignal;
    action.sa_flags = SA_RESTART;
    struct sigaction survival = {};
    survival.sa_handler = survive;
    survival.sa_flags = SA_RESTART;
    const sigset_t set = terminationSignals();
    return sigaction(SIGTERM, &action, nullptr) == 0
           && sigaction(SIGINT, &action, nullptr) == 0
           // Whoever started the daemon may want it to outlive the terminal.
           && (isIgnored(SIGHUP) || sigaction(SIGHUP, &action, nullptr) == 0)
           && sigaction(SIGPIPE, &survival, nullptr) == 0 && sigprocmask(SIG_UNBLOCK, &set, nullptr) == 0;
}

/// Puts a fresh daemon into this one's place: what the Qt library shares in a process, the methods' own connection to
/// the bus among it, does not come back once the bus has been away. Returns only on failure.
void startAnew(const QStringList &arguments)
{
    const sigset_t set = terminationSignals();
    sigprocmask(SIG_BLOCK, &set, nullptr);
    QVector<QByteArray> texts;
    for (const QString &argument : arguments)
        texts << QFile::encodeName(argument);
    QVector<char *> argv;
    for (QByteArray &text : texts)
        argv << text.data();
    argv << nullptr;
    execv("/proc/self/exe", argv.data());
}

int run(const QString &methodsDirectory, bool waitForBus)
{
    if (!QFileInfo(methodsDirectory).isDir()) {
        Log::write(Log::Error, "no-methods-directory", {{"directory", methodsDirectory}});
        return Failed;
    }
    LockStore locks;
    if (!locks.load())
        return Failed;

    SystemBus bus;
    if (!bus.open()) {
        Log::write(waitForBus ? Log::Notice : Log::Error, "no-bus", {{"error", bus.error()}, {"wait", waitForBus}});
        if (!waitForBus)
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

    std::vector<Method> methods = loadMethods(methodsDirectory);
    if (methods.empty())
        Log::write(Log::Warning, "no-methods", {{"directory", methodsDirectory}});
    Authenticator authenticator(std::move(methods), &locks);
    AuthService service(&authenticator);
    switch (bus.claim(&service)) {
    case SystemBus::Claimed:
        break;
    case SystemBus::Taken:
        Log::write(Log::Error, "name-taken");
        return NoName;
    case SystemBus::Refused:
        Log::write(Log::Error, "name-refused", {{"error", bus.error()}});
        return NoName;
    }
    Log::write(Log::Info, "ready", {{"version", QCoreApplication::applicationVersion()}});
    const int result = QCoreApplication::exec();
    Log::write(Log::Info, "stopping");
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
                                     QStringLiteral("Log in the journal's form also where standard error is not "
                                                    "connected to the journal."));
    const QCommandLineOption waitForBus(QStringLiteral("wait-for-bus"),
                                        QStringLiteral("Wait for the system bus when it is not there."));
    const QCommandLineOption help({QStringLiteral("h"), QStringLiteral("help")}, QStringLiteral("Show this help."));
    QCommandLineParser parser;
    parser.setApplicationDescription(
        QStringLiteral("Authenticates users with the methods that it loads, and offers that on the system bus as\n"
                       "qarv.AuthService. Ends on SIGTERM, SIGINT and SIGHUP.\n\n"
                       "Exit codes: 0 ended as told, 1 cannot start, 2 wrong usage, 3 no system bus,\n"
                       "4 the service's name is taken or not allowed."));
    parser.addOptions({methods, journal, waitForBus, help});
    const QCommandLineOption version = parser.addVersionOption();
    if (!parser.parse(QCoreApplication::arguments()) || !parser.positionalArguments().isEmpty()) {
        const QString error =
            parser.errorText().isEmpty() ? QStringLiteral("No arguments expected.") : parser.errorText();
        std::fprintf(stderr, "authd: %s\nSee authd --help.\n", qUtf8Printable(error));
        return WrongUsage;
    }
    if (parser.isSet(help))
        parser.showHelp(Stopped);
    if (parser.isSet(version))
        parser.showVersion();

    Log::start(parser.isSet(journal) || Log::isJournal());
    if (!catchSignals()) {
        Log::write(Log::Error, "no-signals", {{"error", qt_error_string(errno)}});
        return Failed;
    }
    const int result = run(parser.value(methods), parser.isSet(waitForBus));
    if (result != Restart)
        return result;

    QStringList arguments = QCoreApplication::arguments();
    if (!parser.isSet(waitForBus))
        arguments << QLatin1String("--") + waitForBus.names().constFirst();
    startAnew(arguments);
    Log::write(Log::Error, "no-restart", {{"error", qt_error_string(errno)}});
    return Failed;
}
