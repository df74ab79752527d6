// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include "device/installed.h"

#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusPendingCall>
#include <QDBusVariant>
#include <QJsonObject>
#include <QObject>
#include <QProcess>
#include <QProcessEnvironment>
#include <QSet>
#include <QStringList>
#include <QVector>

class BusUser;

/// The daemon as a separate process on the device's system bus.
class Authd
{
public:
    ~Authd();

    /// Starts the daemon with the methods directory `methods` and waits until it is ready. If it exits first, prints
    /// its log and returns false.
    bool start(const QString &methods = Installed::methods, const QStringList &arguments = {});
    /// Sends `signal` and waits for the process to end. Returns the exit code, or -1 if the process was not running or
    /// did not exit.
    int stop(int signal);
    /// Waits until the log contains `text` at least `count` times.
    bool waitForLog(const QByteArray &text, int count = 1);
    /// Standard error so far.
    QByteArray log();
    qint64 pid() const { return m_process.processId(); }
    bool isRunning() const { return m_process.state() == QProcess::Running; }
    /// Sends the calls and waits until the bus has accepted them, so that the daemon reads all of them at once.
    QVector<QDBusPendingCall> sendAtOnce(const BusUser &user, const QVector<QDBusMessage> &calls) const;
    /// The process, whose environment can be set before the start.
    QProcess &process() { return m_process; }

    /// Runs the daemon until it exits; its exit code and output.
    static QPair<int, QByteArray> run(const QStringList &arguments);

private:
    QProcess m_process;
    QByteArray m_log;
};

/// The base of tests whose functions each start with a reset device and a running daemon.
class AuthdTest : public QObject
{
    Q_OBJECT

protected:
    Authd m_authd;

private Q_SLOTS:
    void initTestCase();
    void init();
    void cleanup();
};

/// A connection to the system bus as user `uid`, closed on destruction.
class BusUser
{
public:
    explicit BusUser(uint uid);
    ~BusUser();

    /// Calls the service and waits for the reply.
    QDBusMessage call(const QString &member, const QVariantList &arguments = {}) const;
    /// The name of the error that the call returns; empty on success.
    QString error(const QString &member, const QVariantList &arguments = {}) const;
    /// A call of the service, to be sent.
    static QDBusMessage message(const QString &member, const QVariantList &arguments = {});
    QDBusConnection connection() const { return m_connection; }

private:
    const QString m_name;
    QDBusConnection m_connection;
};

/// Subscribes to the service and records its signals.
class Reports : public QObject
{
    Q_OBJECT

public:
    explicit Reports(const BusUser &user);

    /// The signals in order, as "Member(argument, argument, ...)", without the attempt numbers. Option changes are left
    /// out.
    QStringList texts;
    /// The attempt number of each entry of `texts`.
    QVector<qulonglong> attempts;
    QVector<QDBusMessage> all;

    /// Waits until the last entry of `texts` starts with `text`.
    bool waitFor(const QString &text);

private Q_SLOTS:
    void record(const QDBusMessage &signal);
};

/// Logs the user in with the scripted client. After the client has been started again, attempts fail until its socket
/// appears, so this repeats them. Returns false, with a warning, when an attempt fails otherwise or none succeeds.
bool logIn(const BusUser &user, uint uid);

/// The sum of the log lines' counts of similar lines that were left out.
int unloggedBefore(const QByteArray &log);

/// Whether a program that ran with debuggedBus() logged, on standard error, that it held signals back until its event
/// loop ran. Later signals may overtake held ones, so the program would see them in the wrong order.
bool heldSignalsBack(const QByteArray &errors);
/// An environment that makes the D-Bus library log what it does.
QProcessEnvironment debuggedBus();

/// The long options in a program's help or manual page.
QSet<QString> longOptions(QString text);

/// A value as formatted in Reports.
QString reportText(const QVariant &value);

/// Sets the scripted client's script. The client announces its socket until somebody connects, because the method
/// ignores a socket that appears before it learns that the client has started.
void setClientScript(QJsonObject script = {});
