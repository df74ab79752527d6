// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <authd/authdexport.h>

#include <QObject>
#include <QScopedPointer>
#include <QVariant>

/// Base of the settings object that a method's screens use in a process of their own. Reads the method's options over
/// the authentication service "qarv.AuthService" on the system bus and follows their changes.
class AUTHD_EXPORT FactorSettingsBase : public QObject
{
    Q_OBJECT

public:
    /// Settings of the method `name`, owned by `parent`. Changes are followed from the start. Without a system bus the
    /// object works, but every option is absent.
    FactorSettingsBase(QObject *parent, const QString &name);
    ~FactorSettingsBase() override;

    /// The value of `option` of user `uid` (0: of the method as a whole) in the daemon's option store, or as the method
    /// computes it. Waits for the daemon's answer. An invalid variant when the daemon does not answer, refuses, or
    /// knows no such option.
    QVariant getOption(uint uid, const QString &option) const;

protected:
    /// Called when the daemon reports that an option of the method changed. The base does nothing.
    virtual void handleOptionChanged(uint uid, const QString &option, const QVariant &value);

private:
    class Private;
    const QScopedPointer<Private> d;

    Q_DISABLE_COPY(FactorSettingsBase)
};
