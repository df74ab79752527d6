// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#include <QCoreApplication>
#include <QDBusConnection>
#include <QDBusError>
#include <QDBusMessage>
#include <QDBusVirtualObject>
#include <QFile>
#include <QFileInfo>
#include <QFileSystemWatcher>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QMap>

#include <cstdio>

#include <unistd.h>

// Replaces the user-data wiper: owns its name on the system bus, records every call to any of its objects, and sends
// the reply that the script gives for the call's first argument. The script is a JSON object, read at each call:
//   "success"   a reply without values
//   "values"    a reply with values
//   "error"     an error reply
//   "late"      success, once the file /tmp/fake-wiper/answer-NAME exists
//   "lateError" an error reply, once that file exists
//   "never"     no reply
//   "vanish"    exits without a reply
namespace {

const QString stateDirectory = QStringLiteral("/tmp/fake-wiper/");

class Wiper : public QDBusVirtualObject
{
public:
    Wiper()
        : m_watcher({stateDirectory})
    {
        connect(&m_watcher, &QFileSystemWatcher::directoryChanged, this, &Wiper::answerLate);
    }

    QString introspect(const QString &) const override { return QString(); }

    bool handleMessage(const QDBusMessage &message, const QDBusConnection &connection) override
    {
        const QString name = message.arguments().value(0).toString();
        record(message);

        QFile script(stateDirectory + QStringLiteral("script.json"));
        if (!script.open(QIODevice::ReadOnly))
            qFatal("No script");
        const QString word = QJsonDocument::fromJson(script.readAll()).object().value(name).toString();
        const QDBusMessage error = message.createErrorReply(QStringLiteral("qarv.userdata.wiper.Error"),
                                                            QStringLiteral("Cannot wipe ") + name);
        if (word == QLatin1String("success"))
            return connection.send(message.createReply());
        if (word == QLatin1String("values"))
            return connection.send(message.createReply({QStringLiteral("removed"), 7}));
        if (word == QLatin1String("error"))
            return connection.send(error);
        if (word == QLatin1String("late"))
            m_late.insert(name, message.createReply());
        else if (word == QLatin1String("lateError"))
            m_late.insert(name, error);
        else if (word == QLatin1String("vanish"))
            _exit(0);
        else if (word != QLatin1String("never"))
            qFatal("No word for \"%s\"", qPrintable(name));
        answerLate();
        return true;
    }

private:
    void answerLate()
    {
        for (auto late = m_late.begin(); late != m_late.end();) {
            if (QFileInfo::exists(stateDirectory + QStringLiteral("answer-") + late.key())) {
                QDBusConnection::systemBus().send(late.value());
                late = m_late.erase(late);
            } else {
                ++late;
            }
        }
    }

    static void record(const QDBusMessage &message)
    {
        const QJsonObject call{{QStringLiteral("path"), message.path()},
                               {QStringLiteral("interface"), message.interface()},
                               {QStringLiteral("member"), message.member()},
                               {QStringLiteral("signature"), message.signature()},
                               {QStringLiteral("arguments"), QJsonArray::fromVariantList(message.arguments())},
                               {QStringLiteral("interactive"), message.isInteractiveAuthorizationAllowed()}};
        QFile journal(stateDirectory + QStringLiteral("calls"));
        if (!journal.open(QIODevice::WriteOnly | QIODevice::Append)
            || journal.write(QJsonDocument(call).toJson(QJsonDocument::Compact) + '\n') == -1)
            qFatal("Cannot record");
    }

    QFileSystemWatcher m_watcher;
    QMap<QString, QDBusMessage> m_late;
};

} // namespace

int main(int argc, char *argv[])
{
    QCoreApplication application(argc, argv);
    Wiper wiper;
    QDBusConnection bus = QDBusConnection::systemBus();
    if (!bus.registerVirtualObject(QStringLiteral("/"), &wiper, QDBusConnection::SubPath)
        || !bus.registerService(QStringLiteral("qarv.userdata.wiper")))
        qFatal("Cannot serve: %s", qPrintable(bus.lastError().message()));
    // Until the event loop runs, the library holds calls back, and later ones may overtake them.
    QMetaObject::invokeMethod(
        &application,
        [] {
            std::puts("ready");
            std::fflush(stdout);
        },
        Qt::QueuedConnection);
    return QCoreApplication::exec();
}
