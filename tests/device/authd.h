// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include "device/installed.h"

#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusVariant>
#include <QJsonObject>
#include <QObject>
#include <QProcess>
#include <QProcessEnvironment>
#include <QSet>
#include <QStringList>
#include <QVector>

/// The daemon as a process of its own, on the device's system bus.
class Authd
{
public:
    ~Authd();

    /// Starts the daemon on the methods in `methods` and waits until it is ready; false, with its log, when it ends
    /// first.
    bool start(const QString &methods = Installed::methods, const QStringList &arguments = {});
    /// Sends `signal` and waits for the end; the exit code, or -1 when it did not end by itself or
    /// was not running.
    int stop(int signal);
    /// Waits until the log has `text`.
    bool waitForLog(const QByteArray &text, int count = 1);
    /// What it has written to standard error.
    QByteArray log();
    qint64 pid() const { return m_process.processId(); }
    bool isRunning() const { return m_process.state() == QProcess::Running; }

    /// Runs the daemon with these arguments to its end.
    static QPair<int, QByteArray> run(const QStringList &arguments);

private:
    QProcess m_process;
    QByteArray m_log;
};

/// A connection to the system bus as user `uid`; ends with the object.
class BusUser
{
public:
    explicit BusUser(uint uid);
    ~BusUser();

    /// Calls the service and waits for the answer.
    QDBusMessage call(const QString &member, const QVariantList &arguments = {}) const;
    /// The name of the error that the call ends with; empty when it succeeds.
    QString error(const QString &member, const QVariantList &arguments = {}) const;
    QDBusConnection connection() const { return m_connection; }

private:
    const QString m_name;
    QDBusConnection m_connection;
};

/// The service's signals to a subscriber, from the start of the object.
class Reports : public QObject
{
    Q_OBJECT

public:
    explicit Reports(const BusUser &user);

    /// Each as "Member(argument, argument, ...)", in order, options' changes and the attempts left out.
    QStringList texts;
    /// The attempts that they are about.
    QVector<qulonglong> attempts;
    QVector<QDBusMessage> all;

    /// Waits until the last one starts with `text`.
    bool waitFor(const QString &text);

private Q_SLOTS:
    void record(const QDBusMessage &signal);
};

/// Whether a program with the environment of debuggedBus() told, on standard error, that it held signals back until its
/// event loop ran. The next signal may then overtake those, so that a program sees them in the wrong order.
bool heldSignalsBack(const QByteArray &errors);
/// In which the D-Bus library tells what it does.
QProcessEnvironment debuggedBus();

/// The long options named in a program's help, or in its manual page.
QSet<QString> longOptions(QString text);

/// A value as it reads in Reports.
QString reportText(const QVariant &value);

/// Sets what the scripted client does. It shows its socket until it is connected, since the method takes no notice of
/// one that appears before the news that the client has started.
void setClientScript(QJsonObject script = {});
