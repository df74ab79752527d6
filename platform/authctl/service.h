// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include "authserviceinterface.h"
#include "failure.h"

#include <QDBusServiceWatcher>
#include <QEventLoop>

#include <optional>

/// A proxy for the authentication service, on its own bus connection. Use the calls of the generated interface, and
/// pass their replies through result().
class Service : public AuthServiceInterface
{
public:
    /// `timeout` applies to each reply, in milliseconds.
    explicit Service(int timeout);

    /// Waits for the reply to a call. Throws a Failure when it is an error.
    template <typename... Types>
    static QDBusPendingReply<Types...> result(QDBusPendingReply<Types...> reply)
    {
        reply.waitForFinished();
        if (reply.isError())
            throw failure(reply.error());
        return reply;
    }

    /// Returns `method` if given, otherwise the service's first method. Throws a Failure when there is none.
    QString methodOrFirst(const std::optional<QString> &method);

    /// Handles signals from the service until finish() is called, then returns true. Returns false after `timeout`
    /// milliseconds; without a timeout, waits forever. Throws a Failure when the service leaves the bus.
    bool handleReports(std::optional<int> timeout = std::nullopt);
    void finish() { m_loop.exit(Finished); }

private:
    enum End { Finished, Late, Gone };

    static Failure failure(const QDBusError &error);

    QDBusServiceWatcher m_watcher;
    QEventLoop m_loop;
    bool m_isGone = false;
};
