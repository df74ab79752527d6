// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#include "bench.h"
#include "benchmarks.h"
#include "device/clientfixture.h"
#include "device/softtokens.h"
#include "program.h"

#include <QThread>

#include <map>
#include <memory>

using Bench::require;

namespace {

const QString against = QStringLiteral("p11_child");
constexpr double goal = 1.0;
const QString token = QStringLiteral("token");
const QString firstId = QStringLiteral("CAFE0000");
constexpr ulong pause = 100; ///< Milliseconds before each call, as between persons.

/// A run of p11_child. The soft tokens' module is the only one that it loads.
std::unique_ptr<Program> p11Child(const QStringList &arguments, const QByteArray &input = {})
{
    const QString configuration = SoftTokens::home + QStringLiteral("/.config/pkcs11");
    require(QDir().mkpath(configuration + QStringLiteral("/modules"))
                && TestDevice::writeFile(configuration + QStringLiteral("/pkcs11.conf"), "user-config: only\n")
                && TestDevice::writeFile(configuration + QStringLiteral("/modules/soft.module"),
                                         "module: " + SoftTokens::module.toUtf8() + '\n'),
            "cannot configure p11-kit");
    const QStringList command = {QStringLiteral("/usr/libexec/sssd/p11_child"),
                                 QStringLiteral("--ca_db=") + SoftTokens::authority};
    return std::make_unique<Program>(
        command + arguments, SoftTokens::environment() + QStringList{QStringLiteral("HOME=") + SoftTokens::home},
        input);
}

/// A token with `count` certificates, of which the first is for its key `key`, and the client set up for it.
std::unique_ptr<ClientFixture> enroll(const QString &key, int count = 1)
{
    TestDevice::reset();
    ClientFixture::prepare();
    require(SoftTokens::reset() && SoftTokens::add(token)
                && SoftTokens::enroll(token, firstId, SoftTokens::issue(key, SoftTokens::loginTemplate(), key), key)
                && SoftTokens::multiply(QByteArray::fromHex(firstId.toLatin1()), count),
            "cannot make a token");
    require(ClientFixture::setSetting(QStringLiteral("trust-anchors"), SoftTokens::authority)
                && ClientFixture::setSetting(QStringLiteral("module"), SoftTokens::module),
            "cannot set the client up");
    auto client = std::make_unique<ClientFixture>();
    require(client->start(SoftTokens::environment()), "the client does not start");
    require(client->certList().size() == count, "the client does not list the certificates");
    return client;
}

/// Compares calls that come back to back, and calls with a pause before each.
template <typename Ours, typename Bare>
void compareBoth(const QString &name, int pairs, const Ours &ours, const Bare &bare, const QJsonValue &point = {})
{
    Bench::compare({name, against, goal, point}, pairs, ours, bare);
    Bench::compare({QString(name + QStringLiteral(", after a pause")), against, goal, point}, pairs, ours, bare,
                   [](bool) { QThread::msleep(pause); });
}

} // namespace

void benchCertificateCheck()
{
    for (const auto &[key, name] : {std::pair("rsa", "RSA-2048"), std::pair("ec", "EC P-256")}) {
        const auto client = enroll(QLatin1String(key));
        const QString uri = client->certList().constFirst();
        // The options that SSSD takes from the list.
        const auto child =
            p11Child({QStringLiteral("--auth"), QStringLiteral("--pin"),
                      QStringLiteral("--module_name=") + SoftTokens::module, QStringLiteral("--token_name=") + token,
                      QStringLiteral("--key_id=") + firstId, QStringLiteral("--label=certificate")},
                     SoftTokens::pin.toUtf8());
        const AsAlice alice;
        compareBoth(
            QStringLiteral("certificate check, ") + QLatin1String(name), 10,
            [&] { return client->validateCert(uri, SoftTokens::pin) == QLatin1String("success"); },
            [&] { return child->run().contains(firstId.toLatin1()); });
    }
}

void benchCertificateList()
{
    for (const int count : {1, 10, 200}) {
        const auto client = enroll(QStringLiteral("rsa"), count);
        const auto child = p11Child({QStringLiteral("--pre")});
        const AsAlice alice;
        compareBoth(
            QStringLiteral("certificate list by the number of certificates"), 5,
            [&] { return client->certList().size() == count; },
            [&] { return child->run().count(firstId.left(4).toLatin1()) >= count; }, count);
    }
}

void benchCertificateSteps()
{
    constexpr int runs = 20;
    const auto client = enroll(QStringLiteral("rsa"));
    const QString uri = client->certList().constFirst();
    Program probe({QStringLiteral(INSTALLED_TESTS_DIR "/tokenprobe"), uri},
                  SoftTokens::environment() + QStringList{QStringLiteral("HOME=") + SoftTokens::home},
                  SoftTokens::pin.toUtf8());
    const AsAlice alice;
    QStringList names;
    std::map<QString, std::vector<double>> times;
    for (int run = 0; run < (Bench::once ? 1 : runs); ++run) {
        QByteArray output;
        double rest = Bench::timed([&] { return !(output = probe.run()).isNull(); });
        names = QStringList{QStringLiteral("start and end a process")};
        const QStringList lines = QString::fromUtf8(output).split(QLatin1Char('\n'), Qt::SkipEmptyParts);
        for (const QString &line : lines) {
            const double time = line.section(QLatin1Char(' '), 0, 0).toDouble();
            names << line.section(QLatin1Char(' '), 1);
            times[names.constLast()].push_back(time);
            rest -= time;
        }
        times[names.constFirst()].push_back(rest);
    }
    for (const QString &name : qAsConst(names)) {
        Bench::printValue({QStringLiteral("certificate check, step: ") + name, {}, {}, {}, QStringLiteral("ms")},
                          Bench::median(times[name]) / 1e6);
    }
}
