/* SPDX-FileCopyrightText: 2026 the libfrwk authors */
/* SPDX-License-Identifier: MIT */

/*
 * Sleep, uptime, local time, random numbers.
 */
#include "frwk_thread.h"
#include "frwk_time.h"

#include <limits.h>
#include <stddef.h>
#include <stdlib.h>
#include <sys/time.h>
#include <time.h>
#include <unistd.h>

static_assert(offsetof(frwk_uptime_t, usec) == 4 && sizeof(frwk_uptime_t) == 8);
static_assert(offsetof(frwk_systime_t, mon) == 4 && offsetof(frwk_systime_t, year) == 6 && sizeof(frwk_systime_t) == 8);

void frwk_sleep(int ms)
{
    if (ms <= 0) {
        return;
    }
    if (ms >= 1000) {
        sleep(static_cast<unsigned int>(ms / 1000));
    }
    if (ms % 1000 > 0) {
        usleep(static_cast<useconds_t>(ms % 1000) * 1000);
    }
}

void frwk_keep_running(void)
{
    sem_t never_posted;
    frwk_sem_create(&never_posted);
    frwk_sem_wait(&never_posted);
}

void frwk_get_uptime(frwk_uptime_t *now)
{
    struct timespec ts = {};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    now->sec = static_cast<int32_t>(ts.tv_sec);
    now->usec = static_cast<int32_t>(ts.tv_nsec / 1000);
}

/* Subtracts and wraps like the machine does, without the undefined overflow of signed numbers. */
static int32_t wrap_sub(int32_t a, int32_t b)
{
    return static_cast<int32_t>(static_cast<uint32_t>(a) - static_cast<uint32_t>(b));
}

int frwk_time_diff(const frwk_uptime_t *a, const frwk_uptime_t *b)
{
    uint32_t sec_part = static_cast<uint32_t>(wrap_sub(a->sec, b->sec)) * 1000U;
    int32_t usec_part = wrap_sub(a->usec, b->usec) / 1000;
    return static_cast<int32_t>(sec_part + static_cast<uint32_t>(usec_part));
}

/* Unsigned, since ARM without a divider would need a second routine for signed numbers. */
static uint8_t wrap_field(int value, unsigned int limit)
{
    return static_cast<uint8_t>(static_cast<unsigned int>(value) % limit);
}

void frwk_get_systime(frwk_systime_t *now)
{
    time_t seconds = time(nullptr);
    struct tm tm = {};
    localtime_r(&seconds, &tm);
    now->sec = wrap_field(tm.tm_sec, 60);
    now->min = wrap_field(tm.tm_min, 60);
    now->hour = wrap_field(tm.tm_hour, 24);
    now->mday = wrap_field(tm.tm_mday, 32);
    now->mon = wrap_field(tm.tm_mon + 1, 13);
    now->wday = wrap_field(tm.tm_wday, 7);
    now->year = static_cast<uint16_t>(tm.tm_year + 1900);
}

/* One draw after seeding; repeated seeds repeat the number. */
static uint32_t seeded_rand(uint32_t seed)
{
    srand(seed);
    return static_cast<uint32_t>(rand());
}

/* One of four bounds, the same within a second. */
static uint32_t random_bound(uint32_t seconds)
{
    static const uint32_t bounds[] = {0xff, 0xffff, 0xffffff, INT_MAX};
    return bounds[seeded_rand(seconds) % 4];
}

int frwk_random(int max)
{
    struct timeval now = {};
    gettimeofday(&now, nullptr);
    uint32_t bound = static_cast<uint32_t>(max);
    if (max == 0) {
        bound = random_bound(static_cast<uint32_t>(now.tv_sec));
    } else if (max < 0) {
        bound = INT_MAX;
    }
    return static_cast<int>(seeded_rand(static_cast<uint32_t>(now.tv_usec)) % bound + 1);
}
