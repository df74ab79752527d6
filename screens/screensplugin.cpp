// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#include "screens/capslock.h"
#include "settings/settingskavet.h"

#include <QCoreApplication>
#include <QLocale>
#include <QQmlEngine>
#include <QQmlExtensionPlugin>
#include <QTranslator>

namespace {

/// QML creates objects without a parent.
class Settings : public SettingsKavet
{
public:
    Settings()
        : SettingsKavet(nullptr)
    {
    }
};

} // namespace

/// The module "Kavet", which the method's pages import.
class ScreensPlugin : public QQmlExtensionPlugin
{
    Q_OBJECT
    Q_PLUGIN_METADATA(IID QQmlExtensionInterface_iid)

public:
    void registerTypes(const char *uri) override
    {
        qmlRegisterType<CapsLock>(uri, 1, 0, "CapsLock");
        qmlRegisterType<Settings>(uri, 1, 0, "SettingsKavet");
    }

    void initializeEngine(QQmlEngine *engine, const char *) override
    {
        auto *translator = new QTranslator(engine);
        if (translator->load(QLocale(), QStringLiteral("kavet"), QStringLiteral("_"), QStringLiteral(":/i18n")))
            QCoreApplication::installTranslator(translator);
    }
};

#include "screensplugin.moc"
