/* SPDX-FileCopyrightText: 2026 the libfrwk authors */
/* SPDX-License-Identifier: MIT */

/*
 * Mutexes, semaphores, and the starter of every thread of the library.
 */
#include "frwk_thread.h"
#include "frwk_trace.h"

#include <errno.h>
#include <sched.h>
#include <string.h>

int frwk_mutex_create(pthread_mutex_t *mutex)
{
    return pthread_mutex_init(mutex, nullptr);
}

int frwk_mutex_lock(pthread_mutex_t *mutex)
{
    return pthread_mutex_lock(mutex);
}

int frwk_mutex_unlock(pthread_mutex_t *mutex)
{
    return pthread_mutex_unlock(mutex);
}

int frwk_mutex_close(pthread_mutex_t *mutex)
{
    return pthread_mutex_destroy(mutex);
}

int frwk_sem_create(sem_t *sem)
{
    return sem_init(sem, 0, 0);
}

int frwk_sem_post(sem_t *sem)
{
    return sem_post(sem);
}

int frwk_sem_wait(sem_t *sem)
{
    while (sem_wait(sem) != 0) {
        if (errno != EINTR) {
            return -1;
        }
    }
    return 0;
}

int frwk_sem_close(sem_t *sem)
{
    return sem_destroy(sem);
}

pthread_t frwk_thread_create(void *(*start)(void *), void *arg)
{
    pthread_t tid = FRWK_THREAD_INVALID;
    pthread_attr_t attr;
    memset(&attr, 0, sizeof attr);
    pthread_attr_init(&attr);
    /* Without PTHREAD_EXPLICIT_SCHED the policy has no effect: the thread inherits its creator's scheduling. */
    pthread_attr_setschedpolicy(&attr, SCHED_FIFO);
    pthread_attr_setdetachstate(&attr, PTHREAD_CREATE_DETACHED);
    if (pthread_create(&tid, &attr, start, arg) != 0) {
        FRWK_ERR("create thread error!");
        tid = FRWK_THREAD_INVALID;
    }
    pthread_attr_destroy(&attr);
    return tid;
}

void frwk_thread_cancel(pthread_t tid)
{
    if (tid != FRWK_THREAD_INVALID) {
        pthread_cancel(tid);
    }
}
