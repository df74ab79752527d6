// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#include "commandline.h"

#include "commands.h"
#include "harmlesstext.h"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <cstdio>
#include <limits>

namespace {

constexpr int DefaultTimeout = 60; // seconds
constexpr int LongestTimeout = std::numeric_limits<int>::max() / 1000; // seconds that fit when counted in milliseconds
constexpr int NameColumn = 30; // of the help

constexpr char description[] = "Talks to the authentication service on the system bus.";
constexpr char footer[] =
    R"(A user is a login name or a user id. Root may do everything, a user what
concerns that user.

Exit codes: 0 success, 1 refused or failed, 2 wrong usage, 3 the user is locked,
4 the service cannot be reached or does not answer in time.)";

/// The arguments in the order in which the parser wants them, the last one first.
std::vector<std::string> reversed(int argc, char *argv[])
{
    std::vector<std::string> arguments;
    for (int i = 1; i < argc; ++i) {
        const std::string argument = argv[i];
        // The parser would take "--user=" for an option without a value, and the next argument for the value.
        if (argument.size() > 3 && argument.compare(0, 2, "--") == 0 && argument.find('=') == argument.size() - 1) {
            arguments.push_back(argument.substr(0, argument.size() - 1));
            arguments.emplace_back();
        } else {
            arguments.push_back(argument);
        }
    }
    std::reverse(arguments.begin(), arguments.end());
    return arguments;
}

/// Adds an argument of the command (a plain name) or an option (with its dashes) whose text goes to `target`.
template <typename Target>
CLI::Option *addText(CLI::App *app, const char *name, Target &target, const char *help, const char *type = "NAME")
{
    return app
        ->add_option_function<std::string>(
            name, [&target](const std::string &text) { target = QString::fromLocal8Bit(text.c_str()); }, help)
        ->type_name(type);
}

} // namespace

std::optional<ExitCode> parseCommandLine(int argc, char *argv[], Request &request)
{
    CLI::App app(description, "authctl");
    app.get_formatter()->column_width(NameColumn);
    app.get_formatter()->label("REQUIRED", "");
    app.get_formatter()->label("SUBCOMMAND", "COMMAND");
    app.get_formatter()->label("Subcommands", "Commands");
    app.option_defaults()->multi_option_policy(CLI::MultiOptionPolicy::TakeLast)->disable_flag_override();
    app.fallthrough(); // The general options may follow the command.
    app.require_subcommand(1);
    app.set_help_flag("-h,--help", "Show help, of everything or of a command");
    app.set_version_flag("-v,--version", "authctl " KAVET_VERSION, "Show the version");
    app.add_flag("--json", request.json, "Print one JSON object per line");
    int seconds = DefaultTimeout;
    app.add_option("--timeout", seconds, "Wait no longer for an answer or an outcome; 60 unless given")
        ->type_name("SECONDS")
        ->check(CLI::Range(1, LongestTimeout).description(""));

    const auto addCommand = [&app, &request](const char *name, const char *help, const Command &command) {
        CLI::App *added = app.add_subcommand(name, help)->group("Commands");
        added->callback([&request, command] { request.command = command; });
        return added;
    };
    const auto addUser = [&request](CLI::App *command) {
        addText(command, "user", request.user, "Login name or user id", "")->required();
    };
    const auto addMethod = [&request](CLI::App *command) {
        addText(command, "--method", request.method, "The method; otherwise the one that the service puts first");
    };

    addCommand("methods", "Show the authentication methods there are", Commands::methods);
    CLI::App *login =
        addCommand("login", "Authenticate a user by the password, or by a certificate and its PIN", Commands::login);
    login->footer("Asks for the password or PIN without showing it; reads it from standard input if\n"
                  "that is no terminal.");
    addUser(login);
    addMethod(login);
    addText(login, "--cert", request.cert, "Log in with this certificate and its PIN");
    addUser(addCommand("state", "Show the state that a user is in", Commands::state));
    addUser(addCommand("cancel", "Give up the open attempt of a user", Commands::cancel));
    CLI::App *options = addCommand("options", "Show the method's options; or show or set one", Commands::options);
    addText(options, "name", request.option, "The only option to show", "");
    addText(options, "value", request.value, "Its new value", "");
    addMethod(options);
    addText(options, "--user", request.optionUser, "The options of this user instead", "USER");
    addMethod(addCommand("certs", "Show the certificates that the client offers", Commands::certs));
    CLI::App *session = addCommand("session", "Tell that a user's session has started or stopped", Commands::session);
    addText(session, "event", request.sessionEvent, "What has happened to it: start or stop", "")
        ->required()
        ->check(CLI::IsMember({SessionStart.toStdString(), SessionStop.toStdString()}).description(""));
    addUser(session);
    session->add_flag("--unmanaged", request.unmanaged, "Leave programs that run for the user alone");
    addUser(addCommand("unlock", "Unlock a user", Commands::unlock));
    addCommand("monitor", "Show what the service reports until interrupted", Commands::monitor);
    app.footer(footer); // Not before, or each command would have it too.

    try {
        app.parse(reversed(argc, argv));
    } catch (const CLI::CallForHelp &) {
        const bool ofOneCommand = !app.get_subcommands().empty();
        std::fputs(app.help("", ofOneCommand ? CLI::AppFormatMode::Normal : CLI::AppFormatMode::All).c_str(), stdout);
        return Success;
    } catch (const CLI::CallForVersion &version) {
        std::puts(version.what());
        return Success;
    } catch (const CLI::ParseError &error) {
        const bool noCommand = app.get_subcommands().empty();
        const QString reason = noCommand ? QStringLiteral("No command was given, or one that does not exist")
                                         : QString::fromLocal8Bit(error.what());
        std::fprintf(stderr, "authctl: %s\nSee authctl --help.\n", qUtf8Printable(harmless(reason)));
        return WrongUsage;
    }
    request.timeout = seconds * 1000;
    return std::nullopt;
}
