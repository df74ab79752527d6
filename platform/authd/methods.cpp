// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#include "methods.h"

#include "errors.h"

#include <authd/vocabulary.h>

#include <algorithm>

namespace Vocabulary = LibAuthd::Vocabulary;

Methods::Methods(std::vector<Method> methods)
    : m_methods(std::move(methods))
{
}

QStringList Methods::names() const
{
    QStringList names;
    for (const Method &method : m_methods)
        names << method.name;
    return names;
}

AuthPluginInterface *Methods::find(const QString &name) const
{
    const auto method =
        std::find_if(begin(), end(), [&name](const Method &candidate) { return candidate.name == name; });
    return method == end() ? nullptr : method->plugin.get();
}

Reply Methods::check(const QString &name) const
{
    return find(name) ? Reply() : Reply(Errors::NoSuchMethod, QStringLiteral("No such method"));
}

Reply Methods::info(const QString &name) const
{
    const auto method =
        std::find_if(begin(), end(), [&name](const Method &candidate) { return candidate.name == name; });
    if (method == end())
        return check(name);
    const AuthUiPages &pages = method->plugin->pages();
    return Reply({QVariantMap{{QStringLiteral("description"), method->description},
                              {QStringLiteral("version"), method->version},
                              {QStringLiteral("priority"), method->priority},
                              {QStringLiteral("types"), method->plugin->types()},
                              {QStringLiteral("available"), method->plugin->isAvailable(0)},
                              {Vocabulary::AuthPage, pages.authPage},
                              {Vocabulary::PrePage, pages.prePage},
                              {Vocabulary::InfoPage, pages.infoPage}}});
}
