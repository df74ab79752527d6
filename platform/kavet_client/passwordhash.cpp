// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#include "passwordhash.h"

#include <cstring>
#include <memory>

#include <crypt.h>

namespace {

/// Returns an empty array when the password cannot be hashed with this setting.
QByteArray hashed(const char *password, const char *setting)
{
    const auto data = std::make_unique<struct crypt_data>(); // too large for the stack
    const char *hash = crypt_rn(password, setting, data.get(), int(sizeof(*data)));
    QByteArray result(hash);
    explicit_bzero(data.get(), sizeof(*data));
    return result;
}

} // namespace

const int PasswordHash::maximumLength = CRYPT_MAX_PASSPHRASE_SIZE - 1;

QByteArray PasswordHash::make(const QByteArray &password)
{
    char setting[CRYPT_GENSALT_OUTPUT_SIZE];
    // crypt() refuses a password that is too long, but would ignore everything after a null character.
    if (password.isEmpty() || password.contains('\0')
        || !crypt_gensalt_rn(nullptr, 0, nullptr, 0, setting, int(sizeof(setting))))
        return {};
    return hashed(password.constData(), setting);
}

bool PasswordHash::matches(const char *password, const QByteArray &hash)
{
    const QByteArray other = hashed(password, hash.constData());
    if (other.isEmpty() || other.size() != hash.size())
        return false;
    unsigned difference = 0;
    for (int i = 0; i < hash.size(); ++i)
        difference |= unsigned(other.at(i)) ^ unsigned(hash.at(i));
    return difference == 0;
}
