/**
 * @file frwk_thread.h
 * Mutexes, semaphores and detached threads. The caller owns the storage of each; nothing here allocates.
 */
#ifndef FRWK_THREAD_H
#define FRWK_THREAD_H

#include <pthread.h>
#include <semaphore.h>

#include "frwk_defs.h"

FRWK_BEGIN_DECLS

/** The thread id that stands for no thread. */
#define FRWK_THREAD_INVALID ((pthread_t)0)

/** Initialises a default, non-recursive mutex. @return the result of pthread_mutex_init(). */
FRWK_API int frwk_mutex_create(pthread_mutex_t *mutex);
/** Blocks until the mutex is free. Not a cancellation point. @return the result of pthread_mutex_lock(). */
FRWK_API int frwk_mutex_lock(pthread_mutex_t *mutex);
/** @return the result of pthread_mutex_unlock(). */
FRWK_API int frwk_mutex_unlock(pthread_mutex_t *mutex);
/** @return the result of pthread_mutex_destroy(). */
FRWK_API int frwk_mutex_close(pthread_mutex_t *mutex);

/** Initialises a semaphore of this process with count 0. @return the result of sem_init(). */
FRWK_API int frwk_sem_create(sem_t *sem);
/** @return the result of sem_post(). */
FRWK_API int frwk_sem_post(sem_t *sem);
/** Blocks until the semaphore is taken; signals do not end the wait. @return 0, or -1 when the semaphore is invalid. */
FRWK_API int frwk_sem_wait(sem_t *sem);
/** @return the result of sem_destroy(). */
FRWK_API int frwk_sem_close(sem_t *sem);

/**
 * Starts a detached thread with the scheduling of its creator. It releases its resources when it returns.
 *
 * @param start  thread routine; its result is ignored
 * @param arg    handed to `start`; owned by whom the two agree on
 * @return the thread's id, or FRWK_THREAD_INVALID after the error trace "create thread error!"
 */
FRWK_API pthread_t frwk_thread_create(void *(*start)(void *), void *arg);

/**
 * Asks a thread to end at its next cancellation point; does nothing for FRWK_THREAD_INVALID. Does not wait.
 *
 * A thread cancelled inside a call of the library loses no descriptor, lock or memory of the library's. Saving a
 * configuration file is not interrupted. The C library needs libgcc_s.so.1 on the image to end a thread.
 *
 * @param tid  a thread that has not ended yet
 */
FRWK_API void frwk_thread_cancel(pthread_t tid);

FRWK_END_DECLS

#endif
