// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#include "tokenhelpers.h"

#include "clientsettings.h"
#include "ownprogram.h"
#include "secret.h"
#include "tokenobjects.h"

#include <QProcess>
#include <QTimer>
#include <QTimerEvent>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <utility>

#include <dlfcn.h>
#include <link.h>
#include <poll.h>
#include <pthread.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

const QString notAProgram = QStringLiteral("/");

// Limits in milliseconds. The caller gets a reply before its timeout even if a module hangs.
constexpr int callTimeout = 20000;
constexpr int preparationTimeout = 2000;
constexpr int idleTimeout = 5 * 60 * 1000;

/// How far a helper has got: it has sent so many bytes to the client.
enum Step { Prepared = 1, Working = 2 };

/// The client's process id.
pid_t client = 0;

/// Makes a forked child die with the client.
void dieWithClient()
{
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (getppid() != client) // The client exited before prctl().
        _exit(Tokens::ModuleFailed);
}

TokenHelpers::Request makeRequest(const QByteArray &content)
{
    auto file = std::make_unique<QFile>();
    const int descriptor = memfd_create("request", MFD_CLOEXEC);
    if (descriptor == -1 || !file->open(descriptor, QIODevice::ReadWrite, QFileDevice::AutoCloseHandle)
        || write(descriptor, content.constData(), size_t(content.size())) != content.size())
        qWarning("Cannot pass a request to the helper: %s", qUtf8Printable(qt_error_string()));
    return {std::move(file), QDeadlineTimer(callTimeout)};
}

/// A message of one byte with room for a descriptor.
struct Message
{
    char byte = 0;
    iovec data = {&byte, 1};
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))] = {};
    msghdr header = {};

    Message()
    {
        header.msg_iov = &data;
        header.msg_iovlen = 1;
        header.msg_control = control;
        header.msg_controllen = sizeof(control);
    }
};

bool sendDescriptor(int socket, int descriptor)
{
    Message message;
    cmsghdr *const control = CMSG_FIRSTHDR(&message.header);
    control->cmsg_level = SOL_SOCKET;
    control->cmsg_type = SCM_RIGHTS;
    control->cmsg_len = CMSG_LEN(sizeof(int));
    *reinterpret_cast<int *>(CMSG_DATA(control)) = descriptor;
    return sendmsg(socket, &message.header, MSG_NOSIGNAL) == 1;
}

/// Waits for a descriptor. Returns -1 when the peer has closed the socket.
int receiveDescriptor(int socket)
{
    Message message;
    ssize_t size = 0;
    do
        size = recvmsg(socket, &message.header, MSG_CMSG_CLOEXEC);
    while (size == -1 && errno == EINTR);
    const cmsghdr *const control = CMSG_FIRSTHDR(&message.header);
    return size == 1 && control && control->cmsg_type == SCM_RIGHTS ? *reinterpret_cast<const int *>(CMSG_DATA(control))
                                                                    : -1;
}

/// Keeps each loaded library loaded, those of the token modules among them.
void keepLibraries()
{
    QByteArrayList names;
    dl_iterate_phdr(
        [](dl_phdr_info *library, size_t, void *data) {
            *static_cast<QByteArrayList *>(data) << library->dlpi_name;
            return 0;
        },
        &names);
    for (const QByteArray &name : qAsConst(names))
        dlopen(name.constData(), RTLD_LAZY | RTLD_NOLOAD | RTLD_NODELETE);
}

/// Tells the client that the helper has taken the next step.
void reportStep()
{
    const char byte = 0;
    if (write(STDIN_FILENO, &byte, sizeof(byte)) != sizeof(byte))
        _exit(Tokens::ModuleFailed); // The client has exited.
}

/// Redirects standard output to standard error, because modules may print. Returns the original standard output.
int setUp()
{
    const int output = dup(STDOUT_FILENO);
    dup2(STDERR_FILENO, STDOUT_FILENO);
    return output;
}

Tokens::Outcome writeList(int descriptor)
{
    QFile output;
    output.open(descriptor, QIODevice::WriteOnly);
    QByteArrayList certs;
    const Tokens::Outcome outcome = Tokens::list(certs);
    for (const QByteArray &cert : qAsConst(certs))
        output.write(cert + '\n');
    return outcome;
}

/// Calls `act` after a time, unless `owner` is deleted first. The timer of QTimer::singleShot() would go on, and wake
/// the idle client up.
template <typename Act>
void after(int milliseconds, QObject *owner, const Act &act)
{
    auto *timer = new QTimer(owner);
    timer->setSingleShot(true);
    QObject::connect(timer, &QTimer::timeout, owner, act);
    timer->start(milliseconds);
}

/// Removes and returns the text up to the next null byte. D-Bus strings contain none.
QByteArray takeField(QByteArray &request)
{
    const int end = request.indexOf('\0');
    QByteArray field = request.left(end);
    request.remove(0, end == -1 ? request.size() : end + 1);
    return field;
}

} // namespace

const QString TokenHelpers::listOption = QStringLiteral("certs");
const QString TokenHelpers::helperOption = QStringLiteral("token-helper");

/// A helper process. It deletes itself when the process has ended.
class TokenHelpers::Helper : public QProcess
{
public:
    enum Start { ForCall, InAdvance };

    Helper(TokenHelpers *helpers, Start start);
    ~Helper() override;

    /// Makes the helper serve a request, its only one. Returns false, and leaves the request alone, when the helper
    /// cannot be reached.
    bool serve(Request &request, const Callback &done);

protected:
    void setupChildProcess() override;

private:
    /// How far the helper has got.
    int progress() const;
    void end(Tokens::Outcome outcome);

    TokenHelpers *const m_helpers;
    const Start m_start;
    int m_sockets[2] = {-1, -1}; // the client's and the helper's
    Request m_request;
    Callback m_done;
};

TokenHelpers::Helper::Helper(TokenHelpers *helpers, Start start)
    : QProcess(helpers)
    , m_helpers(helpers)
    , m_start(start)
{
    connect(this, QOverload<int, ExitStatus>::of(&QProcess::finished), this, [this](int code, ExitStatus status) {
        const bool known = status == NormalExit && code >= Tokens::Success && code <= Tokens::ModuleFailed;
        end(known ? Tokens::Outcome(code) : Tokens::ModuleFailed);
    });
    connect(this, &QProcess::errorOccurred, this, [this](ProcessError error) {
        if (error == FailedToStart)
            end(Tokens::ModuleFailed);
    });
    if (start == InAdvance) {
        after(preparationTimeout, this, [this] {
            if (progress() < Prepared)
                kill();
        });
    }
    setProcessChannelMode(ForwardedErrorChannel);
    setStandardInputFile(nullDevice());
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, m_sockets) == 0) {
        QProcess::start(OwnProgram::path, {OwnProgram::optionPrefix + helperOption});
        ::close(m_sockets[1]);
    }
}

TokenHelpers::Helper::~Helper()
{
    disconnect();
    kill(); // as QProcess does, but without its warning
    waitForFinished();
    ::close(m_sockets[0]);
}

void TokenHelpers::Helper::setupChildProcess()
{
    dieWithClient();
    dup2(m_sockets[1], STDIN_FILENO);
}

bool TokenHelpers::Helper::serve(Request &request, const Callback &done)
{
    if (!sendDescriptor(m_sockets[0], request.file->handle()))
        return false;
    m_request = std::move(request);
    m_done = done;
    after(int(m_request.deadline.remainingTime()), this, [this] { kill(); });
    return true;
}

int TokenHelpers::Helper::progress() const
{
    char steps[Working];
    return int(recv(m_sockets[0], steps, sizeof(steps), MSG_PEEK | MSG_DONTWAIT));
}

void TokenHelpers::Helper::end(Tokens::Outcome outcome)
{
    disconnect();
    deleteLater();
    if (!m_done)
        return;
    // What ended it may have been over before the call, and it has not tried the PIN.
    if (m_start == InAdvance && progress() < Working)
        m_helpers->runAfresh(m_request, m_done);
    else
        m_done(outcome, readAllStandardOutput());
}

TokenHelpers::TokenHelpers()
{
    // After a fork, Qt's child waits for a message from the client before it calls setupChildProcess(). If the client
    // is killed before it sends the message, the child waits forever. So act in the fork itself.
    client = getpid();
    pthread_atfork(nullptr, nullptr, dieWithClient);

    // When Qt starts its first process, it saves the previous signal action, including uninitialized stack memory, and
    // keeps it. That memory must not hold a PIN, so start a process early.
    QProcess process;
    process.start(notAProgram, {});
    process.waitForStarted();
}

TokenHelpers::Request TokenHelpers::listRequest()
{
    return makeRequest({});
}

TokenHelpers::Request TokenHelpers::validationRequest(const char *cert, const char *user, const char *pin)
{
    SecretBytes content;
    content.bytes().reserve(int(qstrlen(cert) + 1 + qstrlen(user) + 1 + qstrlen(pin)));
    content.bytes().append(cert).append('\0').append(user).append('\0').append(pin);
    return makeRequest(content.bytes());
}

void TokenHelpers::run(Request request, const Callback &done)
{
    if (!m_next || !m_next->serve(request, done)) {
        delete m_next;
        runAfresh(request, done);
    }
    m_next = new Helper(this, Helper::InAdvance);
    m_idle.start(idleTimeout, this);
}

void TokenHelpers::runAfresh(Request &request, const Callback &done)
{
    auto *helper = new Helper(this, Helper::ForCall);
    if (helper->serve(request, done))
        return;
    delete helper;
    // Later, because the next call may be made in it.
    QMetaObject::invokeMethod(
        this, [done] { done(Tokens::ModuleFailed, {}); }, Qt::QueuedConnection);
}

void TokenHelpers::timerEvent(QTimerEvent *event)
{
    if (event->timerId() != m_idle.timerId())
        return;
    m_idle.stop();
    delete m_next;
}

int TokenHelpers::runList()
{
    return writeList(setUp()) == Tokens::Success ? EXIT_SUCCESS : EXIT_FAILURE;
}

int TokenHelpers::runHelper()
{
    const int output = setUp();
    pollfd call = {STDIN_FILENO, POLLIN, 0};
    if (poll(&call, 1, 0) == 0) {
        const ClientSettings settings;
        const TokenObjects::Modules modules(settings);
        keepLibraries();
    }
    reportStep();
    QFile input;
    if (!input.open(receiveDescriptor(STDIN_FILENO), QIODevice::ReadOnly | QIODevice::Unbuffered))
        return Tokens::ModuleFailed;
    reportStep();
    input.seek(0);
    SecretBytes request(input.readAll());
    if (request.bytes().isEmpty())
        return writeList(output);
    const QByteArray cert = takeField(request.bytes());
    const QString user = QString::fromUtf8(takeField(request.bytes()));
    return Tokens::validate(cert, user, request.bytes());
}
