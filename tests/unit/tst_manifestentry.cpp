// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#include "platformtest.h"

#include <appmanifest/manifestentry.h>

#include <QTemporaryDir>
#include <QTest>

#include <fcntl.h>
#include <sys/inotify.h>
#include <sys/socket.h>
#include <sys/un.h>

using AppManifest::ManifestEntry;

class TstManifestEntry : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void complete();
    void missingKeys();
    void texts_data();
    void texts();
    void permissions_data();
    void permissions();
    void absent_data();
    void absent();
    void largest();
    void links();
    void specialFiles();
    void unreadable();
    void pathWithZero();

private:
    QString path(const char *name) const { return m_directory.filePath(QLatin1String(name)); }
    std::optional<ManifestEntry> read(const QByteArray &content)
    {
        const QString file = path("entry.desktop");
        return TestDevice::writeFile(file, content) ? ManifestEntry::fromFilename(file.toStdString()) : std::nullopt;
    }

    QTemporaryDir m_directory;
};

void TstManifestEntry::complete()
{
    const auto entry = read("[Desktop Entry]\nName=Client\n\n# ours\n[X-Application]\nApplicationName=kavet_client\n"
                            "OrganizationName=tarsk\nExecCmd=/usr/bin/tarsk.kavet_client --name \"a b\" %u\n"
                            "Permissions=Base;Token;Сеть;\n");
    QVERIFY(entry);
    QCOMPARE(entry->appName(), std::string("kavet_client"));
    QCOMPARE(entry->appOrgname(), std::string("tarsk"));
    QCOMPARE(entry->exec(), std::string("/usr/bin/tarsk.kavet_client --name \"a b\" %u"));
    QCOMPARE(entry->appPermissions(), (std::vector<std::string>{"Base", "Token", "Сеть"}));
}

void TstManifestEntry::missingKeys()
{
    const auto entry = read("[X-Application]\n");
    QVERIFY(entry);
    QCOMPARE(entry->appName(), std::string());
    QCOMPARE(entry->appOrgname(), std::string());
    QCOMPARE(entry->exec(), std::string());
    QVERIFY(entry->appPermissions().empty());

    // Each key is read independently.
    QCOMPARE(read("[X-Application]\nApplicationName=a\n")->appName(), std::string("a"));
    QCOMPARE(read("[X-Application]\nOrganizationName=o\n")->appOrgname(), std::string("o"));
    QCOMPARE(read("[X-Application]\nExecCmd=e\n")->exec(), std::string("e"));
    // Keys of other groups are ignored.
    QCOMPARE(read("[X-Application]\n[Desktop Entry]\nExecCmd=e\n")->exec(), std::string());
}

void TstManifestEntry::texts_data()
{
    QTest::addColumn<QByteArray>("written");
    QTest::addColumn<QByteArray>("read");
    QTest::newRow("empty") << QByteArray() << QByteArray();
    QTest::newRow("escapes") << QByteArray("a\\sb\\tc\\nd\\\\e") << QByteArray("a b\tc\nd\\e");
    QTest::newRow("unknown escape") << QByteArray("a\\qb") << QByteArray();
    QTest::newRow("escape cut off") << QByteArray("a\\") << QByteArray();
    QTest::newRow("equals signs") << QByteArray("a=b = c") << QByteArray("a=b = c");
    QTest::newRow("semicolons") << QByteArray("a;b;") << QByteArray("a;b;");
    QTest::newRow("spaces kept inside") << QByteArray("a  b") << QByteArray("a  b");
    QTest::newRow("non-ASCII") << QByteArray("/opt/клиент") << QByteArray("/opt/клиент");
}

void TstManifestEntry::texts()
{
    QFETCH(QByteArray, written);
    QFETCH(QByteArray, read);
    const auto entry = this->read("[X-Application]\nApplicationName=" + written + "\nOrganizationName=" + written
                                  + "\nExecCmd=" + written + "\nPermissions=P\n");
    QVERIFY(entry);
    QCOMPARE(entry->appName(), read.toStdString());
    QCOMPARE(entry->appOrgname(), read.toStdString());
    QCOMPARE(entry->exec(), read.toStdString());
    QCOMPARE(entry->appPermissions(), std::vector<std::string>{"P"});
}

void TstManifestEntry::permissions_data()
{
    QTest::addColumn<QByteArray>("written");
    QTest::addColumn<QStringList>("read");
    const auto list = [](std::initializer_list<const char *> items) {
        QStringList result;
        for (const char *item : items)
            result << QString::fromUtf8(item);
        return result;
    };
    QTest::newRow("empty") << QByteArray() << QStringList();
    QTest::newRow("one") << QByteArray("Base") << list({"Base"});
    QTest::newRow("no last separator") << QByteArray("Base;Token") << list({"Base", "Token"});
    QTest::newRow("order and repetition") << QByteArray("b;a;b;") << list({"b", "a", "b"});
    QTest::newRow("empty names") << QByteArray(";a;;b;") << list({"", "a", "", "b"});
    QTest::newRow("escaped separator") << QByteArray("a\\;b;c") << list({"a;b", "c"});
    QTest::newRow("unknown escape") << QByteArray("a\\qb;c") << QStringList();
    QTest::newRow("many") << QByteArray("p;").repeated(5000)
                          << QStringList(QVector<QString>(5000, QStringLiteral("p")).toList());
}

void TstManifestEntry::permissions()
{
    QFETCH(QByteArray, written);
    const auto entry = read("[X-Application]\nPermissions=" + written + "\n");
    QVERIFY(entry);
    QStringList names;
    for (const std::string &name : entry->appPermissions())
        names << QString::fromStdString(name);
    QTEST(names, "read");
}

void TstManifestEntry::absent_data()
{
    QTest::addColumn<QByteArray>("content");
    QTest::newRow("empty") << QByteArray("");
    QTest::newRow("truncated group") << QByteArray("[X-Applicat");
    QTest::newRow("truncated key") << QByteArray("[X-Application]\nApplicationName=a\nExecC");
    QTest::newRow("wrong group") << QByteArray("[Desktop Entry]\nApplicationName=a\nOrganizationName=b\nExecCmd=c\n");
    QTest::newRow("group in other case") << QByteArray("[x-application]\nApplicationName=a\n");
    QTest::newRow("no group") << QByteArray("ApplicationName=a\n");
    QTest::newRow("latin-1") << QByteArray("[X-Application]\nApplicationName=caf\xe9\n");
    QTest::newRow("latin-1 elsewhere") << QByteArray("# caf\xe9\n[X-Application]\nApplicationName=a\n");
    QTest::newRow("zero byte") << QByteArray("[X-Application]\nApplicationName=a\0b\n", 37);
    QTest::newRow("binary") << QByteArray("\x7f"
                                          "ELF\x02\x01\x01\0\0\0",
                                          10);
    QByteArray noise(10 * 1024 * 1024, '\0');
    for (int i = 0; i < noise.size(); ++i)
        noise[i] = char((i * 2654435761u) >> 13);
    QTest::newRow("10 MB of noise") << noise;
    QTest::newRow("too large") << QByteArray("[X-Application]\n") + QByteArray("#\n").repeated(512 * 1024);
}

void TstManifestEntry::absent()
{
    QFETCH(QByteArray, content);
    QVERIFY(!read(content));
}

void TstManifestEntry::largest()
{
    QByteArray content("[X-Application]\nExecCmd=e\n#");
    content += QByteArray(1024 * 1024 - content.size(), 'x');
    const auto entry = read(content);
    QVERIFY(entry);
    QCOMPARE(entry->exec(), std::string("e"));
    QVERIFY(!read(content + 'x'));
}

void TstManifestEntry::links()
{
    QVERIFY(TestDevice::writeFile(path("target"), "[X-Application]\nExecCmd=linked\n"));
    QVERIFY(QFile::link(path("target"), path("link")));
    QVERIFY(QFile::link(path("nowhere"), path("dangling")));
    QVERIFY(QFile::link(path("circle"), path("circle")));

    const auto entry = ManifestEntry::fromFilename(path("link").toStdString());
    QVERIFY(entry);
    QCOMPARE(entry->exec(), std::string("linked"));
    QVERIFY(!ManifestEntry::fromFilename(path("dangling").toStdString()));
    QVERIFY(!ManifestEntry::fromFilename(path("circle").toStdString()));
    QVERIFY(!ManifestEntry::fromFilename(path("missing").toStdString()));
    QVERIFY(!ManifestEntry::fromFilename(std::string()));
}

void TstManifestEntry::specialFiles()
{
    QVERIFY(QDir().mkpath(path("directory")));
    QVERIFY(!ManifestEntry::fromFilename(path("directory").toStdString()));

    // Opening a FIFO would block here until there is a writer, or wake one.
    const QByteArray fifo = QFile::encodeName(path("fifo"));
    QCOMPARE(mkfifo(fifo.constData(), 0600), 0);
    const int watch = inotify_init1(IN_NONBLOCK);
    QVERIFY(inotify_add_watch(watch, fifo.constData(), IN_OPEN) > 0);
    QVERIFY(!ManifestEntry::fromFilename(fifo.toStdString()));
    char event[4096];
    QCOMPARE(::read(watch, event, sizeof event), ssize_t(-1));
    close(open(fifo.constData(), O_RDONLY | O_NONBLOCK));
    QVERIFY(::read(watch, event, sizeof event) > 0);
    close(watch);

    QVERIFY(!ManifestEntry::fromFilename("/dev/zero"));

    const int fd = socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    qstrncpy(address.sun_path, QFile::encodeName(path("socket")).constData(), sizeof address.sun_path);
    QCOMPARE(bind(fd, reinterpret_cast<sockaddr *>(&address), sizeof address), 0);
    QVERIFY(!ManifestEntry::fromFilename(path("socket").toStdString()));
    close(fd);
}

void TstManifestEntry::unreadable()
{
    const QString file = path("unreadable");
    QVERIFY(TestDevice::writeFile(file, "[X-Application]\nExecCmd=e\n"));
    QVERIFY(QFile::setPermissions(m_directory.path(), QFile::Permissions(0x7755)));
    QCOMPARE(chmod(QFile::encodeName(file).constData(), 0), 0);
    // Root can read every file, so an ordinary user has to try.
    const int found = PlatformTest::inChild([&] {
        if (getuid() == 0 && setresuid(65534, 65534, 65534) != 0)
            return 2;
        return ManifestEntry::fromFilename(file.toStdString()) ? 1 : 0;
    });
    QCOMPARE(found, 0);
}

void TstManifestEntry::pathWithZero()
{
    QVERIFY(TestDevice::writeFile(path("whole"), "[X-Application]\nExecCmd=e\n"));
    QVERIFY(ManifestEntry::fromFilename(path("whole").toStdString()));
    QVERIFY(!ManifestEntry::fromFilename(path("whole").toStdString() + std::string("\0.desktop", 9)));
}

QTEST_APPLESS_MAIN(TstManifestEntry)

#include "tst_manifestentry.moc"
