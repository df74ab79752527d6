// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <authd/authplugininterface.h>

#include <QString>

#include <memory>
#include <vector>

/// A loaded authentication method and its metadata.
struct Method
{
    QString name;
    QString description;
    QString version;
    int priority = 0;
    std::unique_ptr<AuthPluginInterface> plugin;
};

/// Loads the methods in `directory`, sorted by descending priority and then by name. Skips, with a log entry, each file
/// that is not a method, and each method whose name is already taken.
std::vector<Method> loadMethods(const QString &directory);
