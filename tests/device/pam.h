// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include "device/installed.h"

#include <QByteArray>
#include <QProcess>
#include <QString>
#include <QStringList>

/// A program that authenticates users through PAM with the module; see pamprogram.cpp.
namespace Pam {

const QString module = QStringLiteral(INSTALLED_PAM_DIR "/pam_qarv.so");
const QString program = QStringLiteral(INSTALLED_TESTS_DIR "/pamprogram");
/// A library to preload; see pamrecorder.cpp.
const QString recorder = QStringLiteral(INSTALLED_TESTS_DIR "/libpamrecorder.so");

/// Arguments of the program.
const QString authenticate = QStringLiteral("alice authenticate");

/// Makes a PAM service. A line such as "auth required timeout=2" names no module: that is pam_qarv.
bool makeService(const QStringList &lines, const QString &name = QStringLiteral("qarv-test"));

struct Result
{
    int code; ///< The last operation's PAM result, or -1 if the program did not exit.
    QStringList events; ///< The lines that the program wrote.

    /// The events without questions for a secret.
    QStringList told() const;
};

/// Runs the program with the service of makeService() as user `uid` and types `input`. Spaces separate the arguments.
Result run(const QString &arguments, const QByteArray &input = {}, uint uid = 0);

/// Starts the program, which the test then talks to.
void start(QProcess &process, const QString &arguments, uint uid = 0);
/// Waits until the program has written a line that starts with `text`.
bool waitFor(QProcess &process, const QByteArray &text);
/// Waits for the program to exit.
Result finish(QProcess &process);

} // namespace Pam
