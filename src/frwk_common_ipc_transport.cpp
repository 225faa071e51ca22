/* SPDX-FileCopyrightText: 2026 the libfrwk authors */
/* SPDX-License-Identifier: MIT */

/*
 * Sockets and frames of the messaging.
 */
#include "frwk_bounded.h"
#include "frwk_common_ipc.h"
#include "frwk_common_module.h"
#include "frwk_guard.h"
#include "frwk_trace.h"

#include <errno.h>
#include <poll.h>
#include <pthread.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

enum { LISTEN_BACKLOG = 5, RECV_TIMEOUT_MS = 3000 };

static_assert(sizeof(frwk_ipc_reqhdr_t) == 24 && offsetof(frwk_ipc_reqhdr_t, async) == 8 &&
              offsetof(frwk_ipc_reqhdr_t, rsp_size) == 16 && offsetof(frwk_ipc_reqhdr_t, msg_len) == 20);
static_assert(sizeof(frwk_ipc_rsphdr_t) == 8 && offsetof(frwk_ipc_rsphdr_t, msg_len) == 4);

char *frwk_ipc_sock_path(uint32_t id, char *path)
{
    /* Copied, not formatted: every request comes by here. */
    static const char directory[] = "/tmp/odm/ipc/";
    const size_t len = sizeof directory - 1;
    memcpy_s(path, IPC_PATH_SIZE, directory, len);
    strcpy_s(path + len, IPC_PATH_SIZE - len, frwk_module_label(id));
    return path;
}

static struct sockaddr_un socket_address(const char *path)
{
    struct sockaddr_un addr = {};
    addr.sun_family = AF_UNIX;
    strcpy_s(addr.sun_path, sizeof addr.sun_path, path);
    return addr;
}

int frwk_ipc_socket(uint32_t id)
{
    char path[IPC_PATH_SIZE] = {};
    unlink(frwk_ipc_sock_path(id, path)); /* one left by an earlier run would block the bind */

    int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        FRWK_ERR("%s, errno=%d, cause: %s", "create socket error", errno, strerror(errno));
        return fd;
    }
    int on = 1;
    if (setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) != 0) {
        FRWK_ERR("%s, errno=%d, cause: %s", "set socket reuse address error", errno, strerror(errno));
    }
    struct sockaddr_un addr = socket_address(path);
    if (bind(fd, reinterpret_cast<struct sockaddr *>(&addr), sizeof addr) != 0) {
        FRWK_ERR("%s, errno=%d, cause: %s", "socket bind error", errno, strerror(errno));
        close(fd);
        return -1;
    }
    if (listen(fd, LISTEN_BACKLOG) != 0) {
        FRWK_ERR("%s, errno=%d, cause: %s", "socket listen error", errno, strerror(errno));
        close(fd);
        return -1;
    }
    return fd;
}

/* Waits where the peer's queue of connections is full; a thread cancelled there leaves no socket behind. */
static int connect_to(int fd, const struct sockaddr_un *addr)
{
    int rc;
    pthread_cleanup_push(close_uncancelled, &fd);
    do {
        rc = connect(fd, reinterpret_cast<const struct sockaddr *>(addr), sizeof *addr);
    } while (rc != 0 && errno == EINTR);
    pthread_cleanup_pop(0);
    return rc;
}

int frwk_ipc_connect(uint32_t id)
{
    int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        FRWK_ERR("socket create error");
        return -1;
    }
    char path[IPC_PATH_SIZE];
    struct sockaddr_un addr = socket_address(frwk_ipc_sock_path(id, path));
    if (connect_to(fd, &addr) != 0) {
        FRWK_ERR("socket connect error");
        close_uncancelled(&fd);
        return -1;
    }
    return fd;
}

/* What has arrived, up to len bytes; negative, errno EAGAIN, when that is nothing. */
static int32_t take_arrived(int fd, void *buf, int32_t len)
{
    return static_cast<int32_t>(recv(fd, buf, static_cast<size_t>(len), MSG_DONTWAIT));
}

int32_t frwk_ipc_recv_some(int fd, void *buf, int32_t least, int32_t most)
{
    int32_t got = take_arrived(fd, buf, most);
    if (got < 0 && errno == EAGAIN) {
        struct pollfd waited = {fd, POLLIN, 0};
        int ready = poll(&waited, 1, RECV_TIMEOUT_MS);
        if (ready == 0) {
            frwk_trace_print(__FILE__, "frwk_ipc_recv", __LINE__, FRWK_TRACE_WARNING, "select recv timeout!");
            return 0;
        }
        if (ready < 0) {
            IPC_ERR("frwk_ipc_recv", "select recv error!");
            return ready;
        }
        got = take_arrived(fd, buf, most);
    }
    if (got < least) {
        IPC_ERR("frwk_ipc_recv", "socket recv size error!");
    }
    return got;
}

int32_t frwk_ipc_recv(int fd, void *buf, int32_t len)
{
    return frwk_ipc_recv_some(fd, buf, len, len);
}

int32_t frwk_ipc_recv_rest(int fd, void *buf, int32_t len)
{
    int32_t got = take_arrived(fd, buf, len);
    if (got != len) {
        IPC_ERR("frwk_ipc_recv", "socket recv size error!");
    }
    return got;
}

/* Writes what the socket did not take at once, as long as the peer goes on reading. */
static int write_rest(int fd, const char *rest, size_t len, int patience)
{
    if (patience > 0) {
        struct timeval limit = {patience, 0};
        setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
    }
    while (len > 0) {
        ssize_t sent = send(fd, rest, len, MSG_NOSIGNAL);
        if (sent > 0) {
            rest += sent;
            len -= static_cast<size_t>(sent);
        } else if (errno != EINTR) {
            return 0;
        }
    }
    return 1;
}

int frwk_ipc_write_all(const int *fd, const void *buf, size_t len, int patience)
{
    ssize_t sent = send(*fd, buf, len, MSG_NOSIGNAL | MSG_DONTWAIT);
    if (sent < 0) {
        if (errno != EAGAIN) {
            return 0;
        }
        sent = 0;
    }
    if (static_cast<size_t>(sent) == len) {
        return 1;
    }
    return write_rest(*fd, static_cast<const char *>(buf) + sent, len - static_cast<size_t>(sent), patience);
}
