// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#include "screens/capslock.h"
#include "screens/screensettings.h"
#include "settings/settingskavet.h"

#include <QCoreApplication>
#include <QLocale>
#include <QQmlEngine>
#include <QQmlExtensionPlugin>
#include <QTranslator>

/// The module "Kavet", which the method's pages import.
class ScreensPlugin : public QQmlExtensionPlugin
{
    Q_OBJECT
    Q_PLUGIN_METADATA(IID QQmlExtensionInterface_iid)

public:
    void registerTypes(const char *uri) override
    {
        qmlRegisterType<CapsLock>(uri, 1, 0, "CapsLock");
        qmlRegisterType<ScreenSettings>(uri, 1, 0, "ScreenSettings");
        qmlRegisterUncreatableType<SettingsKavet>(uri, 1, 0, "SettingsKavet", QStringLiteral("Use ScreenSettings"));
    }

    void initializeEngine(QQmlEngine *engine, const char *) override
    {
        auto *translator = new QTranslator(engine);
        // The texts in the code are English, but have no plural forms.
        for (const QLocale &locale : {QLocale(), QLocale(QLocale::English)}) {
            if (translator->load(locale, QStringLiteral("kavet"), QStringLiteral("_"), QStringLiteral(":/i18n"))) {
                QCoreApplication::installTranslator(translator);
                return;
            }
        }
    }
};

#include "screensplugin.moc"
