// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <QString>

/// Names of the screens that the user interface shows for an authentication method. An empty name means that the method
/// has no such screen.
struct AuthUiPages
{
    /// Screen on which the user authenticates.
    QString authPage;
    /// Screen shown before the authentication screen.
    QString prePage;
    /// Screen with information about the method.
    QString infoPage;
};
