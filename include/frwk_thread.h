/* SPDX-FileCopyrightText: 2026 the libfrwk authors */
/* SPDX-License-Identifier: MIT */

/**
 * @file frwk_thread.h
 * Mutexes, semaphores and detached threads. The caller owns the storage of each; nothing here allocates.
 */
#ifndef FRWK_THREAD_H
#define FRWK_THREAD_H

#include "frwk_defs.h"

#include <pthread.h>
#include <semaphore.h>

FRWK_BEGIN_DECLS

/** The thread id that stands for no thread. */
#define FRWK_THREAD_INVALID ((pthread_t)0)

/**
 * Initialises a default, non-recursive mutex.
 * @param mutex  storage that holds no mutex yet
 * @return the result of pthread_mutex_init(): 0, or an error number
 */
FRWK_API int frwk_mutex_create(pthread_mutex_t *mutex);

/**
 * Locks a mutex. Blocks until it is free, for good when the calling thread holds it already.
 * @param mutex  the mutex
 * @return the result of pthread_mutex_lock(): 0, or an error number
 */
FRWK_API int frwk_mutex_lock(pthread_mutex_t *mutex);

/**
 * Unlocks a mutex.
 * @param mutex  a mutex that the calling thread holds
 * @return the result of pthread_mutex_unlock(): 0, or an error number
 */
FRWK_API int frwk_mutex_unlock(pthread_mutex_t *mutex);

/**
 * Ends a mutex; its storage may be reused.
 * @param mutex  a mutex that nobody holds or waits for
 * @return the result of pthread_mutex_destroy(): 0, or an error number
 */
FRWK_API int frwk_mutex_close(pthread_mutex_t *mutex);

/**
 * Initialises a semaphore of this process with count 0.
 * @param sem  storage that holds no semaphore yet
 * @return the result of sem_init(): 0, or -1 with `errno`
 */
FRWK_API int frwk_sem_create(sem_t *sem);

/**
 * Raises the count by 1, which wakes one waiting thread. A signal handler may call it, too.
 * @param sem  the semaphore
 * @return the result of sem_post(): 0, or -1 with `errno`, EOVERFLOW at a count of 2,147,483,647
 */
FRWK_API int frwk_sem_post(sem_t *sem);

/**
 * Lowers the count by 1. Blocks while it is 0; signals do not end the wait. A cancellation point.
 * @param sem  the semaphore
 * @return 0, or -1 when it is no valid semaphore
 */
FRWK_API int frwk_sem_wait(sem_t *sem);

/**
 * Ends a semaphore; its storage may be reused.
 * @param sem  a semaphore that nobody waits for
 * @return the result of sem_destroy(): 0, or -1 with `errno`
 */
FRWK_API int frwk_sem_close(sem_t *sem);

/**
 * Starts a detached thread with the scheduling and the signal mask of its creator. It ends when its routine returns,
 * and cannot be joined.
 *
 * @param start  thread routine; its result is ignored
 * @param arg    handed to `start`; may be null; owned by whom the two agree on
 * @return the thread's id, which names it only until it ends; FRWK_THREAD_INVALID, traced, when no thread can be
 *         started
 */
FRWK_API pthread_t frwk_thread_create(void *(*start)(void *), void *arg);

/**
 * Asks a thread to end at its next cancellation point. Does not wait for that.
 *
 * A thread that is cancelled inside a call of the library loses no descriptor, lock or memory of the library's, and no
 * save of a settings file is broken off. Ending a thread takes libgcc_s.so.1 on the image: without it the process
 * aborts.
 *
 * @param tid  a thread that has not ended yet; FRWK_THREAD_INVALID does nothing
 */
FRWK_API void frwk_thread_cancel(pthread_t tid);

FRWK_END_DECLS

#endif
