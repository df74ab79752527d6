// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include "auth/linkguard.h"
#include "client/childprocess.h"
#include "files/userfiles.h"
#include "kavetauthinterface.h" // generated
#include "settings/settingskavet.h"

#include <QDBusConnection>
#include <QFileSystemWatcher>
#include <QMap>
#include <QScopedPointer>
#include <QStringList>
#include <QVariant>

#include <optional>

class MethodKavet;
class QDBusPendingCallWatcher;

/// Everything that the method keeps about its client: the process, what is watched in the file system, the link, and
/// the request in progress. One object per plugin, shared by all users; all of it runs on the daemon's event loop.
///
/// A system without the client's manifest at the time of construction gets an object that never supervises anything.
class MethodKavetPrivate : public QObject
{
    Q_OBJECT

public:
    /// How far the client has got.
    enum Stage {
        MustLaunch = 1, ///< It must be launched.
        MustConnect = 2, ///< It has been launched; the link is still to be made.
        Linked = 3 ///< The link has been made.
    };

    /// The private object of `method`, which is also its parent.
    explicit MethodKavetPrivate(MethodKavet *method);
    ~MethodKavetPrivate() override;

    /// The session of user `uid` has started: watches and policies are brought up to date and, with `manageClient`, a
    /// client left from before is killed, a user marked for it loses the data, and the client's launch waits for a
    /// user's first-start wizard. Does nothing without a usable manifest.
    void handleUserSessionStarted(uint uid, bool manageClient);
    /// The session has stopped: the user's file is no longer watched and, with `manageClient`, the client is asked to
    /// end.
    void handleUserSessionStopped(bool manageClient);

    /// A watched directory has changed; passes it on to the one of the next three that it concerns.
    void handleChildDirectoryChanged(const QString &path);
    /// A watched file has changed: the client's count of attempts or the current policy.
    void handleChildFileChanged(const QString &path);
    /// The client's directory has changed. True when the client's socket has newly appeared with the right owner; an
    /// authentication in progress then goes on.
    bool handleChildSocket(const QString &path);
    /// The shared directory has changed: the client's file and the current policy are taken up again.
    void handleChildSharedDirectory(const QString &path);
    /// The home directory of a user whose first start was pending has changed: launches once the wizard has finished.
    void handleHomeDirectory(const QString &path);

    /// Declares the client unavailable. Of a client that `wasRunning`, also removes the link, the watches and the
    /// socket, and asks the daemon to restart the user's authentication.
    void setChildUnavailable(bool wasRunning);

    /// Launches the client for currentUid. True when it runs already or is being started; whether it does start is
    /// learnt from the process later. Each attempt uses up one of launchBudget. A limit of attempts that another user's
    /// policy has set gives way to currentUid's policy or, when there is none, to the system's limit.
    bool launchChild();
    /// Hands the client's directories to its user, making the shared one, and puts aside what another user has left in
    /// them. False, with a message, when a directory cannot be handed over.
    bool prepareEnvironment();
    /// The sandbox launcher's arguments; empty, with a critical message, when the manifest does not give all of them.
    QStringList getLaunchArgs();

    /// Makes the link to the client unless it stands. False when there is no client or no socket, and, with a warning,
    /// when it cannot be made.
    bool connectToChild();
    /// Has the client check the password of currentUid; the outcome is reported later.
    void checkPassword(const QString &password);
    /// Has the client check the certificate and PIN of currentUid; the outcome is reported later.
    void validateCert(const QString &cert, const QString &pin);
    /// Fetches the client's certificates, which are reported later as a change of the option "certs". Answers a list of
    /// a single "." when the fetch has begun; an empty one when one is under way, or must wait for the link.
    QStringList getCertList();

    /// Takes the authentication in progress as far as it gets now; an event takes it on from there.
    void makeAuth();
    /// Reports the client's `answer` to the daemon.
    void handleResult(const QString &answer);
    /// Asks the daemon for input, or ends the attempt as failed when `code` is not Success.
    void requestInput(SettingsKavet::InputRequest request, SettingsKavet::ResultCode code);

    /// The failed attempts in the client's file for its user, as read; int 0 when there are none or the file cannot be
    /// read.
    QVariant getChildAttempts();
    /// Takes over the limit of attempts from the policy file `path`; 0 when that does not give one. Without `force`
    /// only as long as the daemon has no settings of this method.
    void syncPolicy(const QString &path, bool force);
    /// Asks the wiper to remove the data of user `userName` and, once it has answered without error, clears the mark of
    /// user `uid`.
    void removeUserDataInternal(unsigned int uid, const QString &userName);

    // Initialised in this order, destroyed in the reverse.
    QDBusConnection connection;
    QScopedPointer<KavetAuthInterface> clientInterface;
    qint32 clientStage;
    uint currentUid; ///< User being authenticated; 0 for none.
    std::optional<QMap<QString, QVariant>> pendingAuthData; ///< Not yet sent to the client.
    QFileSystemWatcher watcher;
    ChildProcess child;
    uint launchBudget; ///< Launches left until the next reset.
    bool certListInFlight; ///< The client has been asked for its certificates.
    bool certListPending; ///< The certificates are to be asked for once the link is made.
    MethodKavet *const q;
    LinkGuard guard; ///< Between the client's socket and `connection`.
    /// The request whose reply counts; null for none. Only compared, never used.
    const QDBusPendingCallWatcher *currentRequest = nullptr;

private Q_SLOTS:
    void onChildErrorOccurred(QProcess::ProcessError error);
    void onReadyStdout();
    void onReadyStderr();
    void onChildStateChanged(QProcess::ProcessState newState);
    void onChildFinished(int exitCode, QProcess::ExitStatus exitStatus);

private:
    void watchAnew(const QString &path);
    void killChild();
    void resumeAfterFailedStart(QProcess::ProcessError error);
    void discardUnread(QProcess::ProcessChannel channel);
    void closeLink();
    bool prepareRequest(const char *method);
    void awaitAnswer(const char *method, const QDBusPendingCall &call);
    void failRequest(const char *method, const QDBusError &error);
    std::optional<PinnedFile> currentPolicyOf(uint user) const;
    std::optional<PinnedFile> policyToFollow(uint user);
    uint userOfFile() const;
    uint policyUser() const;
    void takeLimit(PinnedFile policy, uint user);
    void dropLimit();
    void giveLimitBack(uint user);
    bool limitIsUsers() const;
    bool rememberSystemLimit(uint user, bool noLimit);
    bool setLimit(const QVariant &value);
    QString settingsPath(const QString &name) const;

    bool m_refusedUserFile = false; ///< Since the last launch.
    bool m_lookupWasSlow = false; ///< Since the last launch.
    QPair<quint64, qint64> m_settingsOfUsersLimit; ///< The version of the method's settings with a user's limit.
    uint m_sessionUser = 0; ///< Whose session has started last; 0 for nobody's.

    Q_DISABLE_COPY(MethodKavetPrivate)
};
