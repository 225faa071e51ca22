/* SPDX-FileCopyrightText: 2026 the libfrwk authors */
/* SPDX-License-Identifier: MIT */

#include "summary.h"

#include "options.h"

#include <stdlib.h>

/*
 * Durations are counted in steps: 64 to each doubling, so that a step is at most 1/64 of what it stands for, and its
 * middle at most 1/128 away.
 */
enum { STEP_BITS = 6, STEPS = 1 << STEP_BITS, DOUBLINGS = 64 - STEP_BITS, ROWS_MAX = 4096 };
constexpr size_t STEPS_ALL = size_t{DOUBLINGS + 1} * STEPS;

static summary_row_t *s_rows;
static size_t s_count;

static size_t step_of(uint64_t duration)
{
    if (duration < STEPS) {
        return static_cast<size_t>(duration);
    }
    int shift = 63 - __builtin_clzll(duration) - STEP_BITS;
    return static_cast<size_t>(shift + 1) * STEPS + static_cast<size_t>((duration >> shift) - STEPS);
}

/* The middle of a step. */
static double value_of(size_t step)
{
    if (step < STEPS) {
        return static_cast<double>(step);
    }
    size_t shift = step / STEPS - 1;
    return (static_cast<double>(STEPS + step % STEPS) + 0.5) * static_cast<double>(uint64_t{1} << shift);
}

/* The last row takes what there are too many of. */
static summary_row_t *row_of(uint32_t to, uint32_t msg)
{
    for (size_t i = 0; i < s_count; i++) {
        if ((s_rows[i].to == to && s_rows[i].msg == msg) || i + 1 == ROWS_MAX) {
            return &s_rows[i];
        }
    }
    summary_row_t *grown = static_cast<summary_row_t *>(realloc(s_rows, (s_count + 1) * sizeof *s_rows));
    uint32_t *durations = static_cast<uint32_t *>(calloc(STEPS_ALL, sizeof *durations));
    if (grown == nullptr || durations == nullptr) {
        device_fail(DEVICE_EXIT_FAILURE, "memory is short");
    }
    s_rows = grown;
    /* cppcheck-suppress nullPointerRedundantCheck ; device_fail() does not return */
    s_rows[s_count] = {to, msg, 0, 0, 0, durations};
    return &s_rows[s_count++];
}

void summary_add(uint32_t to, uint32_t msg, bool failed, int64_t duration)
{
    summary_row_t *row = row_of(to, msg);
    row->count++;
    row->failures += failed;
    if (duration >= 0) {
        row->answers++;
        row->durations[step_of(static_cast<uint64_t>(duration))]++;
    }
}

static int compare(const void *one, const void *other)
{
    const summary_row_t *a = static_cast<const summary_row_t *>(one);
    const summary_row_t *b = static_cast<const summary_row_t *>(other);
    if (a->to != b->to) {
        return a->to < b->to ? -1 : 1;
    }
    return a->msg < b->msg ? -1 : a->msg > b->msg;
}

void summary_each(void (*show)(const summary_row_t *row))
{
    if (s_count > 0) {
        qsort(s_rows, s_count, sizeof *s_rows, compare);
    }
    for (size_t i = 0; i < s_count; i++) {
        show(&s_rows[i]);
    }
}

double summary_quantile(const summary_row_t *row, double share)
{
    uint64_t wanted = static_cast<uint64_t>(share * static_cast<double>(row->answers) + 0.999999);
    uint64_t seen = 0;
    for (size_t step = 0; step < STEPS_ALL && row->answers > 0; step++) {
        seen += row->durations[step];
        if (seen >= wanted && seen > 0) {
            return value_of(step);
        }
    }
    return 0;
}
