// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#include "tokenprogram.h"

#include "helperchannel.h"
#include "secret.h"
#include "tokenobjects.h"
#include "tokens.h"

#include <QFile>
#include <QLoggingCategory>

#include <cstdlib>

#include <dlfcn.h>
#include <fcntl.h>
#include <link.h>
#include <poll.h>
#include <unistd.h>

namespace {

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

/// Redirects standard output to standard error, because modules may print. Returns the original standard output.
int setUp()
{
    const int output = fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, STDERR_FILENO);
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
    if (output.flush())
        return outcome;
    qWarning("Cannot write the list: %s", qUtf8Printable(output.errorString()));
    return Tokens::ModuleFailed;
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

const QString TokenProgram::listOption = QStringLiteral("certs");
const QString TokenProgram::helperOption = QStringLiteral("token-helper");

int TokenProgram::runList()
{
    return writeList(setUp()) == Tokens::Success ? EXIT_SUCCESS : EXIT_FAILURE;
}

int TokenProgram::runHelper(const QString &module)
{
    const int output = setUp();
    pollfd call = {STDIN_FILENO, POLLIN, 0};
    if (poll(&call, 1, 0) == 0) {
        const TokenObjects::Modules modules(module);
        keepLibraries();
    }
    HelperChannel::Operation operation = {};
    QFile input;
    if (!HelperChannel::reportStep(STDIN_FILENO)
        || !input.open(HelperChannel::receive(STDIN_FILENO, operation), QIODevice::ReadOnly | QIODevice::Unbuffered)
        || !HelperChannel::reportStep(STDIN_FILENO))
        return Tokens::ModuleFailed;
    if (operation == HelperChannel::List)
        return writeList(output);
    input.seek(0);
    SecretBytes request(input.readAll());
    const QByteArray cert = takeField(request.bytes());
    const QString user = QString::fromUtf8(takeField(request.bytes()));
    return Tokens::validate(cert, user, request.bytes());
}
