// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include "deadline.h"

#include <exception>
#include <functional>
#include <memory>
#include <string>
#include <systemd/sd-bus.h>

/// The end of a call with an error reply.
struct BusError
{
    std::string name;
    std::string message;
};

/// A connection to the system bus for the lifetime of the object. All waiting ends at the deadline with the outcome
/// timedOut(); a broken connection has the outcome unavailable(). Nothing depends on the environment.
class Bus
{
public:
    struct Unref
    {
        void operator()(sd_bus_message *message) const { sd_bus_message_unref(message); }
    };
    using Message = std::unique_ptr<sd_bus_message, Unref>;

    static constexpr char Driver[] = "org.freedesktop.DBus"; ///< The bus itself.

    /// Connects. `deadline` must outlive this object.
    explicit Bus(Deadline &deadline);
    ~Bus();

    Message newCall(const std::string &service, const char *path, const char *interface, const char *member);
    /// `types` and the arguments after it are those of sd_bus_message_append().
    template <typename... Arguments>
    Message newCall(const std::string &service, const char *path, const char *interface, const char *member,
                    const char *types, Arguments... arguments)
    {
        Message call = newCall(service, path, interface, member);
        check(sd_bus_message_append(call.get(), types, arguments...));
        return call;
    }

    /// Sends a call and waits for the reply of the service that the call names. Throws BusError.
    Message call(const Message &call);
    /// Sends a call without waiting for anything.
    void callWithoutReply(const Message &call);

    /// Finds the owner of a name. Throws unavailable() unless that is a process of root.
    std::string rootOwner(const char *name);

    /// Calls `handler` for each signal, while this object waits.
    void onSignal(std::function<void(sd_bus_message *)> handler) { m_handler = std::move(handler); }
    /// Waits until `isDone` returns true, which it may do at once.
    void waitUntil(const std::function<bool()> &isDone);
    /// Handles what has arrived.
    void handleArrived();

    Deadline &deadline() { return m_deadline; }

    /// Throws when sd-bus returned an error.
    static int check(int result);

private:
    Bus(const Bus &) = delete;
    Bus &operator=(const Bus &) = delete;

    /// Handles one message, if one has arrived. Returns false when there is none.
    bool handleNext();
    static int filter(sd_bus_message *message, void *self, sd_bus_error *error) noexcept;
    static int takeReply(sd_bus_message *message, void *reply, sd_bus_error *error) noexcept;

    struct Close
    {
        // Without flushing, which could block.
        void operator()(sd_bus *bus) const { sd_bus_close_unref(bus); }
    };

    Deadline &m_deadline;
    std::unique_ptr<sd_bus, Close> m_bus;
    std::function<void(sd_bus_message *)> m_handler;
    std::exception_ptr m_failure; ///< What a handler threw: no exception may pass through sd-bus.
};
