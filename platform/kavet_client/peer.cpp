// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#include "peer.h"

#include "kavetauth.h"
#include "secret.h"

#include <QTimerEvent>

#include <cerrno>
#include <chrono>
#include <limits>

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

/// Several times the size of any D-Bus library's handshake, in bytes.
constexpr int maximumHandshake = 4096;

/// The authentication mechanism that proves no identity.
constexpr char anonymous[] = "ANONYMOUS";

/// Any message may hold a secret, even a call of an unknown method.
int markAsSensitive(sd_bus_message *message, void *, sd_bus_error *)
{
    return qMin(sd_bus_message_sensitive(message), 0);
}

/// The milliseconds until `time`, which is in microseconds on the library's clock.
int millisecondsUntil(uint64_t time)
{
    using namespace std::chrono;
    const auto now = uint64_t(duration_cast<microseconds>(steady_clock::now().time_since_epoch()).count());
    return time <= now ? 0 : int(qMin<uint64_t>((time - now) / 1000 + 1, std::numeric_limits<int>::max()));
}

} // namespace

Peer::Peer(int socket, KavetAuth &auth, QObject *parent)
    : QObject(parent)
    , m_auth(auth)
    , m_socket(socket)
    , m_readable(socket, QSocketNotifier::Read)
    , m_writable(socket, QSocketNotifier::Write)
{
    m_writable.setEnabled(false);
    connect(&m_readable, &QSocketNotifier::activated, this, &Peer::receive);
    connect(&m_writable, &QSocketNotifier::activated, this, &Peer::process);
    // An asynchronous reply may have to be written.
    connect(&auth, &KavetAuth::answered, this, &Peer::watch);
}

Peer::~Peer()
{
    m_readable.setEnabled(false);
    m_writable.setEnabled(false);
    if (m_handshake != -1)
        close(m_handshake);
    sd_bus_close_unref(m_bus);
}

bool Peer::start()
{
    int handshake[2];
    sd_id128_t id = {};
    if (pipe2(handshake, O_CLOEXEC) != 0) {
        m_readable.setEnabled(false);
        close(m_socket);
        return false;
    }
    m_input = handshake[0];
    m_handshake = handshake[1];
    // The kernel has already identified the peer, and the library cannot read credentials from a pipe. So let the
    // library accept any identity.
    const bool started = sd_bus_new(&m_bus) >= 0 && sd_bus_set_fd(m_bus, m_input, m_socket) >= 0
                         && sd_id128_randomize(&id) >= 0 && sd_bus_set_server(m_bus, true, id) >= 0
                         && sd_bus_set_anonymous(m_bus, true) >= 0 && sd_bus_set_trusted(m_bus, true) >= 0
                         && sd_bus_add_filter(m_bus, nullptr, markAsSensitive, nullptr) >= 0 && m_auth.serveOn(m_bus)
                         && sd_bus_start(m_bus) >= 0;
    if (started)
        watch();
    return started;
}

void Peer::receive()
{
    if (isReady())
        process();
    else
        shakeHands();
}

// The library reads the handshake in blocks. A block may include the first call, and the library would leave parts of
// it in memory without erasing them. So feed it the handshake line by line through a pipe, and switch to the socket
// afterwards.
void Peer::shakeHands()
{
    char byte = 0;
    ssize_t size = 0;
    while ((size = read(m_socket, &byte, 1)) == 1) {
        m_handshakeLine += byte;
        if (++m_handshakeSize > maximumHandshake)
            return end();
        if (byte != '\n')
            continue;
        if (!passLine())
            return;
        if (sd_bus_is_ready(m_bus) > 0) {
            dup3(m_socket, m_input, O_CLOEXEC);
            close(m_handshake);
            m_handshake = -1;
            return;
        }
    }
    if (size == 0 || (errno != EAGAIN && errno != EINTR))
        end();
}

bool Peer::passLine()
{
    if (m_handshakeLine.contains(anonymous)
        || write(m_handshake, m_handshakeLine.constData(), size_t(m_handshakeLine.size())) != m_handshakeLine.size()) {
        end();
        return false;
    }
    m_handshakeLine.clear();
    int progress = 0;
    do {
        progress = process();
    } while (progress > 0 && sd_bus_is_ready(m_bus) == 0);
    return progress >= 0;
}

int Peer::process()
{
    // One step per event, so that all peers get their turn.
    const int progress = sd_bus_process(m_bus, nullptr);
    wipeStack();
    if (progress < 0) {
        end();
        return -1;
    }
    watch();
    return progress;
}

void Peer::watch()
{
    const int events = sd_bus_get_events(m_bus);
    uint64_t unsent = 0;
    uint64_t time = 0;
    if (events < 0 || sd_bus_get_n_queued_write(m_bus, &unsent) < 0 || sd_bus_get_timeout(m_bus, &time) < 0)
        return end();
    m_readable.setEnabled((events & POLLIN) && unsent == 0);
    m_writable.setEnabled(events & POLLOUT);
    if (time == std::numeric_limits<uint64_t>::max())
        m_timer.stop();
    else
        m_timer.start(millisecondsUntil(time), this);
}

void Peer::timerEvent(QTimerEvent *)
{
    process();
}

void Peer::end()
{
    m_readable.setEnabled(false);
    m_writable.setEnabled(false);
    m_timer.stop();
    Q_EMIT gone();
}
