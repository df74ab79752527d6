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
    QString unit = {}; ///< Empty for a ratio of times; in a comparison, that of the difference.
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

inline QJsonArray toJson(const std::vector<double> &values)
{
    QJsonArray array;
    for (const double value : values)
        array << value;
    return array;
}

inline double median(std::vector<double> values)
{
    std::sort(values.begin(), values.end());
    const size_t middle = values.size() / 2;
    return values.size() % 2 == 1 ? values[middle] : (values[middle - 1] + values[middle]) / 2;
}

/// Medians over all rounds of a comparison.
struct Medians
{
    double ours;
    double bare;
};

/// Calls `ours` and `bare` in turn, `pairs` times in each round, and prints the medians of each round. Both measure
/// something and return it.
template <typename Ours, typename Bare>
Medians compareValues(const Figure &figure, int pairs, const Ours &ours, const Bare &bare)
{
    constexpr int rounds = 9;
    ours(); // Fills caches.
    bare();
    std::vector<double> oursOfRounds;
    std::vector<double> bareOfRounds;
    for (int round = 0; round < (once ? 1 : rounds); ++round) {
        std::vector<double> oursValues;
        std::vector<double> bareValues;
        for (int pair = 0; pair < (once ? 1 : pairs); ++pair) {
            oursValues.push_back(ours());
            bareValues.push_back(bare());
        }
        oursOfRounds.push_back(median(oursValues));
        bareOfRounds.push_back(median(bareValues));
    }
    print(figure, {{QStringLiteral("ours"), toJson(oursOfRounds)}, {QStringLiteral("bare"), toJson(bareOfRounds)}});
    return {median(oursOfRounds), median(bareOfRounds)};
}

/// The nanoseconds that `work` takes, which returns whether it succeeded.
template <typename Work>
double timed(const Work &work)
{
    QElapsedTimer timer;
    timer.start();
    const bool isGood = work();
    const qint64 time = timer.nsecsElapsed();
    require(isGood, "a measured call has failed");
    return double(time);
}

/// Times `ours` and `bare`. Before each of them, `prepare` is called with whether it is ours, untimed.
template <typename Ours, typename Bare, typename Prepare>
Medians compare(const Figure &figure, int pairs, const Ours &ours, const Bare &bare, const Prepare &prepare)
{
    const auto prepared = [&prepare](const auto &work, bool isOurs) {
        prepare(isOurs);
        return timed(work);
    };
    return compareValues(
        figure, pairs, [&] { return prepared(ours, true); }, [&] { return prepared(bare, false); });
}

template <typename Ours, typename Bare>
Medians compare(const Figure &figure, int pairs, const Ours &ours, const Bare &bare)
{
    return compare(figure, pairs, ours, bare, [](bool) {});
}

} // namespace Bench
