// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#include <authd/authplugininterface.h>
#include <authd/notificationhandler.h>

// Passed by value because methods that are built separately rely on this signature.
AuthPluginInterface::AuthPluginInterface(QString name) // NOLINT(performance-unnecessary-value-param)
    : BaseHandler(name)
{
}

AuthPluginInterface::~AuthPluginInterface() = default;

void AuthPluginInterface::setNotificator(NotificationHandler *notificator)
{
    m_notificator = notificator;
}

bool AuthPluginInterface::canSwitchToUser(uint)
{
    return true;
}

bool AuthPluginInterface::changeAuthData(uint, const QMap<QString, QVariant> &)
{
    return false;
}

void AuthPluginInterface::handleUserLocked(uint, bool, const QString &, uint) { }

void AuthPluginInterface::handleTimeSettingsChanged(long) { }

void AuthPluginInterface::handleSetEnabled(uint, bool) { }

bool AuthPluginInterface::hasAuthData(uint) const
{
    return true;
}

int AuthPluginInterface::getMaxAttempts()
{
    return 0;
}

bool AuthPluginInterface::needChangeNextTime(uint)
{
    return false;
}

bool AuthPluginInterface::wasChosen(uint) const
{
    return false;
}

bool AuthPluginInterface::checkBackend(uint)
{
    return true;
}

void AuthPluginInterface::onMainPageVisibleChanged() { }

void AuthPluginInterface::succeed()
{
    if (m_notificator)
        m_notificator->succeed(name());
}

void AuthPluginInterface::finish(bool success, const QMap<QString, QVariant> &params)
{
    if (m_notificator)
        m_notificator->finish(name(), success, params);
}

void AuthPluginInterface::inputRequested(const QMap<QString, QVariant> &params)
{
    if (m_notificator)
        m_notificator->inputRequested(name(), params);
}

void AuthPluginInterface::restartAuth(uint uid)
{
    if (m_notificator)
        m_notificator->restartAuth(name(), uid);
}

void AuthPluginInterface::lockUser(uint uid, bool lock, const QString &reason, uint duration)
{
    if (m_notificator)
        m_notificator->lockUser(name(), uid, lock, reason, duration);
}
