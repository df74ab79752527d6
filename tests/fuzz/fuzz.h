// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include "unit/platformtest.h"

#include <QByteArray>
#include <QCoreApplication>
#include <QtGlobal>

#include <cstdint>
#include <cstdio>

/// Ends the run with a finding unless `condition` holds.
#define REQUIRE(condition) ((condition) ? void() : qFatal("%s:%d: %s", __FILE__, __LINE__, #condition))

namespace Fuzz {

/// Starts a target. Log messages are composed but not printed.
inline void start(int *argc, char ***argv)
{
    PlatformTest::requireDevice();
    static QCoreApplication application(*argc, *argv);
    qInstallMessageHandler([](QtMsgType type, const QMessageLogContext &, const QString &text) {
        if (type == QtFatalMsg)
            std::fprintf(stderr, "%s\n", qUtf8Printable(text));
    });
}

inline QByteArray bytes(const std::uint8_t *data, std::size_t size)
{
    return QByteArray(reinterpret_cast<const char *>(data), int(size));
}

} // namespace Fuzz

extern "C" {
int LLVMFuzzerInitialize(int *argc, char ***argv);
int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size);
}
