// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include "deadline.h"
#include "secret.h"

#include <security/pam_modules.h>
#include <string>

/// What passes between the module and the person, through the program. The time until an answer does not count towards
/// the deadline. Texts must be safe to show.
class Conversation
{
public:
    /// Without `isSilent`, also shows messages that need no answer. All arguments must outlive this object.
    Conversation(pam_handle_t *pam, Deadline &deadline, bool isSilent);

    /// Asks for a text, without showing it while the person types. Throws PAM_CONV_ERR when there is no answer.
    Secret askSecretly(const std::string &prompt);
    /// Asks for a text that need not be secret. Nevertheless, the person may enter a secret by mistake.
    Secret ask(const std::string &prompt);
    /// Shows an error.
    void showError(const std::string &text);

private:
    Secret answer(int style, const std::string &prompt);

    pam_handle_t *const m_pam;
    Deadline &m_deadline;
    const bool m_isSilent;
};
