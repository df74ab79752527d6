// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include "bus.h"

/// Whether the login manager knows a session of the user that is not closing, other than the session `own`. Without a
/// login manager, the answer is no.
bool hasOtherSession(Bus &bus, std::uint32_t uid, const std::string &own);
