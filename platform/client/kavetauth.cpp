// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#include "kavetauth.h"

#include "attemptcounter.h"
#include "clientsettings.h"
#include "kavetauthadaptor.h"
#include "passwordhash.h"
#include "secret.h"
#include "tokenprocess.h"

#include <QDBusConnection>
#include <QDBusMessage>

namespace {

const QString success = QStringLiteral("success");
const QString failed = QStringLiteral("failed");
const QString lock = QStringLiteral("lock");
const QString remove = QStringLiteral("remove");
const QString noToken = QStringLiteral("nousb");
const QString moduleFailed = QStringLiteral("connerr");
const QString badDefaultCert = QStringLiteral("firstcererr");
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

/// The answer that a token's outcome brings; only a wrong PIN is a guess at a secret, and so counts.
QString answerTo(Tokens::Outcome outcome, const ClientSettings &settings)
{
    switch (outcome) {
    case Tokens::Success:
        AttemptCounter::reset();
        return success;
    case Tokens::CertRefused:
        return failed;
    case Tokens::DefaultCertRefused:
        return badDefaultCert;
    case Tokens::WrongPin:
        return answerAt(AttemptCounter::increase(), settings);
    case Tokens::PinBlocked:
        return lock;
    case Tokens::NoToken:
        return noToken;
    case Tokens::ModuleFailed:
        break;
    }
    return moduleFailed;
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
    ReceivedCopies::wipe(secret);

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

QString KavetAuth::validateCert(const QString &cert, const QString &user, const QString &pin)
{
    const SecretBytes secret(pin.toUtf8());
    wipe(pin);
    ReceivedCopies::wipe(secret);

    const ClientSettings settings;
    if (user != m_user)
        return failed;
    if (settings.authType() == ClientSettings::AuthType::Password)
        return wrongAuthType;
    if (answerAt(AttemptCounter::count(), settings) != failed)
        return answerAt(AttemptCounter::increase(), settings);
    setDelayedReply(true);
    TokenProcess::validate(
        this, cert, user, secret,
        [settings, request = message(), peer = connection()](Tokens::Outcome outcome, const QByteArray &) {
            peer.send(request.createReply(answerTo(outcome, settings)));
        });
    return {};
}

QStringList KavetAuth::getCertList()
{
    if (ClientSettings().authType() == ClientSettings::AuthType::Password)
        return {};
    setDelayedReply(true);
    TokenProcess::list(this, [request = message(), peer = connection()](Tokens::Outcome, const QByteArray &output) {
        peer.send(request.createReply(QString::fromUtf8(output).split(QLatin1Char('\n'), Qt::SkipEmptyParts)));
    });
    return {};
}
