// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include "accounts.h"
#include "methods.h"

#include <QSet>

/// Reads and writes the methods' options for callers.
class MethodOptions
{
public:
    /// Both must outlive this object.
    MethodOptions(const Methods *methods, const Accounts *accounts);

    /// Returns the value of an option of `uid` (0: of the method as a whole) for the user `reader`. Only options that
    /// nobody outside may write can be computed: for those the method is asked first, and its value is used if it has
    /// the type of the default. All others come straight from the store.
    Reply option(uint reader, uint uid, const QString &method, const QString &option) const;
    /// Returns all options of `uid`, likewise.
    Reply options(uint reader, uint uid, const QString &method) const;
    /// Writes an option on behalf of the user `writer`, if the method's rules allow it.
    Reply setOption(uint writer, uint uid, const QString &method, const QString &option, const QVariant &value) const;

    /// Whether `reader` may read a method-wide option. Options that only the method writes come from its client, so
    /// only root and the user that the client runs for may read them.
    bool mayKnow(uint reader, const QString &method, const QString &option) const;

private:
    Reply check(uint uid, const QString &method) const;
    QVariant currentValue(uint reader, uint uid, const QString &method, const QString &option) const;

    const Methods *const m_methods;
    const Accounts *const m_accounts;
    /// The method-wide options that only the method writes, as pairs of method and option.
    QSet<QPair<QString, QString>> m_clients;
};
