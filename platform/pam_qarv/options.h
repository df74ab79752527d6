// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <optional>
#include <string>
#include <vector>

/// The options of a line in a PAM service's configuration, as pam_qarv(8) describes them.
struct Options
{
    /// Which password or PIN of an earlier module is used.
    enum FirstPass {
        Ignore, ///< None: the person is always asked.
        Try, ///< The person is asked if there is none, or if it is wrong.
        Use ///< The person is never asked.
    };

    std::string method; ///< Empty: the service's first one.
    std::optional<std::string> cert; ///< A certificate, or AskForCert. Without a value, users enter a password.
    std::optional<unsigned int> timeout; ///< In seconds, from 1 to LongestTimeout.
    FirstPass firstPass = Ignore;
    std::vector<std::string> ignored; ///< Options that are unknown or have bad values.

    Options(int argc, const char *const *argv);

    static constexpr unsigned int LongestTimeout = 300;
    static constexpr char AskForCert[] = "ask";
};
