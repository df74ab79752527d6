// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <QLatin1String>

/// The names that the daemon, the methods and their screens share: options, directories and messages of the service.
namespace LibAuthd {
namespace Vocabulary {

/// Wraps a string literal. QLatin1String's own constructor is not constexpr on every supported compiler.
template <int size>
constexpr QLatin1String word(const char (&text)[size])
{
    return QLatin1String(text, size - 1);
}

// Options and the parameters of a request
constexpr QLatin1String NoUi = word("no-ui");
constexpr QLatin1String AuthUi = word("auth-ui");
constexpr QLatin1String SecurityUi = word("security-ui");
constexpr QLatin1String FactorName = word("factor-name");
constexpr QLatin1String PrePage = word("pre-page");
constexpr QLatin1String AuthPage = word("auth-page");
constexpr QLatin1String InfoPage = word("info-page");
constexpr QLatin1String UiType = word("ui-type");
constexpr QLatin1String CancelEnabled = word("cancel-enabled");
constexpr QLatin1String ResultCode = word("result-code");
constexpr QLatin1String InputRequestType = word("input-request-type");
constexpr QLatin1String ForConfirm = word("forConfirm");
constexpr QLatin1String TextForButton = word("textForButton");
constexpr QLatin1String AvailableServiceFactors = word("available-service-factors");
constexpr QLatin1String AvailableServices = word("available-services");
constexpr QLatin1String CanSwitchToUser = word("can-switch-to-user");
constexpr QLatin1String ShowLastLogin = word("show-last-login");
constexpr QLatin1String LastLoginDate = word("last-login-date");
constexpr QLatin1String DisabledFactors = word("disabled-factors");
constexpr QLatin1String IsMultiFactorable = word("is-multi-factorable");
constexpr QLatin1String IsUserSettable = word("is-user-settable");
constexpr QLatin1String ServiceFactors = word("service-factors");
constexpr QLatin1String CountErrInMultifactorableAuth = word("count-err-in-multifactorable-auth");
constexpr QLatin1String PermissiveMode = word("permissive-mode");
constexpr QLatin1String ShowNotifications = word("show-notifications");
constexpr QLatin1String AuthRequestInterval = word("auth-request-interval");
constexpr QLatin1String DevlockPrefix = word("devlock/");

// Where the daemon keeps the methods' settings
constexpr QLatin1String MethodsDirectory = word("/var/lib/authd/methods/");

// Messages of the authentication service
constexpr QLatin1String FactorMethod = word("FactorMethod");
constexpr QLatin1String ActionMethod = word("ActionMethod");
constexpr QLatin1String ActionUserMethod = word("ActionUserMethod");
constexpr QLatin1String GetOption = word("GetOption");
constexpr QLatin1String SetOption = word("SetOption");
constexpr QLatin1String GetUserOption = word("GetUserOption");
constexpr QLatin1String GetMethodOption = word("GetMethodOption");
constexpr QLatin1String SetMethodOption = word("SetMethodOption");
constexpr QLatin1String GetUserOptions = word("GetUserOptions");
constexpr QLatin1String SetUserOption = word("SetUserOption");
constexpr QLatin1String GetUserMethodOption = word("GetUserMethodOption");
constexpr QLatin1String SetUserMethodOption = word("SetUserMethodOption");
constexpr QLatin1String Subscribe = word("Subscribe");
constexpr QLatin1String RequestChallenge = word("RequestChallenge");
constexpr QLatin1String SetState = word("SetState");
constexpr QLatin1String GetState = word("GetState");
constexpr QLatin1String Authenticated = word("Authenticated");
constexpr QLatin1String AuthenticationFailed = word("AuthenticationFailed");
constexpr QLatin1String AttemptGivenUp = word("AttemptGivenUp");
constexpr QLatin1String AuthDataChanged = word("AuthDataChanged");
constexpr QLatin1String ChangeAuthDataFailed = word("ChangeAuthDataFailed");
constexpr QLatin1String UnlockIfNeededFinished = word("UnlockIfNeededFinished");
constexpr QLatin1String MethodActionCompleted = word("MethodActionCompleted");
constexpr QLatin1String Factor = word("Factor");
constexpr QLatin1String OptionChanged = word("OptionChanged");
constexpr QLatin1String MethodOptionChanged = word("MethodOptionChanged");
constexpr QLatin1String UserOptionChanged = word("UserOptionChanged");
constexpr QLatin1String UserMethodOptionChanged = word("UserMethodOptionChanged");
constexpr QLatin1String UserMethodActionCompleted = word("UserMethodActionCompleted");
constexpr QLatin1String StateChanged = word("StateChanged");

// Callers that ask for an authentication
constexpr QLatin1String Worker = word("worker");
constexpr QLatin1String Unlock = word("unlock");
constexpr QLatin1String Login = word("login");

} // namespace Vocabulary
} // namespace LibAuthd
