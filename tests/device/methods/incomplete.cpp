// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#include <QObject>
#include <QtPlugin>

void missing();

/// A plugin that calls a function that no library has.
class Incomplete : public QObject
{
    Q_OBJECT
    Q_PLUGIN_METADATA(IID "qarv.auth.incomplete" FILE "method.json")

public:
    ~Incomplete() override { missing(); }
};

#include "incomplete.moc"
