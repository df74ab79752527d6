// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <QTest>

/// How long tests wait for what must happen, in milliseconds. On a busy machine, QtTest's 5 s are too short. It is less
/// than the time after which the client gives up a token.
constexpr int TestTimeout = 15000;

/// Waits until `condition` is true. Returns false if that takes too long.
template <typename Condition>
bool waitUntil(Condition condition)
{
    return QTest::qWaitFor(condition, TestTimeout);
}

#undef QTRY_VERIFY
#define QTRY_VERIFY(condition) QTRY_VERIFY_WITH_TIMEOUT((condition), TestTimeout)
#undef QTRY_VERIFY2
#define QTRY_VERIFY2(condition, message) QTRY_VERIFY2_WITH_TIMEOUT((condition), (message), TestTimeout)
#undef QTRY_COMPARE
#define QTRY_COMPARE(actual, expected) QTRY_COMPARE_WITH_TIMEOUT((actual), (expected), TestTimeout)
