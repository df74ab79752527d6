// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#include "attemptcounter.h"

#include <QLoggingCategory>
#include <QSettings>

#include <algorithm>
#include <limits>

#include <unistd.h>

namespace {

const QString counterFile = QStringLiteral("/srv/shared/tarsk/kavet_client/%1.conf");
const QString attemptsKey = QStringLiteral("attempts");

void store(int count)
{
    QSettings settings(counterFile.arg(getuid()), QSettings::NativeFormat);
    settings.setValue(attemptsKey, count);
    settings.sync();
    if (settings.status() != QSettings::NoError)
        qWarning("Cannot store the number of failed attempts in %s", qUtf8Printable(settings.fileName()));
}

} // namespace

int AttemptCounter::count()
{
    const QSettings settings(counterFile.arg(getuid()), QSettings::NativeFormat);
    return std::max(0, settings.value(attemptsKey).toInt());
}

int AttemptCounter::increase()
{
    const int before = count();
    const int after = before == std::numeric_limits<int>::max() ? before : before + 1;
    store(after);
    return after;
}

void AttemptCounter::reset()
{
    if (count() != 0)
        store(0);
}
