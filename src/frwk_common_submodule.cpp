/* SPDX-FileCopyrightText: 2026 the libfrwk authors */
/* SPDX-License-Identifier: MIT */

/*
 * Submodules: a queue and a thread each.
 */
#include "frwk_bounded.h"
#include "frwk_common_module.h"
#include "frwk_submodule.h"
#include "frwk_thread.h"
#include "frwk_trace.h"

#include <sched.h>
#include <stddef.h>
#include <stdlib.h>

static_assert(offsetof(frwk_submodule_msg_t, to) == 2 * sizeof(void *) &&
              offsetof(frwk_submodule_msg_t, from) == 2 * sizeof(void *) + 4 &&
              offsetof(frwk_submodule_msg_t, msg) == 2 * sizeof(void *) + 8 &&
              offsetof(frwk_submodule_msg_t, len) == 2 * sizeof(void *) + 12 &&
              offsetof(frwk_submodule_msg_t, data) == 2 * sizeof(void *) + 16 &&
              sizeof(frwk_submodule_msg_t) == 2 * sizeof(void *) + 16);

/*
 * The queue is a chain through `node.next`, newest message first: any thread pushes with one compare-and-swap, and the
 * slot's thread takes the whole chain with one exchange and turns it round. Nobody ever takes less than all, so a head
 * that compares equal is the head, even if its block was freed and allocated anew in between.
 */

/* Appends a message; true when the queue was empty before. */
static bool frwk_smt_push(frwk_smt_t *smt, frwk_submodule_msg_t *msg)
{
    frwk_list_t *newest = smt->queue.load(std::memory_order_relaxed);
    do {
        msg->node.next = newest;
    } while (
        !smt->queue.compare_exchange_weak(newest, &msg->node, std::memory_order_release, std::memory_order_relaxed));
    return newest == nullptr;
}

/* Takes all pending messages: a chain, oldest first, or null. */
static frwk_list_t *take_pending(frwk_smt_t *smt)
{
    frwk_list_t *newest = smt->queue.exchange(nullptr, std::memory_order_acquire);
    frwk_list_t *oldest = nullptr;
    while (newest != nullptr) {
        frwk_list_t *older = newest->next;
        newest->next = oldest;
        oldest = newest;
        newest = older;
    }
    return oldest;
}

/* The oldest message, null when there is none. `taken` is what was taken off the queue and not delivered yet. */
static frwk_submodule_msg_t *frwk_smt_pop(frwk_smt_t *smt, frwk_list_t **taken)
{
    if (*taken == nullptr) {
        *taken = take_pending(smt);
    }
    frwk_list_t *node = *taken;
    if (node == nullptr) {
        return nullptr;
    }
    *taken = node->next;
    node->next = nullptr;
    return frwk_list_entry(node, frwk_submodule_msg_t, node);
}

/* The callback is the slot's at the time: a module that starts anew may have created the slot again. */
static void deliver_pending(frwk_smt_t *smt)
{
    frwk_list_t *taken = nullptr;
    while (frwk_submodule_msg_t *msg = frwk_smt_pop(smt, &taken)) {
        smt->cb.load(std::memory_order_acquire)(msg);
    }
}

static void *frwk_submodule_main(void *arg)
{
    frwk_smt_t *smt = static_cast<frwk_smt_t *>(arg);
    FRWK_ASSERT(NULL != smt);
    for (;;) {
        frwk_sem_wait(&smt->sem);
        deliver_pending(smt);
        /* Senders go first: in the middle of a burst they find this thread awake, and need not wake it. */
        sched_yield();
        deliver_pending(smt);
    }
}

void frwk_submodule_create(uint32_t sid, frwk_submodule_cb_t cb)
{
    FRWK_ASSERT((NULL != cb) && (FRWK_SUBMODULE_MIN <= sid) && (FRWK_SUBMODULE_MAX > sid));
    frwk_smt_t *smt = &g_s_module_ctx.smt[sid];
    FRWK_ASSERT(NULL == smt->cb);
    smt->sid = sid;
    smt->queue.store(nullptr, std::memory_order_relaxed);
    frwk_sem_create(&smt->sem);
    smt->cb.store(cb, std::memory_order_release);
    pthread_t tid = frwk_thread_create(frwk_submodule_main, smt);
    FRWK_ASSERT(FRWK_THREAD_INVALID != tid);
}

static frwk_submodule_msg_t *new_message(uint32_t from, uint32_t to, uint32_t msg, const void *data, int32_t len)
{
    size_t size = static_cast<size_t>(len);
    frwk_submodule_msg_t *record = static_cast<frwk_submodule_msg_t *>(malloc(sizeof *record + size));
    if (record != nullptr) {
        record->node = {nullptr, nullptr};
        record->to = to;
        record->from = from;
        record->msg = msg;
        record->len = len;
        memcpy_s(record->data, size, data, size);
    }
    return record;
}

int frwk_submodule_send(uint32_t from, uint32_t to, uint32_t msg, const void *data, int32_t len)
{
    if (to >= FRWK_SUBMODULE_MAX) {
        FRWK_ERR("Invalid submodule to=%d", static_cast<int>(to));
        return FRWK_ERROR_INVALID_PARAM;
    }
    frwk_smt_t *smt = &g_s_module_ctx.smt[to];
    if (smt->cb.load(std::memory_order_acquire) == nullptr) {
        FRWK_ERR("Submodule to=%d is not created", static_cast<int>(to));
        return FRWK_ERROR_NOT_FOUND;
    }
    if (len < 0) {
        FRWK_ERR("Invalid message length=%d", len);
        return FRWK_ERROR_INVALID_PARAM;
    }
    frwk_submodule_msg_t *record = new_message(from, to, msg, data, len);
    if (record == nullptr) {
        FRWK_ERR("Alloc for message send error!");
        return FRWK_ERROR_NO_MEMORY;
    }
    /* A queue that held something has its thread awake or about to be, and the thread takes all there is. */
    if (frwk_smt_push(smt, record)) {
        frwk_sem_post(&smt->sem);
    }
    return FRWK_ERROR_SUCCESS;
}
