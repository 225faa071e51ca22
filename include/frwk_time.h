/* SPDX-FileCopyrightText: 2026 the libfrwk authors */
/* SPDX-License-Identifier: MIT */

/**
 * @file frwk_time.h
 * Sleep, uptime, local time, random numbers.
 */
#ifndef FRWK_TIME_H
#define FRWK_TIME_H

#include "frwk_defs.h"

#include <stdint.h>

FRWK_BEGIN_DECLS

/** A reading of the monotonic clock, or a deadline. */
typedef struct {
    int32_t sec;  /**< Whole seconds. */
    int32_t usec; /**< Microseconds within the second, 0 to 999,999. */
} frwk_uptime_t;

/** Broken-down local time. */
typedef struct {
    uint8_t sec;   /**< 0 to 59; a leap second is 0. */
    uint8_t min;   /**< 0 to 59. */
    uint8_t hour;  /**< 0 to 23. */
    uint8_t mday;  /**< 1 to 31. */
    uint8_t mon;   /**< 1 to 12, January is 1. */
    uint8_t wday;  /**< 0 to 6, Sunday is 0. */
    uint16_t year; /**< The full year, such as 2024. */
} frwk_systime_t;

/**
 * Sleeps. A signal handler that runs meanwhile can cut the sleep short. A cancellation point.
 * @param ms  milliseconds; 0 and below return at once
 */
FRWK_API void frwk_sleep(int ms);

/**
 * Parks the calling thread for good, through signals: the usual end of a module's main function. A cancellation point.
 */
FRWK_API void frwk_keep_running(void);

/**
 * Reads the monotonic clock, which nobody sets and which stands still while the device is suspended.
 * @param now  receives the reading; 0, 0 when the clock cannot be read
 */
FRWK_API void frwk_get_uptime(frwk_uptime_t *now);

/**
 * Subtracts one reading from another.
 * @param a  reading or deadline
 * @param b  what is subtracted from it
 * @return `a` minus `b` in milliseconds. Seconds and microseconds are converted separately, so the result can be off
 *         by one; it wraps beyond 2,147,483 seconds (24.8 days).
 */
FRWK_API int frwk_time_diff(const frwk_uptime_t *a, const frwk_uptime_t *b);

/**
 * Reads the local wall-clock time.
 * @param now  receives it
 */
FRWK_API void frwk_get_systime(frwk_systime_t *now);

/**
 * A random number, not for secrets.
 *
 * Every call seeds the C library's rand() with the microseconds of the clock and draws from it. So two calls within a
 * microsecond give the same number, one `max` above 0 gives at most 1,000,000 different numbers, and other code of the
 * process that draws from rand() gets its numbers from the new seed.
 *
 * @param max  upper bound; negative stands for 2,147,483,647, and 0 for a bound picked at random among 255, 65,535,
 *             16,777,215 and 2,147,483,647, the same one within a second
 * @return 1 to `max`
 */
FRWK_API int frwk_random(int max);

FRWK_END_DECLS

#endif
