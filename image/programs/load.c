/* SPDX-FileCopyrightText: 2026 the libfrwk authors */
/* SPDX-License-Identifier: MIT */

/*
 * load SECONDS: sends requests to all daemons of the device for so long, while they may be killed and started anew.
 * Prints what came of them; ends with 1 when an answer was wrong.
 */
#include <frwk.h>

#include <stdatomic.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

enum { MSG_ECHO = FRWK_MSG_USER, BODY_MAX = 8000, SAVE_PERIOD = 1000, PAUSE = 20 };

struct counts_t {
    atomic_long asked, answered, away, cut_off, wrong, saved;
};
static struct counts_t s_counts[FRWK_MODULE_MAX];

static void count(uint32_t id, int rc, int good)
{
    struct counts_t *counts = &s_counts[id];
    counts->asked++;
    if (rc == FRWK_ERROR_SUCCESS && good) {
        counts->answered++;
    } else if (rc == FRWK_ERROR_NO_MODULE) { /* it is being started */
        counts->away++;
    } else if (rc == FRWK_ERROR_RECV || rc == FRWK_ERROR_SEND || rc == FRWK_ERROR_NO_MEMORY) { /* it died meanwhile */
        counts->cut_off++;
    } else {
        printf("%s: result %d\n", frwk_module_name(id), rc);
        counts->wrong++;
    }
}

static void echo(unsigned int *seed)
{
    static uint8_t body[BODY_MAX];
    uint8_t rsp[BODY_MAX];
    int32_t len = rand_r(seed) % BODY_MAX + 1;
    int32_t result = -1;
    body[rand_r(seed) % len] = (uint8_t)rand_r(seed);
    int rc = frwk_ipc_send_sync(FRWK_MODULE_DIAL_TEST, MSG_ECHO, body, len, rsp, len, 3, &result);
    count(FRWK_MODULE_DIAL_TEST, rc, result == 0 && memcmp(body, rsp, (size_t)len) == 0);
}

static void *ask(void *arg)
{
    uint32_t id = (uint32_t)(uintptr_t)arg;
    unsigned int seed = id;
    for (;;) {
        uint32_t status = 0;
        if (id == FRWK_MODULE_DIAL_TEST) {
            echo(&seed);
        } else {
            int32_t result = -1;
            count(id,
                  frwk_ipc_send_sync(id, FRWK_MSG_SYS_STATUS, NULL, 0, (uint8_t *)&status, sizeof status, 3, &result),
                  result == 0);
        }
        frwk_sleep(PAUSE);
    }
    return NULL;
}

/* Settings change meanwhile; a save takes no more than memory. */
static void *save(void *arg)
{
    (void)arg;
    for (;;) {
        int rc = frwk_set_trace_info(FRWK_MODULE_QTI, rand() % 3, "error");
        s_counts[FRWK_MODULE_QTI].saved += rc == FRWK_ERROR_SUCCESS;
        s_counts[FRWK_MODULE_QTI].wrong += rc != FRWK_ERROR_SUCCESS;
        frwk_sleep(SAVE_PERIOD);
    }
    return NULL;
}

int main(int argc, char **argv)
{
    static const uint32_t daemons[] = {FRWK_MODULE_MONITOR, FRWK_MODULE_ATFWD_DAEMON, FRWK_MODULE_DIAL_TEST,
                                       FRWK_MODULE_SERIAL_BRIDGE, FRWK_MODULE_QMUXD};
    int seconds = argc > 1 ? atoi(argv[1]) : 60;
    frwk_module_init(FRWK_MODULE_LOGTOOL, NULL);
    frwk_debug_enable(0);
    for (size_t i = 0; i < sizeof daemons / sizeof *daemons; i++) {
        frwk_thread_create(ask, (void *)(uintptr_t)daemons[i]);
    }
    frwk_thread_create(save, NULL);
    for (int i = 0; i < seconds; i++) {
        frwk_sleep(1000);
    }
    long wrong = s_counts[FRWK_MODULE_QTI].wrong;
    for (size_t i = 0; i < sizeof daemons / sizeof *daemons; i++) {
        struct counts_t *counts = &s_counts[daemons[i]];
        printf("%s: %ld requests, %ld answered, %ld while it was away, %ld cut off, %ld wrong\n",
               frwk_module_name(daemons[i]), counts->asked, counts->answered, counts->away, counts->cut_off,
               counts->wrong);
        wrong += counts->wrong;
    }
    printf("%ld settings saved, %ld not\n", s_counts[FRWK_MODULE_QTI].saved, s_counts[FRWK_MODULE_QTI].wrong);
    return wrong > 0;
}
