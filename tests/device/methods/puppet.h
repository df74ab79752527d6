// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <authd/authplugininterface.h>

/// A method that follows a script of words separated by spaces. The script is the value of "do" in the request's data
/// or in an option, or the value of "password", which a person can type on the page that this method shares with kavet.
///   succeed, finish (successfully), fail (without a code), fail:CODE, input    reports an outcome
///   restart, restart:UID      asks the daemon to restart the attempt
///   lock:SECONDS, unlock      locks or unlocks the user
///   lock0                     locks the user 0
///   event                     logs an event whose details try to break the line
///   long                      logs an event whose line is longer than a pipe takes at once
///   messages, fatal           writes Qt's messages of all levels, or ends the process with one
///   fork, fork:UID            forks an idle child that runs as the user
///   launch:UID                likewise, with root's privileges
///   unknown                   reports an option change with a value that the bus cannot carry
class Puppet : public AuthPluginInterface
{
    Q_OBJECT
    Q_PLUGIN_METADATA(IID "qarv.auth.puppet" FILE "method.json")
    Q_INTERFACES(AuthPluginInterface)

public:
    Puppet();
    /// Reports a success even while it is destroyed.
    ~Puppet() override;

    QString name() const override;
    const QMap<QString, QVariant> &defaultOptions(uint uid) override;
    QVariant getOption(uint uid, const QString &option) override;
    const ValidationScope &getOptionsValidations(uint uid) override;
    void handleOptionChanged(uint uid, const QString &option, const QVariant &value) override;
    const AuthUiPages &pages() const override;
    int types() const override { return 1; }
    QString getErrorMessage(int code) const override;
    void reset() override;
    void authenticate(uint uid, const QMap<QString, QVariant> &data) override;
    bool isAvailable(uint) override { return true; }
    void handleUserSessionTriggered(uint uid, bool started, bool manageClient) override;
    void handleUserLocked(uint uid, bool locked, const QString &reason, uint duration) override;
    QString getAuthData(const QMap<QString, QVariant> &) override { return QString(); }
    int increaseAttempts(uint uid) override;
    int getAttempts(uint uid) override;
    void resetAttempts(uint uid) override;

private:
    void perform(uint uid, const QString &script);

    QStringList m_told;
    QMap<uint, int> m_attempts;
};
