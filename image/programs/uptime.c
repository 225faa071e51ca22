/* SPDX-FileCopyrightText: 2026 the libfrwk authors */
/* SPDX-License-Identifier: MIT */

/*
 * Preloaded: the device has been up for UPTIME_OFFSET more seconds than it has. Kernels for 32-bit ARM have no time
 * namespaces, which would do this for real.
 */
#include <semaphore.h>
#include <stdlib.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

struct kernel_timespec {
    long long tv_sec;
    long long tv_nsec;
};

static time_t offset(void)
{
    static time_t known;
    if (known == 0) {
        known = atoll(getenv("UPTIME_OFFSET"));
    }
    return known;
}

int clock_gettime(clockid_t clock, struct timespec *now)
{
    struct kernel_timespec value;
    int rc = (int)syscall(SYS_clock_gettime64, clock, &value);
    now->tv_sec = (time_t)value.tv_sec + (clock == CLOCK_MONOTONIC || clock == CLOCK_BOOTTIME ? offset() : 0);
    now->tv_nsec = (long)value.tv_nsec;
    return rc;
}

/* The kernel waits by its own clock. */
int sem_clockwait(sem_t *sem, clockid_t clock, const struct timespec *end)
{
    struct timespec left = *end, now;
    clock_gettime(clock, &now);
    left.tv_sec -= now.tv_sec;
    clock_gettime(CLOCK_REALTIME, &now);
    left.tv_sec += now.tv_sec;
    return sem_timedwait(sem, &left);
}
