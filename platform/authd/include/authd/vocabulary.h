// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <QLatin1String>

/// The words that daemon, methods and screens share: option names, directories and message names of the service.
namespace LibAuthd {
namespace Vocabulary {

// Options and the parameters of a request
constexpr QLatin1String NoUi("no-ui");
constexpr QLatin1String AuthUi("auth-ui");
constexpr QLatin1String SecurityUi("security-ui");
constexpr QLatin1String FactorName("factor-name");
constexpr QLatin1String PrePage("pre-page");
constexpr QLatin1String AuthPage("auth-page");
constexpr QLatin1String InfoPage("info-page");
constexpr QLatin1String UiType("ui-type");
constexpr QLatin1String CancelEnabled("cancel-enabled");
constexpr QLatin1String ResultCode("result-code");
constexpr QLatin1String InputRequestType("input-request-type");
constexpr QLatin1String ForConfirm("forConfirm");
constexpr QLatin1String TextForButton("textForButton");
constexpr QLatin1String AvailableServiceFactors("available-service-factors");
constexpr QLatin1String AvailableServices("available-services");
constexpr QLatin1String CanSwitchToUser("can-switch-to-user");
constexpr QLatin1String ShowLastLogin("show-last-login");
constexpr QLatin1String LastLoginDate("last-login-date");
constexpr QLatin1String DisabledFactors("disabled-factors");
constexpr QLatin1String IsMultiFactorable("is-multi-factorable");
constexpr QLatin1String IsUserSettable("is-user-settable");
constexpr QLatin1String ServiceFactors("service-factors");
constexpr QLatin1String CountErrInMultifactorableAuth("count-err-in-multifactorable-auth");
constexpr QLatin1String PermissiveMode("permissive-mode");
constexpr QLatin1String ShowNotifications("show-notifications");
constexpr QLatin1String AuthRequestInterval("auth-request-interval");
constexpr QLatin1String DevlockPrefix("devlock/");

// Where the daemon keeps the methods' settings
constexpr QLatin1String MethodsDirectory("/var/lib/authd/methods/");

// Messages of the authentication service
constexpr QLatin1String FactorMethod("FactorMethod");
constexpr QLatin1String ActionMethod("ActionMethod");
constexpr QLatin1String ActionUserMethod("ActionUserMethod");
constexpr QLatin1String GetOption("GetOption");
constexpr QLatin1String SetOption("SetOption");
constexpr QLatin1String GetUserOption("GetUserOption");
constexpr QLatin1String GetMethodOption("GetMethodOption");
constexpr QLatin1String SetMethodOption("SetMethodOption");
constexpr QLatin1String GetUserOptions("GetUserOptions");
constexpr QLatin1String SetUserOption("SetUserOption");
constexpr QLatin1String GetUserMethodOption("GetUserMethodOption");
constexpr QLatin1String SetUserMethodOption("SetUserMethodOption");
constexpr QLatin1String RequestChallenge("RequestChallenge");
constexpr QLatin1String SetState("SetState");
constexpr QLatin1String GetState("GetState");
constexpr QLatin1String Authenticated("Authenticated");
constexpr QLatin1String AuthenticationFailed("AuthenticationFailed");
constexpr QLatin1String AuthDataChanged("AuthDataChanged");
constexpr QLatin1String ChangeAuthDataFailed("ChangeAuthDataFailed");
constexpr QLatin1String UnlockIfNeededFinished("UnlockIfNeededFinished");
constexpr QLatin1String MethodActionCompleted("MethodActionCompleted");
constexpr QLatin1String Factor("Factor");
constexpr QLatin1String OptionChanged("OptionChanged");
constexpr QLatin1String MethodOptionChanged("MethodOptionChanged");
constexpr QLatin1String UserOptionChanged("UserOptionChanged");
constexpr QLatin1String UserMethodOptionChanged("UserMethodOptionChanged");
constexpr QLatin1String UserMethodActionCompleted("UserMethodActionCompleted");
constexpr QLatin1String StateChanged("StateChanged");

// Who asks for an authentication
constexpr QLatin1String Worker("worker");
constexpr QLatin1String Unlock("unlock");
constexpr QLatin1String Login("login");

} // namespace Vocabulary
} // namespace LibAuthd
