// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <cstdlib>
#include <cstring>
#include <memory>

/// Overwrites a string from malloc() with zeros and frees it.
struct WipeAndFree
{
    void operator()(char *secret) const
    {
        explicit_bzero(secret, std::strlen(secret));
        std::free(secret);
    }
};

/// What a person has entered; empty if there is none.
using Secret = std::unique_ptr<char, WipeAndFree>;
