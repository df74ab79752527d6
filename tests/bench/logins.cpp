// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#include "bench.h"
#include "benchmarks.h"
#include "device/authd.h"
#include "device/clientfixture.h"
#include "program.h"
#include "support/wiper.h"

#include <crypt.h>

using Bench::require;

namespace {

const QString password = QStringLiteral("correct horse");
const QString success = QStringLiteral("success");

void setUp()
{
    TestDevice::reset();
    ClientFixture::prepare();
    require(ClientFixture::setPassword(password), "cannot set the password");
}

} // namespace

void benchPasswordCheck()
{
    setUp();
    const QByteArray setting = QSettings(ClientFixture::settingsPath, QSettings::NativeFormat)
                                   .value(QStringLiteral("password-hash"))
                                   .toByteArray();
    ClientFixture client;
    require(client.start(), "the client does not start");
    const auto data = std::make_unique<struct crypt_data>();
    Bench::compare(
        {QStringLiteral("password check"), QStringLiteral("the bare hash"), 1.05}, 10,
        [&client] { return client.checkPassword(password) == success; },
        [&] {
            return crypt_rn(password.toUtf8().constData(), setting.constData(), data.get(), int(sizeof *data))
                   == setting;
        });
}

void benchLogin()
{
    require(startSystemBus(), "the bus does not start");
    setUp();
    require(ClientFixture::takeLaunchersPlace(), "cannot replace the launcher");
    Authd authd;
    require(authd.start(), "the daemon does not start");
    Program login({Installed::authctl, QStringLiteral("login"), QStringLiteral("alice")}, {}, password.toUtf8() + '\n');
    require(!login.run().isNull(), "the first login fails");
    ClientFixture peer;
    require(peer.reconnect(), "cannot connect to the client");
    const auto milliseconds = [](const auto &work) {
        return [&work] {
            return Bench::timed(work) / 1e6;
        };
    };
    const auto ours = [&login] {
        return !login.run().isNull();
    };
    const auto bare = [&peer] {
        return peer.checkPassword(password) == success;
    };
    Bench::compareValues(
        {QStringLiteral("authctl login"), QStringLiteral("the client's time"), 10, {}, QStringLiteral("ms")}, 10,
        milliseconds(ours), milliseconds(bare));
}
