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
    explicit OptionStore(const QString &method);

    /// The stored value; an invalid variant when there is none.
    QVariant read(uint uid, const QString &option) const;
    /// Stores a value; false, with a warning and nothing changed, when it cannot be stored.
    bool write(uint uid, const QString &option, const QVariant &value) const;
    /// Forgets a value; false, with a warning and nothing changed, when that fails. A value that is not there is no
    /// error.
    bool remove(uint uid, const QString &option) const;
    /// Forgets all values of user `uid`; as remove(). The method-wide options belong to no user and stay.
    bool removeUser(uint uid) const;

private:
    bool isMethodLegal() const;
    bool isLegal(const QString &option) const;
    QString path(uint uid) const;

    const QString m_method;
};
