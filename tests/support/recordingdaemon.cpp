// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#include "support/recordingdaemon.h"

#include <QDebug>
#include <QTest>

void RecordingDaemon::succeed(const QString &method)
{
    record(method, QStringLiteral("succeed"), {});
}

void RecordingDaemon::finish(const QString &method, bool success, const QMap<QString, QVariant> &params)
{
    record(method, QStringLiteral("finish"), {success, params});
}

void RecordingDaemon::inputRequested(const QString &method, const QMap<QString, QVariant> &params)
{
    record(method, QStringLiteral("inputRequested"), {params});
}

void RecordingDaemon::restartAuth(const QString &method, uint uid)
{
    record(method, QStringLiteral("restartAuth"), {uid});
}

void RecordingDaemon::lockUser(const QString &method, uint uid, bool lock, const QString &reason, uint duration)
{
    record(method, QStringLiteral("lockUser"), {uid, lock, reason, duration});
}

void RecordingDaemon::logEvent(const QString &method, const QString &level, const QString &event,
                               const QString &details)
{
    record(method, QStringLiteral("logEvent"), {level, event, details});
}

void RecordingDaemon::optionChanged(const QString &method, uint uid, const QString &option, const QVariant &value,
                                    bool computed)
{
    record(method, QStringLiteral("optionChanged"), {uid, option, value, computed});
}

QVector<RecordingDaemon::Call> RecordingDaemon::callsOf(const QString &operation) const
{
    QVector<Call> found;
    for (const Call &call : calls) {
        if (call.operation == operation)
            found << call;
    }
    return found;
}

QVector<RecordingDaemon::Call> RecordingDaemon::outcomes() const
{
    static const QStringList outcomes = {QStringLiteral("succeed"), QStringLiteral("finish"),
                                         QStringLiteral("inputRequested")};
    QVector<Call> found;
    for (const Call &call : calls) {
        if (outcomes.contains(call.operation))
            found << call;
    }
    return found;
}

QStringList RecordingDaemon::operations() const
{
    QStringList names;
    for (const Call &call : calls)
        names << call.operation;
    return names;
}

RecordingDaemon::Call RecordingDaemon::succeeded()
{
    return {QStringLiteral("succeed"), {}};
}

RecordingDaemon::Call RecordingDaemon::failed(int request, int code)
{
    return {QStringLiteral("finish"),
            {false, QMap<QString, QVariant>{{QStringLiteral("input-request-type"), request},
                                            {QStringLiteral("result-code"), code}}}};
}

RecordingDaemon::Call RecordingDaemon::asked(int request)
{
    return {
        QStringLiteral("inputRequested"),
        {QMap<QString, QVariant>{{QStringLiteral("input-request-type"), request}, {QStringLiteral("result-code"), 0}}}};
}

void RecordingDaemon::record(const QString &method, const QString &operation, const QVariantList &arguments)
{
    if (!methods.contains(method))
        methods << method;
    calls << Call{operation, arguments};
}

char *toString(const RecordingDaemon::Call &call)
{
    QString text;
    QDebug(&text).nospace() << qUtf8Printable(call.operation) << call.arguments;
    return qstrdup(text.toUtf8().constData());
}
