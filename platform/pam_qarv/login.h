// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include "attempt.h"
#include "conversation.h"
#include "options.h"

/// One run of pam_sm_authenticate(): asks the person, and has the daemon check what was entered.
class Login
{
public:
    /// `uid` is the user. All arguments must outlive this object.
    Login(pam_handle_t *pam, int flags, const Options &options, Conversation &conversation, Service &service,
          std::uint32_t uid);

    Outcome authenticate();

private:
    /// Lists the user's certificates and lets the person choose.
    void chooseCert();
    Outcome submitFirstPass();
    Outcome submitEntered();
    bool isForPassword() const { return m_cert.empty(); }

    pam_handle_t *const m_pam;
    const int m_flags;
    const Options &m_options;
    Conversation &m_conversation;
    Attempt m_attempt;
    std::string m_cert; ///< Empty: the user enters a password.
    std::string m_certLabel;
};
