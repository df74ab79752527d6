// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#include "support/logcapture.h"

#include "plugin/logging.h"

#include <QMutex>

namespace {

LogCapture *current = nullptr;
QtMessageHandler previous = nullptr;
// The D-Bus library logs from a thread of its own.
QMutex mutex;

} // namespace

LogCapture::LogCapture(bool debug)
{
    Q_ASSERT(!current);
    kavet(); // Rules apply to categories that exist.
    if (debug)
        QLoggingCategory::setFilterRules(QStringLiteral("authd.method.kavet.debug=true"));
    current = this;
    previous = qInstallMessageHandler(handle);
}

LogCapture::~LogCapture()
{
    qInstallMessageHandler(previous);
    QLoggingCategory::setFilterRules(QString());
    const QMutexLocker locker(&mutex);
    current = nullptr;
}

QVector<LogCapture::Line> LogCapture::lines() const
{
    const QMutexLocker locker(&mutex);
    QVector<Line> lines;
    for (const Line &line : m_lines) {
        if (line.category == QLatin1String("authd.method.kavet"))
            lines << line;
    }
    return lines;
}

QVector<LogCapture::Line> LogCapture::otherLines() const
{
    const QMutexLocker locker(&mutex);
    QVector<Line> lines;
    for (const Line &line : m_lines) {
        if (line.category != QLatin1String("authd.method.kavet"))
            lines << line;
    }
    return lines;
}

QStringList LogCapture::texts(QtMsgType level) const
{
    QStringList texts;
    const QVector<Line> all = lines();
    for (const Line &line : all) {
        if (line.level == level)
            texts << line.text;
    }
    return texts;
}

void LogCapture::clear()
{
    const QMutexLocker locker(&mutex);
    m_lines.clear();
}

void LogCapture::handle(QtMsgType level, const QMessageLogContext &context, const QString &text)
{
    {
        const QMutexLocker locker(&mutex);
        if (current)
            current->m_lines << Line{level, QString::fromLatin1(context.category), text};
    }
    previous(level, context, text);
}
