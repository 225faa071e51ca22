/* SPDX-FileCopyrightText: 2026 the libfrwk authors */
/* SPDX-License-Identifier: MIT */

/*
 * The timer service, one thread over a sorted list, and the deadlines held by callers.
 */
#include "frwk_common_module.h"
#include "frwk_guard.h"
#include "frwk_thread.h"
#include "frwk_timer.h"
#include "frwk_trace.h"

#include <limits.h>
#include <stddef.h>
#include <stdlib.h>
#include <string.h>

#include <atomic>

enum { TIMER_PERIOD_MS = 500 }; /* how often the thread looks, and the least delay */

frwk_timer_ctrl_t g_s_timer_ctrl;

static_assert(offsetof(frwk_timer_ctrl_t, list) == sizeof(pthread_mutex_t) &&
              offsetof(frwk_timer_ctrl_t, default_cb) == sizeof(pthread_mutex_t) + 2 * sizeof(void *) &&
              offsetof(frwk_timer_ctrl_t, next_id) == sizeof(pthread_mutex_t) + 3 * sizeof(void *) &&
              offsetof(frwk_timer_ctrl_t, tid) == sizeof(pthread_mutex_t) + 4 * sizeof(void *));
static_assert(offsetof(frwk_timer_t, id) == 2 * sizeof(void *) &&
              offsetof(frwk_timer_t, timer_num) == 2 * sizeof(void *) + 4 &&
              offsetof(frwk_timer_t, cb) == 2 * sizeof(void *) + 8 &&
              offsetof(frwk_timer_t, data) == 3 * sizeof(void *) + 8 &&
              offsetof(frwk_timer_t, expire) == 4 * sizeof(void *) + 8);

/* A pending timer as the service keeps it; its links in the lanes lie behind it. */
struct pending_t {
    frwk_timer_t timer;
    pending_t *next; /* of the same bucket of by_id */
    uint32_t lane_count;
};

/*
 * The pending timers by id, so that a stop need not walk the list. There are as many buckets as timers, unless memory
 * was short when they should have become more; always a power of two. Guarded by the service's mutex, as all that
 * follows.
 */
enum { FEW_IDS = 256, MORE_IDS = 4 };
static pending_t *few_ids[FEW_IDS];
static pending_t **by_id = few_ids;
static uint32_t bucket_count = FEW_IDS;
static uint32_t pending_count;
static int32_t last_id;
static bool ids_repeat; /* once they have started again, pending timers may have the same id */

/*
 * Express lanes over the list, so that a start need not walk it: the lowest stops at about every fourth of its records,
 * each higher one at about every fourth stop of the one below. A stop in a lane is a stop in all below it. Stops that
 * are due within a millisecond may stand in another order than in the list: a search ends before them as well.
 */
static constexpr uint32_t LANES = 8;
static frwk_list_t lanes[LANES];
static uint32_t lanes_used; /* the higher ones are empty */

static pending_t *pending_of(frwk_timer_t *timer)
{
    return reinterpret_cast<pending_t *>(timer);
}

static frwk_list_t *lanes_of(pending_t *pending)
{
    return reinterpret_cast<frwk_list_t *>(pending + 1);
}

/* The record that these are the links of. */
static pending_t *owner_of(frwk_list_t *links)
{
    return reinterpret_cast<pending_t *>(links) - 1;
}

static frwk_timer_t *timer_of(frwk_list_t *node)
{
    return frwk_list_entry(node, frwk_timer_t, node);
}

/*
 * frwk_time_diff() without its wrap: beside a timer that is overdue, one with the longest delay is more than 31 bits of
 * milliseconds away.
 */
static int64_t ms_between(const frwk_uptime_t *a, const frwk_uptime_t *b)
{
    return (int64_t{a->sec} - b->sec) * 1000 + (a->usec - b->usec) / 1000;
}

static pending_t **bucket_of(int id)
{
    return &by_id[static_cast<uint32_t>(id) & (bucket_count - 1)];
}

/* The timer of that id that comes first in the list, null when there is none. */
static frwk_timer_t *find_by_id(int id)
{
    frwk_timer_t *first = nullptr;
    for (pending_t *p = *bucket_of(id); p != nullptr; p = p->next) {
        /* A bucket is newest first, and of two that are due alike the older one comes first. */
        if (p->timer.id == id && (first == nullptr || ms_between(&p->timer.expire, &first->expire) <= 0)) {
            first = &p->timer;
            if (!ids_repeat) {
                break;
            }
        }
    }
    return first;
}

static void link_by_id(pending_t *pending)
{
    pending_t **bucket = bucket_of(pending->timer.id);
    pending->next = *bucket;
    *bucket = pending;
}

/* A chain in the opposite order. */
static pending_t *reversed(pending_t *chain)
{
    pending_t *done = nullptr;
    while (chain != nullptr) {
        pending_t *next = chain->next;
        chain->next = done;
        done = chain;
        chain = next;
    }
    return done;
}

/* More buckets. The oldest timer of each is linked first, so that the newest stays in front. */
static void grow_by_id()
{
    pending_t **old = by_id;
    uint32_t old_count = bucket_count;
    pending_t **grown = static_cast<pending_t **>(calloc(old_count, MORE_IDS * sizeof *grown));
    if (grown == nullptr) {
        return;
    }
    by_id = grown;
    bucket_count = old_count * MORE_IDS;
    for (uint32_t i = 0; i < old_count; i++) {
        for (pending_t *p = reversed(old[i]), *next; p != nullptr; p = next) {
            next = p->next;
            link_by_id(p);
        }
    }
    if (old != few_ids) {
        free(old);
    }
}

/* Takes a timer out of the list, the lanes and by_id. */
static frwk_timer_t *unlink_timer(frwk_timer_t *timer)
{
    pending_t *pending = pending_of(timer);
    pending_t **link = bucket_of(timer->id);
    while (*link != nullptr && *link != pending) {
        link = &(*link)->next;
    }
    if (*link != nullptr) {
        *link = pending->next;
    }
    for (uint32_t lane = 0; lane < pending->lane_count; lane++) {
        frwk_list_del(&lanes_of(pending)[lane]);
    }
    frwk_list_del(&timer->node);
    pending_count--;
    return timer;
}

/* The first timer when it is due, unlinked; null when there is nothing to do yet. */
static frwk_timer_t *take_due_timer()
{
    mutex_guard lock(&g_s_timer_ctrl.mutex);
    if (frwk_list_empty(&g_s_timer_ctrl.list)) {
        return nullptr;
    }
    frwk_timer_t *first = timer_of(g_s_timer_ctrl.list.next);
    frwk_uptime_t now;
    frwk_get_uptime(&now);
    if (ms_between(&first->expire, &now) > 0) {
        return nullptr;
    }
    return unlink_timer(first);
}

/* frwk_timer_init() may replace the default callback while the thread looks at it. */
static void store_default_cb(frwk_timer_cb_t cb)
{
    __atomic_store_n(&g_s_timer_ctrl.default_cb, cb, __ATOMIC_RELEASE);
}

static void fire(frwk_timer_t *timer)
{
    pthread_cleanup_push(free, timer);
    frwk_timer_cb_t cb =
        timer->cb != nullptr ? timer->cb : __atomic_load_n(&g_s_timer_ctrl.default_cb, __ATOMIC_ACQUIRE);
    if (cb != nullptr) {
        cb(timer->timer_num, timer->data);
    }
    pthread_cleanup_pop(1);
}

static void *timer_main(void *)
{
    for (;;) {
        frwk_timer_t *timer = take_due_timer();
        if (timer == nullptr) {
            frwk_sleep(TIMER_PERIOD_MS);
        } else {
            fire(timer);
        }
    }
}

int frwk_timer_init(frwk_timer_cb_t default_cb)
{
    if (g_s_module_ctx.timer_inited.load(std::memory_order_acquire) != 0) {
        store_default_cb(default_cb);
        return FRWK_ERROR_SUCCESS;
    }
    memset(&g_s_timer_ctrl, 0, sizeof g_s_timer_ctrl);
    frwk_mutex_create(&g_s_timer_ctrl.mutex);
    frwk_list_init(&g_s_timer_ctrl.list);
    store_default_cb(default_cb);
    g_s_timer_ctrl.next_id = 1;
    g_s_timer_ctrl.tid = frwk_thread_create(timer_main, nullptr);
    if (g_s_timer_ctrl.tid == FRWK_THREAD_INVALID) {
        FRWK_ERR("create timer thread failed!");
        frwk_mutex_close(&g_s_timer_ctrl.mutex);
        return FRWK_ERROR_THREAD;
    }
    g_s_module_ctx.timer_inited.store(1, std::memory_order_release);
    return FRWK_ERROR_SUCCESS;
}

/* The ids run from 1 to INT_MAX - 1 and start again. */
static int32_t take_id()
{
    int32_t id = g_s_timer_ctrl.next_id == INT_MAX ? 1 : g_s_timer_ctrl.next_id;
    g_s_timer_ctrl.next_id = id + 1;
    ids_repeat = ids_repeat || id <= last_id;
    last_id = id;
    return id;
}

static bool due_later(const frwk_uptime_t *a, const frwk_uptime_t *b)
{
    return a->sec != b->sec ? a->sec > b->sec : a->usec > b->usec;
}

/* Later as frwk_time_diff() counts: in a later second, or at least a millisecond later in the same one. */
static bool due_ms_later(const frwk_uptime_t *a, const frwk_uptime_t *b)
{
    return a->sec != b->sec ? a->sec > b->sec : a->usec - b->usec >= 1000;
}

/* Leaves out the higher lanes that have become empty, but for as many as the next timer needs. */
static void use_lanes(uint32_t needed)
{
    while (lanes_used > needed && lanes[lanes_used - 1].next == &lanes[lanes_used - 1]) {
        lanes_used--;
    }
    for (; lanes_used < needed; lanes_used++) {
        frwk_list_init(&lanes[lanes_used]);
    }
}

/*
 * The last stop that is due no later than the timer, or the head of the list; `stops` receives the last of each lane.
 * By the order of the list nothing before such a record is due a millisecond after the timer.
 */
static frwk_list_t *search_lanes(const frwk_timer_t *timer, frwk_list_t *stops[])
{
    frwk_list_t *at = lanes; /* those of the record reached, or the heads */
    for (uint32_t lane = lanes_used; lane-- > 0;) {
        while (at[lane].next != &lanes[lane] &&
               !due_later(&owner_of(at[lane].next - lane)->timer.expire, &timer->expire)) {
            at = at[lane].next - lane;
        }
        stops[lane] = &at[lane];
    }
    return at == lanes ? &g_s_timer_ctrl.list : &owner_of(at)->timer.node;
}

/*
 * Links the timer before the first one that is due a millisecond later. From whichever record due no later the walk
 * begins, the place is the same.
 */
static void insert_sorted(pending_t *pending)
{
    frwk_timer_t *timer = &pending->timer;
    const uint32_t lane_count = pending->lane_count;
    frwk_list_t *head = &g_s_timer_ctrl.list;
    frwk_list_t *at = head->prev;
    frwk_list_t *stops[LANES];
    use_lanes(lane_count);
    for (uint32_t lane = 0; lane < lane_count; lane++) {
        stops[lane] = lanes[lane].prev;
    }
    if (at != head && due_later(&timer_of(at)->expire, &timer->expire)) { /* else it is behind all, as most */
        at = search_lanes(timer, stops);
        while (at->next != head && !due_ms_later(&timer_of(at->next)->expire, &timer->expire)) {
            at = at->next;
        }
    }
    frwk_list_add(at->next, &timer->node);
    for (uint32_t lane = 0; lane < lane_count; lane++) {
        frwk_list_add(stops[lane]->next, &lanes_of(pending)[lane]);
    }
    pending_count++;
}

/* How many lanes stop at the next timer: each at a quarter of the timers of the one below, in no pattern. */
static uint32_t choose_lanes()
{
    static std::atomic<uint32_t> started; /* may lose a count to another thread: it need not be exact */
    uint32_t count = started.load(std::memory_order_relaxed) + 1;
    started.store(count, std::memory_order_relaxed);
    uint32_t mixed = count * 0x9e3779b1U;
    mixed = (mixed ^ mixed >> 15) * 0x85ebca77U;
    uint32_t chosen = static_cast<uint32_t>(__builtin_clz(mixed | 1)) / 2;
    return chosen < LANES ? chosen : LANES;
}

int frwk_timer_cb_start(int timer_num, frwk_timer_cb_t cb, void *data, int delay)
{
    if (delay < TIMER_PERIOD_MS) {
        FRWK_ERR("timer(%dms) < delay(%dms)", delay, TIMER_PERIOD_MS);
        return 0;
    }
    if (g_s_module_ctx.timer_inited.load(std::memory_order_acquire) == 0) {
        FRWK_ERR("timer service is not started!");
        return 0;
    }
    uint32_t lane_count = choose_lanes();
    pending_t *pending = static_cast<pending_t *>(malloc(sizeof *pending + lane_count * sizeof(frwk_list_t)));
    if (pending == nullptr) {
        FRWK_ERR("alloc new timer[%d] failed!", timer_num);
        return 0;
    }
    *pending = {};
    pending->lane_count = lane_count;
    frwk_timer_t *timer = &pending->timer;
    timer->timer_num = timer_num;
    timer->cb = cb;
    timer->data = data;
    frwk_simple_timer_start(&timer->expire, delay);

    mutex_guard lock(&g_s_timer_ctrl.mutex);
    int32_t id = take_id();
    timer->id = id;
    if (pending_count >= bucket_count) {
        grow_by_id();
    }
    link_by_id(pending);
    insert_sorted(pending);
    return id;
}

int frwk_timer_start(int timer_num, void *data, int delay)
{
    return frwk_timer_cb_start(timer_num, nullptr, data, delay);
}

/* The pending timer of that id, unlinked, or null. */
static frwk_timer_t *take_timer(int id)
{
    if (g_s_module_ctx.timer_inited.load(std::memory_order_acquire) == 0) {
        return nullptr;
    }
    mutex_guard lock(&g_s_timer_ctrl.mutex);
    frwk_timer_t *timer = find_by_id(id);
    return timer != nullptr ? unlink_timer(timer) : nullptr;
}

void *frwk_timer_stop(int id)
{
    frwk_timer_t *timer = take_timer(id);
    if (timer == nullptr) {
        FRWK_ERR("can not found timer by id=%d", id);
        return nullptr;
    }
    void *data = timer->data;
    free(timer);
    return data;
}

void frwk_simple_timer_start(frwk_uptime_t *t, int delay)
{
    frwk_get_uptime(t);
    t->sec += delay / 1000;
    t->usec += (delay % 1000) * 1000;
    if (t->usec > 999999) {
        t->sec += 1;
        t->usec -= 1000000;
    }
}

int frwk_simple_timer_timeout(const frwk_uptime_t *t)
{
    frwk_uptime_t now;
    frwk_get_uptime(&now);
    return frwk_time_diff(t, &now) <= 0 ? 1 : 0;
}

int frwk_simple_timer_remain(const frwk_uptime_t *t)
{
    frwk_uptime_t now;
    frwk_get_uptime(&now);
    return frwk_time_diff(t, &now) / 1000;
}
