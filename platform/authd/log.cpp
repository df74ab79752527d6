// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#include "log.h"

#include "harmlesstext.h"

#include <QCoreApplication>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <mutex>
#include <poll.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <systemd/sd-journal.h>
#include <unistd.h>

namespace {

constexpr char JournalSocket[] = "/run/systemd/journal/socket";

/// How long to wait for a log reader to make room for a line, in milliseconds.
constexpr int ReaderTimeout = 100;

bool isJournalForm = false;
bool isJournal = false;

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

QByteArray quoted(const QString &value)
{
    QByteArray bytes = value.toUtf8();
    if (!bytes.isEmpty() && std::all_of(bytes.cbegin(), bytes.cend(), isPlain))
        return bytes;
    QString result;
    for (const QChar c : value) {
        if (c == QLatin1Char('"') || c == QLatin1Char('\\'))
            result += QLatin1Char('\\');
        result += c;
    }
    return '"' + harmless(result).toUtf8() + '"';
}

/// Standard error with a bounded wait: a reader that stops reading must not block the daemon. Lines that do not fit are
/// dropped and counted.
class StandardError
{
public:
    /// Writes one line: `before` and `text`. `before` also prefixes the report about lost lines.
    void write(const QByteArray &before, const QByteArray &text)
    {
        const std::lock_guard<std::mutex> lock(m_mutex); // Qt's D-Bus thread logs too.
        if (m_lost > 0) {
            const int lost = m_lost;
            if (!put(before + "event=lines-lost lines=" + QByteArray::number(lost) + '\n')) {
                m_lost = lost + 1;
                return;
            }
            m_lost = 0;
        }
        if (!put(before + text + '\n'))
            ++m_lost;
    }

private:
    /// Returns false when only part of the line, or none, was written.
    bool put(QByteArray line)
    {
        if (m_isCut)
            line.prepend('\n');
        // Bypass the stdio buffers, which a forked child shares with the daemon.
        const char *rest = line.constData();
        for (auto size = static_cast<size_t>(line.size()); size > 0;) {
            pollfd stream = {STDERR_FILENO, POLLOUT, 0};
            if (poll(&stream, 1, m_lost > 0 ? 0 : ReaderTimeout) == 0)
                return false;
            // A pipe that polls as writable has room for PIPE_BUF bytes.
            const ssize_t written = ::write(STDERR_FILENO, rest, std::min<size_t>(size, PIPE_BUF));
            if (written < 0 && errno == EINTR)
                continue;
            if (written <= 0)
                return true; // There is no reader any more.
            rest += written;
            size -= static_cast<size_t>(written);
            m_isCut = size > 0;
        }
        return true;
    }

    std::mutex m_mutex;
    int m_lost = 0;
    bool m_isCut = false;
};

StandardError standardError;

bool isConnectedToJournal()
{
    struct stat status;
    return fstat(STDERR_FILENO, &status) == 0
           && qgetenv("JOURNAL_STREAM")
                  == QByteArray::number(qulonglong(status.st_dev)) + ':'
                         + QByteArray::number(qulonglong(status.st_ino));
}

/// Sends the line to the journal with sd_journal_sendv(), with the event and each value as a field. Returns false on
/// failure.
bool sendToJournal(Log::Priority priority, const char *event, const Log::Fields &fields, const QByteArray &line)
{
    // sd_journal_sendv() reports success even without a journal.
    if (access(JournalSocket, F_OK) != 0)
        return false;
    QVector<QByteArray> entries = {"MESSAGE=" + line, "PRIORITY=" + QByteArray::number(priority),
                                   "SYSLOG_IDENTIFIER=authd", QByteArray("AUTHD_EVENT=") + event};
    for (const auto &field : fields) {
        QByteArray name = QByteArray(field.first).toUpper().replace('-', '_');
        entries << "AUTHD_" + name + '=' + field.second.toString().toUtf8();
    }
    QVector<iovec> pieces;
    for (QByteArray &entry : entries)
        pieces << iovec{entry.data(), size_t(entry.size())};
    return sd_journal_sendv(pieces.constData(), pieces.size()) == 0;
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

void Log::start(bool journal)
{
    isJournal = isConnectedToJournal();
    isJournalForm = journal || isJournal;
    qInstallMessageHandler(handleMessage);
}

void Log::write(Priority priority, const char *event, const Fields &fields)
{
    QByteArray text = QByteArray("event=") + event;
    for (const auto &field : fields)
        text += QByteArray(" ") + field.first + '=' + quoted(field.second.toString());
    if (isJournal && sendToJournal(priority, event, fields, text))
        return;
    QByteArray before = "level=" + QByteArray(levelName(priority)) + ' ';
    if (isJournalForm)
        before = '<' + QByteArray::number(priority) + '>';
    standardError.write(before, text);
}
