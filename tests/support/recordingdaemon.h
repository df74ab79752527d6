// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <authd/notificationhandler.h>

#include <QStringList>
#include <QVector>

/// Replaces the daemon: records the method's calls in order.
class RecordingDaemon : public NotificationHandler
{
public:
    /// One call: the operation's name and its arguments after the method's name.
    struct Call
    {
        QString operation;
        QVariantList arguments;

        bool operator==(const Call &other) const
        {
            return operation == other.operation && arguments == other.arguments;
        }
    };

    void succeed(const QString &method) override;
    void finish(const QString &method, bool success, const QMap<QString, QVariant> &params) override;
    void inputRequested(const QString &method, const QMap<QString, QVariant> &params) override;
    void restartAuth(const QString &method, uint uid) override;
    void lockUser(const QString &method, uint uid, bool lock, const QString &reason, uint duration) override;
    void logEvent(const QString &method, const QString &level, const QString &event, const QString &details) override;
    void optionChanged(const QString &method, uint uid, const QString &option, const QVariant &value,
                       bool computed) override;

    /// All calls so far.
    QVector<Call> calls;
    /// The names of the calling methods, without duplicates.
    QStringList methods;

    /// The calls of `operation` so far.
    QVector<Call> callsOf(const QString &operation) const;
    /// The outcomes so far: the calls of "succeed", "finish" and "inputRequested".
    QVector<Call> outcomes() const;
    /// The operations' names so far.
    QStringList operations() const;

    /// The outcomes as a flow reports them, for comparisons.
    static Call succeeded();
    static Call failed(int request, int code);
    static Call asked(int request);

private:
    void record(const QString &method, const QString &operation, const QVariantList &arguments);
};

/// Makes failed comparisons readable.
char *toString(const RecordingDaemon::Call &call);
