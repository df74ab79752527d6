// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#include "output.h"

#include "harmlesstext.h"
#include "states.h"
#include "users.h"

#include <authd/libauthd.h>

#include <QJsonDocument>

#include <cstdio>

namespace {

/// Turns "CannotStartClient" into "cannot start client".
QString words(const QString &name)
{
    QString text;
    for (const QChar c : name) {
        if (c.isUpper() && !text.isEmpty() && !text.endsWith(QLatin1Char(' ')))
            text += QLatin1Char(' ');
        text += c.toLower();
    }
    return text;
}

QString valueText(const QVariant &value)
{
    return value.userType() == QMetaType::QStringList ? value.toStringList().join(QStringLiteral(", "))
                                                      : value.toString();
}

QString stateText(const QString &state, const QVariantMap &details)
{
    const QString method = details.value(States::Method).toString();
    if (state == States::Idle)
        return QStringLiteral("no attempt in progress");
    if (state == States::Queued)
        return QStringLiteral("queued for %1 ...").arg(method);
    if (state == States::Pending)
        return QStringLiteral("checking with %1 ...").arg(method);
    if (state == States::Challenge && details.value(States::Restarted).toBool())
        return QStringLiteral("the %1 client was restarted").arg(method);
    if (state == States::Challenge)
        return method + QStringLiteral(" is waiting for input");
    if (state == States::Authenticated)
        return QStringLiteral("authenticated by ") + method;
    if (state != States::Locked)
        return state;
    const uint duration = details.value(States::Duration).toUInt();
    return QStringLiteral("locked by %1 (%2), %3")
        .arg(method, details.value(States::Reason).toString(),
             duration == States::UntilUnlocked ? QStringLiteral("until root unlocks the user")
                                               : QStringLiteral("for %1 seconds").arg(duration));
}

QJsonObject about(uint uid)
{
    return {{QStringLiteral("uid"), qint64(uid)}, {QStringLiteral("user"), LibAuthd::userName(uid)}};
}

QJsonObject about(qulonglong attempt, uint uid)
{
    QJsonObject object = about(uid);
    object.insert(QLatin1String("attempt"), qint64(attempt));
    return object;
}

} // namespace

void Output::method(const QString &method, const QVariantMap &info) const
{
    QJsonObject object = QJsonObject::fromVariantMap(info);
    object.insert(QLatin1String("method"), method);
    print(QStringLiteral("%1 %2: %3, priority %4, %5")
              .arg(method, info.value(QStringLiteral("version")).toString(),
                   info.value(QStringLiteral("description")).toString(),
                   info.value(QStringLiteral("priority")).toString(),
                   info.value(QStringLiteral("available")).toBool() ? QStringLiteral("available")
                                                                    : QStringLiteral("not available")),
          "method", object);
}

void Output::state(qulonglong attempt, uint uid, const QString &state, const QVariantMap &details) const
{
    QJsonObject object = about(attempt, uid);
    object.insert(QLatin1String("state"), state);
    object.insert(QLatin1String("details"), QJsonObject::fromVariantMap(details));
    print(displayName(uid) + QStringLiteral(": ") + stateText(state, details), "state", object);
}

void Output::success(qulonglong attempt, uint uid, const QString &method) const
{
    QJsonObject object = about(attempt, uid);
    object.insert(QLatin1String("method"), method);
    print(displayName(uid) + QStringLiteral(": success"), "authenticated", object);
}

void Output::givenUp(qulonglong attempt, uint uid, const QString &method, const QString &reason) const
{
    QJsonObject object = about(attempt, uid);
    object.insert(QLatin1String("method"), method);
    object.insert(QLatin1String("reason"), reason);
    QString words = reason;
    words.replace(QLatin1Char('-'), QLatin1Char(' '));
    print(QStringLiteral("%1: given up: %2").arg(displayName(uid), words), "given-up", object);
}

void Output::failed(qulonglong attempt, uint uid, const QString &method, int code, const QString &name, bool isCounted,
                    int attemptsLeft) const
{
    QJsonObject object = about(attempt, uid);
    object.insert(QLatin1String("counted"), isCounted);
    object.insert(QLatin1String("method"), method);
    object.insert(QLatin1String("resultCode"), code);
    object.insert(QLatin1String("resultName"), name);
    object.insert(QLatin1String("attemptsLeft"), attemptsLeft);
    print(QStringLiteral("%1: failed: %2 (code %3)%4; attempts left: %5")
              .arg(displayName(uid), words(name))
              .arg(code)
              .arg(isCounted ? QString() : QStringLiteral(", not counted"))
              .arg(attemptsLeft),
          "failed", object);
}

void Output::option(uint uid, const QString &method, const QString &option, const QVariant &value) const
{
    QJsonObject object = uid == 0 ? QJsonObject() : about(uid);
    object.insert(QLatin1String("method"), method);
    object.insert(QLatin1String("option"), option);
    object.insert(QLatin1String("value"), QJsonValue::fromVariant(value));
    print(QStringLiteral("%1 = %2").arg(option, valueText(value)), "option", object);
}

void Output::cert(const QString &method, const QString &cert) const
{
    print(cert, "cert", {{QStringLiteral("method"), method}, {QStringLiteral("cert"), cert}});
}

void Output::done(uint uid) const
{
    print(QStringLiteral("done"), "done", about(uid));
}

void Output::failure(const Failure &failure) const
{
    if (m_json)
        print(QString(), "error",
              {{QStringLiteral("error"), failure.error}, {QStringLiteral("message"), failure.text}});
    else
        std::fprintf(stderr, "authctl: %s\n", qUtf8Printable(harmless(failure.text)));
}

void Output::print(const QString &text, const char *event, QJsonObject object) const
{
    object.insert(QLatin1String("event"), QLatin1String(event));
    const QByteArray document = QJsonDocument(object).toJson(QJsonDocument::Compact);
    const QByteArray line = m_json ? harmless(QString::fromUtf8(document)).toUtf8() : harmless(text).toLocal8Bit();
    std::puts(line.constData());
    std::fflush(stdout);
}
