// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#include <authd/validationscope.h>

ValidationScope::ValidationScope(const Rules &rules)
    : m_rules(rules)
{
}

const ValidationScope::Rules &ValidationScope::rules() const
{
    return m_rules;
}

bool ValidationScope::contains(const QString &option) const
{
    for (const QStringList &options : m_rules) {
        if (options.contains(option))
            return true;
    }
    return false;
}

QFlags<ValidationOption> ValidationScope::rulesFor(const QString &option) const
{
    QFlags<ValidationOption> result;
    for (auto entry = m_rules.cbegin(); entry != m_rules.cend(); ++entry) {
        if (entry.value().contains(option))
            result |= entry.key();
    }
    return result;
}
