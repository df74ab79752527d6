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

constexpr int FileMode = S_IRUSR | S_IWUSR;
constexpr mode_t DirectoryMode = S_IRWXU;
// As the library that writes the file names its temporary ones.
constexpr QLatin1String TemporarySuffix = LibAuthd::Vocabulary::word(".??????");
constexpr char DamagedSuffix[] = ".damaged";

int openDirectory(const QString &path)
{
    return open(QFile::encodeName(path).constData(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
}

/// Makes the directory `path` and those above it that are missing, each on disk before the next.
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
    , m_name(QFile::encodeName(path))
    , m_keys(g_key_file_new(), g_key_file_free)
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
    if (groups == 0 ? removeFile() : replace())
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

// The reason is the system's, never the parser's: a parser quotes what it stumbles over.
void StoreFile::warn(const char *what) const
{
    qCWarning(authdPlatform) << what << m_path << std::strerror(errno);
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
        readRegularFile(m_name.toStdString(), O_NOFOLLOW, std::numeric_limits<std::size_t>::max());
    if (!content && errno == ENOENT) {
        m_usable = true;
    } else if (!content && errno != EINVAL) {
        warn("Cannot read");
    } else if (!content || !parse(*content)) {
        qCWarning(authdPlatform) << "Not a key file" << m_path;
        m_keys.reset(g_key_file_new());
        m_usable = setAside(
            [](const char *from, const char *to) { return renameat2(AT_FDCWD, from, AT_FDCWD, to, RENAME_NOREPLACE); });
    } else {
        // The damaged file gets a second name before it is replaced, so that no crash loses what is good in it.
        m_usable = !dropDamagedValues() || (setAside(link) && save());
    }
}

bool StoreFile::parse(const std::string &content)
{
    return g_utf8_validate_len(content.data(), content.size(), nullptr)
           && g_key_file_load_from_data(keys(), content.data(), content.size(),
                                        GKeyFileFlags(G_KEY_FILE_KEEP_COMMENTS | G_KEY_FILE_KEEP_TRANSLATIONS),
                                        nullptr);
}

// Whether there were any.
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

// Gives the file the first free name "<file>.damaged", "<file>.damaged.1", ... with `give`.
bool StoreFile::setAside(int (*give)(const char *from, const char *to)) const
{
    QByteArray name = m_name + DamagedSuffix;
    for (int number = 1; give(m_name.constData(), name.constData()) != 0; ++number) {
        if (errno != EEXIST) {
            warn("Cannot set aside");
            return false;
        }
        name = m_name + DamagedSuffix + '.' + QByteArray::number(number);
    }
    qCWarning(authdPlatform) << "Set aside as" << QFile::decodeName(name);
    return true;
}

bool StoreFile::removeFile() const
{
    return (unlink(m_name.constData()) == 0 || errno == ENOENT) && fsync(m_directory) == 0;
}

bool StoreFile::replace() const
{
    removeLeftovers();
    gsize size = 0;
    g_autofree char *content = g_key_file_to_data(keys(), &size, nullptr);
    constexpr auto flags = GFileSetContentsFlags(G_FILE_SET_CONTENTS_CONSISTENT | G_FILE_SET_CONTENTS_DURABLE);
    return g_file_set_contents_full(m_name.constData(), content, static_cast<gssize>(size), flags, FileMode, nullptr);
}

// A writer that was killed leaves its temporary file behind; no living one has any while the lock is held.
void StoreFile::removeLeftovers() const
{
    const QFileInfo file(m_path);
    QDir directory(file.path());
    const QStringList names = directory.entryList({file.fileName() + TemporarySuffix}, QDir::Files | QDir::Hidden);
    for (const QString &name : names)
        directory.remove(name);
}
