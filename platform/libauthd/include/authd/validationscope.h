// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <authd/authdexport.h>

#include <QFlags>
#include <QHash>
#include <QString>
#include <QStringList>

/// A rule that the daemon checks before a caller outside the method may write an option.
enum ValidationOption {
    /// Only root may write the option.
    RootOnly = 0x1,
    /// The new value must have the type of the option's default value, or convert to it without loss.
    TypeOfDefault = 0x2,
    /// Only the method itself may write the option.
    MethodOnly = 0x4
};
Q_DECLARE_FLAGS(ValidationOptions, ValidationOption)
Q_DECLARE_OPERATORS_FOR_FLAGS(ValidationOptions)

/// The rules for the options or actions of a method. An immutable value type.
class AUTHD_EXPORT ValidationScope
{
public:
    /// Each entry maps a set of rules to the options that they apply to.
    using Rules = QHash<QFlags<ValidationOption>, QStringList>;

    /// Creates a scope without options: nothing in it may be written.
    ValidationScope() = default;
    /// Creates a scope with the given rules. An option that appears in several entries is subject to all of their
    /// rules.
    ValidationScope(const Rules &rules);

    /// The rules that this scope was created with.
    const Rules &rules() const;
    /// Whether any entry names `option`. An option without an entry cannot be written from outside.
    bool contains(const QString &option) const;
    /// The rules that apply to `option`; none when it is not in this scope.
    QFlags<ValidationOption> rulesFor(const QString &option) const;

private:
    Rules m_rules;
};
