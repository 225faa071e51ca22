/* SPDX-FileCopyrightText: 2026 the libfrwk authors */
/* SPDX-License-Identifier: MIT */

/*
 * What the relay tells, kept until the tool reads it.
 */
#include "device.h"
#include "relay_parts.h"

#include <errno.h>
#include <stdlib.h>
#include <string.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <time.h>

/* Beyond the first no connection more is told, beyond the second nothing more of those that have begun. */
constexpr size_t UNTOLD_MAX = size_t{1} << 22;
constexpr size_t UNTOLD_LIMIT = 2 * UNTOLD_MAX;
enum { SOCKET_ROOM = 1024 * 1024 };

static struct {
    source_t tool;
    void (*gone)();
    bytes_t untold;
    size_t sent;  /* of these */
    bool full;    /* the tool does not take more right now */
    bool leaving; /* it wants no more */
    bool deaf;    /* nobody reads */
    uint32_t lost;
} s_news;

bool news_add(relay_kind_t kind, uint32_t module, uint64_t connection, uint32_t len, const void *kept, size_t kept_len)
{
    if (s_news.deaf) {
        return true;
    }
    bytes_t *untold = &s_news.untold;
    size_t before = untold->len;
    if (kept_len > UNTOLD_LIMIT - (before - s_news.sent)) {
        return false;
    }
    relay_record_t record = {kind,
                             module,
                             connection,
                             device_clock(CLOCK_MONOTONIC),
                             device_clock(CLOCK_REALTIME),
                             len,
                             static_cast<uint32_t>(kept_len)};
    if (bytes_append(untold, &record, sizeof record) && (kept_len == 0 || bytes_append(untold, kept, kept_len))) {
        return true;
    }
    untold->len = before;
    return false;
}

bool news_are_late()
{
    return s_news.untold.len - s_news.sent > UNTOLD_MAX;
}

bool news_told()
{
    return s_news.deaf || s_news.sent == s_news.untold.len;
}

void news_lost()
{
    s_news.lost++;
}

static void leave()
{
    if (!s_news.leaving) {
        s_news.leaving = true;
        s_news.gone();
    }
}

static void set_events()
{
    /* Its end of the stream is read once: level-triggered, it would come again and again. */
    source_change(&s_news.tool, (s_news.leaving ? 0u : uint32_t{EPOLLIN}) | (s_news.full ? uint32_t{EPOLLOUT} : 0u));
}

static void serve_tool(source_t *source, uint32_t events)
{
    char none[64];
    if ((events & (EPOLLIN | EPOLLHUP | EPOLLERR)) != 0 && !s_news.leaving &&
        recv(source->fd, none, sizeof none, MSG_DONTWAIT) <= 0) {
        leave();
        set_events();
    }
    news_flush();
}

static void nobody_reads()
{
    s_news.deaf = true;
    free(s_news.untold.data);
    s_news.untold = {};
    s_news.sent = 0;
    source_close(&s_news.tool);
    leave();
}

void news_flush()
{
    bytes_t *untold = &s_news.untold;
    if (s_news.deaf) {
        return;
    }
    if (s_news.lost > 0 && untold->len - s_news.sent < UNTOLD_MAX / 2 &&
        news_add(RELAY_LOST, 0, 0, s_news.lost, nullptr, 0)) {
        s_news.lost = 0;
    }
    bool full = false;
    while (s_news.sent < untold->len && !full) {
        ssize_t taken =
            send(s_news.tool.fd, untold->data + s_news.sent, untold->len - s_news.sent, MSG_NOSIGNAL | MSG_DONTWAIT);
        full = taken < 0 && errno == EAGAIN;
        if (taken < 0 && errno != EAGAIN && errno != EINTR) {
            nobody_reads();
            return;
        }
        s_news.sent += taken > 0 ? static_cast<size_t>(taken) : 0;
    }
    if (s_news.sent >= untold->len - s_news.sent) { /* not sooner: what is left is moved */
        bytes_drop_front(untold, s_news.sent);
        s_news.sent = 0;
    }
    if (full != s_news.full) {
        s_news.full = full;
        set_events();
    }
}

bool news_open(int tool, void (*gone)())
{
    int room = SOCKET_ROOM;
    setsockopt(tool, SOL_SOCKET, SO_SNDBUF, &room, sizeof room);
    s_news.gone = gone;
    return source_watch(&s_news.tool, tool, EPOLLIN, serve_tool);
}
