// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <QProcess>
#include <QString>

/// The process in which the client runs. Takes the user's identity before the client's program starts, reads the
/// client's desktop manifest, and keeps what the supervision of the client knows about it.
class ChildProcess : public QProcess
{
public:
    explicit ChildProcess(QObject *parent);
    ~ChildProcess() override;

    /// Looks for the manifest and reads it. False when there is none or it cannot be read; true without reading it when
    /// it is a link that leads nowhere yet. To be called once.
    bool detectManifest();
    /// Whether the manifest is usable. Reads it again as long as it is a link that could not be read before.
    bool tryToParseManifest();
    /// Reads the manifest into the fields below. False, with a critical message, when it cannot be opened or parsed;
    /// then it counts as missing. Names that are empty in the manifest do not make it fail.
    bool parseManifest();

    /// Ends the process by SIGKILL, and with it a tracer that would keep its end from being noticed here. The user can
    /// trace the process until it runs a set-user-ID program; root's debuggers are left alone.
    void killForGood();

    /// User that the client runs as or, while its launch is delayed, the user of the session; 0 for none.
    uint uid = 0;
    /// Group that the client runs as; 0 for none.
    uint gid = 0;
    /// The manifest's organisation name.
    QString orgName;
    /// The manifest's application name.
    QString appName;
    /// The manifest's command line, whole.
    QString exec;
    /// The process is being started.
    bool clientStarting = false;
    /// The process has come to run and has not been declared unavailable since.
    bool clientRunning = false;
    /// The client's socket is there and belongs to the client's user.
    bool socketPresent = false;
    /// Directory that client and daemon share; empty until a manifest named both organisation and application.
    QString sharedDirectory;
    /// The client's file for its user, with its count of failed attempts; empty while there is no client.
    QString userConfigPath;
    /// Home directory of the session's user while the launch is delayed.
    QString homeDirectory;
    /// What the manifest leads to when it is a symbolic link.
    QString manifestLinkTarget;
    /// The manifest, or the link in its place, is there.
    bool manifestExists = false;
    /// The manifest is a symbolic link.
    bool manifestIsSymLink = false;
    /// The manifest has been read.
    bool manifestParsed = false;
    /// User whose client the process is, whatever `uid` has come to say since it was started; 0 once it has been asked
    /// to end or is being killed.
    uint clientUid = 0;

protected:
    /// Runs in the forked child: gives up root for the user's identity. A step that fails is reported on the child's
    /// standard error and does not keep the client from starting.
    void setupChildProcess() override;

private:
    Q_DISABLE_COPY(ChildProcess)
};
