// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include "commandline.h"

/// The program's commands. The help text in commandline.cpp describes each of them.
namespace Commands {

ExitCode methods(Service &service, const Output &output, const Request &request);
ExitCode login(Service &service, const Output &output, const Request &request);
ExitCode state(Service &service, const Output &output, const Request &request);
ExitCode cancel(Service &service, const Output &output, const Request &request);
ExitCode options(Service &service, const Output &output, const Request &request);
ExitCode certs(Service &service, const Output &output, const Request &request);
ExitCode session(Service &service, const Output &output, const Request &request);
ExitCode unlock(Service &service, const Output &output, const Request &request);
ExitCode monitor(Service &service, const Output &output, const Request &request);

} // namespace Commands
