// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#include "device/pam.h"

#include "support/files.h"

#include <QTest>

namespace {

constexpr int Patience = 60000; // milliseconds
const char writtenProperty[] = "written";

/// What the program has written since its start.
QByteArray written(QProcess &process)
{
    QByteArray text = process.property(writtenProperty).toByteArray() + process.readAllStandardOutput();
    process.setProperty(writtenProperty, text);
    return text;
}

} // namespace

bool Pam::makeService(const QStringList &lines, const QString &name)
{
    QByteArray content;
    for (const QString &line : lines) {
        const bool isBracketed = line.section(QLatin1Char(' '), 1, 1).startsWith(QLatin1Char('['));
        const int split = isBracketed ? line.indexOf(QLatin1Char(']')) + 1
                                      : line.indexOf(QLatin1Char(' '), line.indexOf(QLatin1Char(' ')) + 1);
        const bool isNamed = line.contains(QLatin1String("pam_")) || line.startsWith(QLatin1Char('@'));
        QString text = line;
        if (!isNamed)
            text.insert(split < 0 ? int(line.size()) : split, QStringLiteral(" pam_qarv.so"));
        content += text.toUtf8() + '\n';
    }
    return TestDevice::writeFile(QStringLiteral("/etc/pam.d/") + name, content);
}

QStringList Pam::Result::told() const
{
    QStringList lines;
    for (const QString &event : events) {
        if (!event.startsWith(QLatin1String("secret ")))
            lines << event;
    }
    return lines;
}

void Pam::start(QProcess &process, const QString &arguments, uint uid)
{
    QStringList words = arguments.split(QLatin1Char(' '), Qt::SkipEmptyParts);
    int options = 0;
    while (words.value(options).startsWith(QLatin1String("--")))
        ++options;
    words.insert(options, QStringLiteral("qarv-test"));
    process.setProcessChannelMode(QProcess::ForwardedErrorChannel);
    process.start(QStringLiteral("setpriv"),
                  QStringList{QStringLiteral("--reuid=%1").arg(uid), QStringLiteral("--clear-groups"), program}
                      + words);
}

bool Pam::waitFor(QProcess &process, const QByteArray &text)
{
    const QByteArray line = QByteArray("\n").append(text);
    const auto isWritten = [&] {
        return QByteArray("\n").append(written(process)).contains(line);
    };
    if (QTest::qWaitFor([&] { return isWritten() || process.state() == QProcess::NotRunning; }, Patience)
        && isWritten())
        return true;
    qWarning("No '%s' in: %s", text.constData(), written(process).constData());
    return false;
}

Pam::Result Pam::finish(QProcess &process)
{
    process.closeWriteChannel();
    const bool hasEnded = QTest::qWaitFor([&] { return process.state() == QProcess::NotRunning; }, Patience);
    const QStringList events = QString::fromUtf8(written(process)).split(QLatin1Char('\n'), Qt::SkipEmptyParts);
    if (!hasEnded || process.exitStatus() != QProcess::NormalExit) {
        qWarning("The program has not exited; it wrote: %s", qPrintable(events.join(QLatin1Char('\n'))));
        return {-1, events};
    }
    return {process.exitCode(), events};
}

Pam::Result Pam::run(const QString &arguments, const QByteArray &input, uint uid)
{
    QProcess process;
    start(process, arguments, uid);
    process.write(input);
    return finish(process);
}
