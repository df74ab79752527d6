// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#include "harmlesstext.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QTest>

#include <algorithm>
#include <initializer_list>
#include <vector>

#include <rapidcheck.h>

namespace {

QString text(std::initializer_list<ushort> units)
{
    QString result;
    for (const ushort unit : units)
        result += QChar(unit);
    return result;
}

} // namespace

class TstHarmlessText : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void escapes_data();
    void escapes();
    void everyCharacter();
    void bytes_data();
    void bytes();
    void jsonKeepsItsValue();
};

void TstHarmlessText::escapes_data()
{
    QTest::addColumn<QString>("outside");
    QTest::addColumn<QString>("shown");

    QTest::newRow("nothing") << QString() << QString();
    QTest::newRow("plain") << "Alice Liddell <alice>; 100% \\u001b"
                           << "Alice Liddell <alice>; 100% \\u001b";
    const QString foreign = QString::fromUtf8("Jürgen Ångström 山田 שלום می‌خواهم 👩‍🔬 €");
    QTest::newRow("other scripts") << foreign << foreign;
    QTest::newRow("colour") << "\x1b[31mred"
                            << "\\u001b[31mred";
    QTest::newRow("window title") << "\x1b]0;mine\x07"
                                  << "\\u001b]0;mine\\u0007";
    QTest::newRow("another line") << "one\nalice: success\r\n"
                                  << "one\\u000aalice: success\\u000d\\u000a";
    QTest::newRow("over the line") << "no\b\byes\t\x7f"
                                   << "no\\u0008\\u0008yes\\u0009\\u007f";
    QTest::newRow("end of text") << text({'a', 0, 'b'}) << "a\\u0000b";
    QTest::newRow("colour in one character") << text({0x9b, '3', '1', 'm'}) << "\\u009b31m";
    QTest::newRow("next line") << text({0x85}) << "\\u0085";
    QTest::newRow("separators") << text({0x2028, 0x2029}) << "\\u2028\\u2029";
    QTest::newRow("override") << text({0x202e, 'n', 'i', 'm', 'd', 'a'}) << "\\u202enimda";
    QTest::newRow("embeddings") << text({0x202a, 0x202b, 0x202c, 0x202d}) << "\\u202a\\u202b\\u202c\\u202d";
    QTest::newRow("isolates") << text({0x2066, 0x2067, 0x2068, 0x2069}) << "\\u2066\\u2067\\u2068\\u2069";
    QTest::newRow("marks") << text({0x061c, 0x200e, 0x200f}) << "\\u061c\\u200e\\u200f";
}

void TstHarmlessText::escapes()
{
    QFETCH(QString, outside);
    QTEST(harmless(outside), "shown");
}

void TstHarmlessText::everyCharacter()
{
    // There are 65 control characters, 2 separators and 12 direction characters. All others stay unchanged.
    int escaped = 0;
    for (int unit = 0; unit <= 0xffff; ++unit) {
        const QString one(QChar{ushort(unit)});
        const QString shown = harmless(one);
        if (shown == one)
            continue;
        ++escaped;
        QCOMPARE(shown, QString::asprintf("\\u%04x", unit));
    }
    QCOMPARE(escaped, 65 + 2 + 12);
}

void TstHarmlessText::bytes_data()
{
    QTest::addColumn<QByteArray>("outside");

    QTest::newRow("lone continuation") << QByteArray("a\x9b");
    QTest::newRow("cut short") << QByteArray("a\xe2\x80");
    QTest::newRow("overlong escape") << QByteArray("a\xc0\x9b");
    QTest::newRow("half a pair") << QByteArray("a\xed\xa0\x80");
    QTest::newRow("too large") << QByteArray("a\xf5\x80\x80\x80");
}

void TstHarmlessText::bytes()
{
    // QString converts invalid UTF-8 to replacement characters.
    QFETCH(QByteArray, outside);
    const QString shown = harmless(QString::fromUtf8(outside));
    QCOMPARE(shown.count(QChar(QChar::ReplacementCharacter)), shown.size() - 1);
    QVERIFY(shown.startsWith(QLatin1Char('a')) && shown.size() > 1);
}

void TstHarmlessText::jsonKeepsItsValue()
{
    const bool holds = rc::check("a JSON document has the same value, on one line of harmless characters", [] {
        const auto unit = rc::gen::weightedOneOf<ushort>(
            {{3, rc::gen::inRange<ushort>(0, 0xa0)},
             {3, rc::gen::element<ushort>('\\', '"', 'u', 0x061c, 0x200e, 0x2028, 0x202e, 0x2066, 0x2069)},
             {1, rc::gen::inRange<ushort>(0xa0, 0xd800)}});
        QString value;
        for (const ushort one : *rc::gen::container<std::vector<ushort>>(unit))
            value += QChar(one);
        const QByteArray document = QJsonDocument(QJsonArray{value}).toJson(QJsonDocument::Compact);
        const QString shown = harmless(QString::fromUtf8(document));
        RC_ASSERT(std::none_of(shown.cbegin(), shown.cend(), isHarmful));
        RC_ASSERT(QJsonDocument::fromJson(shown.toUtf8()).array().at(0).toString() == value);
    });
    QVERIFY(holds);
}

QTEST_APPLESS_MAIN(TstHarmlessText)

#include "tst_harmlesstext.moc"
