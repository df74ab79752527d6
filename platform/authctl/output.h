// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include "failure.h"

#include <QJsonObject>
#include <QVariant>

/// Prints reports, one per line: as text that is safe to show on a terminal, or as a JSON object whose key "event"
/// names the kind of report. Attempt 0 stands for none.
class Output
{
public:
    /// Whose options are those of the method as a whole.
    static constexpr uint NoUser = 0;

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
    /// Writes to standard error in text mode.
    void failure(const Failure &failure) const;

private:
    void print(const QString &text, const char *event, QJsonObject object) const;

    const bool m_json;
};
