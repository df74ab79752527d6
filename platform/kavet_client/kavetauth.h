// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include "tokenhelpers.h"

#include <QByteArray>
#include <QObject>
#include <QVector>

#include <deque>
#include <memory>

#include <systemd/sd-bus.h>

/// Authenticates the client's user: the interface that peers call. Its results are those of the protocol: success,
/// failed, lock, remove, nousb, connerr, firstcererr, errauthtype. Calls that need a token are answered asynchronously.
/// PINs are checked one at a time, so that each outcome is counted before the next check starts.
///
/// Passwords and PINs stay in the library's message, which the library erases when the call has been handled.
class KavetAuth : public QObject
{
    Q_OBJECT

public:
    /// `user` is the login name of the only user that can be authenticated.
    explicit KavetAuth(const QByteArray &user);

    /// Serves the interface on a connection that has not been started yet. Returns false on failure. The object must
    /// outlive the connection.
    bool serveOn(sd_bus *peer);

Q_SIGNALS:
    /// An asynchronous reply has been passed to its connection.
    void answered();

private:
    using Message = std::shared_ptr<sd_bus_message>;

    static int checkPassword(sd_bus_message *call, void *object, sd_bus_error *error);
    static int validateCert(sd_bus_message *call, void *object, sd_bus_error *error);
    static int getCertList(sd_bus_message *call, void *object, sd_bus_error *error);

    /// Starts an asynchronous token call. Returns the reply to fill in and send, or null with `error` set. The reply
    /// does not keep the call's message alive, which holds secrets.
    Message begin(sd_bus_message *call, sd_bus_error *error);
    void send(const Message &reply);

    struct PinCheck
    {
        Message reply;
        TokenHelpers::Request request;
    };
    /// Starts the next check in the queue that needs a token. Replies at once to the checks before it.
    void nextPinCheck();
    /// Replies to the first check in the queue and removes it.
    void finishPinCheck(const QByteArray &answer);

    const QByteArray m_user;
    TokenHelpers m_helpers;
    QVector<sd_bus *> m_tokenCalls; // the connection of each pending call
    std::deque<PinCheck> m_pinChecks; // the first is running
};
