// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <optional>
#include <string>
#include <vector>

namespace AppManifest {

/// What a desktop application says of itself in the group "X-Application" of its desktop file. A value type; every text
/// is UTF-8, and one whose key is missing or whose value has an escape that key files do not know is empty.
class __attribute__((visibility("default"))) ManifestEntry
{
public:
    /// Reads the desktop file `path` (UTF-8), following symbolic links. Absent when the file cannot be opened, is not a
    /// regular file, is larger than a desktop file can sensibly be (1 MiB), is not a key file in UTF-8, or has no group
    /// "X-Application".
    static std::optional<ManifestEntry> fromFilename(const std::string &path);

    /// Key "ApplicationName".
    const std::string &appName() const { return m_appName; }
    /// Key "OrganizationName".
    const std::string &appOrgname() const { return m_appOrgname; }
    /// Key "ExecCmd": the command line, whole.
    const std::string &exec() const { return m_exec; }
    /// Key "Permissions": the names in their order, separated by ";" in the file.
    const std::vector<std::string> &appPermissions() const { return m_appPermissions; }

private:
    ManifestEntry() = default;

    std::string m_appName;
    std::string m_appOrgname;
    std::string m_exec;
    std::vector<std::string> m_appPermissions;
};

} // namespace AppManifest
