// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include "reply.h"

/// Decides which accounts the service accepts as users: those that people log in with. Service accounts have user ids
/// too, and must not be able to request a client of their own.
class Accounts
{
public:
    enum Rule {
        /// The user id is between UID_MIN and UID_MAX of /etc/login.defs, and /etc/shells lists the shell.
        ForPeople,
        /// Every account except root.
        All
    };

    explicit Accounts(Rule rule)
        : m_rule(rule)
    {
    }

    /// Whether `uid` is a user now.
    bool isUser(uint uid) const;
    /// Returns an error if `uid` is not a user.
    Reply check(uint uid) const;

private:
    const Rule m_rule;
};
