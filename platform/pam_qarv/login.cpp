// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#include "login.h"

#include "certlabels.h"

#include <charconv>
#include <security/pam_modules.h>

namespace {

constexpr int ChoiceTries = 3;
/// More certificates than this are not listed.
constexpr std::size_t LongestList = 32;

/// The index of the entry that a person has chosen by its number from 1; `count` if there is none.
std::size_t chosenIndex(std::string_view number, std::size_t count)
{
    std::size_t choice = 0;
    const char *const end = number.data() + number.size();
    const auto parsed = std::from_chars(number.data(), end, choice);
    return parsed.ec == std::errc() && parsed.ptr == end && choice >= 1 && choice <= count ? choice - 1 : count;
}

std::string methodOrFirst(const Options &options, Service &service)
{
    return options.method.empty() ? service.firstMethod() : options.method;
}

} // namespace

Login::Login(pam_handle_t *pam, int flags, const Options &options, Conversation &conversation, Service &service,
             std::uint32_t uid)
    : m_pam(pam)
    , m_flags(flags)
    , m_options(options)
    , m_conversation(conversation)
    , m_attempt(service, uid, methodOrFirst(options, service))
{
}

Outcome Login::authenticate()
{
    if (m_options.cert == Options::AskForCert)
        chooseCert();
    else if (m_options.cert)
        m_cert = *m_options.cert;

    if (m_options.firstPass != Options::Ignore) {
        Outcome outcome = submitFirstPass();
        if (m_options.firstPass == Options::Use || outcome.result != PAM_AUTH_ERR)
            return outcome;
    }
    return submitEntered();
}

void Login::chooseCert()
{
    std::vector<std::string> certs = m_attempt.prepare();
    if (certs.empty())
        throw Outcome{PAM_AUTHINFO_UNAVAIL, "No token with a certificate"};
    if (certs.size() > LongestList)
        certs.resize(LongestList);
    const std::vector<std::string> labels = certLabels(certs);

    std::size_t index = 0;
    if (certs.size() > 1) {
        // One text, because some programs show only the last one. It is a question also when the program wants silence.
        std::string question;
        for (std::size_t entry = 0; entry < labels.size(); ++entry)
            question += std::to_string(entry + 1) + ": " + labels[entry] + "\n";
        question += "Number of the certificate: ";
        int triesLeft = ChoiceTries;
        do {
            if (triesLeft-- == 0)
                throw Outcome{PAM_AUTH_ERR, "No certificate was chosen"};
            index = chosenIndex(m_conversation.ask(question).get(), certs.size());
        } while (index == certs.size());
    }
    m_cert = certs[index];
    m_certLabel = labels[index];
}

Outcome Login::submitFirstPass()
{
    const void *item = nullptr;
    if (pam_get_item(m_pam, PAM_AUTHTOK, &item) != PAM_SUCCESS || !item)
        return {PAM_AUTH_ERR, {}};
    return m_attempt.submit(static_cast<const char *>(item), isForPassword() ? nullptr : &m_cert);
}

Outcome Login::submitEntered()
{
    const Secret secret = m_conversation.askSecretly(isForPassword()       ? "Password: "
                                                     : m_certLabel.empty() ? "PIN: "
                                                                           : "PIN of " + m_certLabel + ": ");
    // An empty PIN could only be wrong. With an empty password, the client decides.
    const bool isEmpty = *secret == '\0';
    if (isEmpty && (!isForPassword() || (m_flags & PAM_DISALLOW_NULL_AUTHTOK)))
        return {PAM_AUTH_ERR, {}};
    if (!isForPassword())
        return m_attempt.submit(secret.get(), &m_cert);
    // For the modules that follow.
    if (const int result = pam_set_item(m_pam, PAM_AUTHTOK, secret.get()); result != PAM_SUCCESS)
        return {result, {}};
    return m_attempt.submit(secret.get(), nullptr);
}
