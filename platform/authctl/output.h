// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include "failure.h"

#include <QJsonObject>
#include <QVariant>

/// Prints reports, each on one line: as text, in which nothing from outside does harm on a terminal, or as a JSON
/// object whose key "event" says what it is. A user id of 0 stands for the method as a whole, an attempt of 0 for none.
class Output
{
public:
    explicit Output(bool json)
        : m_json(json)
    {
    }

    void method(const QString &method, const QVariantMap &info) const;
    void state(qulonglong attempt, uint uid, const QString &state, const QVariantMap &details) const;
    void success(qulonglong attempt, uint uid, const QString &method) const;
    void failed(qulonglong attempt, uint uid, const QString &method, int code, const QString &name, bool isCounted,
                int attemptsLeft) const;
    void givenUp(qulonglong attempt, uint uid, const QString &method, const QString &reason) const;
    void option(uint uid, const QString &method, const QString &option, const QVariant &value) const;
    void cert(const QString &method, const QString &cert) const;
    void done(uint uid) const;
    /// Goes to standard error when it is text.
    void failure(const Failure &failure) const;

private:
    void print(const QString &text, const char *event, QJsonObject object) const;

    const bool m_json;
};
