// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <QByteArray>

#include <array>
#include <iterator>
#include <vector>

#include <p11-kit/pkcs11.h>

/// A read-only session with a token. Finalising the module closes it. Functions that return CK_RV return PKCS#11's
/// error code.
class TokenSession
{
public:
    TokenSession(CK_FUNCTION_LIST *module, CK_SLOT_ID slot)
        : m_module(module)
        , m_error(module->C_OpenSession(slot, CKF_SERIAL_SESSION, nullptr, nullptr, &m_handle))
    {
    }

    /// Adds all visible objects.
    CK_RV find(std::vector<CK_OBJECT_HANDLE> &objects) const
    {
        CK_RV error = m_error == CKR_OK ? m_module->C_FindObjectsInit(m_handle, nullptr, 0) : m_error;
        if (error != CKR_OK)
            return error;
        CK_OBJECT_HANDLE some[256];
        CK_ULONG count = 0;
        do {
            error = m_module->C_FindObjects(m_handle, some, CK_ULONG(std::size(some)), &count);
            if (error == CKR_OK)
                objects.insert(objects.end(), some, some + count);
        } while (error == CKR_OK && count != 0);
        m_module->C_FindObjectsFinal(m_handle);
        return error;
    }

    /// Reads attributes of an object. Those that it lacks or hides are empty, and all are when the token fails.
    template <size_t count>
    std::array<QByteArray, count> read(CK_OBJECT_HANDLE object, const CK_ATTRIBUTE_TYPE (&types)[count]) const
    {
        std::array<QByteArray, count> values;
        for (QByteArray &value : values)
            value.resize(usualValueSize);
        bool loaded = load(object, types, values);
        if (!loaded) {
            // Ask for the sizes, and again with them.
            values = {};
            load(object, types, values);
            loaded = load(object, types, values);
        }
        return loaded ? values : std::array<QByteArray, count>();
    }

private:
    /// Sizes of attributes' values in bytes: most are shorter than the first, all than the second.
    static constexpr int usualValueSize = 4096;
    static constexpr CK_ULONG maximumValueSize = 1024 * 1024;

    /// Fills the values and gives them the attributes' lengths. Null values get only these.
    template <size_t count>
    bool load(CK_OBJECT_HANDLE object, const CK_ATTRIBUTE_TYPE (&types)[count],
              std::array<QByteArray, count> &values) const
    {
        CK_ATTRIBUTE attributes[count];
        for (size_t i = 0; i < count; ++i) {
            QByteArray &value = values.at(i);
            attributes[i] = {types[i], value.isNull() ? nullptr : value.data(), CK_ULONG(value.size())};
        }
        const CK_RV error = m_module->C_GetAttributeValue(m_handle, object, attributes, count);
        for (size_t i = 0; i < count; ++i) {
            const CK_ULONG length = attributes[i].ulValueLen; // the largest number if the attribute is unavailable
            values.at(i).resize(length <= maximumValueSize ? int(length) : 0);
        }
        return error == CKR_OK || error == CKR_ATTRIBUTE_TYPE_INVALID || error == CKR_ATTRIBUTE_SENSITIVE;
    }

    CK_FUNCTION_LIST *const m_module;
    CK_SESSION_HANDLE m_handle = 0;
    const CK_RV m_error; // initialised last, by opening the session

    Q_DISABLE_COPY(TokenSession)
};
