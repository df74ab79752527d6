// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#include "harmlessbytes.h"
#include "login.h"
#include "loginmanager.h"

#include <new>
#include <pwd.h>
#include <security/pam_ext.h>
#include <security/pam_modules.h>
#include <security/pam_modutil.h>
#include <syslog.h>

namespace {

// In seconds. An attempt may have to wait for its turn, and for the client to start.
constexpr unsigned int AuthTimeout = 30;
constexpr unsigned int ReportTimeout = 5;

Options readOptions(pam_handle_t *pam, int argc, const char **argv)
{
    Options options(argc, argv);
    for (const std::string &option : options.ignored)
        pam_syslog(pam, LOG_WARNING, "ignoring the option \"%s\"", harmless(option).c_str());
    return options;
}

/// The user id of the user whom the program named or asks for. Throws when there is no such user.
std::uint32_t findUser(pam_handle_t *pam)
{
    const char *name = nullptr;
    if (const int result = pam_get_user(pam, &name, nullptr); result != PAM_SUCCESS)
        throw Outcome{result == PAM_CONV_AGAIN ? PAM_INCOMPLETE : result, {}};
    const passwd *const user = name ? pam_modutil_getpwnam(pam, name) : nullptr;
    if (!user)
        throw Outcome{PAM_USER_UNKNOWN, {}};
    return user->pw_uid;
}

void log(pam_handle_t *pam, const char *failure, const Outcome &outcome)
{
    if (outcome.result == PAM_SUCCESS || outcome.result == PAM_IGNORE || outcome.result == PAM_USER_UNKNOWN)
        return;
    std::string line = std::string(failure) + ": " + pam_strerror(pam, outcome.result);
    if (!outcome.text.empty())
        line += ": " + outcome.text;
    if (!outcome.cause.empty())
        line += " (" + outcome.cause + ")";
    pam_syslog(pam, LOG_NOTICE, "%s", line.c_str());
}

/// Returns what `request` returns or throws.
template <typename Request>
Outcome outcomeOf(const Request &request)
{
    try {
        return request();
    } catch (const Outcome &outcome) {
        return outcome;
    }
}

/// What the entry points differ in.
struct Entry
{
    const char *failure; ///< For the log.
    unsigned int timeout; ///< In seconds, unless an option says otherwise.
    int othersResult; ///< For users who exist, but whom the daemon does not authenticate.
};

/// Runs an entry point and logs its failure. `request` gets the options, the user id and the deadline. No exception
/// leaves the module.
template <typename Request>
int run(pam_handle_t *pam, int argc, const char **argv, const Entry &entry, const Request &request) noexcept
{
    try {
        const Outcome outcome = outcomeOf([&]() -> Outcome {
            const Options options = readOptions(pam, argc, argv);
            const std::uint32_t uid = findUser(pam);
            if (uid == 0)
                return {entry.othersResult, {}};
            Deadline deadline(options.timeout.value_or(entry.timeout));
            Outcome end = outcomeOf([&]() -> Outcome { return request(options, uid, deadline); });
            if (end.result == PAM_USER_UNKNOWN)
                end.result = entry.othersResult;
            return end;
        });
        log(pam, entry.failure, outcome);
        return outcome.result;
    } catch (const std::bad_alloc &) {
        return PAM_BUF_ERR;
    } catch (...) {
        return PAM_SERVICE_ERR;
    }
}

int reportSession(pam_handle_t *pam, int argc, const char **argv, bool isStart)
{
    const Entry entry{isStart ? "session start not reported" : "session end not reported", ReportTimeout, PAM_IGNORE};
    const auto report = [&](const Options &, std::uint32_t uid, Deadline &deadline) -> Outcome {
        Bus bus(deadline);
        Service service(bus);
        const char *const own = pam_getenv(pam, "XDG_SESSION_ID");
        // The daemon knows whether a user has a session, not how many.
        if (!hasOtherSession(bus, uid, own ? own : ""))
            service.reportSession(uid, isStart);
        return {PAM_SUCCESS, {}};
    };
    switch (const int result = run(pam, argc, argv, entry, report)) {
    case PAM_SUCCESS:
    case PAM_IGNORE:
    case PAM_USER_UNKNOWN:
    case PAM_BUF_ERR:
        return result;
    default:
        return PAM_SESSION_ERR;
    }
}

} // namespace

// What libpam calls. Everything else in the module is hidden.
#pragma GCC visibility push(default)
extern "C" {

int pam_sm_authenticate(pam_handle_t *pam, int flags, int argc, const char **argv)
{
    constexpr Entry Authentication{"authentication failed", AuthTimeout, PAM_USER_UNKNOWN};
    return run(pam, argc, argv, Authentication, [&](const Options &options, std::uint32_t uid, Deadline &deadline) {
        Conversation conversation(pam, deadline, flags & PAM_SILENT);
        Outcome end = outcomeOf([&]() -> Outcome {
            Bus bus(deadline);
            Service service(bus);
            // Do not ask a locked user in vain.
            if (const State state = service.state(uid); state.isLocked())
                return Outcomes::locked(state.reason, state.duration);
            return Login(pam, flags, options, conversation, service, uid).authenticate();
        });
        conversation.showError(end.text);
        return end;
    });
}

int pam_sm_setcred(pam_handle_t *, int, int, const char **)
{
    return PAM_SUCCESS;
}

int pam_sm_acct_mgmt(pam_handle_t *pam, int flags, int argc, const char **argv)
{
    constexpr Entry Account{"account not accepted", ReportTimeout, PAM_IGNORE};
    return run(pam, argc, argv, Account, [&](const Options &, std::uint32_t uid, Deadline &deadline) -> Outcome {
        Bus bus(deadline);
        Service service(bus);
        const State state = service.state(uid);
        if (!state.isLocked())
            return {PAM_SUCCESS, {}};
        Outcome end = Outcomes::locked(state.reason, state.duration);
        Conversation(pam, deadline, flags & PAM_SILENT).showError(end.text);
        return end;
    });
}

int pam_sm_open_session(pam_handle_t *pam, int, int argc, const char **argv)
{
    constexpr bool IsStart = true;
    return reportSession(pam, argc, argv, IsStart);
}

int pam_sm_close_session(pam_handle_t *pam, int, int argc, const char **argv)
{
    constexpr bool IsStart = false;
    return reportSession(pam, argc, argv, IsStart);
}

} // extern "C"
#pragma GCC visibility pop
