// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include "outcome.h"
#include "service.h"

#include <optional>

/// A user's attempts to authenticate, of which at most one is open. The destructor cancels that.
class Attempt
{
public:
    /// `service` must outlive this object.
    Attempt(Service &service, std::uint32_t uid, const std::string &method);
    ~Attempt();

    /// Makes the method start the user's client, and returns the certificates that the client lists.
    std::vector<std::string> prepare();
    /// Submits what the person has entered; for a PIN, `cert` is not null. Waits for the outcome.
    Outcome submit(const char *secret, const std::string *cert);

private:
    Attempt(const Attempt &) = delete;
    Attempt &operator=(const Attempt &) = delete;

    void handle(const std::string &member, sd_bus_message *signal);
    void handleState(std::uint32_t uid, bool isOurs, const State &state);
    void begin(std::uint64_t id);

    Service &m_service;
    const std::uint32_t m_uid;
    const std::string m_method;

    // The current attempt
    std::uint64_t m_id = 0; ///< 0 when there is none.
    Credential m_credential = Credential::Password;
    bool m_awaitsInput = false;
    bool m_isWithoutClient = false; ///< While the attempt awaits input.
    std::optional<Outcome> m_outcome; ///< Set when the attempt has ended.
    std::string m_givenUp; ///< The reason for which the service gave up the attempt.
    std::optional<State> m_endState; ///< What the user's state has become after that.

    bool m_isOthersTurn = false; ///< Another user's attempt has begun since ours awaits input.
    std::optional<std::vector<std::string>> m_certs; ///< Set when the client has listed its certificates.
};
