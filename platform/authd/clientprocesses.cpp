// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#include "clientprocesses.h"

#include <QByteArray>
#include <QFile>

#include <unistd.h>

QSet<uint> ClientProcesses::users()
{
    QSet<uint> users;
    QFile list(QStringLiteral("/proc/self/task/%1/children").arg(getpid()));
    if (!list.open(QIODevice::ReadOnly))
        return users;
    const QList<QByteArray> children = list.readAll().simplified().split(' ');
    for (const QByteArray &child : children) {
        QFile status(QStringLiteral("/proc/%1/status").arg(QString::fromLatin1(child)));
        if (child.isEmpty() || !status.open(QIODevice::ReadOnly))
            continue;
        // Use the real user id: the sandbox launcher's effective one is root's.
        const QByteArray text = status.readAll();
        const int at = text.indexOf("\nUid:");
        if (at >= 0)
            users << text.mid(at + 5, 64).simplified().split(' ').first().toUInt();
    }
    return users;
}
