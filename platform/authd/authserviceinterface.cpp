// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#include "authserviceinterface.h"

#define IN(name) SD_BUS_PARAM(name)
#define OUT(name) SD_BUS_PARAM(name)

const sd_bus_vtable *authServiceInterface(sd_bus_message_handler_t answer)
{
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wpedantic" // The library's macros are written for C.
    static const sd_bus_vtable interface[] = {
        SD_BUS_VTABLE_START(0),
        SD_BUS_METHOD_WITH_NAMES("GetMethods", "", "", "as", OUT(methods), answer, SD_BUS_VTABLE_UNPRIVILEGED),
        SD_BUS_METHOD_WITH_NAMES("GetMethodInfo", "s", IN(method), "a{sv}", OUT(info), answer,
                                 SD_BUS_VTABLE_UNPRIVILEGED),
        SD_BUS_METHOD_WITH_NAMES("Subscribe", "", "", "", "", answer, SD_BUS_VTABLE_UNPRIVILEGED),
        SD_BUS_METHOD_WITH_NAMES("Unsubscribe", "", "", "", "", answer, SD_BUS_VTABLE_UNPRIVILEGED),
        SD_BUS_METHOD_WITH_NAMES("RequestChallenge", "us", IN(uid) IN(method), "t", OUT(attempt), answer,
                                 SD_BUS_VTABLE_UNPRIVILEGED),
        SD_BUS_METHOD_WITH_NAMES("Authenticate", "usa{sv}", IN(uid) IN(method) IN(data), "t", OUT(attempt), answer,
                                 SD_BUS_VTABLE_UNPRIVILEGED | SD_BUS_VTABLE_SENSITIVE),
        SD_BUS_METHOD_WITH_NAMES("Cancel", "t", IN(attempt), "", "", answer, SD_BUS_VTABLE_UNPRIVILEGED),
        SD_BUS_METHOD_WITH_NAMES("GetState", "u", IN(uid), "tsa{sv}", OUT(attempt) OUT(state) OUT(details), answer,
                                 SD_BUS_VTABLE_UNPRIVILEGED),
        SD_BUS_METHOD_WITH_NAMES("GetUnlocks", "u", IN(uid), "u", OUT(unlocks), answer, SD_BUS_VTABLE_UNPRIVILEGED),
        SD_BUS_METHOD_WITH_NAMES("Unlock", "u", IN(uid), "", "", answer, SD_BUS_VTABLE_UNPRIVILEGED),
        SD_BUS_METHOD_WITH_NAMES("SessionStarted", "ub", IN(uid) IN(manageClient), "", "", answer,
                                 SD_BUS_VTABLE_UNPRIVILEGED),
        SD_BUS_METHOD_WITH_NAMES("SessionStopped", "ub", IN(uid) IN(manageClient), "", "", answer,
                                 SD_BUS_VTABLE_UNPRIVILEGED),
        SD_BUS_METHOD_WITH_NAMES("GetMethodOption", "ss", IN(method) IN(option), "v", OUT(value), answer,
                                 SD_BUS_VTABLE_UNPRIVILEGED),
        SD_BUS_METHOD_WITH_NAMES("GetMethodOptions", "s", IN(method), "a{sv}", OUT(options), answer,
                                 SD_BUS_VTABLE_UNPRIVILEGED),
        SD_BUS_METHOD_WITH_NAMES("SetMethodOption", "ssv", IN(method) IN(option) IN(value), "", "", answer,
                                 SD_BUS_VTABLE_UNPRIVILEGED),
        SD_BUS_METHOD_WITH_NAMES("GetUserMethodOption", "uss", IN(uid) IN(method) IN(option), "v", OUT(value), answer,
                                 SD_BUS_VTABLE_UNPRIVILEGED),
        SD_BUS_METHOD_WITH_NAMES("GetUserMethodOptions", "us", IN(uid) IN(method), "a{sv}", OUT(options), answer,
                                 SD_BUS_VTABLE_UNPRIVILEGED),
        SD_BUS_METHOD_WITH_NAMES("SetUserMethodOption", "ussv", IN(uid) IN(method) IN(option) IN(value), "", "", answer,
                                 SD_BUS_VTABLE_UNPRIVILEGED),
        SD_BUS_SIGNAL_WITH_NAMES("Authenticated", "tus", OUT(attempt) OUT(uid) OUT(method), 0),
        SD_BUS_SIGNAL_WITH_NAMES(
            "AuthenticationFailed", "tusisbi",
            OUT(attempt) OUT(uid) OUT(method) OUT(resultCode) OUT(resultName) OUT(isCounted) OUT(attemptsLeft), 0),
        SD_BUS_SIGNAL_WITH_NAMES("AttemptGivenUp", "tuss", OUT(attempt) OUT(uid) OUT(method) OUT(reason), 0),
        SD_BUS_SIGNAL_WITH_NAMES("StateChanged", "tusa{sv}", OUT(attempt) OUT(uid) OUT(state) OUT(details), 0),
        SD_BUS_SIGNAL_WITH_NAMES("MethodOptionChanged", "ssv", OUT(method) OUT(option) OUT(value), 0),
        SD_BUS_SIGNAL_WITH_NAMES("UserMethodOptionChanged", "ussv", OUT(uid) OUT(method) OUT(option) OUT(value), 0),
        SD_BUS_VTABLE_END,
    };
#pragma GCC diagnostic pop
    return interface;
}
