// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#pragma once

/// Which failures count as failed attempts of the user: those in which the client has judged what the user entered, and
/// no others. What keeps the client from judging is not the user's doing, or can be brought about by somebody else, and
/// a user who is locked by it loses the data.
namespace ResultCodes {

constexpr int None = -1;

struct Rule
{
    int code;
    bool isCounted;
    const char *reason;
};

/// The codes by the numbers that methods use. A code that is not here is not counted.
constexpr Rule Rules[] = {
    {None, true, "the method only says that it refuses what was entered"},
    {0, false, "no failure"},
    {1, true, "wrong password"},
    {2, false, "the encrypted partition is locked, nothing was checked"},
    {3, false, "the client could not start"},
    {4, false, "the client could not be reached"},
    {5, false, "the client did not answer, or not in time"},
    {6, false, "the client or the token is locked and refuses whatever is entered"},
    {7, true, "what was entered was wrong, and it was the last attempt that the client allows"},
    {8, true, "the same, where nothing is removed for it"},
    {9, false, "the token is not plugged in"},
    {10, false, "the token could not be talked to"},
    {11, true, "wrong password, PIN or certificate"},
    {12, false, "the certificate to use by default is no good, whatever the PIN"},
    {13, false, "another user may not unlock, whatever is entered"},
    {14, false, "the client does not take this kind of secret"},
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
