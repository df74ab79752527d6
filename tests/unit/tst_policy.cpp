// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#include "plugin/methodkavet.h"
#include "plugin/methodkavetprivate.h"
#include "settings/constants.h"
#include "support/logcapture.h"
#include "support/recordingdaemon.h"
#include "support/testdevice.h"

#include <QDataStream>
#include <QDir>
#include <QFile>
#include <QProcess>
#include <QScopeGuard>
#include <QTest>

#include <cstdio>
#include <functional>
#include <memory>

#include <fcntl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

using Call = RecordingDaemon::Call;
using Calls = QVector<Call>;
using Setup = std::function<bool(const QString &path)>;

const QString maxAttempts = QStringLiteral("max-attempts");
const QString marker = QStringLiteral("/var/lib/authd/methods//kavet/current.conf");

const QString systemLimit = QStringLiteral("/var/lib/authd/methods/kavet/system-limit.conf");

Call stored(const QVariant &value)
{
    return {QStringLiteral("optionChanged"), {0u, maxAttempts, value, false}};
}

QString text(const char *text)
{
    return QString::fromLatin1(text);
}

bool writePolicy(const QString &path, const char *max)
{
    return TestDevice::writeSetting(path, maxAttempts, text(max));
}

bool writePolicyOfAlice(const char *max)
{
    return writePolicy(TestDevice::currentPolicy, max)
           && TestDevice::setOwner(TestDevice::currentPolicy, TestDevice::alice, TestDevice::alice);
}

/// The method, its private object, and its calls to the daemon after construction.
struct Fixture
{
    RecordingDaemon daemon;
    MethodKavet method;
    MethodKavetPrivate *const d = method.findChild<MethodKavetPrivate *>();

    Fixture() { method.setNotificator(&daemon); }
    QVariant max() { return method.getOptionInternal(0, maxAttempts); }
};

/// A method with another name, but with the options of "kavet".
class RenamedMethod : public MethodKavet
{
public:
    QString name() const override { return QStringLiteral("renamed"); }
};

/// A list in a list in a list ..., as QSettings writes it.
QByteArray nested(const char *form, int version, int depth)
{
    QByteArray bytes;
    QDataStream stream(&bytes, QIODevice::WriteOnly);
    stream.setVersion(version);
    for (int i = 0; i < depth; ++i) {
        stream << quint32(QMetaType::QVariantList);
        if (version >= QDataStream::Qt_4_2)
            stream << quint8(0);
        stream << quint32(1);
    }
    QByteArray escaped;
    for (const char byte : qAsConst(bytes))
        escaped.append("\\x").append(QByteArray::number(uchar(byte), 16));
    return form + escaped + ')';
}

/// A list that claims two billion elements.
QByteArray endless()
{
    return "@Variant(\\0\\0\\0\\x9\\x7f\\xff\\xff\\xff)";
}

QByteArray noise(int size)
{
    QByteArray noise(size, '\0');
    quint32 state = 12345;
    for (char &byte : noise) {
        state = state * 1664525 + 1013904223;
        byte = char(state >> 24);
    }
    return noise;
}

} // namespace

Q_DECLARE_METATYPE(Setup)

class TstPolicy : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init() { TestDevice::reset(); }

    void markerPath()
    {
        QCOMPARE(Constants::Paths::methodSettings.arg(Constants::Paths::methods, Constants::Method::name), marker);
    }

    void force_data()
    {
        QTest::addColumn<QString>("path");
        QTest::addColumn<QString>("kept");
        QTest::addColumn<bool>("force");
        QTest::addColumn<bool>("takes");
        const QString none;
        const QString otherMethod = text("/var/lib/authd/methods/other/current.conf");
        const QString otherFile = text("/var/lib/authd/methods/kavet/other.conf");
        const QString directoryAbove = text("/var/lib/authd/methods/current.conf");
        for (const QString &path : {TestDevice::packagedPolicy, TestDevice::currentPolicy}) {
            const QByteArray name = path.toLatin1();
            QTest::addRow("%s, no marker", name.constData()) << path << none << false << true;
            QTest::addRow("%s, marker", name.constData()) << path << marker << false << false;
            QTest::addRow("%s, other method", name.constData()) << path << otherMethod << false << true;
            QTest::addRow("%s, other file", name.constData()) << path << otherFile << false << true;
            QTest::addRow("%s, file above", name.constData()) << path << directoryAbove << false << true;
            QTest::addRow("%s, forced, no marker", name.constData()) << path << none << true << true;
            QTest::addRow("%s, forced, marker", name.constData()) << path << marker << true << true;
        }
    }
    void force()
    {
        QFETCH(QString, path);
        QFETCH(QString, kept);
        QFETCH(bool, force);
        QFETCH(bool, takes);
        Fixture fixture;
        QVERIFY(writePolicy(path, "5"));
        const QByteArray policy = TestDevice::readFile(path);
        const QByteArray settings = "[kavet]\nother=1\n";
        if (!kept.isNull())
            QVERIFY(TestDevice::writeFile(kept, settings));

        const LogCapture log;
        fixture.d->syncPolicy(path, force);
        QCOMPARE(fixture.daemon.calls, takes ? Calls{stored(text("5"))} : Calls());
        QCOMPARE(fixture.max(), takes ? QVariant(text("5")) : QVariant(0));
        QCOMPARE(TestDevice::readFile(path), policy);
        if (!takes)
            QCOMPARE(TestDevice::readFile(kept), settings);
        QVERIFY(log.lines().isEmpty());
    }

    void markerOfAnyKind()
    {
        Fixture fixture;
        QVERIFY(writePolicy(TestDevice::packagedPolicy, "5"));
        QVERIFY(QDir().mkpath(marker));
        fixture.d->syncPolicy(TestDevice::packagedPolicy, false);
        QVERIFY(QDir().rmdir(marker));
        QVERIFY(TestDevice::writeFile(marker, {}));
        fixture.d->syncPolicy(TestDevice::packagedPolicy, false);
        QCOMPARE(fixture.daemon.calls, Calls());

        // A dangling link does not count as a file.
        QVERIFY(QFile::remove(marker));
        QVERIFY(QFile::link(text("/nowhere"), marker));
        fixture.d->syncPolicy(TestDevice::packagedPolicy, false);
        QVERIFY(QFile::remove(marker));
        fixture.d->syncPolicy(TestDevice::packagedPolicy, false);
        QCOMPARE(fixture.daemon.calls.constLast(), stored(text("5")));
    }

    void markerOfTheMethodsName()
    {
        RenamedMethod method;
        RecordingDaemon daemon;
        method.setNotificator(&daemon);
        auto *d = method.findChild<MethodKavetPrivate *>();
        QVERIFY(writePolicy(TestDevice::packagedPolicy, "5"));
        QVERIFY(TestDevice::writeFile(text("/var/lib/authd/methods/renamed/current.conf"), {}));
        d->syncPolicy(TestDevice::packagedPolicy, false);
        QCOMPARE(daemon.calls, Calls());
        QVERIFY(QFile::remove(text("/var/lib/authd/methods/renamed/current.conf")));
        QVERIFY(TestDevice::writeFile(marker, {}));
        d->syncPolicy(TestDevice::packagedPolicy, false);
        QCOMPARE(daemon.calls, Calls{stored(text("5"))});
    }

    void seedsOnce()
    {
        // The stored limit marks that the policy has been applied.
        Fixture fixture;
        QVERIFY(!QFile::exists(marker));
        QVERIFY(writePolicy(TestDevice::packagedPolicy, "5"));
        fixture.d->syncPolicy(TestDevice::packagedPolicy, false);
        QVERIFY(QFile::exists(marker));
        QVERIFY(writePolicy(TestDevice::packagedPolicy, "12"));
        fixture.d->syncPolicy(TestDevice::packagedPolicy, false);
        QCOMPARE(fixture.daemon.calls, Calls{stored(text("5"))});
    }

    void values_data()
    {
        QTest::addColumn<QByteArray>("content");
        QTest::addColumn<QVariant>("value"); // invalid: no value is stored
        const auto general = [](const char *line) -> QByteArray {
            return QByteArray("[General]\n") + line + '\n';
        };
        QTest::newRow("5") << general("max-attempts=5") << QVariant(text("5"));
        QTest::newRow("0") << general("max-attempts=0") << QVariant(text("0"));
        QTest::newRow("-1") << general("max-attempts=-1") << QVariant(text("-1"));
        QTest::newRow("abc") << general("max-attempts=abc") << QVariant(text("abc"));
        QTest::newRow("quoted") << general("max-attempts=\"5\"") << QVariant(text("5"));
        QTest::newRow("quoted comma") << general("max-attempts=\"1, 2\"") << QVariant(text("1, 2"));
        QTest::newRow("spaces") << general("max-attempts  = 5") << QVariant(text("5"));
        QTest::newRow("nothing") << general("max-attempts=") << QVariant(text(""));
        QTest::newRow("list") << general("max-attempts=3, 4") << QVariant(QStringList{text("3"), text("4")});
        QTest::newRow("last wins") << general("max-attempts=3\nmax-attempts=4") << QVariant(text("4"));
        QTest::newRow("no line end") << QByteArray("[General]\nmax-attempts=6") << QVariant(text("6"));
        QTest::newRow("carriage return") << QByteArray("[General]\r\nmax-attempts=6\r\n") << QVariant(text("6"));
        QTest::newRow("no group") << QByteArray("max-attempts=6\n") << QVariant(text("6"));
        QTest::newRow("small letters") << QByteArray("[general]\nmax-attempts=6\n") << QVariant(text("6"));
        QTest::newRow("at sign") << general("max-attempts=@@5") << QVariant(text("@5"));
        QTest::newRow("bytes") << general("max-attempts=@ByteArray(5)") << QVariant(QByteArray("5"));
        QTest::newRow("no valid value") << general("max-attempts=@Invalid()") << QVariant();
        QTest::newRow("no key") << general("attempts=5") << QVariant(0);
        QTest::newRow("similar keys") << general("max-attempts2=5\nmax-attempt=5\nMax-Attempts=5\nx-max-attempts=5")
                                      << QVariant(0);
        QTest::newRow("similar key later")
            << general("max-attempts=3\nmax-attempts2=5\nmax-attempts 2=6") << QVariant(text("3"));
        QTest::newRow("other group") << QByteArray("[Other]\nmax-attempts=5\n") << QVariant(0);
        QTest::newRow("group of that name") << QByteArray("[%General]\nmax-attempts=5\n") << QVariant(0);
        QTest::newRow("comment") << general("; max-attempts=5") << QVariant(0);
        QTest::newRow("several groups") << QByteArray(
            "[A]\nmax-attempts=1\n[General]\nmax-attempts=3\n[B]\nmax-attempts=2\n")
                                        << QVariant(text("3"));
        QTest::newRow("empty") << QByteArray("") << QVariant(0);
        QTest::newRow("line ends") << QByteArray("\n\n\n") << QVariant(0);
    }
    void values()
    {
        QFETCH(QByteArray, content);
        QFETCH(QVariant, value);
        // Both policies are read in the same way, although one of them belongs to the user.
        for (const QString &path : {TestDevice::packagedPolicy, TestDevice::currentPolicy}) {
            Fixture fixture;
            QVERIFY(fixture.method.setOptionInternal(0, maxAttempts, 99));
            fixture.daemon.calls.clear();
            QVERIFY(TestDevice::writeFile(path, content));
            fixture.d->syncPolicy(path, true);
            const QVariant result = fixture.max();
            if (value.isValid()) {
                QCOMPARE(fixture.daemon.calls.size(), 1);
                QCOMPARE(result.userType(), value.userType());
                QCOMPARE(result, value);
            } else {
                QCOMPARE(fixture.daemon.calls, Calls());
                QCOMPARE(result, QVariant(99));
            }
            // Otherwise the fixture's destructor would apply it.
            QVERIFY(QFile::remove(path));
        }
    }

    void hostile_data()
    {
        QTest::addColumn<QByteArray>("content");
        QTest::addColumn<QVariant>("value");
        const QByteArray general = "[General]\n";
        const QByteArray key = "max-attempts=";
        const QByteArray good = "max-attempts=5\n";
        const auto before = [&](const QByteArray &value) -> QByteArray {
            return general + "x=" + value + '\n' + good;
        };
        const QVariant five(text("5"));
        const QVariant none(0);
        QTest::newRow("other key endless") << before(endless()) << five;
        QTest::newRow("other key in a list") << before("a, " + endless()) << five;
        QTest::newRow("other key nested") << before(nested("@Variant(", QDataStream::Qt_4_0, 1500)) << five;
        QTest::newRow("other key date nested") << before(nested("@DateTime(", QDataStream::Qt_5_6, 1500)) << five;
        QTest::newRow("endless") << general + key + endless() + '\n' << none;
        QTest::newRow("endless in a list") << general + key + "1, " + endless() + '\n' << none;
        QTest::newRow("nested") << general + key + nested("@Variant(", QDataStream::Qt_4_0, 1500) + '\n' << none;
        QTest::newRow("nested date") << general + key + nested("@DateTime(", QDataStream::Qt_5_6, 1500) + '\n' << none;
        QTest::newRow("spelt in escapes") << general + key + "\\x40Variant(\\0\\0\\0\\x9\\x7f\\xff\\xff\\xff)\n"
                                          << none;
        QTest::newRow("spelt in quotes") << general + key + "@Var\"\"iant(" + QByteArray("\0\0\0\x9\x7f\xff\xff\xff", 8)
                                                + ")\n"
                                         << none;
        QTest::newRow("spelt plainly") << general + key + "@Variant(" + QByteArray("\0\0\0\x9\x7f\xff\xff\xff", 8)
                                              + ")\n"
                                       << none;
        QTest::newRow("date spelt plainly")
            << general + key + "@DateTime(" + QByteArray("\0\0\0\x9\0\x7f\xff\xff\xff", 9) + ")\n"
            << none;
        QTest::newRow("number in a variant") << general + key + "@Variant(\\0\\0\\0\\x2\\0\\0\\0\\x5)\n" << none;
        QTest::newRow("long line") << general + key + QByteArray(1000000, '7') + '\n' << none;
        QTest::newRow("long list") << general + key + QByteArray("1, ").repeated(20000) + "1\n" << none;
        QTest::newRow("binary") << noise(60000) << none;
        QTest::newRow("binary, then the key")
            << noise(60000).replace('[', "").replace('"', "") + '\n' + general + good << five;
        QTest::newRow("zeros") << QByteArray(60000, '\0') << none;
        QTest::newRow("large without the key") << general + QByteArray("key=value\n").repeated(6000) << none;
        QTest::newRow("large with the key") << general + QByteArray("key=value\n").repeated(6000) + good << five;
        QTest::newRow("large line") << general + QByteArray(60000, 'x') + '\n' + good << five;
        QTest::newRow("huge noise") << noise(10 * 1024 * 1024) << none;
        QTest::newRow("huge with the key") << general + good + QByteArray("key=value\n").repeated(1024 * 1024) << none;
        QTest::newRow("just too large") << general + good + QByteArray(64 * 1024, '\n') << none;
        QTest::newRow("open quote") << general + key + "\"5\n" << QVariant(text("5\n"));
        QTest::newRow("many groups") << QByteArray("[a]\n").repeated(15000) + general + good << five;
        QTest::newRow("broken group") << QByteArray("[General\nmax-attempts=5\n") << five;
    }
    void hostile()
    {
        QFETCH(QByteArray, content);
        QFETCH(QVariant, value);
        Fixture fixture;
        QVERIFY(fixture.method.setOptionInternal(0, maxAttempts, 99));
        fixture.daemon.calls.clear();
        QVERIFY(TestDevice::writeFile(TestDevice::currentPolicy, content));
        QVERIFY(TestDevice::setOwner(TestDevice::currentPolicy, TestDevice::alice, TestDevice::alice));
        fixture.d->syncPolicy(TestDevice::currentPolicy, true);
        QCOMPARE(fixture.max().userType(), value.userType());
        QCOMPARE(fixture.max(), value);
        QCOMPARE(TestDevice::readFile(TestDevice::currentPolicy), content);
    }

    void hugePackagedPolicy()
    {
        const QByteArray content = "[General]\n" + QByteArray("key=value\n").repeated(1024 * 1024);
        Fixture fixture;
        QVERIFY(TestDevice::writeFile(TestDevice::packagedPolicy, content + "max-attempts=5\n"));
        fixture.d->syncPolicy(TestDevice::packagedPolicy, true);
        QCOMPARE(fixture.max(), QVariant(text("5")));
        QVERIFY(TestDevice::writeFile(TestDevice::packagedPolicy, content));
        fixture.d->syncPolicy(TestDevice::packagedPolicy, true);
        QCOMPARE(fixture.max(), QVariant(0));
    }

    void notAFile_data()
    {
        QTest::addColumn<Setup>("setup");
        QTest::newRow("missing") << Setup([](const QString &) { return true; });
        QTest::newRow("FIFO") << Setup([](const QString &path) { return mkfifo(qPrintable(path), 0644) == 0; });
        QTest::newRow("directory") << Setup([](const QString &path) { return QDir().mkdir(path); });
        QTest::newRow("link to nowhere") << Setup(
            [](const QString &path) { return QFile::link(text("/nowhere"), path); });
        QTest::newRow("link to itself") << Setup([](const QString &path) { return QFile::link(path, path); });
        QTest::newRow("device") << Setup([](const QString &path) { return QFile::link(text("/dev/zero"), path); });
        QTest::newRow("unreadable") << Setup([](const QString &path) {
            // Not even root can read this file.
            return QFile::link(text("/proc/self/mem"), path);
        });
    }
    void notAFile()
    {
        QFETCH(Setup, setup);
        for (const QString &path : {TestDevice::packagedPolicy, TestDevice::currentPolicy}) {
            Fixture fixture;
            QVERIFY(fixture.method.setOptionInternal(0, maxAttempts, 99));
            fixture.daemon.calls.clear();
            QVERIFY(QDir().mkpath(QFileInfo(path).path()));
            QVERIFY(setup(path));
            const LogCapture log;
            fixture.d->syncPolicy(path, true);
            QCOMPARE(fixture.daemon.calls, Calls{stored(0)});
            QCOMPARE(fixture.max().userType(), int(QMetaType::Int));
            QCOMPARE(fixture.max(), QVariant(0));
            QVERIFY(log.lines().isEmpty());
        }
    }

    void links()
    {
        // The packaged policy may be a symbolic link, but the user's may not.
        Fixture fixture;
        const QString target = text("/srv/shared/policy.conf");
        QVERIFY(writePolicy(target, "5"));
        QVERIFY(QDir().mkpath(QFileInfo(TestDevice::packagedPolicy).path()));
        QVERIFY(QDir().mkpath(QFileInfo(TestDevice::currentPolicy).path()));
        QVERIFY(QFile::link(target, TestDevice::packagedPolicy));
        QVERIFY(QFile::link(target, TestDevice::currentPolicy));
        fixture.d->syncPolicy(TestDevice::packagedPolicy, false);
        QCOMPARE(fixture.daemon.calls, Calls{stored(text("5"))});
        fixture.d->syncPolicy(TestDevice::currentPolicy, true);
        QCOMPARE(fixture.daemon.calls.constLast(), stored(0));

        QVERIFY(QFile::remove(TestDevice::currentPolicy));
        QCOMPARE(link(qPrintable(target), qPrintable(TestDevice::currentPolicy)), 0);
        fixture.d->syncPolicy(TestDevice::currentPolicy, true);
        QCOMPARE(fixture.daemon.calls.constLast(), stored(0));
        QVERIFY(QFile::remove(target));
        fixture.d->syncPolicy(TestDevice::currentPolicy, true);
        QCOMPARE(fixture.daemon.calls.constLast(), stored(text("5")));
    }

    void notReadableByItsOwner()
    {
        Fixture fixture;
        QVERIFY(writePolicy(TestDevice::currentPolicy, "5"));
        QVERIFY(TestDevice::setOwner(TestDevice::currentPolicy, TestDevice::alice, TestDevice::alice));
        QVERIFY(QFile::setPermissions(TestDevice::currentPolicy, {}));
        fixture.d->syncPolicy(TestDevice::currentPolicy, true);
        QCOMPARE(fixture.max(), QVariant(0));
        QVERIFY(QFile::setPermissions(TestDevice::currentPolicy, QFile::ReadOwner));
        fixture.d->syncPolicy(TestDevice::currentPolicy, true);
        QCOMPARE(fixture.max(), QVariant(text("5")));
    }

    // The first thing that the method stores would be a value that the store refuses.
    void refusedByTheStore()
    {
        QVERIFY(TestDevice::writeFile(TestDevice::currentPolicy, "max-attempts=" + QByteArray(60000, '7')));
        Fixture fixture;
        fixture.d->syncPolicy(TestDevice::currentPolicy, true);
        QVERIFY(fixture.daemon.calls.isEmpty());
        QVERIFY(!QFile::exists(marker));
        // Root's limit is not taken for that policy's.
        QVERIFY(fixture.method.setOptionInternal(0, maxAttempts, 3));
        fixture.d->currentUid = TestDevice::alice;
        QVERIFY(QFile::remove(TestDevice::currentPolicy));
        QVERIFY(fixture.d->launchChild());
        QCOMPARE(fixture.max(), QVariant(3));
    }

    void anyPath()
    {
        Fixture fixture;
        const QString path = text("/tmp/another.conf");
        QVERIFY(writePolicy(path, "8"));
        fixture.d->syncPolicy(path, false);
        QCOMPARE(fixture.daemon.calls, Calls{stored(text("8"))});
        QVERIFY(QFile::remove(path));
    }

    void rewrittenWhileRead()
    {
        Fixture fixture;
        QVERIFY(writePolicy(TestDevice::currentPolicy, "3"));
        // The policy is rewritten in place, replaced, and removed for a moment.
        QProcess writer;
        writer.start(text("/bin/sh"),
                     {text("-c"),
                      text("while :; do printf '[General]\\nmax-attempts=3\\n' > \"$1\";"
                           " printf '[General]\\nmax-attempts=12345\\n' > \"$1.new\"; mv \"$1.new\" \"$1\";"
                           " rm \"$1\"; printf '[General]\\nmax-attempts=3\\n' > \"$1\"; done"),
                      text("sh"), TestDevice::currentPolicy});
        QVERIFY(writer.waitForStarted());

        // Every change of the value that was read is reported.
        const QVariantList possible = {0, text("3"), text("12345")};
        QVariantList seen;
        int reads = 0;
        const auto read = [&] {
            for (int i = 0; i < 50; ++i, ++reads) {
                fixture.d->syncPolicy(TestDevice::currentPolicy, true);
                const QVariant value = fixture.max();
                if (!seen.contains(value))
                    seen << value;
            }
            return reads >= 500 && seen.contains(possible.at(1)) && seen.contains(possible.at(2));
        };
        QTRY_VERIFY_WITH_TIMEOUT(read(), 60000);
        for (const QVariant &value : qAsConst(seen))
            QVERIFY2(possible.contains(value), qPrintable(value.toString()));
        writer.kill();
        writer.waitForFinished();
    }

    // Which event applies which policy.

    void construction_data()
    {
        QTest::addColumn<bool>("packaged");
        QTest::addColumn<bool>("marked");
        QTest::addColumn<bool>("manifest");
        QTest::addColumn<QVariant>("max");
        QTest::newRow("packaged policy") << true << false << true << QVariant(text("5"));
        QTest::newRow("marker") << true << true << true << QVariant(0);
        QTest::newRow("no packaged policy") << false << false << true << QVariant(0);
        QTest::newRow("no manifest") << true << false << false << QVariant(0);
    }
    void construction()
    {
        QFETCH(bool, packaged);
        QFETCH(bool, marked);
        QFETCH(bool, manifest);
        QFETCH(QVariant, max);
        if (packaged)
            QVERIFY(writePolicy(TestDevice::packagedPolicy, "5"));
        if (marked)
            QVERIFY(TestDevice::writeFile(marker, {}));
        if (!manifest)
            QVERIFY(QFile::remove(TestDevice::manifest));
        // The current policy is applied only when a session starts.
        QVERIFY(writePolicy(TestDevice::currentPolicy, "7"));

        auto method = std::make_unique<MethodKavet>();
        QCOMPARE(method->getOptionInternal(0, maxAttempts).userType(), max.userType());
        QCOMPARE(method->getOptionInternal(0, maxAttempts), max);
        QCOMPARE(QFile::exists(marker), marked || max.toInt() != 0);
    }

    void destruction_data()
    {
        QTest::addColumn<bool>("current");
        QTest::addColumn<bool>("manifest");
        QTest::newRow("current policy") << true << true;
        QTest::newRow("no current policy") << false << true;
        QTest::newRow("no manifest") << true << false;
    }
    void destruction()
    {
        QFETCH(bool, current);
        QFETCH(bool, manifest);
        if (!manifest)
            QVERIFY(QFile::remove(TestDevice::manifest));
        RecordingDaemon daemon;
        auto method = std::make_unique<MethodKavet>();
        QVERIFY(method->setOptionInternal(0, maxAttempts, 4));
        method->setNotificator(&daemon);
        QVERIFY(writePolicy(TestDevice::packagedPolicy, "5"));
        if (current)
            QVERIFY(writePolicy(TestDevice::currentPolicy, "7"));
        method.reset();
        QCOMPARE(daemon.calls, current ? Calls{stored(text("7"))} : Calls());
        // The daemon finds the stored limit at its next start.
        QVERIFY(QFile::remove(TestDevice::packagedPolicy));
        QCOMPARE(MethodKavet().getOptionInternal(0, maxAttempts), current ? QVariant(text("7")) : QVariant(4));
    }

    void sessionStart_data()
    {
        QTest::addColumn<bool>("packaged");
        QTest::addColumn<bool>("current");
        QTest::addColumn<bool>("marked");
        QTest::addColumn<QStringList>("values");
        QTest::newRow("packaged policy") << true << false << false << QStringList{text("5")};
        QTest::newRow("current policy") << false << true << false << QStringList{text("7")};
        QTest::newRow("packaged first, current second") << true << true << false << QStringList{text("5"), text("7")};
        QTest::newRow("packaged policy, marker") << true << false << true << QStringList{};
        QTest::newRow("current policy, marker") << false << true << true << QStringList{text("7")};
        QTest::newRow("both, marker") << true << true << true << QStringList{text("7")};
        QTest::newRow("neither") << false << false << false << QStringList{};
    }
    void sessionStart()
    {
        QFETCH(bool, packaged);
        QFETCH(bool, current);
        QFETCH(bool, marked);
        QFETCH(QStringList, values);
        for (const bool manageClient : {false, true}) {
            TestDevice::reset();
            Fixture fixture;
            if (packaged)
                QVERIFY(writePolicy(TestDevice::packagedPolicy, "5"));
            if (current)
                QVERIFY(writePolicy(TestDevice::currentPolicy, "7"));
            if (marked)
                QVERIFY(TestDevice::writeFile(marker, {}));

            fixture.method.handleUserSessionTriggered(TestDevice::alice, true, manageClient);
            Calls expected;
            for (const QString &value : values)
                expected << stored(value);
            QCOMPARE(fixture.daemon.calls, expected);
            QCOMPARE(fixture.d->watcher.files(), current ? QStringList{TestDevice::currentPolicy} : QStringList());

            // The end of a session does not apply the policy.
            fixture.daemon.calls.clear();
            fixture.method.handleUserSessionTriggered(TestDevice::alice, false, manageClient);
            QCOMPARE(fixture.daemon.calls, Calls());
        }
    }

    void sharedDirectoryChange()
    {
        QVERIFY(QDir().mkpath(TestDevice::sharedDirectory));
        Fixture fixture;
        QVERIFY(TestDevice::writeFile(marker, {}));
        QVERIFY(writePolicy(TestDevice::packagedPolicy, "5"));
        QVERIFY(TestDevice::writeFile(TestDevice::sharedDirectory + text("/other"), {}));
        QCOMPARE(fixture.d->watcher.files(), QStringList());

        QVERIFY(writePolicy(TestDevice::sharedDirectory + text("/new"), "7"));
        QVERIFY(QFile::rename(TestDevice::sharedDirectory + text("/new"), TestDevice::currentPolicy));
        QTRY_COMPARE(fixture.max(), QVariant(text("7")));
        QCOMPARE(fixture.daemon.calls.constFirst(), stored(text("7")));
        QCOMPARE(fixture.d->watcher.files(), QStringList{TestDevice::currentPolicy});

        // A policy that is removed and created again is followed again.
        QVERIFY(QFile::remove(TestDevice::currentPolicy));
        QTRY_COMPARE(fixture.d->watcher.files(), QStringList());
        QVERIFY(writePolicy(TestDevice::currentPolicy, "8"));
        QTRY_COMPARE(fixture.max(), QVariant(text("8")));
        QTRY_COMPARE(fixture.d->watcher.files(), QStringList{TestDevice::currentPolicy});
        QVERIFY(writePolicy(TestDevice::currentPolicy, "9"));
        QTRY_COMPARE(fixture.max(), QVariant(text("9")));
    }

    void noPolicyInTheSharedDirectory()
    {
        Fixture fixture;
        fixture.d->handleChildSharedDirectory(TestDevice::sharedDirectory);
        QCOMPARE(fixture.daemon.calls, Calls());
        QCOMPARE(fixture.d->watcher.files(), QStringList());
    }

    void fileChange()
    {
        QVERIFY(writePolicy(TestDevice::currentPolicy, "7"));
        Fixture fixture;
        QVERIFY(TestDevice::writeFile(marker, {}));
        // Only the file itself is watched.
        fixture.d->watcher.removePaths(fixture.d->watcher.directories());
        QVERIFY(fixture.d->watcher.addPath(TestDevice::currentPolicy));
        QCOMPARE(fixture.daemon.calls, Calls());

        QVERIFY(writePolicy(TestDevice::currentPolicy, "3"));
        QTRY_COMPARE(fixture.max(), QVariant(text("3")));
        QVERIFY(writePolicy(TestDevice::currentPolicy, "4"));
        QTRY_COMPARE(fixture.max(), QVariant(text("4")));
    }

    void fileChangeOfAnother()
    {
        Fixture fixture;
        QVERIFY(writePolicy(TestDevice::packagedPolicy, "5"));
        QVERIFY(writePolicy(TestDevice::currentPolicy, "7"));
        fixture.d->handleChildFileChanged(TestDevice::packagedPolicy);
        fixture.d->handleChildFileChanged(TestDevice::currentPolicy + text(".new"));
        fixture.d->handleChildFileChanged(QString());
        QCOMPARE(fixture.daemon.calls, Calls());
        fixture.d->handleChildFileChanged(TestDevice::currentPolicy);
        QCOMPARE(fixture.daemon.calls, Calls{stored(text("7"))});

        // Without the policy, the daemon has no limit.
        QVERIFY(QFile::remove(TestDevice::currentPolicy));
        fixture.d->handleChildFileChanged(TestDevice::currentPolicy);
        QCOMPARE(fixture.daemon.calls.constLast(), stored(0));
    }

    void policyOfAnotherUser()
    {
        // Alice's policy from before bob's turn, in a directory that still belongs to her.
        QVERIFY(TestDevice::writeFile(marker, {}));
        const auto alices = [](const char *max) {
            return writePolicy(TestDevice::currentPolicy, max)
                   && TestDevice::setOwner(TestDevice::currentPolicy, TestDevice::alice, TestDevice::alice)
                   && TestDevice::setOwner(TestDevice::sharedDirectory, TestDevice::alice, TestDevice::alice);
        };
        QVERIFY(alices("1"));
        RecordingDaemon daemon;
        {
            MethodKavet method;
            auto *d = method.findChild<MethodKavetPrivate *>();
            QVERIFY(method.setOptionInternal(0, maxAttempts, 8));
            method.setNotificator(&daemon);
            // Before the first session, no user's policy counts.
            QVERIFY(TestDevice::setOwner(TestDevice::currentPolicy, 1, 1));
            d->handleChildFileChanged(TestDevice::currentPolicy);
            QCOMPARE(daemon.calls, Calls());
            QVERIFY(alices("1"));
            method.handleUserSessionTriggered(TestDevice::bob, true, true);
            d->handleChildSharedDirectory(TestDevice::sharedDirectory);
            d->handleChildFileChanged(TestDevice::currentPolicy);
            QCOMPARE(d->watcher.files(), QStringList());
            // Her own session, and her own client.
            method.handleUserSessionTriggered(TestDevice::alice, true, false);
            QCOMPARE(daemon.calls, Calls{stored(text("1"))});
            QCOMPARE(d->watcher.files(), QStringList{TestDevice::currentPolicy});
            // The policy is followed for her but not for him.
            method.handleUserSessionTriggered(TestDevice::bob, true, false);
            QCOMPARE(d->watcher.files(), QStringList());
            // Nor is it followed any longer when there is a link of another user in its place.
            method.handleUserSessionTriggered(TestDevice::alice, true, false);
            QCOMPARE(d->watcher.files(), QStringList{TestDevice::currentPolicy});
            QVERIFY(QFile::remove(TestDevice::currentPolicy));
            QVERIFY(TestDevice::leaveLink(TestDevice::currentPolicy, TestDevice::bob));
            method.handleUserSessionTriggered(TestDevice::alice, true, false);
            QCOMPARE(d->watcher.files(), QStringList());
            QVERIFY(QFile::remove(TestDevice::currentPolicy));
            d->child.clientRunning = true;
            d->child.uid = TestDevice::alice;
            QVERIFY(alices("2"));
            method.handleUserSessionTriggered(TestDevice::bob, true, false);
            QVERIFY(alices("3"));
            d->handleChildFileChanged(TestDevice::currentPolicy);
            QVERIFY(alices("4"));
            d->handleChildSharedDirectory(TestDevice::sharedDirectory);
            QCOMPARE(daemon.calls, (Calls{stored(text("1")), stored(text("2")), stored(text("3")), stored(text("4"))}));
            // Bob's turn.
            daemon.calls.clear();
            d->child.clientRunning = false;
            QVERIFY(alices("5"));
            method.authenticate(TestDevice::bob, {});
            QTRY_VERIFY(d->child.clientRunning);
            QVERIFY(!QFile::exists(TestDevice::currentPolicy));
            // The system's limit replaces hers.
            QVERIFY(daemon.calls.removeOne(stored(8)));
            // Her changes to the policy at its new place have no effect.
            const QString aside = TestDevice::sharedDirectory + text(".1000/current.conf");
            QVERIFY(writePolicy(aside, "6"));
            QVERIFY(QFile::remove(aside));
            // Changes are noticed in order, so the earlier ones have been handled after this one.
            QVERIFY(writePolicy(TestDevice::sharedDirectory + text("/new"), "7"));
            QVERIFY(QFile::rename(TestDevice::sharedDirectory + text("/new"), TestDevice::currentPolicy));
            QTRY_COMPARE(method.getOptionInternal(0, maxAttempts), QVariant(text("7")));
            QVERIFY(daemon.calls.removeOne(stored(text("7"))));
            for (const Call &call : qAsConst(daemon.calls))
                QVERIFY(call.arguments.value(1) != maxAttempts);
            QVERIFY(QFile::remove(TestDevice::currentPolicy));
            QTRY_COMPARE(method.getOptionInternal(0, maxAttempts), QVariant(0));
            daemon.calls.clear();
        }
        // Her policy does not count in the destructor either, with bob's client or with none.
        for (const bool running : {true, false}) {
            MethodKavet method;
            QVERIFY(method.setOptionInternal(0, maxAttempts, 8));
            method.setNotificator(&daemon);
            QVERIFY(alices("9"));
            method.findChild<MethodKavetPrivate *>()->child.uid = running ? TestDevice::bob : 0;
        }
        QCOMPARE(daemon.calls, Calls());
        // Her policy does count there with her client.
        {
            MethodKavet method;
            method.setNotificator(&daemon);
            method.findChild<MethodKavetPrivate *>()->child.uid = TestDevice::alice;
        }
        QCOMPARE(daemon.calls, Calls{stored(text("9"))});
    }

    void policyOfASessionWithoutClient()
    {
        QVERIFY(writePolicyOfAlice("1"));
        {
            Fixture fixture;
            fixture.method.handleUserSessionTriggered(TestDevice::alice, true, true);
            QCOMPARE(fixture.max(), QVariant(text("1")));
            // Rewritten in place, renamed over another file, and created.
            QVERIFY(writePolicyOfAlice("2"));
            QTRY_COMPARE(fixture.max(), QVariant(text("2")));
            QVERIFY(writePolicy(TestDevice::sharedDirectory + text("/new"), "3"));
            QVERIFY(
                TestDevice::setOwner(TestDevice::sharedDirectory + text("/new"), TestDevice::alice, TestDevice::alice));
            QCOMPARE(rename("/srv/shared/tarsk/kavet_client/new", "/srv/shared/tarsk/kavet_client/current.conf"), 0);
            QTRY_COMPARE(fixture.max(), QVariant(text("3")));
            QVERIFY(QFile::remove(TestDevice::currentPolicy));
            // The watcher may report the directory's change first.
            fixture.d->handleChildSharedDirectory(TestDevice::sharedDirectory);
            QTRY_COMPARE(fixture.max(), QVariant(0));
            QVERIFY(writePolicyOfAlice("4"));
            fixture.d->handleChildSharedDirectory(TestDevice::sharedDirectory);
            QCOMPARE(fixture.max(), QVariant(text("4")));
            QVERIFY(writePolicyOfAlice("5"));
            QVERIFY(fixture.d->watcher.removePath(TestDevice::currentPolicy));
        }
        // The same in the destructor.
        QCOMPARE(Fixture().max(), QVariant(text("5")));
        // Bob's session is not hers.
        Fixture fixture;
        fixture.method.handleUserSessionTriggered(TestDevice::bob, true, true);
        QVERIFY(writePolicyOfAlice("6"));
        fixture.d->handleChildFileChanged(TestDevice::currentPolicy);
        fixture.d->handleChildSharedDirectory(TestDevice::sharedDirectory);
        QCOMPARE(fixture.max(), QVariant(text("5")));
        // Her next one is, although carol's launch still waits for her first start.
        fixture.method.handleUserSessionTriggered(TestDevice::carol, true, true);
        QCOMPARE(fixture.max(), QVariant(text("5")));
        fixture.method.handleUserSessionTriggered(TestDevice::alice, true, true);
        QCOMPARE(fixture.max(), QVariant(text("6")));
    }

    void policyAfterAFailedLaunch()
    {
        QVERIFY(writePolicyOfAlice("1"));
        Fixture fixture;
        fixture.method.handleUserSessionTriggered(TestDevice::alice, true, true);
        QVERIFY(QDir().rmdir(TestDevice::clientDirectory));
        fixture.method.authenticate(TestDevice::bob, {});
        QCOMPARE(fixture.d->child.uid, TestDevice::bob);
        // Her changes do not affect him, but the removal still ends her limit.
        QVERIFY(writePolicyOfAlice("2"));
        fixture.d->handleChildFileChanged(TestDevice::currentPolicy);
        QCOMPARE(fixture.max(), QVariant(text("1")));
        QVERIFY(QFile::remove(TestDevice::currentPolicy));
        QTRY_COMPARE(fixture.max(), QVariant(0));
    }

    void systemLimitIsKeptOnDisk()
    {
        Fixture fixture;
        QVERIFY(fixture.method.setOption(0, maxAttempts, 3));
        QVERIFY(!QFile::exists(systemLimit));
        QVERIFY(writePolicy(TestDevice::currentPolicy, "@Invalid()"));
        fixture.d->syncPolicy(TestDevice::currentPolicy, true);
        QVERIFY(!QFile::exists(systemLimit)); // No limit was saved.
        QVERIFY(writePolicy(TestDevice::currentPolicy, "5"));
        fixture.d->syncPolicy(TestDevice::currentPolicy, true);
        struct stat status = {};
        QCOMPARE(stat(QFile::encodeName(systemLimit).constData(), &status), 0);
        QCOMPARE(status.st_uid, 0U);
        QCOMPARE(status.st_mode & 07777, mode_t(0600));
        QVERIFY(TestDevice::readFile(systemLimit).contains("max-attempts=3\n"));

        // Further changes of the policy do not write this file again.
        QVERIFY(TestDevice::writeFile(TestDevice::currentPolicy, {}));
        fixture.d->syncPolicy(TestDevice::currentPolicy, true);
        QCOMPARE(fixture.max(), QVariant(0));
        QCOMPARE(stat(QFile::encodeName(systemLimit).constData(), &status), 0);
        for (int i = 0; i < 20; ++i) {
            QVERIFY(TestDevice::writeFile(TestDevice::currentPolicy,
                                          i % 3 == 0 ? QByteArray() : "max-attempts=" + QByteArray::number(i)));
            fixture.d->syncPolicy(TestDevice::currentPolicy, true);
        }
        struct stat later = {};
        QCOMPARE(stat(QFile::encodeName(systemLimit).constData(), &later), 0);
        QCOMPARE(later.st_ino, status.st_ino);
        QCOMPARE(later.st_mtim.tv_nsec, status.st_mtim.tv_nsec);

        // The packaged limit belongs to the system.
        QVERIFY(writePolicy(TestDevice::packagedPolicy, "8"));
        fixture.d->syncPolicy(TestDevice::packagedPolicy, true);
        QVERIFY(!QFile::exists(systemLimit));
    }

    // Only a launch for another user ends a user's limit, so the file names the user whenever a limit is taken.
    void userOfTheLimit_data()
    {
        QTest::addColumn<QString>("by");
        QTest::addColumn<uint>("client"); // its user; bob's session has started
        for (const char *by : {"session", "directory", "file", "removal", "sync", "destruction", "launch"}) {
            QTest::addRow("%s, alice's client", by) << text(by) << TestDevice::alice;
            QTest::addRow("%s, no client", by) << text(by) << 0u;
        }
    }
    void userOfTheLimit()
    {
        QFETCH(QString, by);
        QFETCH(uint, client);
        const uint user = client ? client : TestDevice::bob;
        const bool isRemoved = by == QLatin1String("removal");
        const QByteArray saved = QByteArray("[General]\nmax-attempts=3\n") + (isRemoved ? "no-limit-taken=true\n" : "")
                                 + "user=" + QByteArray::number(user) + '\n';
        {
            Fixture fixture;
            QVERIFY(fixture.method.setOption(0, maxAttempts, 3));
            fixture.d->child.clientRunning = client != 0;
            fixture.d->child.uid = client;
            fixture.d->currentUid = by == QLatin1String("launch") ? user : TestDevice::carol;
            fixture.method.handleUserSessionTriggered(TestDevice::bob, true, false);
            if (!isRemoved) {
                QVERIFY(writePolicy(TestDevice::currentPolicy, "5"));
                QVERIFY(TestDevice::setOwner(TestDevice::currentPolicy, user, user));
            }
            if (by == QLatin1String("session"))
                fixture.method.handleUserSessionTriggered(TestDevice::bob, true, false);
            else if (by == QLatin1String("directory"))
                fixture.d->handleChildSharedDirectory(TestDevice::sharedDirectory);
            else if (by == QLatin1String("file") || isRemoved)
                fixture.d->handleChildFileChanged(TestDevice::currentPolicy);
            else if (by == QLatin1String("sync"))
                fixture.d->syncPolicy(TestDevice::currentPolicy, true);
            fixture.d->child.clientRunning = false;
            if (by == QLatin1String("launch"))
                QVERIFY(fixture.d->launchChild());
            QCOMPARE(TestDevice::readFile(systemLimit), by == QLatin1String("destruction") ? QByteArray() : saved);
        }
        QCOMPARE(TestDevice::readFile(systemLimit), saved);
    }

    void systemLimitIsSavedAnew()
    {
        Fixture fixture;
        QVERIFY(fixture.method.setOption(0, maxAttempts, 3));
        fixture.d->child.uid = TestDevice::alice;
        QVERIFY(TestDevice::writeFile(TestDevice::currentPolicy, {}));
        fixture.d->syncPolicy(TestDevice::currentPolicy, true);
        QVERIFY(TestDevice::readFile(systemLimit).contains("no-limit-taken=true\n"));

        // Nothing remains of what was saved for alice.
        QVERIFY(fixture.method.setOption(0, maxAttempts, 4));
        fixture.d->child.uid = TestDevice::bob;
        QVERIFY(writePolicy(TestDevice::currentPolicy, "6"));
        fixture.d->syncPolicy(TestDevice::currentPolicy, true);
        QCOMPARE(TestDevice::readFile(systemLimit), QByteArray("[General]\nmax-attempts=4\nuser=1001\n"));
    }

    void systemLimitIsKeptUntilRestored()
    {
        Fixture fixture;
        QVERIFY(fixture.method.setOption(0, maxAttempts, 3));
        fixture.d->child.uid = TestDevice::alice;
        QVERIFY(writePolicy(TestDevice::currentPolicy, "5"));
        fixture.d->syncPolicy(TestDevice::currentPolicy, true);
        QVERIFY(QFile::remove(TestDevice::currentPolicy));
        const QByteArray memory = TestDevice::readFile(systemLimit);
        QVERIFY(!memory.isEmpty());

        // The settings can be read but not replaced.
        const QByteArray settings = QFile::encodeName(marker);
        QCOMPARE(mount(settings.constData(), settings.constData(), nullptr, MS_BIND, nullptr), 0);
        const auto unmount = qScopeGuard([&settings] { umount2(settings.constData(), MNT_DETACH); });
        QVERIFY(writePolicy(TestDevice::packagedPolicy, "8"));
        fixture.d->syncPolicy(TestDevice::packagedPolicy, true);
        QCOMPARE(TestDevice::readFile(systemLimit), memory);
        fixture.d->currentUid = TestDevice::bob;
        QVERIFY(fixture.d->launchChild());
        QCOMPARE(TestDevice::readFile(systemLimit), memory);
        QCOMPARE(fixture.max(), QVariant(text("5")));

        QCOMPARE(umount2(settings.constData(), MNT_DETACH), 0);
        QVERIFY(fixture.d->launchChild());
        QCOMPARE(fixture.max(), QVariant(3));
        QVERIFY(!QFile::exists(systemLimit));
    }

    void noLimitIsTakenWithoutTheMemory()
    {
        // The saved limit could never be restored.
        Fixture fixture;
        QVERIFY(fixture.method.setOption(0, maxAttempts, 3));
        QVERIFY(QDir().mkpath(systemLimit));
        QVERIFY(writePolicy(TestDevice::currentPolicy, "5"));
        fixture.d->syncPolicy(TestDevice::currentPolicy, true);
        QCOMPARE(fixture.max(), QVariant(3));
        QVERIFY(QDir().rmdir(systemLimit));
        fixture.d->syncPolicy(TestDevice::currentPolicy, true);
        QCOMPARE(fixture.max(), QVariant(text("5")));
        // The file can be read but not replaced.
        const QByteArray name = QFile::encodeName(systemLimit);
        QVERIFY(fixture.method.setOption(0, maxAttempts, 3));
        QVERIFY(TestDevice::writeFile(systemLimit, {}));
        QCOMPARE(mount(name.constData(), name.constData(), nullptr, MS_BIND, nullptr), 0);
        fixture.d->syncPolicy(TestDevice::currentPolicy, true);
        QCOMPARE(umount2(name.constData(), MNT_DETACH), 0);
        QCOMPARE(fixture.max(), QVariant(3));
        // A damaged file counts as none.
        QVERIFY(TestDevice::writeFile(systemLimit, "[General\nuser\n"));
        QVERIFY(writePolicy(TestDevice::currentPolicy, "6"));
        fixture.d->syncPolicy(TestDevice::currentPolicy, true);
        QCOMPARE(fixture.max(), QVariant(text("6")));
    }

    void unchangedPolicyIsNotTold()
    {
        Fixture fixture;
        QVERIFY(writePolicy(TestDevice::currentPolicy, "7"));
        for (int i = 0; i < 3; ++i) {
            fixture.d->syncPolicy(TestDevice::currentPolicy, true);
            fixture.d->handleChildFileChanged(TestDevice::currentPolicy);
            fixture.d->handleChildSharedDirectory(TestDevice::sharedDirectory);
        }
        QCOMPARE(fixture.daemon.calls, Calls{stored(text("7"))});
    }

    void launch_data()
    {
        QTest::addColumn<bool>("current");
        QTest::newRow("current policy") << true;
        QTest::newRow("no current policy") << false;
    }
    void launch()
    {
        QFETCH(bool, current);
        Fixture fixture;
        QVERIFY(TestDevice::writeFile(marker, {}));
        QVERIFY(writePolicy(TestDevice::packagedPolicy, "5"));
        if (current)
            QVERIFY(writePolicy(TestDevice::currentPolicy, "7"));

        // The policy is applied when this returns, before any event is processed.
        fixture.method.authenticate(TestDevice::alice, {});
        QCOMPARE(fixture.daemon.calls, current ? Calls{stored(text("7"))} : Calls());
        QCOMPARE(fixture.d->watcher.files().contains(TestDevice::currentPolicy), current);
    }
};

QTEST_GUILESS_MAIN(TstPolicy)
#include "tst_policy.moc"
