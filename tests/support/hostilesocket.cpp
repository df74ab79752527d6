// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#include "hostilesocket.h"

#include <QByteArray>
#include <QFile>

#include <csignal>
#include <cstring>
#include <random>

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

enum MessageType { MethodCall = 1, MethodReturn = 2 };

template <typename Value>
QByteArray bytes(Value value)
{
    return QByteArray(reinterpret_cast<const char *>(&value), sizeof value);
}

void align(QByteArray &message, int boundary)
{
    while (message.size() % boundary)
        message += '\0';
}

// One field of a D-Bus message's header.
void addField(QByteArray &message, char code, char type, const QByteArray &value)
{
    align(message, 8);
    message += code;
    message += '\1';
    message += type;
    message += '\0';
    if (type == 'u' || type == 'g') {
        message += value;
        return;
    }
    message += bytes(quint32(value.size())) + value + '\0';
}

// A message with `body`, whose type is `signature`.
QByteArray message(MessageType type, quint32 replySerial, const QByteArray &signature, const QByteArray &body)
{
    QByteArray result("l");
    result += char(type);
    result += QByteArray("\0\1", 2) + bytes(quint32(body.size())) + bytes(quint32(1));
    const int lengthAt = result.size();
    result += bytes(quint32(0));
    if (type == MethodCall) {
        addField(result, 1, 'o', "/nowhere");
        addField(result, 3, 's', "nothing");
    } else {
        addField(result, 5, 'u', bytes(replySerial));
    }
    if (!body.isEmpty())
        addField(result, 8, 'g', char(signature.size()) + signature + '\0');
    result.replace(lengthAt, 4, bytes(quint32(result.size() - lengthAt - 4)));
    align(result, 8);
    return result + body;
}

QByteArray message(MessageType type, quint32 replySerial, const QByteArray &text)
{
    return message(type, replySerial, "s", text.isNull() ? QByteArray() : bytes(quint32(text.size())) + text + '\0');
}

QByteArray replyOfManyValues(quint32 replySerial)
{
    const QByteArray value("\1y\0x", 4); // a variant
    const QByteArray values = value.repeated(1000 * 1024 / value.size());
    return message(MethodReturn, replySerial, "av", bytes(quint32(values.size())) + values);
}

[[noreturn]] void waitForEver()
{
    for (;;)
        pause();
}

void sendAll(int peer, const QByteArray &data)
{
    for (int sent = 0; sent < data.size();) {
        const ssize_t size = send(peer, data.constData() + sent, size_t(data.size() - sent), MSG_NOSIGNAL);
        if (size <= 0)
            waitForEver();
        sent += int(size);
    }
}

QByteArray readLine(int peer)
{
    QByteArray line;
    char character = 0;
    while (!line.endsWith("\r\n") && recv(peer, &character, 1, 0) == 1)
        line += character;
    return line;
}

void shakeHands(int peer)
{
    for (;;) {
        const QByteArray line = readLine(peer);
        if (line.isEmpty())
            waitForEver();
        if (line.startsWith("BEGIN"))
            return;
        sendAll(peer, line.contains("AUTH") ? "OK 0123456789abcdef0123456789abcdef\r\n" : "AGREE_UNIX_FD\r\n");
    }
}

sockaddr_un socketAddress(const QString &path)
{
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, QFile::encodeName(path).constData(), sizeof address.sun_path - 1);
    return address;
}

int makeSocket(int flags)
{
    return socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | flags, 0);
}

void fillQueue(const sockaddr_un &address)
{
    while (connect(makeSocket(SOCK_NONBLOCK), reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0) { }
}

void sendDescriptors(int peer)
{
    constexpr size_t count = 100;
    alignas(cmsghdr) char control[CMSG_SPACE(count * sizeof(int))] = {};
    QByteArray data = message(MethodCall, 0, {});
    iovec part = {data.data(), size_t(data.size())};
    msghdr header = {};
    header.msg_iov = &part;
    header.msg_iovlen = 1;
    header.msg_control = control;
    header.msg_controllen = sizeof control;
    cmsghdr *rights = CMSG_FIRSTHDR(&header);
    rights->cmsg_level = SOL_SOCKET;
    rights->cmsg_type = SCM_RIGHTS;
    rights->cmsg_len = CMSG_LEN(count * sizeof(int));
    for (size_t i = 0; i < count; ++i) {
        const int descriptor = open("/dev/null", O_RDONLY | O_CLOEXEC);
        std::memcpy(CMSG_DATA(rights) + i * sizeof descriptor, &descriptor, sizeof descriptor);
    }
    sendmsg(peer, &header, MSG_NOSIGNAL);
}

QByteArray readExactly(int peer, int size)
{
    QByteArray data(size, 0);
    return recv(peer, data.data(), size_t(size), MSG_WAITALL) == size ? data : QByteArray();
}

quint32 numberAt(const QByteArray &data, int position)
{
    quint32 number = 0;
    std::memcpy(&number, data.constData() + position, sizeof number);
    return number;
}

void answerYes(int listener)
{
    const int peer = accept(listener, nullptr, nullptr);
    shakeHands(peer);
    for (;;) {
        const QByteArray start = readExactly(peer, 16);
        if (start.isEmpty())
            break;
        const quint32 fields = (numberAt(start, 12) + 7) / 8 * 8;
        const QByteArray rest = readExactly(peer, int(fields + numberAt(start, 4)));
        (void)!write(STDOUT_FILENO, rest.constData(), size_t(rest.size()));
        sendAll(peer, message(MethodReturn, numberAt(start, 8), "success"));
    }
    close(peer);
}

[[noreturn]] void attackPeer(int peer, const QString &attack)
{
    if (attack == QLatin1String("silent"))
        waitForEver();
    if (attack == QLatin1String("trickle")) {
        for (;; sleep(1))
            sendAll(peer, "O");
    }
    if (attack == QLatin1String("noise")) {
        std::minstd_rand random;
        for (QByteArray noise(4096, 0);;) {
            for (char &byte : noise)
                byte = char(random());
            sendAll(peer, noise);
        }
    }
    if (attack == QLatin1String("greeting")) {
        for (const QByteArray line("AGREE_UNIX_FD\r\n");;)
            sendAll(peer, line);
    }
    shakeHands(peer);
    if (attack == QLatin1String("flood")) {
        for (const QByteArray call = message(MethodCall, 0, "x");;)
            sendAll(peer, call);
    }
    if (attack == QLatin1String("huge")) {
        const QByteArray call = readExactly(peer, 16);
        sendAll(peer, message(MethodReturn, numberAt(call, 8), QByteArray(100 * 1024 * 1024, 'x')));
    }
    if (attack == QLatin1String("values"))
        sendAll(peer, replyOfManyValues(numberAt(readExactly(peer, 16), 8)));
    if (attack == QLatin1String("returns")) {
        const QByteArray reply = message(MethodReturn, 12345, {});
        readExactly(peer, 16);
        sendAll(peer, reply.repeated(1000 * 1024 / reply.size()));
    }
    if (attack == QLatin1String("descriptors"))
        sendDescriptors(peer);
    for (char byte = 0; recv(peer, &byte, 1, 0) > 0;) { }
    waitForEver();
}

} // namespace

void serveHostile(const QString &path, const QString &attack)
{
    // Rename into place, so that nobody sees a socket that does not listen yet.
    const QString temporary = path + QStringLiteral(".new");
    const int listener = makeSocket(0);
    const sockaddr_un address = socketAddress(temporary);
    if (bind(listener, reinterpret_cast<const sockaddr *>(&address), sizeof address) == -1
        || listen(listener, attack == QLatin1String("full") ? 0 : 16) == -1)
        qFatal("Cannot serve");
    if (attack == QLatin1String("full"))
        fillQueue(address);
    if (rename(QFile::encodeName(temporary).constData(), QFile::encodeName(path).constData()) == -1)
        qFatal("Cannot put the socket into its place");
    if (attack == QLatin1String("full"))
        waitForEver();
    while (attack == QLatin1String("yes"))
        answerYes(listener);
    attackPeer(accept(listener, nullptr, nullptr), attack);
}
