// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#include "outcome.h"

#include "harmlessbytes.h"
#include "protocol.h"

#include <security/pam_modules.h>

namespace {

struct Rule
{
    int code;
    int result;
    const char *withPassword;
    const char *withCertificate;
};

constexpr Rule ResultCodes[] = {
    {-1, PAM_AUTH_ERR, "Authentication failed", "Authentication failed"},
    {1, PAM_AUTH_ERR, "Wrong password", "Wrong PIN"},
    {2, PAM_AUTHINFO_UNAVAIL, "The encrypted partition is locked", "The encrypted partition is locked"},
    {3, PAM_AUTHINFO_UNAVAIL, "The authentication client does not start", "The authentication client does not start"},
    {4, PAM_AUTHINFO_UNAVAIL, "The authentication client cannot be reached",
     "The authentication client cannot be reached"},
    {5, PAM_AUTHINFO_UNAVAIL, "The authentication client does not answer", "The authentication client does not answer"},
    {7, PAM_MAXTRIES, "Too many wrong passwords", "Too many wrong PINs"},
    {8, PAM_MAXTRIES, "Too many wrong passwords", "Too many wrong PINs"},
    {9, PAM_AUTHINFO_UNAVAIL, "No token", "No token"},
    {10, PAM_AUTHINFO_UNAVAIL, "The token does not answer", "The token does not answer"},
    {11, PAM_AUTH_ERR, "Wrong password", "Wrong PIN or certificate"},
    {12, PAM_AUTHINFO_UNAVAIL, "The certificate cannot be used", "The certificate cannot be used"},
    {13, PAM_PERM_DENIED, "This user may not unlock", "This user may not unlock"},
    {14, PAM_AUTHINFO_UNAVAIL, "Passwords are not accepted", "Certificates are not accepted"},
};

/// The client refuses every password or PIN, or the token every PIN.
constexpr int UserLocked = 6;

struct GivenUp
{
    const char *reason;
    int result;
    const char *text;
};

constexpr GivenUp Reasons[] = {
    {Protocol::Reasons::Cancelled, PAM_AUTHINFO_UNAVAIL, "The authentication was cancelled"},
    {Protocol::Reasons::Replaced, PAM_AUTHINFO_UNAVAIL, "Another program authenticates this user"},
    {Protocol::Reasons::TimedOut, PAM_AUTHINFO_UNAVAIL, "The authentication timed out"},
    {Protocol::Reasons::CutShort, PAM_AUTHINFO_UNAVAIL, "Others are waiting to be authenticated; please try again"},
    {Protocol::Reasons::Locked, PAM_PERM_DENIED, "This user is locked"},
    {Protocol::Reasons::SessionStopped, PAM_AUTHINFO_UNAVAIL, "The user's session has ended"},
};

std::string lockText(std::string_view reason, std::uint32_t duration)
{
    std::string text = duration == Protocol::States::UntilUnlocked ? std::string("until an administrator unlocks it")
                                                                   : "for " + std::to_string(duration) + " seconds";
    if (!reason.empty())
        text += " (" + harmless(reason) + ")";
    return text;
}

} // namespace

Outcome Outcomes::unavailable(const std::string &cause)
{
    return {PAM_AUTHINFO_UNAVAIL, "The authentication service is not available", cause};
}

Outcome Outcomes::timedOut()
{
    return {PAM_AUTHINFO_UNAVAIL, "The authentication service does not answer in time"};
}

Outcome Outcomes::failed(int code, Credential credential)
{
    const bool isPassword = credential == Credential::Password;
    if (code == UserLocked)
        return isPassword ? Outcome{PAM_PERM_DENIED, "This user is locked"}
                          : Outcome{PAM_MAXTRIES, "PIN blocked, or this user is locked"};
    for (const Rule &rule : ResultCodes) {
        if (rule.code == code)
            return {rule.result, isPassword ? rule.withPassword : rule.withCertificate};
    }
    return {PAM_AUTH_ERR, "Authentication failed"};
}

Outcome Outcomes::givenUp(std::string_view reason)
{
    for (const GivenUp &rule : Reasons) {
        if (reason == rule.reason)
            return {rule.result, rule.text};
    }
    return {PAM_AUTHINFO_UNAVAIL, "The authentication was given up"};
}

Outcome Outcomes::otherInput()
{
    return {PAM_AUTHINFO_UNAVAIL, "The authentication method asks for something else"};
}

Outcome Outcomes::refused(std::string_view error, std::string_view message)
{
    if (error == Protocol::Errors::UserLocked)
        return {PAM_PERM_DENIED, harmless(message)};
    if (error == Protocol::Errors::NoSuchUser)
        return {PAM_USER_UNKNOWN, {}};
    if (error == Protocol::Errors::AccessDenied)
        return {PAM_CRED_INSUFFICIENT, "This program may not authenticate this user"};
    if (error == Protocol::Errors::Busy)
        return {PAM_AUTHINFO_UNAVAIL, "Another program authenticates this user"};
    if (error == Protocol::Errors::LimitsExceeded)
        return {PAM_AUTHINFO_UNAVAIL, "The authentication service is busy"};
    if (error == Protocol::Errors::NoSuchMethod || error == Protocol::Errors::NoSuchOption)
        return {PAM_AUTHINFO_UNAVAIL, "The authentication method is not available"};
    if (error == Protocol::Errors::InvalidArgs)
        return {PAM_SERVICE_ERR, "The authentication service does not accept the request"};
    return unavailable(harmless(error));
}

Outcome Outcomes::locked(std::string_view reason, std::uint32_t duration)
{
    return {PAM_PERM_DENIED, "This user is locked " + lockText(reason, duration)};
}

Outcome Outcomes::lockedNow(std::string_view reason, std::uint32_t duration)
{
    return {PAM_MAXTRIES, "Too many failed attempts: this user is locked " + lockText(reason, duration)};
}
