// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#include "authserviceinterface.h"
#include "errors.h"
#include "secretprompt.h"
#include "states.h"

#include <authd/authservice.h>
#include <authd/libauthd.h>
#include <authd/vocabulary.h>

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QDBusServiceWatcher>
#include <QDeadlineTimer>
#include <QEventLoop>
#include <QJsonDocument>
#include <QJsonObject>
#include <QTimer>

#include <cstdio>
#include <limits>
#include <pwd.h>

namespace AuthService = LibAuthd::AuthService;

namespace {

enum ExitCode { Success = 0, Refused = 1, WrongUsage = 2, Locked = 3, Unreachable = 4 };

constexpr int DefaultTimeout = 60;
constexpr uint NoUser = 0;

// The connection that the library shares within a process holds signals back until the event loop runs, and the next
// one to come may then overtake them: an attempt's end before its beginning.
const QString connectionName = QStringLiteral("authctl");

// What the service's methods call things
const QString certsOption = QStringLiteral("certs");
const QStringList updatingCerts = {QStringLiteral(".")};
const QString passwordKey = QStringLiteral("password");
const QString certKey = QStringLiteral("cert");
const QString pinKey = QStringLiteral("pin");

const char description[] =
    R"(Talks to the authentication service on the system bus.

Commands:
  methods                        the authentication methods there are
  login USER                     authenticate USER; asks for the password, or for
                                 the PIN with --cert, without showing it; reads
                                 it from standard input if that is no terminal
  state USER                     the state USER is in
  cancel USER                    give up the open attempt of USER
  options [NAME [VALUE]]         show the method's options, or those of a user
                                 with --user; show or set one
  certs                          the certificates that the client offers
  session start|stop USER        tell that a session has started or stopped
  unlock USER                    unlock USER
  monitor                        show what the service reports until interrupted

A USER is a login name or a user id. Root may do everything, a user what
concerns that user.

Exit codes: 0 success, 1 refused or failed, 2 wrong usage, 3 the user is locked,
4 the service cannot be reached or does not answer in time.)";

/// What the command line asks for.
struct Request
{
    QStringList arguments;
    bool json = false;
    bool unmanaged = false;
    int timeout = DefaultTimeout * 1000;
    QString method;
    QString cert;
    QString user;
};

/// "CannotStartClient" as "cannot start client".
QString words(const QString &name)
{
    QString text;
    for (const QChar c : name) {
        if (c.isUpper() && !text.isEmpty() && !text.endsWith(QLatin1Char(' ')))
            text += QLatin1Char(' ');
        text += c.toLower();
    }
    return text;
}

QString valueText(const QVariant &value)
{
    return value.userType() == QMetaType::QStringList ? value.toStringList().join(QLatin1Char('\n')) : value.toString();
}

QString stateText(const QString &state, const QVariantMap &details)
{
    const QString method = details.value(States::Method).toString();
    if (state == States::Idle)
        return QStringLiteral("nothing under way");
    if (state == States::Pending)
        return method + QStringLiteral(" is at work");
    if (state == States::Challenge && details.value(States::Restarted).toBool())
        return method + QStringLiteral(" had to start its client again");
    if (state == States::Challenge)
        return method + QStringLiteral(" waits for input");
    if (state == States::Authenticated)
        return QStringLiteral("authenticated by ") + method;
    if (state != States::Locked)
        return state;
    const uint duration = details.value(States::Duration).toUInt();
    return QStringLiteral("locked by %1 (%2), %3")
        .arg(method, details.value(States::Reason).toString(),
             duration == States::UntilUnlocked ? QStringLiteral("until root unlocks the user")
                                               : QStringLiteral("for %1 seconds").arg(duration));
}

/// One run of the program.
class Command : public QObject
{
public:
    explicit Command(const Request &request)
        : m_request(request)
        , m_deadline(request.timeout)
        , m_service(AuthService::Service, AuthService::ObjectPath,
                    QDBusConnection::connectToBus(QDBusConnection::SystemBus, connectionName))
    {
        m_service.setTimeout(request.timeout);
    }

    int run()
    {
        const QString command = m_request.arguments.constFirst();
        const int count = m_request.arguments.size() - 1;
        if (command == QLatin1String("methods") && count == 0)
            return methods();
        if (command == QLatin1String("login") && count == 1)
            return login();
        if (command == QLatin1String("state") && count == 1)
            return state();
        if (command == QLatin1String("cancel") && count == 1)
            return forUser(1, [this](uint uid) { return m_service.Cancel(uid); });
        if (command == QLatin1String("options") && count <= 2)
            return options();
        if (command == QLatin1String("certs") && count == 0)
            return certs();
        if (command == QLatin1String("session") && count == 2)
            return session();
        if (command == QLatin1String("unlock") && count == 1)
            return forUser(1, [this](uint uid) { return m_service.Unlock(uid); });
        if (command == QLatin1String("monitor") && count == 0)
            return monitor();
        std::fputs("authctl: no such command, or with other arguments. See authctl --help.\n", stderr);
        return WrongUsage;
    }

private:
    // --- Output ---

    void print(const QString &text, const char *event, QJsonObject object)
    {
        object.insert(QLatin1String("event"), QLatin1String(event));
        const QByteArray line =
            m_request.json ? QJsonDocument(object).toJson(QJsonDocument::Compact) : text.toLocal8Bit();
        std::puts(line.constData());
        std::fflush(stdout);
    }

    int fail(int exitCode, const QString &text, const QString &error = QString())
    {
        if (m_request.json)
            print(QString(), "error", {{QStringLiteral("error"), error}, {QStringLiteral("message"), text}});
        else
            std::fprintf(stderr, "authctl: %s\n", qUtf8Printable(text));
        return exitCode;
    }

    int fail(const QDBusError &error)
    {
        const QString name = error.name();
        switch (error.type()) {
        case QDBusError::ServiceUnknown:
        case QDBusError::NoServer:
        case QDBusError::NoNetwork:
        case QDBusError::Disconnected:
            return fail(Unreachable, QStringLiteral("The authentication service cannot be reached"), name);
        case QDBusError::NoReply:
        case QDBusError::Timeout:
        case QDBusError::TimedOut:
            return fail(Unreachable, QStringLiteral("The authentication service does not answer"), name);
        default:
            return fail(name == Errors::UserLocked ? Locked : Refused, error.message(), name);
        }
    }

    int gone() { return fail(Unreachable, QStringLiteral("The authentication service has gone")); }

    QJsonObject about(uint uid)
    {
        return {{QStringLiteral("uid"), qint64(uid)}, {QStringLiteral("user"), LibAuthd::userName(uid)}};
    }

    void printState(uint uid, const QString &state, const QVariantMap &details)
    {
        QJsonObject object = about(uid);
        object.insert(QLatin1String("state"), state);
        object.insert(QLatin1String("details"), QJsonObject::fromVariantMap(details));
        print(who(uid) + QStringLiteral(": ") + stateText(state, details), "state", object);
    }

    void printSuccess(uint uid, const QString &method)
    {
        QJsonObject object = about(uid);
        object.insert(QLatin1String("method"), method);
        print(who(uid) + QStringLiteral(": success"), "authenticated", object);
    }

    void printFailure(uint uid, const QString &method, int code, const QString &name, int attemptsLeft)
    {
        QJsonObject object = about(uid);
        object.insert(QLatin1String("method"), method);
        object.insert(QLatin1String("resultCode"), code);
        object.insert(QLatin1String("resultName"), name);
        object.insert(QLatin1String("attemptsLeft"), attemptsLeft);
        print(QStringLiteral("%1: failed: %2 (code %3); attempts left: %4")
                  .arg(who(uid), words(name))
                  .arg(code)
                  .arg(attemptsLeft),
              "failed", object);
    }

    void printOption(uint uid, const QString &method, const QString &option, const QVariant &value)
    {
        QJsonObject object = uid == NoUser ? QJsonObject() : about(uid);
        object.insert(QLatin1String("method"), method);
        object.insert(QLatin1String("option"), option);
        object.insert(QLatin1String("value"), QJsonValue::fromVariant(value));
        print(QStringLiteral("%1 = %2").arg(option, valueText(value)), "option", object);
    }

    static QString who(uint uid)
    {
        const QString name = LibAuthd::userName(uid);
        return name.isNull() ? QString::number(uid) : name;
    }

    // --- What the arguments mean ---

    /// The user id of a user argument.
    std::optional<uint> userId(const QString &user)
    {
        bool isNumber = false;
        const uint uid = user.toUInt(&isNumber);
        if (isNumber)
            return uid;
        if (const struct passwd *entry = getpwnam(user.toLocal8Bit().constData()))
            return entry->pw_uid;
        fail(Refused, QStringLiteral("There is no user ") + user, Errors::NoSuchUser);
        return std::nullopt;
    }

    /// The method asked for, or the one to offer first; null after a failure, with its exit code in `exitCode`.
    QString method(int &exitCode)
    {
        if (!m_request.method.isNull())
            return m_request.method;
        const QDBusPendingReply<QStringList> names = wait(m_service.GetMethods());
        if (names.isError())
            exitCode = fail(names.error());
        else if (names.value().isEmpty())
            exitCode = fail(Refused, QStringLiteral("The service has no methods"), Errors::NoSuchMethod);
        else
            return names.value().constFirst();
        return QString();
    }

    // --- Waiting ---

    template <typename PendingReply>
    static PendingReply wait(PendingReply reply)
    {
        reply.waitForFinished();
        return reply;
    }

    /// Handles what the service reports until finish() or the end of the time; false when that or the service's end
    /// came first.
    bool handleReports(bool bounded = true)
    {
        QDBusServiceWatcher watcher(AuthService::Service, m_service.connection(),
                                    QDBusServiceWatcher::WatchForUnregistration);
        connect(&watcher, &QDBusServiceWatcher::serviceUnregistered, &m_loop, [this] {
            m_hasGone = true;
            m_loop.exit(Unreachable);
        });
        if (bounded)
            QTimer::singleShot(int(m_deadline.remainingTime()), &m_loop, [this] { m_loop.exit(Unreachable); });
        return m_loop.exec() != Unreachable;
    }

    void finish() { m_loop.exit(Success); }

    // --- Commands ---

    template <typename Function>
    int forUser(int argument, Function call)
    {
        const std::optional<uint> uid = userId(m_request.arguments.at(argument));
        if (!uid)
            return Refused;
        const QDBusPendingReply<> reply = wait(call(*uid));
        if (reply.isError())
            return fail(reply.error());
        print(QStringLiteral("done"), "done", about(*uid));
        return Success;
    }

    int methods()
    {
        const QDBusPendingReply<QStringList> names = wait(m_service.GetMethods());
        if (names.isError())
            return fail(names.error());
        const QStringList list = names.value();
        for (const QString &name : list) {
            const QDBusPendingReply<QVariantMap> reply = wait(m_service.GetMethodInfo(name));
            if (reply.isError())
                return fail(reply.error());
            const QVariantMap info = reply.value();
            QJsonObject object = QJsonObject::fromVariantMap(info);
            object.insert(QLatin1String("method"), name);
            print(QStringLiteral("%1 %2: %3, priority %4, %5")
                      .arg(name, info.value(QStringLiteral("version")).toString(),
                           info.value(QStringLiteral("description")).toString(),
                           info.value(QStringLiteral("priority")).toString(),
                           info.value(QStringLiteral("available")).toBool() ? QStringLiteral("available")
                                                                            : QStringLiteral("not available")),
                  "method", object);
        }
        return Success;
    }

    int state()
    {
        const std::optional<uint> uid = userId(m_request.arguments.at(1));
        if (!uid)
            return Refused;
        const QDBusPendingReply<QString, QVariantMap> reply = wait(m_service.GetState(*uid));
        if (reply.isError())
            return fail(reply.error());
        printState(*uid, reply.argumentAt<0>(), reply.argumentAt<1>());
        return reply.argumentAt<0>() == States::Locked ? Locked : Success;
    }

    int login()
    {
        const std::optional<uint> user = userId(m_request.arguments.at(1));
        if (!user)
            return Refused;
        const uint uid = *user;
        int exitCode = Success;
        const QString name = method(exitCode);
        if (name.isNull())
            return exitCode;

        // Before anything is asked for in vain.
        const QDBusPendingReply<QString, QVariantMap> before = wait(m_service.GetState(uid));
        if (before.isError())
            return fail(before.error());
        if (before.argumentAt<0>() == States::Locked) {
            printState(uid, before.argumentAt<0>(), before.argumentAt<1>());
            return Locked;
        }

        const bool withCert = !m_request.cert.isNull();
        const std::optional<QString> secret =
            readSecret((withCert ? QStringLiteral("PIN of %1 for %2: ").arg(m_request.cert, who(uid))
                                 : QStringLiteral("Password of %1: ").arg(who(uid))));
        if (!secret)
            return fail(Refused, QStringLiteral("Nothing was entered"));
        m_deadline.setRemainingTime(m_request.timeout);

        // The time of this attempt begins with the service's word that it is under way.
        m_exitCode = Refused;
        connect(&m_service, &AuthServiceInterface::Authenticated, &m_loop, [this, uid](uint who, const QString &by) {
            if (m_isOurs && who == uid)
                printSuccess(who, by);
        });
        connect(&m_service, &AuthServiceInterface::AuthenticationFailed, &m_loop,
                [this, uid](uint who, const QString &by, int code, const QString &codeName, int attemptsLeft) {
                    if (m_isOurs && who == uid)
                        printFailure(who, by, code, codeName, attemptsLeft);
                });
        connect(&m_service, &AuthServiceInterface::StateChanged, &m_loop,
                [this, uid](uint who, const QString &state, const QVariantMap &details) {
                    if (who != uid || (!m_isOurs && state != States::Pending))
                        return;
                    m_isOurs = true;
                    printState(who, state, details);
                    if (state == States::Pending || details.value(States::Restarted).toBool())
                        return;
                    if (state == States::Authenticated)
                        m_exitCode = Success;
                    else if (state == States::Locked)
                        m_exitCode = Locked;
                    finish();
                });

        const QVariantMap data =
            withCert ? QVariantMap{{certKey, m_request.cert}, {pinKey, *secret}} : QVariantMap{{passwordKey, *secret}};
        const QDBusPendingReply<> started = wait(m_service.Authenticate(uid, name, data));
        if (started.isError())
            return fail(started.error());
        if (handleReports())
            return m_exitCode;
        if (m_hasGone)
            return gone();
        wait(m_service.Cancel(uid));
        return fail(Unreachable, QStringLiteral("No outcome in time"));
    }

    int options()
    {
        // A user that is given and empty must not turn into everybody.
        const bool isUsers = !m_request.user.isNull();
        const std::optional<uint> uid = isUsers ? userId(m_request.user) : NoUser;
        if (!uid)
            return Refused;
        int exitCode = Success;
        const QString name = method(exitCode);
        if (name.isNull())
            return exitCode;

        if (m_request.arguments.size() == 1) {
            const QDBusPendingReply<QVariantMap> reply =
                wait(isUsers ? m_service.GetUserMethodOptions(*uid, name) : m_service.GetMethodOptions(name));
            if (reply.isError())
                return fail(reply.error());
            const QVariantMap values = reply.value();
            for (auto value = values.cbegin(); value != values.cend(); ++value)
                printOption(*uid, name, value.key(), value.value());
            return Success;
        }

        const QString option = m_request.arguments.at(1);
        if (m_request.arguments.size() == 3) {
            const QDBusVariant value(m_request.arguments.at(2));
            const QDBusPendingReply<> reply = wait(isUsers ? m_service.SetUserMethodOption(*uid, name, option, value)
                                                           : m_service.SetMethodOption(name, option, value));
            if (reply.isError())
                return fail(reply.error());
        }
        const QDBusPendingReply<QDBusVariant> reply =
            wait(isUsers ? m_service.GetUserMethodOption(*uid, name, option) : m_service.GetMethodOption(name, option));
        if (reply.isError())
            return fail(reply.error());
        printOption(*uid, name, option, reply.value().variant());
        return Success;
    }

    int certs()
    {
        int exitCode = Success;
        const QString name = method(exitCode);
        if (name.isNull())
            return exitCode;

        connect(&m_service, &AuthServiceInterface::MethodOptionChanged, &m_loop,
                [this, name](const QString &of, const QString &option, const QDBusVariant &value) {
                    if (of != name || option != certsOption)
                        return;
                    m_certs = value.variant().toStringList();
                    if (m_certs != updatingCerts)
                        finish();
                });
        const QDBusPendingReply<QDBusVariant> reply = wait(m_service.GetMethodOption(name, certsOption));
        if (reply.isError())
            return fail(reply.error());
        m_certs = reply.value().variant().toStringList();
        if (m_certs == updatingCerts && !handleReports())
            return m_hasGone ? gone() : fail(Unreachable, QStringLiteral("No certificate list in time"));

        for (const QString &cert : qAsConst(m_certs))
            print(cert, "cert", {{QStringLiteral("method"), name}, {QStringLiteral("cert"), cert}});
        return Success;
    }

    int session()
    {
        const QString what = m_request.arguments.at(1);
        const bool manageClient = !m_request.unmanaged;
        if (what == QLatin1String("start"))
            return forUser(2, [=](uint uid) { return m_service.SessionStarted(uid, manageClient); });
        if (what == QLatin1String("stop"))
            return forUser(2, [=](uint uid) { return m_service.SessionStopped(uid, manageClient); });
        std::fputs("authctl: a session can start or stop. See authctl --help.\n", stderr);
        return WrongUsage;
    }

    int monitor()
    {
        connect(&m_service, &AuthServiceInterface::Authenticated, &m_loop,
                [this](uint uid, const QString &by) { printSuccess(uid, by); });
        connect(&m_service, &AuthServiceInterface::AuthenticationFailed, &m_loop,
                [this](uint uid, const QString &by, int code, const QString &name, int attemptsLeft) {
                    printFailure(uid, by, code, name, attemptsLeft);
                });
        connect(
            &m_service, &AuthServiceInterface::StateChanged, &m_loop,
            [this](uint uid, const QString &state, const QVariantMap &details) { printState(uid, state, details); });
        connect(&m_service, &AuthServiceInterface::MethodOptionChanged, &m_loop,
                [this](const QString &by, const QString &option, const QDBusVariant &value) {
                    printOption(NoUser, by, option, value.variant());
                });
        connect(&m_service, &AuthServiceInterface::UserMethodOptionChanged, &m_loop,
                [this](uint uid, const QString &by, const QString &option, const QDBusVariant &value) {
                    printOption(uid, by, option, value.variant());
                });
        // Also shows that the service is there.
        const QDBusPendingReply<QStringList> names = wait(m_service.GetMethods());
        if (names.isError())
            return fail(names.error());
        handleReports(false);
        return gone();
    }

    const Request m_request;
    QDeadlineTimer m_deadline;
    AuthServiceInterface m_service;
    QEventLoop m_loop;
    bool m_hasGone = false;
    /// Whether the attempt that is reported on is the one that was asked for here.
    bool m_isOurs = false;
    int m_exitCode = Success;
    QStringList m_certs;
};

} // namespace

int main(int argc, char *argv[])
{
    QCoreApplication application(argc, argv);
    QCoreApplication::setApplicationName(QStringLiteral("authctl"));
    QCoreApplication::setApplicationVersion(QStringLiteral(KAVET_VERSION));

    const QCommandLineOption json(QStringLiteral("json"), QStringLiteral("Print one JSON object per line."));
    const QCommandLineOption timeout(QStringLiteral("timeout"),
                                     QStringLiteral("Wait no longer than <seconds> for an answer or an outcome."),
                                     QStringLiteral("seconds"), QString::number(DefaultTimeout));
    const QCommandLineOption method(
        QStringLiteral("method"),
        QStringLiteral("login, options, certs: the method; otherwise the one that the service puts first."),
        QStringLiteral("name"));
    const QCommandLineOption cert(QStringLiteral("cert"), QStringLiteral("login: with this certificate and its PIN."),
                                  QStringLiteral("certificate"));
    const QCommandLineOption user(QStringLiteral("user"), QStringLiteral("options: those of this user."),
                                  QStringLiteral("user"));
    const QCommandLineOption unmanaged(QStringLiteral("unmanaged"),
                                       QStringLiteral("session: leave programs that run for the user alone."));
    const QCommandLineOption help({QStringLiteral("h"), QStringLiteral("help")}, QStringLiteral("Show this help."));
    QCommandLineParser parser;
    parser.setApplicationDescription(QString::fromLatin1(description));
    parser.addPositionalArgument(QStringLiteral("command"), QStringLiteral("See above."),
                                 QStringLiteral("command [argument...]"));
    parser.addOptions({json, timeout, method, cert, user, unmanaged, help});

    const QCommandLineOption version = parser.addVersionOption();

    const bool parsed = parser.parse(QCoreApplication::arguments());
    if (parsed && parser.isSet(help))
        parser.showHelp(Success);
    if (parsed && parser.isSet(version))
        parser.showVersion();

    Request request;
    request.arguments = parser.positionalArguments();
    request.json = parser.isSet(json);
    request.unmanaged = parser.isSet(unmanaged);
    request.method = parser.value(method);
    request.cert = parser.value(cert);
    request.user = parser.value(user);
    bool isNumber = false;
    const uint seconds = parser.value(timeout).toUInt(&isNumber);
    QString error = parser.errorText();
    if (parsed && (!isNumber || seconds == 0 || seconds > std::numeric_limits<int>::max() / 1000))
        error = QStringLiteral("--timeout wants a number of seconds.");
    else if (parsed && request.arguments.isEmpty())
        error = QStringLiteral("No command given.");
    if (!error.isEmpty()) {
        std::fprintf(stderr, "authctl: %s\nSee authctl --help.\n", qUtf8Printable(error));
        return WrongUsage;
    }
    request.timeout = int(seconds) * 1000;
    return Command(request).run();
}
