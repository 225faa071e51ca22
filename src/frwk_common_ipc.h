/* SPDX-FileCopyrightText: 2026 the libfrwk authors */
/* SPDX-License-Identifier: MIT */

/*
 * Between the parts of the messaging: the socket routines, the service, and the dispatch of a request.
 */
#ifndef FRWK_COMMON_IPC_H
#define FRWK_COMMON_IPC_H

#include "frwk_ipc.h"
#include "frwk_trace.h"

#include <stddef.h>
#include <stdint.h>

enum {
    IPC_PATH_SIZE = 256 /* room for the path of a socket */
};

/*
 * An error traced in the name of the routine that a helper works for: it tells a reader of the log what was being done,
 * and stays when helpers come and go.
 */
#define IPC_ERR(routine, ...) frwk_trace_print(__FILE__, routine, __LINE__, FRWK_TRACE_ERROR, __VA_ARGS__)

/* Writes the path of a module's socket into path, IPC_PATH_SIZE bytes; returns path. */
char *frwk_ipc_sock_path(uint32_t id, char *path);

/* A listening socket for a module, in the place of any earlier one; negative on failure. */
int frwk_ipc_socket(uint32_t id);

/* A socket connected to a module, -1 on failure. */
int frwk_ipc_connect(uint32_t id);

/*
 * Receives what must be there in one piece within 3 seconds. Returns len when it was, 0 when nothing came in time, a
 * negative value when waiting failed, otherwise what the one read gave.
 */
int32_t frwk_ipc_recv(int fd, void *buf, int32_t len);

/*
 * The same for at least `least` bytes, taking up to `most` where more is there already. Returns the number of bytes
 * when there were enough.
 */
int32_t frwk_ipc_recv_some(int fd, void *buf, int32_t least, int32_t most);

/* Receives the rest of what came in part: all of it must be there by now. Returns as frwk_ipc_recv(). */
int32_t frwk_ipc_recv_rest(int fd, void *buf, int32_t len);

/*
 * Writes the whole of buf; 1, or 0 when the peer is gone or has not read for `patience` seconds (0: however long it
 * does not).
 */
int frwk_ipc_write_all(const int *fd, const void *buf, size_t len, int patience);

/* Starts the own module's IPC service; FRWK_ERROR_ code. */
int frwk_ipc_run();

/* Dispatches one request to the library or the module's handler; returns its result. */
int32_t frwk_msg_handle(uint32_t from, uint32_t msg, const uint8_t *req, int32_t req_len, uint8_t *rsp,
                        int32_t rsp_size, uint32_t timeout);

/* Runs a request to oneself on a thread of its own; FRWK_ERROR_ASYNC or another FRWK_ERROR_ code. */
int frwk_msg_handle_aync(uint32_t to, uint32_t msg, const void *data, int32_t len, uint32_t timeout);

#endif
