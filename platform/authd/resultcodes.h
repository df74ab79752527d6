// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#pragma once

/// Decides which failures count as failed attempts of the user: those in which the client judged the user's input, and
/// no others. Anything else is not the user's fault, or somebody else could cause it to lock the user and have the
/// user's data removed.
namespace ResultCodes {

constexpr int None = -1;

struct Rule
{
    int code;
    bool isCounted;
    const char *reason;
};

/// The codes that methods use. Any other code is not counted.
constexpr Rule Rules[] = {
    {None, true, "the method rejected the input without giving a code"},
    {0, false, "no failure"},
    {1, true, "wrong password"},
    {2, false, "the encrypted partition is locked, so nothing was checked"},
    {3, false, "the client could not start"},
    {4, false, "the client could not be reached"},
    {5, false, "the client did not reply in time"},
    {6, false, "the client or the token is locked and rejects any input"},
    {7, true, "wrong input on the last attempt that the client allows"},
    {8, true, "the same, but no data is removed"},
    {9, false, "the token is not plugged in"},
    {10, false, "the token could not be reached"},
    {11, true, "wrong password, PIN or certificate"},
    {12, false, "the default certificate is unusable, whatever the PIN"},
    {13, false, "another user may not unlock, whatever the input"},
    {14, false, "the client does not accept this kind of secret"},
};

constexpr bool isCounted(int code)
{
    for (const Rule &rule : Rules) {
        if (rule.code == code)
            return rule.isCounted;
    }
    return false;
}

} // namespace ResultCodes
