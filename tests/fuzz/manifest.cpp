// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
// The client's manifest: what the platform reads, and what the plugin makes of it.
#include "fuzz.h"
#include "support/testdevice.h"

#include "client/childprocess.h"

#include <appmanifest/manifestentry.h>

#include <glib.h>

namespace {

using AppManifest::ManifestEntry;
using TestDevice::manifest;

constexpr char group[] = "X-Application";

bool isText(const std::string &text)
{
    return g_utf8_validate_len(text.data(), text.size(), nullptr);
}

bool areSame(const ManifestEntry &one, const ManifestEntry &other)
{
    return one.appName() == other.appName() && one.appOrgname() == other.appOrgname() && one.exec() == other.exec()
           && one.appPermissions() == other.appPermissions();
}

/// A manifest with the values of `entry`.
QByteArray written(const ManifestEntry &entry)
{
    g_autoptr(GKeyFile) file = g_key_file_new();
    g_key_file_set_string(file, group, "ApplicationName", entry.appName().c_str());
    g_key_file_set_string(file, group, "OrganizationName", entry.appOrgname().c_str());
    g_key_file_set_string(file, group, "ExecCmd", entry.exec().c_str());
    std::vector<const char *> permissions;
    for (const std::string &permission : entry.appPermissions())
        permissions.push_back(permission.c_str());
    g_key_file_set_string_list(file, group, "Permissions", permissions.data(), permissions.size());
    gsize size = 0;
    g_autofree char *text = g_key_file_to_data(file, &size, nullptr);
    return QByteArray(text, int(size));
}

} // namespace

int LLVMFuzzerInitialize(int *argc, char ***argv)
{
    Fuzz::start(argc, argv);
    // GLib warns that its own parser sets an error twice.
    g_log_set_default_handler([](const char *, GLogLevelFlags, const char *, void *) {}, nullptr);
    return 0;
}

int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    const QByteArray content = Fuzz::bytes(data, size);
    TestDevice::writeFile(manifest, content);
    const auto entry = ManifestEntry::fromFilename(manifest.toStdString());
    ChildProcess child(nullptr);
    REQUIRE(child.detectManifest() == entry.has_value());
    REQUIRE(child.manifestParsed == entry.has_value());
    if (!entry)
        return 0;

    REQUIRE(isText(content.toStdString()));
    for (const std::string &text : {entry->appName(), entry->appOrgname(), entry->exec()})
        REQUIRE(isText(text));
    for (const std::string &permission : entry->appPermissions())
        REQUIRE(isText(permission));
    REQUIRE(child.exec == QString::fromStdString(entry->exec()));
    REQUIRE(child.sharedDirectory.isEmpty() == (entry->appName().empty() || entry->appOrgname().empty()));

    TestDevice::writeFile(manifest, written(*entry));
    const auto again = ManifestEntry::fromFilename(manifest.toStdString());
    REQUIRE(again && areSame(*again, *entry));
    return 0;
}
