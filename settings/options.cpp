// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#include "plugin/methodkavet.h"

#include "client/methodkavetprivate.h"
#include "settings/constants.h"

#include <authd/validationscope.h>

const QMap<QString, QVariant> &MethodKavet::defaultOptions(unsigned int uid)
{
    if (uid == 0) {
        static const QMap<QString, QVariant> methodOptions = {{Constants::certs, QStringList()},
                                                              {Constants::maxAttempts, 0}};
        return methodOptions;
    }

    static const QMap<QString, QVariant> userOptions = {{Constants::delayedDeletion, false}, {Constants::attempts, 0}};
    return userOptions;
}

QVariant MethodKavet::getOption(unsigned int uid, const QString &name)
{
    Q_UNUSED(name)
    return uid == 0 ? QVariant(d->getCertList()) : QVariant();
}

const ValidationScope &MethodKavet::getOptionsValidations(unsigned int uid)
{
    if (uid == 0) {
        static const ValidationScope methodScope({{RootOnly | TypeOfDefault | MethodOnly, {Constants::certs}},
                                                  {RootOnly | TypeOfDefault, {Constants::maxAttempts}}});
        return methodScope;
    }

    static const ValidationScope userScope(
        {{RootOnly | TypeOfDefault | MethodOnly, {Constants::delayedDeletion, Constants::attempts}}});
    return userScope;
}
