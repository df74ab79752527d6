// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include "authscreen.h"
#include "window.h"

#include <QQuickItem>
#include <QQuickWindow>

#include <functional>

/// Starts an X server with a picture in memory and makes it the display of this process. Call it first in main().
void startDisplay();

/// A shown window and what a person does with it. Items are found by their object name among those that can be seen.
class Shown
{
public:
    /// A lock screen, or for user 0 a greeter.
    explicit Shown(uint user, const QSize &size = QSize(520, 760), bool isDark = false);

    AuthScreen screen;
    QQuickWindow *window() const { return m_window.window(); }
    /// Waits for an item. Returns null if it is not there in time.
    QQuickItem *find(const QString &name) const;
    /// Whether the item can be seen now.
    bool shows(const QString &name) const;
    /// The text that the item has now; empty if there is no item.
    QString text(const QString &name) const;
    /// All text that can be seen, one line for each item.
    QString allText() const;
    /// Clicks on an item when it is enabled.
    bool click(const QString &name);
    void press(int key, Qt::KeyboardModifiers modifiers = {});
    void type(const QString &text);
    /// Types into the field for the secret when it can take it, and presses Enter.
    bool submit(const QString &secret);
    bool hasFocus(const QString &name) const;

    /// What is wrong: text that is cut off, items that reach over the window's sides, and warnings of QML.
    QStringList faults() const;
    /// Writes a picture to the directory that KAVET_SCREENSHOTS names, if it does.
    void save(const QString &name) const;

private:
    QQuickItem *look(const QString &name) const;
    /// Calls `visit` for each item that can be seen.
    void visit(const std::function<void(QQuickItem *)> &visit) const;

    Window m_window;
    QStringList m_warnings;
};
