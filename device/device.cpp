/* SPDX-FileCopyrightText: 2026 the libfrwk authors */
/* SPDX-License-Identifier: MIT */

#include "device.h"

#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

/*
 * A synchronous request has no time limit: it ends when the target answers or closes. So it runs on a thread of its
 * own, and the caller waits for that thread as long as it likes. At the deadline the thread is cancelled, which leaves
 * nothing behind: the library takes back what it holds, and the record below goes with the last of its two users.
 */
struct call_t {
    pthread_mutex_t lock;
    sem_t ended;
    int users;
    uint32_t to;
    uint32_t msg;
    uint32_t timeout;
    int32_t req_len;
    int32_t rsp_size;
    int32_t result;
    int rc;
    uint8_t *req;
    uint8_t *rsp;
};

static void leave_call(void *arg)
{
    call_t *call = static_cast<call_t *>(arg);
    frwk_mutex_lock(&call->lock);
    bool last = --call->users == 0;
    frwk_sem_post(&call->ended);
    frwk_mutex_unlock(&call->lock);
    if (last) {
        frwk_sem_close(&call->ended);
        frwk_mutex_close(&call->lock);
        free(call);
    }
}

static void *run_call(void *arg)
{
    call_t *call = static_cast<call_t *>(arg);
    pthread_cleanup_push(leave_call, call);
    call->rc = frwk_ipc_send_sync(call->to, call->msg, call->req, call->req_len, call->rsp, call->rsp_size,
                                  call->timeout, &call->result);
    pthread_cleanup_pop(1);
    return nullptr;
}

/* The record, the request and room for the response in one block. */
static call_t *make_call(const void *req, int32_t req_len, int32_t rsp_size)
{
    size_t req_room = static_cast<size_t>(req_len);
    call_t *call = static_cast<call_t *>(calloc(1, sizeof *call + req_room + static_cast<size_t>(rsp_size)));
    if (call != nullptr) {
        call->req = reinterpret_cast<uint8_t *>(call + 1);
        call->rsp = call->req + req_room;
        if (req_room > 0) {
            memcpy(call->req, req, req_room);
        }
        call->users = 2;
        frwk_mutex_create(&call->lock);
        frwk_sem_create(&call->ended);
    }
    return call;
}

/* The wait is on the monotonic clock: the wall clock of a device jumps once the network has told it the time. */
static void wait_for_call(call_t *call, int ms)
{
    timespec end;
    clock_gettime(CLOCK_MONOTONIC, &end);
    end.tv_sec += ms / 1000;
    end.tv_nsec += ms % 1000 * 1000000L;
    if (end.tv_nsec >= 1000000000) {
        end.tv_sec += 1;
        end.tv_nsec -= 1000000000;
    }
    while (sem_clockwait(&call->ended, CLOCK_MONOTONIC, &end) != 0 && errno == EINTR) {
    }
}

/*
 * AddressSanitizer takes the stack of a thread that unwinds by cancellation for damaged. There the thread is left
 * alone; it ends when its peer does.
 */
static void cancel_call(pthread_t thread)
{
#ifdef __SANITIZE_ADDRESS__
    (void)thread;
#else
    frwk_thread_cancel(thread);
#endif
}

int device_request(uint32_t to, uint32_t msg, const void *req, int32_t req_len, void *rsp, int32_t rsp_size, int ms,
                   int32_t *result)
{
    call_t *call = make_call(req, req_len, rsp_size);
    if (call == nullptr) {
        return FRWK_ERROR_NO_MEMORY;
    }
    call->to = to;
    call->msg = msg;
    call->timeout = static_cast<uint32_t>((ms + 999) / 1000);
    call->req_len = req_len;
    call->rsp_size = rsp_size;
    pthread_t thread = frwk_thread_create(run_call, call);
    if (thread == FRWK_THREAD_INVALID) {
        call->users = 1;
        leave_call(call);
        return FRWK_ERROR_THREAD;
    }
    wait_for_call(call, ms);

    int rc = DEVICE_ERROR_TIMEOUT;
    frwk_mutex_lock(&call->lock);
    if (call->users == 2) {
        cancel_call(thread); /* under the lock it needs to leave, so it has not ended yet */
    } else {
        rc = call->rc;
    }
    frwk_mutex_unlock(&call->lock);
    if (rc == FRWK_ERROR_SUCCESS || rc == FRWK_ERROR_FAILED) {
        if (rsp_size > 0) {
            memcpy(rsp, call->rsp, static_cast<size_t>(rsp_size));
        }
        if (result != nullptr) {
            *result = call->result;
        }
    }
    leave_call(call);
    return rc;
}

int device_ping(uint32_t id, int ms)
{
    return device_request(id, FRWK_MSG_SYS_PING, nullptr, 0, nullptr, 0, ms, nullptr);
}

uint64_t device_clock(clockid_t clock)
{
    timespec now;
    clock_gettime(clock, &now);
    return static_cast<uint64_t>(now.tv_sec) * 1000000000u + static_cast<uint64_t>(now.tv_nsec);
}

pid_t device_lock_holder(uint32_t id)
{
    char path[64];
    snprintf(path, sizeof path, "/tmp/odm/lock/%s", frwk_module_name(id));
    int fd = open(path, O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        return 0;
    }
    struct flock lock = {};
    lock.l_type = F_WRLCK;
    lock.l_whence = SEEK_SET;
    bool held = fcntl(fd, F_GETLK, &lock) == 0 && lock.l_type != F_UNLCK;
    close(fd);
    return held ? lock.l_pid : 0;
}

const char *device_error(int rc)
{
    switch (rc) {
    case FRWK_ERROR_NO_MODULE:
        return "is not running";
    case FRWK_ERROR_FAILED:
        return "answered with a failure";
    case FRWK_ERROR_SEND:
    case FRWK_ERROR_RECV:
        return "closed the connection without an answer";
    case DEVICE_ERROR_TIMEOUT:
        return "does not answer";
    default:
        return "cannot be asked: memory or threads are short";
    }
}
