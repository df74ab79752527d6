// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#include "client/usersettings.h"
#include "filestatus.h"

#include <QDir>
#include <QFile>
#include <QScopeGuard>
#include <QSettings>
#include <QTest>

#include <csignal>

#include <sys/stat.h>
#include <unistd.h>

using namespace TestDevice;

namespace {

const QString file = sharedDirectory + QStringLiteral("/file.conf");
const QString outside = QStringLiteral("/srv/outside");
const QString attempts = QStringLiteral("attempts");
constexpr uint clientGroup = 960;

/// Those of this program; the system's other ones show through into the device.
QStringList temporaryFiles()
{
    return QDir(QDir::tempPath())
        .entryList({QCoreApplication::applicationName() + QStringLiteral("-*")},
                   QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot);
}

} // namespace

class TstUserSettings : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init();
    void cleanup();

    void read();
    void written();
    void areNotWrittenInVain();
    void ofUnreadableFile();
    void ofNoise();
    void thatWouldEndTheDaemon_data();
    void thatWouldEndTheDaemon();
    void leaveNothingBehind();
    void withoutRoomForACopy();
};

void TstUserSettings::init()
{
    reset();
    QVERIFY(QDir().mkpath(sharedDirectory));
    QVERIFY(QDir().mkpath(outside));
    // Whatever waits, waits no longer than this.
    alarm(60);
}

void TstUserSettings::cleanup()
{
    alarm(0);
    QVERIFY(QDir(outside).removeRecursively());
}

void TstUserSettings::read()
{
    QVERIFY(writeFile(file, "early=1\n[Other]\nattempts=5\n[General]\nattempts=3\ntext=\"a b\"\nlist=x, y\n"));
    const UserSettings settings(file);
    QCOMPARE(settings.value(attempts, 0), QVariant(QStringLiteral("3")));
    QCOMPARE(settings.value(QStringLiteral("early"), 0), QVariant(QStringLiteral("1")));
    QCOMPARE(settings.value(QStringLiteral("text"), 0), QVariant(QStringLiteral("a b")));
    QCOMPARE(settings.value(QStringLiteral("list"), 0),
             QVariant(QStringList{QStringLiteral("x"), QStringLiteral("y")}));
    QCOMPARE(settings.value(QStringLiteral("none"), 7), QVariant(7));
    QCOMPARE(settings.value(QStringLiteral("none"), QVariant()), QVariant());

    const UserSettings missing(outside + QStringLiteral("/missing"));
    QCOMPARE(missing.value(attempts, 7), QVariant(7));
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
        // Not before it is destroyed.
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
    QCOMPARE(statusOf(file).st_ino, before.st_ino);
    QCOMPARE(statusOf(file).st_mode, before.st_mode);
    QCOMPARE(statusOf(file).st_uid, alice);
    QCOMPARE(statusOf(file).st_gid, clientGroup);

    // A file without settings gets them.
    QVERIFY(writeFile(file, ""));
    UserSettings(file).setValue(attempts, 9);
    QCOMPARE(readFile(file), QByteArray("[General]\nattempts=9\n"));
}

void TstUserSettings::areNotWrittenInVain()
{
    QVERIFY(writeFile(file, "attempts=3\n; a comment\n"));
    const QString before = portrait(file);
    QCOMPARE(UserSettings(file).value(attempts, 0), QVariant(QStringLiteral("3")));
    QCOMPARE(portrait(file), before);
}

void TstUserSettings::ofUnreadableFile()
{
    // What is not known cannot be kept, so nothing is written.
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

    // The other way round the failure comes last.
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

void TstUserSettings::thatWouldEndTheDaemon_data()
{
    // A serialized list of 2^31 elements, and lists a hundred thousand deep.
    const QByteArray huge = "@Variant(\\0\\0\\0\\t\\x7f\\xff\\xff\\xff)";
    const QByteArray deep = "@Variant(" + QByteArray("\0\0\0\t\0\0\0\1", 8).repeated(100000) + ")";
    QTest::addColumn<QByteArray>("value");
    QTest::newRow("huge") << huge;
    QTest::newRow("deep") << deep;
    QTest::newRow("huge, quoted") << QByteArray('"' + huge + '"');
    QTest::newRow("huge, in pieces") << QByteArray("\"@Va\"\"ria\"\"nt(\\0\\0\\0\\t\\x7f\\xff\\xff\\xff)\"");
    QTest::newRow("huge, escaped") << QByteArray("\\x40Variant(\\0\\0\\0\\t\\x7f\\xff\\xff\\xff)");
    QTest::newRow("huge, in a list") << QByteArray("1, " + huge);
    QTest::newRow("huge, continued") << QByteArray("\\\n" + huge);
}

void TstUserSettings::thatWouldEndTheDaemon()
{
    QFETCH(QByteArray, value);

    QVERIFY(writeFile(file, "[General]\nother=" + value + "\nattempts=3\n"));
    QCOMPARE(UserSettings(file).value(attempts, 7), QVariant(QStringLiteral("3")));
    UserSettings(file).setValue(attempts, 4);
    QCOMPARE(UserSettings(file).value(attempts, 7), QVariant(QStringLiteral("4")));

    QVERIFY(writeFile(file, "[General]\nattempts=" + value + "\n"));
    QCOMPARE(UserSettings(file).value(attempts, 7), QVariant(7));
    UserSettings(file).setValue(attempts, 4);
    QVERIFY(readFile(file).contains("attempts=4\n"));
}

void TstUserSettings::leaveNothingBehind()
{
    const QStringList before = temporaryFiles();
    QVERIFY(writeFile(file, "attempts=3\n"));
    {
        UserSettings settings(file);
        settings.setValue(attempts, 4);
        QCOMPARE(settings.value(attempts, 0), QVariant(QStringLiteral("4")));
    }
    UserSettings(outside).setValue(attempts, 4);
    QCOMPARE(temporaryFiles(), before);
    QCOMPARE(QDir(sharedDirectory).entryList(QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot),
             QStringList{QStringLiteral("file.conf")});
}

void TstUserSettings::withoutRoomForACopy()
{
    const QByteArray before = qgetenv("TMPDIR");
    const QString directory = QDir::currentPath();
    const auto restore = qScopeGuard([&] {
        QDir::setCurrent(directory);
        before.isNull() ? qunsetenv("TMPDIR") : qputenv("TMPDIR", before);
    });
    QVERIFY(writeFile(file, "[General]\nattempts=3\n"));
    QVERIFY(QDir::setCurrent(sharedDirectory));
    // Not even root can make a directory there.
    QVERIFY(qputenv("TMPDIR", "/proc"));
    const QStringList root = QDir::root().entryList(QDir::AllEntries | QDir::Hidden | QDir::System);
    {
        UserSettings settings(file);
        QCOMPARE(settings.value(attempts, 7), QVariant(7));
        settings.setValue(attempts, 4);
    }
    QCOMPARE(readFile(file), QByteArray("[General]\nattempts=3\n"));
    QCOMPARE(QDir::root().entryList(QDir::AllEntries | QDir::Hidden | QDir::System), root);
    QCOMPARE(QDir(sharedDirectory).entryList(QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot),
             QStringList{QStringLiteral("file.conf")});
}

QTEST_GUILESS_MAIN(TstUserSettings)
#include "tst_usersettings.moc"
