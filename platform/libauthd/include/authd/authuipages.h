// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <QString>

/// Names of the screens with which the system's user interface presents an authentication method. An empty name means
/// that the method has no such screen.
struct AuthUiPages
{
    /// Screen on which the user authenticates.
    QString authPage;
    /// Screen shown before the authentication screen.
    QString prePage;
    /// Screen that tells about the method.
    QString infoPage;
};
