// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include "reply.h"

/// Which accounts the service knows as users: those that people log in with. Service accounts have a user id and could
/// otherwise ask for a client of their own.
class Accounts
{
public:
    enum Rule {
        /// A user id from UID_MIN to UID_MAX of /etc/login.defs, and a shell that /etc/shells lists.
        ForPeople,
        /// Every account but root's.
        All
    };

    explicit Accounts(Rule rule)
        : m_rule(rule)
    {
    }

    /// Whether `uid` is a user; asks the system anew each time.
    bool isUser(uint uid) const;
    /// An error for one that is not; none for a user.
    Reply check(uint uid) const;

private:
    const Rule m_rule;
};
