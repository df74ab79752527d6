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

/// Makes sure that `path` is a regular file that only its owner may read and write (mode 0600). Creates an empty file
/// if it is missing. Never follows a symbolic link in the last path element, and leaves files with several links and
/// anything but regular files untouched. Returns false, with errno set, on failure.
AUTHD_EXPORT bool restrictPermissions(const QString &path);

/// Parameters that report the input that a method asks for: "input-request-type" = `request`, an int.
AUTHD_EXPORT QMap<QString, QVariant> inputRequestParams(int request);

/// Parameters that report the result of an attempt: "result-code" = `code`, an int.
AUTHD_EXPORT QMap<QString, QVariant> resultCodeParams(int code);

} // namespace LibAuthd
