/* SPDX-FileCopyrightText: 2026 the libfrwk authors */
/* SPDX-License-Identifier: MIT */

/**
 * @file frwk_timer.h
 * One-shot timers on a thread of the library, and deadlines held by the caller.
 */
#ifndef FRWK_TIMER_H
#define FRWK_TIMER_H

#include "frwk_defs.h"
#include "frwk_list.h"
#include "frwk_time.h"

#include <pthread.h>
#include <stdint.h>

FRWK_BEGIN_DECLS

/**
 * Timer callback. All run on the timer thread, one at a time, in order of expiry, with no lock held: while one runs, no
 * other timer fires. It may start and stop timers itself.
 *
 * @param timer_num  the number given at the start
 * @param data       the data given at the start
 */
typedef void (*frwk_timer_cb_t)(int timer_num, void *data);

/** A pending timer. */
typedef struct {
    frwk_list_t node;     /**< Link in the service's list. */
    int32_t id;           /**< 1 to 2,147,483,646. */
    int32_t timer_num;    /**< The caller's number. */
    frwk_timer_cb_t cb;   /**< Null: the service's default callback is called. */
    void *data;           /**< The caller's. */
    frwk_uptime_t expire; /**< When it is due. */
} frwk_timer_t;

/** Control block of the timer service. */
typedef struct {
    pthread_mutex_t mutex;      /**< Guards `list` and `next_id`. */
    frwk_list_t list;           /**< Pending timers, earliest first. */
    frwk_timer_cb_t default_cb; /**< For timers without a callback; may be null. */
    int32_t next_id;            /**< Id of the next timer. */
    pthread_t tid;              /**< The timer thread. */
} frwk_timer_ctrl_t;

/** The timer service of the process, zero until frwk_timer_init(). To look at with its mutex held, not to change. */
extern FRWK_API frwk_timer_ctrl_t g_s_timer_ctrl;

/**
 * Starts the timer service; when it runs already, only replaces the default callback. Called after frwk_module_init(),
 * from one thread, before any timer is started. The service runs until the process ends.
 *
 * @param default_cb  callback of timers that have none; may be null: they then expire without a call
 * @return FRWK_ERROR_SUCCESS, or FRWK_ERROR_THREAD when its thread cannot be started (a later call tries again)
 */
FRWK_API int frwk_timer_init(frwk_timer_cb_t default_cb);

/**
 * Starts a timer that fires once, up to about 500 ms after its expiry, later when callbacks before it take long. Timers
 * that are due in the same millisecond fire in the order in which they were started.
 *
 * @param timer_num  handed to the callback; need not be unique
 * @param cb         callback; null for the default callback that is set when the timer fires
 * @param data       handed to the callback; stays the caller's; may be null
 * @param delay      milliseconds, 500 to 2,147,483,647 (24.8 days)
 * @return the timer's id, above 0; 0 when the delay is too short, memory is short, or the service does not run. Ids
 *         start again at 1 after 2,147,483,646, whether or not that one is still pending.
 */
FRWK_API int frwk_timer_cb_start(int timer_num, frwk_timer_cb_t cb, void *data, int delay);

/**
 * As frwk_timer_cb_start() with the default callback. Mind the order of the arguments.
 * @param timer_num  as there
 * @param data       as there
 * @param delay      as there
 * @return as there
 */
FRWK_API int frwk_timer_start(int timer_num, void *data, int delay);

/**
 * Stops a pending timer; its callback is then never called. Does not wait for a callback that has begun.
 *
 * @param id  as returned by the start
 * @return the timer's data; null when no pending timer has the id (unknown, stopped, or fired: its callback may be
 *         running now), which is traced, and also when the data of the timer stopped is null
 */
FRWK_API void *frwk_timer_stop(int id);

/**
 * Sets a deadline. Needs no timer service; one thread at a time uses a deadline.
 * @param t      receives the deadline
 * @param delay  milliseconds from now, 0 or above
 */
FRWK_API void frwk_simple_timer_start(frwk_uptime_t *t, int delay);

/**
 * Tells whether a deadline has been reached. Its answer wraps: ask within 24.8 days after the deadline.
 * @param t  the deadline
 * @return 1 once it has been reached, else 0
 */
FRWK_API int frwk_simple_timer_timeout(const frwk_uptime_t *t);

/**
 * Tells how long it is until a deadline.
 * @param t  the deadline
 * @return whole seconds left, truncated toward zero: 0 within a second on either side, negative later. Wraps as
 *         frwk_simple_timer_timeout().
 */
FRWK_API int frwk_simple_timer_remain(const frwk_uptime_t *t);

FRWK_END_DECLS

#endif
