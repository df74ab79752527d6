// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#include "secret.h"

#include "wipe.h"

#include <cstring>

namespace {

constexpr int stackSize = 64 * 1024;

} // namespace

SecretBytes::SecretBytes(QByteArray bytes)
    : m_bytes(std::move(bytes))
{
}

SecretBytes::~SecretBytes()
{
    Wipe::bytes(m_bytes);
}

__attribute__((noinline)) void wipeStack()
{
    char stack[stackSize];
    explicit_bzero(stack, sizeof(stack));
    // Copies of each size go through registers of their own.
    for (size_t size = 1; size <= sizeof(stack) / 2; size *= 2)
        memcpy(stack, stack + sizeof(stack) / 2, size);
    explicit_bzero(stack, sizeof(stack) / 2);
}
