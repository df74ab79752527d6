// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#include "bus.h"

#include "outcome.h"

#include <cerrno>
#include <limits>
#include <new>
#include <utility>

namespace {

// Fixed: the program may be setuid, and its environment another user's.
constexpr char Address[] = "unix:path=/run/dbus/system_bus_socket";
constexpr std::uint64_t NoTimeout = std::numeric_limits<std::uint64_t>::max();
constexpr char DriverPath[] = "/org/freedesktop/DBus";

} // namespace

Bus::Bus(Deadline &deadline)
    : m_deadline(deadline)
{
    sd_bus *bus = nullptr;
    check(sd_bus_new(&bus));
    m_bus.reset(bus);
    check(sd_bus_set_address(bus, Address));
    check(sd_bus_set_bus_client(bus, true));
    // Without a value, sd-bus reads one from the environment. The deadline alone bounds the waiting.
    check(sd_bus_set_method_call_timeout(bus, NoTimeout));
    check(sd_bus_add_filter(bus, nullptr, filter, this));
    check(sd_bus_start(bus));
    waitUntil([bus] { return check(sd_bus_is_ready(bus)) > 0; });
}

Bus::~Bus() = default;

Bus::Message Bus::newCall(const std::string &service, const char *path, const char *interface, const char *member)
{
    sd_bus_message *message = nullptr;
    check(sd_bus_message_new_method_call(m_bus.get(), &message, service.c_str(), path, interface, member));
    Message call(message);
    check(sd_bus_message_set_auto_start(message, false));
    return call;
}

Bus::Message Bus::call(const Message &call)
{
    Message reply;
    sd_bus_slot *slot = nullptr;
    check(sd_bus_call_async(m_bus.get(), &slot, call.get(), takeReply, &reply, NoTimeout));
    const std::unique_ptr<sd_bus_slot, sd_bus_slot *(*)(sd_bus_slot *)> keptSlot(slot, sd_bus_slot_unref);
    waitUntil([&reply] { return reply != nullptr; });
    if (const sd_bus_error *error = sd_bus_message_get_error(reply.get()))
        throw BusError{error->name ? error->name : "", error->message ? error->message : ""};
    return reply;
}

void Bus::callWithoutReply(const Message &call)
{
    check(sd_bus_message_set_expect_reply(call.get(), false));
    check(sd_bus_send(m_bus.get(), call.get(), nullptr));
}

std::string Bus::rootOwner(const char *name)
{
    const char *text = nullptr;
    const Message owner = call(newCall(Driver, DriverPath, Driver, "GetNameOwner", "s", name));
    check(sd_bus_message_read(owner.get(), "s", &text));
    std::string uniqueName = text;
    std::uint32_t uid = 0;
    const Message user = call(newCall(Driver, DriverPath, Driver, "GetConnectionUnixUser", "s", uniqueName.c_str()));
    check(sd_bus_message_read(user.get(), "u", &uid));
    if (uid != 0)
        throw Outcomes::unavailable("user " + std::to_string(uid) + " owns " + name);
    // Report when the owner leaves the bus, which it may already have done: then the next call to it fails.
    const std::string rule =
        "type='signal',sender='org.freedesktop.DBus',member='NameOwnerChanged',arg0='" + uniqueName + "'";
    call(newCall(Driver, DriverPath, Driver, "AddMatch", "s", rule.c_str()));
    return uniqueName;
}

void Bus::waitUntil(const std::function<bool()> &isDone)
{
    while (!isDone()) {
        const std::uint64_t left = m_deadline.left(); // Also while messages keep arriving.
        if (left == 0)
            throw Outcomes::timedOut();
        if (handleNext())
            continue;
        if (const int result = sd_bus_wait(m_bus.get(), left); result != -EINTR)
            check(result);
    }
}

void Bus::handleArrived()
{
    while (handleNext()) {
        if (m_deadline.left() == 0)
            throw Outcomes::timedOut();
    }
}

bool Bus::handleNext()
{
    const int result = sd_bus_process(m_bus.get(), nullptr);
    if (m_failure)
        std::rethrow_exception(std::exchange(m_failure, nullptr));
    return check(result) > 0;
}

int Bus::check(int result)
{
    if (result == -ENOMEM)
        throw std::bad_alloc();
    if (result < 0)
        throw Outcomes::unavailable("error " + std::to_string(-result) + " of the system bus");
    return result;
}

int Bus::filter(sd_bus_message *message, void *self, sd_bus_error *) noexcept
{
    auto *const bus = static_cast<Bus *>(self);
    constexpr int NextHandler = 0;
    if (!bus->m_handler || sd_bus_message_is_signal(message, nullptr, nullptr) <= 0)
        return NextHandler;
    try {
        bus->m_handler(message);
    } catch (...) {
        bus->m_failure = std::current_exception();
    }
    return NextHandler;
}

int Bus::takeReply(sd_bus_message *message, void *reply, sd_bus_error *) noexcept
{
    static_cast<Message *>(reply)->reset(sd_bus_message_ref(message));
    return 0;
}
