// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#include "authscreen.h"

#include <authd/authservice.h>
#include <authd/vocabulary.h>

#include <QDBusConnectionInterface>
#include <QFileInfo>
#include <QRegularExpression>
#include <QUrl>

#include <limits>

#include <pwd.h>

namespace AuthService = LibAuthd::AuthService;
namespace Vocabulary = LibAuthd::Vocabulary;

namespace {

// Signals of Qt's shared connection may overtake each other. A private connection keeps them in order.
const QString connectionName = QStringLiteral("authscreen");

/// The accounts with the user id `uid`; all for 0.
QList<AuthScreen::Account> accounts(uint uid)
{
    // Control characters and bidirectional formatting could make one name look like another.
    const QRegularExpression unsafe(
        QStringLiteral(R"([\x00-\x1f\x7f-\x9f\x{61c}\x{200e}\x{200f}\x{2028}-\x{202e}\x{2066}-\x{2069}])"));
    QList<AuthScreen::Account> accounts;
    setpwent();
    while (const passwd *entry = getpwent()) {
        if (uid != 0 && entry->pw_uid != uid)
            continue;
        // The full name is the first field of the comment; without one, it is the login name.
        const QString login = QString::fromLocal8Bit(entry->pw_name);
        const QString name = QString::fromLocal8Bit(entry->pw_gecos)
                                 .section(QLatin1Char(','), 0, 0)
                                 .trimmed()
                                 .replace(unsafe, QString(QChar::ReplacementCharacter));
        accounts << AuthScreen::Account{entry->pw_uid, login, name.isEmpty() ? login : name};
    }
    endpwent();
    return accounts;
}

} // namespace

AuthScreen::AuthScreen(const QString &pages, uint lockedUid)
    : m_pages(pages)
    , m_lockedUid(lockedUid)
    , m_service(AuthService::Service, AuthService::ObjectPath,
                QDBusConnection::connectToBus(QDBusConnection::SystemBus, connectionName))
    , m_watcher(AuthService::Service, m_service.connection(), QDBusServiceWatcher::WatchForOwnerChange)
{
    // A reply that is late is still the reply.
    m_service.setTimeout(std::numeric_limits<int>::max());
    connect(&m_watcher, &QDBusServiceWatcher::serviceOwnerChanged, this,
            [this](const QString &, const QString &, const QString &owner) {
                setServicePresent(false);
                setServicePresent(!owner.isEmpty());
            });
    if (isConnected())
        setServicePresent(m_service.connection().interface()->isServiceRegistered(AuthService::Service));
}

AuthScreen::~AuthScreen()
{
    delete m_attempt;
    QDBusConnection::disconnectFromBus(connectionName);
}

void AuthScreen::begin(uint uid, const QString &user, const QString &method)
{
    auto *attempt = new LoginAttempt(m_service, uid, user, method, this);
    connect(attempt, &LoginAttempt::outcomeChanged, this, [this, attempt] {
        if (attempt->outcome().contains(QStringLiteral("succeeded")))
            Q_EMIT authenticated(attempt->uid(), attempt->method());
    });
    replaceAttempt(attempt);
}

void AuthScreen::end()
{
    replaceAttempt(nullptr);
}

void AuthScreen::replaceAttempt(LoginAttempt *attempt)
{
    LoginAttempt *const former = m_attempt;
    m_attempt = attempt;
    Q_EMIT attemptChanged();
    if (former) // Its pages, which have just been scheduled for deletion, go first.
        former->deleteLater();
}

void AuthScreen::setServicePresent(bool isPresent)
{
    if (m_isServicePresent == isPresent)
        return;
    m_isServicePresent = isPresent;
    m_isReady = false;
    m_methods.clear();
    m_users.clear();
    m_fetch.reset(new QObject);
    m_isProbing = false;
    setAnswering(true);
    end();
    Q_EMIT changed();
    if (!isPresent)
        return;
    m_service.Subscribe();
    whenReplied(m_service.GetMethods(),
                [this](const auto &reply) { addMethods(reply.isValid() ? reply.value() : QStringList()); });
}

void AuthScreen::setAnswering(bool isAnswering)
{
    if (m_isAnswering == isAnswering)
        return;
    m_isAnswering = isAnswering;
    Q_EMIT isAnsweringChanged();
}

template <typename Reply, typename Handler>
void AuthScreen::whenReplied(const Reply &call, Handler handle)
{
    auto *watcher = new QDBusPendingCallWatcher(call, m_fetch.data());
    connect(watcher, &QDBusPendingCallWatcher::finished, this, [watcher, handle] {
        watcher->deleteLater();
        handle(Reply(*watcher));
    });
}

void AuthScreen::probe()
{
    setAnswering(!m_isProbing);
    if (m_isProbing)
        return;
    m_isProbing = true;
    whenReplied(m_service.GetMethods(), [this](const auto &) {
        m_isProbing = false;
        setAnswering(true);
    });
}

// One call at a time, as the service limits those that wait.
void AuthScreen::addMethods(QStringList names)
{
    if (names.isEmpty()) {
        addUsers(accounts(m_lockedUid));
        return;
    }
    const QString name = names.takeFirst();
    whenReplied(m_service.GetMethodInfo(name), [this, name, names](const auto &reply) {
        const QVariantMap info = reply.isValid() ? reply.value() : QVariantMap();
        const QString authPage = page(info.value(Vocabulary::AuthPage));
        if (!authPage.isEmpty() && info.value(QStringLiteral("available")).toBool()) {
            m_methods << QVariantMap{{QStringLiteral("name"), name},
                                     {QStringLiteral("description"), info.value(QStringLiteral("description"))},
                                     {QStringLiteral("authPage"), authPage},
                                     {QStringLiteral("prePage"), page(info.value(Vocabulary::PrePage))},
                                     {QStringLiteral("infoPage"), page(info.value(Vocabulary::InfoPage))}};
        }
        addMethods(names);
    });
}

void AuthScreen::addUsers(QList<Account> accounts)
{
    if (accounts.isEmpty()) {
        m_isReady = true;
        Q_EMIT changed();
        return;
    }
    const Account account = accounts.takeFirst();
    whenReplied(m_service.GetState(account.uid), [this, account, accounts](const auto &reply) {
        if (reply.isValid()) { // The service decides which accounts are users.
            m_users << QVariantMap{{QStringLiteral("uid"), account.uid},
                                   {QStringLiteral("login"), account.login},
                                   {QStringLiteral("name"), account.name}};
        }
        addUsers(accounts);
    });
}

QString AuthScreen::page(const QVariant &name) const
{
    const QString fileName = name.toString() + QStringLiteral(".qml");
    const QFileInfo file(m_pages, fileName);
    return file.fileName() == fileName && file.isFile() ? QUrl::fromLocalFile(file.absoluteFilePath()).toString()
                                                        : QString();
}
