// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#include "device/clientfixture.h"
#include "device/polltimeout.h"
#include "support/waiting.h"

#include <QElapsedTimer>
#include <QFile>
#include <QSocketNotifier>
#include <QTest>

#include <sys/inotify.h>
#include <unistd.h>

namespace {

const QByteArray socketName = "kavet.socket";
constexpr int FirstGap = 100; // Milliseconds.
/// Longer than the next gap would be. Only waiting can show that no announcement comes.
constexpr int QuietTime = 2000;

/// What the plugin's watcher sees in the client's directory.
class DirectoryWatch : public QObject
{
public:
    /// The times of attribute changes of the socket, in milliseconds since the watch started.
    QVector<qint64> announcements;
    /// The time when the socket appeared, or -1.
    qint64 appearance = -1;

    DirectoryWatch()
        : m_inotify(inotify_init1(IN_NONBLOCK | IN_CLOEXEC))
        , m_notifier(m_inotify, QSocketNotifier::Read)
    {
        if (inotify_add_watch(m_inotify, QFile::encodeName(TestDevice::clientDirectory).constData(),
                              IN_ATTRIB | IN_MOVE | IN_CREATE | IN_DELETE | IN_DELETE_SELF)
            < 0)
            qFatal("Cannot watch the client's directory");
        connect(&m_notifier, &QSocketNotifier::activated, this, [this] { readEvents(); });
        m_clock.start();
    }
    ~DirectoryWatch() override { close(m_inotify); }

private:
    void readEvents()
    {
        alignas(inotify_event) char buffer[4096];
        const ssize_t size = read(m_inotify, buffer, sizeof buffer);
        for (ssize_t position = 0; position < size;) {
            const auto *event = reinterpret_cast<const inotify_event *>(buffer + position);
            position += ssize_t(sizeof(inotify_event) + event->len);
            if (event->len == 0 || event->name != socketName)
                continue;
            if ((event->mask & IN_MOVED_TO) && appearance < 0)
                appearance = m_clock.elapsed();
            if (event->mask & IN_ATTRIB)
                announcements << m_clock.elapsed();
        }
    }

    const int m_inotify;
    QSocketNotifier m_notifier;
    QElapsedTimer m_clock;

    Q_DISABLE_COPY(DirectoryWatch)
};

} // namespace

/// How the reference client announces its socket to a plugin that may not be watching yet.
class TstClientSocket : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init()
    {
        TestDevice::reset();
        ClientFixture::prepare();
    }

    void isShownUntilSomebodyConnects();
    void isNotShownForever();
    void othersAreNotShown();

private:
    /// Starts the client without connecting to it.
    static void start(ClientFixture &client, const QStringList &environment = {})
    {
        ClientFixture::asUser(client.process, ClientFixture::program, {QStringLiteral("--no-gui")});
        ClientFixture::addToEnvironment(client.process, environment);
        client.process.start();
    }
};

void TstClientSocket::isShownUntilSomebodyConnects()
{
    DirectoryWatch watch;
    ClientFixture client;
    start(client);
    QTRY_VERIFY(watch.appearance >= 0);

    QTRY_VERIFY(watch.announcements.size() >= 4);
    // Each gap is twice as long as the previous one. Load can only make gaps longer, but timers may fire 5 percent
    // early.
    for (int i = 0, due = 0; i < 4; ++i) {
        due += FirstGap << i;
        QVERIFY2(watch.announcements.at(i) >= due * 95 / 100,
                 qPrintable(QStringLiteral("%1 at %2 ms").arg(i).arg(watch.announcements.at(i))));
    }

    QVERIFY(client.reconnect());
    QCOMPARE(client.certList(), QStringList());
    const int before = watch.announcements.size();
    QVERIFY(!QTest::qWaitFor([&] { return watch.announcements.size() > before; }, QuietTime));
    // The client does not announce again after the peer leaves, because the plugin has seen the socket.
    QDBusConnection::disconnectFromPeer(client.connection().name());
    client.connection() = QDBusConnection(QString());
    QVERIFY(!QTest::qWaitFor([&] { return watch.announcements.size() > before; }, QuietTime));
}

// The preloaded clock skips the longer gaps.
void TstClientSocket::isNotShownForever()
{
    ClientFixture client;
    start(client, ClientFixture::hastyClock(1));
    QVERIFY(waitUntil([&client] { return pollTimeout(client.process.processId()) == -1; }));
}

void TstClientSocket::othersAreNotShown()
{
    DirectoryWatch watch;
    ClientFixture client;
    start(client);
    QTRY_VERIFY(!watch.announcements.isEmpty());

    const QString other = TestDevice::clientDirectory + QStringLiteral("/other");
    QVERIFY(TestDevice::writeFile(other, {}));
    QVERIFY(QFile::setPermissions(other, QFile::ReadOwner));
    QCOMPARE(chown(QFile::encodeName(other).constData(), TestDevice::alice, TestDevice::alice), 0);
    QCOMPARE(rename(QFile::encodeName(other).constData(), QFile::encodeName(TestDevice::socketPath).constData()), 0);
    QTest::qWait(0);
    const int before = watch.announcements.size();
    QVERIFY(!QTest::qWaitFor([&] { return watch.announcements.size() > before; }, QuietTime));
    QCOMPARE(QFile::permissions(TestDevice::socketPath) & ~(QFile::ReadUser | QFile::WriteUser), QFile::ReadOwner);
}

QTEST_GUILESS_MAIN(TstClientSocket)

#include "tst_clientsocket.moc"
