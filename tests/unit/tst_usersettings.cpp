// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#include "files/usersettings.h"
#include "filestatus.h"
#include "methodfixture.h"
#include "support/processortime.h"

#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QScopeGuard>
#include <QSettings>
#include <QTest>

#include <algorithm>
#include <csignal>
#include <limits>
#include <random>

#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace TestDevice;

namespace {

const QString file = sharedDirectory + QStringLiteral("/file.conf");
const QString outside = QStringLiteral("/srv/outside");
const QString freshDirectory = QStringLiteral("/run/settings");
const QString attempts = QStringLiteral("attempts");
const QString maxAttempts = QStringLiteral("max-attempts");
constexpr int sizeLimit = 64 * 1024;
constexpr uint clientGroup = 960;
const QVariant missing = 7;
constexpr qint64 timeLimit = 20000000; ///< Nanoseconds.

constexpr char seedVariable[] = "SETTINGS_SEED"; ///< Replays one file.
constexpr char filesVariable[] = "SETTINGS_FILES"; ///< Tries more than by default.
constexpr uint filesByDefault = 100000;
constexpr uint filesPerWrite = 4;

/// A value, and the value that is read after it was written.
struct Written
{
    QVariant value;
    QVariant readAs;
};

QString text(const char *utf8)
{
    return QString::fromUtf8(utf8);
}

const QString manyKinds = text("\u00e41\u20ac\u00e4b").append(QChar(0)).append(QLatin1Char('1'));

const QVector<Written> writtenValues = {
    {3, text("3")},
    {0, text("0")},
    {-1, text("-1")},
    {4294967295U, text("4294967295")},
    {true, text("true")},
    {1.5, text("1.5")},
    {text("12"), text("12")},
    {text(""), text("")},
    {text("  a b\t"), text("  a b\t")},
    {text("a,b;c=\"d\"\\"), text("a,b;c=\"d\"\\")},
    {text("[General]\nattempts=3\r\n"), text("[General]\nattempts=3\r\n")},
    {text("@Variant(1)"), text("@Variant(1)")},
    {text("@@"), text("@@")},
    {manyKinds, manyKinds},
    {QByteArray("12"), text("12")},
    {QStringList{text(""), text("@a"), text("b, c")}, QStringList{text(""), text("@a"), text("b, c")}},
    {QVariantList{1, text("2"), QVariant()}, QStringList{text("1"), text("2"), text("")}},
    {QStringList{text("alone")}, text("alone")},
    {QStringList(), QVariant()},
    {QVariant(), QVariant()},
    {QVariantMap{{text("a"), 1}}, text("")},
    {QDateTime::fromMSecsSinceEpoch(0, Qt::UTC), text("1970-01-01T00:00:00.000Z")},
};

/// The pieces of valid and hostile settings files. They never form an object that QSettings would read from a stream,
/// because that could crash the process.
const QVector<QByteArray> pieces = {
    "attempts=\"a\", b , c ",
    "attempts",
    "attempts=\"a\", b , c ",
    "attempts",
    "attempts=",
    "attempts=5\n",
    " attempts = 5\n",
    "\nattempts=",
    "attempts=\"5",
    "; attempts=3",
    "#attempts=4\n",
    "Attempts=1\n",
    "b=2\n",
    "max-attempts=7\n",
    "=",
    "=",
    "\n",
    "\n",
    "\n",
    "\r",
    "\r\n",
    "\n\r",
    " ",
    "\t",
    "  ",
    ";",
    "#",
    "[General]",
    "[general]\n",
    "[ GENERAL ]\n",
    "[General\n",
    "[Other]\n",
    "[%General]\n",
    "[%47eneral]\n",
    "[]\n",
    "[",
    "]",
    "\"",
    "\"",
    "\\",
    "\\\\",
    "\\\n",
    "\\\r\n",
    "\\\n\r",
    ",",
    ", ",
    "@",
    "@@",
    "@Invalid()",
    "@ByteArray(",
    "@String(",
    "@Rect(1 2 3 4)",
    "@Rect(",
    "@Size(1 2)",
    "@Size(1",
    "@Point(1 2)",
    "@Point(1 2",
    "@Else(",
    "1 2",
    ")",
    "(",
    "\\x41",
    "\\x",
    "\\x4",
    "\\x12345",
    "\\0",
    "\\101",
    "\\18",
    "\\n",
    "\\t",
    "\\\"",
    "\\q",
    "\\;",
    "%61ttempts=6",
    "%U0061ttempts",
    "%",
    "%6",
    "%U",
    "%U  61ttempts=1",
    "% 1",
    "%+1",
    "%0x",
    "%u0061ttempts=1",
    "U0061",
    "a",
    "5",
    "12",
    "-3",
    "e",
    "\xef\xbb\xbf",
    "\xe2\x82",
    "\xc3\xa4",
    "\xff",
    "\xa0",
    QByteArray("\0", 1),
    "\v",
    "\f",
    "\x1b",
    "attempts\\",
    "x/attempts=1\n",
    "/attempts=2\n",
    "attempts\v=1\n",
};

/// A random settings file, determined by the seed.
QByteArray anyFile(uint seed)
{
    std::mt19937 random(seed);
    const auto below = [&random](int bound) {
        return int(random() % uint(bound));
    };
    QByteArray content;
    if (below(8) == 0)
        content += "\xef\xbb\xbf";
    if (below(3) == 0)
        content += "[General]\n";
    for (int count = 1 + below(below(4) ? 12 : 40); count > 0; --count) {
        content += pieces.at(below(pieces.size()));
        if (below(6) == 0)
            content += below(2) ? "attempts=" : "\nattempts=";
    }
    for (int count = below(4) ? 0 : 1 + below(3); count > 0 && !content.isEmpty(); --count) {
        const int position = below(content.size());
        switch (below(3)) {
        case 0:
            content[position] = char(below(256));
            break;
        case 1:
            content.remove(position, 1);
            break;
        default:
            content.insert(position, char(below(256)));
        }
    }
    return content;
}

/// Whether `value` contains an object of a type that QSettings may safely build.
bool hasObject(const QVariant &value)
{
    if (value.userType() == QMetaType::QVariantList) {
        const QVariantList list = value.toList();
        return std::any_of(list.cbegin(), list.cend(), hasObject);
    }
    return value.userType() == QMetaType::QRect || value.userType() == QMetaType::QSize
           || value.userType() == QMetaType::QPoint;
}

/// Compares types too, because QVariant's comparison converts.
bool isSame(const QVariant &one, const QVariant &other)
{
    if (one.userType() != other.userType())
        return false;
    if (one.userType() != QMetaType::QVariantList)
        return one == other;
    const QVariantList list = one.toList();
    const QVariantList otherList = other.toList();
    return std::equal(list.cbegin(), list.cend(), otherList.cbegin(), otherList.cend(), isSame);
}

QByteArray shown(const QByteArray &content)
{
    return QByteArray('\'' + content.toPercentEncoding(" ;=[]\"\\@(),") + '\'');
}

QByteArray shown(const QVariant &value)
{
    QString text;
    QDebug(&text) << value;
    return text.toUtf8();
}

/// A path that no QSettings of this process has read yet, because QSettings caches files.
QString freshPath()
{
    static int count = 0;
    return freshDirectory + QStringLiteral("/%1.conf").arg(++count);
}

/// All keys but `attempts`, with their values, as QSettings sees them.
QVariantMap otherKeys(const QByteArray &content)
{
    const QString path = freshPath();
    writeFile(path, content);
    const QSettings settings(path, QSettings::NativeFormat);
    QVariantMap found;
    const QStringList keys = settings.allKeys();
    for (const QString &key : keys) {
        // QSettings treats "/attempts" as "attempts".
        const QStringList parts = key.split(QLatin1Char('/'), Qt::SkipEmptyParts);
        if (!parts.isEmpty() && parts != QStringList{attempts})
            found.insert(key, settings.value(key));
    }
    QFile::remove(path);
    return found;
}

/// The value that QSettings reads.
QVariant oracle(const QByteArray &content, const QVariant &defaultValue)
{
    const QString path = freshPath();
    writeFile(path, content);
    const QVariant value = QSettings(path, QSettings::NativeFormat).value(attempts, defaultValue);
    QFile::remove(path);
    return hasObject(value) ? defaultValue : value;
}

/// Whether QSettings finds the key.
bool isSet(const QByteArray &content)
{
    const QString path = freshPath();
    writeFile(path, content);
    const bool found = QSettings(path, QSettings::NativeFormat).contains(attempts);
    QFile::remove(path);
    return found;
}

/// Whether `now` is `before` with one insertion.
bool isInserted(const QByteArray &before, const QByteArray &now)
{
    const auto different = std::mismatch(before.cbegin(), before.cend(), now.cbegin(), now.cend());
    return now.endsWith(before.mid(int(different.first - before.cbegin())));
}

} // namespace

class TstUserSettings : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init();
    void cleanup();

    void read();
    void sameAsQSettings();
    void leadingBlanks();
    void objects_data();
    void objects();
    void deepObject();
    void longLists();
    void unchangedText_data();
    void unchangedText();
    void ofUnreadableFile();
    void sizeIsBounded();
    void timeIsBounded_data();
    void timeIsBounded();
    void withoutTemporaryDirectory_data();
    void withoutTemporaryDirectory();

    void codeWithBlanks();
    void written();
    void foreignLinesStay_data();
    void foreignLinesStay();
    void ofNoise();
    void unchanged_data();
    void unchanged();
};

void TstUserSettings::init()
{
    reset();
    QVERIFY(QDir().mkpath(sharedDirectory));
    QVERIFY(setOwner(sharedDirectory, alice, clientGroup));
    QVERIFY(QDir().mkpath(outside));
    QVERIFY(QDir().mkpath(freshDirectory));
    // An upper bound for calls that block.
    alarm(60);
}

void TstUserSettings::cleanup()
{
    alarm(0);
    QVERIFY(QDir(outside).removeRecursively());
}

void TstUserSettings::read()
{
    QVERIFY(writeFile(file, "early=1\n[Other]\nattempts=5\n[General]\nattempts=3\ntext=\"a b\"\nlist=x, y\n"
                            "bytes=@ByteArray(\xe4)\n"));
    const UserSettings settings(file);
    QCOMPARE(settings.value(attempts, 0), QVariant(QStringLiteral("3")));
    QCOMPARE(settings.value(QStringLiteral("early"), 0), QVariant(QStringLiteral("1")));
    QCOMPARE(settings.value(QStringLiteral("text"), 0), QVariant(QStringLiteral("a b")));
    QCOMPARE(settings.value(QStringLiteral("list"), 0),
             QVariant(QStringList{QStringLiteral("x"), QStringLiteral("y")}));
    QCOMPARE(settings.value(QStringLiteral("bytes"), 0), QVariant(QByteArray("\xe4")));
    QCOMPARE(settings.value(QStringLiteral("none"), 7), QVariant(7));
    QCOMPARE(settings.value(QStringLiteral("none"), QVariant()), QVariant());

    const UserSettings noFile(outside + QStringLiteral("/missing"));
    QCOMPARE(noFile.value(attempts, 7), QVariant(7));
}

void TstUserSettings::codeWithBlanks()
{
    // "%U0073" means "s".
    QVERIFY(writeFile(file, "attempts=3\nattempt%U73  =4\n"));
    QCOMPARE(QSettings(file, QSettings::NativeFormat).value(attempts), QVariant(QStringLiteral("3")));
    QCOMPARE(UserSettings(file).value(attempts, 0), QVariant(QStringLiteral("3")));
}

void TstUserSettings::written()
{
    QVERIFY(writeFile(file, "[General]\nattempts=3\ntext=\"a b\"\n\n[Other]\nattempts=5\n"));
    QVERIFY(setOwner(file, alice, clientGroup));
    QCOMPARE(chmod(encoded(file).constData(), 0640), 0);
    const struct stat before = statusOf(file);
    {
        UserSettings settings(file);
        settings.setValue(attempts, 4);
        settings.setValue(QStringLiteral("fresh"), QStringLiteral("c, d"));
        // The destructor writes the file.
        QVERIFY(readFile(file).contains("attempts=3"));
        QVERIFY(!readFile(file).contains("fresh"));
    }
    const QSettings settings(file, QSettings::NativeFormat);
    QStringList keys = settings.allKeys();
    keys.sort();
    QCOMPARE(keys, (QStringList{QStringLiteral("Other/attempts"), attempts, QStringLiteral("fresh"),
                                QStringLiteral("text")}));
    QCOMPARE(settings.value(attempts), QVariant(QStringLiteral("4")));
    QCOMPARE(settings.value(QStringLiteral("fresh")), QVariant(QStringLiteral("c, d")));
    QCOMPARE(settings.value(QStringLiteral("text")), QVariant(QStringLiteral("a b")));
    QCOMPARE(settings.value(QStringLiteral("Other/attempts")), QVariant(QStringLiteral("5")));
    QCOMPARE(statusOf(file).st_mode, before.st_mode);
    QCOMPARE(statusOf(file).st_uid, alice);
    QCOMPARE(statusOf(file).st_gid, clientGroup);

    // Words, numbers and printable characters stay legible.
    const QVector<QPair<QString, QByteArray>> values = {
        {text("-12a"), "-12a"},
        {text("a b"), "\"a b\""},
        {text("1.5"), "\"1.5\""},
        {text("a@b"), "\"a@b\""},
        {text("\x1f~\x7fg"), "\"\\x1f~\\x7fg\""},
        {text("\n09aAfFg"), "\"\\xa\\x30\\x39\\x61\\x41\\x66\\x46g\""},
        {text("\u20ac"), "\"\\x20ac\""},
    };
    for (const auto &value : values) {
        QVERIFY(writeFile(file, "[General]\nattempts=3\n"));
        UserSettings(file).setValue(attempts, value.first);
        QCOMPARE(readFile(file), "[General]\nattempts=" + value.second + '\n');
    }

    // Settings are added to a file without any.
    QVERIFY(writeFile(file, ""));
    UserSettings(file).setValue(attempts, 9);
    QCOMPARE(readFile(file), QByteArray("[General]\nattempts=9\n"));
}

void TstUserSettings::unchangedText_data()
{
    QTest::addColumn<QByteArray>("before");
    QTest::addColumn<bool>("isWritten");
    QTest::newRow("same") << QByteArray("3") << false;
    QTest::newRow("between blanks") << QByteArray(" \t3 ") << false;
    QTest::newRow("quotes") << QByteArray("\"3\"") << false;
    QTest::newRow("bytes") << QByteArray("@ByteArray(3)") << true;
    QTest::newRow("object") << QByteArray("@Variant(\\0\\0\\0\\x2\\0\\0\\0\\x3)") << true;
    QTest::newRow("not a number") << QByteArray("3\f") << true;
    QTest::newRow("longer") << QByteArray("3.0") << true;
    QTest::newRow("list") << QByteArray("3,") << true;
    QTest::newRow("nothing") << QByteArray("") << true;
}

void TstUserSettings::unchangedText()
{
    QFETCH(QByteArray, before);
    QFETCH(bool, isWritten);
    const QByteArray line = "attempts=" + before + '\n';
    QVERIFY(writeFile(file, line));
    const struct stat status = statusOf(file);
    UserSettings(file).setValue(attempts, 3);
    QCOMPARE(readFile(file), isWritten ? QByteArray("attempts=3\n") : line);
    QCOMPARE(statusOf(file).st_ino != status.st_ino, isWritten);
    const QVariant value = UserSettings(file).value(attempts, 7);
    QCOMPARE(value.userType(), int(QMetaType::QString));
    QCOMPARE(value, QVariant(QStringLiteral("3")));
}

void TstUserSettings::ofUnreadableFile()
{
    // The other keys are unknown and could not be kept, so nothing is written.
    QVERIFY(writeFile(file, "[General]\nattempts=3\nother=1\n"));
    QVERIFY(setOwner(file, alice, clientGroup));
    QCOMPARE(chmod(encoded(file).constData(), 0200), 0);
    const QString before = portrait(file);
    {
        UserSettings settings(file);
        QCOMPARE(settings.value(attempts, 7), QVariant(7));
        settings.setValue(attempts, 8);
    }
    QCOMPARE(portrait(file), before);

    // In the opposite case, the write fails last.
    QCOMPARE(chmod(encoded(file).constData(), 0400), 0);
    UserSettings(file).setValue(attempts, 8);
    QCOMPARE(readFile(file), QByteArray("[General]\nattempts=3\nother=1\n"));
}

void TstUserSettings::ofNoise()
{
    for (const QByteArray &noise : {QByteArray("noise\n"), QByteArray(5000, '\0'), QByteArray(5000, '\xff'),
                                    QByteArray("[General\n=\n===\n[]\n"), QByteArray("noise without an end")}) {
        QVERIFY(writeFile(file, noise));
        QCOMPARE(UserSettings(file).value(attempts, 7), QVariant(7));
        UserSettings(file).setValue(attempts, 8);
        QCOMPARE(UserSettings(file).value(attempts, 7), QVariant(QStringLiteral("8")));
        QCOMPARE(QSettings(file, QSettings::NativeFormat).value(attempts), QVariant(QStringLiteral("8")));
    }
}

void TstUserSettings::sameAsQSettings()
{
    const bool isReplay = qEnvironmentVariableIsSet(seedVariable);
    const uint seed = isReplay ? qEnvironmentVariable(seedVariable).toUInt() : std::random_device()();
    const uint files = isReplay ? 1 : qMax(filesByDefault, qEnvironmentVariable(filesVariable).toUInt());
    const QVariant none(42);
    uint found = 0;
    alarm(0);
    for (uint i = 0; i < files; ++i) {
        const QByteArray content = anyFile(seed + i);
        const auto isAsExpected = [&](const QByteArray &now, const QVariant &expected) {
            const QVariant value = UserSettings(file).value(attempts, none);
            if (isSame(value, expected))
                return true;
            qWarning("%s=%u: %s, then %s, is %s, read as %s", seedVariable, seed + i, shown(content).constData(),
                     shown(now).constData(), shown(expected).constData(), shown(value).constData());
            return false;
        };
        QVERIFY(writeFile(file, content));
        const QVariant expected = oracle(content, none);
        QVERIFY(isAsExpected(content, expected));
        found += isSame(expected, none) ? 0 : 1;
        if (i % filesPerWrite != 0)
            continue;

        // Both readers see the new value, and nothing else has changed.
        const Written &fresh = writtenValues.at(int(i / filesPerWrite) % writtenValues.size());
        UserSettings(file).setValue(attempts, fresh.value);
        const QByteArray now = readFile(file);
        QVERIFY(isAsExpected(now, fresh.readAs));
        const QByteArray change = shown(content).append(", then ").append(shown(now));
        QVERIFY2(isSame(oracle(now, none), fresh.readAs), change);
        QVERIFY2(otherKeys(now) == otherKeys(content), change);
        QVERIFY2(isInserted(content, now) || isSet(content), change);
        const QString before = portrait(file);
        UserSettings(file).setValue(attempts, fresh.value);
        QCOMPARE(portrait(file), before);
    }
    // Enough files must contain the key.
    QVERIFY2(isReplay || found > files / 3, qPrintable(QString::number(found)));
}

void TstUserSettings::objects_data()
{
    // A serialized list of 2^31 elements, a number, and a value that is not an object.
    const QByteArray stream = "\\0\\0\\0\\t\\x7f\\xff\\xff\\xff)";
    QTest::addColumn<QByteArray>("value");
    QTest::addColumn<QVariant>("expected");
    for (const QByteArray &start : {QByteArray("@Variant("), QByteArray("@DateTime(")}) {
        const QByteArray name = start.mid(1, start.size() - 2);
        const auto row = [&name](const char *what) -> QTestData & {
            return QTest::newRow(QByteArray(name + ", " + what).constData());
        };
        row("plain") << QByteArray(start + stream) << missing;
        row("a number") << QByteArray(start + "\\0\\0\\0\\x2\\0\\0\\0\\x5)") << missing;
        row("empty") << QByteArray(start + ")") << missing;
        row("after blanks") << QByteArray(" \t " + start + stream) << missing;
        row("before blanks") << QByteArray(start + stream + " \t ") << missing;
        row("quoted") << QByteArray('"' + start + stream + '"') << missing;
        row("quoted, after blanks") << QByteArray("  \"" + start + stream + '"') << missing;
        row("in pieces") << QByteArray("\"" + start.left(4) + "\"  \"" + start.mid(4) + stream + '"') << missing;
        row("escaped") << QByteArray("\"\\x40\"\"" + start.mid(1) + stream + '"') << missing;
        row("escaped in octal") << QByteArray("\\100" + start.mid(1) + stream) << missing;
        row("with a void escape") << QByteArray("@\\q" + start.mid(1) + stream) << missing;
        row("continued") << QByteArray("\\\n" + start.left(5) + "\\\r\n" + start.mid(5) + stream) << missing;
        row("first in a list") << QByteArray(start + stream + ", 1") << missing;
        row("second in a list") << QByteArray("1," + start + stream) << missing;
        row("last in a list, after blanks") << QByteArray("1, @a ,  " + start + stream) << missing;
        row("one of many") << QByteArray("1," + start + stream + ", 2, " + start + stream) << missing;
        row("blank before it counts") << QByteArray("\" " + start + ")\"")
                                      << QVariant(QString::fromLatin1(QByteArray(" " + start + ")")));
        row("unclosed") << start << QVariant(QString::fromLatin1(QByteArray(start)));
        row("with more after it") << QByteArray(start + ").")
                                  << QVariant(QString::fromLatin1(QByteArray(start + ").")));
        row("doubled") << QByteArray('@' + start + ')') << QVariant(QString::fromLatin1(QByteArray(start + ")")));
        row("in small letters") << QByteArray(start.toLower() + ")")
                                << QVariant(QString::fromLatin1(QByteArray(start.toLower() + ")")));
    }
    QTest::newRow("rectangle") << QByteArray("@Rect(1 2 3 4)") << missing;
    QTest::newRow("size") << QByteArray("@Size(1 2)") << missing;
    QTest::newRow("point") << QByteArray("@Point(1 2)") << missing;
    for (const char *text :
         {"@Rect(1 2 3)", "@Rect(1 2 3 4 5)", "@Size(1)", "@Size(1 2 3)", "@Point(1)", "@Point(1 2 3)"})
        QTest::newRow(text) << QByteArray(text) << QVariant(QString::fromLatin1(text));
    QTest::newRow("point in a list") << QByteArray("1, @Point(1 2)") << missing;
}

void TstUserSettings::objects()
{
    QFETCH(QByteArray, value);
    QFETCH(QVariant, expected);

    // An object counts as missing even if it overrides an earlier value, and does not override a later one.
    for (const QByteArray &before : {QByteArray(), QByteArray("attempts=3\n"), QByteArray("[General]\nattempts=3\n")}) {
        QVERIFY(writeFile(file, before + "attempts=" + value + "\nother=" + value + '\n'));
        QCOMPARE(UserSettings(file).value(attempts, missing), expected);
        QVERIFY(writeFile(file, before + "attempts=" + value + "\nattempts=4\n"));
        QCOMPARE(UserSettings(file).value(attempts, missing), QVariant(QStringLiteral("4")));
    }
    UserSettings(file).setValue(attempts, 5);
    QCOMPARE(readFile(file), QByteArray("[General]\nattempts=3\nattempts=" + value + "\nattempts=5\n"));
    QVERIFY(writeFile(file, "a=1\nattempts=" + value + "\nb=2\n"));
    UserSettings(file).setValue(attempts, 5);
    QCOMPARE(readFile(file), QByteArray("a=1\nattempts=5\nb=2\n"));
}

void TstUserSettings::deepObject()
{
    // Nested lists, as deep as the file's size allows.
    const QByteArray deep =
        "attempts=@Variant(" + QByteArray("\0\0\0\t\0\0\0\1", 8).repeated(sizeLimit / 8 - 4) + ")\n";
    QVERIFY(writeFile(file, deep));
    QCOMPARE(UserSettings(file).value(attempts, missing), missing);
}

void TstUserSettings::longLists()
{
    const auto list = [](int size) -> QByteArray {
        return "attempts=" + QByteArray("a,").repeated(size - 1) + "a\n";
    };
    QVERIFY(writeFile(file, list(1000)));
    QCOMPARE(UserSettings(file).value(attempts, missing).toStringList().size(), 1000);
    QVERIFY(writeFile(file, list(1001)));
    QCOMPARE(UserSettings(file).value(attempts, missing), missing);
    QVERIFY(writeFile(file, list(sizeLimit / 2 - 10)));
    QCOMPARE(UserSettings(file).value(attempts, missing), missing);

    // Such a list can be written, but not read.
    QVERIFY(writeFile(file, "attempts=1\n"));
    QStringList texts;
    for (int i = 0; i < 1001; ++i)
        texts << QStringLiteral("a");
    UserSettings(file).setValue(attempts, texts);
    QCOMPARE(readFile(file), QByteArray(list(1001)).replace(",", ", "));
    QCOMPARE(UserSettings(file).value(attempts, missing), missing);
}

void TstUserSettings::leadingBlanks()
{
    // Read repeatedly, because reading must not change the kept content.
    QVERIFY(writeFile(file, " attempts=5\n  max-attempts=5\n \t [Other]\n attempts=6\n"));
    UserSettings settings(file);
    for (int i = 0; i < 3; ++i) {
        QCOMPARE(settings.value(attempts, 0), QVariant(QStringLiteral("5")));
        QCOMPARE(settings.value(maxAttempts, 0), QVariant(QStringLiteral("5")));
    }
}

void TstUserSettings::foreignLinesStay_data()
{
    QTest::addColumn<QByteArray>("before");
    QTest::addColumn<QByteArray>("after");
    const auto row = [](const char *name, const QByteArray &before, const QByteArray &after) {
        QTest::newRow(name) << before << after;
    };
    row("empty", "", "[General]\nattempts=9\n");
    row("line ends", "\n\n", "[General]\nattempts=9\n\n\n");
    row("replaced", "[General]\nattempts=3\n", "[General]\nattempts=9\n");
    row("replaced in its place", "[General]\n  a = 1 \n \tattempts = 3 ; x\n\n;c\n= =\n  b\t=2",
        "[General]\n  a = 1 \n \tattempts=9; x\n\n;c\n= =\n  b\t=2");
    row("without a line end", "attempts=3", "attempts=9");
    row("carriage returns", "[General]\r\na=1\r\nattempts=3\r\nb=2\r\n", "[General]\r\na=1\r\nattempts=9\r\nb=2\r\n");
    row("the last of several", "attempts=1\nattempts=2\n[Other]\nattempts=3\n",
        "attempts=1\nattempts=9\n[Other]\nattempts=3\n");
    row("in another general group", "[General]\n[Other]\nx=1\n[General]\nattempts=2\n",
        "[General]\n[Other]\nx=1\n[General]\nattempts=9\n");
    row("key by its codes", "%61ttempts=2\n", "attempts=9\n");
    row("key that ends with a code", "attempt%73=2\n", "attempts=9\n");
    row("key that ends with a long code", "attempt%U0073=2\n", "attempts=9\n");
    row("key with half a code", "attempt%U73=2\n", "[General]\nattempts=9\nattempt%U73=2\n");
    row("key with a wrong code", "%U61zzttempts=2\n", "[General]\nattempts=9\n%U61zzttempts=2\n");
    row("continued", "attempts=2 \\\n3\nb=1\n", "attempts=9\nb=1\n");
    row("open quote", "a=1\nattempts=\"2\nb=1\n", "a=1\nattempts=9");
    row("below the header", "[General]\na=1\n", "[General]\nattempts=9\na=1\n");
    row("below the last header", "[General]\na=1\n[Other]\n[general]\n\n",
        "[General]\na=1\n[Other]\n[general]\nattempts=9\n\n");
    row("header between blanks", "[ \t\v\f General\f\v\t ]\na=1\n", "[ \t\v\f General\f\v\t ]\nattempts=9\na=1\n");
    row("header with more on its line", "[General] a=1\n", "[General] a=1\nattempts=9\n");
    row("header with a comment", "[General];c\n", "[General]\nattempts=9;c\n");
    row("header of a carriage return", "[General]\r\na=1\r\n", "[General]\nattempts=9\r\na=1\r\n");
    row("header that ends with an escaped carriage return", "[General]\\\r;c\n", "[General]\\\r\rattempts=9;c\n");
    row("header that ends with an escaped line feed", "[General]\\\n;c\n", "[General]\\\n\nattempts=9;c\n");
    row("header without a line end", "[General]", "[General]\nattempts=9\n[General]");
    row("open header", "[General", "[General]\nattempts=9\n[General");
    row("header and backslash", "[General]\\", "[General]\nattempts=9\n[General]\\");
    row("header and open quote", "[General]\"\na=1\n", "[General]\nattempts=9\n[General]\"\na=1\n");
    row("last header without a line end", "[Other]\na=1\n[General]", "[General]\nattempts=9\n[Other]\na=1\n[General]");
    row("first header without a line end", "; c\n [Other]", "; c\n [General]\nattempts=9\n[Other]");
    row("other groups", "; c\n\n[Other]\nattempts=1\n", "; c\n\n[General]\nattempts=9\n[Other]\nattempts=1\n");
    row("keys without a group", "a=1\n[Other]\n", "[General]\nattempts=9\na=1\n[Other]\n");
    row("only a backslash", "\\", "[General]\nattempts=9\n\\");
    row("only a quote", "\"", "[General]\nattempts=9\n\"");
    row("noise", QByteArray("\0\xff=\x80\n\0", 6),
        QByteArray("[General]\nattempts=9\n") + QByteArray("\0\xff=\x80\n\0", 6));
    row("mark", "\xef\xbb\xbf", "\xef\xbb\xbf[General]\nattempts=9\n\xef\xbb\xbf");
    row("mark and key",
        "\xef\xbb\xbf"
        "attempts=1\n",
        "\xef\xbb\xbf[General]\nattempts=9\n\xef\xbb\xbf"
        "attempts=1\n");
    row("mark and header", "\xef\xbb\xbf[General]\na=\xc3\xa4\n", "\xef\xbb\xbf[General]\nattempts=9\na=\xc3\xa4\n");
    row("mark and other header", "\xef\xbb\xbf[Other]\na=1\n", "\xef\xbb\xbf[General]\nattempts=9\n[Other]\na=1\n");
}

void TstUserSettings::foreignLinesStay()
{
    QFETCH(QByteArray, before);
    QFETCH(QByteArray, after);

    QVERIFY(writeFile(file, before));
    UserSettings(file).setValue(attempts, 9);
    QCOMPARE(readFile(file), after);
    QCOMPARE(UserSettings(file).value(attempts, missing), QVariant(QStringLiteral("9")));
    QCOMPARE(oracle(after, missing), QVariant(QStringLiteral("9")));
    QCOMPARE(otherKeys(after), otherKeys(before));
}

void TstUserSettings::unchanged_data()
{
    QTest::addColumn<QByteArray>("content");
    QTest::addColumn<QVariant>("value");
    QTest::newRow("number") << QByteArray("attempts=3\n; a comment\n") << QVariant(3);
    QTest::newRow("text") << QByteArray("[General]\nattempts=3") << QVariant(QStringLiteral("3"));
    QTest::newRow("blanks") << QByteArray("  attempts \t= 3 \r\n") << QVariant(3);
    QTest::newRow("quotes") << QByteArray("attempts=\"\\x33\"\n") << QVariant(3);
    QTest::newRow("last of several") << QByteArray("attempts=1\nattempts=3\n") << QVariant(3);
    QTest::newRow("list") << QByteArray("attempts=a,b\n")
                          << QVariant(QStringList{QStringLiteral("a"), QStringLiteral("b")});
    QTest::newRow("no valid value") << QByteArray("attempts=@Invalid()\n") << QVariant();
}

void TstUserSettings::unchanged()
{
    QFETCH(QByteArray, content);
    QFETCH(QVariant, value);

    QVERIFY(writeFile(file, content));
    const QString before = portrait(file);
    UserSettings(file).value(attempts, 0);
    QCOMPARE(portrait(file), before);
    UserSettings(file).setValue(attempts, value);
    QCOMPARE(portrait(file), before);
    {
        UserSettings settings(file);
        settings.setValue(maxAttempts, 1);
        settings.setValue(attempts, value);
    }
    QVERIFY(portrait(file) != before);
    QCOMPARE(UserSettings(file).value(maxAttempts, 0), QVariant(QStringLiteral("1")));
}

void TstUserSettings::sizeIsBounded()
{
    const QByteArray full = "attempts=3\n" + QByteArray(sizeLimit - 11, 'x');
    QVERIFY(writeFile(file, full));
    QCOMPARE(UserSettings(file).value(attempts, missing), QVariant(QStringLiteral("3")));
    QVERIFY(writeFile(file, full + 'x'));
    QCOMPARE(UserSettings(file).value(attempts, missing), missing);
    UserSettings(file).setValue(attempts, 4);
    QCOMPARE(readFile(file), QByteArray(full + 'x'));

    // A value that could not be read back is not written.
    QVERIFY(writeFile(file, full));
    UserSettings(file).setValue(attempts, 10);
    QCOMPARE(readFile(file), full);
    UserSettings(file).setValue(attempts, 4);
    QCOMPARE(UserSettings(file).value(attempts, missing), QVariant(QStringLiteral("4")));
}

void TstUserSettings::timeIsBounded_data()
{
    QTest::addColumn<QByteArray>("content");
    const auto row = [](const char *name, const QByteArray &start, const QByteArray &piece) {
        QTest::newRow(name) << QByteArray(start + piece.repeated((sizeLimit - start.size()) / piece.size()));
    };
    row("line ends", "", "\n");
    row("comments", "", ";\n");
    row("open headers", "", "[\n");
    row("headers", "", "[general]\n");
    row("keys without a name", "", "=\n");
    row("almost the key", "", "%61%74%74%65%6d%70%74=\n");
    row("equal keys", "", "attempts=1\n");
    row("continuations", "", "\\\n");
    row("quotes", "", "\"");
    row("quotes in the value", "attempts=", "\"\"");
    row("codes in the value", "attempts=", "\\x41");
    row("blanks in the value", "attempts=", " ");
    row("list", "attempts=", ",");
    row("list of texts", "attempts=", "a,");
    row("list of marked texts", "attempts=", "@,");
    row("list of bytes", "attempts=", "@ByteArray(),");
    row("numbers", "attempts=@Rect(", " ");
    row("broken UTF-8", "\xef\xbb\xbf\nattempts=", "\xff\"");
    row("nested", "attempts=@Variant(", QByteArray("\0\0\0\t\0\0\0\1", 8));
}

void TstUserSettings::timeIsBounded()
{
    QFETCH(QByteArray, content);

    QVERIFY(writeFile(file, content));
    qint64 fastest = std::numeric_limits<qint64>::max();
    for (int i = 0; i < 10; ++i) {
        const qint64 start = processorTime();
        UserSettings(file).value(attempts, missing);
        fastest = qMin(fastest, processorTime() - start);
    }
    QVERIFY2(fastest < timeLimit, qPrintable(QString::number(fastest)));
}

void TstUserSettings::withoutTemporaryDirectory_data()
{
    QTest::addColumn<QByteArray>("options");
    QTest::addColumn<uint>("flags");
    QTest::addColumn<QByteArray>("variable");
    QTest::newRow("full") << QByteArray("size=4096") << 0u << QByteArray();
    QTest::newRow("read-only") << QByteArray() << uint(MS_RDONLY) << QByteArray();
    QTest::newRow("nowhere") << QByteArray() << 0u << QByteArray("/nowhere/at/all");
}

void TstUserSettings::withoutTemporaryDirectory()
{
    QFETCH(QByteArray, options);
    QFETCH(uint, flags);
    QFETCH(QByteArray, variable);

    MethodFixture f;
    QVERIFY(writeFile(currentPolicy, "[General]\nmax-attempts=5\n"));
    QVERIFY(writeFile(file, "[General]\nattempts=3\n"));
    QCOMPARE(mount("device", "/tmp", "tmpfs", flags, options.constData()), 0);
    const auto unmount = qScopeGuard([] { umount2("/tmp", MNT_DETACH); });
    const QByteArray formerVariable = qgetenv("TMPDIR");
    const auto restore = qScopeGuard(
        [&formerVariable] { formerVariable.isNull() ? qunsetenv("TMPDIR") : qputenv("TMPDIR", formerVariable); });
    if (!variable.isEmpty())
        QVERIFY(qputenv("TMPDIR", variable));
    else
        QVERIFY(!writeFile(QStringLiteral("/tmp/filler"), QByteArray(8192, 'x')));

    f.d->syncPolicy(currentPolicy, true);
    QCOMPARE(f.method.getOptionInternal(0, maxAttempts), QVariant(QStringLiteral("5")));
    f.d->child.userConfigPath = file;
    QCOMPARE(f.d->getChildAttempts(), QVariant(QStringLiteral("3")));
    UserSettings(file).setValue(attempts, 4);
    QCOMPARE(readFile(file), QByteArray("[General]\nattempts=4\n"));
}

QTEST_GUILESS_MAIN(TstUserSettings)
#include "tst_usersettings.moc"
