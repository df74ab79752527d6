// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <systemd/sd-bus.h>

/// The service's interface for the bus, with `answer` for each method. The message that brings passwords and PINs is
/// overwritten before its memory is given back.
const sd_bus_vtable *authServiceInterface(sd_bus_message_handler_t answer);
