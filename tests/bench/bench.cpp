// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#include "bench.h"

#include "benchmarks.h"

#include <QCoreApplication>
#include <QJsonDocument>
#include <QLoggingCategory>

#include <cstdio>
#include <cstdlib>
#include <cstring>

void Bench::fail(const char *what)
{
    std::fprintf(stderr, "bench: %s\n", what);
    std::exit(EXIT_FAILURE);
}

void Bench::print(const Figure &figure, QJsonObject measured)
{
    measured.insert(QStringLiteral("name"), figure.name);
    measured.insert(QStringLiteral("against"), figure.against);
    measured.insert(QStringLiteral("goal"), figure.goal);
    measured.insert(QStringLiteral("point"), figure.point);
    measured.insert(QStringLiteral("unit"), figure.unit);
    std::printf("%s\n", QJsonDocument(measured).toJson(QJsonDocument::Compact).constData());
    std::fflush(stdout);
}

void Bench::printValue(const Figure &figure, double value)
{
    print(figure, {{QStringLiteral("value"), value}});
}

/// Usage: bench --list, or bench NAME [--once]
int main(int argc, char *argv[])
{
    const QCoreApplication application(argc, argv);
    const std::string name = argc > 1 ? argv[1] : "";
    if (name == "--list") {
        for (const auto &benchmark : benchmarks)
            std::puts(benchmark.first.c_str());
        return EXIT_SUCCESS;
    }
    QLoggingCategory::setFilterRules(QStringLiteral("authd.method.kavet.warning=false")); // The client ends often.
    Bench::once = argc > 2 && std::strcmp(argv[2], "--once") == 0;
    const auto benchmark = std::find_if(benchmarks.begin(), benchmarks.end(),
                                        [&name](const auto &candidate) { return candidate.first == name; });
    Bench::require(benchmark != benchmarks.end(), "there is no benchmark of this name");
    benchmark->second();
    return EXIT_SUCCESS;
}
