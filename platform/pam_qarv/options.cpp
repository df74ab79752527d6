// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#include "options.h"

#include <charconv>
#include <string_view>
#include <system_error>

namespace {

constexpr std::string_view Method = "method=";
constexpr std::string_view Cert = "cert=";
constexpr std::string_view Timeout = "timeout=";
constexpr std::string_view TryFirstPass = "try_first_pass";
constexpr std::string_view UseFirstPass = "use_first_pass";

/// The value of an option with that name; empty for any other.
std::string_view valueOf(std::string_view option, std::string_view name)
{
    return option.substr(0, name.size()) == name ? option.substr(name.size()) : std::string_view();
}

std::optional<unsigned int> seconds(std::string_view text)
{
    unsigned int value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error != std::errc() || end != text.data() + text.size() || value == 0 || value > Options::LongestTimeout)
        return std::nullopt;
    return value;
}

} // namespace

Options::Options(int argc, const char *const *argv)
{
    for (int index = 0; index < argc; ++index) {
        const std::string_view option = argv[index];
        if (const std::string_view name = valueOf(option, Method); !name.empty())
            method = name;
        else if (const std::string_view value = valueOf(option, Cert); !value.empty())
            cert = value;
        else if (const auto limit = seconds(valueOf(option, Timeout)))
            timeout = limit;
        else if (option == TryFirstPass)
            firstPass = Try;
        else if (option == UseFirstPass)
            firstPass = Use;
        else
            ignored.emplace_back(option);
    }
}
