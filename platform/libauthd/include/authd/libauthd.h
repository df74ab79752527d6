// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <authd/authdexport.h>

#include <QMap>
#include <QString>
#include <QVariant>

namespace LibAuthd {

/// The login name of user `uid`; a null string when there is no such user.
AUTHD_EXPORT QString userName(uint uid);

/// Makes `path` exist as a regular file that only its owner may read and write (mode 0600); creates it empty when it is
/// missing. Never follows a symbolic link in the last path element, and touches neither a file with several links nor
/// anything that is not a regular file. False, with errno set, when the file is not so afterwards.
AUTHD_EXPORT bool restrictPermissions(const QString &path);

/// Parameters that tell the daemon which input a method asks for: "input-request-type" = `request`, an int.
AUTHD_EXPORT QMap<QString, QVariant> inputRequestParams(int request);

/// Parameters that tell the daemon the result of an attempt: "result-code" = `code`, an int.
AUTHD_EXPORT QMap<QString, QVariant> resultCodeParams(int code);

} // namespace LibAuthd
