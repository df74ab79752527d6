// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <QString>

/// What the client's program does with tokens when it is started with one of these options. The functions return the
/// exit code.
namespace TokenProgram {

/// Lists the certificates, for a person.
extern const QString listOption;
int runList();

/// Serves one request of the client that has started it. Standard input is the channel.
extern const QString helperOption;
int runHelper();

} // namespace TokenProgram
