/* SPDX-FileCopyrightText: 2026 the libfrwk authors */
/* SPDX-License-Identifier: MIT */

/*
 * What the programs of the device ask modules by: a request with a deadline.
 */
#ifndef DEVICE_H
#define DEVICE_H

#include <frwk.h>

#include <stdint.h>
#include <sys/types.h>

/* Result of device_request() beside the library's: no answer came in time. */
enum { DEVICE_ERROR_TIMEOUT = 100 };

/*
 * frwk_ipc_send_sync() with a deadline of `ms` milliseconds, for peers that may hang. `rsp` is filled and `result` set
 * only with FRWK_ERROR_SUCCESS or FRWK_ERROR_FAILED.
 */
int device_request(uint32_t to, uint32_t msg, const void *req, int32_t req_len, void *rsp, int32_t rsp_size, int ms,
                   int32_t *result);

/* Whether a module answers: FRWK_ERROR_SUCCESS, FRWK_ERROR_NO_MODULE when it does not run, or another failure. */
int device_ping(uint32_t id, int ms);

/* What a result of device_request() says about the module that was asked, such as "is not running". */
const char *device_error(int rc);

/* A clock of clock_gettime(2), in nanoseconds. */
uint64_t device_clock(clockid_t clock);

/* The process that holds a module's lock; 0 when it does not run. */
pid_t device_lock_holder(uint32_t id);

#endif
