// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
// Takes libFuzzer's place where the compiler has none: runs a target once with each file of a directory.
#include "fuzz.h"

#include <QDir>

int main(int argc, char **argv)
{
    LLVMFuzzerInitialize(&argc, &argv);
    const QDir directory(QString::fromLocal8Bit(argv[1]));
    const QStringList names = directory.entryList(QDir::Files);
    for (const QString &name : names) {
        std::printf("%s\n", qUtf8Printable(name));
        std::fflush(stdout);
        QFile file(directory.filePath(name));
        REQUIRE(file.open(QIODevice::ReadOnly));
        const QByteArray content = file.readAll();
        LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t *>(content.constData()),
                               std::size_t(content.size()));
    }
    return names.isEmpty() ? 1 : 0;
}
