/* SPDX-FileCopyrightText: 2026 the libfrwk authors */
/* SPDX-License-Identifier: MIT */

// Growth tables: Google Benchmark times one operation at one size after the other, and this prints a table of them.
#ifndef BENCH_GROWTH_H
#define BENCH_GROWTH_H

#include "rounds.h"

#include <benchmark/benchmark.h>

#include <string>

namespace bench {

// One row a size: "name/size" gives the first two columns, and counters follow the time.
class TableReporter : public benchmark::BenchmarkReporter {
public:
    bool ReportContext(const Context &) override
    {
        fprintf(report(), "\n| growth | size | time | beside |\n|---|---:|---:|---|\n");
        return true;
    }
    void ReportRuns(const std::vector<Run> &runs) override
    {
        for (const Run &run : runs) {
            CHECK(!run.error_occurred);
            std::string beside;
            for (const auto &[name, counter] : run.counters) {
                beside += (beside.empty() ? "" : ", ") + name + " " + format("%.4g", counter.value);
            }
            const std::string &size = run.run_name.args;
            double time = measuring_clock == CLOCK_MONOTONIC ? run.GetAdjustedRealTime() : run.GetAdjustedCPUTime();
            fprintf(report(), "| %s | %s | %s | %s |\n", run.run_name.function_name.c_str(), size.c_str(),
                    time_text(time).c_str(), beside.c_str());
            fflush(report());
        }
    }
};

// Runs the registered benchmarks, unless one contender runs alone.
inline void run_growth()
{
    if (getenv("BENCH_ONLY") != nullptr) {
        return;
    }
    TableReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
}

} // namespace bench

#endif
