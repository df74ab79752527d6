// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
// The client's replies, of every type, to the method's calls. The client here speaks on a plain socket.
#include "dbusmessage.h"
#include "fuzz.h"
#include "settings/constants.h"
#include "unit/methodfixture.h"

#include "files/descriptor.h"

#include <QElapsedTimer>

#include <sys/socket.h>
#include <sys/un.h>

namespace {

using Call = RecordingDaemon::Call;

constexpr int patience = 5000; ///< Milliseconds.
constexpr int maximumCerts = 1000;
constexpr int maximumCertListSize = 256 * 1024;
const QString certs = QStringLiteral("certs");

/// The outcome of each answer; any other text is a failed attempt.
const QHash<QByteArray, Call> outcomes = {
    {"success", RecordingDaemon::succeeded()},
    {"lock", RecordingDaemon::failed(SettingsKavet::EnterPasswordOrPin, SettingsKavet::UserLocked)},
    {"nousb", RecordingDaemon::failed(SettingsKavet::EnterPasswordOrPin, SettingsKavet::NoUsbDevice)},
    {"failed", RecordingDaemon::failed(SettingsKavet::EnterPasswordOrPin, SettingsKavet::AuthFailed)},
};

MethodFixture &fixture()
{
    static auto *const fixture = new MethodFixture; // Qt's own globals may be destroyed first.
    return *fixture;
}

/// Processes events until `condition` holds.
template <typename Condition>
void waitFor(Condition condition)
{
    QElapsedTimer timer;
    timer.start();
    while (!condition()) {
        REQUIRE(timer.elapsed() < patience);
        QCoreApplication::processEvents();
        QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
    }
}

quint32 numberAt(const QByteArray &bytes, int position)
{
    quint32 number = 0;
    memcpy(&number, bytes.constData() + position, sizeof number);
    return number;
}

/// The client's end of the link.
class Client
{
public:
    Client()
    {
        QDir().mkpath(TestDevice::clientDirectory);
        sockaddr_un address = {};
        address.sun_family = AF_UNIX;
        qstrncpy(address.sun_path, TestDevice::socketPath.toLatin1().constData(), sizeof address.sun_path);
        REQUIRE(bind(m_listener.get(), reinterpret_cast<sockaddr *>(&address), sizeof address) == 0
                && listen(m_listener.get(), 1) == 0);
    }
    /// Accepts a new link and completes the handshake.
    void accept()
    {
        m_received.clear();
        waitFor([this] {
            m_link.reset(accept4(m_listener.get(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC));
            return m_link.isValid();
        });
        receiveLine("AUTH EXTERNAL");
        send("OK 0123456789abcdef0123456789abcdef\r\n");
        receiveLine("NEGOTIATE_UNIX_FD");
        send("ERROR\r\n");
        receiveLine("BEGIN");
    }
    /// Receives a call and returns its serial number; nothing when the library has closed the link.
    std::optional<quint32> receiveCall()
    {
        constexpr int callType = 1;
        bool isOpen = true;
        while (isOpen) {
            const auto size = [this] {
                return m_received.size() < DBusMessage::fixedSize
                           ? DBusMessage::fixedSize
                           : (DBusMessage::fixedSize + int(numberAt(m_received, 12)) + 7) / 8 * 8
                                 + int(numberAt(m_received, 4));
            };
            waitFor([&] { return !(isOpen = receive()) || m_received.size() >= size(); });
            const QByteArray message = m_received.left(size());
            m_received.remove(0, size());
            if (message.size() > callType && message.at(callType) == DBusMessage::Call)
                return numberAt(message, 8);
        }
        return {};
    }
    void send(QByteArray bytes)
    {
        waitFor([&] {
            const ssize_t size = ::send(m_link.get(), bytes.constData(), size_t(bytes.size()), MSG_NOSIGNAL);
            bytes.remove(0, int(std::max<ssize_t>(size, 0)));
            return bytes.isEmpty() || (size == -1 && errno != EAGAIN);
        });
    }

private:
    /// Receives what there is. False at the end of the stream.
    bool receive()
    {
        char chunk[4096];
        const ssize_t size = recv(m_link.get(), chunk, sizeof chunk, 0);
        if (size > 0)
            m_received.append(chunk, int(size));
        return size != 0 && (size > 0 || errno == EAGAIN);
    }
    void receiveLine(const QByteArray &text)
    {
        int begin = -1;
        waitFor([&] { return receive() && (begin = m_received.indexOf(text)) != -1 && m_received.contains("\r\n"); });
        m_received.remove(0, m_received.indexOf("\r\n", begin) + 2);
    }

    const Descriptor m_listener{socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0)};
    Descriptor m_link;
    QByteArray m_received;
};

/// A reply and what the plugin must make of it.
struct Reply
{
    QByteArray bytes;
    std::optional<Call> outcome;
    bool isSuccess = false; ///< Whether it may make the attempt succeed.
};

QByteArray replyTo(quint32 serial, const QByteArray &signature, const QByteArray &body)
{
    QByteArray fields;
    DBusMessage::appendReplySerial(fields, serial);
    if (!signature.isEmpty())
        DBusMessage::appendField(fields, DBusMessage::Signature, signature);
    return DBusMessage::message(DBusMessage::Reply, fields, body);
}

QByteArray text(const QByteArray &text)
{
    QByteArray body;
    DBusMessage::appendText(body, text);
    return body;
}

/// One of the client's answers, or any text.
Reply answer(quint32 serial, FuzzedDataProvider &source)
{
    const QByteArray answer =
        source.ConsumeBool() ? std::next(outcomes.cbegin(), source.ConsumeIntegralInRange(0, outcomes.size() - 1)).key()
                             : DBusMessage::anyText(source);
    const bool isText = !answer.contains('\0') && QString::fromUtf8(answer).toUtf8() == answer;
    Reply reply = {replyTo(serial, "s", text(answer)), {}, answer == "success"};
    if (isText)
        reply.outcome = outcomes.value(answer, outcomes.value("failed"));
    return reply;
}

/// A list of certificates.
Reply list(quint32 serial, FuzzedDataProvider &source)
{
    const int count = source.ConsumeIntegralInRange(0, maximumCerts + 1);
    const QByteArray cert = QByteArray(source.ConsumeIntegralInRange(0, maximumCertListSize / (count + 1) + 8), 'c');
    QByteArray elements;
    for (int i = 0; i < count; ++i)
        DBusMessage::appendText(elements, cert);
    QByteArray body;
    DBusMessage::append(body, quint32(elements.size()));
    QStringList expected;
    if (count <= maximumCerts && count * cert.size() <= maximumCertListSize) {
        for (int i = 0; i < count; ++i)
            expected << QString::fromLatin1(cert);
    }
    return {replyTo(serial, "as", body.append(elements)),
            Call{QStringLiteral("optionChanged"), {0U, certs, expected, true}}};
}

/// A message of any type, with any values.
Reply anything(quint32 serial, FuzzedDataProvider &source)
{
    static const char *const signatures[] = {"",   "s",  "as",    "i",   "v",         "a{sv}", "(s)", "ss", "sas",
                                             "ay", "o",  "g",     "h",   "b",         "d",     "x",   "av", "aas",
                                             "sv", "as", "a(si)", "vvv", "a{sa{sv}}", "nqt",   "ass", "y",  "si"};
    QByteArray signature = source.PickValueInArray(signatures);
    QByteArray body;
    for (const char *type = signature.constData(); *type != '\0'; type = DBusMessage::skipped(type))
        DBusMessage::appendValue(body, type, source);
    if (source.ConsumeBool()) // Anything in its place.
        body = DBusMessage::anyText(source);
    QByteArray fields;
    if (source.ConsumeIntegralInRange(0, 9) != 0)
        DBusMessage::appendReplySerial(fields, source.ConsumeBool() ? serial : source.ConsumeIntegral<quint32>());
    for (const DBusMessage::Field field :
         {DBusMessage::Path, DBusMessage::Interface, DBusMessage::Member, DBusMessage::ErrorName}) {
        if (source.ConsumeBool())
            DBusMessage::appendField(fields, field,
                                     source.ConsumeBool() ? QByteArray("a.b") : DBusMessage::anyText(source));
    }
    if (source.ConsumeIntegralInRange(0, 9) == 0)
        signature = DBusMessage::anyText(source);
    if (!signature.isEmpty())
        DBusMessage::appendField(fields, DBusMessage::Signature, signature);
    const auto type = DBusMessage::Type(source.ConsumeIntegralInRange<int>(DBusMessage::Call, DBusMessage::Signal));
    return {
        DBusMessage::message(type, fields, body), {}, type == DBusMessage::Reply && body.startsWith(text("success"))};
}

} // namespace

int LLVMFuzzerInitialize(int *argc, char ***argv)
{
    Fuzz::start(argc, argv);
    TestDevice::reset();
    fixture().d->child.clientRunning = true;
    fixture().d->child.clientUid = TestDevice::alice;
    fixture().d->child.socketPresent = true;
    fixture().d->currentUid = TestDevice::alice;
    return 0;
}

int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    static Client client;
    MethodFixture &method = fixture();
    FuzzedDataProvider source(data, size);
    method.daemon.calls.clear();
    method.d->clientStage = MethodKavetPrivate::Linked;
    const bool isList = source.ConsumeBool();
    const quint64 link = method.d->guard.link();
    if (isList)
        method.d->getCertList();
    else if (source.ConsumeBool())
        method.d->checkPassword(QString::fromUtf8(DBusMessage::anyText(source)));
    else
        method.d->validateCert(QString::fromUtf8(DBusMessage::anyText(source)), QStringLiteral("1234"));
    if (method.d->guard.link() != link)
        client.accept();

    const std::optional<quint32> serial = client.receiveCall();
    std::optional<Call> expected;
    bool maySucceed = false;
    if (serial) {
        const bool isPlain = source.ConsumeBool();
        if (isPlain) {
            const Reply reply = isList ? list(*serial, source) : answer(*serial, source);
            expected = reply.outcome;
            maySucceed = reply.isSuccess;
            client.send(reply.bytes);
        }
        for (int count = isPlain ? 0 : source.ConsumeIntegralInRange(1, 4); count > 0; --count) {
            const Reply reply = anything(*serial, source);
            maySucceed = maySucceed || reply.isSuccess;
            client.send(reply.bytes);
        }
        // If the method still waits, this ends the wait.
        client.send(replyTo(*serial, "s", text("failed")));
    }
    waitFor([&] { return !method.isWaiting(); });
    REQUIRE(method.daemon.calls.size() == 1);
    const Call &call = method.daemon.calls.first();
    REQUIRE(!expected || call == *expected);
    REQUIRE(!isList || call.operation == QLatin1String("optionChanged"));
    REQUIRE(isList || call == RecordingDaemon::succeeded() ? isList || maySucceed
                                                           : call.operation == QLatin1String("finish"));
    return 0;
}
