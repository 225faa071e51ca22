/* SPDX-FileCopyrightText: 2026 the libfrwk authors */
/* SPDX-License-Identifier: MIT */

// The measuring loop that all areas share. The contenders of an operation take turns, a few milliseconds each, over
// many rounds, so that what disturbs the machine meets them all; the figures are medians over the rounds, of the times
// and of the ratios within a round.
#ifndef BENCH_ROUNDS_H
#define BENCH_ROUNDS_H

#include <sched.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

namespace bench {

// The clock of all measurements. An area whose work is done by one thread that never waits counts its processor time
// (CLOCK_THREAD_CPUTIME_ID) instead, which others on a busy machine do not lengthen.
inline clockid_t measuring_clock = CLOCK_MONOTONIC;

inline double now_ns()
{
    timespec now;
    clock_gettime(measuring_clock, &now);
    return static_cast<double>(now.tv_sec) * 1e9 + static_cast<double>(now.tv_nsec);
}

// What a contender must get right. A wrong answer ends the run: a fast one is worth nothing.
#define CHECK(condition)                                                                                               \
    do {                                                                                                               \
        if (!(condition)) {                                                                                            \
            fprintf(stderr, "%s:%d: wrong answer: %s\n", __FILE__, __LINE__, #condition);                              \
            _exit(1);                                                                                                  \
        }                                                                                                              \
    } while (0)

// Where the tables go; a benchmark may redirect standard output itself.
inline FILE *report()
{
    static FILE *file = fdopen(dup(1), "w");
    return file;
}

struct Contender {
    std::string name;
    std::function<double(size_t)> batch; // does that many operations and returns the nanoseconds they took
    bool floor = false;
    bool ours = false;
    bool part = false; // of the work that all must do: no peer
};

inline Contender floor_of(std::function<double(size_t)> batch)
{
    return {"floor", std::move(batch), true};
}
inline Contender ours_of(std::function<double(size_t)> batch, const std::string &how = "")
{
    return {how.empty() ? "libfrwk" : "libfrwk, " + how, std::move(batch), false, true};
}

inline Contender part_of(const std::string &name, std::function<double(size_t)> batch)
{
    return {name, std::move(batch), false, false, true};
}

// Times a body that does all of a batch.
template <typename Body> std::function<double(size_t)> timed(Body body)
{
    return [body](size_t n) mutable {
        double start = now_ns();
        body(n);
        return now_ns() - start;
    };
}

struct Operation {
    std::string name;
    std::vector<Contender> contenders; // a floor first, where there is one
    double most = 0;                   // target: at most that many times the floor; 0 for none
    double most_ns = 0;                // target: at most that many nanoseconds; 0 for none
    std::string rivals = "";           // target: peers whose name holds this ...
    double faster = 0;                 // ... take at least that many times as long
    size_t step = 1;                   // a batch is a multiple of this many operations
    int rounds = 61;
};

struct Figures {
    std::string name;
    double ns;         // an operation
    double to_floor;   // 0 without a floor
    double ours_to_it; // 0 for the library itself
};

inline double median(std::vector<double> values)
{
    if (values.empty()) {
        return 0;
    }
    size_t middle = values.size() / 2;
    std::nth_element(values.begin(), values.begin() + static_cast<std::ptrdiff_t>(middle), values.end());
    return values[middle];
}

// Operations that fill a few milliseconds: the first call pays for what happens once, and the quickest of three calls
// counts, since one may have been held up.
inline size_t batch_size(const Contender &contender, size_t step)
{
    constexpr double WANTED_NS = 2.5e6;
    contender.batch(step);
    size_t n = step;
    for (;;) {
        double ns = std::min({contender.batch(n), contender.batch(n), contender.batch(n)});
        if (ns >= WANTED_NS / 2 || n >= (size_t{1} << 30)) {
            return n;
        }
        double factor = std::min(10.0, std::max(2.0, WANTED_NS / std::max(ns, 1.0)));
        n = (static_cast<size_t>(static_cast<double>(n) * factor) + step - 1) / step * step;
    }
}

inline std::vector<Figures> measure(const Operation &operation)
{
    const std::vector<Contender> &all = operation.contenders;
    std::vector<size_t> sizes;
    std::vector<std::vector<double>> times(all.size());
    for (const Contender &contender : all) {
        sizes.push_back(batch_size(contender, operation.step));
    }
    for (int round = 0; round < operation.rounds; round++) {
        for (size_t turn = 0; turn < all.size(); turn++) {
            size_t i = (turn + static_cast<size_t>(round)) % all.size();
            times[i].push_back(all[i].batch(sizes[i]) / static_cast<double>(sizes[i]));
        }
    }
    auto ratio = [&](size_t a, size_t b) {
        std::vector<double> ratios;
        for (size_t round = 0; round < times[a].size(); round++) {
            ratios.push_back(times[a][round] / times[b][round]);
        }
        return median(ratios);
    };
    size_t ours = 0;
    while (ours + 1 < all.size() && !all[ours].ours) {
        ours++;
    }
    std::vector<Figures> figures;
    for (size_t i = 0; i < all.size(); i++) {
        figures.push_back(
            {all[i].name, median(times[i]), all[0].floor ? ratio(i, 0) : 0, i == ours ? 0 : ratio(ours, i)});
    }
    return figures;
}

inline std::string format(const char *form, double value)
{
    char text[64];
    snprintf(text, sizeof text, form, value);
    return text;
}

inline std::string time_text(double ns)
{
    if (ns < 1000) {
        return format("%.3g ns", ns);
    }
    return ns < 1e6 ? format("%.3g µs", ns / 1e3) : format("%.3g ms", ns / 1e6);
}

inline std::string verdict(const std::string &target, bool met)
{
    return target + (met ? ": met" : ": **not met**");
}

// The targets of an operation and whether they are met.
inline std::string verdicts(const Operation &operation, const std::vector<Figures> &figures, size_t ours)
{
    std::string text;
    auto add = [&](const std::string &more) { text += (text.empty() ? "" : "; ") + more; };
    if (operation.most > 0) {
        add(verdict(format("≤ %g", operation.most), figures[ours].to_floor <= operation.most));
    }
    if (operation.most_ns > 0) {
        add(verdict(format("≤ %g ns", operation.most_ns), figures[ours].ns <= operation.most_ns));
    }
    if (operation.faster > 0) {
        bool met = true;
        for (const Figures &peer : figures) {
            met = met &&
                  (peer.name.find(operation.rivals) == std::string::npos || peer.ours_to_it * operation.faster <= 1);
        }
        add(verdict("every peer with a " + operation.rivals + format(" takes ≥ %g times as long", operation.faster),
                    met));
    }
    return text;
}

inline std::string table_title;

inline void print_header(const char *title)
{
    table_title = title + strspn(title, "# ");
    if (getenv("BENCH_ONLY") != nullptr) {
        return;
    }
    fprintf(report(),
            "\n%s\n\n| operation | contender | time | ratio to the floor | libfrwk's ratio to it | target |\n"
            "|---|---|---:|---:|---:|---|\n",
            title);
    fflush(report());
}

// Runs one contender alone, so that a profiler sees nothing else.
inline void run_alone(const Operation &operation, const std::string &name)
{
    for (const Contender &contender : operation.contenders) {
        if (contender.name != name) {
            continue;
        }
        size_t n = batch_size(contender, operation.step);
        std::vector<double> times;
        for (int round = 0; round < 10 * operation.rounds; round++) {
            times.push_back(contender.batch(n) / static_cast<double>(n));
        }
        fprintf(report(), "%s, %s alone: %s\n", operation.name.c_str(), name.c_str(), time_text(median(times)).c_str());
        fflush(report());
    }
}

// Appends the figures to the file that BENCH_RECORD names: table, operation, role, contender, nanoseconds, ratio to the
// floor, the library's ratio to it.
inline void record(const Operation &operation, const std::vector<Figures> &figures)
{
    const char *path = getenv("BENCH_RECORD");
    FILE *file = path != nullptr ? fopen(path, "a") : nullptr;
    if (file == nullptr) {
        return;
    }
    for (size_t i = 0; i < figures.size(); i++) {
        const Contender &contender = operation.contenders[i];
        const char *role = contender.floor ? "floor" : contender.ours ? "ours" : contender.part ? "part" : "peer";
        fprintf(file, "%s\t%s\t%s\t%s\t%.4g\t%.4g\t%.4g\n", table_title.c_str(), operation.name.c_str(), role,
                figures[i].name.c_str(), figures[i].ns, figures[i].to_floor, figures[i].ours_to_it);
    }
    CHECK(fclose(file) == 0);
}

// Measures one operation and prints its rows. With BENCH_ONLY set to a contender's name, runs that one and prints none,
// of the operation that BENCH_OPERATION names where that is set.
inline void run(const Operation &operation)
{
    if (const char *only = getenv("BENCH_ONLY")) {
        const char *wanted = getenv("BENCH_OPERATION");
        if (wanted == nullptr || operation.name == wanted) {
            run_alone(operation, only);
        }
        return;
    }
    std::vector<Figures> figures = measure(operation);
    record(operation, figures);
    for (size_t i = 0; i < figures.size(); i++) {
        const Figures &row = figures[i];
        bool ours = operation.contenders[i].ours;
        fprintf(report(), "| %s | %s | %s | %s | %s | %s |\n", i == 0 ? operation.name.c_str() : "",
                ours ? ("**" + row.name + "**").c_str() : row.name.c_str(), time_text(row.ns).c_str(),
                row.to_floor > 0 ? format("%.3g", row.to_floor).c_str() : "",
                row.ours_to_it > 0 ? format("%.3g", row.ours_to_it).c_str() : "",
                ours ? verdicts(operation, figures, i).c_str() : "");
    }
    fflush(report());
}

// Keeps this process, and those it starts, on the last `count` processors.
inline void use_cores(int count)
{
    static const int available = static_cast<int>(sysconf(_SC_NPROCESSORS_ONLN));
    cpu_set_t set;
    CPU_ZERO(&set);
    for (int i = 0; i < count && i < available; i++) {
        CPU_SET(static_cast<size_t>(available - 1 - i), &set);
    }
    sched_setaffinity(0, sizeof set, &set);
}

} // namespace bench

#endif
