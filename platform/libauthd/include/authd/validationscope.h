// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <authd/authdexport.h>

#include <QFlags>
#include <QHash>
#include <QString>
#include <QStringList>

/// One rule that the daemon applies before it lets somebody outside the method write an option.
enum ValidationOption {
    /// Only root may write the option; the daemon refuses everybody else.
    RootOnly = 0x1,
    /// The new value must be of the type of the option's default value, or convert to it without loss.
    TypeOfDefault = 0x2,
    /// Nobody outside the method may write the option; only the method itself does.
    MethodOnly = 0x4
};
Q_DECLARE_FLAGS(ValidationOptions, ValidationOption)
Q_DECLARE_OPERATORS_FOR_FLAGS(ValidationOptions)

/// Which rules apply to which options or actions of a method. A value type; immutable once built.
class AUTHD_EXPORT ValidationScope
{
public:
    /// Rules by option: each entry names a set of rules and the options to which they apply.
    using Rules = QHash<QFlags<ValidationOption>, QStringList>;

    /// A scope without options: nothing in it may be written.
    ValidationScope() = default;
    /// A scope with the given rules. An option named by several entries is under the rules of all of them.
    ValidationScope(const Rules &rules);

    /// The table that this scope was built from.
    const Rules &rules() const;
    /// Whether any entry names `option`. An option that is in no entry may not be written from outside.
    bool contains(const QString &option) const;
    /// The rules that apply to `option`; no flags when it is not in this scope.
    QFlags<ValidationOption> rulesFor(const QString &option) const;

private:
    Rules m_rules;
};
