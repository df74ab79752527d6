// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <QString>

namespace Authd {

/// The path of the file in which the daemon stores the options of user `uid`.
Q_DECL_EXPORT QString getUserConfigFilePath(unsigned int uid);

} // namespace Authd
