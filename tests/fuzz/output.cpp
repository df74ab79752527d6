// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
// What authctl prints about texts that others have chosen. The lines of the input are these texts.
#include "output.h"
#include "fuzz.h"
#include "states.h"

#include <QJsonDocument>

#include <algorithm>
#include <functional>

#include <sys/mman.h>

namespace {

/// A file in memory that is standard output.
const int printed = memfd_create("printed", MFD_CLOEXEC);

/// Whether a terminal may act on a character.
bool isHarmful(QChar c)
{
    static const QString bidirectional =
        QStringLiteral("\u061c\u200e\u200f\u202a\u202b\u202c\u202d\u202e\u2066\u2067\u2068\u2069");
    return c.category() == QChar::Other_Control || c.category() == QChar::Separator_Line
           || c.category() == QChar::Separator_Paragraph || bidirectional.contains(c);
}

/// What `print` prints.
QByteArray output(const std::function<void()> &print)
{
    ftruncate(printed, 0);
    lseek(printed, 0, SEEK_SET);
    print();
    QFile file;
    file.open(printed, QIODevice::ReadOnly);
    file.seek(0);
    return file.readAll();
}

/// Requires one line that is safe to show, and returns it.
QByteArray harmlessLine(const QByteArray &bytes)
{
    REQUIRE(bytes.endsWith('\n') && bytes.count('\n') == 1);
    const QString line = QString::fromUtf8(bytes.left(bytes.size() - 1));
    REQUIRE(std::none_of(line.begin(), line.end(), isHarmful));
    return bytes;
}

QJsonObject harmlessObject(const std::function<void()> &print)
{
    return QJsonDocument::fromJson(harmlessLine(output(print))).object();
}

} // namespace

int LLVMFuzzerInitialize(int *argc, char ***argv)
{
    Fuzz::start(argc, argv);
    dup2(printed, STDOUT_FILENO);
    return 0;
}

int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    const QStringList texts = QString::fromUtf8(Fuzz::bytes(data, size)).split(QLatin1Char('\n'));
    const QString first = texts.first();
    const QString last = texts.last();
    const QVariantMap details = {
        {States::Method, first}, {States::Reason, last}, {States::Duration, first.toUInt()}, {last, texts}};
    const QVariantMap info = {{QStringLiteral("version"), first},
                              {QStringLiteral("description"), last},
                              {QStringLiteral("priority"), texts},
                              {QStringLiteral("available"), first.size() % 2 == 0}};
    for (const bool isJson : {false, true}) {
        const Output out(isJson);
        harmlessLine(output([&] { out.method(first, info); }));
        for (const QString &state : {QString(States::Challenge), QString(States::Locked), last})
            harmlessLine(output([&] { out.state(1, 1000, state, details); }));
        harmlessLine(output([&] { out.givenUp(1, 1000, first, last); }));
        harmlessLine(output([&] { out.failed(1, 1000, first, 11, last, true, 3); }));
        harmlessLine(output([&] { out.option(1000, first, last, texts); }));
        harmlessLine(output([&] { out.cert(first, last); }));
    }
    const Output json(true);
    const QJsonObject cert = harmlessObject([&] { json.cert(first, last); });
    REQUIRE(cert.value(QStringLiteral("method")).toString() == first);
    REQUIRE(cert.value(QStringLiteral("cert")).toString() == last);
    const QJsonObject failure = harmlessObject([&] { json.failure({Refused, first, last}); });
    REQUIRE(failure.value(QStringLiteral("message")).toString() == first);
    const QJsonObject option = harmlessObject([&] { json.option(1000, first, last, texts); });
    REQUIRE(option.value(QStringLiteral("value")).toVariant() == QVariant(texts).toList());
    return 0;
}
