// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <QLoggingCategory>
#include <QProcess>
#include <QString>

/// The client's process. Takes the user's identity before the client's program starts, reads the client's desktop
/// manifest, and holds the state of the client's supervision.
class ChildProcess : public QProcess
{
public:
    explicit ChildProcess(QObject *parent);
    ~ChildProcess() override;

    /// Looks for the manifest and reads it. False when it is missing or cannot be read. A dangling link gives true; its
    /// manifest is read later. To be called once.
    bool detectManifest();
    /// Whether the manifest is usable. Reads a manifest that was a dangling link in detectManifest(). If that fails,
    /// the manifest counts as missing from then on.
    bool tryToParseManifest();
    /// Reads the manifest into the fields below. False, with a critical message, when it cannot be opened or parsed;
    /// the manifest then counts as missing. Empty names in the manifest are no error.
    bool parseManifest();

    /// Sends SIGKILL to the process, and to a tracer of it that does not run as root. A tracer can hide the end of the
    /// process from its parent, and the user can trace it until it runs a set-user-ID program.
    void killForGood();

    /// The user that the client runs as; while the launch is delayed, the session's user. 0 for none.
    uint uid = 0;
    /// The group that the client runs as; 0 for none.
    uint gid = 0;
    /// The manifest's organisation name.
    QString orgName;
    /// The manifest's application name.
    QString appName;
    /// The manifest's whole command line.
    QString exec;
    /// The process is being started.
    bool clientStarting = false;
    /// The process has started and has not been declared unavailable since.
    bool clientRunning = false;
    /// The client's socket exists and belongs to the client's user.
    bool socketPresent = false;
    /// The directory that client and daemon share; empty until a manifest has named both organisation and application.
    QString sharedDirectory;
    /// The client's settings file for its user, with the count of failed attempts; empty while there is no client.
    QString userConfigPath;
    /// The home directory of the session's user while the launch is delayed.
    QString homeDirectory;
    /// The target of the manifest when it is a symbolic link.
    QString manifestLinkTarget;
    /// The manifest, or a link in its place, exists.
    bool manifestExists = false;
    /// The manifest is a symbolic link.
    bool manifestIsSymLink = false;
    /// The manifest has been read.
    bool manifestParsed = false;
    /// The user for whom the process was started, while `uid` may already belong to the next launch. 0 after the
    /// process has been told to end or killed.
    uint clientUid = 0;

protected:
    /// Runs in the forked child and gives up root for the user's identity. A failed step is reported on the child's
    /// standard error; the client starts all the same.
    void setupChildProcess() override;

private:
    /// Made before any fork: making a category takes a lock, which another thread may hold at the fork.
    const QLoggingCategory &m_log;

    Q_DISABLE_COPY(ChildProcess)
};
