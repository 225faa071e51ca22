/* SPDX-FileCopyrightText: 2026 the libfrwk authors */
/* SPDX-License-Identifier: MIT */

/*
 * timers SECONDS: starts timers that are due at any moment of so long a time, stops some, and holds the others against
 * a clock of its own. Ends with 1 when one was early or late, or was stopped in vain.
 */
#include <frwk.h>

#include <stdatomic.h>
#include <stdio.h>
#include <stdlib.h>
#include <time.h>

enum { COUNT = 400, LEAST_DELAY = 500, MOST_LATE = 3000 };

static long long s_due[COUNT];
static int s_ids[COUNT];
static atomic_int s_fired, s_wrong;

/* Milliseconds of a clock that nothing sets. */
static long long now_ms(void)
{
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC_RAW, &now);
    return now.tv_sec * 1000LL + now.tv_nsec / 1000000;
}

static void check(int number, void *data)
{
    long long late = now_ms() - s_due[number];
    (void)data;
    s_fired++;
    if (late < -1 || late > MOST_LATE) {
        printf("timer %d is %lld ms late\n", number, late);
        s_wrong++;
    }
}

int main(int argc, char **argv)
{
    int seconds = argc > 1 ? atoi(argv[1]) : 20, stopped = 0;
    frwk_uptime_t begin, end, deadline;
    frwk_get_uptime(&begin);
    frwk_timer_init(check);
    for (int i = 0; i < COUNT; i++) {
        int delay = LEAST_DELAY + rand() % (seconds * 1000 - LEAST_DELAY);
        s_due[i] = now_ms() + delay;
        s_ids[i] = frwk_timer_start(i, &s_due[i], delay);
        s_wrong += s_ids[i] == 0;
    }
    for (int i = 0; i < COUNT; i += 4) { /* those that have not fired yet */
        stopped += frwk_timer_stop(s_ids[i]) == &s_due[i];
    }
    long long start = now_ms();
    frwk_simple_timer_start(&deadline, seconds * 1000);
    while (frwk_simple_timer_timeout(&deadline) == 0) {
        frwk_sleep(20);
    }
    if (now_ms() - start < seconds * 1000LL - 1 || now_ms() - start > seconds * 1000LL + MOST_LATE) {
        printf("a deadline of %d s took %lld ms\n", seconds, now_ms() - start);
        s_wrong++;
    }
    frwk_sleep(MOST_LATE);
    frwk_get_uptime(&end);
    printf("uptime %ld s to %ld s: %d timers fired, %d stopped, a deadline of %d s held, %d wrong\n", (long)begin.sec,
           (long)end.sec, (int)s_fired, stopped, seconds, (int)s_wrong);
    return s_wrong != 0 || s_fired + stopped != COUNT;
}
