// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#include "settings/settingskavet.h"
#include "settings/userconfigpath.h"
#include "support/fakeservice.h"

#include <authd/authservice.h>
#include <authd/vocabulary.h>

#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusVariant>
#include <QMap>
#include <QMetaEnum>
#include <QMetaMethod>
#include <QMutex>
#include <QProcess>
#include <QSignalSpy>
#include <QTest>

#include <memory>
#include <utility>

namespace AuthService = LibAuthd::AuthService;

namespace {

const QString kavetName = QStringLiteral("kavet");
const QString certsOption = QStringLiteral("certs");
const QString maxAttemptsOption = QStringLiteral("max-attempts");
const QString attemptsOption = QStringLiteral("attempts");

/// One call for an option: user (0 for the whole method), method and option.
struct Question
{
    uint uid;
    QString method;
    QString option;

    bool operator==(const Question &other) const
    {
        return uid == other.uid && method == other.method && option == other.option;
    }
};

/// A fake authentication service that replies from a table and records the questions.
class OptionService
{
public:
    bool isRunning() const { return m_service.isRunning(); }

    /// Starts again with an empty table.
    void clear()
    {
        const QMutexLocker locker(&m_mutex);
        m_values.clear();
        m_questions.clear();
    }

    void setValue(uint uid, const QString &option, const QVariant &value)
    {
        const QMutexLocker locker(&m_mutex);
        m_values[{uid, option}] = value;
    }

    /// The questions since the last call.
    QVector<Question> takeQuestions()
    {
        const QMutexLocker locker(&m_mutex);
        return std::exchange(m_questions, {});
    }

    /// Sends the signal for a changed option.
    void announce(uint uid, const QString &method, const QString &option, const QVariant &value)
    {
        QDBusMessage signal = QDBusMessage::createSignal(AuthService::ObjectPath, AuthService::Interface,
                                                         uid == 0 ? LibAuthd::Vocabulary::MethodOptionChanged
                                                                  : LibAuthd::Vocabulary::UserMethodOptionChanged);
        if (uid != 0)
            signal << uid;
        signal << method << option << QVariant::fromValue(QDBusVariant(value));
        m_service.send(signal);
    }

private:
    void handle(const QDBusMessage &call, const QDBusConnection &bus)
    {
        QVariantList arguments = call.arguments();
        if (call.member() == QLatin1String("GetMethodOption"))
            arguments.prepend(0U);
        else if (call.member() != QLatin1String("GetUserMethodOption")) {
            bus.send(call.createReply());
            return;
        }
        const Question question = {arguments.at(0).toUInt(), arguments.at(1).toString(), arguments.at(2).toString()};
        const QMutexLocker locker(&m_mutex);
        m_questions << question;
        const QVariant value = m_values.value({question.uid, question.option});
        bus.send(value.isValid()
                     ? call.createReply(QVariant::fromValue(QDBusVariant(value)))
                     : call.createErrorReply(QStringLiteral("qarv.AuthService.Error.NoSuchOption"), question.option));
    }

    QMutex m_mutex;
    QMap<QPair<uint, QString>, QVariant> m_values;
    QVector<Question> m_questions;
    const FakeService m_service{AuthService::Service, AuthService::ObjectPath,
                                [this](const QDBusMessage &call, const QDBusConnection &bus) {
                                    handle(call, bus);
                                }};
};

/// Records the signals of a settings object in order.
class Recorder : public QObject
{
    Q_OBJECT

public:
    explicit Recorder(SettingsKavet *settings)
    {
        connect(settings, &SettingsKavet::certListChanged, this,
                [=] { m_names << QStringLiteral("certList:") + settings->certList().join(QLatin1Char(',')); });
        connect(settings, &SettingsKavet::certListIsUpdatingChanged, this, [=] {
            m_names << (settings->certListIsUpdating() ? QStringLiteral("updating") : QStringLiteral("updated"));
        });
        connect(settings, &SettingsKavet::maxAttemptsChanged, this, [=] { m_names << QStringLiteral("maxAttempts"); });
        connect(settings, &SettingsKavet::currentAttemptsChanged, this,
                [=] { m_names << QStringLiteral("currentAttempts"); });
        connect(settings, &SettingsKavet::uidChanged, this,
                [=] { m_names << QStringLiteral("uid:%1").arg(settings->uid()); });
    }

    QStringList take() { return std::exchange(m_names, {}); }
    const QStringList &names() const { return m_names; }

private:
    QStringList m_names;
};

} // namespace

/// The settings object in a program that links the library, as the method's screens use it.
class TstSettingsKavet : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase()
    {
        QCOMPARE(QProcess::execute(QStringLiteral(SYSTEM_BUS), {}), 0);
        m_service = std::make_unique<OptionService>();
        QVERIFY(m_service->isRunning());
        // Run the event loop once: a new connection holds signals back until then, and later ones may overtake them.
        QVERIFY(QDBusConnection::systemBus().isConnected());
        QCoreApplication::processEvents();
    }

    void cleanupTestCase() { m_service.reset(); }

    void init() { m_service->clear(); }

    void metaObjectMethods()
    {
        const QMetaObject &meta = SettingsKavet::staticMetaObject;
        QCOMPARE(meta.className(), "SettingsKavet");
        QCOMPARE(meta.superClass(), &FactorSettingsBase::staticMetaObject);
        QCOMPARE(meta.classInfoCount(), meta.classInfoOffset());
        QCOMPARE(meta.constructorCount(), 0);

        const QVector<QPair<QByteArray, QMetaMethod::MethodType>> expected = {
            {"certListChanged()", QMetaMethod::Signal},    {"certListIsUpdatingChanged()", QMetaMethod::Signal},
            {"maxAttemptsChanged()", QMetaMethod::Signal}, {"currentAttemptsChanged()", QMetaMethod::Signal},
            {"uidChanged()", QMetaMethod::Signal},         {"updateCertList()", QMetaMethod::Method},
        };
        QCOMPARE(meta.methodCount() - meta.methodOffset(), expected.size());
        for (int i = 0; i < expected.size(); ++i) {
            const QMetaMethod method = meta.method(meta.methodOffset() + i);
            QCOMPARE(method.methodSignature(), expected[i].first);
            QCOMPARE(method.methodType(), expected[i].second);
            QCOMPARE(method.access(), QMetaMethod::Public);
            QCOMPARE(method.typeName(), "void");
        }
    }

    void metaObjectProperties_data()
    {
        QTest::addColumn<int>("index");
        QTest::addColumn<QByteArray>("type");
        QTest::addColumn<bool>("writable");
        QTest::addColumn<QByteArray>("notifySignal");

        QTest::newRow("certList") << 0 << QByteArray("QStringList") << false << QByteArray("certListChanged()");
        QTest::newRow("certListIsUpdating")
            << 1 << QByteArray("bool") << false << QByteArray("certListIsUpdatingChanged()");
        QTest::newRow("maxAttempts") << 2 << QByteArray("int") << false << QByteArray("maxAttemptsChanged()");
        QTest::newRow("uid") << 3 << QByteArray("uint") << true << QByteArray("uidChanged()");
        QTest::newRow("currentAttempts") << 4 << QByteArray("int") << false << QByteArray("currentAttemptsChanged()");
    }

    void metaObjectProperties()
    {
        QFETCH(int, index);
        QFETCH(QByteArray, type);
        QFETCH(bool, writable);
        QFETCH(QByteArray, notifySignal);

        const QMetaObject &meta = SettingsKavet::staticMetaObject;
        QCOMPARE(meta.propertyCount() - meta.propertyOffset(), 5);
        const QMetaProperty property = meta.property(meta.propertyOffset() + index);
        QCOMPARE(property.name(), QTest::currentDataTag());
        QCOMPARE(property.typeName(), type.constData());
        QVERIFY(property.isReadable());
        QCOMPARE(property.isWritable(), writable);
        QVERIFY(!property.isResettable());
        QVERIFY(property.isDesignable());
        QVERIFY(property.isScriptable());
        QVERIFY(property.isStored());
        QVERIFY(!property.isUser());
        QVERIFY(!property.isConstant());
        QVERIFY(!property.isFinal());
        QVERIFY(property.hasNotifySignal());
        QCOMPARE(property.notifySignal().methodSignature(), notifySignal);
    }

    void metaObjectEnumerations()
    {
        const QMetaObject &meta = SettingsKavet::staticMetaObject;
        QCOMPARE(meta.enumeratorCount() - meta.enumeratorOffset(), 2);
        verifyEnumeration(meta.enumerator(meta.enumeratorOffset()), "InputRequest",
                          {"EnterPasswordOrPinWithoutConnection", "Connecting", "EnterPasswordOrPin"});
        verifyEnumeration(meta.enumerator(meta.enumeratorOffset() + 1), "ResultCode",
                          {"Success", "BadPassword", "EncryptedPartitionLocked", "CannotStartClient",
                           "CannotConnectClient", "CannotCommunicateClient", "UserLocked", "TooManyAttempts",
                           "TooManyAttemptsWithoutDeleted", "NoUsbDevice", "ConnectionError", "AuthFailed",
                           "BadDefaultCert", "UserCannotUnlock", "ErrAuthType"});
    }

    void construction()
    {
        m_service->setValue(0, certsOption, QStringList(QStringLiteral(".")));
        QObject parent;
        const auto *settings = new SettingsKavet(&parent);
        QCOMPARE(settings->parent(), &parent);
        QCOMPARE(settings->certList(), QStringList());
        QVERIFY(settings->certListIsUpdating());
        QCOMPARE(settings->uid(), 0U);
        QCOMPARE(m_service->takeQuestions(), QVector<Question>({{0, kavetName, certsOption}}));
    }

    void constructionWithCerts()
    {
        const QStringList certs = {QStringLiteral("one"), QStringLiteral("two")};
        m_service->setValue(0, certsOption, certs);
        const SettingsKavet settings(nullptr);
        QCOMPARE(settings.certList(), certs);
        QVERIFY(!settings.certListIsUpdating());
    }

    void constructionWithoutAnswer()
    {
        const SettingsKavet settings(nullptr);
        QCOMPARE(settings.certList(), QStringList());
        QVERIFY(settings.certListIsUpdating());
    }

    void updateCerts_data()
    {
        QTest::addColumn<QVariant>("value");
        QTest::addColumn<QStringList>("signalNames");
        QTest::addColumn<QStringList>("certs");
        QTest::addColumn<bool>("updating");

        // The list was ["old"] before.
        const QStringList old(QStringLiteral("old"));
        const QStringList marker(QStringLiteral("."));
        const QStringList none;
        const QString updated = QStringLiteral("updated");

        QTest::newRow("new list") << QVariant(QStringList({QStringLiteral("a"), QStringLiteral("b")}))
                                  << QStringList({updated, QStringLiteral("certList:a,b")})
                                  << QStringList({QStringLiteral("a"), QStringLiteral("b")}) << false;
        QTest::newRow("same list") << QVariant(old) << QStringList({updated, QStringLiteral("certList:old")}) << old
                                   << false;
        QTest::newRow("empty list") << QVariant(none) << QStringList({updated, QStringLiteral("certList:")}) << none
                                    << false;
        QTest::newRow("other case") << QVariant(QStringList(QStringLiteral("OLD")))
                                    << QStringList({updated, QStringLiteral("certList:OLD")})
                                    << QStringList(QStringLiteral("OLD")) << false;
        QTest::newRow("marker") << QVariant(marker) << none << old << true;
        QTest::newRow("marker and more") << QVariant(marker + old)
                                         << QStringList({updated, QStringLiteral("certList:.,old")}) << marker + old
                                         << false;
        QTest::newRow("more and marker") << QVariant(old + marker)
                                         << QStringList({updated, QStringLiteral("certList:old,.")}) << old + marker
                                         << false;
        QTest::newRow("two markers") << QVariant(marker + marker)
                                     << QStringList({updated, QStringLiteral("certList:.,.")}) << marker + marker
                                     << false;
        QTest::newRow("two dots") << QVariant(QStringList(QStringLiteral("..")))
                                  << QStringList({updated, QStringLiteral("certList:..")})
                                  << QStringList(QStringLiteral("..")) << false;
        QTest::newRow("text") << QVariant(QStringLiteral("a")) << QStringList({updated, QStringLiteral("certList:a")})
                              << QStringList(QStringLiteral("a")) << false;
        QTest::newRow("variants") << QVariant(QVariantList({QStringLiteral("a"), 7}))
                                  << QStringList({updated, QStringLiteral("certList:a,7")})
                                  << QStringList({QStringLiteral("a"), QStringLiteral("7")}) << false;
        QTest::newRow("invalid") << QVariant() << none << old << true;
        QTest::newRow("number") << QVariant(7) << none << old << true;
        QTest::newRow("map") << QVariant(QVariantMap{{certsOption, old}}) << none << old << true;
    }

    void updateCerts()
    {
        QFETCH(QVariant, value);
        QFETCH(QStringList, signalNames);
        QFETCH(QStringList, certs);
        QFETCH(bool, updating);

        m_service->setValue(0, certsOption, QStringList(QStringLiteral("old")));
        SettingsKavet settings(nullptr);
        QCOMPARE(settings.certList(), QStringList(QStringLiteral("old")));

        // First while the list is updating, then while it is not.
        m_service->clear();
        settings.updateCertList();
        QVERIFY(settings.certListIsUpdating());
        Recorder recorder(&settings);
        settings.updateCerts(value);
        QCOMPARE(recorder.take(), signalNames);
        QCOMPARE(settings.certList(), certs);
        QCOMPARE(settings.certListIsUpdating(), updating);

        settings.updateCerts(QStringList(QStringLiteral("old")));
        recorder.take();
        settings.updateCerts(value);
        QCOMPARE(recorder.take(), signalNames);
        QCOMPARE(settings.certList(), certs);
        QVERIFY(!settings.certListIsUpdating());
    }

    void stateChangesBeforeTheList()
    {
        m_service->setValue(0, certsOption, QStringList(QStringLiteral("old")));
        SettingsKavet settings(nullptr);
        QStringList seen;
        connect(&settings, &SettingsKavet::certListIsUpdatingChanged, this, [&] { seen << settings.certList(); });
        settings.updateCerts(QStringList(QStringLiteral("new")));
        QCOMPARE(seen, QStringList(QStringLiteral("old")));
        QCOMPARE(settings.certList(), QStringList(QStringLiteral("new")));
    }

    void updateCertList()
    {
        m_service->setValue(0, certsOption, QStringList(QStringLiteral("a")));
        SettingsKavet settings(nullptr);
        m_service->takeQuestions();
        Recorder recorder(&settings);
        settings.updateCertList();
        QCOMPARE(recorder.take(),
                 QStringList({QStringLiteral("updating"), QStringLiteral("updated"), QStringLiteral("certList:a")}));
        QCOMPARE(m_service->takeQuestions(), QVector<Question>({{0, kavetName, certsOption}}));

        // The signal comes before the question.
        bool asked = true;
        const auto noted = connect(&settings, &SettingsKavet::certListIsUpdatingChanged, this, [&] {
            if (settings.certListIsUpdating())
                asked = !m_service->takeQuestions().isEmpty();
        });
        settings.updateCertList();
        QVERIFY(!asked);
        QVERIFY(disconnect(noted));
        recorder.take();

        m_service->setValue(0, certsOption, QStringList(QStringLiteral(".")));
        for (int i = 0; i < 2; ++i) {
            // The signal is sent even if nothing changes. Call by name, as a screen does.
            QVERIFY(QMetaObject::invokeMethod(&settings, "updateCertList", Qt::DirectConnection));
            QCOMPARE(recorder.take(), QStringList(QStringLiteral("updating")));
            QVERIFY(settings.certListIsUpdating());
            QCOMPARE(settings.certList(), QStringList(QStringLiteral("a")));
        }

        // The list is method-wide and does not depend on the user.
        settings.setUid(1000);
        m_service->takeQuestions();
        settings.updateCertList();
        QCOMPARE(m_service->takeQuestions(), QVector<Question>({{0, kavetName, certsOption}}));
    }

    void maxAttempts_data()
    {
        QTest::addColumn<QVariant>("stored");
        QTest::addColumn<int>("limit");

        QTest::newRow("number") << QVariant(5) << 5;
        QTest::newRow("negative") << QVariant(-5) << -5;
        QTest::newRow("numeric text") << QVariant(QStringLiteral("7")) << 7;
        QTest::newRow("text") << QVariant(QStringLiteral("many")) << 0;
        QTest::newRow("list") << QVariant(QStringList(QStringLiteral("7"))) << 0;
        QTest::newRow("absent") << QVariant() << 0;
    }

    void maxAttempts()
    {
        QFETCH(QVariant, stored);
        QFETCH(int, limit);

        SettingsKavet settings(nullptr);
        m_service->setValue(0, maxAttemptsOption, stored);
        m_service->setValue(1000, maxAttemptsOption, 99);
        for (uint uid : {0U, 1000U}) {
            settings.setUid(uid);
            m_service->takeQuestions();
            QCOMPARE(settings.maxAttempts(), limit);
            QCOMPARE(settings.property("maxAttempts"), QVariant(limit));
            QCOMPARE(m_service->takeQuestions(),
                     QVector<Question>({{0, kavetName, maxAttemptsOption}, {0, kavetName, maxAttemptsOption}}));
        }
    }

    void currentAttempts()
    {
        SettingsKavet settings(nullptr);
        m_service->setValue(0, attemptsOption, 1);
        m_service->setValue(1000, attemptsOption, 2);
        m_service->setValue(1001, attemptsOption, QStringLiteral("many"));
        const QVector<QPair<uint, int>> expected = {{0, 1}, {1000, 2}, {1001, 0}, {4294967295, 0}, {1000, 2}};
        for (const auto &pair : expected) {
            settings.setUid(pair.first);
            m_service->takeQuestions();
            QCOMPARE(settings.currentAttempts(), pair.second);
            QCOMPARE(m_service->takeQuestions(), QVector<Question>({{pair.first, kavetName, attemptsOption}}));
        }
        QCOMPARE(settings.property("currentAttempts"), QVariant(2));
    }

    void setUid()
    {
        SettingsKavet settings(nullptr);
        Recorder recorder(&settings);
        settings.setUid(0);
        QCOMPARE(recorder.take(), QStringList());
        settings.setUid(1000);
        QCOMPARE(recorder.take(), QStringList({QStringLiteral("uid:1000"), QStringLiteral("currentAttempts")}));
        QCOMPARE(settings.uid(), 1000U);
        settings.setUid(1000);
        QCOMPARE(recorder.take(), QStringList());
        QVERIFY(settings.setProperty("uid", 4294967295U));
        QCOMPARE(recorder.take(), QStringList({QStringLiteral("uid:4294967295"), QStringLiteral("currentAttempts")}));
        QCOMPARE(settings.property("uid"), QVariant(4294967295U));
        settings.setUid(0);
        QCOMPARE(recorder.take(), QStringList({QStringLiteral("uid:0"), QStringLiteral("currentAttempts")}));
    }

    void handleOptionChanged_data()
    {
        QTest::addColumn<uint>("uid");
        QTest::addColumn<QString>("option");
        QTest::addColumn<QVariant>("value");
        QTest::addColumn<QStringList>("signalNames");

        // The user 1000 is set.
        const QVariant certs = QStringList(QStringLiteral("a"));
        const QStringList certSignals = {QStringLiteral("updated"), QStringLiteral("certList:a")};
        const QStringList none;

        QTest::newRow("certs") << 0U << certsOption << certs << certSignals;
        QTest::newRow("certs of the user") << 1000U << certsOption << certs << certSignals;
        QTest::newRow("certs of another") << 1001U << certsOption << certs << certSignals;
        QTest::newRow("certs being fetched") << 0U << certsOption << QVariant(QStringList(QStringLiteral("."))) << none;
        QTest::newRow("limit") << 0U << maxAttemptsOption << QVariant(5) << QStringList(QStringLiteral("maxAttempts"));
        QTest::newRow("limit of the user")
            << 1000U << maxAttemptsOption << QVariant(5) << QStringList(QStringLiteral("maxAttempts"));
        QTest::newRow("limit of another")
            << 1001U << maxAttemptsOption << QVariant() << QStringList(QStringLiteral("maxAttempts"));
        QTest::newRow("attempts") << 1000U << attemptsOption << QVariant(2)
                                  << QStringList(QStringLiteral("currentAttempts"));
        QTest::newRow("attempts of another") << 1001U << attemptsOption << QVariant(2) << none;
        QTest::newRow("attempts of the method") << 0U << attemptsOption << QVariant(2) << none;
        QTest::newRow("other option") << 1000U << QStringLiteral("delayed-deletion") << QVariant(true) << none;
        QTest::newRow("other case") << 1000U << QStringLiteral("Attempts") << QVariant(2) << none;
        QTest::newRow("no option") << 1000U << QString() << certs << none;
    }

    void handleOptionChanged()
    {
        QFETCH(uint, uid);
        QFETCH(QString, option);
        QFETCH(QVariant, value);
        QFETCH(QStringList, signalNames);

        SettingsKavet settings(nullptr);
        settings.setUid(1000);
        m_service->takeQuestions();
        Recorder recorder(&settings);
        settings.handleOptionChanged(uid, option, value);
        QCOMPARE(recorder.take(), signalNames);
        QCOMPARE(m_service->takeQuestions(), QVector<Question>());
    }

    void changesReachTheObject()
    {
        SettingsKavet settings(nullptr);
        settings.setUid(1000);
        Recorder recorder(&settings);
        m_service->announce(0, QStringLiteral("other"), maxAttemptsOption, 5);
        m_service->announce(1001, kavetName, attemptsOption, 1);
        m_service->announce(0, kavetName, certsOption, QStringList(QStringLiteral("a")));
        m_service->announce(0, kavetName, maxAttemptsOption, 5);
        m_service->announce(1000, kavetName, attemptsOption, 1);
        QTRY_COMPARE(recorder.names(), QStringList({QStringLiteral("updated"), QStringLiteral("certList:a"),
                                                    QStringLiteral("maxAttempts"), QStringLiteral("currentAttempts")}));
    }

    void certListGoesFromUpdatingToCurrent()
    {
        m_service->setValue(0, certsOption, QStringList(QStringLiteral(".")));
        SettingsKavet settings(nullptr);
        QVERIFY(settings.certListIsUpdating());
        QSignalSpy changed(&settings, &SettingsKavet::certListChanged);
        m_service->announce(0, kavetName, certsOption, QStringList({QStringLiteral("a"), QStringLiteral("b")}));
        QVERIFY(changed.wait());
        QVERIFY(!settings.certListIsUpdating());
        QCOMPARE(settings.certList(), QStringList({QStringLiteral("a"), QStringLiteral("b")}));
    }

    void castByName()
    {
        SettingsKavet settings(nullptr);
        QCOMPARE(settings.metaObject(), &SettingsKavet::staticMetaObject);
        QObject *const object = &settings;
        QCOMPARE(qobject_cast<SettingsKavet *>(object), &settings);
        QCOMPARE(qobject_cast<FactorSettingsBase *>(object), static_cast<FactorSettingsBase *>(&settings));
        QCOMPARE(object->qt_metacast("SettingsKavet"), static_cast<void *>(&settings));
    }

    void userConfigFilePath_data()
    {
        QTest::addColumn<uint>("uid");
        QTest::addColumn<QString>("path");

        QTest::newRow("none") << 0U << QStringLiteral("/var/lib/authd/users/0.conf");
        QTest::newRow("user") << 1000U << QStringLiteral("/var/lib/authd/users/1000.conf");
        QTest::newRow("largest") << 4294967295U << QStringLiteral("/var/lib/authd/users/4294967295.conf");
    }

    void userConfigFilePath()
    {
        QFETCH(uint, uid);
        QFETCH(QString, path);

        QCOMPARE(Authd::getUserConfigFilePath(uid), path);
    }

private:
    std::unique_ptr<OptionService> m_service;

    static void verifyEnumeration(const QMetaEnum &enumeration, const char *name, const QVector<const char *> &keys)
    {
        QCOMPARE(enumeration.name(), name);
        QCOMPARE(enumeration.scope(), "SettingsKavet");
        QVERIFY(!enumeration.isFlag());
        QVERIFY(!enumeration.isScoped());
        QCOMPARE(enumeration.keyCount(), keys.size());
        for (int i = 0; i < keys.size(); ++i) {
            QCOMPARE(enumeration.key(i), keys[i]);
            QCOMPARE(enumeration.value(i), i);
        }
    }
};

QTEST_GUILESS_MAIN(TstSettingsKavet)
#include "tst_settingskavet.moc"
