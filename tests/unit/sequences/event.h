// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <QMap>
#include <QString>
#include <QStringList>

#include <iosfwd>

/// The events of the stateful test of the private object, shared by the model and the real system.
namespace Sequences {

constexpr uint alice = 1000;
constexpr uint bob = 1001;
constexpr uint carol = 1002;
constexpr uint unknownUser = 4242;

enum class Kind {
    Authenticate, // user, variant = AuthData, answer
    Reset,
    EndClient, // variant = how
    StopClient, // by SIGSTOP, and continues
    PutSocket, // variant = SocketChoice
    RemoveSocket,
    ChangeSocketOwner, // variant = SocketChoice
    TouchClientDirectory,
    DropLink,
    Reply, // variant = which call, answer; also when it is late
    FetchCerts,
    SetCertsAnswer, // variant = CertsAnswer
    ReplyCerts, // variant = CertsAnswer but HoldCerts
    StartSession, // user, flag = manageClient
    StopSession, // flag = manageClient
    CreateMarker, // user
    RemoveMarker, // user
    TouchHome, // user
    WritePolicy, // user, variant = value
    ReplacePolicy, // user, variant = value
    PlantPolicy, // user, variant = Plant, flag = the user's own and not root's
    RemovePolicy,
    WriteUserFile, // user, variant = value
    ReplaceUserFile, // user, variant = value
    PlantUserFile, // user, variant = Plant, flag = the user's own and not root's
    RemoveUserFile, // user
    TouchSharedDirectory,
    WritePackagedPolicy, // variant = value
    RemovePackagedPolicy,
    RemoveMethodSettings,
    SetLimit, // by root; variant = value
    LockPartition,
    UnlockPartition,
    IncreaseAttempts, // user
    ResetAttempts, // user
    GetAttempts, // user
    MarkForDeletion, // user
    SetLauncher, // variant = Launcher
    SetGroup, // variant = Group
    MoveClientDirectory, // there and back
    BlockSharedDirectory, // there and back
    SetManifest, // variant = Manifest
    SetWiper, // variant = Wiper
    ReplyWiper, // flag = success
    Repair, // everything that prevents a launch
    Restart, // the plugin
    Count
};

enum AuthData { Password, CertAndPin, PasswordAndPin, CertOnly, EmptyMap, AuthDataCount };
/// The file at the path of the client's socket. Up to NobodyListens, the owner is also the listener. After that, the
/// owner is right, but another user or root listens, or the file is not a socket.
enum SocketChoice {
    RightOwner,
    OtherUser,
    Root,
    NobodyListens,
    OtherListens,
    RootListens,
    LinkToSocket,
    NotASocket,
    SocketChoiceCount
};
constexpr int socketOwnerChoices = NobodyListens;
enum CertsAnswer {
    SomeCerts,
    NoCerts,
    CertsError,
    CertsNumber,
    CertsNothing,
    MostCerts,
    TooManyCerts,
    TooLargeCerts,
    HoldCerts,
    CertsAnswerCount,
    CertsLost ///< With the link.
};
constexpr int mostCerts = 1000; ///< Longer lists are ignored,
constexpr int largestCerts = 256 * 1024; ///< and so are larger ones.
enum Launcher { Works, IsMissing, ExitsAtOnce, FailsAtOnce, IgnoresTerm, LauncherCount };
enum Group { Normal, NoGroup, GroupOfRoot, GroupCount };
enum Manifest { Stock, NoManifest, Damaged, NoOrganization, NoCommand, ManifestCount };
enum Wiper { WiperSucceeds, WiperFails, WiperHolds, NoWiper, WiperCount };
enum Plant { SymbolicLink, HardLink, Fifo, Directory, FileOfOther, PlantCount };

/// The client's replies to a credential: the part of the credential before the "#".
const QStringList answers = {QStringLiteral("success"),
                             QStringLiteral("failed"),
                             QStringLiteral("lock"),
                             QStringLiteral("remove"),
                             QStringLiteral("nousb"),
                             QStringLiteral("connerr"),
                             QStringLiteral("firstcererr"),
                             QStringLiteral("errauthtype"),
                             QStringLiteral("SUCCESS"),
                             QStringLiteral("whatever"),
                             QString(),
                             QStringLiteral("<error>"),
                             QStringLiteral("<number>"),
                             QStringLiteral("<nothing>"),
                             QStringLiteral("<many>"),
                             QStringLiteral("<hold>"),
                             QStringLiteral("<drop>"),
                             QStringLiteral("<flood>"),
                             QStringLiteral("<die>")};

/// The reply that `answer` means for a held call.
QString lateAnswer(const QString &answer);

/// Values in settings files; a null string means a file without the key.
const QStringList limits = {QStringLiteral("1"),
                            QStringLiteral("3"),
                            QStringLiteral("0"),
                            QStringLiteral("-1"),
                            QStringLiteral("100000"),
                            QStringLiteral("nonsense"),
                            QString()};
const QStringList counts = {QStringLiteral("2"), QStringLiteral("0"), QStringLiteral("17"), QStringLiteral("many"),
                            QString()};

/// The initial state of a sequence.
struct Setup
{
    int manifest = Stock;
    bool manifestIsLink = false;
    bool packagedPolicy = false;
    bool sharedDirectory = false;
    bool currentPolicy = false; ///< Only with sharedDirectory.
};

/// One event.
struct Event
{
    Kind kind = Kind::Reset;
    uint user = alice;
    int variant = 0;
    QString answer;
    bool flag = false;
    /// The next event happens before the event loop runs.
    bool hurried = false;
    /// The watcher is read only when the process has nothing more to report.
    bool delayed = false;
    /// What the process has to report comes before all that is under way.
    bool overtaken = false;
};

/// The observable state of the private object and its environment, by name.
using Observation = QMap<QString, QString>;

QString nameOf(Kind kind);
std::ostream &operator<<(std::ostream &stream, const Event &event);
std::ostream &operator<<(std::ostream &stream, const Setup &setup);

} // namespace Sequences
