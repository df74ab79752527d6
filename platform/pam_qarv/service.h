// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include "bus.h"

#include <cstdint>
#include <string>
#include <vector>

/// A user's state, with the details that matter here.
struct State
{
    std::string name;
    std::string reason; ///< Of a lock.
    std::uint32_t duration = 0; ///< Of a lock, in seconds.
    bool isRestarted = false; ///< The attempt goes on after its client has been restarted.
    bool isWithoutClient = false; ///< The method asks for input before it starts the client.

    bool isLocked() const;
};

/// The authentication service. Talks only to the process of root that owned the service's name when this object was
/// made. A refused call throws its Outcome.
class Service
{
public:
    /// Throws unavailable() when root does not run the service. `bus` must outlive this object.
    explicit Service(Bus &bus);
    ~Service();

    State state(std::uint32_t uid);
    /// The name of the method to offer first. Throws when there is none.
    std::string firstMethod();
    /// Starts and ends the delivery of all signals about the users that the caller may know about.
    void subscribe();
    void unsubscribe();
    /// The value of the method's option with the certificates.
    std::vector<std::string> certs(const std::string &method);
    std::uint64_t requestChallenge(std::uint32_t uid, const std::string &method);
    /// Submits a secret; for a PIN, `cert` is not null. sd-bus wipes its copies.
    std::uint64_t authenticate(std::uint32_t uid, const std::string &method, const char *secret,
                               const std::string *cert);
    /// Does not wait.
    void cancel(std::uint64_t attempt);
    /// Reports that the user's session has started or stopped. Only root may.
    void reportSession(std::uint32_t uid, bool isStart);

    /// Calls `handler` for each signal of the service, while this object waits.
    void onSignal(std::function<void(const std::string &member, sd_bus_message *)> handler);
    /// Waits until `isDone` returns true. Throws unavailable() when the service has left the bus.
    void waitUntil(const std::function<bool()> &isDone);
    /// Handles the signals that have arrived.
    void handleArrived();

    static State readState(sd_bus_message *message);
    static std::vector<std::string> readStrings(sd_bus_message *message);

private:
    Service(const Service &) = delete;
    Service &operator=(const Service &) = delete;

    template <typename... Arguments>
    Bus::Message newCall(const char *member, Arguments... arguments);
    Bus::Message call(const Bus::Message &call);
    void handle(sd_bus_message *signal);

    Bus &m_bus;
    const std::string m_name; ///< The process's unique name.
    bool m_isGone = false;
    std::function<void(const std::string &, sd_bus_message *)> m_handler;
};
