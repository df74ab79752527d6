// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#include "settings/settingskavet.h"

#include "settings/constants.h"

SettingsKavet::SettingsKavet(QObject *parent)
    : FactorSettingsBase(parent, Constants::Method::name)
{
    updateCertList();
}

SettingsKavet::~SettingsKavet() = default;

QStringList SettingsKavet::certList() const
{
    return m_certList;
}

bool SettingsKavet::certListIsUpdating() const
{
    return m_certListIsUpdating;
}

int SettingsKavet::maxAttempts() const
{
    return getOption(0, Constants::Options::maxAttempts).toInt();
}

int SettingsKavet::currentAttempts() const
{
    return getOption(m_uid, Constants::Options::attempts).toInt();
}

unsigned int SettingsKavet::uid() const
{
    return m_uid;
}

void SettingsKavet::setUid(unsigned int uid)
{
    if (m_uid == uid)
        return;

    m_uid = uid;
    Q_EMIT uidChanged();
    Q_EMIT currentAttemptsChanged();
}

void SettingsKavet::updateCertList()
{
    m_certListIsUpdating = true;
    Q_EMIT certListIsUpdatingChanged();
    updateCerts(getOption(0, Constants::Options::certs));
}

void SettingsKavet::updateCerts(const QVariant &value)
{
    if (!value.canConvert<QStringList>())
        return;

    const QStringList certList = value.toStringList();
    if (certList.size() == 1 && certList.first() == Constants::Options::updatingCerts)
        return;

    m_certListIsUpdating = false;
    Q_EMIT certListIsUpdatingChanged();

    if (m_certList != certList)
        m_certList = certList;
    // Emitted for an unchanged list too: the requester waits for this signal.
    Q_EMIT certListChanged();
}

void SettingsKavet::handleOptionChanged(unsigned int uid, const QString &option, const QVariant &value)
{
    if (option == Constants::Options::certs) {
        updateCerts(value);
    } else if (option == Constants::Options::maxAttempts) {
        Q_EMIT maxAttemptsChanged();
    } else if (option == Constants::Options::attempts) {
        if (m_uid == uid)
            Q_EMIT currentAttemptsChanged();
    }
}
