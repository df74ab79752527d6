// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#include "keyfile.h"

#include <sys/stat.h>

KeyFile::KeyFile(const QByteArray &path)
    : m_path(path)
    , m_keys(g_key_file_new(), g_key_file_free)
{
}

bool KeyFile::parse(const std::string &content, GKeyFileFlags flags, QString *error)
{
    g_autoptr(GError) problem = nullptr;
    if (g_key_file_load_from_data(keys(), content.data(), content.size(), flags, &problem))
        return true;
    if (error)
        *error = QString::fromUtf8(problem->message);
    return false;
}

void KeyFile::clear()
{
    m_keys.reset(g_key_file_new());
}

QByteArray KeyFile::content() const
{
    gsize size = 0;
    g_autofree char *data = g_key_file_to_data(keys(), &size, nullptr);
    return QByteArray(data, int(size));
}

bool KeyFile::write(QString *error) const
{
    constexpr auto flags = GFileSetContentsFlags(G_FILE_SET_CONTENTS_CONSISTENT | G_FILE_SET_CONTENTS_DURABLE);
    constexpr int ownerOnly = S_IRUSR | S_IWUSR;
    const QByteArray data = content();
    g_autoptr(GError) problem = nullptr;
    // Ask for GLib's message only if it is wanted, because composing it overwrites errno.
    if (g_file_set_contents_full(m_path.constData(), data.constData(), data.size(), flags, ownerOnly,
                                 error ? &problem : nullptr))
        return true;
    if (error)
        *error = QString::fromUtf8(problem->message);
    return false;
}
