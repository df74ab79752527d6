// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include "tokens.h"

#include <QDeadlineTimer>
#include <QFile>

#include <functional>
#include <memory>

class QObject;

/// Token work in a short-lived process of its own: the client goes on answering meanwhile, a module that crashes or
/// hangs takes only that process with it, and what it learnt of the PIN goes with the process.
namespace TokenProcess {

/// The options by which the client's program becomes such a process. It writes certificates to standard output, one a
/// line; what is to be validated it reads from standard input.
extern const QString listOption;
extern const QString validateOption;

/// Called with how it ended and what it wrote.
using Callback = std::function<void(Tokens::Outcome, const QByteArray &)>;

/// To be called before there is any secret.
void prepare();

/// What such a process is asked, in an anonymous file, so that nothing of the PIN stays in memory.
struct Request
{
    std::unique_ptr<QFile> file;
    QDeadlineTimer deadline; ///< When whoever asked must have an answer.
};

/// A request of Tokens::validate, which may wait for its turn.
Request validationRequest(const char *cert, const char *user, const char *pin);

/// Starts Tokens::list; what it writes is the list, empty on failure. The callback does not outlive `context`.
void list(QObject *context, const Callback &done);
/// Starts Tokens::validate. The callback does not outlive `context`.
void validate(QObject *context, const Request &request, const Callback &done);

/// The process's own part; the exit code.
int runList();
int runValidate();

} // namespace TokenProcess
