// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#include "certdescription.h"

#include <QDateTime>
#include <QList>
#include <QUrl>

#include <algorithm>

namespace {

constexpr char Query = '?';
constexpr char Separator = '&';
const QByteArray holderKey = QByteArrayLiteral("holder=");
const QByteArray issuerKey = QByteArrayLiteral("issuer=");
const QByteArray expiryKey = QByteArrayLiteral("expires=");

using ReadName = int (*)(gnutls_x509_crt_t, const char *, unsigned, unsigned, void *, size_t *);

/// The common name that `read` finds, encoded; empty if there is none or it is too long for a name.
QByteArray commonName(const Certificate &certificate, ReadName read)
{
    char buffer[256];
    size_t size = sizeof(buffer);
    if (read(certificate.get(), GNUTLS_OID_X520_COMMON_NAME, 0, 0, buffer, &size) != GNUTLS_E_SUCCESS)
        return {};
    return QUrl::toPercentEncoding(QString::fromUtf8(buffer, int(size)));
}

} // namespace

QByteArray CertDescription::of(const Certificate &certificate)
{
    const QDateTime end =
        QDateTime::fromSecsSinceEpoch(gnutls_x509_crt_get_expiration_time(certificate.get()), Qt::UTC);
    return Query + holderKey + commonName(certificate, gnutls_x509_crt_get_dn_by_oid) + Separator + issuerKey
           + commonName(certificate, gnutls_x509_crt_get_issuer_dn_by_oid) + Separator + expiryKey
           + end.date().toString(Qt::ISODate).toLatin1();
}

QByteArray CertDescription::removedFrom(const QByteArray &uri)
{
    const int begin = uri.indexOf(Query);
    const QList<QByteArray> attributes = uri.mid(begin + 1).split(Separator);
    const bool isDescription = std::all_of(attributes.begin(), attributes.end(), [](const QByteArray &attribute) {
        return attribute.startsWith(holderKey) || attribute.startsWith(issuerKey) || attribute.startsWith(expiryKey);
    });
    return begin >= 0 && isDescription ? uri.left(begin) : uri;
}
