// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#include "settings/userconfigpath.h"

#include "settings/constants.h"

QString Authd::getUserConfigFilePath(unsigned int uid)
{
    return Constants::Paths::userOptions.arg(uid, 0, 10);
}
