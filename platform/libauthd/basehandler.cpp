// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#include <authd/basehandler.h>
#include <authd/notificationhandler.h>
#include <authd/validationscope.h>

#include "optionstore.h"
#include "platformlog.h"

namespace LibAuthd {

BaseHandler::BaseHandler(const QString &name, QObject *parent)
    : QObject(parent)
    , m_name(name)
{
}

BaseHandler::~BaseHandler() = default;

bool BaseHandler::setOption(uint uid, const QString &option, const QVariant &value)
{
    if (!defaultOptions(uid).contains(option)) {
        qCWarning(authdPlatform) << "setOption"
                                 << "No such option" << m_name << uid << option;
        return false;
    }
    if (!setOptionInternal(uid, option, value))
        return false;
    handleOptionChanged(uid, option, value.isValid() ? value : defaultOptions(uid).value(option));
    return true;
}

bool BaseHandler::action(uint, const QString &, const QMap<QString, QVariant> &)
{
    return false;
}

const ValidationScope &BaseHandler::getActionsValidations()
{
    static const ValidationScope none;
    return none;
}

void BaseHandler::handleUserRemovedInternal(uint uid)
{
    OptionStore(m_name).removeUser(uid);
}

void BaseHandler::handleOptionChanged(uint, const QString &, const QVariant &) { }

QVariant BaseHandler::getOptionInternal(uint uid, const QString &option)
{
    const QVariant stored = OptionStore(m_name).read(uid, option);
    return stored.isValid() ? stored : defaultOptions(uid).value(option);
}

bool BaseHandler::setOptionInternal(uint uid, const QString &option, const QVariant &value)
{
    const OptionStore store(m_name);
    const auto outcome = value.isValid() ? store.write(uid, option, value) : store.remove(uid, option);
    if (outcome == OptionStore::Stored)
        optionChanged(uid, option, value.isValid() ? value : defaultOptions(uid).value(option), false);
    return outcome != OptionStore::Failed;
}

void BaseHandler::optionChanged(uint uid, const QString &option, const QVariant &value, bool computed)
{
    if (m_notificator)
        m_notificator->optionChanged(name(), uid, option, value, computed);
}

void BaseHandler::logEvent(const QString &level, const QString &event, const QString &details)
{
    if (m_notificator)
        m_notificator->logEvent(name(), level, event, details);
}

} // namespace LibAuthd
