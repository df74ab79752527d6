// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#include "clientserver.h"
#include "clientsettings.h"
#include "kavetauth.h"
#include "passwordhash.h"
#include "passwordprompt.h"
#include "secret.h"
#include "tokenprogram.h"
#include "unlocks.h"

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QSocketNotifier>

#include <cerrno>
#include <csignal>
#include <cstdio>

#include <fcntl.h>
#include <pwd.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

enum ExitCode { Success = 0, Failed = 1, WrongUsage = 2, RunAsRoot = 3 };

int signalPipe[2];

void handleSignal(int)
{
    const int error = errno;
    const char byte = 0;
    [[maybe_unused]] const ssize_t written = write(signalPipe[1], &byte, 1);
    errno = error;
}

/// Makes the termination signals end the event loop.
bool catchSignals()
{
    if (pipe2(signalPipe, O_CLOEXEC | O_NONBLOCK) != 0)
        return false;
    auto *notifier = new QSocketNotifier(signalPipe[0], QSocketNotifier::Read, qApp);
    QObject::connect(notifier, &QSocketNotifier::activated, qApp, [] { QCoreApplication::exit(Success); });
    struct sigaction action = {};
    action.sa_handler = handleSignal;
    action.sa_flags = SA_RESTART;
    return sigaction(SIGTERM, &action, nullptr) == 0 && sigaction(SIGINT, &action, nullptr) == 0
           && sigaction(SIGHUP, &action, nullptr) == 0;
}

int fail(const QString &message, ExitCode code = Failed)
{
    std::fprintf(stderr, "tarsk.kavet_client: %s\n", qUtf8Printable(message));
    return code;
}

int setPassword()
{
    SecretBytes password;
    const QString problem = readNewPassword(password);
    if (!problem.isEmpty())
        return fail(problem);
    const QByteArray hash = PasswordHash::make(password.bytes());
    if (hash.isEmpty())
        return fail(QStringLiteral("A password must have 1 to %1 bytes; the password was not changed")
                        .arg(PasswordHash::maximumLength));
    if (!ClientSettings::setPasswordHash(hash))
        return fail(QStringLiteral("Cannot write %1").arg(ClientSettings::path()));
    return Success;
}

int serve()
{
    const struct passwd *user = getpwuid(getuid());
    if (!user)
        return fail(QStringLiteral("User %1 has no name").arg(getuid()));
    KavetAuth auth(user->pw_name);
    ClientServer server(auth);
    if (!catchSignals())
        return fail(QStringLiteral("Cannot catch signals: %1").arg(qt_error_string(errno)));
    const QString problem = server.listen();
    if (!problem.isEmpty())
        return fail(QStringLiteral("Cannot open the socket: %1").arg(problem));
    return QCoreApplication::exec();
}

} // namespace

int main(int argc, char *argv[])
{
    // Secrets pass through this process: leave no core file, and let no other process of the user trace it.
    prctl(PR_SET_DUMPABLE, 0);
    umask(S_IRWXG | S_IRWXO);
    qSetMessagePattern(QStringLiteral("tarsk.kavet_client: %{message}"));

    QCoreApplication application(argc, argv);
    QCoreApplication::setApplicationName(QStringLiteral("tarsk.kavet_client"));
    QCoreApplication::setApplicationVersion(QStringLiteral(KAVET_VERSION));
    QCommandLineParser parser;
    parser.setApplicationDescription(
        QStringLiteral("Authenticates the user it runs as, for the device's authentication daemon."));
    const QCommandLineOption help = parser.addHelpOption();
    const QCommandLineOption version = parser.addVersionOption();
    const QCommandLineOption noGui(QStringLiteral("no-gui"),
                                   QStringLiteral("Serve without windows. This client never shows any."));
    const QCommandLineOption setPasswordOption(
        QStringLiteral("set-password"),
        QStringLiteral("Prompt for a new password, or read one line from standard input, store its hash, and exit."));
    const QCommandLineOption certs(TokenProgram::listOption,
                                   QStringLiteral("List the certificates on the tokens, the default first, and exit."));
    QCommandLineOption tokenHelper(TokenProgram::helperOption, QString(), QStringLiteral("module"));
    tokenHelper.setFlags(QCommandLineOption::HiddenFromHelp);
    QCommandLineOption unlocks(Unlocks::option);
    unlocks.setFlags(QCommandLineOption::HiddenFromHelp);
    parser.addOptions({noGui, setPasswordOption, certs, tokenHelper, unlocks});
    if (!parser.parse(QCoreApplication::arguments()))
        return fail(parser.errorText(), WrongUsage);
    if (!parser.positionalArguments().isEmpty())
        return fail(QStringLiteral("Unexpected argument"), WrongUsage);
    if (parser.isSet(help))
        parser.showHelp();
    if (parser.isSet(version))
        parser.showVersion();

    if (getuid() == 0) // Qt ends a program whose effective user is another.
        return fail(QStringLiteral("Run this as the user to authenticate, never as root"), RunAsRoot);
    if (parser.isSet(setPasswordOption))
        return setPassword();
    if (parser.isSet(unlocks))
        return Unlocks::run();
    if (parser.isSet(certs))
        return TokenProgram::runList();
    return parser.isSet(tokenHelper) ? TokenProgram::runHelper(parser.value(tokenHelper)) : serve();
}
