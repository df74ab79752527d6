// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <QDeadlineTimer>
#include <QElapsedTimer>
#include <QString>
#include <QVariantMap>

/// The number of an attempt; never 0.
using AttemptId = quint64;

constexpr AttemptId NoAttempt = 0;

/// A caller: the unique name of its bus connection, and the user that the connection belongs to.
struct Caller
{
    QString name;
    uint uid = 0;

    bool isRoot() const { return uid == 0; }
};

/// Identifies an attempt to others: its number, and the connection that it belongs to. By default, no attempt.
struct AttemptName
{
    AttemptId id = NoAttempt;
    QString caller;
};

/// An attempt to authenticate a user, until it has an outcome.
struct Attempt
{
    enum Phase {
        /// Waits for its turn.
        Queued,
        /// The method is working on it.
        Active,
        /// Active, but the method restarted its client. The user may send the input again.
        Restarted,
        /// Active, with an outcome that has not been reported yet.
        Answered,
        /// Waits for input from the user.
        AwaitingInput
    };

    AttemptId id = NoAttempt;
    uint uid = 0;
    QString method;
    Caller caller;
    /// The user's input; empty if the method only has to prepare.
    QVariantMap data;
    Phase phase = Queued;
    /// When the attempt times out.
    QDeadlineTimer deadline;
    /// Measures how long the attempt has been queued.
    QElapsedTimer waiting;
    /// Whether mustWait() has been emitted for the attempt.
    bool hasReportedWait = false;

    AttemptName name() const { return {id, caller.name}; }
};
