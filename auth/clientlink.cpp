// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#include "plugin/methodkavetprivate.h"

#include "plugin/logging.h"
#include "plugin/methodkavet.h"
#include "settings/constants.h"

#include <authd/libauthd.h>

#include <QDBusError>
#include <QDBusMessage>
#include <QDBusPendingCallWatcher>
#include <QDBusPendingReply>

namespace {

constexpr int maximumErrorText = 1024; ///< Bytes of the client's error text to log.
constexpr int maximumCertificates = 1000;
constexpr int maximumCertListSize = 256 * 1024; ///< Bytes.
const QString notConnected = QStringLiteral("No link to the client");
const QString cannotReachSocket = QStringLiteral("Failed to connect to socket %1: %2"); ///< %1 = path, %2 = reason.
const QString certListTooLong = QStringLiteral("The list of certificates is too long");

/// The beginning of `text`, which the client has chosen, up to a length that fits the log.
QString shortened(const QString &text)
{
    const QByteArray bytes = text.toUtf8();
    if (bytes.size() <= maximumErrorText)
        return text;
    int size = maximumErrorText;
    while ((bytes.at(size) & 0xC0) == 0x80) // inside a character
        --size;
    return QString::fromUtf8(bytes.constData(), size);
}

QDBusError shortened(const QDBusError &error)
{
    return QDBusError(QDBusMessage::createError(error.name(), shortened(error.message())));
}

bool isTooLong(const QStringList &certList)
{
    if (certList.size() > maximumCertificates)
        return true;
    int size = 0;
    for (const QString &cert : certList)
        size += cert.toUtf8().size();
    return size > maximumCertListSize;
}

} // namespace

bool MethodKavetPrivate::connectToChild()
{
    if (!child.clientRunning || !child.socketPresent)
        return false;
    if (guard.isOpen() && connection.isConnected())
        return true;
    // A client that has been told to end serves nobody, and every other serves its own user only. A link that was made
    // for another user could stay open until its own user is authenticated.
    if (child.clientUid == 0 || (currentUid != 0 && child.clientUid != currentUid))
        return false;

    closeLink();
    const QString path = Constants::Link::socketPath;
    QDBusError error;
    if (guard.connectToClient(path, child.clientUid)) {
        connection = QDBusConnection::connectToPeer(guard.address(), Constants::Link::connectionName);
        error = connection.lastError();
    } else {
        error = QDBusError(QDBusError::NoServer, cannotReachSocket.arg(path, guard.errorString()));
    }
    if (connection.isConnected() && !guard.acceptLibrary())
        error = QDBusError(QDBusError::NoServer, cannotReachSocket.arg(path, guard.errorString()));
    if (!guard.isOpen()) {
        qCWarning(kavet) << "Cannot connect to the Kavet client socket" << Constants::Link::address << error;
        closeLink();
        return false;
    }

    clientInterface.reset(new KavetAuthInterface(Constants::Link::service, Constants::Link::objectPath, connection));
    if (certListPending)
        getCertList();
    return true;
}

void MethodKavetPrivate::closeLink()
{
    // The D-Bus library keeps the connection open while anything refers to it.
    guard.close();
    QDBusConnection::disconnectFromPeer(Constants::Link::connectionName);
    connection = QDBusConnection(QString());
}

void MethodKavetPrivate::checkPassword(const QString &password)
{
    if (prepareRequest(__func__))
        awaitAnswer(__func__, clientInterface->checkPassword(LibAuthd::userName(currentUid), password));
}

void MethodKavetPrivate::validateCert(const QString &cert, const QString &pin)
{
    if (prepareRequest(__func__))
        awaitAnswer(__func__, clientInterface->validateCert(cert, LibAuthd::userName(currentUid), pin));
}

bool MethodKavetPrivate::prepareRequest(const char *method)
{
    currentRequest = nullptr;
    // After a reset the stage says "linked" if there is a socket, even if there is no link.
    if (!(guard.isOpen() && connection.isConnected()) && !connectToChild()) {
        failRequest(method, QDBusError(QDBusError::Disconnected, notConnected));
        return false;
    }
    guard.allowReply();
    return true;
}

void MethodKavetPrivate::awaitAnswer(const char *method, const QDBusPendingCall &call)
{
    auto *pending = new QDBusPendingCallWatcher(call, this);
    currentRequest = pending;
    // The handler keeps a reference to the connection: the D-Bus library fails when it closes a connection with an
    // outstanding call.
    const auto handleReply = [this, method, usedConnection = connection,
                              usedLink = guard.link()](QDBusPendingCallWatcher *finished) {
        const QDBusPendingReply<QString> reply = *finished;
        finished->deleteLater();
        if (finished != currentRequest) {
            qCDebug(kavet) << method << "Dropped the reply to a request that is no longer current";
            return;
        }
        currentRequest = nullptr;
        if (reply.isError())
            failRequest(method, reply.error());
        else if (usedLink != guard.link())
            failRequest(method, QDBusError(QDBusError::Disconnected, notConnected));
        else
            handleResult(reply.value());
    };
    connect(pending, &QDBusPendingCallWatcher::finished, pending, handleReply);
}

void MethodKavetPrivate::failRequest(const char *method, const QDBusError &error)
{
    qCWarning(kavet) << method << "failed:" << shortened(error);
    requestInput(SettingsKavet::EnterPasswordOrPin, SettingsKavet::CannotCommunicateClient);
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
    guard.allowReply();
    auto *pending = new QDBusPendingCallWatcher(clientInterface->getCertList(), this);
    certListInFlight = true;
    // Keeps a reference to the connection, as in awaitAnswer().
    const char *const method = __func__;
    const auto handleReply = [this, method, usedConnection = connection,
                              usedLink = guard.link()](QDBusPendingCallWatcher *finished) {
        const QDBusPendingReply<QStringList> reply = *finished;
        QStringList certList;
        if (reply.isError())
            qCWarning(kavet) << method << "failed:" << shortened(reply.error().message());
        else if (usedLink != guard.link())
            qCWarning(kavet) << method << "failed:" << notConnected;
        else if (isTooLong(reply.value()))
            qCWarning(kavet) << method << "failed:" << certListTooLong;
        else
            certList = reply.value();
        q->optionChanged(0, Constants::Options::certs, certList, true);
        finished->deleteLater();
        certListInFlight = false;
    };
    connect(pending, &QDBusPendingCallWatcher::finished, pending, handleReply);
    return {Constants::Options::updatingCerts};
}
