// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#include "log.h"

#include <QTemporaryFile>
#include <QTest>

#include <thread>
#include <unistd.h>
#include <vector>

class TstLog : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void linesOfThreads();
};

void TstLog::linesOfThreads()
{
    constexpr int threadCount = 4;
    constexpr int lineCount = 200;
    QTemporaryFile file;
    QVERIFY(file.open());
    const int terminal = dup(STDERR_FILENO);
    QVERIFY(dup2(file.handle(), STDERR_FILENO) != -1);
    std::vector<std::thread> threads;
    threads.reserve(threadCount);
    for (int i = 0; i < threadCount; ++i) {
        threads.emplace_back([i] {
            // Longer than what one call writes.
            const QString text(20000, QLatin1Char(char('a' + i)));
            for (int line = 0; line < lineCount; ++line)
                Log::write(Log::Info, "test", {{"text", text}});
        });
    }
    for (std::thread &thread : threads)
        thread.join();
    dup2(terminal, STDERR_FILENO);
    close(terminal);

    file.seek(0);
    QByteArrayList lines = file.readAll().split('\n');
    QCOMPARE(lines.takeLast(), QByteArray());
    QCOMPARE(lines.size(), threadCount * lineCount);
    const QByteArray before = "level=info event=test text=";
    for (const QByteArray &line : qAsConst(lines))
        QCOMPARE(line, before + QByteArray(20000, line.back()));
}

QTEST_APPLESS_MAIN(TstLog)

#include "tst_log.moc"
