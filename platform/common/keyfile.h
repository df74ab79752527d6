// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <QByteArray>
#include <QString>

#include <glib.h>
#include <memory>
#include <string>

/// A key file in memory that is parsed from, and written as, a whole file.
class KeyFile
{
public:
    /// An empty key file that is stored at `path`. Reads nothing.
    explicit KeyFile(const QByteArray &path);

    const QByteArray &path() const { return m_path; }
    GKeyFile *keys() const { return m_keys.get(); }

    /// Replaces all keys by those in `content`. On failure, returns false and sets `error`, if given, to the parser's
    /// message. That message may quote the content.
    bool parse(const std::string &content, GKeyFileFlags flags, QString *error = nullptr);
    /// Removes all keys.
    void clear();
    /// The content of the file that write() would create.
    QByteArray content() const;
    /// Replaces the file atomically, readable and writable by its owner alone. The change is durable when this returns
    /// true. On failure, returns false, leaves the file unchanged and sets `error`, or errno if `error` is null.
    bool write(QString *error = nullptr) const;

private:
    Q_DISABLE_COPY(KeyFile)

    const QByteArray m_path;
    std::unique_ptr<GKeyFile, void (*)(GKeyFile *)> m_keys;
};
