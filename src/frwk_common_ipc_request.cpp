/* SPDX-FileCopyrightText: 2026 the libfrwk authors */
/* SPDX-License-Identifier: MIT */

/*
 * The request calls.
 */
#include "frwk_bounded.h"
#include "frwk_common_ipc.h"
#include "frwk_common_module.h"
#include "frwk_guard.h"
#include "frwk_trace.h"

#include <errno.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <unistd.h>

enum { NOTIFY_TIMEOUT_S = 3, STATUS_TIMEOUT_S = 3 };

/* What a request holds while it waits. */
struct exchange_t {
    const char *call; /* the public one, for its traces */
    int fd;
    uint8_t *frame;
};

static void end_exchange(void *arg)
{
    exchange_t *exchange = static_cast<exchange_t *>(arg);
    if (exchange->fd >= 0) {
        close_uncancelled(&exchange->fd);
    }
    free(exchange->frame);
}

/* The request frame, one heap block; null when memory is short. */
static uint8_t *new_frame(const char *call, const frwk_ipc_reqhdr_t &hdr, const void *data)
{
    size_t size = static_cast<size_t>(hdr.msg_len);
    uint8_t *frame = static_cast<uint8_t *>(malloc(sizeof hdr + size));
    if (frame == nullptr) {
        IPC_ERR(call, "alloc failed for ipc req!");
        return nullptr;
    }
    memcpy(frame, &hdr, sizeof hdr);
    memcpy_s(frame + sizeof hdr, size, data, size);
    return frame;
}

/* Connects and sends the frame. */
static int send_frame(exchange_t *exchange, uint32_t to, int32_t body_len)
{
    exchange->fd = frwk_ipc_connect(to);
    if (exchange->fd < 0) {
        IPC_ERR(exchange->call, "ipc connect to module [%s] failed!", frwk_module_label(to));
        return FRWK_ERROR_NO_MODULE;
    }
    if (!frwk_ipc_write_all(&exchange->fd, exchange->frame, sizeof(frwk_ipc_reqhdr_t) + static_cast<size_t>(body_len),
                            0)) {
        IPC_ERR(exchange->call, "ipc send req msg failed!");
        return FRWK_ERROR_SEND;
    }
    return FRWK_ERROR_SUCCESS;
}

/* A response as it is first read: the header, and with it the data where it is small. */
enum { SMALL_RSP = 1016 };
struct response_t {
    frwk_ipc_rsphdr_t hdr;
    uint8_t data[SMALL_RSP];
};

/* One blocking read, made again when a signal ended it before anything came. */
static ssize_t read_socket(int fd, void *buf, size_t size)
{
    ssize_t got;
    do {
        got = recv(fd, buf, size, 0);
    } while (got < 0 && errno == EINTR);
    return got;
}

/* Reads the header and at most `most` bytes of data; the number of those, -1 when the header did not come whole. */
static int32_t read_header(const exchange_t &exchange, response_t *response, int32_t most)
{
    ssize_t got = read_socket(exchange.fd, response, sizeof response->hdr + static_cast<size_t>(most));
    if (got < static_cast<ssize_t>(sizeof response->hdr)) {
        IPC_ERR(exchange.call, "ipc recv rsp header failed!");
        return -1;
    }
    return static_cast<int32_t>(got - static_cast<ssize_t>(sizeof response->hdr));
}

/* Reads on until the announced length is there; more than that, or less at the end, is a failure. */
static bool read_data(int fd, uint8_t *rsp, int32_t rsp_size, int32_t have, int32_t announced)
{
    while (have < announced) {
        ssize_t got = read_socket(fd, rsp + have, static_cast<size_t>(rsp_size - have));
        if (got <= 0) {
            return false;
        }
        have += static_cast<int32_t>(got);
    }
    return have == announced;
}

static int read_response(const exchange_t &exchange, uint8_t *rsp, int32_t rspsize, int32_t *result)
{
    response_t response;
    int32_t have = read_header(exchange, &response, rspsize <= SMALL_RSP ? rspsize : 0);
    if (have < 0) {
        return FRWK_ERROR_RECV;
    }
    const frwk_ipc_rsphdr_t &rsphdr = response.hdr;
    if (rsphdr.msg_len > 0) {
        frwk_assert_debug(rsphdr.msg_len <= rspsize, "rsphdr.msg_len <= rspsize", __FILE__, exchange.call, __LINE__);
        memcpy_s(rsp, static_cast<size_t>(rspsize), response.data, static_cast<size_t>(have));
        if (!read_data(exchange.fd, rsp, rspsize, have, rsphdr.msg_len)) {
            IPC_ERR(exchange.call, "ipc recv rsp data failed!");
            return FRWK_ERROR_RECV;
        }
    }
    if (result != nullptr) {
        *result = rsphdr.rc;
    }
    return rsphdr.rc == FRWK_ERROR_FAILED ? FRWK_ERROR_FAILED : FRWK_ERROR_SUCCESS;
}

/* The checks that every request begins with. */
static int check_request(const char *call, uint32_t to, const void *req, int32_t req_len, const void *rsp,
                         int32_t rsp_size)
{
    if (!frwk_module_valid(to)) {
        IPC_ERR(call, "invalid module id=%d", static_cast<int>(to));
        return FRWK_ERROR_NO_MODULE;
    }
    if (req_len < 0 || rsp_size < 0 || (req_len != 0 && req == nullptr) || (rsp_size != 0 && rsp == nullptr)) {
        IPC_ERR(call, "invalid request arguments!");
        return FRWK_ERROR_INVALID_PARAM;
    }
    return FRWK_ERROR_SUCCESS;
}

int frwk_ipc_send_sync(uint32_t to, uint32_t msg, const void *req, int32_t req_len, void *rsp, int32_t rsp_size,
                       uint32_t timeout, int32_t *result)
{
    int rc = check_request(__func__, to, req, req_len, rsp, rsp_size);
    if (rc != FRWK_ERROR_SUCCESS) {
        return rc;
    }
    uint8_t *rsp_bytes = static_cast<uint8_t *>(rsp);
    if (to == frwk_module_own_id()) {
        int32_t handled =
            frwk_msg_handle(to, msg, static_cast<const uint8_t *>(req), req_len, rsp_bytes, rsp_size, timeout);
        if (result != nullptr) {
            *result = handled;
        }
        return FRWK_ERROR_SUCCESS;
    }
    exchange_t exchange = {__func__, -1,
                           new_frame(__func__, {frwk_module_own_id(), msg, 0, timeout, rsp_size, req_len}, req)};
    if (exchange.frame == nullptr) {
        return FRWK_ERROR_NO_MEMORY;
    }
    pthread_cleanup_push(end_exchange, &exchange);
    rc = send_frame(&exchange, to, req_len);
    if (rc == FRWK_ERROR_SUCCESS) {
        rc = read_response(exchange, rsp_bytes, rsp_size, result);
    }
    pthread_cleanup_pop(1);
    return rc;
}

int frwk_ipc_send_async(uint32_t to, uint32_t msg, const void *data, int32_t len, uint32_t timeout)
{
    int rc = check_request(__func__, to, data, len, nullptr, 0);
    if (rc != FRWK_ERROR_SUCCESS) {
        return rc;
    }
    if (to == frwk_module_own_id()) {
        return frwk_msg_handle_aync(to, msg, data, len, timeout);
    }
    exchange_t exchange = {__func__, -1, new_frame(__func__, {frwk_module_own_id(), msg, 1, timeout, 0, len}, data)};
    if (exchange.frame == nullptr) {
        return FRWK_ERROR_NO_MEMORY;
    }
    pthread_cleanup_push(end_exchange, &exchange);
    rc = send_frame(&exchange, to, len);
    if (rc == FRWK_ERROR_SUCCESS) {
        response_t acknowledgement;
        rc = read_header(exchange, &acknowledgement, 0) == 0 ? FRWK_ERROR_SUCCESS : FRWK_ERROR_RECV;
    }
    pthread_cleanup_pop(1);
    return rc == FRWK_ERROR_SUCCESS ? FRWK_ERROR_ASYNC : rc;
}

int frwk_ipc_msg_get(uint32_t to, uint32_t msg, void *rsp, int32_t rsp_size, uint32_t timeout, int32_t *result)
{
    return frwk_ipc_send_sync(to, msg, nullptr, 0, rsp, rsp_size, timeout, result);
}

int frwk_ipc_msg_set(uint32_t to, uint32_t msg, const void *req, int32_t req_len, uint32_t timeout, int32_t *result)
{
    return frwk_ipc_send_sync(to, msg, req, req_len, nullptr, 0, timeout, result);
}

int frwk_ipc_msg_notify(uint32_t to, uint32_t msg, const void *data, int32_t len)
{
    return frwk_ipc_send_async(to, msg, data, len, NOTIFY_TIMEOUT_S);
}

void frwk_ipc_msg_broadcast(uint32_t msg)
{
    for (uint32_t id = 1; id < FRWK_MODULE_MAX; id++) {
        if (id != frwk_module_own_id() && (frwk_module_flags(id) & FRWK_MODULE_FLAG_MONITOR_SERVICE) != 0) {
            frwk_ipc_msg_notify(id, msg, nullptr, 0);
        }
    }
}

void frwk_ipc_msg_broadcast_data(uint32_t msg, const void *data, int32_t len)
{
    for (uint32_t id = 1; id < FRWK_MODULE_MAX; id++) {
        if (id != frwk_module_own_id()) {
            frwk_ipc_msg_notify(id, msg, data, len);
        }
    }
}

/* Hands one word to the monitor; 1 when it took it. */
static int tell_monitor(uint32_t msg, uint32_t arg)
{
    return frwk_ipc_msg_notify(FRWK_MODULE_MONITOR, msg, &arg, sizeof arg) == FRWK_ERROR_ASYNC ? 1 : 0;
}

int frwk_system_reboot(uint32_t arg)
{
    return tell_monitor(FRWK_MSG_SYS_REBOOT, arg);
}

int frwk_system_reset(uint32_t arg)
{
    return tell_monitor(FRWK_MSG_SYS_RESET, arg);
}

uint32_t frwk_get_module_status(uint32_t id)
{
    if (id == frwk_module_own_id()) {
        return g_s_module_ctx.status.load(std::memory_order_relaxed);
    }
    uint32_t status = 0;
    int32_t rc = 0;
    if (frwk_ipc_msg_get(id, FRWK_MSG_SYS_STATUS, &status, sizeof status, STATUS_TIMEOUT_S, &rc) !=
        FRWK_ERROR_SUCCESS) {
        return 0;
    }
    return rc == FRWK_ERROR_SUCCESS ? status : 0;
}
