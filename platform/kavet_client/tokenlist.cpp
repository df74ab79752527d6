// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause

// Lists certificates by PKCS#11's own calls. GnuTLS reads each attribute of each object on its own, which takes several
// times as long.

#include "certdescription.h"
#include "certificate.h"
#include "clientsettings.h"
#include "tokens.h"
#include "tokensession.h"

#include <QLoggingCategory>
#include <QSet>

#include <algorithm>
#include <cstdlib>
#include <memory>
#include <tuple>
#include <vector>

#include <p11-kit/p11-kit.h>
#include <p11-kit/pkcs11.h>
#include <p11-kit/uri.h>

namespace {

/// The protocol's limits for a list. A token may hold more.
constexpr int maximumCerts = 1000;
constexpr int maximumListSize = 256 * 1024; // bytes

/// The flags of a token that holds a person's keys, unlike the system's trust store.
constexpr CK_FLAGS personal = CKF_TOKEN_INITIALIZED | CKF_LOGIN_REQUIRED;

/// An object's class, as its attribute holds it.
QByteArray asBytes(CK_OBJECT_CLASS kind)
{
    return QByteArray(reinterpret_cast<const char *>(&kind), sizeof(kind));
}
const QByteArray certificateClass = asBytes(CKO_CERTIFICATE);
const QByteArray privateKeyClass = asBytes(CKO_PRIVATE_KEY);
const QByteArray publicKeyClass = asBytes(CKO_PUBLIC_KEY);

struct UriFree
{
    void operator()(P11KitUri *uri) const { p11_kit_uri_free(uri); }
};
using Uri = std::unique_ptr<P11KitUri, UriFree>;

/// The module of a path, or the modules registered in the system if it is empty.
class LoadedModules
{
public:
    explicit LoadedModules(const QString &path)
    {
        CK_RV error = CKR_OK;
        if (path.isEmpty()) {
            m_registered = p11_kit_modules_load_and_initialize(0);
        } else if (CK_FUNCTION_LIST *const module = p11_kit_module_load(path.toLocal8Bit().constData(), 0)) {
            error = p11_kit_module_initialize(module);
            if (error == CKR_OK)
                m_named[0] = module;
            else
                p11_kit_module_release(module);
        }
        if (!loaded()) // p11_kit_message() does not tell why a module does not start.
            qWarning("Cannot load the token module: %s", error == CKR_OK ? p11_kit_message() : p11_kit_strerror(error));
    }
    ~LoadedModules()
    {
        if (m_registered)
            p11_kit_modules_finalize_and_release(m_registered);
        if (m_named[0]) {
            p11_kit_module_finalize(m_named[0]);
            p11_kit_module_release(m_named[0]);
        }
    }

    /// Returns false when a module could not be loaded. The reason has been logged.
    bool loaded() const { return m_registered || m_named[0]; }
    /// Null-terminated.
    CK_FUNCTION_LIST **get() { return m_registered ? m_registered : m_named; }

private:
    CK_FUNCTION_LIST **m_registered = nullptr;
    CK_FUNCTION_LIST *m_named[2] = {};

    Q_DISABLE_COPY(LoadedModules)
};

/// Sets an attribute of a URI.
void set(const Uri &uri, CK_ATTRIBUTE_TYPE type, QByteArray value)
{
    CK_ATTRIBUTE attribute = {type, value.data(), CK_ULONG(value.size())};
    p11_kit_uri_set_attribute(uri.get(), &attribute);
}

/// Whether a certificate's URI is one that `pattern` may stand for.
bool matches(const QByteArray &pattern, const Uri &uri)
{
    const Uri wanted(p11_kit_uri_new());
    CK_ULONG count = 0;
    const CK_ATTRIBUTE *const attributes = p11_kit_uri_get_attributes(uri.get(), &count);
    return p11_kit_uri_parse(pattern.constData(), P11_KIT_URI_FOR_OBJECT_ON_TOKEN, wanted.get()) == P11_KIT_URI_OK
           && p11_kit_uri_match_token_info(wanted.get(), p11_kit_uri_get_token_info(uri.get()))
           && p11_kit_uri_match_attributes(wanted.get(), attributes, count);
}

/// The URIs of certificates.
struct Listing
{
    QByteArrayList certs; ///< Those with a private key, with their descriptions
    QSet<QByteArray> known; ///< All
    QSet<QByteArray> defaults; ///< Those that the default certificate's URI stands for
};

/// Adds the certificates on a token. Returns PKCS#11's error code.
CK_RV addCertsOn(const CK_TOKEN_INFO &token, const TokenSession &session, const QByteArray &defaultCert,
                 Listing &listing)
{
    struct Found
    {
        QByteArray uri;
        QByteArray description;
        QByteArray id;
        bool isAuthority;
    };
    std::vector<Found> found;
    QSet<QByteArray> keyIds;
    bool hasVisibleKeys = false;

    std::vector<CK_OBJECT_HANDLE> objects;
    const CK_RV error = session.find(objects);
    for (const CK_OBJECT_HANDLE object : objects) {
        const auto [kind, id, label] = session.read(object, {CKA_CLASS, CKA_ID, CKA_LABEL});
        if (kind == privateKeyClass || kind == publicKeyClass) {
            hasVisibleKeys = true;
            keyIds << id;
        }
        if (kind != certificateClass || id.isEmpty())
            continue;
        const Certificate certificate = parseCertificate(session.read(object, {CKA_VALUE}).front());
        if (!certificate)
            continue;
        const Uri uri(p11_kit_uri_new());
        *p11_kit_uri_get_token_info(uri.get()) = token;
        set(uri, CKA_CLASS, kind);
        set(uri, CKA_ID, id);
        if (!label.isEmpty()) // With an empty one, the URI would stand for no certificate.
            set(uri, CKA_LABEL, label);
        char *text = nullptr;
        p11_kit_uri_format(uri.get(), P11_KIT_URI_FOR_OBJECT_ON_TOKEN, &text);
        found.push_back({text, CertDescription::of(certificate), id, isAuthority(certificate)});
        std::free(text);
        if (matches(defaultCert, uri))
            listing.defaults << found.back().uri;
    }

    // A token may show its objects in another order each time. Of a certificate and its renewal, list the latter.
    std::sort(found.begin(), found.end(), [](const Found &one, const Found &other) {
        return std::tie(one.uri, other.description) < std::tie(other.uri, one.description);
    });
    for (const Found &cert : found) {
        // A token without visible keys hides them. Then any certificate except an authority's may have a key.
        const bool hasKey = hasVisibleKeys ? keyIds.contains(cert.id) : !cert.isAuthority;
        // Several certificates for one key may share a label, and thus a URI.
        if (hasKey && !listing.known.contains(cert.uri))
            listing.certs << cert.uri + cert.description;
        listing.known << cert.uri;
    }
    return error;
}

/// Adds the certificates on all tokens of a module. Errors are logged.
void addCertsOf(CK_FUNCTION_LIST *module, const QByteArray &defaultCert, Listing &listing)
{
    constexpr char problem[] = "Cannot read a token: %s";
    CK_ULONG count = 0;
    CK_RV error = module->C_GetSlotList(CK_TRUE, nullptr, &count);
    std::vector<CK_SLOT_ID> slotIds(count);
    if (error == CKR_OK)
        error = module->C_GetSlotList(CK_TRUE, slotIds.data(), &count);
    if (error != CKR_OK) {
        qWarning(problem, p11_kit_strerror(error));
        return;
    }
    slotIds.resize(count); // A token may have been removed meanwhile.
    for (const CK_SLOT_ID slotId : slotIds) {
        CK_TOKEN_INFO token = {};
        if (module->C_GetTokenInfo(slotId, &token) != CKR_OK || (token.flags & personal) != personal)
            continue;
        error = addCertsOn(token, TokenSession(module, slotId), defaultCert, listing);
        if (error != CKR_OK)
            qWarning(problem, p11_kit_strerror(error));
    }
}

/// Truncates a list that is too long. Drops the descriptions first.
void limit(QByteArrayList &certs)
{
    if (certs.join().size() > maximumListSize)
        std::transform(certs.begin(), certs.end(), certs.begin(), CertDescription::removedFrom);
    int count = 0;
    int size = 0;
    while (count < qMin(certs.size(), maximumCerts) && (size += certs.at(count).size()) <= maximumListSize)
        ++count;
    if (count < certs.size())
        qWarning("The list of %d certificates is too long; listing only %d", certs.size(), count);
    certs.erase(certs.begin() + count, certs.end());
}

} // namespace

Tokens::Outcome Tokens::list(QByteArrayList &certs)
{
    const ClientSettings settings;
    LoadedModules modules(settings.module());
    if (!modules.loaded())
        return ModuleFailed;
    Listing listing;
    for (CK_FUNCTION_LIST **module = modules.get(); *module; ++module)
        addCertsOf(*module, settings.defaultCert(), listing);
    certs = listing.certs;
    std::stable_partition(certs.begin(), certs.end(), [&listing](const QByteArray &cert) {
        return listing.defaults == QSet<QByteArray>{CertDescription::removedFrom(cert)};
    });
    limit(certs);
    return Success;
}
