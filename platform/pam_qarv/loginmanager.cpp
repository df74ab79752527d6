// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#include "loginmanager.h"

#include <vector>

namespace {

constexpr char LoginManager[] = "org.freedesktop.login1";
constexpr char ManagerPath[] = "/org/freedesktop/login1";
constexpr char ManagerInterface[] = "org.freedesktop.login1.Manager";
constexpr char SessionInterface[] = "org.freedesktop.login1.Session";
constexpr char PropertiesInterface[] = "org.freedesktop.DBus.Properties";
constexpr char StateProperty[] = "State";
constexpr char Closing[] = "closing"; ///< Its user has logged out, but processes remain.

std::vector<std::string> pathsOfOthers(sd_bus_message *list, std::uint32_t uid, const std::string &own)
{
    std::vector<std::string> paths;
    Bus::check(sd_bus_message_enter_container(list, SD_BUS_TYPE_ARRAY, "(susso)"));
    const char *id = nullptr;
    const char *user = nullptr;
    const char *seat = nullptr;
    const char *path = nullptr;
    std::uint32_t owner = 0;
    while (Bus::check(sd_bus_message_read(list, "(susso)", &id, &owner, &user, &seat, &path)) > 0) {
        if (owner == uid && own != id)
            paths.emplace_back(path);
    }
    return paths;
}

bool isClosing(Bus &bus, const std::string &manager, const std::string &path)
{
    try {
        const Bus::Message reply = bus.call(
            bus.newCall(manager, path.c_str(), PropertiesInterface, "Get", "ss", SessionInterface, StateProperty));
        const char *state = nullptr;
        Bus::check(sd_bus_message_read(reply.get(), "v", "s", &state));
        return std::string(state) == Closing;
    } catch (const BusError &) {
        return true; // The session has ended meanwhile.
    }
}

} // namespace

bool hasOtherSession(Bus &bus, std::uint32_t uid, const std::string &own)
{
    try {
        const std::string manager = bus.rootOwner(LoginManager);
        const Bus::Message list = bus.call(bus.newCall(manager, ManagerPath, ManagerInterface, "ListSessions"));
        for (const std::string &path : pathsOfOthers(list.get(), uid, own)) {
            if (!isClosing(bus, manager, path))
                return true;
        }
    } catch (const BusError &) {
        // There is no login manager.
    }
    return false;
}
