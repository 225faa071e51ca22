/* SPDX-FileCopyrightText: 2026 the libfrwk authors */
/* SPDX-License-Identifier: MIT */

/*
 * serial_bridge -l DEVICE -r DEVICE: passes bytes between two devices, both ways. It reads from one no faster than the
 * other takes, so no byte is lost; a device that hangs up is opened again once it is back.
 *
 * Status word: bit 0 the left device is open, bit 1 the right one.
 */
#include "demo.h"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include <atomic>

enum { REOPEN_PAUSE = 500 }; /* milliseconds */

struct side_t {
    const char *path;
    int fd; /* -1 while it is away */
    frwk_uptime_t next_try;
    char pending[4096]; /* read from the other side, still to be written to this one */
    size_t start;
    size_t end;
    std::atomic<uint64_t> written;
};

static side_t s_sides[2]; /* left, right */

static void close_side(side_t *side)
{
    FRWK_WARN("%s hung up", side->path);
    close(side->fd);
    side->fd = -1;
    frwk_simple_timer_start(&side->next_try, REOPEN_PAUSE);
}

static void open_side(side_t *side)
{
    side->fd = open(side->path, O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC);
    if (side->fd < 0) {
        FRWK_DBG("cannot open %s: %s", side->path, strerror(errno));
        frwk_simple_timer_start(&side->next_try, REOPEN_PAUSE);
        return;
    }
    demo_raw(side->fd);
    FRWK_INFO("opened %s", side->path);
}

static bool is_lasting(int error)
{
    return error != EAGAIN && error != EINTR;
}

static void write_pending(side_t *side)
{
    ssize_t n = write(side->fd, side->pending + side->start, side->end - side->start);
    if (n >= 0) {
        side->start += static_cast<size_t>(n);
        side->written += static_cast<uint64_t>(n);
    } else if (is_lasting(errno)) {
        close_side(side); /* what is pending waits for its return */
    }
}

/* Called when nothing is pending for the other side. */
static void read_side(side_t *side, side_t *other)
{
    ssize_t n = read(side->fd, other->pending, sizeof other->pending);
    if (n > 0) {
        other->start = 0;
        other->end = static_cast<size_t>(n);
    } else if (n == 0 || is_lasting(errno)) {
        close_side(side);
    }
}

static void pass_bytes()
{
    pollfd polls[2];
    for (int i = 0; i < 2; i++) {
        side_t *side = &s_sides[i];
        const side_t *other = &s_sides[1 - i];
        if (side->fd < 0 && frwk_simple_timer_timeout(&side->next_try)) {
            open_side(side);
        }
        int events = (other->start == other->end ? POLLIN : 0) | (side->start < side->end ? POLLOUT : 0);
        polls[i] = {side->fd, static_cast<short>(events), 0};
    }
    frwk_set_module_status((s_sides[0].fd >= 0 ? 1u : 0u) | (s_sides[1].fd >= 0 ? 2u : 0u));
    bool all_open = s_sides[0].fd >= 0 && s_sides[1].fd >= 0;
    if (poll(polls, 2, all_open ? -1 : REOPEN_PAUSE) <= 0) {
        return;
    }
    for (int i = 0; i < 2; i++) {
        side_t *side = &s_sides[i];
        side_t *other = &s_sides[1 - i];
        if ((polls[i].revents & POLLIN) && other->start == other->end) {
            read_side(side, other); /* also the last bytes of a device that hung up */
        } else if (polls[i].revents & (POLLHUP | POLLERR | POLLNVAL)) {
            close_side(side);
        } else if (polls[i].revents & POLLOUT) {
            write_pending(side);
        }
    }
}

static int32_t handle(uint32_t from, uint32_t msg, const uint8_t *req, int32_t req_len, uint8_t *rsp, int32_t rsp_size,
                      uint32_t)
{
    bridge_counts_t counts = {s_sides[1].written, s_sides[0].written};
    switch (msg) {
    case BRIDGE_MSG_COUNTS:
        if (rsp_size < static_cast<int32_t>(sizeof counts)) {
            return FRWK_ERROR_INVALID_PARAM;
        }
        memcpy(rsp, &counts, sizeof counts);
        return FRWK_ERROR_SUCCESS;
    case DEMO_MSG_REPORT:
        FRWK_INFO("report: %llu bytes to the right, %llu to the left", static_cast<unsigned long long>(counts.to_right),
                  static_cast<unsigned long long>(counts.to_left));
        return FRWK_ERROR_SUCCESS;
    case DEMO_MSG_MARK:
        demo_mark(from, req, req_len);
        return FRWK_ERROR_SUCCESS;
    default:
        return FRWK_ERROR_UNSUPPORTED;
    }
}

int main(int argc, char **argv)
{
    int option;
    while ((option = getopt(argc, argv, "l:r:")) != -1) {
        if (option == 'l' || option == 'r') {
            s_sides[option == 'r'].path = optarg;
        }
    }
    if (s_sides[0].path == nullptr || s_sides[1].path == nullptr || optind < argc) {
        fputs("usage: serial_bridge -l DEVICE -r DEVICE\n", stderr);
        return 2;
    }
    if (frwk_module_init(FRWK_MODULE_SERIAL_BRIDGE, nullptr) != FRWK_ERROR_SUCCESS) {
        return 1;
    }
    frwk_ipc_init(handle);
    open_side(&s_sides[0]);
    open_side(&s_sides[1]);
    for (;;) {
        pass_bytes();
    }
}
