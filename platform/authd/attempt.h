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

/// Who calls: a connection to the bus by its unique name, and the user it belongs to.
struct Caller
{
    QString name;
    uint uid = 0;

    bool isRoot() const { return uid == 0; }
};

/// An attempt as far as others know it: its number, and the connection that it belongs to. No attempt by default.
struct AttemptName
{
    AttemptId id = NoAttempt;
    QString caller;
};

/// An attempt to authenticate a user that has no outcome yet.
struct Attempt
{
    enum Phase {
        /// Waits for its turn.
        Queued,
        /// The method works on it.
        Active,
        /// Active, but the method has had to start again; the user may enter anew.
        Restarted,
        /// Active, with an outcome that is about to be told.
        Answered,
        /// Waits for the user to enter something.
        AwaitingInput
    };

    AttemptId id = NoAttempt;
    uint uid = 0;
    QString method;
    Caller caller;
    /// What the user has entered; empty when only the method is to get ready.
    QVariantMap data;
    Phase phase = Queued;
    /// When it is given up.
    QDeadlineTimer deadline;
    /// Since when it waits for its turn.
    QElapsedTimer waiting;
    /// Whether it has been told that it waits.
    bool isToldToWait = false;

    AttemptName name() const { return {id, caller.name}; }
};
