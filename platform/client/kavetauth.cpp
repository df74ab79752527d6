// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#include "kavetauth.h"

#include "attemptcounter.h"
#include "clientsettings.h"
#include "kavetauthadaptor.h"
#include "passwordhash.h"
#include "secret.h"

namespace {

const QString success = QStringLiteral("success");
const QString failed = QStringLiteral("failed");
const QString lock = QStringLiteral("lock");
const QString remove = QStringLiteral("remove");
const QString noToken = QStringLiteral("nousb");
const QString wrongAuthType = QStringLiteral("errauthtype");

/// The answer that so many failed attempts bring by themselves.
QString answerAt(int attempts, const ClientSettings &settings)
{
    if (settings.removeAfter() != 0 && attempts >= settings.removeAfter())
        return remove;
    if (settings.lockAfter() != 0 && attempts >= settings.lockAfter())
        return lock;
    return failed;
}

} // namespace

KavetAuth::KavetAuth(const QString &user)
    : m_user(user)
{
    new KavetAuthAdaptor(this);
}

QString KavetAuth::checkPassword(const QString &user, const QString &password)
{
    const SecretBytes secret(password.toUtf8());
    wipe(password);

    const ClientSettings settings;
    if (user != m_user)
        return failed;
    if (settings.authType() == ClientSettings::AuthType::Cert || settings.passwordHash().isEmpty())
        return wrongAuthType;
    // Past a limit the password is not even looked at, so that nobody goes on guessing by what happens to the counter.
    if (answerAt(AttemptCounter::count(), settings) != failed
        || !PasswordHash::matches(secret.bytes(), settings.passwordHash()))
        return answerAt(AttemptCounter::increase(), settings);
    AttemptCounter::reset();
    return success;
}

QString KavetAuth::validateCert(const QString &, const QString &user, const QString &pin)
{
    wipe(pin);
    if (user != m_user)
        return failed;
    return ClientSettings().authType() == ClientSettings::AuthType::Password ? wrongAuthType : noToken;
}

QStringList KavetAuth::getCertList()
{
    return {};
}
