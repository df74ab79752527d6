// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#include "tokenprocess.h"

#include "ownprogram.h"
#include "secret.h"

#include <QProcess>
#include <QTimer>

#include <csignal>
#include <cstdlib>

#include <pthread.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <unistd.h>

namespace {

const QString notAProgram = QStringLiteral("/");
const QString descriptorPath = QStringLiteral("/proc/self/fd/%1");

/// Shorter than the caller's timeout, so that the caller gets a reply even if a module hangs.
constexpr int helperTimeout = 20000; // milliseconds

/// The client's process id.
pid_t client = 0;

/// Makes a forked child die with the client.
void dieWithClient()
{
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (getppid() != client) // The client exited before prctl().
        _exit(Tokens::ModuleFailed);
}

/// A process that dies with the client.
class Helper : public QProcess
{
public:
    using QProcess::QProcess;

protected:
    void setupChildProcess() override { dieWithClient(); }
};

TokenProcess::Request makeRequest(const QByteArray &content)
{
    auto file = std::make_unique<QFile>();
    // Not through QProcess's write channel, which would keep the data in memory.
    const int descriptor = memfd_create("request", MFD_CLOEXEC);
    if (descriptor == -1 || !file->open(descriptor, QIODevice::ReadWrite, QFileDevice::AutoCloseHandle)
        || write(descriptor, content.constData(), size_t(content.size())) != content.size())
        qWarning("Cannot pass a request to the helper: %s", qUtf8Printable(qt_error_string()));
    return {std::move(file), QDeadlineTimer(helperTimeout)};
}

void start(QObject *context, const QString &option, const TokenProcess::Request &request,
           const TokenProcess::Callback &done)
{
    auto *process = new Helper(context);
    const auto end = [process, done](Tokens::Outcome outcome) {
        process->disconnect();
        process->deleteLater();
        done(outcome, process->readAllStandardOutput());
    };
    QObject::connect(process, QOverload<int, QProcess::ExitStatus>::of(&QProcess::finished), context,
                     [end](int code, QProcess::ExitStatus status) {
                         const bool known =
                             status == QProcess::NormalExit && code >= Tokens::Success && code <= Tokens::ModuleFailed;
                         end(known ? Tokens::Outcome(code) : Tokens::ModuleFailed);
                     });
    QObject::connect(process, &QProcess::errorOccurred, context, [end](QProcess::ProcessError error) {
        if (error == QProcess::FailedToStart)
            end(Tokens::ModuleFailed);
    });
    QTimer::singleShot(int(request.deadline.remainingTime()), process, &QProcess::kill);
    process->setStandardInputFile(descriptorPath.arg(request.file->handle()));
    process->setProcessChannelMode(QProcess::ForwardedErrorChannel);
    process->start(OwnProgram::path, {OwnProgram::optionPrefix + option});
}

/// Redirects standard output to standard error, because modules may print. Returns the original standard output.
int setUp()
{
    const int output = dup(STDOUT_FILENO);
    dup2(STDERR_FILENO, STDOUT_FILENO);
    return output;
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

const QString TokenProcess::listOption = QStringLiteral("certs");
const QString TokenProcess::validateOption = QStringLiteral("validate-cert");

void TokenProcess::prepare()
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

TokenProcess::Request TokenProcess::validationRequest(const char *cert, const char *user, const char *pin)
{
    SecretBytes content;
    content.bytes().reserve(int(qstrlen(cert) + 1 + qstrlen(user) + 1 + qstrlen(pin)));
    content.bytes().append(cert).append('\0').append(user).append('\0').append(pin);
    return makeRequest(content.bytes());
}

void TokenProcess::list(QObject *context, const Callback &done)
{
    start(context, listOption, makeRequest({}), done);
}

void TokenProcess::validate(QObject *context, const Request &request, const Callback &done)
{
    start(context, validateOption, request, done);
}

int TokenProcess::runList()
{
    QFile output;
    output.open(setUp(), QIODevice::WriteOnly, QFileDevice::AutoCloseHandle);
    QByteArrayList certs;
    const Tokens::Outcome outcome = Tokens::list(certs);
    for (const QByteArray &cert : qAsConst(certs))
        output.write(cert + '\n');
    return outcome == Tokens::Success ? EXIT_SUCCESS : EXIT_FAILURE;
}

int TokenProcess::runValidate()
{
    close(setUp());
    QFile input;
    input.open(STDIN_FILENO, QIODevice::ReadOnly | QIODevice::Unbuffered);
    SecretBytes request(input.readAll());
    const QByteArray cert = takeField(request.bytes());
    const QString user = QString::fromUtf8(takeField(request.bytes()));
    return Tokens::validate(cert, user, request.bytes());
}
