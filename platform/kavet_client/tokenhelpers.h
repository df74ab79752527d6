// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include "helperchannel.h"
#include "tokens.h"

#include <QBasicTimer>
#include <QDeadlineTimer>
#include <QFile>
#include <QObject>
#include <QPointer>

#include <functional>
#include <memory>

/// Runs token operations in helper processes, one process for each call. The client keeps serving calls meanwhile, a
/// module that crashes or hangs takes down only the helper, and copies of the PIN in memory disappear with it.
///
/// From the first call on, the next helper is started in advance. It has loaded everything when its call arrives, but
/// holds no session with a module: each call sees the tokens that are present then. After some minutes without calls,
/// the waiting helper is ended.
class TokenHelpers : public QObject
{
    Q_OBJECT

public:
    /// Called with the helper's outcome and its output.
    using Callback = std::function<void(Tokens::Outcome, const QByteArray &)>;

    /// An operation, in an anonymous file, so that no PIN stays in the client's memory.
    struct Request
    {
        HelperChannel::Operation operation = HelperChannel::List;
        std::unique_ptr<QFile> file; ///< Closed if the request could not be written
        QDeadlineTimer deadline; ///< When the caller must have a reply
    };

    /// Must be created in the client, before it handles any secret.
    TokenHelpers();

    /// Creates a request for Tokens::list().
    static Request listRequest();
    /// Creates a request for Tokens::validate(). It may wait in a queue.
    static Request validationRequest(const char *cert, const char *user, const char *pin);

    /// Runs a request in a helper. The list of certificates is the helper's output, one per line, empty on failure.
    void run(Request request, const Callback &done);

protected:
    void timerEvent(QTimerEvent *event) override;

private:
    class Helper;

    /// Runs a request in a helper that is started for it.
    void runAfresh(Request &request, const Callback &done);

    QPointer<Helper> m_next;
    QBasicTimer m_idle;
};
