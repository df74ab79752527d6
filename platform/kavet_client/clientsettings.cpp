// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#include "clientsettings.h"

#include "settingsfile.h"

#include <QDir>
#include <QHash>
#include <QLoggingCategory>
#include <QSettings>

namespace {

// Relative to the home directory, regardless of XDG variables, because the sandbox opens this directory.
constexpr char encoding[] = "UTF-8"; ///< As editors write it.
const QString settingsFile = QStringLiteral(".config/tarsk/kavet_client/client.conf");

const QString passwordHashKey = QStringLiteral("password-hash");
const QString lockAfterKey = QStringLiteral("lock-after");
const QString removeAfterKey = QStringLiteral("remove-after");
const QString authTypeKey = QStringLiteral("auth-type");
const QString moduleKey = QStringLiteral("module");
const QString trustAnchorsKey = QStringLiteral("trust-anchors");
const QString crlsKey = QStringLiteral("crls");
const QString mappingKey = QStringLiteral("mapping");
const QString mappingDomainKey = QStringLiteral("mapping-domain");
const QString defaultCertKey = QStringLiteral("default-cert");

const QString authTypeAny = QStringLiteral("any");
const QString authTypePassword = QStringLiteral("password");
const QString authTypeCert = QStringLiteral("cert");

constexpr int defaultLockAfter = 5;
constexpr int defaultRemoveAfter = 10;

int limit(const QSettings &settings, const QString &key, int defaultValue)
{
    bool isNumber = false;
    const int value = settings.value(key, defaultValue).toInt(&isNumber);
    if (isNumber && value >= 0)
        return value;
    qWarning("%s is not a valid number of attempts; using %d", qUtf8Printable(key), defaultValue);
    return defaultValue;
}

ClientSettings::AuthType readAuthType(const QSettings &settings)
{
    const QString type = settings.value(authTypeKey, authTypeAny).toString();
    if (type == authTypePassword)
        return ClientSettings::AuthType::Password;
    if (type == authTypeCert)
        return ClientSettings::AuthType::Cert;
    if (type != authTypeAny)
        qWarning("%s is not one of password, cert and any; using any", qUtf8Printable(authTypeKey));
    return ClientSettings::AuthType::Any;
}

ClientSettings::Mappings readMappings(const QSettings &settings)
{
    using Mapping = ClientSettings::Mapping;
    static const QHash<QString, Mapping> known = {{QStringLiteral("uid"), Mapping::UserId},
                                                  {QStringLiteral("upn"), Mapping::PrincipalName},
                                                  {QStringLiteral("email"), Mapping::Email},
                                                  {QStringLiteral("cn"), Mapping::CommonName}};
    ClientSettings::Mappings mappings;
    const QStringList defaultMapping = {QStringLiteral("uid"), QStringLiteral("upn"), QStringLiteral("email")};
    const QStringList names = settings.value(mappingKey, defaultMapping).toStringList();
    for (const QString &name : names) {
        if (known.contains(name))
            mappings |= known.value(name);
        else
            qWarning("%s contains a value other than uid, upn, email and cn", qUtf8Printable(mappingKey));
    }
    return mappings;
}

} // namespace

ClientSettings::ClientSettings()
{
    QSettings settings(path(), QSettings::NativeFormat);
    settings.setIniCodec(encoding);
    m_passwordHash = settings.value(passwordHashKey).toString().toLatin1();
    m_lockAfter = limit(settings, lockAfterKey, defaultLockAfter);
    m_removeAfter = limit(settings, removeAfterKey, defaultRemoveAfter);
    m_authType = readAuthType(settings);
    m_module = settings.value(moduleKey).toString();
    m_trustAnchors = settings.value(trustAnchorsKey).toString();
    m_crls = settings.value(crlsKey).toString();
    m_mappings = readMappings(settings);
    m_mappingDomain = settings.value(mappingDomainKey).toString();
    m_defaultCert = settings.value(defaultCertKey).toString().toUtf8();
}

QString ClientSettings::path()
{
    return QDir::home().filePath(settingsFile);
}

bool ClientSettings::setPasswordHash(const QByteArray &hash)
{
    return writeSetting(path(), passwordHashKey, QString::fromLatin1(hash), encoding);
}
