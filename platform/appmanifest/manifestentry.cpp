// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#include <appmanifest/manifestentry.h>

#include "regularfile.h"

#include <glib.h>

namespace AppManifest {

namespace {

constexpr char GroupName[] = "X-Application";
constexpr char ApplicationName[] = "ApplicationName";
constexpr char OrganizationName[] = "OrganizationName";
constexpr char ExecCmd[] = "ExecCmd";
constexpr char Permissions[] = "Permissions";
constexpr std::size_t LargestFile = std::size_t(1024) * 1024;

std::string text(GKeyFile *file, const char *key)
{
    // GLib returns a value with an unknown escape and sets the error.
    g_autoptr(GError) error = nullptr;
    g_autofree char *value = g_key_file_get_string(file, GroupName, key, &error);
    return value && !error ? value : std::string();
}

std::vector<std::string> list(GKeyFile *file, const char *key)
{
    g_auto(GStrv) values = g_key_file_get_string_list(file, GroupName, key, nullptr, nullptr);
    std::vector<std::string> result;
    for (char **value = values; value && *value; ++value)
        result.emplace_back(*value);
    return result;
}

} // namespace

std::optional<ManifestEntry> ManifestEntry::fromFilename(const std::string &path)
{
    const std::optional<std::string> content = readRegularFile(path, 0, LargestFile);
    if (!content || !g_utf8_validate_len(content->data(), content->size(), nullptr))
        return std::nullopt;
    g_autoptr(GKeyFile) file = g_key_file_new();
    if (!g_key_file_load_from_data(file, content->data(), content->size(), G_KEY_FILE_NONE, nullptr)
        || !g_key_file_has_group(file, GroupName))
        return std::nullopt;

    ManifestEntry entry;
    entry.m_appName = text(file, ApplicationName);
    entry.m_appOrgname = text(file, OrganizationName);
    entry.m_exec = text(file, ExecCmd);
    entry.m_appPermissions = list(file, Permissions);
    return entry;
}

} // namespace AppManifest
