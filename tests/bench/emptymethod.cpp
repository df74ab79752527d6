// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#include <authd/authplugininterface.h>
#include <authd/validationscope.h>

/// A method that does nothing.
class EmptyMethod : public AuthPluginInterface
{
    Q_OBJECT
    Q_PLUGIN_METADATA(IID "qarv.auth.empty" FILE "emptymethod.json")
    Q_INTERFACES(AuthPluginInterface)

public:
    EmptyMethod()
        : AuthPluginInterface(QStringLiteral("empty"))
    {
    }
    QString name() const override { return QStringLiteral("empty"); }
    const QMap<QString, QVariant> &defaultOptions(uint) override { return m_options; }
    QVariant getOption(uint, const QString &) override { return {}; }
    const ValidationScope &getOptionsValidations(uint) override { return m_validations; }
    const AuthUiPages &pages() const override { return m_pages; }
    int types() const override { return 0; }
    QString getErrorMessage(int) const override { return {}; }
    void reset() override { }
    void authenticate(uint, const QMap<QString, QVariant> &) override { }
    bool isAvailable(uint) override { return false; }
    void handleUserSessionTriggered(uint, bool, bool) override { }
    QString getAuthData(const QMap<QString, QVariant> &) override { return {}; }
    int increaseAttempts(uint) override { return 0; }
    int getAttempts(uint) override { return 0; }
    void resetAttempts(uint) override { }

private:
    const QMap<QString, QVariant> m_options;
    const ValidationScope m_validations;
    const AuthUiPages m_pages;
};

#include "emptymethod.moc"
