/* SPDX-FileCopyrightText: 2026 the libfrwk authors */
/* SPDX-License-Identifier: MIT */

/*
 * The module context: the identity and the shared words of this process.
 */
#ifndef FRWK_COMMON_MODULE_H
#define FRWK_COMMON_MODULE_H

#include "frwk_ipc.h"
#include "frwk_list.h"
#include "frwk_module.h"
#include "frwk_submodule.h"

#include <semaphore.h>
#include <stdint.h>

#include <atomic>

/* Inside the library only: reached without the tables of the dynamic linker. */
#pragma GCC visibility push(hidden)

/* One slot of the submodule table. */
struct frwk_smt_t {
    uint32_t sid;
    std::atomic<frwk_submodule_cb_t> cb; /* stored last: a slot is in use exactly when it is set */
    std::atomic<frwk_list_t *> queue;    /* pending messages, newest first */
    sem_t sem;                           /* wakes the slot's thread */
};

/*
 * Every member is one word that any thread may read while another replaces it. Settings and counters are relaxed;
 * what publishes a function (ctrl_cb, ipc_handler, a slot's cb) is released and acquired.
 */
struct frwk_module_ctx_t {
    std::atomic<int32_t> id;
    std::atomic<int32_t> debug_mode;
    std::atomic<int32_t> level;
    std::atomic<int32_t> ipc_fd;       /* listening socket, -1 when the service is not running */
    std::atomic<int32_t> ipc_threads;  /* live connection threads */
    std::atomic<int32_t> timer_inited; /* 1 once the timer thread runs */
    std::atomic<frwk_module_cb_t> ctrl_cb;
    std::atomic<uint32_t> status;
    std::atomic<frwk_ipc_handler_t> ipc_handler;
    frwk_smt_t smt[FRWK_SUBMODULE_MAX];
};

extern frwk_module_ctx_t g_s_module_ctx;

/* Whether id names a module, that is lies in 1 to 9. */
static inline bool frwk_module_valid(uint32_t id)
{
    return id >= 1 && id < FRWK_MODULE_MAX;
}

/* The row of a module, null for an id that names none. */
frwk_module_info_t *frwk_module_row(uint32_t id);

/* The row's flags; 0 for an id that names no module. */
int32_t frwk_module_flags(uint32_t id);

/* The name of a module for use in messages: "unknown" where there is none. */
const char *frwk_module_label(uint32_t id);

/* The own id as the unsigned word that the calls and the wire carry. */
uint32_t frwk_module_own_id();

/* Gives the context its values of a started module; leaves id and timer_inited alone. */
void frwk_module_reset(frwk_module_cb_t cb);

#pragma GCC visibility pop

#endif
