// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#include "unlocks.h"

#include "ownprogram.h"

#include <QDBusConnection>
#include <QDBusMessage>
#include <QProcess>

#include <cstdio>
#include <cstdlib>
#include <unistd.h>

namespace {

const QString service = QStringLiteral("qarv.AuthService");
const QString object = QStringLiteral("/qarv/AuthService");
const QString method = QStringLiteral("GetUnlocks");
constexpr int replyTimeout = 1000; // milliseconds

} // namespace

const QString Unlocks::option = QStringLiteral("unlocks");

std::optional<uint> Unlocks::byRoot()
{
    QProcess process;
    process.start(OwnProgram::path, {OwnProgram::optionPrefix + option}, QIODevice::ReadOnly);
    if (!process.waitForFinished(replyTimeout)) {
        process.kill();
        process.waitForFinished();
        return std::nullopt;
    }
    bool isNumber = false;
    const uint unlocks = process.readAllStandardOutput().trimmed().toUInt(&isNumber);
    return isNumber ? std::optional<uint>(unlocks) : std::nullopt;
}

int Unlocks::run()
{
    QDBusMessage call = QDBusMessage::createMethodCall(service, object, service, method);
    call.setArguments({uint(getuid())});
    const QDBusMessage answer = QDBusConnection::systemBus().call(call, QDBus::Block, replyTimeout);
    if (answer.type() != QDBusMessage::ReplyMessage || answer.signature() != QLatin1String("u"))
        return EXIT_FAILURE;
    std::printf("%u\n", answer.arguments().constFirst().toUInt());
    return EXIT_SUCCESS;
}
