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

/* A pending timer as the service keeps it. */
struct pending_t {
    frwk_timer_t timer;
    pending_t *next; /* of the same bucket of by_id */
};

/* The pending timers by id, so that a stop need not walk the list. Guarded by the service's mutex. */
enum { ID_BUCKETS = 256 };
static pending_t *by_id[ID_BUCKETS];
static int32_t last_id;
static bool ids_repeat; /* once they have started again, pending timers may have the same id */

static frwk_timer_t *timer_of(const frwk_list_t *node)
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

/* The timer of that id that comes first in the list, null when there is none. */
static frwk_timer_t *find_by_id(int id)
{
    frwk_timer_t *first = nullptr;
    for (pending_t *p = by_id[static_cast<unsigned int>(id) % ID_BUCKETS]; p != nullptr; p = p->next) {
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

static void link_by_id(frwk_timer_t *timer)
{
    pending_t *pending = reinterpret_cast<pending_t *>(timer);
    pending_t **bucket = &by_id[static_cast<unsigned int>(timer->id) % ID_BUCKETS];
    pending->next = *bucket;
    *bucket = pending;
}

/* Takes a timer out of the list and of by_id. */
static frwk_timer_t *unlink_timer(frwk_timer_t *timer)
{
    pending_t **link = &by_id[static_cast<unsigned int>(timer->id) % ID_BUCKETS];
    while (*link != nullptr && &(*link)->timer != timer) {
        link = &(*link)->next;
    }
    if (*link != nullptr) {
        *link = (*link)->next;
    }
    frwk_list_del(&timer->node);
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

/* Whether the search for the timer's place is likely shorter from the head of the list than from its tail. */
static bool nearer_to_head(const frwk_list_t *head, const frwk_timer_t *timer)
{
    return ms_between(&timer->expire, &timer_of(head->next)->expire) <
           ms_between(&timer_of(head->prev)->expire, &timer->expire);
}

/*
 * The last record that is due no later than the timer, or the head when there is none. By the order of the list
 * nothing before such a record is due a millisecond after it.
 */
static frwk_list_t *search_back(frwk_list_t *head, const frwk_timer_t *timer)
{
    frwk_list_t *pos = head->prev;
    while (pos != head && due_later(&timer_of(pos)->expire, &timer->expire)) {
        pos = pos->prev;
    }
    return pos;
}

/*
 * Links the timer before the first one that is due later by milliseconds, that is in a later second or at least a
 * millisecond later in the same one. From whichever end the search begins, the place is the same.
 */
static void insert_sorted(frwk_timer_t *timer)
{
    frwk_list_t *head = &g_s_timer_ctrl.list;
    bool forward = !frwk_list_empty(head) && nearer_to_head(head, timer);
    frwk_list_t *pos = (forward ? head : search_back(head, timer))->next;
    while (pos != head && ms_between(&timer_of(pos)->expire, &timer->expire) <= 0) {
        pos = pos->next;
    }
    frwk_list_add(pos, &timer->node);
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
    pending_t *pending = static_cast<pending_t *>(malloc(sizeof *pending));
    if (pending == nullptr) {
        FRWK_ERR("alloc new timer[%d] failed!", timer_num);
        return 0;
    }
    *pending = {};
    frwk_timer_t *timer = &pending->timer;
    timer->timer_num = timer_num;
    timer->cb = cb;
    timer->data = data;
    frwk_simple_timer_start(&timer->expire, delay);

    mutex_guard lock(&g_s_timer_ctrl.mutex);
    int32_t id = take_id();
    timer->id = id;
    link_by_id(timer);
    insert_sorted(timer);
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
