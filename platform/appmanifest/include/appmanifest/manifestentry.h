// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <optional>
#include <string>
#include <vector>

namespace AppManifest {

/// The group "X-Application" of an application's desktop file. This is a value type. Every string is UTF-8. A string is
/// empty if its key is missing or its value has an escape that key files do not define.
class __attribute__((visibility("default"))) ManifestEntry
{
public:
    /// Reads the desktop file `path` (UTF-8). Follows symbolic links. Returns nothing when the file cannot be opened,
    /// is not a regular file, is larger than 1 MiB, is not a key file in UTF-8, or has no group "X-Application".
    static std::optional<ManifestEntry> fromFilename(const std::string &path);

    /// Key "ApplicationName".
    const std::string &appName() const { return m_appName; }
    /// Key "OrganizationName".
    const std::string &appOrgname() const { return m_appOrgname; }
    /// Key "ExecCmd": the complete command line.
    const std::string &exec() const { return m_exec; }
    /// Key "Permissions": the names in file order; the file separates them by ";".
    const std::vector<std::string> &appPermissions() const { return m_appPermissions; }

private:
    ManifestEntry() = default;

    std::string m_appName;
    std::string m_appOrgname;
    std::string m_exec;
    std::vector<std::string> m_appPermissions;
};

} // namespace AppManifest
