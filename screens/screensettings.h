// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <QObject>
#include <QStringList>
#include <QThread>

#include <functional>

class SettingsKavet;

/// SettingsKavet as pages use it. It waits for the service in a thread of its own, so that the window goes on while the
/// service does not reply. Its values are the last ones read.
class ScreenSettings : public QObject
{
    Q_OBJECT
    Q_PROPERTY(QStringList certList MEMBER m_certList NOTIFY certListChanged)
    Q_PROPERTY(int maxAttempts MEMBER m_maxAttempts NOTIFY maxAttemptsChanged)
    Q_PROPERTY(uint uid MEMBER m_uid WRITE setUid NOTIFY uidChanged)
    Q_PROPERTY(int currentAttempts MEMBER m_currentAttempts NOTIFY currentAttemptsChanged)

public:
    ScreenSettings();
    /// Waits for the reply to the present call.
    ~ScreenSettings() override;

    void setUid(uint uid);
    /// Reads everything again, unless that is already being done.
    Q_INVOKABLE void update();

Q_SIGNALS:
    /// A certificate list has arrived, possibly without a change.
    void certListChanged();
    void maxAttemptsChanged();
    void uidChanged();
    void currentAttemptsChanged();

private:
    void readMaxAttempts();
    void readCurrentAttempts();
    /// Calls `act` in the thread. It may wait for one reply, so that the thread can be ended after each.
    void runInThread(const std::function<void()> &act);
    /// Calls `act` in the thread of this object.
    void runHere(const std::function<void()> &act);

    QThread m_thread;
    QObject *const m_owner; ///< Of what is used in the thread.
    SettingsKavet *m_settings = nullptr;
    bool m_isUpdating = false;
    QStringList m_certList;
    int m_maxAttempts = 0;
    uint m_uid = 0;
    int m_currentAttempts = 0;
};
