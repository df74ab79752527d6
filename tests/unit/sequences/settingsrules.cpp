// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#include "rules.h"

namespace Sequences {

namespace {

constexpr char formerPolicyUser[] = "policy now: former user";
constexpr char whoseLimit[] = "whose limit";
constexpr char rememberLimit[] = "take limit: remember the system's";
constexpr char takeValue[] = "take limit: value";
constexpr char restoreLimit[] = "give limit back: restore";
constexpr char countAttempt[] = "increase attempts: count";
constexpr char lockUser[] = "increase attempts: lock";
constexpr char badPassword[] = "1";
constexpr char tooManyAttempts[] = "7";

} // namespace

const Table &settingsRules()
{
    static const Table table = {
        {seedLimit, {is(PackagedPolicy, yes), is(MethodSettings, no)}, {set(LimitUser, nobody), StorePackagedLimit}},

        {choosePolicyUser, {is(Uid, 0)}, {copy(PolicyFor, SessionUser)}},
        {choosePolicyUser, {}, {copy(PolicyFor, Uid)}},
        // A removed policy sets no limit for its user. Another user's changes nothing.
        {policyNow, {is(PolicyThere, no)}, {run(formerPolicyUser), run(takeLimit)}},
        {policyNow, {is(PolicyCounts, yes)}, {run(takeLimit)}},
        {formerPolicyUser, {isNot(LimitUser, nobody)}, {copy(PolicyFor, LimitUser)}},

        // The limit of a user's policy, until a launch for another user
        {takeLimit, {}, {run(whoseLimit), run(rememberLimit), copy(LimitUser, PolicyFor), run(takeValue)}},
        {rememberLimit, {is(Outcome, yes)}, {}},
        {rememberLimit, {is(MethodSettings, yes)}, {copy(LimitBefore, Limit), set(NoLimitTaken, no)}},
        {rememberLimit, {}, {set(LimitBefore, noLimit), set(NoLimitTaken, no)}},
        {takeValue, {is(PolicyReadable, yes)}, {StorePolicyLimit}},
        {takeValue, {}, {set(NoLimitTaken, yes), set(Count, 0), storeCount(MaxAttempts)}},
        // Root sets a number, a policy sets a text or, without a limit, 0.
        {whoseLimit, {is(LimitUser, nobody)}, {outcome(no)}},
        {whoseLimit, {is(MethodSettings, no)}, {outcome(no)}},
        {whoseLimit, {is(LimitIsNumber, no)}, {outcome(yes)}},
        {whoseLimit, {is(Limit, 0), is(NoLimitTaken, yes)}, {outcome(yes)}},
        {whoseLimit, {}, {outcome(no)}},

        {giveLimitBack, {is(LimitUser, nobody)}, {}},
        {giveLimitBack, {same(LimitUser, Uid)}, {}},
        {giveLimitBack, {}, {unwatch(PolicyFile), run(whoseLimit), run(restoreLimit), set(LimitUser, nobody)}},
        {restoreLimit, {is(Outcome, no)}, {}},
        {restoreLimit, {isNot(LimitBefore, noLimit)}, {copy(Count, LimitBefore), storeCount(MaxAttempts)}},
        {restoreLimit, {is(PackagedPolicy, yes)}, {StorePackagedLimit}},
        {restoreLimit, {}, {set(Count, 0), storeCount(MaxAttempts)}},

        {getAttempts, {is(Limit, 0)}, {returns("1")}},
        // For no user, the count is read where the certificates are.
        {getAttempts, {is(EventUser, 0)}, {run(getCertList), returns("%1", {Limit})}},
        {getAttempts, {}, {returns("%1", {Limit})}},
        {resetAttempts, {}, {set(Count, 0), storeCount(Attempts, EventUser)}},

        {increaseAttempts, {is(Limit, 0)}, {returns(badPassword)}},
        {increaseAttempts, {is(EventUser, 0)}, {run(getCertList), run(countAttempt)}},
        {increaseAttempts, {}, {run(countAttempt)}},
        {countAttempt, {isMore(Limit, 1)}, {set(Count, 1), storeCount(Attempts, EventUser), returns(badPassword)}},
        {countAttempt, {is(Limit, 1)}, {set(Count, 1), storeCount(Attempts, EventUser), run(lockUser)}},
        {countAttempt, {}, {set(Count, 0), run(lockUser)}},
        {lockUser,
         {},
         {write("warning: increaseAttempts Max attempts reached %1 %2 %3", {EventUser, Count, Limit}),
          write("logEvent WARN_LEVEL devlock-attempts-expired "), set(Count, 0), storeCount(Attempts, EventUser),
          write("lockUser %1 true kavet-max-attempts 4294967295", {EventUser}), storeMark(EventUser, yes),
          returns(tooManyAttempts)}},
    };
    return table;
}

} // namespace Sequences
