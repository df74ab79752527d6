// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#include "puppet.h"

#include <authd/libauthd.h>
#include <authd/validationscope.h>

#include <QUuid>

#include <unistd.h>

namespace {

constexpr int longEvent = 20000;

/// Forks a child in the state just before exec: it already runs as user `uid`, or still as root if `uid` is 0. With
/// `effectiveUid` 0, it is like the sandbox launcher, which has root's privileges.
void forkIdleChild(uint uid, uint effectiveUid)
{
    if (fork() != 0)
        return;
    if (setresuid(uid, effectiveUid, effectiveUid) != 0)
        _exit(1);
    for (;;)
        pause();
}

void writeMessages()
{
    qDebug("debug");
    qInfo("info");
    qWarning("warning");
    qCritical("critical");
}

} // namespace

Puppet::Puppet()
    : AuthPluginInterface(QStringLiteral("puppet"))
{
}

Puppet::~Puppet()
{
    succeed();
}

QString Puppet::name() const
{
    return QStringLiteral("puppet");
}

const QMap<QString, QVariant> &Puppet::defaultOptions(uint uid)
{
    static const QMap<QString, QVariant> method = {
        {QStringLiteral("number"), 1},
        {QStringLiteral("switch"), false},
        {QStringLiteral("text"), QString()},
        {QStringLiteral("list"), QStringList()},
        {QStringLiteral("anything"), 0},
        {QStringLiteral("root"), 1},
        {QStringLiteral("unlisted"), 1},
        {QStringLiteral("computed"), 1},
        {QStringLiteral("computed odd"), 1},
        {QStringLiteral("computed open"), 1},
        {QStringLiteral("told"), QStringList()},
        {QStringLiteral("byte"), QVariant::fromValue(uchar(200))},
        {QStringLiteral("short"), QVariant::fromValue(short(-7))},
        {QStringLiteral("unsigned short"), QVariant::fromValue(ushort(65000))},
    };
    static const QMap<QString, QVariant> user = {
        {QStringLiteral("do"), QString()},
        {QStringLiteral("mine"), 1},
        {QStringLiteral("guarded"), 1},
        {QStringLiteral("computed"), 1},
    };
    return uid == 0 ? method : user;
}

QVariant Puppet::getOption(uint, const QString &option)
{
    if (option == QLatin1String("told"))
        return m_told;
    if (option == QLatin1String("computed odd"))
        return QStringLiteral("computed");
    return option.startsWith(QLatin1String("computed")) ? QVariant(42) : QVariant();
}

const ValidationScope &Puppet::getOptionsValidations(uint uid)
{
    static const ValidationScope method(
        {{TypeOfDefault,
          {QStringLiteral("number"), QStringLiteral("switch"), QStringLiteral("text"), QStringLiteral("list"),
           QStringLiteral("computed open")}},
         {ValidationOptions(), {QStringLiteral("anything")}},
         {RootOnly | TypeOfDefault, {QStringLiteral("root")}},
         {MethodOnly, {QStringLiteral("computed"), QStringLiteral("computed odd"), QStringLiteral("told")}}});
    static const ValidationScope user({{TypeOfDefault, {QStringLiteral("do"), QStringLiteral("mine")}},
                                       {RootOnly | TypeOfDefault, {QStringLiteral("guarded")}},
                                       {MethodOnly, {QStringLiteral("computed")}}});
    return uid == 0 ? method : user;
}

void Puppet::handleOptionChanged(uint uid, const QString &option, const QVariant &value)
{
    if (option == QLatin1String("do"))
        perform(uid, value.toString());
}

const AuthUiPages &Puppet::pages() const
{
    static const AuthUiPages pages = {QStringLiteral("MethodPageKavet"), {}, {}};
    return pages;
}

QString Puppet::getErrorMessage(int code) const
{
    return code < 0 ? QString() : QStringLiteral("Code%1").arg(code);
}

void Puppet::reset()
{
    m_told << QStringLiteral("reset");
}

void Puppet::authenticate(uint uid, const QMap<QString, QVariant> &data)
{
    m_told << QStringLiteral("authenticate %1").arg(uid);
    perform(uid, data.value(QStringLiteral("do"), data.value(QStringLiteral("password"))).toString());
}

void Puppet::handleUserSessionTriggered(uint uid, bool started, bool manageClient)
{
    m_told << QStringLiteral("session %1 %2 %3").arg(uid).arg(started).arg(manageClient);
}

void Puppet::handleUserLocked(uint uid, bool locked, const QString &reason, uint duration)
{
    m_told << QStringLiteral("locked %1 %2 %3 %4").arg(uid).arg(locked).arg(reason).arg(duration);
}

int Puppet::increaseAttempts(uint uid)
{
    m_told << QStringLiteral("increaseAttempts %1").arg(uid);
    ++m_attempts[uid];
    return 0;
}

int Puppet::getAttempts(uint uid)
{
    return 100 - m_attempts.value(uid);
}

void Puppet::resetAttempts(uint uid)
{
    m_told << QStringLiteral("resetAttempts %1").arg(uid);
    m_attempts.remove(uid);
}

void Puppet::perform(uint uid, const QString &script)
{
    const QStringList words = script.split(QLatin1Char(' '), Qt::SkipEmptyParts);
    for (const QString &word : words) {
        const QString action = word.section(QLatin1Char(':'), 0, 0);
        const int number = word.section(QLatin1Char(':'), 1).toInt();
        if (action == QLatin1String("succeed"))
            succeed();
        else if (action == QLatin1String("finish"))
            finish(true, {});
        else if (word == QLatin1String("fail"))
            finish(false, {});
        else if (action == QLatin1String("fail"))
            finish(false, LibAuthd::resultCodeParams(number));
        else if (action == QLatin1String("input"))
            inputRequested(LibAuthd::inputRequestParams(2));
        else if (word == QLatin1String("restart"))
            restartAuth(uid);
        else if (action == QLatin1String("restart"))
            restartAuth(uint(number));
        else if (action == QLatin1String("lock"))
            lockUser(uid, true, QStringLiteral("on strings"), uint(number));
        else if (action == QLatin1String("lock0"))
            lockUser(0, true, QStringLiteral("on strings"), 10);
        else if (action == QLatin1String("unlock"))
            lockUser(uid, false, QString(), 0);
        else if (action == QLatin1String("event"))
            logEvent(QStringLiteral("INFO_LEVEL"), QStringLiteral("played"),
                     QStringLiteral("one\nlevel=error event=\"two\\\x7f"));
        else if (action == QLatin1String("long"))
            logEvent(QStringLiteral("INFO_LEVEL"), QStringLiteral("long"), QString(longEvent, QLatin1Char('x')));
        else if (action == QLatin1String("messages"))
            writeMessages();
        else if (action == QLatin1String("fatal"))
            qFatal("fatal");
        else if (action == QLatin1String("fork"))
            forkIdleChild(uint(number), uint(number));
        else if (action == QLatin1String("launch"))
            forkIdleChild(uint(number), 0);
        else if (action == QLatin1String("unknown"))
            optionChanged(0, QStringLiteral("number"), QUuid::createUuid(), true);
    }
}
