// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#include "client/methodkavetprivate.h"

#include "plugin/logging.h"
#include "plugin/methodkavet.h"
#include "settings/constants.h"

#include <QFile>

void MethodKavetPrivate::onChildErrorOccurred(QProcess::ProcessError error)
{
    qCDebug(kavet) << __func__ << "error" << int(error);
}

void MethodKavetPrivate::onReadyStdout()
{
    qCDebug(kavet) << __func__ << "client stdout:" << child.readAllStandardOutput();
}

void MethodKavetPrivate::onReadyStderr()
{
    qCDebug(kavet) << __func__ << "client stderr:" << child.readAllStandardError();
}

void MethodKavetPrivate::onChildStateChanged(QProcess::ProcessState newState)
{
    QString state = QStringLiteral("<unknown>");
    child.clientStarting = newState == QProcess::Starting;

    switch (newState) {
    case QProcess::NotRunning:
        state = QStringLiteral("Client is not running");
        setChildUnavailable(child.clientRunning);
        break;
    case QProcess::Starting:
        state = QStringLiteral("Client is starting");
        setChildUnavailable(child.clientRunning);
        break;
    case QProcess::Running:
        // The request in progress goes on when the client's socket appears.
        state = QStringLiteral("Client has started");
        child.clientRunning = true;
        break;
    }
    qCDebug(kavet) << __func__ << state;
}

void MethodKavetPrivate::onChildFinished(int exitCode, QProcess::ExitStatus exitStatus)
{
    qCWarning(kavet) << __func__ << "Client has terminated"
                     << "exitCode" << exitCode << "exitStatus" << int(exitStatus);
    setChildUnavailable(child.clientRunning);
    makeAuth();
}

// May be entered while makeAuth() is on the stack, through the state that launching reports; so it touches nothing that
// makeAuth() holds on to.
void MethodKavetPrivate::setChildUnavailable(bool wasRunning)
{
    clientStage = MustLaunch;
    child.clientRunning = false;
    child.socketPresent = false;
    if (!wasRunning)
        return;

    // The library keeps a connection open for as long as anything refers to it.
    QDBusConnection::disconnectFromPeer(Constants::peerConnection);
    connection = QDBusConnection(QString());
    watcher.removePath(child.userConfigPath);
    child.userConfigPath.clear();
    watcher.removePath(Constants::currentPolicyFile);
    child.uid = 0;
    child.gid = 0;
    QFile::remove(Constants::filePath.arg(Constants::clientDirectory, Constants::socketName));
    qCDebug(kavet) << __func__ << "locking the screen";
    q->restartAuth(currentUid);
}
