// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#include "optionstore.h"

#include <authd/vocabulary.h>

#include "common/regularfile.h"
#include "platformlog.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QStringList>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <glib.h>
#include <limits>
#include <memory>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr int FileMode = S_IRUSR | S_IWUSR;
constexpr mode_t DirectoryMode = S_IRWXU;
constexpr QLatin1String UsersDirectory = LibAuthd::Vocabulary::word("/var/lib/authd/users/");
constexpr QLatin1String MethodFile = LibAuthd::Vocabulary::word("/current.conf");
constexpr QLatin1String UserFileSuffix = LibAuthd::Vocabulary::word(".conf");
// As the library that writes the file names its temporary ones.
constexpr QLatin1String TemporarySuffix = LibAuthd::Vocabulary::word(".??????");
constexpr char DamagedSuffix[] = ".damaged";

/// The text in UTF-8; absent when it cannot be written so (a zero character, half a surrogate pair).
std::optional<std::string> toUtf8(const QString &text)
{
    glong read = 0;
    g_autofree char *utf8 = g_utf16_to_utf8(text.utf16(), text.size(), &read, nullptr, nullptr);
    if (!utf8 || read != text.size())
        return std::nullopt;
    return utf8;
}

/// The text as it is; QString's own conversion would take a leading byte order mark away.
QString fromUtf8(const char *utf8)
{
    glong size = 0;
    g_autofree gunichar2 *utf16 = g_utf8_to_utf16(utf8, -1, nullptr, &size, nullptr);
    return QString(reinterpret_cast<const QChar *>(utf16), static_cast<int>(size));
}

/// The value as a floating reference; null when there is no form for it.
GVariant *toGVariant(const QVariant &value)
{
    switch (value.userType()) {
    case QMetaType::Bool:
        return g_variant_new_boolean(value.toBool());
    case QMetaType::Int:
        return g_variant_new_int32(value.toInt());
    case QMetaType::UInt:
        return g_variant_new_uint32(value.toUInt());
    case QMetaType::LongLong:
        return g_variant_new_int64(value.toLongLong());
    case QMetaType::ULongLong:
        return g_variant_new_uint64(value.toULongLong());
    case QMetaType::Double:
        return g_variant_new_double(value.toDouble());
    case QMetaType::QString: {
        const std::optional<std::string> text = toUtf8(value.toString());
        return text ? g_variant_new_string(text->c_str()) : nullptr;
    }
    case QMetaType::QStringList: {
        g_auto(GVariantBuilder) builder;
        g_variant_builder_init(&builder, G_VARIANT_TYPE_STRING_ARRAY);
        const QStringList list = value.toStringList();
        for (const QString &item : list) {
            const std::optional<std::string> text = toUtf8(item);
            if (!text)
                return nullptr;
            g_variant_builder_add(&builder, "s", text->c_str());
        }
        return g_variant_builder_end(&builder);
    }
    case QMetaType::QByteArray: {
        const QByteArray bytes = value.toByteArray();
        return g_variant_new_fixed_array(G_VARIANT_TYPE_BYTE, bytes.constData(), static_cast<gsize>(bytes.size()), 1);
    }
    default:
        return nullptr;
    }
}

/// The value in the store's form; absent when it has none from which the same value would come back.
std::optional<std::string> toStored(const QVariant &value)
{
    GVariant *variant = toGVariant(value);
    if (!variant)
        return std::nullopt;
    g_autoptr(GVariant) owned = g_variant_ref_sink(variant);
    g_autofree char *text = g_variant_print(owned, TRUE);
    // The parser takes no subnormal number.
    g_autoptr(GVariant) back = g_variant_parse(nullptr, text, nullptr, nullptr, nullptr);
    if (!back || !g_variant_equal(owned, back))
        return std::nullopt;
    return text;
}

/// The value of a text in the store's form; an invalid variant when it is none of those that toStored() takes.
QVariant fromStored(const char *text)
{
    g_autoptr(GVariant) value = g_variant_parse(nullptr, text, nullptr, nullptr, nullptr);
    if (!value)
        return QVariant();
    if (g_variant_is_of_type(value, G_VARIANT_TYPE_BOOLEAN))
        return g_variant_get_boolean(value) != FALSE;
    if (g_variant_is_of_type(value, G_VARIANT_TYPE_INT32))
        return g_variant_get_int32(value);
    if (g_variant_is_of_type(value, G_VARIANT_TYPE_UINT32))
        return g_variant_get_uint32(value);
    if (g_variant_is_of_type(value, G_VARIANT_TYPE_INT64))
        return qlonglong(g_variant_get_int64(value));
    if (g_variant_is_of_type(value, G_VARIANT_TYPE_UINT64))
        return qulonglong(g_variant_get_uint64(value));
    if (g_variant_is_of_type(value, G_VARIANT_TYPE_DOUBLE))
        return g_variant_get_double(value);
    if (g_variant_is_of_type(value, G_VARIANT_TYPE_STRING))
        return fromUtf8(g_variant_get_string(value, nullptr));
    if (g_variant_is_of_type(value, G_VARIANT_TYPE_STRING_ARRAY)) {
        QStringList list;
        const gsize count = g_variant_n_children(value);
        for (gsize i = 0; i < count; ++i) {
            g_autoptr(GVariant) child = g_variant_get_child_value(value, i);
            list.append(fromUtf8(g_variant_get_string(child, nullptr)));
        }
        return list;
    }
    if (g_variant_is_of_type(value, G_VARIANT_TYPE_BYTESTRING)) {
        gsize count = 0;
        const auto *bytes = static_cast<const char *>(g_variant_get_fixed_array(value, &count, 1));
        return QByteArray(bytes, static_cast<int>(count));
    }
    return QVariant();
}

/// Whether `name` can stand as a key or a group in a key file and come back unchanged.
bool isKeyFileName(const QString &name)
{
    const auto isForbidden = [](QChar c) {
        return c.category() == QChar::Other_Control || c == QLatin1Char('=') || c == QLatin1Char('[')
               || c == QLatin1Char(']');
    };
    return !name.isEmpty() && name == name.trimmed() && !name.startsWith(QLatin1Char('#'))
           && std::none_of(name.cbegin(), name.cend(), isForbidden) && toUtf8(name);
}

/// A descriptor that is closed at the end of its scope.
class Descriptor
{
public:
    explicit Descriptor(int fd)
        : m_fd(fd)
    {
    }
    ~Descriptor()
    {
        if (isOpen())
            close(m_fd);
    }
    bool isOpen() const { return m_fd >= 0; }
    operator int() const { return m_fd; }

private:
    Q_DISABLE_COPY(Descriptor)
    const int m_fd;
};

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
    const Descriptor parent(openDirectory(above));
    return parent.isOpen() && fsync(parent) == 0;
}

/// One file of the store, locked against other processes and read, for as long as the object lives.
class StoreFile
{
public:
    enum Missing { LeaveMissing, MakeDirectory };

    StoreFile(const QString &path, Missing missing)
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

    /// False, after a warning, when what the file holds is not known, so that writing it would lose that.
    bool isUsable() const { return m_usable; }
    GKeyFile *keys() const { return m_keys.get(); }

    /// Replaces the file by what keys() holds now, or removes it when that is nothing. Durable once this returns true.
    bool save() const
    {
        gsize groups = 0;
        [[maybe_unused]] g_auto(GStrv) names = g_key_file_get_groups(keys(), &groups);
        if (groups == 0 ? removeFile() : replace())
            return true;
        warn("Cannot write");
        return false;
    }

private:
    Q_DISABLE_COPY(StoreFile)

    static int open(const QString &directory, Missing missing)
    {
        if (missing == MakeDirectory && !makeDirectory(directory))
            return -1;
        return openDirectory(directory);
    }

    /// The reason is the system's, never the parser's: a parser quotes what it stumbles over.
    void warn(const char *what) const { qCWarning(authdPlatform) << what << m_path << std::strerror(errno); }

    void load()
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
            m_usable = setAside([](const char *from, const char *to) {
                return renameat2(AT_FDCWD, from, AT_FDCWD, to, RENAME_NOREPLACE);
            });
        } else {
            // The damaged file gets a second name before it is replaced, so that no crash loses what is good in it.
            m_usable = !dropDamagedValues() || (setAside(link) && save());
        }
    }

    bool parse(const std::string &content)
    {
        return g_utf8_validate_len(content.data(), content.size(), nullptr)
               && g_key_file_load_from_data(keys(), content.data(), content.size(),
                                            GKeyFileFlags(G_KEY_FILE_KEEP_COMMENTS | G_KEY_FILE_KEEP_TRANSLATIONS),
                                            nullptr);
    }

    /// Whether there were any.
    bool dropDamagedValues()
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

    /// Gives the file the first free name "<file>.damaged", "<file>.damaged.1", ... with `give`.
    bool setAside(int (*give)(const char *from, const char *to)) const
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

    bool removeFile() const { return (unlink(m_name.constData()) == 0 || errno == ENOENT) && fsync(m_directory) == 0; }

    bool replace() const
    {
        removeLeftovers();
        gsize size = 0;
        g_autofree char *content = g_key_file_to_data(keys(), &size, nullptr);
        constexpr auto flags = GFileSetContentsFlags(G_FILE_SET_CONTENTS_CONSISTENT | G_FILE_SET_CONTENTS_DURABLE);
        return g_file_set_contents_full(m_name.constData(), content, static_cast<gssize>(size), flags, FileMode,
                                        nullptr);
    }

    /// A writer that was killed leaves its temporary file behind; no living one has any while the lock is held.
    void removeLeftovers() const
    {
        const QFileInfo file(m_path);
        QDir directory(file.path());
        const QStringList names = directory.entryList({file.fileName() + TemporarySuffix}, QDir::Files | QDir::Hidden);
        for (const QString &name : names)
            directory.remove(name);
    }

    const QString m_path;
    const QByteArray m_name;
    std::unique_ptr<GKeyFile, void (*)(GKeyFile *)> m_keys;
    const Descriptor m_directory;
    bool m_usable = false;
};

} // namespace

OptionStore::OptionStore(const QString &method)
    : m_method(method)
{
}

QVariant OptionStore::read(uint uid, const QString &option) const
{
    if (!isLegal(option))
        return QVariant();
    const StoreFile file(path(uid), StoreFile::LeaveMissing);
    g_autofree char *text =
        g_key_file_get_value(file.keys(), toUtf8(m_method)->c_str(), toUtf8(option)->c_str(), nullptr);
    return text ? fromStored(text) : QVariant();
}

OptionStore::Outcome OptionStore::write(uint uid, const QString &option, const QVariant &value) const
{
    if (!isLegal(option))
        return Failed;
    const std::optional<std::string> stored = toStored(value);
    if (!stored) {
        qCWarning(authdPlatform) << "Cannot store the value of option" << m_method << uid << option << value.typeName();
        return Failed;
    }

    const StoreFile file(path(uid), StoreFile::MakeDirectory);
    if (!file.isUsable())
        return Failed;
    const std::string group = *toUtf8(m_method);
    const std::string key = *toUtf8(option);
    g_autofree char *present = g_key_file_get_value(file.keys(), group.c_str(), key.c_str(), nullptr);
    if (present && *stored == present)
        return Unchanged;
    g_key_file_set_value(file.keys(), group.c_str(), key.c_str(), stored->c_str());
    return file.save() ? Stored : Failed;
}

OptionStore::Outcome OptionStore::remove(uint uid, const QString &option) const
{
    if (!isLegal(option))
        return Failed;
    const StoreFile file(path(uid), StoreFile::LeaveMissing);
    if (!file.isUsable())
        return Failed;
    const std::string group = *toUtf8(m_method);
    if (!g_key_file_remove_key(file.keys(), group.c_str(), toUtf8(option)->c_str(), nullptr))
        return Unchanged;
    g_auto(GStrv) left = g_key_file_get_keys(file.keys(), group.c_str(), nullptr, nullptr);
    if (!*left)
        g_key_file_remove_group(file.keys(), group.c_str(), nullptr);
    return file.save() ? Stored : Failed;
}

bool OptionStore::removeUser(uint uid) const
{
    if (uid == 0)
        return true;
    if (!isMethodLegal())
        return false;
    const StoreFile file(path(uid), StoreFile::LeaveMissing);
    if (!file.isUsable())
        return false;
    return !g_key_file_remove_group(file.keys(), toUtf8(m_method)->c_str(), nullptr) || file.save();
}

bool OptionStore::isMethodLegal() const
{
    if (!isKeyFileName(m_method) || m_method.contains(QLatin1Char('/')) || m_method == QLatin1String(".")
        || m_method == QLatin1String("..")) {
        qCWarning(authdPlatform) << "Not a name for a method" << m_method;
        return false;
    }
    return true;
}

bool OptionStore::isLegal(const QString &option) const
{
    if (!isMethodLegal())
        return false;
    if (!isKeyFileName(option)) {
        qCWarning(authdPlatform) << "Not a name for an option" << m_method << option;
        return false;
    }
    return true;
}

QString OptionStore::path(uint uid) const
{
    if (uid != 0)
        return UsersDirectory + QString::number(uid) + UserFileSuffix;
    return LibAuthd::Vocabulary::MethodsDirectory + m_method + MethodFile;
}
