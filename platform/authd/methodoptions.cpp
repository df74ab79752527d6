// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#include "methodoptions.h"

#include "clientprocesses.h"
#include "errors.h"
#include "log.h"
#include "requestdata.h"

#include <authd/validationscope.h>

#include <QDBusVariant>

namespace {

/// Converts the value to the type of `model`. Returns an invalid variant if that loses information. Comparing the texts
/// detects a loss even where converting back would undo an overflow.
QVariant converted(const QVariant &value, const QVariant &model)
{
    QVariant result = value;
    return result.convert(model.userType()) && result.toString() == value.toString() ? result : QVariant();
}

} // namespace

MethodOptions::MethodOptions(const Methods *methods, const Accounts *accounts)
    : m_methods(methods)
    , m_accounts(accounts)
{
    for (const Method &method : *methods) {
        const ValidationScope &scope = method.plugin->getOptionsValidations(0);
        const QStringList names = method.plugin->defaultOptions(0).keys();
        for (const QString &name : names) {
            if (scope.rulesFor(name).testFlag(MethodOnly))
                m_clients.insert({method.name, name});
        }
    }
}

Reply MethodOptions::option(uint reader, uint uid, const QString &method, const QString &option) const
{
    Reply check = this->check(uid, method);
    if (check.isError())
        return check;
    if (!m_methods->find(method)->defaultOptions(uid).contains(option))
        return Reply(Errors::NoSuchOption, QStringLiteral("The method has no such option"));
    return Reply({QVariant::fromValue(QDBusVariant(currentValue(reader, uid, method, option)))});
}

Reply MethodOptions::options(uint reader, uint uid, const QString &method) const
{
    Reply check = this->check(uid, method);
    if (check.isError())
        return check;
    QVariantMap values;
    const QStringList names = m_methods->find(method)->defaultOptions(uid).keys();
    for (const QString &name : names)
        values.insert(name, currentValue(reader, uid, method, name));
    return Reply({values});
}

Reply MethodOptions::setOption(uint writer, uint uid, const QString &method, const QString &option,
                               const QVariant &value) const
{
    for (const Reply &check :
         {this->check(uid, method), RequestData::checkName(option), RequestData::checkValue(value)}) {
        if (check.isError())
            return check;
    }
    if (writer != 0 && !m_accounts->isUser(writer))
        return Reply(Errors::AccessDenied, QStringLiteral("Only users and root may write options"));
    AuthPluginInterface &plugin = *m_methods->find(method);
    const QMap<QString, QVariant> &defaults = plugin.defaultOptions(uid);
    if (!defaults.contains(option))
        return Reply(Errors::NoSuchOption, QStringLiteral("The method has no such option"));

    const ValidationScope &scope = plugin.getOptionsValidations(uid);
    const ValidationOptions rules = scope.rulesFor(option);
    if (!scope.contains(option) || rules.testFlag(MethodOnly))
        return Reply(Errors::AccessDenied, QStringLiteral("Only the method itself may write this option"));
    if (rules.testFlag(RootOnly) && writer != 0)
        return Reply(Errors::AccessDenied, QStringLiteral("Only root may write this option"));

    QVariant written = value;
    if (rules.testFlag(TypeOfDefault)) {
        const QVariant model = defaults.value(option);
        written = converted(value, model);
        if (!written.isValid())
            return Reply(Errors::InvalidArgs,
                         QStringLiteral("The option's type is ") + QString::fromLatin1(model.typeName()));
        Reply tooLong = RequestData::checkValue(written); // A text of the maximum size is too long as a list.
        if (tooLong.isError())
            return tooLong;
    }
    if (!plugin.setOption(uid, option, written))
        return Reply(Errors::StoreFailed, QStringLiteral("The value cannot be stored"));
    Log::write(Log::Notice, "option-set", {{"method", method}, {"uid", uid}, {"option", option}, {"by", writer}});
    return Reply();
}

bool MethodOptions::mayKnow(uint reader, const QString &method, const QString &option) const
{
    return reader == 0 || !m_clients.contains({method, option}) || ClientProcesses::users() == QSet<uint>{reader};
}

Reply MethodOptions::check(uint uid, const QString &method) const
{
    const Reply user = uid == 0 ? Reply() : m_accounts->check(uid);
    return user.isError() ? user : m_methods->check(method);
}

QVariant MethodOptions::currentValue(uint reader, uint uid, const QString &method, const QString &option) const
{
    AuthPluginInterface &plugin = *m_methods->find(method);
    QVariant model = plugin.defaultOptions(uid).value(option);
    if (uid == 0 && !mayKnow(reader, method, option))
        return model;
    QVariant value;
    if (plugin.getOptionsValidations(uid).rulesFor(option).testFlag(MethodOnly))
        value = plugin.getOption(uid, option);
    if (!value.isValid() || value.userType() != model.userType())
        value = plugin.getOptionInternal(uid, option);
    return value;
}
