// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#include "plugin/methodkavetprivate.h"

#include "plugin/methodkavet.h"
#include "settings/constants.h"

#include <authd/libauthd.h>
#include <luks/libluks.h>

#include <QHash>

void MethodKavetPrivate::makeAuth()
{
    for (;;) {
        if (!LibLuks::isDeviceActive()) {
            requestInput(SettingsKavet::EnterPasswordOrPinWithoutConnection, SettingsKavet::Success);
            return;
        }
        if (currentUid == 0)
            return;
        // A client of another user must not see this user's secret, and one that has been told to end serves nobody.
        // The flow continues when that client has ended.
        if (child.state() != QProcess::NotRunning && child.clientUid != currentUid) {
            killChild();
            return;
        }
        if (child.clientStarting)
            return;

        switch (clientStage) {
        case MustLaunch:
            if (!launchChild()) {
                requestInput(SettingsKavet::Connecting, SettingsKavet::CannotStartClient);
                return;
            }
            clientStage = MustConnect;
            break;
        case MustConnect:
            if (!connectToChild()) {
                requestInput(SettingsKavet::Connecting, SettingsKavet::CannotConnectClient);
                return;
            }
            clientStage = Linked;
            break;
        case Linked: {
            if (!pendingAuthData) {
                requestInput(SettingsKavet::EnterPasswordOrPin, SettingsKavet::Success);
                return;
            }
            const QMap<QString, QVariant> authData = *pendingAuthData;
            pendingAuthData.reset();

            if (authData.contains(Constants::Request::password))
                checkPassword(authData.value(Constants::Request::password).toString());
            else if (authData.contains(Constants::Request::cert) && authData.contains(Constants::Request::pin))
                validateCert(authData.value(Constants::Request::cert).toString(),
                             authData.value(Constants::Request::pin).toString());
            else
                requestInput(SettingsKavet::EnterPasswordOrPin, SettingsKavet::Success);
            return;
        }
        default:
            return;
        }
    }
}

void MethodKavetPrivate::handleResult(const QString &answer)
{
    static const QHash<QString, SettingsKavet::ResultCode> results = {
        {Constants::Answers::success, SettingsKavet::Success},
        {Constants::Answers::lock, SettingsKavet::UserLocked},
        {Constants::Answers::remove, SettingsKavet::TooManyAttempts},
        {Constants::Answers::noUsb, SettingsKavet::NoUsbDevice},
        {Constants::Answers::connectionError, SettingsKavet::ConnectionError},
        {Constants::Answers::failed, SettingsKavet::AuthFailed},
        {Constants::Answers::badDefaultCert, SettingsKavet::BadDefaultCert},
        {Constants::Answers::unknownRequest, SettingsKavet::ErrAuthType},
    };

    const SettingsKavet::ResultCode code = results.value(answer, SettingsKavet::AuthFailed);
    if (code == SettingsKavet::Success)
        q->succeed();
    else
        requestInput(SettingsKavet::EnterPasswordOrPin, code);
}

void MethodKavetPrivate::requestInput(SettingsKavet::InputRequest request, SettingsKavet::ResultCode code)
{
    QMap<QString, QVariant> params = LibAuthd::inputRequestParams(request);
    const QMap<QString, QVariant> resultParams = LibAuthd::resultCodeParams(code);
    for (auto param = resultParams.cbegin(); param != resultParams.cend(); ++param)
        params.insert(param.key(), param.value());

    if (code == SettingsKavet::Success)
        q->inputRequested(params);
    else
        q->finish(false, params);
}
