/* SPDX-FileCopyrightText: 2026 the libfrwk authors */
/* SPDX-License-Identifier: MIT */

/**
 * @file frwk_submodule.h
 * Submodules: message-driven workers inside one module, each with a queue and a thread of its own.
 */
#ifndef FRWK_SUBMODULE_H
#define FRWK_SUBMODULE_H

#include "frwk_defs.h"
#include "frwk_list.h"

#include <stdint.h>

FRWK_BEGIN_DECLS

/** The range of submodule ids. */
enum {
    FRWK_SUBMODULE_MIN = 0, /**< The first id. */
    FRWK_SUBMODULE_MAX = 8  /**< One past the last id. */
};

#if defined(__clang__) && defined(__cplusplus)
#pragma clang diagnostic push
#pragma clang diagnostic ignored "-Wc99-extensions"
#endif

/** A message: one block from malloc(), owned by the receiving callback, which ends it with free(). */
typedef struct {
    frwk_list_t node;             /**< Link in the receiver's queue; free for the callback's own use. */
    uint32_t to;                  /**< Receiving submodule. */
    uint32_t from;                /**< The sender's value, by convention its submodule id. */
    uint32_t msg;                 /**< Message id, the module's own. */
    int32_t len;                  /**< Number of bytes in `data`. */
    __extension__ uint8_t data[]; /**< A copy of what was sent. */
} frwk_submodule_msg_t;

#if defined(__clang__) && defined(__cplusplus)
#pragma clang diagnostic pop
#endif

/**
 * Callback of a submodule; runs on its thread, one message at a time, in the order sent, with no lock held.
 * @param msg  the message; the callback frees it, now or later
 */
typedef void (*frwk_submodule_cb_t)(frwk_submodule_msg_t *msg);

/**
 * Creates a submodule for the life of the process; after frwk_module_init(). Not for two threads at once with the same
 * id.
 *
 * An id outside 0 to 7, a null callback, an id created before, or a thread that cannot be started ends the process by
 * an assertion.
 *
 * @param sid  its id, 0 to 7
 * @param cb   its callback; may run before the call returns
 */
FRWK_API void frwk_submodule_create(uint32_t sid, frwk_submodule_cb_t cb);

/**
 * Sends a copy of the data to a submodule of this process, the calling one included. Never waits for the receiver; its
 * queue has no limit.
 *
 * @param from  the sender, passed through unchecked
 * @param to    receiving submodule, 0 to 7
 * @param msg   message id, passed through
 * @param data  `len` bytes; may be null when `len` is 0
 * @param len   number of bytes, 0 or above
 * @return FRWK_ERROR_SUCCESS; otherwise, traced and with nothing sent: FRWK_ERROR_INVALID_PARAM for `to` outside 0 to 7
 *         or a negative length, FRWK_ERROR_NOT_FOUND when `to` was never created, FRWK_ERROR_NO_MEMORY
 */
FRWK_API int frwk_submodule_send(uint32_t from, uint32_t to, uint32_t msg, const void *data, int32_t len);

FRWK_END_DECLS

#endif
