// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include "authserviceinterface.h"
#include "failure.h"

#include <QDBusServiceWatcher>
#include <QEventLoop>

#include <optional>

/// The authentication service, on a connection of its own. Its calls are those of the generated interface; their
/// answers go through result().
class Service : public AuthServiceInterface
{
public:
    /// `timeout` is for each answer, in milliseconds.
    explicit Service(int timeout);

    /// Waits for the answer of a call; throws a Failure when it is an error.
    template <typename... Types>
    static QDBusPendingReply<Types...> result(QDBusPendingReply<Types...> reply)
    {
        reply.waitForFinished();
        if (reply.isError())
            throw failure(reply.error());
        return reply;
    }

    /// The method asked for, or, without one, the method to offer first. Throws a Failure when there is none.
    QString methodOrFirst(const std::optional<QString> &method);

    /// Handles what the service reports until finish() is called, then returns true; false when `timeout` milliseconds
    /// have passed before. Waits forever without a `timeout`. Throws a Failure when the service goes away.
    bool handleReports(std::optional<int> timeout = std::nullopt);
    void finish() { m_loop.exit(Finished); }

private:
    enum End { Finished, Late, Gone };

    static Failure failure(const QDBusError &error);

    QDBusServiceWatcher m_watcher;
    QEventLoop m_loop;
    bool m_isGone = false;
};
