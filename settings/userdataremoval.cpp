// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#include "plugin/methodkavetprivate.h"

#include "plugin/logging.h"
#include "plugin/methodkavet.h"
#include "settings/constants.h"

#include <QDBusMessage>
#include <QDBusPendingCallWatcher>
#include <QDBusPendingReply>

namespace {

const QString noSystemBus = QStringLiteral("Not connected to the system bus");

} // namespace

void MethodKavetPrivate::removeUserDataInternal(unsigned int uid, const QString &userName)
{
    QDBusMessage call = QDBusMessage::createMethodCall(Constants::Wiper::service, Constants::Wiper::objectPath,
                                                       Constants::Wiper::interface, Constants::Wiper::method);
    call.setArguments({userName});

    const QDBusConnection bus = QDBusConnection::systemBus();
    // Without a connection to the bus, the call would never finish.
    const QDBusPendingCall sent = bus.isConnected()
                                      ? bus.asyncCall(call)
                                      : QDBusPendingCall::fromError(QDBusError(QDBusError::Disconnected, noSystemBus));
    auto *pending = new QDBusPendingCallWatcher(sent, this);
    connect(
        pending, &QDBusPendingCallWatcher::finished, pending,
        [this, uid](QDBusPendingCallWatcher *finished) {
            const QDBusPendingReply<> reply = *finished;
            if (reply.isError()) {
                qCWarning(kavet) << "Call" << Constants::Wiper::method << "to" << Constants::Wiper::service
                                 << "failed:" << reply.error().message();
            } else {
                q->setOptionInternal(uid, Constants::Options::delayedDeletion, false);
            }
            finished->deleteLater();
        },
        Qt::DirectConnection);
}
