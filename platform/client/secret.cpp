// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#include "secret.h"

#include <QFile>
#include <QtEndian>

#include <algorithm>
#include <cstring>

#include <fcntl.h>
#include <unistd.h>

namespace {

const QString memoryMap = QStringLiteral("/proc/self/maps");
constexpr char memoryFile[] = "/proc/self/mem";

/// What is shorter keeps nobody out, and is easily found where it means something else.
constexpr int minimumSize = 4;
constexpr int windowSize = 1 << 20;
/// What is larger is only set aside.
constexpr quint64 maximumArea = quint64(1) << 31;

int memory = -1;

/// Overwrites a text in an area of the process's memory wherever it stands as D-Bus has it: after its length and before
/// a zero. Like this it is in messages and in what is left of them, and nowhere else.
void wipeCopies(quint64 begin, quint64 end, const QByteArray &text)
{
    SecretBytes copy;
    QByteArray &pattern = copy.bytes();
    pattern.reserve(int(sizeof(quint32)) + text.size() + 1);
    pattern.resize(int(sizeof(quint32)));
    qToLittleEndian(quint32(text.size()), pattern.data());
    pattern += text;
    pattern += '\0';
    const QByteArray zeros(text.size(), '\0');

    SecretBytes seen(QByteArray(std::max(windowSize, 2 * pattern.size()), Qt::Uninitialized));
    QByteArray &window = seen.bytes();
    const quint64 step = quint64(window.size() - pattern.size());
    for (quint64 at = begin; at < end; at += step) {
        const size_t wanted = size_t(std::min(end - at, quint64(window.size())));
        const ssize_t size = pread(memory, window.data(), wanted, off_t(at));
        if (size < pattern.size())
            return;
        // The C library finds also what is long, and repeats itself, in one pass.
        const char *const windowEnd = window.constData() + size;
        const auto next = [&](const char *from) {
            return static_cast<const char *>(
                memmem(from, size_t(windowEnd - from), pattern.constData(), size_t(pattern.size())));
        };
        for (const char *found = next(window.constData()); found; found = next(found + 1)) {
            const off_t place = off_t(at) + (found - window.constData()) + off_t(sizeof(quint32));
            if (pwrite(memory, zeros.constData(), size_t(zeros.size()), place) == -1)
                qWarning("Cannot wipe a secret: %s", qUtf8Printable(qt_error_string()));
        }
    }
}

} // namespace

void wipe(const QString &text)
{
    explicit_bzero(const_cast<QChar *>(text.constData()), size_t(text.size()) * sizeof(QChar));
}

void wipe(QByteArray &bytes)
{
    // What is shared is overwritten too; data() would only give a copy of it.
    explicit_bzero(const_cast<char *>(bytes.constData()), size_t(bytes.size()));
    bytes.clear();
}

void ReceivedCopies::prepare()
{
    memory = open(memoryFile, O_RDWR | O_CLOEXEC);
}

void ReceivedCopies::wipe(const SecretBytes &secret)
{
    if (secret.bytes().size() < minimumSize)
        return;
    QFile file(memoryMap);
    if (memory == -1 || !file.open(QIODevice::ReadOnly)) {
        qWarning("Cannot look for copies of a secret");
        return;
    }
    const QList<QByteArray> lines = file.readAll().split('\n');
    for (const QByteArray &line : lines) {
        // As "7f1c08000000-7f1c08021000 rw-p ..."
        const QList<QByteArray> words = line.split(' ');
        const QList<QByteArray> range = words.constFirst().split('-');
        if (range.size() != 2 || !words.at(1).startsWith("rw"))
            continue;
        const quint64 begin = range.at(0).toULongLong(nullptr, 16);
        const quint64 end = range.at(1).toULongLong(nullptr, 16);
        if (end - begin < maximumArea)
            wipeCopies(begin, end, secret.bytes());
    }
}
