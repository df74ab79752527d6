// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#include <luks/libluks.h>

#include "regularfile.h"

#include <dlfcn.h>
#include <glib.h>
#include <libcryptsetup.h>

namespace LibLuks {

namespace {

constexpr char ConfigurationFile[] = "/etc/authd/luks.conf";
constexpr char GroupName[] = "Partition";
constexpr char DeviceKey[] = "Device";
constexpr std::size_t LargestFile = std::size_t(1024) * 1024;

void dropLog(int, const char *, void *) { }

template <typename Function>
Function *find(const char *name)
{
    return reinterpret_cast<Function *>(dlsym(RTLD_DEFAULT, name));
}

/// The functions of libcryptsetup. Where there is no encrypted partition, loading it and the libraries that it needs
/// would take most of the time and memory that loading the plugin costs.
struct Cryptsetup
{
    void *const library = dlopen("libcryptsetup.so.12", RTLD_NOW | RTLD_GLOBAL);
    decltype(crypt_set_log_callback) *const setLogCallback =
        find<decltype(crypt_set_log_callback)>("crypt_set_log_callback");
    decltype(crypt_status) *const status = find<decltype(crypt_status)>("crypt_status");
};

} // namespace

bool isDeviceActive()
{
    const std::optional<std::string> content = readRegularFile(ConfigurationFile, 0, LargestFile);
    if (!content)
        return errno == ENOENT;
    g_autoptr(GKeyFile) file = g_key_file_new();
    if (!g_key_file_load_from_data(file, content->data(), content->size(), G_KEY_FILE_NONE, nullptr))
        return false;
    // GLib returns a value with an unknown escape and sets the error.
    g_autoptr(GError) error = nullptr;
    g_autofree char *device = g_key_file_get_string(file, GroupName, DeviceKey, &error);
    if (error || !device || !*device)
        return false;

    const Cryptsetup cryptsetup;
    if (!cryptsetup.setLogCallback || !cryptsetup.status)
        return false;
    // Without a log callback, libcryptsetup prints to the standard streams of the process.
    cryptsetup.setLogCallback(nullptr, dropLog, nullptr);
    const crypt_status_info status = cryptsetup.status(nullptr, device);
    return status == CRYPT_ACTIVE || status == CRYPT_BUSY;
}

} // namespace LibLuks
