// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include "accounts.h"
#include "methods.h"

#include <QSet>

/// Answers for the methods' options.
class MethodOptions
{
public:
    /// Both must outlive this object.
    MethodOptions(const Methods *methods, const Accounts *accounts);

    /// The value of an option of `uid`, 0 for the method as a whole, for the user `reader`. Only an option that nobody
    /// outside may write can be one that the method computes: such a one is asked of the method, and counts when it is
    /// of the type of the default. Any other is read from the store, and asking costs the method nothing.
    Reply option(uint reader, uint uid, const QString &method, const QString &option) const;
    /// All options of `uid`, likewise.
    Reply options(uint reader, uint uid, const QString &method) const;
    /// Writes an option on behalf of the user `writer`, as the method's rules allow it.
    Reply setOption(uint writer, uint uid, const QString &method, const QString &option, const QVariant &value) const;

    /// Whether `reader` may know a method-wide option. What only the method writes comes from its client, and is for
    /// root and for the user whom the client serves.
    bool mayKnow(uint reader, const QString &method, const QString &option) const;

private:
    Reply check(uint uid, const QString &method) const;
    QVariant currentValue(uint reader, uint uid, const QString &method, const QString &option) const;

    const Methods *const m_methods;
    const Accounts *const m_accounts;
    /// The method-wide options that only the method writes, as method and option.
    QSet<QPair<QString, QString>> m_clients;
};
