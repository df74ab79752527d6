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

/// Serves one request of the client that has started it. Standard input is the channel. `module` is the token module
/// that the helper can load before its request comes; empty for those registered in the system. It is not read from the
/// settings then: Qt keeps what it has read, and may miss a change until the request.
extern const QString helperOption;
int runHelper(const QString &module);

} // namespace TokenProgram
