// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <QByteArray>
#include <QString>

#include <glib.h>
#include <memory>
#include <string>
#include <unistd.h>

/// A descriptor that is closed at the end of its scope.
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

/// One file of the store, locked against other processes and read, for as long as the object lives.
class StoreFile
{
public:
    enum Missing { LeaveMissing, MakeDirectory };

    StoreFile(const QString &path, Missing missing);

    /// False, after a warning, when what the file holds is not known, so that writing it would lose that.
    bool isUsable() const { return m_usable; }
    GKeyFile *keys() const { return m_keys.get(); }

    /// Replaces the file by what keys() holds now, or removes it when that is nothing. Durable once this returns true.
    bool save() const;

private:
    Q_DISABLE_COPY(StoreFile)

    static int open(const QString &directory, Missing missing);
    void warn(const char *what) const;
    void load();
    bool parse(const std::string &content);
    bool dropDamagedValues();
    bool setAside(int (*give)(const char *from, const char *to)) const;
    bool removeFile() const;
    bool replace() const;
    void removeLeftovers() const;

    const QString m_path;
    const QByteArray m_name;
    std::unique_ptr<GKeyFile, void (*)(GKeyFile *)> m_keys;
    const DirectoryDescriptor m_directory;
    bool m_usable = false;
};
