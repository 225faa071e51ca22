/*
 * Submodules: a queue and a thread each.
 */
#include "frwk_bounded.h"
#include "frwk_common_module.h"
#include "frwk_guard.h"
#include "frwk_submodule.h"
#include "frwk_thread.h"
#include "frwk_trace.h"

#include <stddef.h>
#include <stdlib.h>

static_assert(offsetof(frwk_submodule_msg_t, to) == 2 * sizeof(void *) &&
              offsetof(frwk_submodule_msg_t, from) == 2 * sizeof(void *) + 4 &&
              offsetof(frwk_submodule_msg_t, msg) == 2 * sizeof(void *) + 8 &&
              offsetof(frwk_submodule_msg_t, len) == 2 * sizeof(void *) + 12 &&
              offsetof(frwk_submodule_msg_t, data) == 2 * sizeof(void *) + 16 &&
              sizeof(frwk_submodule_msg_t) == 2 * sizeof(void *) + 16);

/* Appends a message; true when the queue was empty before. */
static bool frwk_smt_push(frwk_smt_t *smt, frwk_submodule_msg_t *msg)
{
    mutex_guard lock(&smt->lock);
    bool was_empty = frwk_list_empty(&smt->queue) != 0;
    frwk_list_add(&smt->queue, &msg->node);
    return was_empty;
}

/* Moves all pending messages to the end of an empty list, under one lock instead of one for each. */
static void take_pending(frwk_smt_t *smt, frwk_list_t *batch)
{
    mutex_guard lock(&smt->lock);
    if (!frwk_list_empty(&smt->queue)) {
        *batch = smt->queue;
        batch->next->prev = batch;
        batch->prev->next = batch;
        frwk_list_init(&smt->queue);
    }
}

/* The oldest message, null when there is none. The batch holds what was taken off the queue and not delivered yet. */
static frwk_submodule_msg_t *frwk_smt_pop(frwk_smt_t *smt, frwk_list_t *batch)
{
    if (frwk_list_empty(batch)) {
        take_pending(smt, batch);
    }
    if (frwk_list_empty(batch)) {
        return nullptr;
    }
    frwk_list_t *node = batch->next;
    frwk_list_del(node);
    return frwk_list_entry(node, frwk_submodule_msg_t, node);
}

static void *frwk_submodule_main(void *arg)
{
    frwk_smt_t *smt = static_cast<frwk_smt_t *>(arg);
    FRWK_ASSERT(NULL != smt);
    frwk_submodule_cb_t cb = smt->cb.load(std::memory_order_acquire);
    frwk_list_t batch;
    frwk_list_init(&batch);
    for (;;) {
        frwk_sem_wait(&smt->sem);
        while (frwk_submodule_msg_t *msg = frwk_smt_pop(smt, &batch)) {
            cb(msg);
        }
    }
}

void frwk_submodule_create(uint32_t sid, frwk_submodule_cb_t cb)
{
    FRWK_ASSERT((NULL != cb) && (FRWK_SUBMODULE_MIN <= sid) && (FRWK_SUBMODULE_MAX > sid));
    frwk_smt_t *smt = &g_s_module_ctx.smt[sid];
    FRWK_ASSERT(NULL == smt->cb);
    smt->sid = sid;
    frwk_list_init(&smt->queue);
    frwk_mutex_create(&smt->lock);
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
