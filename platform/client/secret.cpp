// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#include "secret.h"

#include <cstring>

void wipe(const QString &text)
{
    explicit_bzero(const_cast<QChar *>(text.constData()), size_t(text.size()) * sizeof(QChar));
}

void wipe(QByteArray &bytes)
{
    // What is shared is overwritten too; data() would only give a copy of it.
    explicit_bzero(const_cast<char *>(bytes.constData()), size_t(bytes.size()));
    bytes.clear();
}
