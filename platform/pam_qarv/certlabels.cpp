// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#include "certlabels.h"

#include "harmlessbytes.h"

#include <algorithm>
#include <charconv>
#include <string_view>

namespace {

constexpr std::string_view Scheme = "pkcs11:";
constexpr std::string_view Token = "token=";
constexpr std::string_view Object = "object=";

std::string decoded(std::string_view text)
{
    constexpr std::size_t EscapeSize = 3; // as "%20"
    constexpr int Hexadecimal = 16;
    std::string result;
    while (!text.empty()) {
        unsigned char byte = 0;
        const char *const digits = text.data() + 1;
        if (text.front() == '%' && text.size() >= EscapeSize
            && std::from_chars(digits, digits + 2, byte, Hexadecimal).ptr == digits + 2) {
            result += static_cast<char>(byte);
            text.remove_prefix(EscapeSize);
        } else {
            result += text.front();
            text.remove_prefix(1);
        }
    }
    return result;
}

/// The label of a PKCS#11 URI with an object and a token; empty for any other text.
std::string label(std::string_view cert)
{
    if (cert.substr(0, Scheme.size()) != Scheme)
        return {};
    cert.remove_prefix(Scheme.size());
    cert = cert.substr(0, cert.find('?'));
    std::string token;
    std::string object;
    while (!cert.empty()) {
        const std::string_view attribute = cert.substr(0, cert.find(';'));
        if (attribute.substr(0, Token.size()) == Token)
            token = decoded(attribute.substr(Token.size()));
        else if (attribute.substr(0, Object.size()) == Object)
            object = decoded(attribute.substr(Object.size()));
        cert.remove_prefix(std::min(attribute.size() + 1, cert.size()));
    }
    return token.empty() || object.empty() ? std::string() : harmless(object + " (" + token + ")");
}

} // namespace

std::vector<std::string> certLabels(const std::vector<std::string> &certs)
{
    std::vector<std::string> shortLabels;
    shortLabels.reserve(certs.size());
    for (const std::string &cert : certs)
        shortLabels.push_back(label(cert));
    std::vector<std::string> labels;
    labels.reserve(certs.size());
    for (std::size_t index = 0; index < certs.size(); ++index) {
        const std::string &shortLabel = shortLabels[index];
        const bool isUnique = std::count(shortLabels.begin(), shortLabels.end(), shortLabel) == 1;
        labels.push_back(isUnique && !shortLabel.empty() ? shortLabel : harmless(certs[index]));
    }
    return labels;
}
