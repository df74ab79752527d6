// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <authd/authplugininterface.h>

#include <QString>

#include <memory>
#include <vector>

/// A loaded authentication method, with what its metadata say about it.
struct Method
{
    QString name;
    QString description;
    QString version;
    int priority = 0;
    std::unique_ptr<AuthPluginInterface> plugin;
};

/// Loads the methods among the files of `directory`, the highest priority first, equal ones by name. A file that is no
/// method is refused with a line in the log and left out; so is a method whose name is taken by one loaded before it.
std::vector<Method> loadMethods(const QString &directory);
