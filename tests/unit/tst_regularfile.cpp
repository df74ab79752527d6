// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#include "regularfile.h"

#include "support/files.h"

#include <QTemporaryDir>
#include <QTest>

#include <algorithm>
#include <limits>
#include <sys/resource.h>
#include <vector>

namespace {

constexpr std::size_t unlimited = std::numeric_limits<std::size_t>::max();

int openDescriptors()
{
    return QDir(QStringLiteral("/proc/self/fd")).entryList(QDir::AllEntries | QDir::System).size();
}

/// Why the file cannot be read; 0 if it can.
int errorOf(const std::string &path, int nofollow = 0, std::size_t limit = unlimited)
{
    return readRegularFile(path, nofollow, limit) ? 0 : errno;
}

} // namespace

class TstRegularFile : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init();
    void reads_data();
    void reads();
    void limits_data();
    void limits();
    void refuses_data();
    void refuses();
    void nameWithZero();
    void links();
    void failsToRead();
    void noDescriptorLeft_data();
    void noDescriptorLeft();

private:
    QScopedPointer<QTemporaryDir> m_directory;
    QString m_path;
};

void TstRegularFile::init()
{
    m_directory.reset(new QTemporaryDir);
    m_path = m_directory->filePath(QStringLiteral("file"));
}

void TstRegularFile::reads_data()
{
    QTest::addColumn<QByteArray>("content");

    QTest::newRow("nothing") << QByteArray("");
    QTest::newRow("all bytes") << QByteArray("one\0\n\r\xff\x1a two", 13);
    QTest::newRow("several blocks") << QByteArray("0123456789abcde").repeated(10000);
}

void TstRegularFile::reads()
{
    QFETCH(QByteArray, content);
    QVERIFY(TestDevice::writeFile(m_path, content));
    const auto found = readRegularFile(m_path.toStdString(), O_NOFOLLOW, unlimited);
    QVERIFY(found);
    QCOMPARE(QByteArray::fromStdString(*found), content);
}

void TstRegularFile::limits_data()
{
    QTest::addColumn<int>("size");

    QTest::newRow("none") << 0;
    QTest::newRow("small") << 10;
    QTest::newRow("several blocks") << 100000;
}

void TstRegularFile::limits()
{
    QFETCH(int, size);
    QVERIFY(TestDevice::writeFile(m_path, QByteArray(size, 'a')));
    QCOMPARE(errorOf(m_path.toStdString(), 0, std::size_t(size)), 0);
    QVERIFY(TestDevice::writeFile(m_path, QByteArray(size + 1, 'a')));
    QCOMPARE(errorOf(m_path.toStdString(), 0, std::size_t(size)), EFBIG);
}

void TstRegularFile::refuses_data()
{
    QTest::addColumn<QString>("path");
    QTest::addColumn<int>("reason");

    // Opened, a FIFO without a writer would block, and a terminal could become the controlling one.
    QTest::newRow("FIFO") << QStringLiteral("fifo") << EINVAL;
    QTest::newRow("directory") << QStringLiteral(".") << EINVAL;
    QTest::newRow("device") << QStringLiteral("/dev/null") << EINVAL;
    QTest::newRow("nothing") << QStringLiteral("nothing") << ENOENT;
    QTest::newRow("below a file") << QStringLiteral("/etc/passwd/file") << ENOTDIR;
}

void TstRegularFile::refuses()
{
    QFETCH(QString, path);
    QCOMPARE(mkfifo(qPrintable(m_directory->filePath(QStringLiteral("fifo"))), 0600), 0);
    path = QDir(m_directory->path()).absoluteFilePath(path);
    QTEST(errorOf(path.toStdString()), "reason");
}

void TstRegularFile::nameWithZero()
{
    QVERIFY(TestDevice::writeFile(m_path, "content"));
    QCOMPARE(errorOf(m_path.toStdString() + std::string("\0.bak", 5)), EINVAL);
}

void TstRegularFile::links()
{
    QVERIFY(TestDevice::writeFile(m_path, "content"));
    const QString link = m_directory->filePath(QStringLiteral("link"));
    QVERIFY(QFile::link(m_path, link));
    const auto followed = readRegularFile(link.toStdString(), 0, unlimited);
    QVERIFY(followed);
    QCOMPARE(QByteArray::fromStdString(*followed), QByteArray("content"));
    // Pinned instead of followed, the link is an object of its own.
    QCOMPARE(errorOf(link.toStdString(), O_NOFOLLOW), EINVAL);
}

void TstRegularFile::failsToRead()
{
    // Nothing is mapped at the first address.
    QCOMPARE(errorOf("/proc/self/mem"), EIO);
}

void TstRegularFile::noDescriptorLeft_data()
{
    QTest::addColumn<int>("allowed");
    QTest::addColumn<int>("reason");

    QTest::newRow("for the pin") << 0 << EMFILE;
    QTest::newRow("for the file") << 1 << EMFILE;
    QTest::newRow("enough") << 2 << 0;
}

void TstRegularFile::noDescriptorLeft()
{
    QFETCH(int, allowed);
    QVERIFY(TestDevice::writeFile(m_path, "content"));
    const int before = openDescriptors();
    rlimit former = {};
    QCOMPARE(getrlimit(RLIMIT_NOFILE, &former), 0);
    rlimit low = former;
    low.rlim_cur = 100;
    QCOMPARE(setrlimit(RLIMIT_NOFILE, &low), 0);
    std::vector<int> taken;
    for (int descriptor; (descriptor = open("/dev/null", O_RDONLY | O_CLOEXEC)) >= 0;)
        taken.push_back(descriptor);
    for (; allowed > 0; --allowed) {
        close(taken.back());
        taken.pop_back();
    }
    const int error = errorOf(m_path.toStdString());
    std::for_each(taken.cbegin(), taken.cend(), close);
    QCOMPARE(setrlimit(RLIMIT_NOFILE, &former), 0);
    QTEST(error, "reason");
    QCOMPARE(openDescriptors(), before);
}

QTEST_APPLESS_MAIN(TstRegularFile)

#include "tst_regularfile.moc"
