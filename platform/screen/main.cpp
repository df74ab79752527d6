// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#include "authscreen.h"
#include "window.h"

#include <authd/libauthd.h>

#include <QCommandLineParser>
#include <QGuiApplication>

#include <cstdio>
#include <pwd.h>
#include <unistd.h>

namespace {

// The exit codes, as documented in authscreen(1)
constexpr int WrongUsage = 2;
constexpr int Unreachable = 4;

int fail(int exitCode, const QString &text)
{
    std::fprintf(stderr, "authscreen: %s\n", qUtf8Printable(text));
    return exitCode;
}

/// The user id for a login name; 0 if it does not exist.
uint userId(const QString &login)
{
    const passwd *entry = getpwnam(login.toLocal8Bit().constData());
    return entry ? entry->pw_uid : 0;
}

} // namespace

int main(int argc, char *argv[])
{
    QGuiApplication::setAttribute(Qt::AA_EnableHighDpiScaling);
    const QGuiApplication application(argc, argv);
    QCoreApplication::setApplicationName(QStringLiteral("authscreen"));
    QCoreApplication::setApplicationVersion(QStringLiteral(KAVET_VERSION));

    QCommandLineParser parser;
    parser.setApplicationDescription(QStringLiteral("Shows the methods of the authentication service as a login or "
                                                    "lock screen, and reports who has authenticated."));
    parser.addHelpOption();
    parser.addVersionOption();
    const QCommandLineOption user(QStringLiteral("user"),
                                  QStringLiteral("Be the lock screen of this user. The default for everybody but root "
                                                 "is the caller; root's is a greeter with the list of users."),
                                  QStringLiteral("login"));
    const QCommandLineOption pages(QStringLiteral("pages"), QStringLiteral("Load the methods' pages from here."),
                                   QStringLiteral("directory"), QStringLiteral(SCREENS_DIR));
    const QCommandLineOption dark(QStringLiteral("dark"), QStringLiteral("Use dark colours."));
    const QCommandLineOption fullScreen(QStringLiteral("full-screen"), QStringLiteral("Cover the screen."));
    parser.addOptions({user, pages, dark, fullScreen});
    parser.process(application);
    if (!parser.positionalArguments().isEmpty())
        return fail(WrongUsage, QStringLiteral("unexpected argument: ") + parser.positionalArguments().constFirst());

    uint uid = getuid();
    if (parser.isSet(user)) {
        uid = userId(parser.value(user));
        if (uid == 0)
            return fail(WrongUsage, QStringLiteral("no such user: ") + parser.value(user));
    }
    AuthScreen screen(parser.value(pages), uid);
    if (!screen.isConnected())
        return fail(Unreachable, QStringLiteral("the system bus cannot be reached"));
    QObject::connect(&screen, &AuthScreen::authenticated, [](uint who, const QString &method) {
        std::printf("%s: authenticated by %s\n", qUtf8Printable(LibAuthd::userName(who)), qUtf8Printable(method));
        std::fflush(stdout);
    });
    Window window(screen, parser.value(pages), parser.isSet(dark));
    if (!window.show(parser.isSet(fullScreen)))
        return fail(Unreachable, QStringLiteral("the window cannot be loaded"));
    return QGuiApplication::exec();
}
