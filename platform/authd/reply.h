// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <QString>
#include <QVariant>

/// The result of a call: values, or an error with its D-Bus name and a message for people.
struct Reply
{
    QVariantList values;
    QString error;
    QString text;

    Reply(const QVariantList &result = {})
        : values(result)
    {
    }
    Reply(const QString &name, const QString &message)
        : error(name)
        , text(message)
    {
    }

    bool isError() const { return !error.isEmpty(); }
};
