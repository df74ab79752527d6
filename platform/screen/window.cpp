// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#include "window.h"

#include "authscreen.h"

#include <QGuiApplication>
#include <QQmlContext>
#include <QQuickWindow>

Window::Window(AuthScreen &screen, const QString &pages, bool isDark)
{
    const QLocale locale;
    const auto setDirection = [direction = locale.textDirection()] {
        QGuiApplication::setLayoutDirection(direction);
    };
    setDirection();
    // Qt resets it with each translation that is installed, also by the pages.
    QObject::connect(qGuiApp, &QGuiApplication::layoutDirectionChanged, &m_engine, setDirection);
    if (m_translator.load(locale, QStringLiteral("authscreen"), QStringLiteral("_"), QStringLiteral(":/i18n")))
        QCoreApplication::installTranslator(&m_translator);

    m_engine.addImportPath(pages);
    m_engine.rootContext()->setContextProperty(QStringLiteral("authScreen"), &screen);
    if (isDark)
        m_engine.setInitialProperties({{QStringLiteral("isDark"), true}});
}

bool Window::show(bool isFullScreen)
{
    m_engine.load(QStringLiteral("qrc:/Main.qml"));
    if (!window())
        return false;
    if (isFullScreen)
        window()->showFullScreen();
    else
        window()->show();
    window()->requestActivate(); // Without a window manager, nobody else does it.
    return true;
}

QQuickWindow *Window::window() const
{
    return m_engine.rootObjects().isEmpty() ? nullptr
                                            : qobject_cast<QQuickWindow *>(m_engine.rootObjects().constFirst());
}
