// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#include "client/methodkavetprivate.h"

#include "plugin/logging.h"
#include "plugin/methodkavet.h"
#include "settings/constants.h"

#include <authd/libauthd.h>

#include <QDBusError>
#include <QDBusPendingCallWatcher>
#include <QDBusPendingReply>

bool MethodKavetPrivate::connectToChild()
{
    if (!child.clientRunning || !child.socketPresent)
        return false;
    if (connection.isConnected())
        return true;

    QDBusConnection::disconnectFromPeer(Constants::peerConnection);
    connection = QDBusConnection::connectToPeer(Constants::peerAddress, Constants::peerConnection);
    if (!connection.isConnected()) {
        qCWarning(kavet) << "Cannot connect to the Kavet client socket" << Constants::peerAddress
                         << connection.lastError();
        return false;
    }

    clientInterface.reset(new QDBusInterface(Constants::clientService, Constants::clientObjectPath,
                                             Constants::clientInterface, connection));
    if (certListPending) {
        certListPending = false;
        getCertList();
    }
    return true;
}

void MethodKavetPrivate::checkPassword(const QString &password)
{
    callClient(Constants::checkPassword, {LibAuthd::userName(currentUid), password});
}

void MethodKavetPrivate::validateCert(const QString &cert, const QString &pin)
{
    callClient(Constants::validateCert, {cert, LibAuthd::userName(currentUid), pin});
}

void MethodKavetPrivate::callClient(const QString &method, const QVariantList &arguments)
{
    const auto fail = [this, method](const QDBusError &error) {
        qCWarning(kavet) << qUtf8Printable(method) << "failed:" << error;
        requestInput(SettingsKavet::EnterPasswordOrPin, SettingsKavet::CannotCommunicateClient);
    };

    // A reset sets the last stage for a client whose link was never made or has been dropped since.
    if (!connection.isConnected() && !connectToChild()) {
        fail(QDBusError(QDBusError::Disconnected, Constants::notConnected));
        return;
    }

    // The handler belongs to the call and holds on to the connection: the library fails when it closes one on which a
    // call is outstanding.
    auto *pending = new QDBusPendingCallWatcher(clientInterface->asyncCallWithArgumentList(method, arguments), this);
    const auto handleReply = [this, fail, link = connection](QDBusPendingCallWatcher *finished) {
        const QDBusPendingReply<QString> reply = *finished;
        if (reply.isError())
            fail(reply.error());
        else
            handleResult(reply.value());
        finished->deleteLater();
    };
    connect(pending, &QDBusPendingCallWatcher::finished, pending, handleReply);
}

QStringList MethodKavetPrivate::getCertList()
{
    if (certListInFlight) {
        certListPending = false;
        return {};
    }
    if (!connectToChild()) {
        certListPending = true;
        return {};
    }

    certListPending = false;
    auto *pending = new QDBusPendingCallWatcher(clientInterface->asyncCall(Constants::getCertList), this);
    certListInFlight = true;
    // Holds on to the connection as callClient() does.
    const auto handleReply = [this, link = connection](QDBusPendingCallWatcher *finished) {
        const QDBusPendingReply<QStringList> reply = *finished;
        QStringList certList;
        if (reply.isError())
            qCWarning(kavet) << qUtf8Printable(Constants::getCertList) << "failed:" << reply.error().message();
        else
            certList = reply.value();
        q->optionChanged(0, Constants::certs, certList, true);
        finished->deleteLater();
        certListInFlight = false;
    };
    connect(pending, &QDBusPendingCallWatcher::finished, pending, handleReply);
    return {Constants::updatingCertList};
}
