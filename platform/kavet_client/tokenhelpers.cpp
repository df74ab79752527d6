// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#include "tokenhelpers.h"

#include "clientsettings.h"
#include "helperchannel.h"
#include "ownprogram.h"
#include "secret.h"
#include "tokenprogram.h"

#include <QProcess>
#include <QTimer>
#include <QTimerEvent>

#include <csignal>
#include <utility>

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

/// The client's process id.
pid_t client = 0;

/// Makes a forked child die with the client.
void dieWithClient()
{
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (getppid() != client) // The client exited before prctl().
        _exit(Tokens::ModuleFailed);
}

TokenHelpers::Request makeRequest(HelperChannel::Operation operation, const QByteArray &content)
{
    auto file = std::make_unique<QFile>();
    const int descriptor = memfd_create("request", MFD_CLOEXEC);
    if (descriptor == -1
        || !file->open(descriptor, QIODevice::ReadWrite | QIODevice::Unbuffered, QFileDevice::AutoCloseHandle)
        || file->write(content) != content.size()) {
        qWarning("Cannot pass a request to the helper: %s", qUtf8Printable(qt_error_string()));
        file->close(); // so that no helper acts on a part of it
    }
    return {operation, std::move(file), QDeadlineTimer(callTimeout)};
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

} // namespace

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
            if (HelperChannel::progress(m_sockets[0]) < HelperChannel::Prepared)
                kill();
        });
    }
    setProcessChannelMode(ForwardedErrorChannel);
    setStandardInputFile(nullDevice());
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, m_sockets) == 0) {
        QProcess::start(OwnProgram::path,
                        {OwnProgram::optionPrefix + TokenProgram::helperOption, ClientSettings().module()});
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
    dup2(m_sockets[1], STDIN_FILENO);
}

bool TokenHelpers::Helper::serve(Request &request, const Callback &done)
{
    if (!HelperChannel::send(m_sockets[0], request.operation, request.file->handle()))
        return false;
    m_request = std::move(request);
    m_done = done;
    after(int(m_request.deadline.remainingTime()), this, [this] { kill(); });
    return true;
}

void TokenHelpers::Helper::end(Tokens::Outcome outcome)
{
    deleteLater();
    if (!m_done)
        return;
    // What ended it may have been over before the call, and it has not tried the PIN.
    if (m_start == InAdvance && HelperChannel::progress(m_sockets[0]) < HelperChannel::Working)
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
    return makeRequest(HelperChannel::List, {});
}

TokenHelpers::Request TokenHelpers::validationRequest(const char *cert, const char *user, const char *pin)
{
    SecretBytes content;
    content.bytes().reserve(int(qstrlen(cert) + 1 + qstrlen(user) + 1 + qstrlen(pin)));
    content.bytes().append(cert).append('\0').append(user).append('\0').append(pin);
    return makeRequest(HelperChannel::Validate, content.bytes());
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
