// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#include "callers.h"

#include "servicelimits.h"

namespace {

constexpr char Bus[] = "org.freedesktop.DBus";
constexpr char BusPath[] = "/org/freedesktop/DBus";
// One match rule covers all callers, because the bus limits the number of rules per connection.
constexpr char EndOfOwner[] = "type='signal',sender='org.freedesktop.DBus',path='/org/freedesktop/DBus',"
                              "interface='org.freedesktop.DBus',member='NameOwnerChanged',arg2=''";

} // namespace

Callers::Callers(sd_bus *bus)
    : m_bus(bus)
{
    sd_bus_add_match(m_bus, &m_ownerChanges, EndOfOwner, handleOwnerChange, this);
}

Callers::~Callers()
{
    for (const auto &entry : m_waiting)
        sd_bus_slot_unref(entry.second.query);
    sd_bus_slot_unref(m_ownerChanges);
}

std::optional<Caller> Callers::find(const char *name) const
{
    const auto known = m_callers.constFind(QByteArray::fromRawData(name, int(qstrlen(name))));
    if (known == m_callers.constEnd())
        return std::nullopt;
    return *known;
}

bool Callers::identify(const char *name, const Handler &handler)
{
    Waiting &waiting = m_waiting[name];
    if (waiting.calls >= Limits::WaitingCallsPerConnection)
        return false;
    ++waiting.calls;
    waiting.handlers << handler;
    if (waiting.query)
        return true;
    waiting.callers = this;
    waiting.name = name;
    if (sd_bus_call_method_async(m_bus, &waiting.query, Bus, BusPath, Bus, "GetConnectionUnixUser", handleAnswer,
                                 &waiting, "s", name)
        < 0)
        m_waiting.erase(name);
    return true;
}

void Callers::await(const char *name, const Handler &handler)
{
    const auto waiting = m_waiting.find(name);
    if (waiting != m_waiting.end())
        waiting->second.handlers << handler;
}

int Callers::handleAnswer(sd_bus_message *answer, void *waiting, sd_bus_error *)
{
    auto *const object = static_cast<Waiting *>(waiting);
    Callers *const self = object->callers;
    const Caller none;
    Caller caller{QString::fromLatin1(object->name), none.uid};
    const QByteArray name = object->name;
    const QVector<Handler> handlers = object->handlers;
    sd_bus_slot_unref(object->query);
    self->m_waiting.erase(name);
    // An error means that the caller has left the bus.
    if (sd_bus_message_is_method_error(answer, nullptr) > 0 || sd_bus_message_read(answer, "u", &caller.uid) <= 0)
        return 0;
    self->m_callers.insert(name, caller);
    for (const Handler &handle : handlers)
        handle(caller);
    return 0;
}

int Callers::handleOwnerChange(sd_bus_message *signal, void *callers, sd_bus_error *)
{
    // sd-bus lets a signal of any sender pass a match rule for a sender's well-known name.
    const char *name = nullptr;
    if (qstrcmp(sd_bus_message_get_sender(signal), Bus) == 0
        && sd_bus_message_read(signal, "sss", &name, nullptr, nullptr) > 0)
        static_cast<Callers *>(callers)->forget(name);
    return 0;
}

void Callers::forget(const QByteArray &name)
{
    const auto waiting = m_waiting.find(name);
    if (waiting != m_waiting.end()) {
        sd_bus_slot_unref(waiting->second.query);
        m_waiting.erase(waiting);
    }
    if (m_callers.remove(name) > 0)
        Q_EMIT gone(QString::fromLatin1(name));
}
