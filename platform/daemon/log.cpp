// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#include "log.h"

#include <QCoreApplication>

#include <algorithm>
#include <cerrno>
#include <sys/stat.h>
#include <unistd.h>

namespace {

bool forJournal = false;

const char *levelName(Log::Priority priority)
{
    switch (priority) {
    case Log::Critical:
        return "critical";
    case Log::Error:
        return "error";
    case Log::Warning:
        return "warning";
    case Log::Notice:
        return "notice";
    case Log::Info:
        return "info";
    case Log::Debug:
        break;
    }
    return "debug";
}

bool isPlain(char c)
{
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9')
           || QByteArrayLiteral("_./:+,@-").contains(c);
}

QByteArray quoted(const QByteArray &value)
{
    if (!value.isEmpty() && std::all_of(value.cbegin(), value.cend(), isPlain))
        return value;
    QByteArray result = "\"";
    for (const char c : value) {
        if (c == '"' || c == '\\')
            (result += '\\') += c;
        else if (static_cast<unsigned char>(c) < ' ' || c == '\x7f')
            result += "\\x" + QByteArray(1, c).toHex();
        else
            result += c;
    }
    return result + '"';
}

void handleMessage(QtMsgType type, const QMessageLogContext &context, const QString &text)
{
    Log::Priority priority = Log::Debug;
    switch (type) {
    case QtDebugMsg:
        break;
    case QtInfoMsg:
        priority = Log::Info;
        break;
    case QtWarningMsg:
        priority = Log::Warning;
        break;
    case QtCriticalMsg:
        priority = Log::Error;
        break;
    case QtFatalMsg:
        priority = Log::Critical;
        break;
    }
    Log::write(priority, "message", {{"category", QString::fromUtf8(context.category)}, {"text", text}});
}

} // namespace

bool Log::isJournal()
{
    struct stat status;
    return fstat(STDERR_FILENO, &status) == 0
           && qgetenv("JOURNAL_STREAM")
                  == QByteArray::number(qulonglong(status.st_dev)) + ':'
                         + QByteArray::number(qulonglong(status.st_ino));
}

void Log::start(bool journal)
{
    forJournal = journal;
    qInstallMessageHandler(handleMessage);
}

void Log::write(Priority priority, const char *event, const Fields &fields)
{
    QByteArray line;
    if (forJournal)
        line = '<' + QByteArray::number(priority) + '>';
    else
        line = QByteArray("level=") + levelName(priority) + ' ';
    line += QByteArray("event=") + event;
    for (const auto &field : fields)
        line += QByteArray(" ") + field.first + '=' + quoted(field.second.toString().toUtf8());
    line += '\n';

    // Past the stream buffers, which a forked child shares with the daemon.
    const char *rest = line.constData();
    for (auto size = static_cast<size_t>(line.size()); size > 0;) {
        const ssize_t written = ::write(STDERR_FILENO, rest, size);
        if (written < 0 && errno == EINTR)
            continue;
        if (written <= 0)
            return;
        rest += written;
        size -= static_cast<size_t>(written);
    }
}
