// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#include "attempt.h"

#include "protocol.h"

#include <security/pam_modules.h>

namespace {

bool isPlaceholder(const std::vector<std::string> &certs)
{
    return certs.size() == 1 && certs.front() == Protocol::CertsPlaceholder;
}

} // namespace

Attempt::Attempt(Service &service, std::uint32_t uid, const std::string &method)
    : m_service(service)
    , m_uid(uid)
    , m_method(method)
{
    m_service.onSignal([this](const std::string &member, sd_bus_message *signal) { handle(member, signal); });
}

Attempt::~Attempt()
{
    m_service.onSignal(nullptr);
    if (m_id == 0 || m_outcome)
        return;
    try {
        m_service.cancel(m_id);
    } catch (...) {
        // The service gives up the attempt when the connection closes.
    }
}

std::vector<std::string> Attempt::prepare()
{
    // Root receives the signals about all users, among them those about the turns of others.
    m_service.subscribe();
    begin(m_service.requestChallenge(m_uid, m_method));
    m_credential = Credential::Certificate;
    m_service.waitUntil([this] { return m_awaitsInput || m_outcome || m_endState; });
    if (m_awaitsInput) {
        if (m_isWithoutClient)
            throw Outcomes::otherInput();
        m_certs.reset();
        // While a client lists its certificates, also for another program, the value is a placeholder or empty.
        const std::vector<std::string> certs = m_service.certs(m_method);
        if (!certs.empty() && !isPlaceholder(certs))
            m_certs = certs;
        m_service.waitUntil([this] { return m_outcome || m_isOthersTurn || m_certs; });
    }
    if (m_outcome)
        throw Outcome(*m_outcome);
    if (m_endState)
        throw Outcomes::locked(m_endState->reason, m_endState->duration);
    // The list may be that of another user's client.
    if (m_isOthersTurn)
        throw Outcomes::givenUp(Protocol::Reasons::CutShort);
    // While the person types, nobody reads the signals.
    m_service.unsubscribe();
    return *m_certs;
}

Outcome Attempt::submit(const char *secret, const std::string *cert)
{
    m_service.handleArrived();
    // An attempt that only took too long may begin anew. The end of any other one is meant.
    if (m_outcome && !m_givenUp.empty() && m_givenUp != Protocol::Reasons::TimedOut
        && m_givenUp != Protocol::Reasons::CutShort)
        return *m_outcome;
    begin(m_service.authenticate(m_uid, m_method, secret, cert));
    m_credential = cert ? Credential::Certificate : Credential::Password;

    const auto isAuthenticated = [this] {
        return m_outcome && m_outcome->result == PAM_SUCCESS;
    };
    try {
        m_service.waitUntil([&] { return isAuthenticated() || m_endState || m_awaitsInput; });
    } catch (const Outcome &) {
        if (!m_outcome)
            throw;
    }
    if (!m_outcome && m_endState && m_endState->isLocked())
        return Outcomes::locked(m_endState->reason, m_endState->duration);
    if (!m_outcome)
        return Outcomes::otherInput();
    // The failure has locked the user.
    if (m_givenUp.empty() && m_endState && m_endState->isLocked())
        return Outcomes::lockedNow(m_endState->reason, m_endState->duration);
    return *m_outcome;
}

void Attempt::begin(std::uint64_t id)
{
    m_id = id;
    m_awaitsInput = false;
    m_outcome.reset();
    m_givenUp.clear();
    m_endState.reset();
}

void Attempt::handle(const std::string &member, sd_bus_message *signal)
{
    if (member == Protocol::Signals::MethodOptionChanged) {
        const char *method = nullptr;
        const char *option = nullptr;
        Bus::check(sd_bus_message_read(signal, "ss", &method, &option));
        if (m_method != method || std::string(option) != Protocol::CertsOption)
            return;
        Bus::check(sd_bus_message_enter_container(signal, SD_BUS_TYPE_VARIANT, "as"));
        const std::vector<std::string> certs = Service::readStrings(signal);
        if (!isPlaceholder(certs))
            m_certs = certs;
        return;
    }
    const bool isState = member == Protocol::Signals::StateChanged;
    if (!isState && member != Protocol::Signals::Authenticated && member != Protocol::Signals::AuthenticationFailed
        && member != Protocol::Signals::AttemptGivenUp)
        return;

    std::uint64_t id = 0;
    std::uint32_t uid = 0;
    Bus::check(sd_bus_message_read(signal, "tu", &id, &uid));
    const bool isOurs = m_id != 0 && id == m_id && uid == m_uid;
    if (isState) {
        handleState(uid, isOurs, Service::readState(signal));
        return;
    }
    if (!isOurs || m_outcome)
        return;
    const char *method = nullptr;
    Bus::check(sd_bus_message_read(signal, "s", &method));
    if (member == Protocol::Signals::Authenticated) {
        m_outcome = Outcome{PAM_SUCCESS, {}};
    } else if (member == Protocol::Signals::AuthenticationFailed) {
        int code = 0;
        Bus::check(sd_bus_message_read(signal, "i", &code));
        m_outcome = Outcomes::failed(code, m_credential);
    } else {
        const char *reason = nullptr;
        Bus::check(sd_bus_message_read(signal, "s", &reason));
        m_givenUp = reason;
        m_outcome = Outcomes::givenUp(reason);
    }
}

void Attempt::handleState(std::uint32_t uid, bool isOurs, const State &state)
{
    if (uid != m_uid && state.name == Protocol::States::Pending && m_awaitsInput)
        m_isOthersTurn = true;
    if (!isOurs || state.name == Protocol::States::Queued || state.name == Protocol::States::Pending
        || state.isRestarted)
        return;
    if (m_outcome || state.isLocked()) {
        m_endState = state;
    } else {
        m_awaitsInput = true;
        m_isWithoutClient = state.isWithoutClient;
    }
}
