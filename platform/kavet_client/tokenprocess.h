// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include "tokens.h"

#include <QDeadlineTimer>
#include <QFile>

#include <functional>
#include <memory>

class QObject;

/// Runs token operations in short-lived helper processes. The client keeps serving calls meanwhile, a module that
/// crashes or hangs takes down only the helper, and copies of the PIN in memory disappear with it.
namespace TokenProcess {

/// The options that start the client's program as a helper. The helper writes certificates to standard output, one per
/// line, and reads the validation request from standard input.
extern const QString listOption;
extern const QString validateOption;

/// Called with the helper's outcome and its output.
using Callback = std::function<void(Tokens::Outcome, const QByteArray &)>;

/// Must be called in the client before the other functions, and before it handles any secret.
void prepare();

/// A helper's request, in an anonymous file, so that no PIN stays in the client's memory.
struct Request
{
    std::unique_ptr<QFile> file;
    QDeadlineTimer deadline; ///< When the caller must have a reply
};

/// Creates a request for Tokens::validate(). It may wait in a queue.
Request validationRequest(const char *cert, const char *user, const char *pin);

/// Runs Tokens::list() in a helper, whose output is the list, empty on failure. The callback is not called after
/// `context` is destroyed.
void list(QObject *context, const Callback &done);
/// Runs Tokens::validate() in a helper. The callback is not called after `context` is destroyed.
void validate(QObject *context, const Request &request, const Callback &done);

/// The helper's main functions. They return the exit code.
int runList();
int runValidate();

} // namespace TokenProcess
