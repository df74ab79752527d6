// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <QString>
#include <QVariant>

/// The options of one method as they stand on disk: the method-wide ones (user id 0) in
/// "/var/lib/authd/methods/<name>/current.conf", those of a user in "/var/lib/authd/users/<uid>.conf". Both are key
/// files with one group per method and values in GVariant's text form.
///
/// Nothing is kept in memory: each call reads the file afresh, under a lock that holds other processes off. A file is
/// replaced whole, so that a crash leaves the old or the new one. A damaged file is set aside as "<file>.damaged" and
/// what is good in it is kept.
class OptionStore
{
public:
    enum Outcome {
        Failed, ///< With a warning and nothing changed.
        Unchanged, ///< The store has it so already; nothing was written.
        Stored ///< Durably.
    };

    explicit OptionStore(const QString &method);

    /// The stored value; an invalid variant when there is none.
    QVariant read(uint uid, const QString &option) const;
    /// Stores a value.
    Outcome write(uint uid, const QString &option, const QVariant &value) const;
    /// Forgets a value.
    Outcome remove(uint uid, const QString &option) const;
    /// Forgets all values of user `uid`; false, with a warning and nothing changed, when that fails. The method-wide
    /// options belong to no user and stay.
    bool removeUser(uint uid) const;

private:
    bool isMethodLegal() const;
    bool isLegal(const QString &option) const;
    QString path(uint uid) const;

    const QString m_method;
};
