// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#include "plugin/methodkavet.h"

#include "plugin/methodkavetprivate.h"
#include "settings/constants.h"
#include "settings/settingskavet.h"

#include <QFileInfo>
#include <QMetaEnum>

MethodKavet::MethodKavet()
    : AuthPluginInterface(Constants::Method::name)
    , d(new MethodKavetPrivate(this))
{
}

MethodKavet::~MethodKavet() = default;

QString MethodKavet::name() const
{
    return Constants::Method::name;
}

const AuthUiPages &MethodKavet::pages() const
{
    static const AuthUiPages uiPages{Constants::Method::page, Constants::Method::prePage, Constants::Method::infoPage};
    return uiPages;
}

int MethodKavet::types() const
{
    return Constants::Method::types;
}

QString MethodKavet::getErrorMessage(int code) const
{
    return QString::fromUtf8(QMetaEnum::fromType<SettingsKavet::ResultCode>().valueToKey(code));
}

void MethodKavet::reset()
{
    d->pendingAuthData.reset();
    d->currentUid = 0;
    d->currentRequest = nullptr;
    d->launchBudget = Constants::Process::launchBudget;
    if (!d->child.clientRunning)
        d->clientStage = MethodKavetPrivate::MustLaunch;
    else
        d->clientStage = d->child.socketPresent ? MethodKavetPrivate::Linked : MethodKavetPrivate::MustConnect;
}

void MethodKavet::authenticate(unsigned int uid, const QMap<QString, QVariant> &data)
{
    if (d->currentUid != uid)
        d->currentRequest = nullptr; // Its reply is for the former user.
    d->currentUid = uid;
    d->pendingAuthData = data;
    d->makeAuth();
}

bool MethodKavet::isAvailable(unsigned int uid)
{
    Q_UNUSED(uid)
    if (d->child.manifestIsSymLink)
        return true;
    if (d->child.exec.isEmpty())
        return false;

    const QFileInfo command(d->child.exec.split(QLatin1Char(' ')).first());
    return command.exists() && command.permission(QFileDevice::ExeOwner);
}

void MethodKavet::handleUserSessionTriggered(unsigned int uid, bool started, bool manageClient)
{
    if (!started)
        d->handleUserSessionStopped(manageClient);
    else
        d->handleUserSessionStarted(uid, manageClient);
}

QString MethodKavet::getAuthData(const QMap<QString, QVariant> &data)
{
    if (data.contains(Constants::Request::password))
        return data.value(Constants::Request::password).toString();
    if (data.contains(Constants::Request::cert) && data.contains(Constants::Request::pin))
        return data.value(Constants::Request::pin).toString();
    return QString();
}
