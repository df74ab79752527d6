// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#include "plugin/methodkavetprivate.h"

#include "plugin/logging.h"
#include "plugin/methodkavet.h"
#include "settings/constants.h"

#include <QFile>

namespace {

constexpr qint64 maximumUnreadOutput = qint64(1024) * 1024; ///< Bytes for each stream.

} // namespace

void MethodKavetPrivate::onChildErrorOccurred(QProcess::ProcessError error)
{
    qCDebug(kavet) << __func__ << "error" << int(error);
}

void MethodKavetPrivate::onReadyStdout()
{
    qCDebug(kavet) << __func__ << "client stdout:" << child.readAllStandardOutput();
    discardUnread(QProcess::StandardOutput);
}

void MethodKavetPrivate::onReadyStderr()
{
    qCDebug(kavet) << __func__ << "client stderr:" << child.readAllStandardError();
    discardUnread(QProcess::StandardError);
}

// QProcess buffers all output without a limit.
void MethodKavetPrivate::discardUnread(QProcess::ProcessChannel channel)
{
    child.setReadChannel(channel);
    const qint64 excess = child.bytesAvailable() - maximumUnreadOutput;
    if (excess > 0)
        child.read(excess);
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
        // The request in progress continues when the client's socket appears.
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

// A request may be waiting for another user's client to end. If that client fails to start, QProcess does not emit
// finished().
void MethodKavetPrivate::resumeAfterFailedStart(QProcess::ProcessError error)
{
    if (error == QProcess::FailedToStart && child.clientUid == 0 && child.state() == QProcess::NotRunning)
        makeAuth();
}

// Starting the process emits stateChanged(), so makeAuth() may be on the stack here: change nothing that it refers to.
void MethodKavetPrivate::setChildUnavailable(bool wasRunning)
{
    clientStage = MustLaunch;
    child.clientRunning = false;
    child.socketPresent = false;
    if (!wasRunning)
        return;

    closeLink();
    watcher.removePath(child.userConfigPath);
    child.userConfigPath.clear();
    watcher.removePath(Constants::Paths::currentPolicy);
    child.uid = 0;
    child.gid = 0;
    QFile::remove(Constants::Link::socketPath);
    qCDebug(kavet) << __func__ << "locking the screen";
    q->restartAuth(currentUid);
}
