// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#include <QObject>
#include <QtPlugin>

/// A Qt plugin that is not an authentication method.
class Stranger : public QObject
{
    Q_OBJECT
    Q_PLUGIN_METADATA(IID "qarv.auth.stranger" FILE "method.json")
};

#include "stranger.moc"
