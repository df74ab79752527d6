// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#include "auth/linkguard.h"
#include "device/processmemory.h"
#include "platformtest.h"
#include "support/logcapture.h"
#include "support/testdevice.h"
#include "support/waiting.h"

#include <QAbstractEventDispatcher>
#include <QDir>
#include <QFile>
#include <QHash>
#include <QScopeGuard>
#include <QTest>
#include <QtEndian>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <iterator>

#include <fcntl.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <malloc.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

using TestDevice::alice;
using TestDevice::bob;

namespace {

constexpr int limit = 1024 * 1024;
const QString path = QStringLiteral("/tmp/client.socket");
const QString sendsTooMuch = QStringLiteral("Dropping the link to the client: it has sent more than a reply needs");
const QString doesNotRead = QStringLiteral("Dropping the link to the client: it does not read its messages");
const QString hasNoEnd = QStringLiteral("Dropping the link to the client: its handshake is too long");
const QString isTooEarly =
    QStringLiteral("Dropping the link to the client: it has sent a message during the handshake");
const QString isNoReply =
    QStringLiteral("Dropping the link to the client: it has sent a message that is no valid reply");
const QString isNotRead = QStringLiteral("Dropping the link to the client: its messages are not read fast enough");

// Only read-only memory of this process has it.
constexpr char secret[] = "What nobody else may know.";

sockaddr_un socketAddress(const QByteArray &name)
{
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, name.constData(), sizeof address.sun_path - 1);
    return address;
}

int listenAt(const QString &name, int queue = 8)
{
    const QByteArray encoded = QFile::encodeName(name);
    unlink(encoded.constData());
    const int descriptor = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const sockaddr_un address = socketAddress(encoded);
    const bool listening = bind(descriptor, reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0
                           && listen(descriptor, queue) == 0 && chmod(encoded.constData(), 0666) == 0;
    return listening ? descriptor : -1;
}

int connectTo(const QByteArray &name)
{
    const int descriptor = socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    const sockaddr_un address = socketAddress(name);
    if (connect(descriptor, reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0)
        return descriptor;
    close(descriptor);
    return -1;
}

QByteArray libraryPath(const LinkGuard &guard)
{
    return guard.address().mid(int(std::strlen("unix:path="))).toLatin1();
}

/// The result of `function` in another process.
int runElsewhere(const std::function<int()> &function)
{
    const pid_t process = fork();
    if (process == 0)
        _exit(function());
    int status = 0;
    waitpid(process, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

/// A guard with a link, and the non-blocking sockets of both ends.
struct Link
{
    const int listener = listenAt(path);
    LinkGuard guard;
    int library = -1;
    int client = -1;

    ~Link()
    {
        for (const int descriptor : {listener, library, client}) {
            if (descriptor != -1)
                close(descriptor);
        }
    }
    bool make()
    {
        if (!guard.connectToClient(path, 0))
            return false;
        library = connectTo(libraryPath(guard));
        client = accept4(listener, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
        return library != -1 && client != -1 && guard.acceptLibrary() && guard.isOpen();
    }
    // The end of the handshake.
    bool begin() const
    {
        char end[8] = {};
        return send(library, "BEGIN\r\n", 7, MSG_NOSIGNAL) == 7
               && waitUntil([&] { return recv(client, end, 7, 0) == 7; });
    }
};

// All data that can be read now; sets `ended` if the other side has closed.
QByteArray readAll(int descriptor, bool *ended = nullptr)
{
    QByteArray content;
    char chunk[64 * 1024];
    ssize_t size = 0;
    while ((size = recv(descriptor, chunk, sizeof chunk, 0)) > 0)
        content.append(chunk, int(size));
    if (ended)
        *ended = size == 0 || errno == ECONNRESET;
    return content;
}

/// Calls `step` in another process, whenever `descriptor` is ready for `event`, until it has returned `size` in total.
/// The guard runs meanwhile.
bool repeatElsewhere(int descriptor, short event, ssize_t size, ssize_t (*step)(int descriptor))
{
    const pid_t process = fork();
    if (process == 0) {
        while (size > 0) {
            pollfd ready = {descriptor, event, 0};
            poll(&ready, 1, -1);
            size -= std::max<ssize_t>(step(descriptor), 0);
        }
        _exit(0);
    }
    // Buffers that grow must move, because there is something behind them.
    QVector<QByteArray> obstacles;
    return waitUntil([process, &obstacles] {
        obstacles << QByteArray(1000, 0);
        return waitpid(process, nullptr, WNOHANG) == process;
    });
}

bool sendElsewhere(int descriptor, int size)
{
    return repeatElsewhere(descriptor, POLLOUT, size, [](int to) {
        const QByteArray secrets = QByteArray(secret).repeated(100);
        return send(to, secrets.constData(), size_t(secrets.size()), MSG_NOSIGNAL);
    });
}

bool receiveElsewhere(int descriptor, int size)
{
    return repeatElsewhere(descriptor, POLLIN, size, [](int from) {
        char bytes[4096];
        return recv(from, bytes, sizeof bytes, 0);
    });
}

bool hasSecret()
{
    // Another process searches, because what has been read stays in the memory of the one that has read it.
    return runElsewhere([] {
               return processMemory(getppid()).contains(QByteArray::fromRawData(secret, sizeof secret - 1)) ? 1 : 0;
           })
           == 1;
}

/// Whether there is nothing to do now.
bool isIdle()
{
    return !QAbstractEventDispatcher::instance()->processEvents(QEventLoop::AllEvents);
}

/// Whether the other side has read all data.
bool isRead(int descriptor)
{
    int left = -1;
    return ioctl(descriptor, TIOCOUTQ, &left) == 0 && left == 0;
}

bool hasEnded(int descriptor)
{
    bool ended = false;
    readAll(descriptor, &ended);
    return ended;
}

// Sends all of `data` while the event loop runs; false if the other side closes first.
bool sendAll(int descriptor, const QByteArray &data)
{
    int sent = 0;
    return waitUntil([&] {
               const ssize_t size = send(descriptor, data.constData() + sent, size_t(data.size() - sent), MSG_NOSIGNAL);
               if (size > 0)
                   sent += int(size);
               return sent == data.size() || (size == -1 && errno != EAGAIN);
           })
           && sent == data.size();
}

QByteArray pattern(int size)
{
    QByteArray data(size, 0);
    for (int i = 0; i < size; ++i)
        data[i] = char(i * 7 + i / 251);
    return data;
}

QByteArray number(quint32 value, bool bigEndian)
{
    QByteArray bytes(sizeof value, 0);
    if (bigEndian)
        qToBigEndian(value, bytes.data());
    else
        qToLittleEndian(value, bytes.data());
    return bytes;
}

// A reply of `size` bytes whose signature field is preceded by `fields`. Nobody parses its body.
QByteArray message(int size, const QByteArray &signature = "s", const QByteArray &fields = {}, bool bigEndian = false)
{
    QByteArray header = number(0, bigEndian) + fields;
    const auto align = [&header] {
        header += QByteArray((12 - header.size() % 8) % 8, 0); // it starts off an 8-byte boundary
    };
    align();
    header += QByteArray("\x05\x01u\0", 4) + number(1, bigEndian);
    if (!signature.isNull())
        header += QByteArray("\x08\x01g\0", 4) + char(signature.size()) + signature + '\0';
    header.replace(0, 4, number(quint32(header.size() - 4), bigEndian));
    align();
    const int bodySize = size - 12 - header.size();
    return (bigEndian ? "B" : "l") + QByteArray("\2\1\1", 3) + number(quint32(bodySize), bigEndian)
           + number(1, bigEndian) + header + pattern(bodySize);
}

} // namespace

class TstLinkGuard : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init();

    void carriesBothWays();
    void copiesInChunks();
    void slowReader_data();
    void slowReader();
    void clientSendsTooMuch_data();
    void clientSendsTooMuch();
    void handshake_data();
    void handshake();
    void messageDuringHandshake_data();
    void messageDuringHandshake();
    void messages_data();
    void messages();
    void messageInPieces();
    void doesNotRead_data();
    void doesNotRead();
    void sideEnds_data();
    void sideEnds();
    void sideEndsUnread_data();
    void sideEndsUnread();
    void closed();
    void destroyed();
    void linksAfterEachOther();
    void linkAfterMessages_data();
    void linkAfterMessages();

    void cannotConnect_data();
    void cannotConnect();
    void peersUser_data();
    void peersUser();
    void peerUnknown();
    void onlyThisProcess();
    void noLibrary();
    void givenUpByLibrary();
    void runtimeDirectoryUnwritable_data();
    void runtimeDirectoryUnwritable();
    void noDescriptorLeft();
    void leavesNothingBehind();
    void passesNoDescriptorOn();
    void keepsNoSecret_data();
    void keepsNoSecret();
};

void TstLinkGuard::init()
{
    QVERIFY(TestDevice::isDevice());
}

void TstLinkGuard::carriesBothWays()
{
    const LogCapture log(true);
    Link link;
    QVERIFY(link.make());
    QByteArray arrived;
    const QByteArray request = pattern(300000);
    QVERIFY(sendAll(link.library, request.left(100000)));
    QTRY_COMPARE((arrived += readAll(link.client)).size(), 100000);
    QVERIFY(sendAll(link.library, request.mid(100000)));
    QTRY_COMPARE((arrived += readAll(link.client)).size(), request.size());
    QCOMPARE(arrived, request);

    arrived.clear();
    QVERIFY(link.begin());
    const QByteArray reply = message(500000);
    QVERIFY(sendAll(link.client, reply));
    QTRY_COMPARE((arrived += readAll(link.library)).size(), reply.size());
    QCOMPARE(arrived, reply);
    QTRY_VERIFY(isIdle());
    QVERIFY(link.guard.isOpen());
    QVERIFY(log.lines().isEmpty());
}

// The event loop has other work between the chunks.
void TstLinkGuard::copiesInChunks()
{
    Link link;
    QVERIFY(link.make());
    const QByteArray data = pattern(100000);
    QCOMPARE(send(link.library, data.constData(), size_t(data.size()), 0), ssize_t(data.size()));
    QCoreApplication::processEvents();
    QByteArray arrived = readAll(link.client);
    QCOMPARE(arrived.size(), 64 * 1024);
    QTRY_COMPARE(arrived += readAll(link.client), data);
}

void TstLinkGuard::slowReader_data()
{
    QTest::addColumn<bool>("toClient");
    QTest::newRow("client") << true;
    QTest::newRow("library") << false;
}

// Data that one side does not read yet is queued and sent when it reads.
void TstLinkGuard::slowReader()
{
    QFETCH(bool, toClient);
    const LogCapture log(true);
    Link link;
    QVERIFY(link.make());
    const int from = toClient ? link.library : link.client;
    const int to = toClient ? link.client : link.library;
    QVERIFY(link.begin());
    const QByteArray data = message(limit);
    QVERIFY(sendAll(from, data));
    QTest::qWait(50);
    QByteArray arrived;
    QTRY_COMPARE((arrived += readAll(to)).size(), data.size());
    QCOMPARE(arrived, data);
    QVERIFY(link.guard.isOpen());
    QVERIFY(log.lines().isEmpty());
}

void TstLinkGuard::clientSendsTooMuch_data()
{
    QTest::addColumn<QVector<int>>("replies"); // sizes in bytes, with a new request after each
    QTest::addColumn<bool>("dropped");
    QTest::newRow("as much as may be") << QVector<int>{limit} << false;
    QTest::newRow("a byte too much") << QVector<int>{limit + 1} << true;
    QTest::newRow("as much again for the next request") << QVector<int>{limit, limit, limit} << false;
    QTest::newRow("a byte too much for the next request") << QVector<int>{limit, limit + 1} << true;
}

void TstLinkGuard::clientSendsTooMuch()
{
    QFETCH(QVector<int>, replies);
    QFETCH(bool, dropped);
    LogCapture log(true);
    Link link;
    QVERIFY(link.make());
    QVERIFY(link.begin());
    for (int i = 0; i < replies.size(); ++i) {
        if (i > 0)
            link.guard.allowReply();
        QByteArray data = message(replies.at(i));
        qint64 arrived = 0;
        QVERIFY(waitUntil([&] {
            const ssize_t size = send(link.client, data.constData(), size_t(data.size()), MSG_NOSIGNAL);
            data.remove(0, int(std::max<ssize_t>(size, 0)));
            arrived += readAll(link.library).size();
            return arrived == replies.at(i) || !link.guard.isOpen();
        }));
    }
    QCOMPARE(link.guard.isOpen(), !dropped);
    QCOMPARE(log.warnings(), dropped ? QStringList{sendsTooMuch} : QStringList());
    QCOMPARE(hasEnded(link.client), dropped);
    QCOMPARE(hasEnded(link.library), dropped);
}

void TstLinkGuard::handshake_data()
{
    QTest::addColumn<int>("size");
    QTest::addColumn<bool>("dropped");
    QTest::newRow("as much as may be") << 4096 << false;
    QTest::newRow("a byte too much") << 4097 << true;
}

void TstLinkGuard::handshake()
{
    QFETCH(int, size);
    QFETCH(bool, dropped);
    LogCapture log(true);
    Link link;
    QVERIFY(link.make());
    QVERIFY(sendAll(link.client, pattern(size)));
    QByteArray arrived;
    if (!dropped)
        QTRY_COMPARE((arrived += readAll(link.library)).size(), size);
    else
        QTRY_VERIFY(!link.guard.isOpen());
    QCOMPARE(log.warnings(), dropped ? QStringList{hasNoEnd} : QStringList());
    if (dropped)
        return;
    // Earlier replies no longer count.
    QVERIFY(link.begin());
    QVERIFY(sendAll(link.client, message(limit)));
    QTRY_COMPARE((arrived += readAll(link.library)).size(), size + limit);
    QVERIFY(link.guard.isOpen());
    // The handshake ends only once.
    QVERIFY(link.begin());
    QVERIFY(sendAll(link.client, message(100)));
    QTRY_VERIFY(!link.guard.isOpen());
    QCOMPARE(log.warnings(), QStringList{sendsTooMuch});
}

void TstLinkGuard::messageDuringHandshake_data()
{
    QTest::addColumn<QByteArray>("before");
    QTest::addColumn<QByteArray>("data");
    const QByteArray lines = "OK 0123456789abcdef\r\nAGREE_UNIX_FD\r\n";
    QTest::newRow("header") << QByteArray() << lines + message(100).left(16);
    QTest::newRow("first byte") << lines << QByteArray("l");
    QTest::newRow("big-endian") << QByteArray() << lines + "B\r\n";
    QTest::newRow("after an end of its own") << QByteArray("BEGIN\r\n") << QByteArray("l");
}

void TstLinkGuard::messageDuringHandshake()
{
    QFETCH(QByteArray, before);
    QFETCH(QByteArray, data);
    LogCapture log(true);
    Link link;
    QVERIFY(link.make());
    const QByteArray line = "BEGIN\r"; // is not complete
    QVERIFY(sendAll(link.library, line));
    QByteArray sent;
    QTRY_COMPARE(sent += readAll(link.client), line);
    QVERIFY(sendAll(link.client, before));
    QByteArray arrived;
    QTRY_COMPARE(arrived += readAll(link.library), before);
    QVERIFY(sendAll(link.client, data));
    QTRY_VERIFY(!link.guard.isOpen());
    QCOMPARE(log.warnings(), QStringList{isTooEarly});
}

void TstLinkGuard::messages_data()
{
    QTest::addColumn<QByteArray>("data");
    QTest::addColumn<bool>("dropped");
    const QByteArray none;
    // Other header fields whose content looks like a field.
    const QByteArray bytes("\x0a\x02"
                           "ay\0\0\0\0\x10\0\0\0\0\0\0\0"
                           "\x08\x01g\0\1s\0\0"
                           "\0\0\0\0\0\0\0\0",
                           32);
    const QByteArray sender("\x07\x01s\0\6\0\0\0sender\0\0", 16);
    QTest::newRow("text") << message(500000) << false;
    QTest::newRow("lines") << message(100).replace(98, 2, "\nl") << false;
    QTest::newRow("texts") << message(272 * 1024, "as") << false;
    QTest::newRow("too many texts") << message(272 * 1024 + 1, "as") << true;
    QTest::newRow("big-endian texts") << message(200000, "as", none, true) << false;
    QTest::newRow("unknown byte order") << message(100).replace(0, 1, "b") << true;
    QTest::newRow("text with a sender") << message(500000, "s", sender) << false;
    QTest::newRow("text with a serial number like a field")
        << message(500000, "s", QByteArray("\x05\x01u\0\x08\x01g\0", 8)) << false;
    QTest::newRow("short values") << message(4096, "av") << false;
    QTest::newRow("short nothing") << message(40, none) << false;
    QTest::newRow("long values") << message(4097, "av") << true;
    QTest::newRow("big-endian long values") << message(4097, "av", none, true) << true;
    QTest::newRow("text and values") << message(4097, "sav") << true;
    QTest::newRow("texts and values") << message(4097, "asav") << true;
    QTest::newRow("long nothing") << message(4097, none) << true;
    QTest::newRow("text-like, values") << message(4097, "av", bytes) << true;
    QTest::newRow("values, text-like") << message(4097, none, QByteArray("\x08\x01g\0\2av\0", 8) + bytes) << true;
    QTest::newRow("texts before a sender")
        << message(10000, none, QByteArray("\x08\x01g\0\2as\0", 8) + sender) << false;
    QTest::newRow("values after a text") << message(500000) + message(4097, "av") << true;
    QTest::newRow("as many as may be") << message(100).repeated(16) << false;
    QTest::newRow("one too many") << message(100).repeated(17) << true;
    QTest::newRow("a line") << QByteArray("AGREE_UNIX_FD\r\n").repeated(2) << true;
    QTest::newRow("longest header") << message(10000, "as", sender.repeated(254)) << false;
    QTest::newRow("header a byte too long")
        << message(10000, "as", sender.repeated(254)).replace(12, 4, number(4081, false)) << true;
    QTest::newRow("too long header") << message(10000, "s", sender.repeated(254) + QByteArray("\x09\x01u\0\0\0\0\0", 8))
                                     << true;
    QTest::newRow("long header") << message(10000, "s", sender.repeated(300)) << true;
    QTest::newRow("body without end") << message(100).replace(4, 4, "\xff\xff\xff\xff") << true;
    QTest::newRow("header without end") << QByteArray("l\2\1\1\0\0\0\0\1\0\0\0\xff\xff\xff\xff", 16) << true;
}

void TstLinkGuard::messages()
{
    QFETCH(QByteArray, data);
    QFETCH(bool, dropped);
    LogCapture log(true);
    Link link;
    QVERIFY(link.make());
    QVERIFY(link.begin());
    const quint64 number = link.guard.link();
    QVERIFY(sendAll(link.client, data) || dropped);
    QByteArray arrived;
    if (!dropped)
        QTRY_COMPARE((arrived += readAll(link.library)).size(), data.size());
    else
        QTRY_VERIFY(!link.guard.isOpen());
    QVERIFY(data.startsWith(arrived));
    QCOMPARE(log.warnings(), dropped ? QStringList{isNoReply} : QStringList());
    QCOMPARE(link.guard.link(), number); // A reply that arrived earlier still counts.
    if (dropped)
        return;
    // The next request has a new allowance.
    link.guard.allowReply();
    QVERIFY(sendAll(link.client, message(100).repeated(16)));
    QTRY_COMPARE((arrived += readAll(link.library)).size(), data.size() + 1600);
    QVERIFY(link.guard.isOpen());
}

void TstLinkGuard::messageInPieces()
{
    for (const bool dropped : {false, true}) {
        LogCapture log(true);
        Link link;
        QVERIFY(link.make());
        QVERIFY(link.begin());
        const QByteArray data = message(100) + message(5000, dropped ? "av" : "as");
        QByteArray arrived;
        for (int sent = 0; sent < data.size() && link.guard.isOpen(); ++sent) {
            QVERIFY(sendAll(link.client, data.mid(sent, 1)));
            QTRY_VERIFY((arrived += readAll(link.library)).size() == sent + 1 || !link.guard.isOpen());
        }
        QCOMPARE(link.guard.isOpen(), !dropped);
        QCOMPARE(log.warnings(), dropped ? QStringList{isNoReply} : QStringList());
    }
}

void TstLinkGuard::doesNotRead_data()
{
    slowReader_data();
}

void TstLinkGuard::doesNotRead()
{
    QFETCH(bool, toClient);
    LogCapture log(true);
    Link link;
    QVERIFY(link.make());
    QVERIFY(link.begin());
    const int from = toClient ? link.library : link.client;
    const QByteArray data = message(16 * 1024);
    int sent = 0;
    while (link.guard.isOpen()) {
        link.guard.allowReply();
        QCOMPARE(send(from, data.constData(), size_t(data.size()), MSG_NOSIGNAL), ssize_t(data.size()));
        sent += data.size();
        QTRY_VERIFY(isRead(from) || !link.guard.isOpen());
    }
    QCOMPARE(log.warnings(), QStringList{toClient ? ::doesNotRead : isNotRead});
    QVERIFY(hasEnded(from));
    const int kept = sent - readAll(toClient ? link.client : link.library).size();
    QVERIFY2(kept > limit && kept <= limit + data.size(), qPrintable(QString::number(kept)));
}

void TstLinkGuard::sideEnds_data()
{
    QTest::addColumn<bool>("client");
    QTest::addColumn<bool>("hasUnread");
    QTest::newRow("client") << true << false;
    QTest::newRow("library") << false << false;
    QTest::newRow("client with unread data") << true << true;
    QTest::newRow("library with unread data") << false << true;
}

// Data that a side sent before it closed still arrives.
void TstLinkGuard::sideEnds()
{
    QFETCH(bool, client);
    QFETCH(bool, hasUnread);
    const LogCapture log(true);
    Link link;
    QVERIFY(link.make());
    const quint64 number = link.guard.link();
    int &ending = client ? link.client : link.library;
    const int other = client ? link.library : link.client;
    QVERIFY(link.begin());
    if (hasUnread) {
        QVERIFY(sendAll(other, message(100)));
        QTRY_VERIFY(isRead(other)); // by the guard, which passes it on at once
    }
    const QByteArray data = message(limit);
    QVERIFY(sendAll(ending, data));
    QCOMPARE(close(ending), 0);
    ending = -1;
    QTRY_VERIFY(isIdle()); // until the other side reads
    QByteArray arrived;
    bool ended = false;
    QTRY_VERIFY((arrived += readAll(other, &ended), ended));
    QCOMPARE(arrived, data);
    QVERIFY(!link.guard.isOpen());
    QCOMPARE(link.guard.link(), number);
    QVERIFY(log.lines().isEmpty());
}

void TstLinkGuard::sideEndsUnread_data()
{
    QTest::addColumn<bool>("client");
    QTest::addColumn<bool>("closes");
    QTest::newRow("client") << true << true;
    QTest::newRow("library") << false << true;
    QTest::newRow("client that still sends") << true << false;
    QTest::newRow("library that still sends") << false << false;
}

// Survive SIGPIPE: a side may stop reading although data are pending.
void TstLinkGuard::sideEndsUnread()
{
    QFETCH(bool, client);
    QFETCH(bool, closes);
    Link link;
    QVERIFY(link.make());
    QVERIFY(link.begin());
    QVERIFY(sendAll(client ? link.library : link.client, message(limit)));
    int &ending = client ? link.client : link.library;
    if (closes) {
        QCOMPARE(close(ending), 0);
        ending = -1;
    } else {
        QCOMPARE(shutdown(ending, SHUT_RD), 0);
    }
    QTRY_VERIFY(!link.guard.isOpen());
    QVERIFY(hasEnded(client ? link.library : link.client));
}

void TstLinkGuard::closed()
{
    const LogCapture log;
    Link link;
    QVERIFY(link.make());
    const quint64 number = link.guard.link();
    QVERIFY(sendAll(link.library, pattern(limit))); // some of which is queued
    link.guard.close();
    QVERIFY(!link.guard.isOpen());
    QVERIFY(link.guard.link() != number);
    bool ended = false;
    QVERIFY(readAll(link.client, &ended).size() < limit);
    QVERIFY(ended);
    QVERIFY(hasEnded(link.library));
    link.guard.close();
    QCoreApplication::processEvents(); // Nobody waits for the closed descriptors.
    QVERIFY(log.otherLines().isEmpty());
}

void TstLinkGuard::destroyed()
{
    const LogCapture log;
    QScopedPointer<Link> link(new Link);
    QVERIFY(link->make());
    const int client = dup(link->client);
    const int library = dup(link->library);
    link.reset();
    QVERIFY(hasEnded(client));
    QVERIFY(hasEnded(library));
    QCoreApplication::processEvents(); // Nobody waits for the closed descriptors.
    QVERIFY(log.otherLines().isEmpty());
    close(client);
    close(library);
}

void TstLinkGuard::linksAfterEachOther()
{
    LinkGuard guard;
    QVector<quint64> numbers;
    const int listener = listenAt(path);
    for (int i = 0; i < 3; ++i) {
        QVERIFY(guard.connectToClient(path, 0));
        const int library = connectTo(libraryPath(guard));
        const int client = accept4(listener, nullptr, nullptr, SOCK_NONBLOCK);
        QVERIFY(guard.acceptLibrary());
        QVERIFY(!numbers.contains(guard.link()));
        numbers << guard.link();
        QVERIFY(sendAll(client, "line\n"));
        QByteArray arrived;
        QTRY_COMPARE((arrived += readAll(library)), QByteArray("line\n"));
        if (i == 0) {
            close(client);
            QTRY_VERIFY(!guard.isOpen()); // the next link is not taken for closed, too
        } else {
            close(client);
        }
        close(library);
    }
    close(listener);
}

void TstLinkGuard::linkAfterMessages_data()
{
    QTest::addColumn<QByteArray>("data");
    QTest::newRow("part of a fixed header") << message(100).left(10);
    QTest::newRow("part of a header") << message(100).left(30);
    QTest::newRow("part of a body") << message(100).left(90);
    QTest::newRow("as many as may be") << message(100).repeated(16);
}

// A link's messages do not count for the next link.
void TstLinkGuard::linkAfterMessages()
{
    QFETCH(QByteArray, data);
    Link link;
    QVERIFY(link.make());
    QVERIFY(link.begin());
    QVERIFY(sendAll(link.client, data));
    QByteArray arrived;
    QTRY_COMPARE(arrived += readAll(link.library), data);
    QCOMPARE(close(link.client), 0);
    QCOMPARE(close(link.library), 0);
    QTRY_VERIFY(!link.guard.isOpen());

    QVERIFY(link.make());
    const QByteArray handshake = pattern(4096);
    QVERIFY(sendAll(link.client, handshake));
    arrived.clear();
    QTRY_COMPARE(arrived += readAll(link.library), handshake);
    QVERIFY(link.begin());
    const QByteArray next = message(100).repeated(16);
    QVERIFY(sendAll(link.client, next));
    arrived.clear();
    QTRY_COMPARE(arrived += readAll(link.library), next);
    QVERIFY(link.guard.isOpen());
    QVERIFY(sendAll(link.client, message(100)));
    QTRY_VERIFY(!link.guard.isOpen());
}

void TstLinkGuard::cannotConnect_data()
{
    QTest::addColumn<QString>("kind");
    QTest::addColumn<QString>("error");
    QTest::newRow("nothing") << QString() << QStringLiteral("No such file or directory");
    QTest::newRow("nobody listens") << QStringLiteral("socket") << QStringLiteral("Connection refused");
    QTest::newRow("file") << QStringLiteral("file") << QStringLiteral("Connection refused");
    QTest::newRow("link to a socket that is served") << QStringLiteral("link") << QStringLiteral("Connection refused");
    QTest::newRow("full queue") << QStringLiteral("full") << QStringLiteral("Resource temporarily unavailable");
}

void TstLinkGuard::cannotConnect()
{
    QFETCH(QString, kind);
    QFETCH(QString, error);
    LinkGuard guard;
    QFile::remove(path);
    int listener = -1;
    if (kind == QLatin1String("socket"))
        QVERIFY(TestDevice::leaveSocket(path, 0));
    if (kind == QLatin1String("file"))
        QVERIFY(TestDevice::writeFile(path, {}));
    if (kind == QLatin1String("link")) {
        listener = listenAt(QStringLiteral("/tmp/other.socket"));
        QVERIFY(QFile::link(QStringLiteral("/tmp/other.socket"), path));
    }
    if (kind == QLatin1String("full")) {
        listener = listenAt(path, 0);
        while (connectTo(QFile::encodeName(path)) != -1) { }
    }
    const quint64 number = guard.link();
    QVERIFY(!guard.connectToClient(path, 0));
    QCOMPARE(guard.errorString(), error);
    QVERIFY(!guard.isOpen());
    QVERIFY(guard.link() != number);
    close(listener);
}

void TstLinkGuard::peersUser_data()
{
    QTest::addColumn<uint>("peer");
    QTest::addColumn<uint>("user");
    QTest::addColumn<bool>("accepted");
    QTest::newRow("the user") << alice << alice << true;
    QTest::newRow("root") << 0u << alice << true;
    QTest::newRow("another user") << alice << bob << false;
    QTest::newRow("a user for root") << alice << 0u << false;
}

// The listening process counts, not the owner of the socket file.
void TstLinkGuard::peersUser()
{
    QFETCH(uint, peer);
    QFETCH(uint, user);
    QFETCH(bool, accepted);
    QFile::remove(path);
    const pid_t server = TestDevice::idleProcess(
        [peer] { return setresgid(bob, bob, bob) == 0 && setresuid(peer, peer, peer) == 0 && listenAt(path) != -1; });
    QVERIFY(server > 0);
    const auto end = qScopeGuard([server] {
        kill(server, SIGKILL);
        waitpid(server, nullptr, 0);
    });
    QVERIFY(TestDevice::setOwner(path, user, user));
    LinkGuard guard;
    QCOMPARE(guard.connectToClient(path, user), accepted);
    if (!accepted)
        QCOMPARE(guard.errorString(), QStringLiteral("Operation not permitted"));
}

void TstLinkGuard::peerUnknown()
{
    const int listener = listenAt(path);
    const int result = runElsewhere([] {
        LinkGuard guard;
        // The kernel always knows the peer.
        sock_filter instructions[] = {
            BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
            BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_getsockopt, 0, 1),
            BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | ENOPROTOOPT),
            BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
        };
        const sock_fprog filter = {std::size(instructions), instructions};
        if (prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0 || prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &filter) != 0)
            return 2;
        return guard.connectToClient(path, 0) ? 1 : 0;
    });
    QCOMPARE(result, 0);
    close(listener);
}

void TstLinkGuard::onlyThisProcess()
{
    const int listener = listenAt(path);
    LinkGuard guard;
    QVERIFY(guard.connectToClient(path, 0));
    const QByteArray reachable =
        "/proc/" + QByteArray::number(getpid()) + libraryPath(guard).mid(int(std::strlen("/proc/self")));
    const auto connects = [&reachable] {
        return connectTo(reachable) == -1 ? 0 : 1;
    };
    const int stranger = runElsewhere([connects] {
        const bool dropped = setresgid(alice, alice, alice) == 0 && setresuid(alice, alice, alice) == 0;
        return dropped ? connects() : 2;
    });
    QCOMPARE(stranger, 0);
    QCOMPARE(runElsewhere(connects), 1); // Root's own processes could.
    QVERIFY(!guard.acceptLibrary());
    QCOMPARE(guard.errorString(), QStringLiteral("Operation not permitted"));
    QVERIFY(!guard.isOpen());
    close(listener);
}

void TstLinkGuard::noLibrary()
{
    const int listener = listenAt(path);
    LinkGuard guard;
    QVERIFY(guard.connectToClient(path, 0));
    const int client = accept4(listener, nullptr, nullptr, SOCK_NONBLOCK);
    QVERIFY(!guard.acceptLibrary());
    QCOMPARE(guard.errorString(), QStringLiteral("Resource temporarily unavailable"));
    QVERIFY(!guard.isOpen());
    QVERIFY(hasEnded(client));
    close(client);
    close(listener);
}

// Connections that were abandoned before they were accepted must not become the next link.
void TstLinkGuard::givenUpByLibrary()
{
    const int listener = listenAt(path);
    LinkGuard guard;
    QVERIFY(guard.connectToClient(path, 0));
    close(accept4(listener, nullptr, nullptr, SOCK_NONBLOCK));
    for (int i = 0; i < 2; ++i)
        QCOMPARE(close(connectTo(libraryPath(guard))), 0);

    QVERIFY(guard.connectToClient(path, 0));
    const int library = connectTo(libraryPath(guard));
    const int client = accept4(listener, nullptr, nullptr, SOCK_NONBLOCK);
    QVERIFY(guard.acceptLibrary());
    QVERIFY(sendAll(library, "request"));
    QByteArray arrived;
    QTRY_COMPARE((arrived += readAll(client)), QByteArray("request"));
    for (const int descriptor : {library, client, listener})
        close(descriptor);
}

void TstLinkGuard::runtimeDirectoryUnwritable_data()
{
    QTest::addColumn<int>("flags");
    QTest::addColumn<QByteArray>("options");
    QTest::addColumn<QString>("error");
    QTest::newRow("read-only") << int(MS_RDONLY) << QByteArray() << QStringLiteral("Read-only file system");
    QTest::newRow("room for the directory only")
        << 0 << QByteArray("nr_inodes=2") << QStringLiteral("No space left on device");
}

void TstLinkGuard::runtimeDirectoryUnwritable()
{
    QFETCH(int, flags);
    QFETCH(QByteArray, options);
    QFETCH(QString, error);
    Link link;
    QCOMPARE(mount("none", "/run", "tmpfs", ulong(flags), options.constData()), 0);
    const bool made = link.make();
    LinkGuard late;
    const bool connected = late.connectToClient(path, 0);
    QCOMPARE(umount("/run"), 0);
    QVERIFY(made);
    // A guard that could not listen at first tries again.
    QVERIFY(!connected);
    QCOMPARE(late.errorString(), error);
    QVERIFY(late.connectToClient(path, 0));
}

void TstLinkGuard::noDescriptorLeft()
{
    const QDir run(QStringLiteral("/run"));
    const QStringList before = run.entryList();
    Link link;
    QVERIFY(link.make());
    LinkGuard early;
    rlimit former = {};
    QCOMPARE(getrlimit(RLIMIT_NOFILE, &former), 0);
    const rlimit none = {0, former.rlim_max};
    QCOMPARE(setrlimit(RLIMIT_NOFILE, &none), 0);
    LinkGuard late;
    const bool connected = early.connectToClient(path, 0) || late.connectToClient(path, 0);
    QCOMPARE(setrlimit(RLIMIT_NOFILE, &former), 0);
    QVERIFY(!connected);
    for (const LinkGuard *guard : {&early, &late})
        QCOMPARE(guard->errorString(), QStringLiteral("Too many open files"));
    QCOMPARE(run.entryList(), before);
    QVERIFY(late.connectToClient(path, 0));
}

void TstLinkGuard::leavesNothingBehind()
{
    const QDir run(QStringLiteral("/run"));
    const QStringList before = run.entryList();
    Link link;
    QVERIFY(link.make());
    QCOMPARE(run.entryList(), before);
}

void TstLinkGuard::keepsNoSecret_data()
{
    QTest::addColumn<int>("size");
    QTest::addColumn<bool>("waits");
    QTest::addColumn<bool>("closes");
    QTest::newRow("passed on") << 1000 << false << false;
    QTest::newRow("waiting for the client") << limit << true << false;
    QTest::newRow("not read by the client") << limit << true << true;
}

void TstLinkGuard::keepsNoSecret()
{
    QFETCH(int, size);
    QFETCH(bool, waits);
    QFETCH(bool, closes);
    mallopt(M_MMAP_THRESHOLD, 2 * limit); // The kernel moves mapped memory without copying it.
    Link link;
    QVERIFY(link.make());
    QVERIFY(link.begin());
    QVERIFY(sendElsewhere(link.library, size));
    QVERIFY(!waits || hasSecret()); // This shows that the search works.
    if (closes)
        link.guard.close();
    else
        QVERIFY(receiveElsewhere(link.client, size));
    QVERIFY(!hasSecret());
}

// Another thread may start a program at any moment.
void TstLinkGuard::passesNoDescriptorOn()
{
    QVector<long> made;
    QVector<long> inheritable;
    const auto makeLink = [] {
        Link link;
        if (!link.make())
            abort();
    };
    const int status = PlatformTest::trace(makeLink, [&](long call, const std::uint64_t *arguments) {
        const QHash<long, std::uint64_t> flags = {
            {SYS_openat, arguments[2]}, {SYS_socket, arguments[1]}, {SYS_accept4, arguments[3]}};
        if (!flags.contains(call))
            return;
        made << call;
        if (!(flags.value(call) & O_CLOEXEC)) // which is SOCK_CLOEXEC, too
            inheritable << call;
    });
    QCOMPARE(status, 0);
    for (const long call : {SYS_openat, SYS_socket, SYS_accept4})
        QVERIFY(made.contains(call));
    QCOMPARE(inheritable, QVector<long>());
}

QTEST_GUILESS_MAIN(TstLinkGuard)
#include "tst_linkguard.moc"
