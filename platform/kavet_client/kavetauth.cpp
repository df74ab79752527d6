// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#include "kavetauth.h"

#include "attemptcounter.h"
#include "clientsettings.h"
#include "passwordhash.h"

#include <QString>

#include <utility>

namespace {

constexpr char objectPath[] = "/kavetauth";
constexpr char interfaceName[] = "tarsk.kavet_auth";

/// The maximum number of pending token calls per peer. Each is a process.
constexpr int maximumTokenCalls = 4;

const QByteArray success = QByteArrayLiteral("success");
const QByteArray failed = QByteArrayLiteral("failed");
const QByteArray lock = QByteArrayLiteral("lock");
const QByteArray remove = QByteArrayLiteral("remove");
const QByteArray noToken = QByteArrayLiteral("nousb");
const QByteArray moduleFailed = QByteArrayLiteral("connerr");
const QByteArray badDefaultCert = QByteArrayLiteral("firstcererr");
const QByteArray wrongAuthType = QByteArrayLiteral("errauthtype");

/// The result for this number of failed attempts.
QByteArray answerAt(int attempts, const ClientSettings &settings)
{
    if (settings.removeAfter() != 0 && attempts >= settings.removeAfter())
        return remove;
    if (settings.lockAfter() != 0 && attempts >= settings.lockAfter())
        return lock;
    return failed;
}

bool isPastLimit(const ClientSettings &settings)
{
    return answerAt(AttemptCounter::count(), settings) != failed;
}

/// The result for a token's outcome. Only a wrong PIN counts as a failed attempt: it is a guess at a secret.
QByteArray answerTo(Tokens::Outcome outcome, const ClientSettings &settings)
{
    switch (outcome) {
    case Tokens::Success:
        // Password attempts may have reached the limit in the meantime.
        if (isPastLimit(settings))
            return answerAt(AttemptCounter::increase(), settings);
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

int reply(sd_bus_message *call, const QByteArray &answer)
{
    return sd_bus_reply_method_return(call, "s", answer.constData());
}

} // namespace

KavetAuth::KavetAuth(const QByteArray &user)
    : m_user(user)
{
}

bool KavetAuth::serveOn(sd_bus *peer)
{
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wpedantic" // sd-bus's macros are written for C.
    static const sd_bus_vtable methods[] = {
        SD_BUS_VTABLE_START(0),
        SD_BUS_METHOD_WITH_NAMES("checkPassword", "ss", SD_BUS_PARAM(user) SD_BUS_PARAM(password), "s",
                                 SD_BUS_PARAM(answer), checkPassword, 0),
        SD_BUS_METHOD_WITH_NAMES("validateCert", "sss", SD_BUS_PARAM(cert) SD_BUS_PARAM(user) SD_BUS_PARAM(pin), "s",
                                 SD_BUS_PARAM(answer), validateCert, 0),
        SD_BUS_METHOD_WITH_NAMES("getCertList", "", "", "as", SD_BUS_PARAM(certs), getCertList, 0),
        SD_BUS_VTABLE_END,
    };
#pragma GCC diagnostic pop
    return sd_bus_add_object_vtable(peer, nullptr, objectPath, interfaceName, methods, this) >= 0;
}

int KavetAuth::checkPassword(sd_bus_message *call, void *object, sd_bus_error *)
{
    const auto *const self = static_cast<const KavetAuth *>(object);
    const char *user = nullptr;
    const char *password = nullptr;
    const int error = sd_bus_message_read(call, "ss", &user, &password);
    if (error < 0)
        return error;

    const ClientSettings settings;
    if (self->m_user != user)
        return reply(call, failed);
    if (settings.authType() == ClientSettings::AuthType::Cert || settings.passwordHash().isEmpty())
        return reply(call, wrongAuthType);
    // Past a limit, do not even check the password. Otherwise the counter would reveal whether a guess was right.
    if (isPastLimit(settings) || !PasswordHash::matches(password, settings.passwordHash()))
        return reply(call, answerAt(AttemptCounter::increase(), settings));
    AttemptCounter::reset();
    return reply(call, success);
}

int KavetAuth::validateCert(sd_bus_message *call, void *object, sd_bus_error *error)
{
    auto *const self = static_cast<KavetAuth *>(object);
    const char *cert = nullptr;
    const char *user = nullptr;
    const char *pin = nullptr;
    const int result = sd_bus_message_read(call, "sss", &cert, &user, &pin);
    if (result < 0)
        return result;

    const ClientSettings settings;
    if (self->m_user != user)
        return reply(call, failed);
    if (settings.authType() == ClientSettings::AuthType::Password)
        return reply(call, wrongAuthType);
    const Message later = self->begin(call, error);
    if (!later)
        return -sd_bus_error_get_errno(error);
    self->m_pinChecks.push_back({later, TokenHelpers::validationRequest(cert, user, pin)});
    if (self->m_pinChecks.size() == 1)
        self->nextPinCheck();
    return 1;
}

void KavetAuth::nextPinCheck()
{
    while (!m_pinChecks.empty()) {
        PinCheck &check = m_pinChecks.front();
        const ClientSettings settings;
        if (isPastLimit(settings)) {
            finishPinCheck(answerAt(AttemptCounter::increase(), settings));
        } else if (check.request.deadline.hasExpired()
                   || sd_bus_is_open(sd_bus_message_get_bus(check.reply.get())) <= 0) {
            finishPinCheck(moduleFailed);
        } else {
            m_helpers.run(std::move(check.request), [this, settings](Tokens::Outcome outcome, const QByteArray &) {
                finishPinCheck(answerTo(outcome, settings));
                nextPinCheck();
            });
            return;
        }
    }
}

void KavetAuth::finishPinCheck(const QByteArray &answer)
{
    const Message reply = m_pinChecks.front().reply;
    m_pinChecks.pop_front();
    sd_bus_message_append(reply.get(), "s", answer.constData());
    send(reply);
}

int KavetAuth::getCertList(sd_bus_message *call, void *object, sd_bus_error *error)
{
    auto *const self = static_cast<KavetAuth *>(object);
    if (ClientSettings().authType() == ClientSettings::AuthType::Password)
        return sd_bus_reply_method_return(call, "as", 0);
    const Message later = self->begin(call, error);
    if (!later)
        return -sd_bus_error_get_errno(error);
    self->m_helpers.run(TokenHelpers::listRequest(), [self, later](Tokens::Outcome, const QByteArray &output) {
        sd_bus_message_open_container(later.get(), 'a', "s");
        const QStringList certs = QString::fromUtf8(output).split(QLatin1Char('\n'), Qt::SkipEmptyParts);
        for (const QString &cert : certs)
            sd_bus_message_append(later.get(), "s", cert.toUtf8().constData());
        sd_bus_message_close_container(later.get());
        self->send(later);
    });
    return 1;
}

KavetAuth::Message KavetAuth::begin(sd_bus_message *call, sd_bus_error *error)
{
    sd_bus *const peer = sd_bus_message_get_bus(call);
    if (m_tokenCalls.count(peer) >= maximumTokenCalls) {
        sd_bus_error_set(error, SD_BUS_ERROR_LIMITS_EXCEEDED, "Too many token calls are pending");
        return {};
    }
    sd_bus_message *later = nullptr;
    const int result = sd_bus_message_new_method_return(call, &later);
    if (result < 0) {
        sd_bus_error_set_errno(error, result);
        return {};
    }
    m_tokenCalls << peer;
    return Message(later, sd_bus_message_unref);
}

void KavetAuth::send(const Message &reply)
{
    sd_bus *const peer = sd_bus_message_get_bus(reply.get());
    m_tokenCalls.removeOne(peer);
    sd_bus_send(peer, reply.get(), nullptr); // Fails if the peer has disconnected.
    Q_EMIT answered();
}
