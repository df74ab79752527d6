// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#include "plugin/logging.h"
#include "support/logcapture.h"
#include "support/testdevice.h"

#include <authd/authplugininterface.h>

#include <QFileInfo>
#include <QJsonObject>
#include <QLibrary>
#include <QPluginLoader>
#include <QPointer>
#include <QProcess>
#include <QRegularExpression>
#include <QTest>

/// The plugin library as a loader sees it.
class TstPluginEntry : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init() { TestDevice::reset(); }

    void metadataWithoutInstance()
    {
        const QPluginLoader loader(libraryPath);
        const QJsonObject metadata = loader.metaData();
        QCOMPARE(metadata.value(QLatin1String("IID")).toString(), QStringLiteral("qarv.auth.kavet"));
        QCOMPARE(metadata.value(QLatin1String("className")).toString(), QStringLiteral("MethodKavet"));
        // Newer versions omit the patch level.
        QCOMPARE(metadata.value(QLatin1String("version")).toInt() >> 8, QT_VERSION >> 8);
        QCOMPARE(metadata.value(QLatin1String("debug")), QJsonValue(bool(DEBUG_BUILD)));
        const QJsonObject expected = {{QStringLiteral("Name"), QStringLiteral("kavet")},
                                      {QStringLiteral("Descr"), QStringLiteral("Kavet authentication method")},
                                      {QStringLiteral("Version"), QStringLiteral("0.0.1")},
                                      {QStringLiteral("Priority"), 50}};
        QCOMPARE(metadata.value(QLatin1String("MetaData")).toObject(), expected);
        QVERIFY(!loader.isLoaded());
        QVERIFY(!QFileInfo::exists(TestDevice::clientDirectory));
    }

    void exportedSymbols()
    {
        QProcess nm;
        nm.start(QStringLiteral("nm"), {QStringLiteral("--dynamic"), QStringLiteral("--defined-only"),
                                        QStringLiteral("--demangle"), QStringLiteral("--format=posix"), libraryPath});
        QVERIFY2(nm.waitForFinished(), qPrintable(nm.errorString()));
        QCOMPARE(nm.exitCode(), 0);

        QStringList classes;
        QStringList others;
        const QStringList lines = QString::fromUtf8(nm.readAllStandardOutput()).split(QLatin1Char('\n'));
        for (const QString &line : lines) {
            const int end = line.indexOf(QRegularExpression(QStringLiteral(" [A-Za-z] [0-9a-f]")));
            const QString symbol = line.left(end);
            const bool ours = symbol.contains(QStringLiteral("SettingsKavet"));
            // Ignore symbols that the compiler adds and, without optimisation, inline functions and types from other
            // headers.
            static const QRegularExpression instrumentation(
                QStringLiteral("^(__asan|__odr_asan|__ubsan|__gcov|__llvm|mangle_path$)"));
            static const QStringList weak{QStringLiteral(" W "), QStringLiteral(" V ")};
            if (line.isEmpty() || symbol.contains(instrumentation) || (!ours && weak.contains(line.mid(end, 3))))
                continue;
            (ours ? classes : others) << symbol;
        }
        others.sort();
        QCOMPARE(others,
                 QStringList({QStringLiteral("Authd::getUserConfigFilePath(unsigned int)"),
                              QStringLiteral("qt_plugin_instance"), QStringLiteral("qt_plugin_query_metadata")}));
        for (const QString &symbol : qAsConst(classes)) {
            QVERIFY2(symbol.startsWith(QLatin1String("SettingsKavet::"))
                         || symbol == QLatin1String("vtable for SettingsKavet")
                         || symbol == QLatin1String("typeinfo for SettingsKavet")
                         || symbol == QLatin1String("typeinfo name for SettingsKavet"),
                     qPrintable(symbol));
        }
        for (const char *symbol : {"SettingsKavet::SettingsKavet(QObject*)", "SettingsKavet::~SettingsKavet()",
                                   "SettingsKavet::staticMetaObject", "SettingsKavet::certList() const",
                                   "SettingsKavet::certListIsUpdating() const", "SettingsKavet::maxAttempts() const",
                                   "SettingsKavet::uid() const", "SettingsKavet::setUid(unsigned int)",
                                   "SettingsKavet::currentAttempts() const", "SettingsKavet::updateCertList()",
                                   "SettingsKavet::updateCerts(QVariant const&)", "SettingsKavet::certListChanged()",
                                   "SettingsKavet::certListIsUpdatingChanged()", "SettingsKavet::maxAttemptsChanged()",
                                   "SettingsKavet::currentAttemptsChanged()", "SettingsKavet::uidChanged()"})
            QVERIFY2(classes.contains(QLatin1String(symbol)), symbol);
    }

    void oneInstance()
    {
        QPluginLoader loader(libraryPath);
        QObject *const instance = loader.instance();
        QVERIFY2(instance, qPrintable(loader.errorString()));
        QCOMPARE(instance->parent(), nullptr);
        QCOMPARE(loader.instance(), instance);
        QCOMPARE(QPluginLoader(libraryPath).instance(), instance);

        using Accessor = QObject *(*)();
        const auto accessor = reinterpret_cast<Accessor>(QLibrary::resolve(libraryPath, "qt_plugin_instance"));
        QVERIFY(accessor);
        QCOMPARE(accessor(), instance);
        QCOMPARE(accessor(), instance);
    }

    void newInstanceAfterDeletion()
    {
        QPluginLoader loader(libraryPath);
        const QPointer<QObject> first = loader.instance();
        QVERIFY(first);
        first->setObjectName(QStringLiteral("first"));
        delete first;
        QVERIFY(first.isNull());

        // The second object may have the address of the first.
        QObject *const second = loader.instance();
        QVERIFY(second);
        QCOMPARE(second->objectName(), QString());
        QCOMPARE(loader.instance(), second);
        QCOMPARE(qobject_cast<AuthPluginInterface *>(second)->name(), QStringLiteral("kavet"));
    }

    void castByName()
    {
        QPluginLoader loader(libraryPath);
        QObject *const instance = loader.instance();
        QVERIFY(instance);
        auto *const interface = qobject_cast<AuthPluginInterface *>(instance);
        QVERIFY(interface);

        QCOMPARE(qobject_interface_iid<AuthPluginInterface *>(), "qarv.authplugin");
        QCOMPARE(instance->qt_metacast(nullptr), nullptr);
        QCOMPARE(instance->qt_metacast("MethodKavet"), static_cast<void *>(instance));
        QCOMPARE(instance->qt_metacast("qarv.authplugin"), static_cast<void *>(interface));
        QCOMPARE(instance->qt_metacast("AuthPluginInterface"), static_cast<void *>(interface));
        QCOMPARE(instance->qt_metacast("LibAuthd::BaseHandler"),
                 static_cast<void *>(static_cast<LibAuthd::BaseHandler *>(interface)));
        QCOMPARE(instance->qt_metacast("QObject"), static_cast<void *>(instance));
        QCOMPARE(instance->qt_metacast("qarv.auth.kavet"), nullptr);
        QCOMPARE(instance->qt_metacast("MethodKavetPrivate"), nullptr);
        QCOMPARE(instance->qt_metacast(""), nullptr);
    }

    void emptyMetaObject()
    {
        QPluginLoader loader(libraryPath);
        QObject *const instance = loader.instance();
        QVERIFY(instance);
        const QMetaObject *const meta = instance->metaObject();
        QCOMPARE(meta->className(), "MethodKavet");
        QCOMPARE(meta->superClass(), &AuthPluginInterface::staticMetaObject);
        QCOMPARE(meta->methodCount(), meta->methodOffset());
        QCOMPARE(meta->propertyCount(), meta->propertyOffset());
        QCOMPARE(meta->enumeratorCount(), meta->enumeratorOffset());
        QCOMPARE(meta->classInfoCount(), meta->classInfoOffset());
        QCOMPARE(meta->constructorCount(), 0);

        // qt_metacall() handles exactly the methods that the meta-object lists.
        void *arguments[] = {nullptr};
        const int beyond = meta->methodCount() + 3;
        QCOMPARE(instance->qt_metacall(QMetaObject::InvokeMetaMethod, beyond, arguments), 3);
        const QPointer<QObject> guard(instance);
        QVERIFY(QMetaObject::invokeMethod(instance, "deleteLater", Qt::DirectConnection));
        QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
        QVERIFY(guard.isNull());
    }

    void loggingCategory()
    {
        QCOMPARE(kavet().categoryName(), "authd.method.kavet");
        QVERIFY(kavet().isCriticalEnabled());
        QVERIFY(kavet().isWarningEnabled());
        QVERIFY(!kavet().isInfoEnabled());
        QVERIFY(!kavet().isDebugEnabled());
        QCOMPARE(&kavet(), &kavet());

        // The library has the same.
        QPluginLoader loader(libraryPath);
        auto *const method = qobject_cast<AuthPluginInterface *>(loader.instance());
        QVERIFY(method);
        const LogCapture log;
        method->handleUserSessionTriggered(TestDevice::carol, true, true);
        QCOMPARE(log.lines(), QVector<LogCapture::Line>({{QtWarningMsg, QStringLiteral("authd.method.kavet"),
                                                          QStringLiteral("Delaying child launch for 1002")}}));
    }

private:
    const QString libraryPath = QStringLiteral(TEST_BINARY_DIR "/lib/authd/methods/libkavet.so");
};

QTEST_GUILESS_MAIN(TstPluginEntry)
#include "tst_pluginentry.moc"
