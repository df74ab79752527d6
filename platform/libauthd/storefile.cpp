// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#include "storefile.h"

#include "platformlog.h"
#include "regularfile.h"
#include "storedvalue.h"

#include <authd/vocabulary.h>

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QMap>
#include <QStringList>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <limits>
#include <sys/file.h>
#include <sys/stat.h>

using StoredValue::fromStored;
using StoredValue::fromUtf8;

namespace {

constexpr mode_t DirectoryMode = S_IRWXU;
// The suffix that GLib gives to its temporary files
constexpr QLatin1String TemporarySuffix = LibAuthd::Vocabulary::word(".??????");
constexpr char DamagedSuffix[] = ".damaged";

int openDirectory(const QString &path)
{
    return open(QFile::encodeName(path).constData(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
}

/// Creates the directory `path` and its missing parents, each synced to disk before the next.
bool makeDirectory(const QString &path)
{
    const QByteArray name = QFile::encodeName(path);
    const QString above = QFileInfo(path).path();
    int made = mkdir(name.constData(), DirectoryMode);
    if (made != 0 && errno == ENOENT && makeDirectory(above))
        made = mkdir(name.constData(), DirectoryMode);
    if (made != 0)
        return errno == EEXIST;
    const DirectoryDescriptor parent(openDirectory(above));
    return parent.isOpen() && fsync(parent) == 0;
}

} // namespace

StoreFile::StoreFile(const QString &path, Missing missing)
    : m_path(path)
    , m_file(QFile::encodeName(path))
    , m_directory(open(QFileInfo(path).path(), missing))
{
    if (m_directory.isOpen())
        load();
    else if (errno == ENOENT && missing == LeaveMissing)
        m_usable = true;
    else
        warn("Cannot open the directory of");
}

bool StoreFile::save() const
{
    gsize groups = 0;
    [[maybe_unused]] g_auto(GStrv) names = g_key_file_get_groups(keys(), &groups);
    removeLeftovers();
    if (groups > 0 ? m_file.write() : removeFile())
        return true;
    warn("Cannot write");
    return false;
}

int StoreFile::open(const QString &directory, Missing missing)
{
    if (missing == MakeDirectory && !makeDirectory(directory))
        return -1;
    return openDirectory(directory);
}

// Logs errno's message. Never log a parser's message: it quotes the file's content.
void StoreFile::warn(const char *what) const
{
    const int error = errno; // A process's first message overwrites it: Qt looks for logging rules.
    qCWarning(authdPlatform) << what << m_path << std::strerror(error);
}

void StoreFile::load()
{
    int locked = 0;
    do
        locked = flock(m_directory, LOCK_EX);
    while (locked != 0 && errno == EINTR);
    if (locked != 0) {
        warn("Cannot lock the directory of");
        return;
    }

    const std::optional<std::string> content =
        readRegularFile(m_file.path().toStdString(), O_NOFOLLOW, std::numeric_limits<std::size_t>::max());
    if (!content && errno == ENOENT) {
        m_usable = true;
    } else if (!content && errno != EINVAL) {
        warn("Cannot read");
    } else if (!content || !parse(*content)) {
        qCWarning(authdPlatform) << "Not a key file" << m_path;
        m_file.clear();
        m_usable = setAside(
            [](const char *from, const char *to) { return renameat2(AT_FDCWD, from, AT_FDCWD, to, RENAME_NOREPLACE); });
    } else {
        dropRepeatedKeys();
        // Give the damaged file a second name before replacing it, so that a crash cannot lose its undamaged values.
        m_usable = !dropDamagedValues() || (setAside(link) && save());
    }
}

bool StoreFile::parse(const std::string &content)
{
    return g_utf8_validate_len(content.data(), content.size(), nullptr)
           && m_file.parse(content, GKeyFileFlags(G_KEY_FILE_KEEP_COMMENTS | G_KEY_FILE_KEEP_TRANSLATIONS));
}

// Keeps the last value of each key. GLib keeps all of them, and after the last is removed an earlier one would be
// valid.
void StoreFile::dropRepeatedKeys()
{
    g_auto(GStrv) groups = g_key_file_get_groups(keys(), nullptr);
    for (char **group = groups; *group; ++group) {
        gsize count = 0;
        g_auto(GStrv) options = g_key_file_get_keys(keys(), *group, &count, nullptr);
        QMap<QByteArray, QByteArray> values;
        for (char **option = options; *option; ++option) {
            g_autofree char *value = g_key_file_get_value(keys(), *group, *option, nullptr);
            values.insert(*option, value);
        }
        if (values.size() == int(count))
            continue;
        g_key_file_remove_group(keys(), *group, nullptr);
        for (auto value = values.cbegin(); value != values.cend(); ++value)
            g_key_file_set_value(keys(), *group, value.key().constData(), value.value().constData());
    }
}

// Returns whether there were any.
bool StoreFile::dropDamagedValues()
{
    bool found = false;
    g_auto(GStrv) groups = g_key_file_get_groups(keys(), nullptr);
    for (char **group = groups; *group; ++group) {
        g_auto(GStrv) options = g_key_file_get_keys(keys(), *group, nullptr, nullptr);
        for (char **option = options; option && *option; ++option) {
            g_autofree char *text = g_key_file_get_value(keys(), *group, *option, nullptr);
            if (text && fromStored(text).isValid())
                continue;
            qCWarning(authdPlatform) << "Damaged value" << m_path << fromUtf8(*group) << fromUtf8(*option);
            g_key_file_remove_key(keys(), *group, *option, nullptr);
            found = true;
        }
    }
    return found;
}

// Gives the file the first free name of "<file>.damaged", "<file>.damaged.1", ... by calling `give`.
bool StoreFile::setAside(int (*give)(const char *from, const char *to)) const
{
    QByteArray name = m_file.path() + DamagedSuffix;
    for (int number = 1; give(m_file.path().constData(), name.constData()) != 0; ++number) {
        if (errno != EEXIST) {
            warn("Cannot set aside");
            return false;
        }
        name = m_file.path() + DamagedSuffix + '.' + QByteArray::number(number);
    }
    qCWarning(authdPlatform) << "Set aside as" << QFile::decodeName(name);
    return true;
}

bool StoreFile::removeFile() const
{
    return unlink(m_file.path().constData()) == 0 && fsync(m_directory) == 0;
}

// A writer that was killed leaves its temporary file behind. While we hold the lock, no other writer is at work.
void StoreFile::removeLeftovers() const
{
    const QFileInfo file(m_path);
    QDir directory(file.path());
    const QStringList names = directory.entryList({file.fileName() + TemporarySuffix}, QDir::Files);
    for (const QString &name : names)
        directory.remove(name);
}
