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
constexpr int LongestTimeout =
    std::numeric_limits<int>::max() / 1000; // seconds whose milliseconds still fit into an int
constexpr int NameColumn = 30; // width of the names in the help

constexpr char description[] = "Talks to the authentication service on the system bus.";
constexpr char footer[] =
    R"(Give a user by login name or user id. Root may run every command, other users those
that concern themselves.

Exit codes: 0 success, 1 refused or failed, 2 usage error, 3 the user is locked,
4 the service cannot be reached or timed out.)";

/// The program's arguments in reverse order, as CLI11 expects them.
std::vector<std::string> reversed(int argc, char *argv[])
{
    std::vector<std::string> arguments;
    for (int i = 1; i < argc; ++i) {
        const std::string argument = argv[i];
        // CLI11 reads "--user=" as an option without a value and takes the next argument as its value.
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

/// Adds a positional argument (a plain name) or an option (with dashes) whose text is stored in `target`.
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
    app.fallthrough(); // Allow the general options after the command.
    app.require_subcommand(1);
    app.set_help_flag("-h,--help", "Show help for all commands or for one");
    app.set_version_flag("-v,--version", "authctl " KAVET_VERSION, "Show the version");
    app.add_flag("--json", request.json, "Print one JSON object per line");
    int seconds = DefaultTimeout;
    app.add_option("--timeout", seconds, "Timeout for a reply or an outcome (default: 60)")
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
        addText(command, "--method", request.method, "Authentication method (default: the service's first)");
    };

    addCommand("methods", "List the authentication methods", Commands::methods);
    CLI::App *login =
        addCommand("login", "Authenticate a user with a password, or with a certificate and its PIN", Commands::login);
    login->footer("Prompts for the password or PIN without echo. Reads it from standard input if that\n"
                  "is not a terminal.");
    addUser(login);
    addMethod(login);
    addText(login, "--cert", request.cert, "Use this certificate and its PIN");
    addUser(addCommand("state", "Show a user's state", Commands::state));
    addUser(addCommand("cancel", "Cancel a user's open attempt", Commands::cancel));
    CLI::App *options = addCommand("options", "Show a method's options, or show or set one of them", Commands::options);
    addText(options, "name", request.option, "Show only this option", "");
    addText(options, "value", request.value, "Set the option to this value", "");
    addMethod(options);
    addText(options, "--user", request.optionUser, "Use this user's options, not the method-wide ones", "USER");
    addMethod(addCommand("certs", "List the certificates that the client offers", Commands::certs));
    CLI::App *session = addCommand("session", "Report that a user's session has started or stopped", Commands::session);
    addText(session, "event", request.sessionEvent, "start or stop", "")
        ->required()
        ->check(CLI::IsMember({SessionStart.toStdString(), SessionStop.toStdString()}).description(""));
    addUser(session);
    session->add_flag("--unmanaged", request.unmanaged, "Leave the user's client alone");
    addUser(addCommand("unlock", "Unlock a user", Commands::unlock));
    addCommand("monitor", "Show the service's signals until interrupted", Commands::monitor);
    app.footer(footer); // Set this last: a command added later inherits it.

    try {
        app.parse(reversed(argc, argv));
    } catch (const CLI::CallForHelp &) {
        const bool isForCommand = !app.get_subcommands().empty();
        std::fputs(app.help("", isForCommand ? CLI::AppFormatMode::Normal : CLI::AppFormatMode::All).c_str(), stdout);
        return Success;
    } catch (const CLI::CallForVersion &version) {
        std::puts(version.what());
        return Success;
    } catch (const CLI::ParseError &error) {
        const bool noCommand = app.get_subcommands().empty();
        const QString reason =
            noCommand ? QStringLiteral("Missing or unknown command") : QString::fromLocal8Bit(error.what());
        std::fprintf(stderr, "authctl: %s\nSee authctl --help.\n", qUtf8Printable(harmless(reason)));
        return WrongUsage;
    }
    request.timeout = seconds * 1000;
    return std::nullopt;
}
