/* SPDX-FileCopyrightText: 2026 the libfrwk authors */
/* SPDX-License-Identifier: MIT */

/*
 * What was seen, in figures: for each receiver and message how many requests, how many failures, and how long answers
 * took.
 */
#ifndef SUMMARY_H
#define SUMMARY_H

#include <stdint.h>

struct summary_row_t {
    uint32_t to;
    uint32_t msg;
    uint64_t count;
    uint64_t failures;
    uint64_t answers;
    uint32_t *durations; /* how many answers took how long */
};

/* Counts a request; `duration` in nanoseconds, negative when there was no answer. */
void summary_add(uint32_t to, uint32_t msg, bool failed, int64_t duration);

/* Calls `show` for each row, by receiver and message. */
void summary_each(void (*show)(const summary_row_t *row));

/*
 * The duration in nanoseconds that a share of the answers (0.5 for the median) did not exceed, within 1%; 0 without
 * answers.
 */
double summary_quantile(const summary_row_t *row, double share);

#endif
