// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include "device/installed.h"
#include "device/processmemory.h"
#include "support/testdevice.h"
#include "support/waiting.h"

#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusPendingCall>
#include <QDBusPendingReply>
#include <QDir>
#include <QProcess>
#include <QSettings>
#include <QTest>

#include <sys/stat.h>

/// The reference client, run as alice without its sandbox, and a peer that runs as root.
class ClientFixture
{
public:
    static inline const QString program = Installed::client;
    static inline const QString settingsPath = QStringLiteral("/home/alice/.config/tarsk/kavet_client/client.conf");
    static inline const QString counterPath = QStringLiteral("/srv/shared/tarsk/kavet_client/1000.conf");
    static inline const QString ownCounterPath = QStringLiteral("/home/alice/.local/share/tarsk/kavet_client/attempts");

    static constexpr int maximumPeers = 64;

    struct Result
    {
        int exitCode;
        QByteArray output;
        QByteArray error;
    };

    QProcess process;

    ~ClientFixture()
    {
        QDBusConnection::disconnectFromPeer(m_connection.name());
        process.kill();
        process.waitForFinished();
    }

    /// Creates the directories that the plugin creates before it launches alice's client. Clears her settings and
    /// failed attempts.
    static void prepare()
    {
        for (const char *directory : {"/home/alice/.config", "/home/alice/.local"})
            QDir(QLatin1String(directory)).removeRecursively();
        for (const QString &directory : {TestDevice::clientDirectory, TestDevice::sharedDirectory}) {
            QDir().mkpath(directory);
            TestDevice::setOwner(directory, TestDevice::alice, TestDevice::groupId("auth-factor"));
        }
        setAttempts("0");
    }

    /// Makes `process` run a program as a user, with that user's home.
    static void asUser(QProcess &process, const QString &command, const QStringList &arguments,
                       uint uid = TestDevice::alice)
    {
        QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
        environment.insert(QStringLiteral("HOME"), uid == TestDevice::alice ? QStringLiteral("/home/alice")
                                                   : uid == 0               ? QStringLiteral("/root")
                                                                            : QStringLiteral("/home/bob"));
        process.setProcessEnvironment(environment);
        process.setProgram(QStringLiteral("setpriv"));
        process.setArguments(QStringList{QStringLiteral("--reuid=%1").arg(uid), QStringLiteral("--regid=%1").arg(uid),
                                         QStringLiteral("--clear-groups"), QStringLiteral("--"), command}
                             + arguments);
    }

    static void addToEnvironment(QProcess &process, const QStringList &environment)
    {
        QProcessEnvironment variables = process.processEnvironment();
        for (const QString &variable : environment)
            variables.insert(variable.section(QLatin1Char('='), 0, 0), variable.section(QLatin1Char('='), 1));
        process.setProcessEnvironment(variables);
    }

    /// The environment in which the client skips sleeps of so many seconds.
    static QStringList hastyClock(int seconds)
    {
        return {QStringLiteral("LD_PRELOAD=") + Installed::hastyClock, QStringLiteral("LONGEST_SLEEP=%1").arg(seconds),
                // The sanitizer wants to be the first library.
                QStringLiteral("ASAN_OPTIONS=verify_asan_link_order=0")};
    }

    /// Replaces the launcher with a script that starts the client without a sandbox and with `environment`.
    static bool takeLaunchersPlace(const QStringList &environment = {})
    {
        return QFile::remove(TestDevice::launcher)
               && TestDevice::writeFile(TestDevice::launcher, "#!/bin/bash\nexec env "
                                                                  + environment.join(QLatin1Char(' ')).toUtf8()
                                                                  + " \"${@: -2:1}\" \"${@: -1}\"\n")
               && chmod(QFile::encodeName(TestDevice::launcher).constData(), 0755) == 0;
    }

    /// Whether the writable memory of a process holds these bytes.
    static bool memoryHolds(qint64 pid, const QByteArray &bytes)
    {
        const QByteArray memory = processMemory(pid);
        if (memory.isNull())
            qFatal("Cannot read the memory of process %lld", pid);
        return memory.contains(bytes);
    }

    /// Whether the writable memory of a process holds a text, in UTF-16 as QString stores it or in UTF-8 as the bus
    /// sends it.
    static bool memoryHoldsText(qint64 pid, const QString &text)
    {
        const QByteArray wide(reinterpret_cast<const char *>(text.utf16()), text.size() * 2);
        return memoryHolds(pid, wide) || memoryHolds(pid, text.toUtf8());
    }

    /// Runs the client until it exits, with `input` as its standard input.
    static Result run(const QStringList &arguments, const QByteArray &input, uint uid = TestDevice::alice,
                      const QStringList &environment = {})
    {
        QProcess process;
        asUser(process, program, arguments, uid);
        addToEnvironment(process, environment);
        process.start();
        process.write(input);
        process.closeWriteChannel();
        if (!process.waitForFinished())
            return {-1, {}, "does not end"};
        return {process.exitStatus() == QProcess::NormalExit ? process.exitCode() : -1, process.readAllStandardOutput(),
                process.readAllStandardError()};
    }

    static bool setPassword(const QString &password)
    {
        const Result result = run({QStringLiteral("--set-password")}, password.toUtf8() + '\n');
        return result.exitCode == 0 && result.output.isEmpty() && result.error.isEmpty();
    }

    /// Writes a key to the client's settings, as alice might with an editor.
    static bool setSetting(const QString &key, const QVariant &value)
    {
        const QString directory = QFileInfo(settingsPath).path();
        QDir().mkpath(directory);
        {
            QSettings settings(settingsPath, QSettings::NativeFormat);
            settings.setValue(key, value);
        }
        for (QString path = settingsPath; path != QLatin1String("/home/alice"); path = QFileInfo(path).path())
            TestDevice::setOwner(path, TestDevice::alice, TestDevice::alice);
        return chmod(QFile::encodeName(settingsPath).constData(), 0600) == 0;
    }

    /// Writes the count of failed attempts as the plugin does at a launch.
    static bool setAttempts(const QByteArray &count)
    {
        return TestDevice::writeFile(counterPath, "[General]\nattempts=" + count + "\n")
               && chmod(QFile::encodeName(counterPath).constData(), 0600) == 0
               && TestDevice::setOwner(counterPath, TestDevice::alice, TestDevice::alice);
    }

    static int attempts()
    {
        // QSettings does not notice a change that keeps the file's size and modification time.
        QByteArray content = TestDevice::readFile(counterPath);
        return content.remove(0, content.indexOf("attempts=") + 9).trimmed().toInt();
    }

    /// The content of the client's own counter file; empty if there is none.
    static QByteArray ownAttempts() { return TestDevice::readFile(ownCounterPath); }

    /// Starts the client, waits for its socket, and connects.
    bool start(const QStringList &environment = {})
    {
        struct stat before = {};
        stat(QFile::encodeName(TestDevice::socketPath).constData(), &before);
        asUser(process, program, {QStringLiteral("--no-gui")});
        addToEnvironment(process, environment);
        process.setProcessChannelMode(QProcess::MergedChannels);
        process.start();
        return waitUntil([this, before] {
                   struct stat now = {};
                   return process.state() == QProcess::Running
                          && stat(QFile::encodeName(TestDevice::socketPath).constData(), &now) == 0
                          && S_ISSOCK(now.st_mode) && now.st_ino != before.st_ino;
               })
               && reconnect();
    }

    bool reconnect()
    {
        static int count = 0;
        QDBusConnection::disconnectFromPeer(m_connection.name());
        m_connection = QDBusConnection::connectToPeer(QStringLiteral("unix:path=") + TestDevice::socketPath,
                                                      QStringLiteral("test-%1").arg(++count));
        return m_connection.isConnected();
    }

    QDBusMessage call(const QDBusMessage &message) const
    {
        constexpr int timeout = 120 * 1000; // A huge message takes long on a busy machine.
        return m_connection.call(message, QDBus::Block, timeout);
    }

    /// Calls a protocol method. Returns the reply's word, an error's name, or "(...)" for any other reply.
    QString ask(const QString &method, const QVariantList &arguments) const
    {
        const QDBusMessage reply = call(request(method, arguments));
        if (reply.type() == QDBusMessage::ErrorMessage)
            return reply.errorName();
        return reply.signature() == QLatin1String("s") ? reply.arguments().constFirst().toString()
                                                       : QLatin1Char('(') + reply.signature() + QLatin1Char(')');
    }

    QString checkPassword(const QString &password, const QString &user = QStringLiteral("alice")) const
    {
        return ask(QStringLiteral("checkPassword"), {user, password});
    }

    QString validateCert(const QString &cert, const QString &pin, const QString &user = QStringLiteral("alice")) const
    {
        return ask(QStringLiteral("validateCert"), {cert, user, pin});
    }

    /// Calls validateCert without waiting for the reply.
    QDBusPendingReply<QString> sendPin(const QString &cert, const QString &pin) const
    {
        return m_connection.asyncCall(request(QStringLiteral("validateCert"), {cert, QStringLiteral("alice"), pin}));
    }

    /// The list of certificates, or one entry with an error's name.
    QStringList certList() const
    {
        const QDBusMessage reply = call(request(QStringLiteral("getCertList"), {}));
        return reply.signature() == QLatin1String("as") ? reply.arguments().constFirst().toStringList()
                                                        : QStringList{reply.errorName()};
    }

    static QDBusMessage request(const QString &method, const QVariantList &arguments)
    {
        QDBusMessage message = QDBusMessage::createMethodCall(QString(), QStringLiteral("/kavetauth"),
                                                              QStringLiteral("tarsk.kavet_auth"), method);
        message.setArguments(arguments);
        return message;
    }

    QDBusConnection &connection() { return m_connection; }

    /// Makes the client check a password without waiting for the reply.
    void sendAndVanish(const QString &password)
    {
        m_connection.asyncCall(request(QStringLiteral("checkPassword"), {QStringLiteral("alice"), password}));
        QDBusConnection::disconnectFromPeer(m_connection.name());
    }

    /// The number of the client's open file descriptors.
    int openDescriptors() const
    {
        return int(QDir(QStringLiteral("/proc/%1/fd").arg(process.processId()))
                       .entryList(QDir::AllEntries | QDir::System | QDir::NoDotAndDotDot)
                       .size());
    }

    /// The client's private memory in kilobytes.
    qint64 privateMemory() const
    {
        const QByteArray rollup =
            TestDevice::readFile(QStringLiteral("/proc/%1/smaps_rollup").arg(process.processId()));
        return rollup.mid(rollup.indexOf("Private_Dirty:") + 14).simplified().split(' ').constFirst().toLongLong();
    }

    /// The client's output so far.
    QByteArray output()
    {
        m_output += process.readAll();
        return m_output;
    }

private:
    QDBusConnection m_connection{QString()};
    QByteArray m_output;

    Q_DISABLE_COPY(ClientFixture)

public:
    ClientFixture() = default;
};
