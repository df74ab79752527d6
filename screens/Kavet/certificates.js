// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
.pragma library

// What a PKCS#11 URI (RFC 7512) tells a person: the labels of the certificate and its token, and what the reference
// client adds as a query: the holder, the issuer, and the day on which the certificate expires. Any other text is only
// a name.

function decoded(text) {
    try {
        text = decodeURIComponent(text)
    } catch (error) {
        // Not UTF-8. Show it as it is.
    }
    // Control characters and bidirectional formatting could make one name look like another.
    return text.replace(/[\u0000-\u001f\u007f-\u009f\u061c\u200e\u200f\u2028-\u202e\u2066-\u2069]/g, "\ufffd")
}

// A name as the list shows it. One without end would push the other certificates out of reach.
function name(text) {
    const longest = 512
    const whole = decoded(text)
    return whole.length > longest ? whole.substring(0, longest) + "\u2026" : whole
}

function parsed(uri) {
    const attributes = {}
    if (uri.startsWith("pkcs11:")) {
        for (const attribute of uri.substring("pkcs11:".length).split(/[;?&]/)) {
            const equals = attribute.indexOf("=")
            if (equals > 0)
                attributes[attribute.substring(0, equals)] = name(attribute.substring(equals + 1))
        }
    }
    const expiry = attributes["expires"] || ""
    return {
        uri: uri,
        detail: decoded(uri.split("?")[0].replace(/%/g, "%25")),
        holder: attributes["holder"] || attributes["object"] || name(uri),
        issuer: attributes["issuer"] || "",
        expiry: expiry,
        hasExpired: expiry !== "" && expiry < new Date().toISOString().substring(0, 10),
        token: attributes["token"] || ""
    }
}

// Whether the certificate matches each word that the user searches for.
function matches(certificate, words) {
    const text = [certificate.holder, certificate.issuer, certificate.token, certificate.detail].join("\n")
        .toLocaleLowerCase()
    return words.toLocaleLowerCase().split(/\s+/).every(word => text.includes(word))
}
