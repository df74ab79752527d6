// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#include "secret.h"

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
    // Overwrites also what is shared; data() would give a copy of it.
    explicit_bzero(const_cast<char *>(m_bytes.constData()), size_t(m_bytes.size()));
}

__attribute__((noinline)) void wipeStack()
{
    char stack[stackSize];
    explicit_bzero(stack, sizeof(stack));
}
