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

/// A program for many measured runs.
class Program
{
public:
    explicit Program(const QStringList &command, const QStringList &environment = {}, QByteArray input = {});

    /// Runs the program until it ends. Returns its output, which is null on failure.
    QByteArray run();

private:
    QByteArrayList m_command;
    QByteArrayList m_environment;
    QByteArray m_input;
    std::vector<char *> m_argv;
    std::vector<char *> m_envp;

    Q_DISABLE_COPY(Program)
};
