// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include "tokenprocess.h"

#include <QByteArray>
#include <QObject>
#include <QVector>

#include <deque>
#include <memory>

#include <systemd/sd-bus.h>

/// The authentication of the user that the client runs as, as the interface that peers call. Answers are those of the
/// protocol: success, failed, lock, remove, nousb, connerr, firstcererr, errauthtype. What concerns tokens is answered
/// later, when it is known. PINs are checked one after the other, so that the outcome of each is counted before the
/// next is tried.
///
/// Passwords and PINs stay in the library's message, which it erases when the call has been handled.
class KavetAuth : public QObject
{
    Q_OBJECT

public:
    /// `user` is the login name of the only user who can be authenticated.
    explicit KavetAuth(const QByteArray &user);

    /// Serves the interface on a connection that has not been started yet; false when it cannot. The object must
    /// outlive the connection.
    bool serveOn(sd_bus *peer);

Q_SIGNALS:
    /// An answer that was given later has been handed to its connection.
    void answered();

private:
    using Message = std::shared_ptr<sd_bus_message>;

    static int checkPassword(sd_bus_message *call, void *object, sd_bus_error *error);
    static int validateCert(sd_bus_message *call, void *object, sd_bus_error *error);
    static int getCertList(sd_bus_message *call, void *object, sd_bus_error *error);

    /// Takes on a call that concerns tokens; the reply to fill in and send, or none with `error` set. It holds nothing
    /// of the call, whose message goes when the handler returns.
    Message begin(sd_bus_message *call, sd_bus_error *error);
    void send(const Message &reply);

    struct PinCheck
    {
        Message reply;
        TokenProcess::Request request;
    };
    /// Begins the first check in the queue for which a token is needed, and answers those before it.
    void nextPinCheck();
    /// Answers the first check in the queue and takes it off.
    void finishPinCheck(const QByteArray &answer);

    const QByteArray m_user;
    QVector<sd_bus *> m_tokenCalls; // The connection of each call under way.
    std::deque<PinCheck> m_pinChecks; // The first one is under way.
};
