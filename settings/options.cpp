// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#include "plugin/methodkavet.h"

#include "plugin/methodkavetprivate.h"
#include "settings/constants.h"

#include <authd/validationscope.h>

const QMap<QString, QVariant> &MethodKavet::defaultOptions(unsigned int uid)
{
    if (uid == 0) {
        static const QMap<QString, QVariant> methodOptions = {{Constants::Options::certs, QStringList()},
                                                              {Constants::Options::maxAttempts, 0}};
        return methodOptions;
    }

    static const QMap<QString, QVariant> userOptions = {{Constants::Options::delayedDeletion, false},
                                                        {Constants::Options::attempts, 0}};
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
        static const ValidationScope methodScope({{RootOnly | TypeOfDefault | MethodOnly, {Constants::Options::certs}},
                                                  {RootOnly | TypeOfDefault, {Constants::Options::maxAttempts}}});
        return methodScope;
    }

    static const ValidationScope userScope(
        {{RootOnly | TypeOfDefault | MethodOnly, {Constants::Options::delayedDeletion, Constants::Options::attempts}}});
    return userScope;
}
