// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <QString>

/// Serves the socket `path` with an attack, forever. `attack` is one of
///   "yes"          replies "success" to every call and prints the call on standard output
///   "full"         has a full queue of connections and accepts none
///   "silent"       accepts, but never sends or reads anything
///   "trickle"      sends one byte of the handshake a second
///   "noise"        sends random bytes endlessly and reads nothing
///   "greeting"     sends handshake lines endlessly
///   "mute"         completes the handshake, then reads and sends nothing
///   "flood"        completes the handshake, then sends calls endlessly and reads nothing
///   "huge"         replies to the first call with a string of 100 MiB
///   "values"       replies to the first call with as many values as fit into 1 MiB
///   "returns"      replies to the first call with 1 MiB of empty replies to calls that were never made
///   "descriptors"  completes the handshake, then sends a hundred file descriptors
[[noreturn]] void serveHostile(const QString &path, const QString &attack);
