// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <QString>

/// Serves the socket `path` in a way that means harm, for ever. `attack` is one of
///   "yes"          answers "success" to every call, and tells on standard output what it was asked
///   "full"         its queue of connections is full, and it accepts none
///   "silent"       accepts, and never says or reads anything
///   "trickle"      sends one byte of the handshake a second
///   "noise"        sends random bytes without end and reads nothing
///   "greeting"     sends lines of the handshake without end
///   "mute"         completes the handshake, then reads and says nothing
///   "flood"        completes the handshake, then sends calls without end and reads nothing
///   "huge"         answers the first call with a text of 100 MiB
///   "values"       answers the first call with as many values as fit into 1 MiB
///   "returns"      answers the first call with as many empty replies, to nothing, as fit into 1 MiB
///   "descriptors"  completes the handshake, then sends a hundred file descriptors
[[noreturn]] void serveHostile(const QString &path, const QString &attack);
