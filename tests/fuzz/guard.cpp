// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
// What the client sends through the link's guard, before and after the handshake. The D-Bus library's side is a plain
// socket here. A parser that knows the D-Bus format checks what arrives there.
#include "auth/linkguard.h"
#include "dbusmessage.h"
#include "fuzz.h"

#include "files/descriptor.h"

#include <QAbstractEventDispatcher>
#include <QtEndian>

#include <algorithm>
#include <optional>

#include <sys/socket.h>
#include <sys/un.h>

namespace {

const QByteArray clientPath("/run/client.socket");
constexpr int largestReply = 1024 * 1024;
constexpr int largestList = 272 * 1024;
constexpr int largestOther = 4 * 1024;
constexpr int mostMessages = 16;

sockaddr_un addressOf(const QByteArray &path)
{
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    qstrncpy(address.sun_path, path.constData(), sizeof address.sun_path);
    return address;
}

int makeSocket()
{
    return socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
}

int listenAsClient()
{
    const int listener = makeSocket();
    const sockaddr_un address = addressOf(clientPath);
    REQUIRE(bind(listener, reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0
            && listen(listener, 1) == 0);
    return listener;
}

/// One D-Bus message at the beginning of a stream.
class Message
{
public:
    explicit Message(const QByteArray &stream)
        : m_bytes(stream)
    {
        if (stream.size() >= DBusMessage::fixedSize)
            m_size = (16 + qint64(number(12)) + 7) / 8 * 8 + number(4);
    }
    /// 0 if it is unknown yet.
    qint64 size() const { return m_size; }
    /// The body's signature; nothing if the header is not valid.
    std::optional<QByteArray> signature() const
    {
        QByteArray found;
        const qint64 end = DBusMessage::fixedSize + qint64(number(12));
        qint64 at = DBusMessage::fixedSize;
        while (at < end) {
            at = (at + 7) / 8 * 8;
            if (at + 4 > end || byte(at + 1) != 1 || byte(at + 3) != 0)
                return {};
            const int field = byte(at);
            const int type = byte(at + 2);
            at += 4;
            QByteArray value;
            if (type == 'g') {
                if (at >= end)
                    return {};
                value = m_bytes.mid(int(at + 1), byte(at));
                at += 2 + byte(at);
            } else if (type == 'u') {
                at += 4;
            } else if ((type == 's' || type == 'o') && at + 4 <= end) {
                at += 4 + qint64(number(int(at))) + 1;
            } else {
                return {};
            }
            if (at > end)
                return {};
            if (field == DBusMessage::Signature && type == 'g')
                found = value;
        }
        return found;
    }

private:
    int byte(qint64 position) const { return uchar(m_bytes.at(int(position))); }
    quint32 number(int position) const
    {
        const char *const bytes = m_bytes.constData() + position;
        return m_bytes.at(0) == 'l' ? qFromLittleEndian<quint32>(bytes) : qFromBigEndian<quint32>(bytes);
    }

    const QByteArray m_bytes;
    qint64 m_size = 0;
};

/// The link with its guard, and both ends.
class Link
{
public:
    Link()
    {
        static const int listener = listenAsClient();
        REQUIRE(m_guard.connectToClient(QString::fromLatin1(clientPath), 0));
        const sockaddr_un address = addressOf(m_guard.address().section(QLatin1Char('='), 1).toLatin1());
        REQUIRE(connect(m_library.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0);
        m_client.reset(accept4(listener, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC));
        REQUIRE(m_client.isValid() && m_guard.acceptLibrary());
    }
    bool isOpen() const { return m_guard.isOpen(); }
    void allowReply()
    {
        m_guard.allowReply();
        m_requestAt = m_received.size();
        m_messages = 0;
    }
    void sendFromClient(QByteArray bytes)
    {
        m_sent += bytes;
        while (isOpen() && !bytes.isEmpty()) {
            send(m_client, bytes);
            relay();
        }
    }
    void sendFromLibrary(QByteArray bytes)
    {
        const int before = m_fromLibrary;
        const int size = bytes.size();
        while (isOpen() && !bytes.isEmpty()) {
            send(m_library, bytes);
            relay();
        }
        REQUIRE(!isOpen() || m_fromLibrary == before + size);
    }
    void endHandshake()
    {
        sendFromLibrary("BEGIN\r\n");
        if (m_messageAt == -1)
            m_messageAt = m_received.size();
        allowReply();
    }
    /// Requires that the library has received nothing but what the client sent, within the limits.
    void check()
    {
        REQUIRE(m_sent.startsWith(m_received));
        REQUIRE(!isOpen() || m_received == m_sent);
        REQUIRE(m_received.size() - m_requestAt <= largestReply);
        if (m_messageAt == -1)
            return;
        while (m_messageAt < m_received.size()) {
            const Message message(m_received.mid(m_messageAt));
            if (message.size() == 0 || m_messageAt + message.size() > m_received.size())
                return;
            const std::optional<QByteArray> signature = message.signature();
            if (signature == QByteArray("as"))
                REQUIRE(message.size() <= largestList);
            else if (signature && signature != QByteArray("s"))
                REQUIRE(message.size() <= largestOther);
            REQUIRE(++m_messages <= mostMessages);
            m_messageAt += int(message.size());
        }
    }

private:
    static void send(const Descriptor &from, QByteArray &bytes)
    {
        const ssize_t size = ::send(from.get(), bytes.constData(), size_t(bytes.size()), MSG_NOSIGNAL);
        REQUIRE(size != -1 || errno == EAGAIN || errno == EPIPE || errno == ECONNRESET);
        bytes.remove(0, int(std::max<ssize_t>(size, 0)));
    }
    /// Lets the guard copy everything that was sent.
    void relay()
    {
        static char chunk[1024 * 1024];
        bool isIdle = false;
        while (!isIdle) {
            // One round may handle only one of several events.
            isIdle = !QCoreApplication::eventDispatcher()->processEvents(QEventLoop::AllEvents);
            const ssize_t toLibrary = recv(m_library.get(), chunk, sizeof chunk, 0);
            if (toLibrary > 0)
                m_received.append(chunk, int(toLibrary));
            const ssize_t toClient = recv(m_client.get(), chunk, sizeof chunk, 0);
            if (toClient > 0)
                m_fromLibrary += int(toClient);
            isIdle = isIdle && toLibrary <= 0 && toClient <= 0;
        }
    }

    LinkGuard &m_guard = guard();
    Descriptor m_client;
    Descriptor m_library{makeSocket()};
    QByteArray m_sent;
    QByteArray m_received; ///< By the library.
    int m_fromLibrary = 0; ///< Bytes that the client has received.
    int m_requestAt = 0; ///< Where the replies to the present request begin.
    int m_messageAt = -1; ///< Where the next message begins; -1 during the handshake.
    int m_messages = 0; ///< Messages since the request.

    static LinkGuard &guard()
    {
        static auto *const guard = new LinkGuard;
        return *guard;
    }
};

/// A message whose header and size the fuzzer chooses.
QByteArray anyMessage(FuzzedDataProvider &source)
{
    static const char *const signatures[] = {"s", "as", "", "v", "ss", "ay", "sas", "a{sv}"};
    QByteArray fields;
    for (int count = source.ConsumeIntegralInRange(0, 4); count > 0; --count) {
        switch (source.ConsumeIntegralInRange(0, 2)) {
        case 0:
            DBusMessage::appendReplySerial(fields, source.ConsumeIntegral<quint32>());
            break;
        case 1:
            DBusMessage::appendField(fields, DBusMessage::Signature, source.PickValueInArray(signatures));
            break;
        default:
            DBusMessage::appendField(fields, DBusMessage::ErrorName, DBusMessage::anyText(source));
        }
    }
    static const int sizes[] = {0, 100, largestOther, largestList, largestReply};
    const int size = source.PickValueInArray(sizes) + source.ConsumeIntegralInRange(-64, 64);
    return DBusMessage::message(DBusMessage::Reply, fields, QByteArray(std::max(size, 0), 'l'));
}

} // namespace

int LLVMFuzzerInitialize(int *argc, char ***argv)
{
    Fuzz::start(argc, argv);
    return 0;
}

int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    FuzzedDataProvider source(data, size);
    Link link;
    while (link.isOpen() && source.remaining_bytes() > 0) {
        switch (source.ConsumeIntegralInRange(0, 5)) {
        case 0:
            link.endHandshake();
            break;
        case 1:
            link.allowReply();
            break;
        case 2:
            link.sendFromLibrary(DBusMessage::anyText(source));
            break;
        case 3:
            link.sendFromClient(DBusMessage::anyText(source));
            break;
        default: {
            const QByteArray message = anyMessage(source);
            const int split = source.ConsumeIntegralInRange(0, message.size());
            link.sendFromClient(message.left(split));
            link.sendFromClient(message.mid(split));
        }
        }
        link.check();
    }

    // Where the stream is cut makes no difference.
    MessageGate whole;
    MessageGate pieces;
    bool isAdmitted = true;
    const auto *bytes = reinterpret_cast<const char *>(data);
    for (std::size_t i = 0; isAdmitted && i < size; ++i)
        isAdmitted = pieces.admits(bytes + i, 1);
    REQUIRE(whole.admits(bytes, int(size)) == isAdmitted);
    return 0;
}
