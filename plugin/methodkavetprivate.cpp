// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#include "plugin/methodkavetprivate.h"

#include "plugin/logging.h"
#include "plugin/methodkavet.h"
#include "settings/constants.h"

#include <QDir>
#include <QFileInfo>

#include <utility>

MethodKavetPrivate::MethodKavetPrivate(MethodKavet *method)
    : QObject(method)
    , connection(QString())
    , clientStage(MustLaunch)
    , currentUid(0)
    , watcher(method)
    , child(this)
    , launchBudget(Constants::Process::launchBudget)
    , certListInFlight(false)
    , certListPending(false)
    , q(method)
{
    if (!child.detectManifest())
        return;

    connect(&child, &QProcess::errorOccurred, this, &MethodKavetPrivate::onChildErrorOccurred);
    connect(&child, &QProcess::readyReadStandardOutput, this, &MethodKavetPrivate::onReadyStdout);
    connect(&child, &QProcess::readyReadStandardError, this, &MethodKavetPrivate::onReadyStderr);
    connect(&child, &QProcess::stateChanged, this, &MethodKavetPrivate::onChildStateChanged);
    // String-based: QProcess overloads finished().
    connect(&child, SIGNAL(finished(int, QProcess::ExitStatus)), this, // clazy:exclude=old-style-connect
            SLOT(onChildFinished(int, QProcess::ExitStatus)));
    // Queued: QProcess cannot be restarted from within its own signal.
    connect(&child, &QProcess::errorOccurred, this, &MethodKavetPrivate::resumeAfterFailedStart, Qt::QueuedConnection);
    connect(&watcher, &QFileSystemWatcher::directoryChanged, this, &MethodKavetPrivate::handleChildDirectoryChanged);
    connect(&watcher, &QFileSystemWatcher::fileChanged, this, &MethodKavetPrivate::handleChildFileChanged);

    if (!QDir().mkpath(Constants::Link::directory))
        qCCritical(kavet) << "Cannot create auxiliary directory" << Constants::Link::directory;
    watcher.addPath(Constants::Link::directory);

    if (QFileInfo::exists(child.sharedDirectory))
        watcher.addPath(child.sharedDirectory);

    if (QFileInfo::exists(Constants::Paths::packagedPolicy))
        syncPolicy(Constants::Paths::packagedPolicy, false);
}

MethodKavetPrivate::~MethodKavetPrivate()
{
    const uint user = policyUser();
    if (auto policy = currentPolicyOf(user))
        takeLimit(std::move(*policy), user);

    // QProcess's destructor ends a running client and emits signals, by which time other members are destroyed.
    child.disconnect(this);
    if (child.state() != QProcess::NotRunning)
        child.killForGood(); // QProcess's destructor would wait for the client to end.
}
