// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#include "platformtest.h"

#include <luks/libluks.h>

#include <QLibraryInfo>
#include <QTest>

#include <dlfcn.h>
#include <fcntl.h>
#include <libcryptsetup.h>

namespace {

const QString configuration = QStringLiteral("/etc/authd/luks.conf");
constexpr int largestFile = 1024 * 1024;

// The prepared status of a mapping; without one, the real function is called. The disposable device has no device
// mapper, so no real mapping can be active.
crypt_status_info prepared = CRYPT_INVALID;
bool isPrepared = false;
QByteArray asked;

QByteArray configurationOfSize(int size)
{
    return QByteArray("[Partition]\nDevice=vault\n").leftJustified(size, '#');
}

} // namespace

extern "C" Q_DECL_EXPORT crypt_status_info crypt_status(crypt_device *device, const char *name)
{
    asked = name;
    if (isPrepared)
        return prepared;
    using Function = crypt_status_info (*)(crypt_device *, const char *);
    const auto real = reinterpret_cast<Function>(dlsym(RTLD_NEXT, "crypt_status"));
    return real(device, name);
}

class TstLibLuks : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase() { PlatformTest::requireDevice(); }
    void init();
    void libraryMissingAtFirst();
    void noConfiguration();
    void states_data();
    void states();
    void realMapping();
    void broken_data();
    void broken();
    void largest();
    void specialFiles();
    void unreadable();
    void readAfresh();
};

void TstLibLuks::init()
{
    PlatformTest::removeAll(configuration);
    QDir().mkpath(QStringLiteral("/etc/authd"));
    isPrepared = false;
    asked.clear();
}

// Must be the first to need the library.
void TstLibLuks::libraryMissingAtFirst()
{
    QVERIFY(TestDevice::writeFile(configuration, "[Partition]\nDevice=vault\n"));
    prepared = CRYPT_ACTIVE;
    isPrepared = true;
    const QString library =
        QLibraryInfo::location(QLibraryInfo::LibrariesPath) + QStringLiteral("/libcryptsetup.so.12");
    const QString aside = library + QStringLiteral(".aside");
    QVERIFY(QFile::rename(library, aside));
    const bool isActiveWithout = LibLuks::isDeviceActive();
    QVERIFY(QFile::rename(aside, library));
    QVERIFY(!isActiveWithout);
    QVERIFY(LibLuks::isDeviceActive());
}

void TstLibLuks::noConfiguration()
{
    QVERIFY(LibLuks::isDeviceActive());
    PlatformTest::removeAll(QStringLiteral("/etc/authd"));
    QVERIFY(LibLuks::isDeviceActive());
    QVERIFY(asked.isNull());
}

void TstLibLuks::states_data()
{
    QTest::addColumn<int>("status");
    QTest::addColumn<bool>("active");
    QTest::newRow("active") << int(CRYPT_ACTIVE) << true;
    QTest::newRow("busy") << int(CRYPT_BUSY) << true;
    QTest::newRow("inactive") << int(CRYPT_INACTIVE) << false;
    QTest::newRow("invalid") << int(CRYPT_INVALID) << false;
}

void TstLibLuks::states()
{
    QFETCH(int, status);
    QVERIFY(TestDevice::writeFile(configuration, "# ours\n[Partition]\nDevice=vault\n"));
    prepared = crypt_status_info(status);
    isPrepared = true;
    QTEST(LibLuks::isDeviceActive(), "active");
    QCOMPARE(asked, QByteArray("vault"));
}

void TstLibLuks::realMapping()
{
    QVERIFY(TestDevice::writeFile(configuration, "[Partition]\nDevice=no-such-mapping\n"));
    // The library's own messages must not reach the streams of the process.
    const QString printed = QStringLiteral("/tmp/tst_libluks-printed");
    const int active = PlatformTest::inChild([&] {
        const int fd = open(QFile::encodeName(printed).constData(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        if (fd < 0 || dup2(fd, STDOUT_FILENO) < 0 || dup2(fd, STDERR_FILENO) < 0)
            return 2;
        return LibLuks::isDeviceActive() ? 1 : 0;
    });
    QCOMPARE(active, 0);
    QVERIFY(QFile::exists(printed));
    QCOMPARE(TestDevice::readFile(printed), QByteArray());
}

void TstLibLuks::broken_data()
{
    QTest::addColumn<QByteArray>("content");
    QTest::newRow("empty") << QByteArray("");
    QTest::newRow("no group") << QByteArray("Device=vault\n");
    QTest::newRow("other group") << QByteArray("[Device]\nDevice=vault\n");
    QTest::newRow("no key") << QByteArray("[Partition]\nName=vault\n");
    QTest::newRow("empty key") << QByteArray("[Partition]\nDevice=\n");
    QTest::newRow("unknown escape") << QByteArray("[Partition]\nDevice=va\\qult\n");
    QTest::newRow("not UTF-8") << QByteArray("[Partition]\nDevice=va\xffult\n");
    QTest::newRow("truncated") << QByteArray("[Partition]\nDevi");
    QTest::newRow("binary") << QByteArray("\x7f"
                                          "ELF\0\0",
                                          6);
    QTest::newRow("no key file below") << QByteArray("[Partition]\nDevice=vault\nnoise\n");
    QTest::newRow("too large") << configurationOfSize(largestFile + 1);
}

void TstLibLuks::broken()
{
    QFETCH(QByteArray, content);
    QVERIFY(TestDevice::writeFile(configuration, content));
    prepared = CRYPT_ACTIVE;
    isPrepared = true;
    QVERIFY(!LibLuks::isDeviceActive());
    QVERIFY(asked.isNull());
}

void TstLibLuks::largest()
{
    QVERIFY(TestDevice::writeFile(configuration, configurationOfSize(largestFile)));
    prepared = CRYPT_ACTIVE;
    isPrepared = true;
    QVERIFY(LibLuks::isDeviceActive());
}

void TstLibLuks::specialFiles()
{
    prepared = CRYPT_ACTIVE;
    isPrepared = true;
    const QByteArray name = QFile::encodeName(configuration);

    QVERIFY(QDir().mkpath(configuration));
    QVERIFY(!LibLuks::isDeviceActive());

    PlatformTest::removeAll(configuration);
    QCOMPARE(mkfifo(name.constData(), 0600), 0);
    QVERIFY(!LibLuks::isDeviceActive());

    // Only root can create a link in this directory.
    PlatformTest::removeAll(configuration);
    QVERIFY(TestDevice::writeFile(QStringLiteral("/etc/authd/real.conf"), "[Partition]\nDevice=linked\n"));
    QVERIFY(QFile::link(QStringLiteral("real.conf"), configuration));
    QVERIFY(LibLuks::isDeviceActive());
    QCOMPARE(asked, QByteArray("linked"));
}

void TstLibLuks::unreadable()
{
    QVERIFY(TestDevice::writeFile(configuration, "[Partition]\nDevice=vault\n"));
    QCOMPARE(chmod(QFile::encodeName(configuration).constData(), 0), 0);
    prepared = CRYPT_ACTIVE;
    isPrepared = true;
    QVERIFY(LibLuks::isDeviceActive());
    // Root can read every file, so an ordinary user has to try.
    const int active = PlatformTest::inChild([] {
        if (setresuid(65534, 65534, 65534) != 0)
            return 2;
        return LibLuks::isDeviceActive() ? 1 : 0;
    });
    QCOMPARE(active, 0);
}

void TstLibLuks::readAfresh()
{
    isPrepared = true;
    prepared = CRYPT_INACTIVE;
    QVERIFY(LibLuks::isDeviceActive());
    QVERIFY(TestDevice::writeFile(configuration, "[Partition]\nDevice=vault\n"));
    QVERIFY(!LibLuks::isDeviceActive());
    prepared = CRYPT_ACTIVE;
    QVERIFY(LibLuks::isDeviceActive());
}

QTEST_APPLESS_MAIN(TstLibLuks)

#include "tst_libluks.moc"
