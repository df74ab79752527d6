// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#include "conversation.h"

#include "outcome.h"

#include <security/pam_ext.h>
#include <security/pam_modules.h>

Conversation::Conversation(pam_handle_t *pam, Deadline &deadline, bool isSilent)
    : m_pam(pam)
    , m_deadline(deadline)
    , m_isSilent(isSilent)
{
}

Secret Conversation::askSecretly(const std::string &prompt)
{
    return answer(PAM_PROMPT_ECHO_OFF, prompt);
}

Secret Conversation::ask(const std::string &prompt)
{
    return answer(PAM_PROMPT_ECHO_ON, prompt);
}

void Conversation::showError(const std::string &text)
{
    const Deadline::Pause pause(m_deadline);
    if (!m_isSilent && !text.empty())
        pam_error(m_pam, "%s", text.c_str());
}

Secret Conversation::answer(int style, const std::string &prompt)
{
    const Deadline::Pause pause(m_deadline);
    char *response = nullptr;
    const int result = pam_prompt(m_pam, style, &response, "%s", prompt.c_str());
    Secret answer(response);
    // The program may ask to be called again later, which needs a state that this module does not keep.
    if (result == PAM_SUCCESS && answer)
        return answer;
    throw Outcome{PAM_CONV_ERR, {}};
}
