/* SPDX-FileCopyrightText: 2026 the libfrwk authors */
/* SPDX-License-Identifier: MIT */

/**
 * @file frwk_ipc.h
 * Messages between modules: the wire format, the module's handler, and the request calls.
 *
 * A module listens on `/tmp/odm/ipc/<name>`. Each request takes a connection of its own: a request header and body,
 * answered by a response header and data, all words in host byte order. A request must reach the peer in one piece; the
 * README says how large a body may be for that to be certain.
 *
 * The calls that send are cancellation points; a cancelled one leaves nothing behind. Every failure is traced.
 */
#ifndef FRWK_IPC_H
#define FRWK_IPC_H

#include "frwk_defs.h"

#include <stdint.h>

FRWK_BEGIN_DECLS

/** Message ids of the library. Ids from FRWK_MSG_USER on are the modules' own; the last three go to the monitor's. */
enum {
    FRWK_MSG_SYS_CTRL0 = 0,         /**< To the control callback. */
    FRWK_MSG_SYS_CTRL1 = 1,         /**< To the control callback. */
    FRWK_MSG_SYS_CTRL2 = 2,         /**< To the control callback. */
    FRWK_MSG_SYS_LOG = 3,           /**< Body: two words, new debug mode and new trace threshold. */
    FRWK_MSG_SYS_STATUS = 4,        /**< Response: the status word. */
    FRWK_MSG_SYS_PING = 5,          /**< Answered with success; its receipt is not traced. */
    FRWK_MSG_SYS_NOP = 6,           /**< Answered with success. */
    FRWK_MSG_USER = 7,              /**< First id for the module's own handler. */
    FRWK_MSG_SYS_REBOOT = 501,      /**< To the monitor: one word, see frwk_system_reboot(). */
    FRWK_MSG_SYS_RESET = 502,       /**< To the monitor: one word, see frwk_system_reset(). */
    FRWK_MSG_SYS_MONITOR_CONF = 503 /**< To the monitor: two words, module id and its new supervision value. */
};

/** Header of a request on the wire, 24 bytes; the body follows. */
typedef struct {
    uint32_t from;    /**< Module id of the sender. */
    uint32_t msg;     /**< Message id. */
    uint32_t async;   /**< 0: answered after the handler; otherwise acknowledged before it. */
    uint32_t timeout; /**< Seconds that the receiver waits for its handler to be registered. */
    int32_t rsp_size; /**< Response bytes that the sender can take. */
    int32_t msg_len;  /**< Body bytes that follow; 0 or less for none. */
} frwk_ipc_reqhdr_t;

/** Header of a response on the wire, 8 bytes; the data follows. */
typedef struct {
    int32_t rc;      /**< The handler's result. */
    int32_t msg_len; /**< Data bytes that follow. */
} frwk_ipc_rsphdr_t;

/**
 * A module's handler for its messages, all ids but 0 to 6. Runs on the library's threads (and for synchronous requests
 * to oneself on the caller's), up to 21 at once for other processes, with no lock held. `req` and `rsp` are aligned to
 * 8 bytes, but for a synchronous request to oneself as the caller's are.
 *
 * @param from      module id of the sender, as the sender gave it: not checked
 * @param msg       message id
 * @param req       body, valid during the call; null when a request from another process has none
 * @param req_len   bytes in `req`; 0 or below for none
 * @param rsp       response buffer, zero-filled, but for a synchronous request to oneself the caller's own as it is;
 *                  may be null when `rsp_size` is 0
 * @param rsp_size  bytes in `rsp`; all of them are sent, whatever the result; 0 for asynchronous requests
 * @param timeout   the sender's timeout in seconds, passed on unchanged
 * @return a result for the sender; dropped for asynchronous requests
 */
typedef int32_t (*frwk_ipc_handler_t)(uint32_t from, uint32_t msg, const uint8_t *req, int32_t req_len, uint8_t *rsp,
                                      int32_t rsp_size, uint32_t timeout);

/**
 * Registers the module's handler, replacing any earlier one; requests that arrived before wait for it. Called after
 * frwk_module_init(), which forgets a handler.
 *
 * @param handler  the handler; stays registered until the process ends
 * @return FRWK_ERROR_SUCCESS, or FRWK_ERROR_INVALID_PARAM for null
 */
FRWK_API int frwk_ipc_init(frwk_ipc_handler_t handler);

/**
 * Returns its argument and has no other effect.
 * @param value  any value
 * @return `value`
 */
FRWK_API int32_t frwk_ipc_timeout(int32_t value);

/**
 * Sends a request and waits for the handler's result and response.
 *
 * Waits without a limit of its own until the target answers or closes the connection. To the own id, runs the handler
 * on the calling thread, and succeeds whatever its result. A response larger than `rsp_size` ends the process by an
 * assertion; a peer built on this library never sends one.
 *
 * @param to        target module, 1 to 9
 * @param msg       message id
 * @param req       body; may be null when `req_len` is 0
 * @param req_len   body bytes, 0 or above; the README says up to where a request is certain to arrive
 * @param rsp       response buffer; may be null when `rsp_size` is 0. Undefined after a failure.
 * @param rsp_size  bytes in `rsp`, 0 or above
 * @param timeout   seconds that the target waits for its handler to be registered; more than 2,147,483 count as that
 * @param result    receives the handler's result, FRWK_ERROR_NO_HANDLER when none was registered in time; may be null;
 *                  unchanged when no whole answer arrived
 * @return FRWK_ERROR_SUCCESS: answered, and `result` says how;
 *         FRWK_ERROR_FAILED: answered by another module with the result 2;
 *         FRWK_ERROR_NO_MODULE: `to` is invalid, or cannot be connected (it does not run, is a tool, or keeps this user
 *         out, or descriptors are short);
 *         FRWK_ERROR_INVALID_PARAM: a negative length, or a null pointer to more than 0 bytes;
 *         FRWK_ERROR_NO_MEMORY;
 *         FRWK_ERROR_SEND: the target closed the connection before it had taken the request;
 *         FRWK_ERROR_RECV: the target closed it without a whole answer (it was serving 21 requests, the body did not
 *         arrive in one piece, memory was short there, or it ended)
 */
FRWK_API int frwk_ipc_send_sync(uint32_t to, uint32_t msg, const void *req, int32_t req_len, void *rsp,
                                int32_t rsp_size, uint32_t timeout, int32_t *result);

/**
 * Sends a request and waits, without a limit, only until the target has taken it. Whether its handler then runs and
 * what it gives, the sender does not learn. To the own id, runs the handler on a new thread.
 *
 * @param to       target module, 1 to 9
 * @param msg      message id
 * @param data     body; may be null when `len` is 0
 * @param len      body bytes, as for frwk_ipc_send_sync()
 * @param timeout  as for frwk_ipc_send_sync()
 * @return FRWK_ERROR_ASYNC when the request was taken; otherwise FRWK_ERROR_NO_MODULE, FRWK_ERROR_INVALID_PARAM,
 *         FRWK_ERROR_NO_MEMORY, FRWK_ERROR_SEND or FRWK_ERROR_RECV as from frwk_ipc_send_sync(); to oneself
 *         FRWK_ERROR_THREAD when the thread cannot be started
 */
FRWK_API int frwk_ipc_send_async(uint32_t to, uint32_t msg, const void *data, int32_t len, uint32_t timeout);

/**
 * frwk_ipc_send_sync() without a request body.
 * @param to        as there
 * @param msg       as there
 * @param rsp       as there
 * @param rsp_size  as there
 * @param timeout   as there
 * @param result    as there
 * @return as there
 */
FRWK_API int frwk_ipc_msg_get(uint32_t to, uint32_t msg, void *rsp, int32_t rsp_size, uint32_t timeout,
                              int32_t *result);

/**
 * frwk_ipc_send_sync() without response data.
 * @param to       as there
 * @param msg      as there
 * @param req      as there
 * @param req_len  as there
 * @param timeout  as there
 * @param result   as there
 * @return as there
 */
FRWK_API int frwk_ipc_msg_set(uint32_t to, uint32_t msg, const void *req, int32_t req_len, uint32_t timeout,
                              int32_t *result);

/**
 * frwk_ipc_send_async() with a timeout of 3 seconds.
 * @param to    as there
 * @param msg   as there
 * @param data  as there
 * @param len   as there
 * @return as there
 */
FRWK_API int frwk_ipc_msg_notify(uint32_t to, uint32_t msg, const void *data, int32_t len);

/**
 * Notifies, without data, every module but the own whose row in this process's table has
 * FRWK_MODULE_FLAG_MONITOR_SERVICE, one after the other in ascending order. Waits for each as frwk_ipc_msg_notify();
 * those that do not take it are traced and skipped.
 *
 * @param msg  message id
 */
FRWK_API void frwk_ipc_msg_broadcast(uint32_t msg);

/**
 * Notifies every module but the own, whatever its flags, with data; otherwise as frwk_ipc_msg_broadcast().
 * @param msg   message id
 * @param data  body; may be null when `len` is 0
 * @param len   body bytes, as for frwk_ipc_send_sync()
 */
FRWK_API void frwk_ipc_msg_broadcast_data(uint32_t msg, const void *data, int32_t len);

/**
 * Asks the monitor to reboot the device. Waits as frwk_ipc_msg_notify().
 * @param arg  handed to the monitor's handler, which gives it its meaning
 * @return 1 when the monitor took the request, else 0
 */
FRWK_API int frwk_system_reboot(uint32_t arg);

/**
 * Asks the monitor to reset the device's services; otherwise as frwk_system_reboot().
 * @param arg  as there
 * @return as there
 */
FRWK_API int frwk_system_reset(uint32_t arg);

/**
 * Asks a module for its status word. Waits as frwk_ipc_send_sync(), which the own id does not need.
 * @param id  module id, 1 to 9
 * @return the word that it last gave to frwk_set_module_status(); 0 also when it cannot be asked
 */
FRWK_API uint32_t frwk_get_module_status(uint32_t id);

FRWK_END_DECLS

#endif
