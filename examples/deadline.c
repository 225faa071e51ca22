/* SPDX-FileCopyrightText: 2026 the libfrwk authors */
/* SPDX-License-Identifier: MIT */

/*
 * A synchronous request with a deadline of one's own: a thread asks and may be late, the caller waits no longer than it
 * wants to, and what the two share is freed by whoever is last.
 */
#define _POSIX_C_SOURCE 200809L
#include <frwk.h>

#include <stdlib.h>
#include <string.h>
#include <time.h>

enum { SLOW_MS = 300 };

struct ask {
    pthread_mutex_t lock;
    pthread_cond_t done;
    int users;
    int finished;
    int rc;
    int32_t result;
    uint8_t rsp[64];
};

/* Called with the lock held. */
static void leave(struct ask *a)
{
    int last = --a->users == 0;
    pthread_mutex_unlock(&a->lock);
    if (last) {
        pthread_cond_destroy(&a->done);
        pthread_mutex_destroy(&a->lock);
        free(a);
    }
}

static void *asker(void *arg)
{
    struct ask *a = arg;
    int rc = frwk_ipc_msg_get(FRWK_MODULE_QTI, FRWK_MSG_USER, a->rsp, sizeof a->rsp, 3, &a->result);
    pthread_mutex_lock(&a->lock);
    a->rc = rc;
    a->finished = 1;
    pthread_cond_signal(&a->done);
    leave(a);
    return NULL;
}

/* The answer's first byte; -1 when there is none within `ms`. */
static int ask_within(int ms)
{
    struct ask *a = calloc(1, sizeof *a);
    pthread_condattr_t monotonic;
    struct timespec end;
    if (a == NULL) {
        return -1;
    }
    pthread_condattr_init(&monotonic);
    pthread_condattr_setclock(&monotonic, CLOCK_MONOTONIC);
    pthread_mutex_init(&a->lock, NULL);
    pthread_cond_init(&a->done, &monotonic);
    pthread_condattr_destroy(&monotonic);
    clock_gettime(CLOCK_MONOTONIC, &end);
    end.tv_nsec += ms % 1000 * 1000000L;
    end.tv_sec += ms / 1000 + end.tv_nsec / 1000000000;
    end.tv_nsec %= 1000000000;

    a->users = 2;
    pthread_mutex_lock(&a->lock);
    if (frwk_thread_create(asker, a) == FRWK_THREAD_INVALID) {
        a->users = 1;
    }
    while (a->users == 2 && !a->finished && pthread_cond_timedwait(&a->done, &a->lock, &end) == 0) {
    }
    int answer = a->finished && a->rc == FRWK_ERROR_SUCCESS ? a->rsp[0] : -1;
    leave(a);
    return answer;
}

/* Answers late. */
static int32_t handle(uint32_t from, uint32_t msg, const uint8_t *req, int32_t req_len, uint8_t *rsp, int32_t rsp_size,
                      uint32_t timeout)
{
    (void)from, (void)msg, (void)req, (void)req_len, (void)timeout;
    frwk_sleep(SLOW_MS);
    memset(rsp, 42, (size_t)rsp_size);
    return FRWK_ERROR_SUCCESS;
}

int main(void)
{
    if (frwk_module_init(FRWK_MODULE_QTI, NULL) != FRWK_ERROR_SUCCESS) {
        return 1;
    }
    frwk_ipc_init(handle);
    return ask_within(SLOW_MS / 10) == -1 && ask_within(SLOW_MS * 100) == 42 ? 0 : 2;
}
