// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <QString>
#include <QVariant>

/// What a call of the service comes to: values, or an error with its name on the bus and a text for people.
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
