// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#include "tokenobjects.h"

#include "tokensession.h"

#include <QLoggingCategory>

#include <algorithm>

namespace {

const QByteArray scheme = QByteArrayLiteral("pkcs11:");

QByteArray info(const TokenObjects::Object &object, gnutls_pkcs11_obj_info_t type)
{
    size_t size = 0;
    gnutls_pkcs11_obj_get_info(object.get(), type, nullptr, &size);
    QByteArray value(int(size), '\0');
    if (gnutls_pkcs11_obj_get_info(object.get(), type, value.data(), &size) != GNUTLS_E_SUCCESS)
        return {};
    value.truncate(int(size));
    return value;
}

} // namespace

TokenObjects::Modules::Modules(const QString &module)
{
    m_error = gnutls_pkcs11_init(module.isEmpty() ? GNUTLS_PKCS11_FLAG_AUTO : GNUTLS_PKCS11_FLAG_MANUAL, nullptr);
    if (m_error == GNUTLS_E_SUCCESS && !module.isEmpty())
        m_error = gnutls_pkcs11_add_provider(module.toLocal8Bit().constData(), nullptr);
    if (m_error != GNUTLS_E_SUCCESS)
        qWarning("Cannot load the token module: %s", gnutls_strerror(m_error));
}

TokenObjects::Modules::~Modules()
{
    gnutls_pkcs11_deinit();
}

int TokenObjects::find(const QByteArray &uri, unsigned flags, Objects &objects)
{
    gnutls_pkcs11_obj_t *list = nullptr;
    unsigned count = 0;
    const int error = gnutls_pkcs11_obj_list_import_url4(&list, &count, uri.constData(), flags);
    if (error == GNUTLS_E_REQUESTED_DATA_NOT_AVAILABLE)
        return GNUTLS_E_SUCCESS;
    if (error != GNUTLS_E_SUCCESS)
        return error;
    for (unsigned i = 0; i < count; ++i)
        objects.emplace_back(list[i]);
    gnutls_free(list);
    return GNUTLS_E_SUCCESS;
}

QByteArray TokenObjects::id(const Object &object)
{
    return info(object, GNUTLS_PKCS11_OBJ_ID);
}

QByteArray TokenObjects::uri(const Object &object)
{
    char *text = nullptr; // stays null on error
    gnutls_pkcs11_obj_export_url(object.get(), GNUTLS_PKCS11_URL_GENERIC, &text);
    const std::unique_ptr<char, GnutlsFree> owner(text);
    return text;
}

Certificate TokenObjects::certificateOf(const Object &object)
{
    gnutls_datum_t der = {};
    if (gnutls_pkcs11_obj_get_type(object.get()) != GNUTLS_PKCS11_OBJ_X509_CRT
        || gnutls_pkcs11_obj_export2(object.get(), &der) != GNUTLS_E_SUCCESS)
        return {};
    return parseCertificate(takeBytes(der));
}

bool TokenObjects::requiresPin(const QByteArray &token)
{
    constexpr unsigned wanted = GNUTLS_PKCS11_TOKEN_INITIALIZED | GNUTLS_PKCS11_TOKEN_LOGIN_REQUIRED;
    unsigned flags = 0;
    return gnutls_pkcs11_token_get_flags(token.constData(), &flags) == GNUTLS_E_SUCCESS && (flags & wanted) == wanted;
}

int TokenObjects::presentTokens(QByteArrayList &tokens)
{
    for (unsigned i = 0;; ++i) {
        char *text = nullptr;
        const int error = gnutls_pkcs11_token_get_url(i, GNUTLS_PKCS11_URL_GENERIC, &text);
        if (error == GNUTLS_E_REQUESTED_DATA_NOT_AVAILABLE)
            return GNUTLS_E_SUCCESS;
        if (error != GNUTLS_E_SUCCESS)
            return error;
        const std::unique_ptr<char, GnutlsFree> token(text);
        if (requiresPin(text))
            tokens << text;
    }
}

bool TokenObjects::isReadable(const QByteArray &token)
{
    void *module = nullptr;
    unsigned long slot = 0;
    std::vector<CK_OBJECT_HANDLE> objects;
    return gnutls_pkcs11_token_get_ptr(token.constData(), &module, &slot, 0) == GNUTLS_E_SUCCESS
           && TokenSession(static_cast<CK_FUNCTION_LIST *>(module), slot).find(objects) == CKR_OK;
}

QByteArrayList TokenObjects::attributes(const QByteArray &uri)
{
    return uri.mid(scheme.size()).split(';');
}

QByteArray TokenObjects::tokenPart(const QByteArray &uri)
{
    QByteArrayList kept = attributes(uri);
    kept.erase(std::remove_if(kept.begin(), kept.end(),
                              [](const QByteArray &attribute) {
                                  return attribute.startsWith("object=") || attribute.startsWith("id=")
                                         || attribute.startsWith("type=");
                              }),
               kept.end());
    return scheme + kept.join(';');
}

bool TokenObjects::isPresent(const QByteArray &uri, const QByteArrayList &tokens)
{
    unsigned flags = 0;
    return !tokens.isEmpty() && gnutls_pkcs11_token_get_flags(tokenPart(uri).constData(), &flags) == GNUTLS_E_SUCCESS;
}
