// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#include "service.h"

#include "outcome.h"
#include "protocol.h"

#include <cstring>
#include <security/pam_modules.h>

namespace {

/// Throws unavailable() when root does not own the service's name.
std::string findService(Bus &bus)
{
    try {
        return bus.rootOwner(Protocol::Service);
    } catch (const BusError &error) {
        throw Outcomes::refused(error.name, error.message);
    }
}

bool isVariantOf(sd_bus_message *message, const char *type)
{
    const char *contents = nullptr;
    return sd_bus_message_peek_type(message, nullptr, &contents) > 0 && contents && std::strcmp(contents, type) == 0;
}

} // namespace

bool State::isLocked() const
{
    return name == Protocol::States::Locked;
}

Service::Service(Bus &bus)
    : m_bus(bus)
    , m_name(findService(bus))
{
    m_bus.onSignal([this](sd_bus_message *signal) { handle(signal); });
}

Service::~Service()
{
    m_bus.onSignal(nullptr);
}

template <typename... Arguments>
Bus::Message Service::newCall(const char *member, Arguments... arguments)
{
    return m_bus.newCall(m_name, Protocol::ObjectPath, Protocol::Interface, member, arguments...);
}

Bus::Message Service::call(const Bus::Message &call)
{
    if (m_isGone)
        throw Outcomes::unavailable("the service has left the bus");
    try {
        return m_bus.call(call);
    } catch (const BusError &error) {
        throw Outcomes::refused(error.name, error.message);
    }
}

State Service::state(std::uint32_t uid)
{
    const Bus::Message reply = call(newCall("GetState", "u", uid));
    Bus::check(sd_bus_message_skip(reply.get(), "t"));
    return readState(reply.get());
}

std::string Service::firstMethod()
{
    const Bus::Message reply = call(newCall("GetMethods"));
    const std::vector<std::string> methods = readStrings(reply.get());
    if (methods.empty())
        throw Outcomes::refused(Protocol::Errors::NoSuchMethod, {});
    return methods.front();
}

void Service::subscribe()
{
    call(newCall("Subscribe"));
}

void Service::unsubscribe()
{
    call(newCall("Unsubscribe"));
}

std::vector<std::string> Service::certs(const std::string &method)
{
    const Bus::Message reply = call(newCall("GetMethodOption", "ss", method.c_str(), Protocol::CertsOption));
    Bus::check(sd_bus_message_enter_container(reply.get(), SD_BUS_TYPE_VARIANT, "as"));
    return readStrings(reply.get());
}

std::uint64_t Service::requestChallenge(std::uint32_t uid, const std::string &method)
{
    const Bus::Message reply = call(newCall("RequestChallenge", "us", uid, method.c_str()));
    std::uint64_t attempt = 0;
    Bus::check(sd_bus_message_read(reply.get(), "t", &attempt));
    return attempt;
}

std::uint64_t Service::authenticate(std::uint32_t uid, const std::string &method, const char *secret,
                                    const std::string *cert)
{
    const Bus::Message submission = newCall("Authenticate");
    sd_bus_message *const message = submission.get();
    Bus::check(sd_bus_message_sensitive(message));
    Bus::check(sd_bus_message_append(message, "us", uid, method.c_str()));
    Bus::check(sd_bus_message_open_container(message, SD_BUS_TYPE_ARRAY, "{sv}"));
    if (cert)
        Bus::check(sd_bus_message_append(message, "{sv}", Protocol::Cert, "s", cert->c_str()));
    // The secret comes last: sd-bus wipes a message's memory, but not the smaller one that the message has outgrown.
    if (sd_bus_message_append(message, "{sv}", cert ? Protocol::Pin : Protocol::Password, "s", secret) < 0)
        throw Outcome{PAM_AUTH_ERR, "What was entered is not valid text"};
    Bus::check(sd_bus_message_close_container(message));

    const Bus::Message reply = call(submission);
    std::uint64_t attempt = 0;
    Bus::check(sd_bus_message_read(reply.get(), "t", &attempt));
    return attempt;
}

void Service::cancel(std::uint64_t attempt)
{
    m_bus.callWithoutReply(newCall("Cancel", "t", attempt));
}

void Service::reportSession(std::uint32_t uid, bool isStart)
{
    constexpr int ManageClient = 1;
    call(newCall(isStart ? "SessionStarted" : "SessionStopped", "ub", uid, ManageClient));
}

void Service::onSignal(std::function<void(const std::string &, sd_bus_message *)> handler)
{
    m_handler = std::move(handler);
}

void Service::waitUntil(const std::function<bool()> &isDone)
{
    m_bus.waitUntil([this, &isDone] {
        if (isDone())
            return true;
        if (m_isGone)
            throw Outcomes::unavailable("the service has left the bus");
        return false;
    });
}

void Service::handleArrived()
{
    m_bus.handleArrived();
}

State Service::readState(sd_bus_message *message)
{
    State state;
    const char *text = nullptr;
    Bus::check(sd_bus_message_read(message, "s", &text));
    state.name = text;
    Bus::check(sd_bus_message_enter_container(message, SD_BUS_TYPE_ARRAY, "{sv}"));
    while (Bus::check(sd_bus_message_enter_container(message, SD_BUS_TYPE_DICT_ENTRY, "sv")) > 0) {
        const char *key = nullptr;
        Bus::check(sd_bus_message_read(message, "s", &key));
        if (std::strcmp(key, Protocol::States::Reason) == 0 && isVariantOf(message, "s")) {
            Bus::check(sd_bus_message_read(message, "v", "s", &text));
            state.reason = text;
        } else if (std::strcmp(key, Protocol::States::Duration) == 0 && isVariantOf(message, "u")) {
            Bus::check(sd_bus_message_read(message, "v", "u", &state.duration));
        } else if (std::strcmp(key, Protocol::States::Restarted) == 0 && isVariantOf(message, "b")) {
            int isRestarted = 0;
            Bus::check(sd_bus_message_read(message, "v", "b", &isRestarted));
            state.isRestarted = isRestarted != 0;
        } else if (std::strcmp(key, Protocol::States::InputRequestType) == 0 && isVariantOf(message, "i")) {
            int type = 0;
            Bus::check(sd_bus_message_read(message, "v", "i", &type));
            state.isWithoutClient = type == Protocol::States::InputWithoutClient;
        } else {
            Bus::check(sd_bus_message_skip(message, "v"));
        }
        Bus::check(sd_bus_message_exit_container(message));
    }
    Bus::check(sd_bus_message_exit_container(message));
    return state;
}

std::vector<std::string> Service::readStrings(sd_bus_message *message)
{
    std::vector<std::string> strings;
    Bus::check(sd_bus_message_enter_container(message, SD_BUS_TYPE_ARRAY, "s"));
    const char *text = nullptr;
    while (Bus::check(sd_bus_message_read(message, "s", &text)) > 0)
        strings.emplace_back(text);
    Bus::check(sd_bus_message_exit_container(message));
    return strings;
}

void Service::handle(sd_bus_message *signal)
{
    const std::string sender = sd_bus_message_get_sender(signal) ? sd_bus_message_get_sender(signal) : "";
    const std::string member = sd_bus_message_get_member(signal);
    if (sender == Bus::Driver && member == "NameOwnerChanged") {
        const char *name = nullptr;
        Bus::check(sd_bus_message_read(signal, "s", &name));
        m_isGone = m_isGone || m_name == name;
    } else if (sender == m_name && m_handler && sd_bus_message_is_signal(signal, Protocol::Interface, nullptr) > 0) {
        m_handler(member, signal);
    }
}
