// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#include "certificate.h"

#include "clientsettings.h"

#include <QDir>
#include <QFileInfo>
#include <QLoggingCategory>

#include <algorithm>
#include <ctime>

#include <gnutls/x509-ext.h>

namespace {

using TrustList = std::unique_ptr<gnutls_x509_trust_list_st, void (*)(gnutls_x509_trust_list_t)>;

constexpr char smartCardLogon[] = "1.3.6.1.4.1.311.20.2.2";
constexpr int maximumDepth = 8;
constexpr unsigned verifyFlags = GNUTLS_PROFILE_TO_VFLAGS(GNUTLS_PROFILE_MEDIUM);
/// An invalid revocation list is an error: ignoring it would let revoked certificates pass.
constexpr unsigned crlFlags = GNUTLS_TL_VERIFY_CRL | GNUTLS_TL_FAIL_ON_INVALID_CRL;

bool addAnchors(gnutls_x509_trust_list_t list, const QString &path)
{
    const QByteArray name = path.toLocal8Bit();
    const int count =
        QFileInfo(path).isDir()
            ? gnutls_x509_trust_list_add_trust_dir(list, name.constData(), nullptr, GNUTLS_X509_FMT_PEM, 0, 0)
            : gnutls_x509_trust_list_add_trust_file(list, name.constData(), nullptr, GNUTLS_X509_FMT_PEM, 0, 0);
    return count > 0;
}

/// Adds the revocation lists of a file, or of all files in a directory. GnuTLS's own function for directories skips
/// those that are invalid.
bool addCrls(gnutls_x509_trust_list_t list, const QString &path)
{
    const QFileInfoList files =
        QFileInfo(path).isDir() ? QDir(path).entryInfoList(QDir::Files | QDir::System) : QFileInfoList{QFileInfo(path)};
    return !files.isEmpty() && std::all_of(files.begin(), files.end(), [list](const QFileInfo &file) {
        const QByteArray name = file.filePath().toLocal8Bit();
        return gnutls_x509_trust_list_add_trust_file(list, nullptr, name.constData(), GNUTLS_X509_FMT_PEM, crlFlags,
                                                     verifyFlags)
               > 0;
    });
}

/// Returns null when the settings name no usable trust anchors or revocation lists.
TrustList makeTrustList(const ClientSettings &settings)
{
    const auto deinit = [](gnutls_x509_trust_list_t list) {
        gnutls_x509_trust_list_deinit(list, 1);
    };
    gnutls_x509_trust_list_t raw = nullptr;
    gnutls_x509_trust_list_init(&raw, 0);
    TrustList list(raw, deinit);
    if (!addAnchors(raw, settings.trustAnchors())) {
        qWarning("No trust anchors in %s", qUtf8Printable(settings.trustAnchors()));
        list.reset();
    } else if (!settings.crls().isEmpty() && !addCrls(raw, settings.crls())) {
        qWarning("No valid revocation lists in %s", qUtf8Printable(settings.crls()));
        list.reset();
    }
    return list;
}

bool maySign(const Certificate &certificate)
{
    unsigned usage = 0;
    return gnutls_x509_crt_get_key_usage(certificate.get(), &usage, nullptr) == GNUTLS_E_SUCCESS
           && usage & GNUTLS_KEY_DIGITAL_SIGNATURE;
}

/// Whether the certificate lists this key purpose. A certificate without any purpose has none.
bool hasPurpose(const Certificate &certificate, const char *purpose)
{
    char oid[128]; // GnuTLS shortens longer ones.
    for (unsigned i = 0;; ++i) {
        size_t size = sizeof(oid);
        if (gnutls_x509_crt_get_key_purpose_oid(certificate.get(), i, oid, &size, nullptr) != GNUTLS_E_SUCCESS)
            return false;
        if (qstrcmp(oid, purpose) == 0)
            return true;
    }
}

bool isInDate(const Certificate &certificate)
{
    const std::time_t now = std::time(nullptr);
    return gnutls_x509_crt_get_activation_time(certificate.get()) <= now
           && now <= gnutls_x509_crt_get_expiration_time(certificate.get());
}

/// The certificate followed by its issuers, as far as they are known. One that issued itself is repeated, which GnuTLS
/// ignores. An issuer may have several certificates, and GnuTLS does not look for one that is in date.
std::vector<gnutls_x509_crt_t> chain(const Certificate &certificate, const std::vector<Certificate> &others)
{
    std::vector<gnutls_x509_crt_t> path = {certificate.get()};
    for (int depth = 0; depth < maximumDepth; ++depth) {
        gnutls_x509_crt_t issuer = nullptr;
        for (const Certificate &other : others) {
            if (gnutls_x509_crt_check_issuer(path.back(), other.get()) && isInDate(other))
                issuer = other.get();
        }
        if (!issuer)
            break;
        path.push_back(issuer);
    }
    return path;
}

/// The values of an attribute of the subject's name.
QStringList subjectValues(const Certificate &certificate, const char *attribute)
{
    QStringList values;
    char buffer[256];
    for (unsigned i = 0;; ++i) {
        size_t size = sizeof(buffer);
        const int result = gnutls_x509_crt_get_dn_by_oid(certificate.get(), attribute, i, 0, buffer, &size);
        if (result == GNUTLS_E_SHORT_MEMORY_BUFFER)
            continue; // Too long for a login name
        if (result != GNUTLS_E_SUCCESS)
            return values;
        values << QString::fromUtf8(buffer, int(size));
    }
}

/// The subject's alternative names of one kind, including GnuTLS's virtual kinds.
QStringList alternativeNames(const Certificate &certificate, unsigned kind)
{
    QStringList names;
    gnutls_subject_alt_names_t raw = nullptr;
    gnutls_subject_alt_names_init(&raw);
    const GnutlsHandle<gnutls_subject_alt_names_t, gnutls_subject_alt_names_deinit> sans(raw);
    gnutls_datum_t extension = {};
    if (gnutls_x509_crt_get_extension_by_oid2(certificate.get(), "2.5.29.17", 0, &extension, nullptr)
        != GNUTLS_E_SUCCESS)
        return names;
    QByteArray encoded = takeBytes(extension);
    const gnutls_datum_t encodedDatum = asDatum(encoded);
    if (gnutls_x509_ext_import_subject_alt_names(&encodedDatum, raw, 0) != GNUTLS_E_SUCCESS)
        return names;
    unsigned type = 0;
    gnutls_datum_t san = {};
    gnutls_datum_t oid = {};
    for (unsigned i = 0; gnutls_subject_alt_names_get(raw, i, &type, &san, &oid) == GNUTLS_E_SUCCESS; ++i) {
        gnutls_datum_t virtualName = {};
        unsigned virtualType = 0;
        if (type == kind) {
            names << QString::fromUtf8(reinterpret_cast<const char *>(san.data), int(san.size));
        } else if (type == GNUTLS_SAN_OTHERNAME
                   && gnutls_x509_othername_to_virtual(reinterpret_cast<const char *>(oid.data), &san, &virtualType,
                                                       &virtualName)
                          == GNUTLS_E_SUCCESS) {
            const QString name = QString::fromUtf8(takeBytes(virtualName));
            if (virtualType == kind)
                names << name;
        }
    }
    return names;
}

/// The local parts of the addresses in `domain`, or of all addresses if `domain` is empty.
QStringList localParts(const QStringList &addresses, const QString &domain)
{
    QStringList parts;
    for (const QString &address : addresses) {
        const int at = address.lastIndexOf(QLatin1Char('@'));
        if (at != -1 && (domain.isEmpty() || address.midRef(at + 1).compare(domain, Qt::CaseInsensitive) == 0))
            parts << address.left(at);
    }
    return parts;
}

} // namespace

Certificate parseCertificate(QByteArray der)
{
    gnutls_x509_crt_t raw = nullptr;
    gnutls_x509_crt_init(&raw);
    Certificate certificate(raw);
    const gnutls_datum_t datum = asDatum(der);
    if (gnutls_x509_crt_import(raw, &datum, GNUTLS_X509_FMT_DER) != GNUTLS_E_SUCCESS)
        certificate.reset();
    return certificate;
}

bool isAuthority(const Certificate &certificate)
{
    return gnutls_x509_crt_get_ca_status(certificate.get(), nullptr) > 0;
}

bool isTrusted(const Certificate &certificate, const std::vector<Certificate> &others, const ClientSettings &settings)
{
    if (!maySign(certificate))
        return false;
    const TrustList list = makeTrustList(settings);
    if (!list)
        return false;

    std::vector<gnutls_x509_crt_t> path = chain(certificate, others);
    for (QByteArray purpose : {GNUTLS_KP_TLS_WWW_CLIENT, smartCardLogon}) {
        gnutls_typed_vdata_st data = {};
        data.type = GNUTLS_DT_KEY_PURPOSE_OID;
        data.data = reinterpret_cast<unsigned char *>(purpose.data());
        unsigned status = 0;
        if (hasPurpose(certificate, purpose.constData())
            && gnutls_x509_trust_list_verify_crt2(list.get(), path.data(), unsigned(path.size()), &data, 1, verifyFlags,
                                                  &status, nullptr)
                   == GNUTLS_E_SUCCESS
            && status == 0)
            return true;
    }
    return false;
}

bool belongsTo(const Certificate &certificate, const QString &user, const ClientSettings &settings)
{
    using Mapping = ClientSettings::Mapping;
    const ClientSettings::Mappings mappings = settings.mappings();
    QStringList names;
    if (mappings.testFlag(Mapping::UserId))
        names += subjectValues(certificate, GNUTLS_OID_LDAP_UID);
    if (mappings.testFlag(Mapping::CommonName))
        names += subjectValues(certificate, GNUTLS_OID_X520_COMMON_NAME);
    if (mappings.testFlag(Mapping::PrincipalName))
        names +=
            localParts(alternativeNames(certificate, GNUTLS_SAN_OTHERNAME_MSUSERPRINCIPAL), settings.mappingDomain());
    if (mappings.testFlag(Mapping::Email))
        names += localParts(alternativeNames(certificate, GNUTLS_SAN_RFC822NAME), settings.mappingDomain());
    return names.contains(user);
}
