// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#include "requestdata.h"

#include "errors.h"
#include "optionsize.h"
#include "wipe.h"

#include <QStringList>

namespace {

bool isTooLarge(const QVariant &value)
{
    if (value.userType() == QMetaType::QByteArray)
        return value.toByteArray().size() > RequestData::TextLimit;
    if (value.userType() == QMetaType::QString)
        return value.toString().size() > RequestData::TextLimit;
    if (value.userType() != QMetaType::QStringList)
        return false;
    const QStringList list = value.toStringList();
    if (list.size() > RequestData::EntryLimit)
        return true;
    for (const QString &text : list) {
        if (text.size() > RequestData::TextLimit)
            return true;
    }
    return false;
}

Reply tooLarge()
{
    return Reply(Errors::LimitsExceeded, QStringLiteral("The call has too much data"));
}

} // namespace

Reply RequestData::checkName(const QString &name)
{
    return name.size() > NameLimit ? tooLarge() : Reply();
}

Reply RequestData::checkData(const QVariantMap &data)
{
    if (data.size() > EntryLimit)
        return tooLarge();
    for (auto entry = data.cbegin(); entry != data.cend(); ++entry) {
        if (entry.key().size() > NameLimit || isTooLarge(entry.value()))
            return tooLarge();
    }
    return Reply();
}

Reply RequestData::checkValue(const QVariant &value)
{
    if (OptionSize::isTooLong(value))
        return Reply(Errors::LimitsExceeded, QStringLiteral("The value is too long"));
    return Reply();
}

void RequestData::wipe(const QVariant &value)
{
    if (value.userType() == QMetaType::QString) {
        Wipe::text(*static_cast<const QString *>(value.constData()));
    } else if (value.userType() == QMetaType::QByteArray) {
        Wipe::bytes(*static_cast<const QByteArray *>(value.constData()));
    } else if (value.userType() == QMetaType::QStringList) {
        for (const QString &text : *static_cast<const QStringList *>(value.constData()))
            Wipe::text(text);
    } else if (value.userType() == QMetaType::QVariantMap) {
        for (const QVariant &entry : *static_cast<const QVariantMap *>(value.constData()))
            wipe(entry);
    }
}

void RequestData::wipe(QVariantMap &data)
{
    for (const QVariant &value : qAsConst(data))
        wipe(value);
    data.clear();
}
