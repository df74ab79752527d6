// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <QElapsedTimer>
#include <QJsonArray>
#include <QJsonObject>
#include <QJsonValue>

#include <algorithm>
#include <vector>

/// Measures, and prints each figure as one line of JSON.
namespace Bench {

/// What is measured, and against what.
struct Figure
{
    QString name;
    QString against;
    QJsonValue goal = {}; ///< The largest ratio or value that is good; null for none.
    QJsonValue point = {}; ///< The place on the growth curve `name`; null for a figure that stands alone.
    QString unit = {}; ///< Empty for a ratio. In a comparison, "ms" means the difference.
};

/// Whether every benchmark runs only once, to see that it works.
inline bool once = false;

/// Ends the program, because the benchmark does not work.
[[noreturn]] void fail(const char *what);
inline void require(bool condition, const char *what)
{
    if (!condition)
        fail(what);
}

void print(const Figure &figure, QJsonObject measured);
/// Prints a figure that is compared with nothing.
void printValue(const Figure &figure, double value);

template <typename Work>
qint64 nanoseconds(const Work &work)
{
    QElapsedTimer timer;
    timer.start();
    work();
    return timer.nsecsElapsed();
}

inline double median(std::vector<double> values)
{
    std::sort(values.begin(), values.end());
    const size_t middle = values.size() / 2;
    return values.size() % 2 == 1 ? values[middle] : (values[middle - 1] + values[middle]) / 2;
}

/// Times `ours` and `bare` in turn, `pairs` times in each round, and prints the medians of each round. Both return
/// whether they succeeded. Before each of them, `prepare` is called with whether it is ours, untimed.
template <typename Ours, typename Bare, typename Prepare>
void compare(const Figure &figure, int pairs, const Ours &ours, const Bare &bare, const Prepare &prepare)
{
    constexpr int rounds = 9;
    const auto timed = [&prepare](const auto &work, bool isOurs) {
        prepare(isOurs);
        bool isGood = false;
        const qint64 time = nanoseconds([&] { isGood = work(); });
        require(isGood, "a measured call has failed");
        return double(time);
    };
    timed(ours, true); // Fills caches.
    timed(bare, false);
    QJsonArray oursOfRounds;
    QJsonArray bareOfRounds;
    for (int round = 0; round < (once ? 1 : rounds); ++round) {
        std::vector<double> oursTimes;
        std::vector<double> bareTimes;
        for (int pair = 0; pair < (once ? 1 : pairs); ++pair) {
            oursTimes.push_back(timed(ours, true));
            bareTimes.push_back(timed(bare, false));
        }
        oursOfRounds << median(oursTimes);
        bareOfRounds << median(bareTimes);
    }
    print(figure, {{QStringLiteral("ours"), oursOfRounds}, {QStringLiteral("bare"), bareOfRounds}});
}

template <typename Ours, typename Bare>
void compare(const Figure &figure, int pairs, const Ours &ours, const Bare &bare)
{
    compare(figure, pairs, ours, bare, [](bool) {});
}

} // namespace Bench
