// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#include "device/softtokens.h"

#include "device/clientfixture.h"

#include <QFile>
#include <QFileInfo>
#include <QTest>

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

const QString directory = QStringLiteral("/home/alice/tokens");
const QString elsewhere = QStringLiteral("/home/alice/removed");
const QString configuration = QStringLiteral("/home/alice/softhsm2.conf");
const QString authorities = QStringLiteral("/home/alice/ca");
const QString servedSocket = QStringLiteral("/run/user/1000/p11-kit/pkcs11");
constexpr int patience = 30000; // Milliseconds.
const QString adminPin = QStringLiteral("99999999");

QString file(const QString &name)
{
    return authorities + QLatin1Char('/') + name;
}

/// Runs a tool as alice, so that she owns its output.
bool run(const QString &program, const QStringList &arguments)
{
    QProcess process;
    ClientFixture::asUser(process, program, arguments);
    QProcessEnvironment variables = process.processEnvironment();
    variables.insert(QStringLiteral("SOFTHSM2_CONF"), configuration);
    process.setProcessEnvironment(variables);
    process.setProcessChannelMode(QProcess::MergedChannels);
    process.start();
    if (process.waitForFinished() && process.exitStatus() == QProcess::NormalExit && process.exitCode() == 0)
        return true;
    qWarning("%s %s failed: %s", qPrintable(program), qPrintable(arguments.join(QLatin1Char(' '))),
             process.readAll().constData());
    return false;
}

/// Whether a process listens on a socket.
bool isServed(const QString &path)
{
    const int descriptor = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    qstrncpy(address.sun_path, QFile::encodeName(path).constData(), sizeof(address.sun_path));
    const bool served = connect(descriptor, reinterpret_cast<sockaddr *>(&address), sizeof(address)) == 0;
    close(descriptor);
    return served;
}

bool makeDirectory(const QString &path)
{
    return QDir().mkpath(path) && TestDevice::setOwner(path, TestDevice::alice, TestDevice::alice);
}

bool makeKey(const QString &name, const QStringList &options)
{
    // Convert to the format that all the tools read.
    return QFileInfo::exists(file(name + QStringLiteral(".key")))
           || (run(QStringLiteral("openssl"),
                   QStringList{QStringLiteral("genpkey"), QStringLiteral("-out"), file(name + QStringLiteral(".key"))}
                       + options)
               && run(QStringLiteral("openssl"),
                      {QStringLiteral("pkey"), QStringLiteral("-in"), file(name + QStringLiteral(".key")),
                       QStringLiteral("-outform"), QStringLiteral("DER"), QStringLiteral("-out"),
                       file(name + QStringLiteral(".der"))}));
}

bool makeEcKey(const QString &name, const QString &curve)
{
    return makeKey(name, {QStringLiteral("-algorithm"), QStringLiteral("EC"), QStringLiteral("-pkeyopt"),
                          QStringLiteral("ec_paramgen_curve:") + curve});
}

bool makeRsaKey(const QString &name, const QString &bits = QStringLiteral("2048"))
{
    return makeKey(name, {QStringLiteral("-algorithm"), QStringLiteral("RSA"), QStringLiteral("-pkeyopt"),
                          QStringLiteral("rsa_keygen_bits:") + bits});
}

bool makePssKey(const QString &name)
{
    const QString plain = file(name + QStringLiteral("-plain.key"));
    return QFileInfo::exists(plain)
           || (run(QStringLiteral("certtool"),
                   {QStringLiteral("--generate-privkey"), QStringLiteral("--key-type=rsa-pss"),
                    QStringLiteral("--bits=2048"), QStringLiteral("--outfile"), file(name + QStringLiteral(".key"))})
               && run(QStringLiteral("certtool"), {QStringLiteral("--to-rsa"), QStringLiteral("--load-privkey"),
                                                   file(name + QStringLiteral(".key")), QStringLiteral("--outfile"),
                                                   file(name + QStringLiteral("-rsa.key"))})
               // Convert to the format that the tools read.
               && run(QStringLiteral("openssl"),
                      {QStringLiteral("pkey"), QStringLiteral("-in"), file(name + QStringLiteral("-rsa.key")),
                       QStringLiteral("-out"), plain}));
}

QString writeTemplate(const QString &name, const QByteArray &content)
{
    QString path = file(name + QStringLiteral(".template"));
    TestDevice::writeFile(path, content);
    return path;
}

bool generate(const QString &name, const QByteArray &certificateTemplate, const QString &key,
              const QStringList &options)
{
    return run(QStringLiteral("certtool"),
               QStringList{QStringLiteral("--template"), writeTemplate(name, certificateTemplate),
                           QStringLiteral("--load-privkey"), file(key + QStringLiteral(".key")),
                           QStringLiteral("--outfile"), file(name + QStringLiteral(".pem"))}
                   + options);
}

QStringList by(const QString &authorityName)
{
    return {QStringLiteral("--load-ca-certificate"), file(authorityName + QStringLiteral(".pem")),
            QStringLiteral("--load-ca-privkey"), file(authorityName + QStringLiteral(".key"))};
}

/// The options that name an object; an empty id is left out.
QStringList idOption(const QString &id)
{
    return id.isEmpty() ? QStringList() : QStringList{QStringLiteral("--id"), id};
}

bool pkcs11Tool(const QString &label, const QString &tokenPin, const QStringList &arguments)
{
    return run(QStringLiteral("pkcs11-tool"),
               QStringList{QStringLiteral("--module"), SoftTokens::module, QStringLiteral("--token-label"), label,
                           QStringLiteral("--login"), QStringLiteral("--pin"), tokenPin}
                   + arguments);
}

/// The path of the first token's directory.
QString onlyToken()
{
    return directory + QLatin1Char('/') + QDir(directory).entryList(QDir::Dirs | QDir::NoDotAndDotDot).value(0)
           + QLatin1Char('/');
}

/// The names of the files of a token's objects.
QStringList objects(const QString &token)
{
    return QDir(token).entryList({QStringLiteral("*.object")});
}

} // namespace

bool SoftTokens::reset()
{
    for (const QString &path : {directory, elsewhere})
        QDir(path).removeRecursively();
    const QStringList left = QDir(home).entryList({QStringLiteral("unruly-token"), QStringLiteral("stalled"),
                                                   QStringLiteral("signed"), QStringLiteral("initialised"),
                                                   QStringLiteral("finalised"), QStringLiteral("wrong-pins.*")});
    for (const QString &name : left)
        QFile::remove(home + QLatin1Char('/') + name);
    if (!makeDirectory(directory) || !makeDirectory(authorities)
        || !TestDevice::writeFile(configuration,
                                  "directories.tokendir = " + directory.toUtf8() + "\nslots.removable = true\n"))
        return false;
    return makeRsaKey(QStringLiteral("rsa")) && makeRsaKey(QStringLiteral("rsa-other"))
           && makeEcKey(QStringLiteral("ec"), QStringLiteral("P-256"))
           && makeRsaKey(QStringLiteral("rsa-1024"), QStringLiteral("1024")) && makePssKey(QStringLiteral("rsa-pss"))
           && makeEcKey(QStringLiteral("ec-384"), QStringLiteral("P-384"))
           && makeEcKey(QStringLiteral("ec-521"), QStringLiteral("P-521"))
           && makeKey(QStringLiteral("ed25519"), {QStringLiteral("-algorithm"), QStringLiteral("ED25519")})
           && (QFileInfo::exists(authority) || makeAuthority(QStringLiteral("root")));
}

QStringList SoftTokens::environment()
{
    return {QStringLiteral("SOFTHSM2_CONF=") + configuration};
}

bool SoftTokens::serve(const QString &provider)
{
    return makeDirectory(QFileInfo(servedSocket).path())
           // The server writes a line when a client is killed, and must not die of a pipe that nobody reads any more.
           && run(QStringLiteral("sh"),
                  {QStringLiteral("-c"), QStringLiteral("exec p11-kit server \"$@\" 2> /dev/null"), QString(),
                   QStringLiteral("--name"), servedSocket, QStringLiteral("--provider"), provider,
                   QStringLiteral("pkcs11:")})
           // The command returns before the server listens.
           && QTest::qWaitFor([] { return isServed(servedSocket); }, patience);
}

QByteArray SoftTokens::loginTemplate()
{
    return "cn = \"Alice Liddell\"\nuid = \"alice\"\nexpiration_days = 30\nsigning_key\ntls_www_client\n";
}

QString SoftTokens::issue(const QString &name, const QByteArray &certificateTemplate, const QString &key,
                          const QString &authorityName)
{
    return generate(name, certificateTemplate, key,
                    by(authorityName) + QStringList{QStringLiteral("--generate-certificate")})
               ? file(name + QStringLiteral(".pem"))
               : QString();
}

bool SoftTokens::makeAuthority(const QString &name, const QString &above, const QByteArray &extra)
{
    const QByteArray content = "cn = \"Authority " + name.toUtf8()
                               + "\"\nca\ncert_signing_key\ncrl_signing_key\nexpiration_days = 60\n" + extra;
    return makeEcKey(name, QStringLiteral("P-256"))
           && generate(name, content, name,
                       above.isEmpty() ? QStringList{QStringLiteral("--generate-self-signed")}
                                       : by(above) + QStringList{QStringLiteral("--generate-certificate")});
}

QString SoftTokens::revoke(const QString &certificate, const QString &authorityName, bool stale)
{
    const QString list = certificate + QStringLiteral(".crl");
    const QByteArray content = stale ? "crl_this_update_date = \"2020-01-01 00:00:00\"\n"
                                       "crl_next_update_date = \"2020-02-01 00:00:00\"\ncrl_number = 1\n"
                                     : "crl_next_update = 30\ncrl_number = 1\n";
    return run(QStringLiteral("certtool"),
               QStringList{QStringLiteral("--generate-crl"), QStringLiteral("--template"),
                           writeTemplate(QStringLiteral("crl"), content), QStringLiteral("--load-certificate"),
                           certificate, QStringLiteral("--outfile"), list}
                   + by(authorityName))
               ? list
               : QString();
}

bool SoftTokens::remove()
{
    // The tokens' module fails without its directory.
    return QDir().rename(directory, elsewhere) && makeDirectory(directory);
}

bool SoftTokens::putBack()
{
    return QDir(directory).removeRecursively() && QDir().rename(elsewhere, directory);
}

bool SoftTokens::add(const QString &label, const QString &tokenPin)
{
    return run(QStringLiteral("softhsm2-util"),
               {QStringLiteral("--init-token"), QStringLiteral("--free"), QStringLiteral("--label"), label,
                QStringLiteral("--pin"), tokenPin, QStringLiteral("--so-pin"), adminPin});
}

bool SoftTokens::putKeys(const QString &label, const QString &id, const QString &key, const QString &tokenPin)
{
    return run(QStringLiteral("softhsm2-util"),
               {QStringLiteral("--import"), file(key + QStringLiteral(".key")), QStringLiteral("--token"), label,
                QStringLiteral("--label"), QStringLiteral("key"), QStringLiteral("--id"), id, QStringLiteral("--pin"),
                tokenPin});
}

bool SoftTokens::putHiddenKey(const QString &label, const QString &id, const QString &key, const QString &tokenPin,
                              const QStringList &options)
{
    return pkcs11Tool(label, tokenPin,
                      QStringList{QStringLiteral("--write-object"), file(key + QStringLiteral(".der")),
                                  QStringLiteral("--type"), QStringLiteral("privkey"), QStringLiteral("--usage-sign")}
                          + idOption(id) + options);
}

bool SoftTokens::putVisibleKey(const QString &label, const QString &id, const QString &key)
{
    return run(QStringLiteral("p11tool"),
               {QStringLiteral("--provider"), module, QStringLiteral("--write"), QStringLiteral("--load-privkey"),
                file(key + QStringLiteral(".key")), QStringLiteral("--id"), id, QStringLiteral("--label"),
                QStringLiteral("key"), QStringLiteral("--no-mark-private"), QStringLiteral("--login"),
                QStringLiteral("--set-pin"), pin, QStringLiteral("pkcs11:token=") + label});
}

bool SoftTokens::putCert(const QString &label, const QString &id, const QString &certificate, const QString &tokenPin,
                         const QString &certLabel)
{
    const QString der = certificate + QStringLiteral(".der");
    return run(QStringLiteral("certtool"), {QStringLiteral("--certificate-info"), QStringLiteral("--infile"),
                                            certificate, QStringLiteral("--outder"), QStringLiteral("--outfile"), der})
           && pkcs11Tool(label, tokenPin,
                         QStringList{QStringLiteral("--write-object"), der, QStringLiteral("--type"),
                                     QStringLiteral("cert"), QStringLiteral("--label"), certLabel}
                             + idOption(id));
}

bool SoftTokens::multiply(const QByteArray &id, int count)
{
    // Edit the token's files, because the tools would take minutes.
    const QString token = onlyToken();
    int number = 0;
    const QStringList files = objects(token);
    for (const QString &file : files) {
        const QByteArray object = TestDevice::readFile(token + file);
        for (int i = 1; i < count && object.contains(id); ++i) {
            const QByteArray another = QByteArray(object).replace(id, id.chopped(2) + char(i / 256) + char(i % 256));
            const QString name =
                token + QStringLiteral("00000000-0000-0000-0000-%1.object").arg(++number, 12, 10, QLatin1Char('0'));
            if (!TestDevice::writeFile(name, another)
                || !TestDevice::setOwner(name, TestDevice::alice, TestDevice::alice))
                return false;
        }
    }
    return number > 0 || count == 1;
}

bool SoftTokens::damage(const QString &certificate)
{
    const QByteArray der = TestDevice::readFile(certificate + QStringLiteral(".der"));
    return alter(der, QByteArray(der.size(), '\0'));
}

bool SoftTokens::alter(const QByteArray &from, const QByteArray &to)
{
    const QString token = onlyToken();
    bool found = false;
    const QStringList files = objects(token);
    for (const QString &file : files) {
        QByteArray object = TestDevice::readFile(token + file);
        if (!object.contains(from))
            continue;
        object.replace(from, to);
        found = TestDevice::writeFile(token + file, object);
    }
    return found;
}

bool SoftTokens::enroll(const QString &label, const QString &id, const QString &certificate, const QString &key,
                        const QString &tokenPin)
{
    return putKeys(label, id, key, tokenPin) && putCert(label, id, certificate, tokenPin);
}
