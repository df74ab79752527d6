// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include "methodloader.h"
#include "reply.h"

#include <QStringList>

/// The loaded methods, in the order in which they are to be offered.
class Methods
{
public:
    explicit Methods(std::vector<Method> methods);

    QStringList names() const;
    /// The method's plugin; null when there is no such method.
    AuthPluginInterface *find(const QString &name) const;
    /// An error for a method that does not exist; none when it does.
    Reply check(const QString &name) const;
    /// What there is to know about a method.
    Reply info(const QString &name) const;

    std::vector<Method>::const_iterator begin() const { return m_methods.cbegin(); }
    std::vector<Method>::const_iterator end() const { return m_methods.cend(); }

private:
    const std::vector<Method> m_methods;
};
