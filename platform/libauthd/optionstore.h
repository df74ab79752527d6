// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <QString>
#include <QVariant>

/// The stored options of one method: the method-wide ones (user id 0) in "/var/lib/authd/methods/<name>/current.conf",
/// those of a user in "/var/lib/authd/users/<uid>.conf". Both are key files with one group per method and values in
/// GVariant's text form.
///
/// Nothing is cached: each call reads the file again, under a lock that excludes other processes. A file is replaced as
/// a whole, so a crash leaves either the old or the new one. A damaged file is kept as "<file>.damaged", and its
/// undamaged values stay in use.
class OptionStore
{
public:
    enum Outcome {
        Failed, ///< Nothing was changed, and a warning was logged.
        Unchanged, ///< The store already has this value; nothing was written.
        Stored ///< Written durably.
    };

    explicit OptionStore(const QString &method);

    /// The stored value; an invalid variant when there is none.
    QVariant read(uint uid, const QString &option) const;
    /// Stores a value. Fails without a warning when the value is too long, see OptionSize::isTooLong().
    Outcome write(uint uid, const QString &option, const QVariant &value) const;
    /// Removes a stored value.
    Outcome remove(uint uid, const QString &option) const;
    /// Removes all stored values of user `uid`. On failure, logs a warning and changes nothing. Does nothing for user
    /// id 0: the method-wide options belong to no user.
    void removeUser(uint uid) const;

private:
    bool isMethodLegal() const;
    bool isLegal(const QString &option) const;
    QString path(uint uid) const;

    const QString m_method;
};
