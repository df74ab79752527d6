// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#include <authd/authservice.h>
#include <authd/factorsettingsbase.h>
#include <authd/vocabulary.h>

#include "platformlog.h"

#include <QDBusArgument>
#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusServiceWatcher>
#include <QDBusVariant>

namespace AuthService = LibAuthd::AuthService;
namespace Vocabulary = LibAuthd::Vocabulary;

namespace {

/// How long getOption() waits for the daemon's reply, in milliseconds.
constexpr int ReplyTimeout = 5000;

// Qt delivers the signals of its shared connection late, only once the event loop runs, so later ones may overtake them
// and an old value would arrive last. A private connection keeps them in order.
const QString connectionName = QStringLiteral("authd settings");

/// Returns the plain value in a D-Bus variant, or an invalid variant for compound types, which no option has.
QVariant unwrapped(const QDBusVariant &value)
{
    QVariant inner = value.variant();
    if (inner.canConvert<QDBusVariant>())
        return unwrapped(inner.value<QDBusVariant>());
    if (inner.canConvert<QDBusArgument>())
        return QVariant();
    return inner;
}

} // namespace

class FactorSettingsBase::Private : public QObject
{
    Q_OBJECT

public:
    Private(FactorSettingsBase *settings, const QString &name)
        : method(name)
        , bus(QDBusConnection::connectToBus(QDBusConnection::SystemBus, connectionName))
        , q(settings)
    {
        bus.connect(AuthService::Service, AuthService::ObjectPath, AuthService::Interface,
                    Vocabulary::MethodOptionChanged, this,
                    SLOT(handleMethodOptionChanged(QString, QString, QDBusVariant)));
        bus.connect(AuthService::Service, AuthService::ObjectPath, AuthService::Interface,
                    Vocabulary::UserMethodOptionChanged, this,
                    SLOT(handleUserMethodOptionChanged(uint, QString, QString, QDBusVariant)));
        // A restarted daemon has no subscribers, so subscribe again.
        m_daemon.setConnection(bus);
        m_daemon.setWatchMode(QDBusServiceWatcher::WatchForRegistration);
        m_daemon.addWatchedService(AuthService::Service);
        connect(&m_daemon, &QDBusServiceWatcher::serviceRegistered, this, &Private::subscribe);
        subscribe();
    }

    const QString method;
    QDBusConnection bus;

private Q_SLOTS:
    void handleMethodOptionChanged(const QString &name, const QString &option, const QDBusVariant &value)
    {
        handleUserMethodOptionChanged(0, name, option, value);
    }

    void handleUserMethodOptionChanged(uint uid, const QString &name, const QString &option, const QDBusVariant &value)
    {
        if (name == method)
            q->handleOptionChanged(uid, option, unwrapped(value));
    }

private:
    /// Subscribes this connection to changes. Does not start a daemon that is not running.
    void subscribe()
    {
        QDBusMessage call = QDBusMessage::createMethodCall(AuthService::Service, AuthService::ObjectPath,
                                                           AuthService::Interface, Vocabulary::Subscribe);
        call.setAutoStartService(false);
        bus.send(call);
    }

    FactorSettingsBase *const q;
    QDBusServiceWatcher m_daemon;
};

FactorSettingsBase::FactorSettingsBase(QObject *parent, const QString &name)
    : QObject(parent)
    , d(new Private(this, name))
{
}

FactorSettingsBase::~FactorSettingsBase() = default;

QVariant FactorSettingsBase::getOption(uint uid, const QString &option) const
{
    QDBusMessage call =
        QDBusMessage::createMethodCall(AuthService::Service, AuthService::ObjectPath, AuthService::Interface,
                                       uid == 0 ? Vocabulary::GetMethodOption : Vocabulary::GetUserMethodOption);
    call.setAutoStartService(false);
    if (uid != 0)
        call << uid;
    call << d->method << option;

    const QDBusMessage reply = d->bus.call(call, QDBus::Block, ReplyTimeout);
    if (reply.type() != QDBusMessage::ReplyMessage) {
        qCWarning(authdPlatform) << "getOption" << d->method << uid << option << reply.errorName();
        return QVariant();
    }
    if (reply.signature() != QLatin1String("v")) {
        qCWarning(authdPlatform) << "getOption" << d->method << uid << option << "Unexpected reply"
                                 << reply.signature();
        return QVariant();
    }
    return unwrapped(reply.arguments().constFirst().value<QDBusVariant>());
}

void FactorSettingsBase::handleOptionChanged(uint, const QString &, const QVariant &) { }

#include "factorsettingsbase.moc"
