// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#include "screens/screensettings.h"

#include "settings/settingskavet.h"

ScreenSettings::ScreenSettings()
    : m_owner(new QObject)
{
    m_owner->moveToThread(&m_thread);
    connect(&m_thread, &QThread::finished, m_owner, &QObject::deleteLater);
    m_thread.start();
    runInThread([this] {
        m_settings = new SettingsKavet(m_owner);
        connect(m_settings, &SettingsKavet::certListChanged, m_settings, [this] {
            runHere([this, certList = m_settings->certList()] {
                m_certList = certList;
                Q_EMIT certListChanged();
            });
        });
        connect(m_settings, &SettingsKavet::maxAttemptsChanged, m_settings, [this] { readMaxAttempts(); });
        connect(m_settings, &SettingsKavet::currentAttemptsChanged, m_settings, [this] { readCurrentAttempts(); });
    });
    runInThread([this] { readMaxAttempts(); });
}

ScreenSettings::~ScreenSettings()
{
    m_thread.quit();
    m_thread.wait();
}

void ScreenSettings::setUid(uint uid)
{
    if (m_uid == uid)
        return;
    m_uid = uid;
    m_currentAttempts = 0;
    Q_EMIT uidChanged();
    Q_EMIT currentAttemptsChanged();
    runInThread([this, uid] { m_settings->setUid(uid); });
}

void ScreenSettings::update()
{
    if (m_isUpdating)
        return;
    m_isUpdating = true;
    runInThread([this] { m_settings->updateCertList(); });
    runInThread([this] { readMaxAttempts(); });
    runInThread([this] { readCurrentAttempts(); });
    runInThread([this] { runHere([this] { m_isUpdating = false; }); });
}

void ScreenSettings::readMaxAttempts()
{
    runHere([this, maxAttempts = m_settings->maxAttempts()] {
        m_maxAttempts = maxAttempts;
        Q_EMIT maxAttemptsChanged();
    });
}

void ScreenSettings::readCurrentAttempts()
{
    const uint uid = m_settings->uid();
    if (uid == 0)
        return;
    runHere([this, uid, currentAttempts = m_settings->currentAttempts()] {
        if (uid != m_uid)
            return;
        m_currentAttempts = currentAttempts;
        Q_EMIT currentAttemptsChanged();
    });
}

void ScreenSettings::runInThread(const std::function<void()> &act)
{
    QMetaObject::invokeMethod(m_owner, act, Qt::QueuedConnection);
}

void ScreenSettings::runHere(const std::function<void()> &act)
{
    QMetaObject::invokeMethod(this, act, Qt::QueuedConnection);
}
