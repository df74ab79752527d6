// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include "methodloader.h"
#include "reply.h"

#include <QStringList>

/// The loaded methods, in the order in which they are offered.
class Methods
{
public:
    explicit Methods(std::vector<Method> methods);

    QStringList names() const;
    /// The method's plugin, or null when there is no such method.
    AuthPluginInterface *find(const QString &name) const;
    /// Returns an error when there is no such method.
    Reply check(const QString &name) const;
    /// Returns a description of the method.
    Reply info(const QString &name) const;

    std::vector<Method>::const_iterator begin() const { return m_methods.cbegin(); }
    std::vector<Method>::const_iterator end() const { return m_methods.cend(); }

private:
    const std::vector<Method> m_methods;
};
