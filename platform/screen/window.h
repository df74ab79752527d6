// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <QQmlApplicationEngine>
#include <QTranslator>

class AuthScreen;
class QQuickWindow;

/// The window that shows the service and the methods' pages.
class Window
{
public:
    /// Takes language and direction of the text from the default locale. `pages` is also the directory of the modules
    /// that the pages import.
    Window(AuthScreen &screen, const QString &pages, bool isDark);

    /// Returns false, after the engine's warning, if the window cannot be loaded.
    bool show(bool isFullScreen);
    /// The window; null before show().
    QQuickWindow *window() const;

private:
    QTranslator m_translator;
    QQmlApplicationEngine m_engine;
};
