// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#include "users.h"

#include "errors.h"
#include "failure.h"

#include <authd/libauthd.h>

#include <pwd.h>

uint userId(const QString &user)
{
    bool isNumber = false;
    const uint uid = user.toUInt(&isNumber);
    if (isNumber)
        return uid;
    if (const struct passwd *entry = getpwnam(user.toLocal8Bit().constData()))
        return entry->pw_uid;
    throw Failure{Refused, QStringLiteral("No such user: ") + user, Errors::NoSuchUser};
}

QString displayName(uint uid)
{
    const QString name = LibAuthd::userName(uid);
    return name.isNull() ? QString::number(uid) : name;
}
