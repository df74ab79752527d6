// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#include "optionstore.h"

#include <authd/vocabulary.h>

#include "optionsize.h"
#include "platformlog.h"
#include "storedvalue.h"
#include "storefile.h"

#include <glib.h>

using namespace StoredValue;

namespace {

constexpr QLatin1String UsersDirectory = LibAuthd::Vocabulary::word("/var/lib/authd/users/");
constexpr QLatin1String MethodFile = LibAuthd::Vocabulary::word("/current.conf");
constexpr QLatin1String UserFileSuffix = LibAuthd::Vocabulary::word(".conf");

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
    if (OptionSize::isTooLong(value)) {
        // Not a warning: a user's files can supply such a value as often as the user likes.
        qCDebug(authdPlatform) << "The value of option" << m_method << uid << option << "is too long";
        return Failed;
    }
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

void OptionStore::removeUser(uint uid) const
{
    if (uid == 0 || !isMethodLegal())
        return;
    const StoreFile file(path(uid), StoreFile::LeaveMissing);
    if (file.isUsable() && g_key_file_remove_group(file.keys(), toUtf8(m_method)->c_str(), nullptr))
        file.save();
}

bool OptionStore::isMethodLegal() const
{
    if (!isKeyFileName(m_method) || m_method.contains(QLatin1Char('/')) || m_method == QLatin1String(".")
        || m_method == QLatin1String("..")) {
        qCWarning(authdPlatform) << "Invalid method name" << m_method;
        return false;
    }
    return true;
}

bool OptionStore::isLegal(const QString &option) const
{
    if (!isMethodLegal())
        return false;
    if (!isKeyFileName(option)) {
        qCWarning(authdPlatform) << "Invalid option name" << m_method << option;
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
