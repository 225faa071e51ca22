/* SPDX-FileCopyrightText: 2026 the libfrwk authors */
/* SPDX-License-Identifier: MIT */

/*
 * The IPC service: the accept loop, one thread per connection, and the dispatch of a request.
 */
#include "frwk_bounded.h"
#include "frwk_common_ipc.h"
#include "frwk_common_module.h"
#include "frwk_guard.h"
#include "frwk_thread.h"
#include "frwk_time.h"
#include "frwk_timer.h"
#include "frwk_trace.h"

#include <errno.h>
#include <limits.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <unistd.h>

enum {
    MAX_BUSY_THREADS = 20, /* a connection that meets more than these is refused: at most 21 run at once */
    HANDLER_POLL_MS = 100, /* how often a request looks for a handler that is not registered yet */
    NO_DESCRIPTOR_PAUSE_MS = 10,
    SEND_PATIENCE_S = 30 /* peers that do not read their answers must not hold all the threads for good */
};

/* --- dispatch --------------------------------------------------------------------------------------------------- */

/* Waits up to timeout seconds for the module to register its handler; null when it does not. */
static frwk_ipc_handler_t await_handler(uint32_t timeout)
{
    enum { LONGEST = INT_MAX / 1000 };
    int seconds = timeout < LONGEST ? static_cast<int>(timeout) : LONGEST;
    frwk_uptime_t deadline;
    frwk_simple_timer_start(&deadline, seconds * 1000);
    for (;;) {
        /* The clock is read first, so that the last look comes after the deadline. */
        int expired = frwk_simple_timer_timeout(&deadline);
        frwk_ipc_handler_t handler = g_s_module_ctx.ipc_handler.load(std::memory_order_acquire);
        if (handler != nullptr || expired != 0) {
            return handler;
        }
        frwk_sleep(HANDLER_POLL_MS);
    }
}

static void set_trace(const uint8_t *req, int32_t req_len)
{
    int32_t words[2]; /* debug mode, level */
    if (req == nullptr || req_len < static_cast<int32_t>(sizeof words)) {
        IPC_ERR("frwk_msg_handle", "FRWK_MSG_SYS_LOG req is NULL");
        return;
    }
    memcpy(words, req, sizeof words);
    g_s_module_ctx.level.store(words[1], std::memory_order_relaxed);
    g_s_module_ctx.debug_mode.store(words[0], std::memory_order_relaxed);
    frwk_trace_print(__FILE__, "frwk_msg_handle", __LINE__, FRWK_TRACE_DEBUG, "new log level is %d debug mode is %d",
                     words[1], words[0]);
}

static int32_t give_status(uint8_t *rsp, int32_t rsp_size)
{
    uint32_t status = g_s_module_ctx.status.load(std::memory_order_relaxed);
    if (rsp_size < static_cast<int32_t>(sizeof status)) {
        return FRWK_ERROR_INVALID_PARAM;
    }
    memcpy(rsp, &status, sizeof status);
    return FRWK_ERROR_SUCCESS;
}

int32_t frwk_msg_handle(uint32_t from, uint32_t msg, const uint8_t *req, int32_t req_len, uint8_t *rsp,
                        int32_t rsp_size, uint32_t timeout)
{
    switch (msg) {
    case FRWK_MSG_SYS_CTRL0:
    case FRWK_MSG_SYS_CTRL1:
    case FRWK_MSG_SYS_CTRL2:
        if (frwk_module_cb_t cb = g_s_module_ctx.ctrl_cb.load(std::memory_order_acquire)) {
            cb(msg);
        }
        return FRWK_ERROR_SUCCESS;
    case FRWK_MSG_SYS_LOG:
        set_trace(req, req_len);
        return FRWK_ERROR_SUCCESS;
    case FRWK_MSG_SYS_STATUS:
        return give_status(rsp, rsp_size);
    case FRWK_MSG_SYS_PING:
    case FRWK_MSG_SYS_NOP:
        return FRWK_ERROR_SUCCESS;
    default:
        break;
    }
    frwk_ipc_handler_t handler = g_s_module_ctx.ipc_handler.load(std::memory_order_acquire);
    if (handler == nullptr) {
        handler = await_handler(timeout);
    }
    if (handler == nullptr) {
        FRWK_WARN("ipc handler is null!");
        return FRWK_ERROR_NO_HANDLER;
    }
    return handler(from, msg, req, req_len, rsp, rsp_size, timeout);
}

/* --- requests to oneself ---------------------------------------------------------------------------------------- */

/* A local asynchronous request: a request frame in one heap block, the body behind the header. */
struct frwk_ipc_reqrec_t {
    frwk_ipc_reqhdr_t hdr;
};

static uint8_t *record_body(frwk_ipc_reqrec_t *record)
{
    return reinterpret_cast<uint8_t *>(record + 1);
}

static void *frwk_async_msg_handle(void *arg)
{
    frwk_ipc_reqrec_t *record = static_cast<frwk_ipc_reqrec_t *>(arg);
    if (record == nullptr) {
        FRWK_ERR("parameter is null!");
        return nullptr;
    }
    pthread_cleanup_push(free, record);
    const frwk_ipc_reqhdr_t &hdr = record->hdr;
    if (frwk_msg_handle(hdr.from, hdr.msg, record_body(record), hdr.msg_len, nullptr, 0, hdr.timeout) != 0) {
        FRWK_ERR("call msg handler failed!");
    }
    pthread_cleanup_pop(1);
    return nullptr;
}

int frwk_msg_handle_aync(uint32_t to, uint32_t msg, const void *data, int32_t len, uint32_t timeout)
{
    size_t size = static_cast<size_t>(len);
    heap_ptr<frwk_ipc_reqrec_t> record(static_cast<frwk_ipc_reqrec_t *>(malloc(sizeof(frwk_ipc_reqrec_t) + size)));
    if (record == nullptr) {
        FRWK_ERR("alloc for aync msg failed!");
        return FRWK_ERROR_NO_MEMORY;
    }
    record->hdr = {to, msg, 1, timeout, 0, len};
    memcpy_s(record_body(record.get()), size, data, size);
    if (frwk_thread_create(frwk_async_msg_handle, record.get()) == FRWK_THREAD_INVALID) {
        FRWK_ERR("create aync msg handle thread error!");
        return FRWK_ERROR_THREAD;
    }
    record.release();
    return FRWK_ERROR_ASYNC;
}

/* --- one connection --------------------------------------------------------------------------------------------- */

/*
 * A small request and a small response stand on the thread's stack: a thread that lives for one request pays more for
 * its first use of the heap than for the whole of its copying.
 */
enum { SMALL_BODY = 4096, SMALL_RSP = 1024 };

/* A request as it is first read: the header and what came with it. */
struct request_t {
    alignas(8) frwk_ipc_reqhdr_t hdr;
    uint8_t body[SMALL_BODY]; /* at a multiple of 8, as from malloc(): handlers look at it as at a record */
};

/*
 * A larger one. A peer may announce any size: from a certain one on the memory is mapped, so that what is announced but
 * never sent or filled is never touched, and all of it goes back at once, whatever the heap has learnt meanwhile.
 */
struct block_t {
    uint8_t *bytes;
    size_t size;
};

enum { MAPPED_FROM = 128 * 1024 };

/* Makes the block, zeroed; false when memory is short. */
static bool make_block(block_t *block, size_t size)
{
    void *bytes;
    if (size < MAPPED_FROM) {
        bytes = calloc(1, size);
    } else {
        /* cppcheck-suppress invalidFunctionArg ; an anonymous mapping takes no descriptor */
        bytes = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        bytes = bytes != MAP_FAILED ? bytes : nullptr;
    }
    *block = {static_cast<uint8_t *>(bytes), size};
    return bytes != nullptr;
}

static void free_block(const block_t *block)
{
    if (block->size < MAPPED_FROM) {
        free(block->bytes);
    } else if (block->bytes != nullptr) {
        munmap(block->bytes, block->size);
    }
}

/* What a connection thread must give back. */
struct connection_t {
    int fd;
    block_t body; /* where it is large, else empty */
    block_t rsp;  /* the same for the response frame */
};

static void end_connection(void *arg)
{
    cancel_guard no_cancel;
    connection_t *conn = static_cast<connection_t *>(arg);
    close(conn->fd);
    free_block(&conn->body);
    free_block(&conn->rsp);
    g_s_module_ctx.ipc_threads.fetch_sub(1, std::memory_order_relaxed);
}

/* Receives a body of which `have` bytes came with the header. */
static bool receive_large_body(connection_t *conn, const request_t *request, int32_t have)
{
    int32_t len = request->hdr.msg_len;
    if (!make_block(&conn->body, static_cast<size_t>(len))) {
        IPC_ERR("frwk_ipc_handle", "alloc for ipc recv body error!");
        return false;
    }
    uint8_t *body = conn->body.bytes;
    memcpy_s(body, static_cast<size_t>(len), request->body, static_cast<size_t>(have));
    int32_t rest = len - have;
    /* Only a body of which nothing came yet is waited for. */
    int32_t got = have > 0 ? frwk_ipc_recv_rest(conn->fd, body + have, rest) : frwk_ipc_recv(conn->fd, body, rest);
    if (got != rest) {
        IPC_ERR("frwk_ipc_handle", "ipc recv body error!");
        return false;
    }
    return true;
}

/* Answers with the frame, all of it in one piece; `failure` is traced when the peer does not take it. */
static bool answer(const connection_t *conn, const uint8_t *frame, size_t len, const char *failure)
{
    if (!frwk_ipc_write_all(&conn->fd, frame, len, SEND_PATIENCE_S)) {
        IPC_ERR("frwk_ipc_handle", "%s", failure);
        return false;
    }
    return true;
}

/* Runs a request whose body is there, and answers it: an asynchronous one before it runs. */
static void dispatch(connection_t *conn, const frwk_ipc_reqhdr_t &hdr, const uint8_t *body)
{
    alignas(8) uint8_t small_rsp[SMALL_RSP]; /* as the body */
    uint8_t *rsp = small_rsp;
    size_t rsp_len = sizeof(frwk_ipc_rsphdr_t) + static_cast<size_t>(hdr.rsp_size);
    if (rsp_len <= sizeof small_rsp) {
        memset_s(rsp, sizeof small_rsp, 0, rsp_len);
    } else if (make_block(&conn->rsp, rsp_len)) {
        rsp = conn->rsp.bytes;
    } else {
        IPC_ERR("frwk_ipc_handle", "alloc for ipc rsp error!");
        return;
    }
    if (hdr.async != 0 && !answer(conn, rsp, rsp_len, "ipc send async response error!")) {
        return;
    }
    frwk_ipc_rsphdr_t rsphdr = {0, hdr.rsp_size};
    rsphdr.rc = frwk_msg_handle(hdr.from, hdr.msg, body, hdr.msg_len, rsp + sizeof rsphdr, hdr.rsp_size, hdr.timeout);
    if (hdr.async == 0) {
        memcpy_s(rsp, rsp_len, &rsphdr, sizeof rsphdr);
        answer(conn, rsp, rsp_len, "send ipc rsp error!");
    }
}

/* Serves the one request of a connection. */
static void frwk_ipc_handle(connection_t *conn)
{
    request_t request;
    int32_t have = frwk_ipc_recv_some(conn->fd, &request, sizeof request.hdr, sizeof request);
    have -= static_cast<int32_t>(sizeof request.hdr);
    if (have < 0 || request.hdr.rsp_size < 0) {
        FRWK_ERR("recv ipc header error!");
        return;
    }
    const frwk_ipc_reqhdr_t &hdr = request.hdr;
    if (hdr.msg != FRWK_MSG_SYS_PING) {
        FRWK_INFO("Receive msg=%d from module=%s", static_cast<int>(hdr.msg), frwk_module_label(hdr.from));
    }
    if (hdr.msg_len > have) {
        if (!receive_large_body(conn, &request, have)) {
            return;
        }
        dispatch(conn, hdr, conn->body.bytes);
    } else {
        dispatch(conn, hdr, hdr.msg_len > 0 ? request.body : nullptr);
    }
}

static void *connection_main(void *arg)
{
    connection_t conn = {static_cast<int>(reinterpret_cast<intptr_t>(arg)), {nullptr, 0}, {nullptr, 0}};
    pthread_cleanup_push(end_connection, &conn);
    frwk_ipc_handle(&conn);
    pthread_cleanup_pop(1);
    return nullptr;
}

/* --- the accept loop -------------------------------------------------------------------------------------------- */

static void report_accept_error()
{
    int cause = errno;
    IPC_ERR("frwk_ipc_service", "%s, errno=%d, cause: %s", "ipc accept error", cause, strerror(cause));
    if (cause == EMFILE || cause == ENFILE) {
        frwk_sleep(NO_DESCRIPTOR_PAUSE_MS); /* the connection stays queued: do not spin on it */
    }
}

/* Hands an accepted socket to a thread of its own, or closes it. */
static void start_connection(int accepted)
{
    unique_fd fd(accepted);
    int32_t busy = g_s_module_ctx.ipc_threads.load(std::memory_order_relaxed);
    if (busy > MAX_BUSY_THREADS) {
        IPC_ERR("frwk_ipc_service", "handle thread too many... num is %d\n", busy);
        return;
    }
    /* Reserved here, by the one thread that adds, and given back by the connection's own: never more than the limit. */
    g_s_module_ctx.ipc_threads.fetch_add(1, std::memory_order_relaxed);
    /* The socket itself is the thread's argument: nothing to allocate, nothing to free. */
    void *handle = reinterpret_cast<void *>(static_cast<intptr_t>(accepted));
    if (frwk_thread_create(connection_main, handle) == FRWK_THREAD_INVALID) {
        IPC_ERR("frwk_ipc_service", "create thread for accept handle error!");
        g_s_module_ctx.ipc_threads.fetch_sub(1, std::memory_order_relaxed);
        return;
    }
    fd.release();
}

static void *frwk_ipc_service(void *)
{
    int listener = g_s_module_ctx.ipc_fd.load(std::memory_order_relaxed);
    for (;;) {
        int fd = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
        if (fd < 0) {
            report_accept_error();
        } else {
            start_connection(fd);
        }
    }
}

int frwk_ipc_run()
{
    if (g_s_module_ctx.ipc_fd.load(std::memory_order_relaxed) >= 0) {
        return FRWK_ERROR_SUCCESS;
    }
    if (access("/tmp/odm/ipc", F_OK) != 0) {
        (void)!system("mkdir -p /tmp/odm/ipc"); /* the bind reports a missing directory */
        sync();
    }
    int fd = frwk_ipc_socket(frwk_module_own_id());
    if (fd < 0) {
        FRWK_ERR("create ipc service socket failed!");
        return FRWK_ERROR_SOCKET;
    }
    g_s_module_ctx.ipc_fd.store(fd, std::memory_order_relaxed);
    if (frwk_thread_create(frwk_ipc_service, nullptr) == FRWK_THREAD_INVALID) {
        FRWK_ERR("create ipc service thread failed!");
        close(fd);
        g_s_module_ctx.ipc_fd.store(-1, std::memory_order_relaxed);
        return FRWK_ERROR_THREAD;
    }
    FRWK_DBG("run ipc service success!");
    return FRWK_ERROR_SUCCESS;
}

int frwk_ipc_init(frwk_ipc_handler_t handler)
{
    if (handler == nullptr) {
        FRWK_ERR("Parameter is null!");
        return FRWK_ERROR_INVALID_PARAM;
    }
    g_s_module_ctx.ipc_handler.store(handler, std::memory_order_release);
    return FRWK_ERROR_SUCCESS;
}

int32_t frwk_ipc_timeout(int32_t value)
{
    return value;
}
