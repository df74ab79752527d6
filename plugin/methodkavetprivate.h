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

/// The state of the method's client: its process, the watched files and directories, the link, and the request in
/// progress. There is one object per plugin, shared by all users. Everything runs on the daemon's event loop.
///
/// If the client's manifest is missing at construction, the object never supervises anything.
class MethodKavetPrivate : public QObject
{
    Q_OBJECT

public:
    /// The stage that the client has reached.
    enum Stage : qint32 {
        MustLaunch = 1, ///< The client must be launched.
        MustConnect = 2, ///< The client has been launched; the link must be made.
        Linked = 3 ///< The link has been made.
    };

    /// Creates the private object of `method`, which becomes its parent.
    explicit MethodKavetPrivate(MethodKavet *method);
    ~MethodKavetPrivate() override;

    /// Handles the start of user `uid`'s session: updates watches and policies. With `manageClient` it also kills a
    /// client that still runs, removes the data of a user marked for it, and delays the launch until the user's
    /// first-start wizard has finished. Does nothing without a usable manifest.
    void handleUserSessionStarted(uint uid, bool manageClient);
    /// Handles the end of the session: stops watching the user's settings file and, with `manageClient`, sends SIGTERM
    /// to the client.
    void handleUserSessionStopped(bool manageClient);

    /// Passes the change of a watched directory to one of the next three functions.
    void handleChildDirectoryChanged(const QString &path);
    /// Handles the change of a watched file: the client's settings file or the current policy.
    void handleChildFileChanged(const QString &path);
    /// Handles a change of the client's directory. True when the client's socket has newly appeared with the right
    /// owner; an authentication in progress then continues.
    bool handleChildSocket(const QString &path);
    /// Handles a change of the shared directory: reads and watches the client's settings file and the current policy
    /// again.
    void handleChildSharedDirectory(const QString &path);
    /// Handles a change of the home directory: launches the client once the user's first-start wizard has finished.
    void handleHomeDirectory(const QString &path);

    /// Declares the client unavailable. If it `wasRunning`, also removes the link, the file watches and the socket, and
    /// asks the daemon to restart the user's authentication.
    void setChildUnavailable(bool wasRunning);

    /// Launches the client for currentUid. True when it runs already or is being started; the process's signals report
    /// whether it has started. Each call that has to launch uses one of launchBudget. If another user's policy has set
    /// the limit of attempts, currentUid's policy replaces it or, without one, the system's limit.
    bool launchChild();
    /// Creates the shared directory, and makes the user the owner of it and of the client's directory. Another user's
    /// directory is put aside. False, with a message, on failure.
    bool prepareEnvironment();
    /// The sandbox launcher's arguments. Empty, with a critical message, when the manifest is incomplete.
    QStringList getLaunchArgs();

    /// Makes the link to the client unless it is open already. False when there is no client or no socket, when the
    /// client does not serve currentUid and, with a warning, when connecting fails.
    bool connectToChild();
    /// Asks the client to check the password of currentUid. The outcome is reported later.
    void checkPassword(const QString &password);
    /// Asks the client to check the certificate and PIN of currentUid. The outcome is reported later.
    void validateCert(const QString &cert, const QString &pin);
    /// Fetches the client's certificates. They are reported later as a change of the option "certs". Returns a list
    /// with the single element "." when it has sent the request, and an empty list when another request is in flight or
    /// there is no link yet.
    QStringList getCertList();

    /// Advances the authentication in progress as far as possible. A later event calls it again.
    void makeAuth();
    /// Reports the client's `answer` to the daemon.
    void handleResult(const QString &answer);
    /// Asks the daemon for input, or ends the attempt as failed when `code` is not Success.
    void requestInput(SettingsKavet::InputRequest request, SettingsKavet::ResultCode code);

    /// The number of failed attempts in the client's settings file, with the type that it was read with; int 0 when the
    /// file has none or cannot be read.
    QVariant getChildAttempts();
    /// Sets the limit of attempts to that of the policy file `path`, or to 0 if the file has none. Without `force` it
    /// does so only while the daemon has no settings for this method.
    void syncPolicy(const QString &path, bool force);
    /// Asks the wiper service to remove the data of user `userName`. Clears the mark of user `uid` once the service has
    /// replied without error.
    void removeUserDataInternal(unsigned int uid, const QString &userName);

    // The order matters: the client's process is destroyed before the watcher and the connection.
    QDBusConnection connection;
    QScopedPointer<KavetAuthInterface> clientInterface;
    Stage clientStage;
    uint currentUid; ///< The user being authenticated; 0 for none.
    std::optional<QMap<QString, QVariant>> pendingAuthData; ///< Not yet sent to the client.
    QFileSystemWatcher watcher;
    ChildProcess child;
    uint launchBudget; ///< Launches left until the next reset.
    bool certListInFlight; ///< A request for the certificates is in flight.
    bool certListPending; ///< The certificates must be requested once the link is made.
    MethodKavet *const q;
    LinkGuard guard; ///< Between the client's socket and `connection`.
    /// The request whose reply counts; null for none. Only compared, never dereferenced.
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

    bool m_refusedUserFile = false; ///< A foreign settings file has been reported since the last launch.
    int m_slowLookups = 0; ///< How often watching a file has taken too long since the last launch.
    QPair<quint64, qint64> m_settingsOfUsersLimit; ///< Version of the method's settings that holds a user's limit.
    uint m_sessionUser = 0; ///< The user whose session started last; 0 for none.

    Q_DISABLE_COPY(MethodKavetPrivate)
};
