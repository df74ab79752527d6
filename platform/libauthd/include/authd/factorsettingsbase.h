// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <authd/authdexport.h>

#include <QObject>
#include <QScopedPointer>
#include <QVariant>

/// Base class of the settings object that a method's screens use in their own process. It reads the method's options
/// from the authentication service "qarv.AuthService" on the system bus and follows their changes.
class AUTHD_EXPORT FactorSettingsBase : public QObject
{
    Q_OBJECT

public:
    /// Creates the settings of the method `name`, owned by `parent`, and starts to follow changes. Without a system bus
    /// every option is absent.
    FactorSettingsBase(QObject *parent, const QString &name);
    ~FactorSettingsBase() override;

    /// The value of `option` of user `uid` (0: of the method as a whole), stored by the daemon or computed by the
    /// method. Blocks until the daemon replies. Returns an invalid variant when the daemon does not reply, refuses, or
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
