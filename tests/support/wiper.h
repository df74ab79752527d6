// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <QJsonObject>
#include <QProcess>
#include <QString>
#include <QVector>

/// Starts the device's system bus; false, with a message, on failure. Call once per device, before the first
/// TestDevice::reset().
bool startSystemBus();

/// A process that acts as the user-data wiper; see fakewiper.cpp for its replies. Ends with the object.
class Wiper
{
public:
    /// Clears the calls and scripts of earlier processes.
    Wiper();
    ~Wiper();

    /// Starts the process and waits until it owns the wiper's name; false, with a message, on failure.
    bool start();
    /// Kills the process.
    void stop();
    bool isRunning() const { return m_process.state() == QProcess::Running; }

    /// Sets the replies from now on: a word for each login name.
    void setScript(const QJsonObject &script);
    /// Releases the late replies to calls with `userName`.
    void answer(const QString &userName);
    /// The calls so far, in order: "path", "interface", "member", "signature", "arguments", "interactive".
    QVector<QJsonObject> calls() const;
    /// The expected call for `userName`.
    static QJsonObject callFor(const QString &userName);

private:
    QProcess m_process;
};
