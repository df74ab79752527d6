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

/// Runs an entry point and logs its failure. No exception leaves the module.
template <typename Request>
int run(pam_handle_t *pam, const char *failure, const Request &request) noexcept
{
    try {
        const Outcome outcome = outcomeOf(request);
        log(pam, failure, outcome);
        return outcome.result;
    } catch (const std::bad_alloc &) {
        return PAM_BUF_ERR;
    } catch (...) {
        return PAM_SERVICE_ERR;
    }
}

int reportSession(pam_handle_t *pam, int argc, const char **argv, bool isStart)
{
    const int result = run(pam, isStart ? "session start not reported" : "session end not reported", [&]() -> Outcome {
        const Options options = readOptions(pam, argc, argv);
        const std::uint32_t uid = findUser(pam);
        if (uid == 0)
            return {PAM_IGNORE, {}};
        Deadline deadline(options.timeout.value_or(ReportTimeout));
        Bus bus(deadline);
        Service service(bus);
        const char *const own = pam_getenv(pam, "XDG_SESSION_ID");
        // The daemon knows whether a user has a session, not how many.
        if (!hasOtherSession(bus, uid, own ? own : ""))
            service.reportSession(uid, isStart);
        return {PAM_SUCCESS, {}};
    });
    switch (result) {
    case PAM_SUCCESS:
    case PAM_BUF_ERR:
        return result;
    case PAM_IGNORE:
    case PAM_USER_UNKNOWN: // Not one of the daemon's users
        return PAM_IGNORE;
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
    return run(pam, "authentication failed", [&]() -> Outcome {
        const Options options = readOptions(pam, argc, argv);
        const std::uint32_t uid = findUser(pam);
        if (uid == 0)
            return {PAM_USER_UNKNOWN, {}};
        Deadline deadline(options.timeout.value_or(AuthTimeout));
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
    return run(pam, "account not accepted", [&]() -> Outcome {
        const Options options = readOptions(pam, argc, argv);
        const std::uint32_t uid = findUser(pam);
        if (uid == 0)
            return {PAM_IGNORE, {}};
        Deadline deadline(options.timeout.value_or(ReportTimeout));
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
