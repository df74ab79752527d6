// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <QByteArrayList>
#include <QStringList>

#include <vector>

/// Lets this process act as alice, and so the programs that it starts, for the lifetime of the object.
class AsAlice
{
public:
    AsAlice();
    ~AsAlice();

private:
    Q_DISABLE_COPY(AsAlice)
};

/// SSSD's program for one call to a token. The module of the soft tokens is the only one that it loads.
class P11Child
{
public:
    explicit P11Child(const QStringList &arguments, QByteArray input = {});

    /// Prepares p11-kit's configuration of alice.
    static void prepare();
    /// Runs the program until it ends. Returns its output, which is null on failure.
    QByteArray run();

private:
    QByteArrayList m_arguments;
    QByteArrayList m_environment;
    QByteArray m_input;
    std::vector<char *> m_argv;
    std::vector<char *> m_envp;

    Q_DISABLE_COPY(P11Child)
};
