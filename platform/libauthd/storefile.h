// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include "keyfile.h"

#include <QString>

#include <string>
#include <unistd.h>

/// Closes its descriptor on destruction.
class DirectoryDescriptor
{
public:
    explicit DirectoryDescriptor(int fd)
        : m_fd(fd)
    {
    }
    ~DirectoryDescriptor()
    {
        if (isOpen())
            close(m_fd);
    }
    bool isOpen() const { return m_fd >= 0; }
    operator int() const { return m_fd; }

private:
    Q_DISABLE_COPY(DirectoryDescriptor)
    const int m_fd;
};

/// One file of the option store: locked against other processes and loaded for the lifetime of the object.
class StoreFile
{
public:
    enum Missing { LeaveMissing, MakeDirectory };

    StoreFile(const QString &path, Missing missing);

    /// False when the file's content is unknown, so that writing the file would lose data. A warning has been logged.
    bool isUsable() const { return m_usable; }
    GKeyFile *keys() const { return m_file.keys(); }

    /// Replaces the file with the content of keys(), or removes it when there is none. The change is durable when this
    /// returns true.
    bool save() const;

private:
    Q_DISABLE_COPY(StoreFile)

    static int open(const QString &directory, Missing missing);
    void warn(const char *what) const;
    void load();
    bool parse(const std::string &content);
    void dropRepeatedKeys();
    bool dropDamagedValues();
    bool setAside(int (*give)(const char *from, const char *to)) const;
    bool removeFile() const;
    void removeLeftovers() const;

    const QString m_path;
    KeyFile m_file;
    const DirectoryDescriptor m_directory;
    bool m_usable = false;
};
