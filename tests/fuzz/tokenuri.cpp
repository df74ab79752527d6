// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
// The URIs of certificates, which a caller chooses, on a soft token. The first byte of the input says whether the PIN
// is right.
#include "certdescription.h"
#include "clientsettings.h"
#include "fuzz.h"
#include "tokenobjects.h"
#include "tokens.h"

#include <QProcess>
#include <QSettings>

namespace {

const QString user = QStringLiteral("alice");
const QString directory = QStringLiteral("/tmp/token/");
const QString module = QStringLiteral("/usr/lib/softhsm/libsofthsm2.so");
constexpr char pin[] = "1234";

/// Creates the token with the user's certificate.
void makeToken()
{
    TestDevice::writeFile(directory + QStringLiteral("conf"), "directories.tokendir = /tmp/token\n");
    qputenv("SOFTHSM2_CONF", "/tmp/token/conf");
    const QStringList commands = {
        QStringLiteral(
            "openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -days 3650 -subj /UID=alice "
            "-addext keyUsage=digitalSignature -addext extendedKeyUsage=clientAuth -keyout key -out cert"),
        QStringLiteral("openssl pkcs8 -topk8 -nocrypt -in key -out key.p8"),
        QStringLiteral("openssl x509 -in cert -outform der -out der"),
        QStringLiteral("softhsm2-util --init-token --free --label token --pin 1234 --so-pin 1234"),
        QStringLiteral("softhsm2-util --import key.p8 --token token --label cert --id 01 --pin 1234"),
        QStringLiteral("pkcs11-tool --module %1 --login --pin 1234 --write-object der --type cert --id 01 --label cert")
            .arg(module)};
    for (const QString &command : commands) {
        QStringList words = command.split(QLatin1Char(' '));
        QProcess process;
        process.setWorkingDirectory(directory);
        process.start(words.takeFirst(), words);
        REQUIRE(process.waitForFinished() && process.exitCode() == 0);
    }
}

Tokens::Outcome validate(const QByteArray &uri, bool isRight)
{
    return Tokens::validate(uri, user, isRight ? pin : "4321");
}

} // namespace

int LLVMFuzzerInitialize(int *argc, char ***argv)
{
    Fuzz::start(argc, argv);
    makeToken();
    qputenv("HOME", "/tmp");
    QDir().mkpath(QFileInfo(ClientSettings::path()).path());
    QSettings settings(ClientSettings::path(), QSettings::NativeFormat);
    settings.setValue(QStringLiteral("trust-anchors"), QString(directory + QStringLiteral("cert")));
    settings.setValue(QStringLiteral("module"), module);
    settings.sync();
    REQUIRE(validate("pkcs11:token=token;object=cert;type=cert", true) == Tokens::Success);
    return 0;
}

int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    const QByteArray input = Fuzz::bytes(data, size);
    const bool isRight = input.startsWith('1');
    const QByteArray uri = input.mid(1).split('\0').first(); // As D-Bus delivers it.
    const QByteArray token = TokenObjects::tokenPart(uri);
    REQUIRE(TokenObjects::tokenPart(token) == token);
    const Tokens::Outcome outcome = validate(uri, isRight);
    REQUIRE(outcome != Tokens::ModuleFailed);
    const QByteArray named = CertDescription::removedFrom(uri);
    if (outcome == Tokens::Success)
        REQUIRE(isRight && !named.contains('?') && !named.contains(":pin-") && !named.contains(";pin-"));
    return 0;
}
