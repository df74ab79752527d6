// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
// Certificates as a token may hold them. Only the one in seeds/certificate/login is signed by the trusted authority.
#include "certificate.h"
#include "clientsettings.h"
#include "fuzz.h"

#include <QSettings>

namespace {

const QString user = QStringLiteral("alice");

/// The part of a certificate that is signed.
QByteArray signedPart(const QByteArray &der)
{
    // A header of four bytes: the tag, the number of size bytes, the size.
    constexpr int headerSize = 4;
    const QByteArray inner = der.mid(headerSize);
    return inner.left(headerSize + (uchar(inner.at(2)) << 8 | uchar(inner.at(3))));
}

const QByteArray &genuine()
{
    static const QByteArray part =
        signedPart(TestDevice::readFile(QStringLiteral(SOURCE_DIR "/seeds/certificate/login")));
    return part;
}

/// Whether `der` contains the user's name, in one byte a character or two.
bool namesUser(const QByteArray &der)
{
    QByteArray wide;
    for (const QChar c : user)
        wide.append('\0').append(c.toLatin1());
    return der.contains(user.toLatin1()) || der.contains(wide);
}

} // namespace

int LLVMFuzzerInitialize(int *argc, char ***argv)
{
    Fuzz::start(argc, argv);
    qputenv("HOME", "/tmp");
    QDir().mkpath(QFileInfo(ClientSettings::path()).path());
    QSettings settings(ClientSettings::path(), QSettings::NativeFormat);
    settings.setValue(QStringLiteral("trust-anchors"), QStringLiteral(SOURCE_DIR "/authority.pem"));
    settings.setValue(QStringLiteral("mapping"), QStringLiteral("uid, upn, email, cn").split(QStringLiteral(", ")));
    settings.sync();
    const Certificate certificate =
        parseCertificate(TestDevice::readFile(QStringLiteral(SOURCE_DIR "/seeds/certificate/login")));
    REQUIRE(certificate && isTrusted(certificate, {}, ClientSettings()));
    REQUIRE(belongsTo(certificate, user, ClientSettings()));
    return 0;
}

int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    static const ClientSettings settings;
    const QByteArray der = Fuzz::bytes(data, size);
    const Certificate certificate = parseCertificate(der);
    if (!certificate)
        return 0;
    std::vector<Certificate> others;
    others.push_back(parseCertificate(der));
    isAuthority(certificate);
    REQUIRE(!isTrusted(certificate, others, settings) || der.contains(genuine()));
    REQUIRE(!belongsTo(certificate, user, settings) || namesUser(der));
    return 0;
}
