// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <QJsonObject>
#include <QProcess>
#include <QString>
#include <QVector>

/// Starts the device's system bus; false, with a message, when that fails. Once per device, before the first
/// TestDevice::reset().
bool startSystemBus();

/// A process that plays the user-data wiper; see fakewiper.cpp for what it answers. Ends with the object.
class Wiper
{
public:
    /// Forgets the calls and answers of earlier ones.
    Wiper();
    ~Wiper();

    /// Starts the process and waits until it owns the wiper's name; false, with a message, when that fails.
    bool start();
    /// Ends the process, as its own end would.
    void stop();
    bool isRunning() const { return m_process.state() == QProcess::Running; }

    /// What to answer from now on: a word for each login name.
    void setScript(const QJsonObject &script);
    /// Lets the late answers to calls with `userName` go.
    void answer(const QString &userName);
    /// The calls so far, in order: "path", "interface", "member", "signature", "arguments".
    QVector<QJsonObject> calls() const;
    /// The one call that there ought to be for `userName`.
    static QJsonObject callFor(const QString &userName);

private:
    QProcess m_process;
};
