/* SPDX-FileCopyrightText: 2026 the libfrwk authors */
/* SPDX-License-Identifier: MIT */

/*
 * monitor_tool capture: requests and responses as the packets of a pcapng file. docs/operators.md describes them.
 */
#include "device.h"
#include "exchange.h"
#include "messages.h"
#include "pcapng.h"
#include "watch.h"

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

enum { FRAME_MAX = 262144, HEAD_MAX = 256, PACKET_VERSION = 1 };
enum packet_kind_t { PACKET_REQUEST = 1, PACKET_RESPONSE = 2, PACKET_END = 3 };

static struct {
    const char *path;
    int fd;
    bool regular;
    bool begun;
    uint64_t start_clock; /* times count on from here by the monotonic clock: the wall clock may jump */
    uint64_t start_uptime;
    uint64_t packets;
    uint64_t exchanges;
    int fault; /* errno of the write that failed */
} s_capture;

const device_option_t CAPTURE_OPTIONS[] = {
    {"names", 'n', "FILE", "names messages: each line has a module or *, a message's number and its name",
     message_read_names},
    {},
};

static size_t put_u16(uint8_t *head, size_t at, uint32_t value)
{
    head[at] = static_cast<uint8_t>(value >> 8);
    head[at + 1] = static_cast<uint8_t>(value);
    return at + 2;
}

static size_t put_u32(uint8_t *head, size_t at, uint32_t value)
{
    return put_u16(head, put_u16(head, at, value >> 16), value);
}

static size_t put_text(uint8_t *head, size_t at, const char *text)
{
    enum { TEXT_MAX = UINT8_MAX / 4 };
    size_t len = 0;
    for (; text != nullptr && *text != '?' && text[len] != '\0' && len < TEXT_MAX; len++) {
        head[at + 1 + len] = static_cast<uint8_t>(text[len]);
    }
    head[at] = static_cast<uint8_t>(len);
    return at + 1 + len;
}

/*
 * The head of a packet, in network byte order: what the frame does not say, or says only to those who know the device's
 * tables.
 */
static size_t make_head(uint8_t *head, packet_kind_t kind, const exchange_t *exchange)
{
    bool answer = kind != PACKET_REQUEST;
    uint32_t client = exchange->asked.from;
    uint32_t sender = answer ? exchange->to : client;
    uint32_t receiver = answer ? client : exchange->to;
    const uint16_t one = 1;
    bool little = *reinterpret_cast<const uint8_t *>(&one) == 1;
    bool known = exchange->request.kept >= sizeof exchange->asked;
    size_t at = 0;
    head[at++] = PACKET_VERSION;
    head[at++] = static_cast<uint8_t>(kind);
    head[at++] = static_cast<uint8_t>(exchange->fault);
    head[at++] = little ? 0 : 1;
    at = put_u32(head, at, static_cast<uint32_t>(exchange->connection >> 32));
    at = put_u32(head, at, static_cast<uint32_t>(exchange->connection));
    at = put_u32(head, at, sender);
    at = put_u32(head, at, receiver);
    at = put_u32(head, at, exchange->asked.msg);
    size_t len_at = at;
    at += 2;
    at = put_text(head, at, message_module(sender));
    at = put_text(head, at, message_module(receiver));
    at = put_text(head, at, known ? message_name(exchange->to, exchange->asked.msg) : nullptr);
    put_u16(head, len_at, static_cast<uint32_t>(at));
    return at;
}

/* Leaves nothing of what was written in part. */
static void take_back(off_t end)
{
    int cause = errno;
    if (s_capture.regular && end >= 0) {
        (void)!ftruncate(s_capture.fd, end);
    }
    s_capture.fault = cause;
}

/* Not before the relay is at work: what fails sooner leaves an older capture as it is. */
static void begin()
{
    if (s_capture.begun) {
        return;
    }
    s_capture.begun = true;
    if (s_capture.regular) {
        (void)!ftruncate(s_capture.fd, 0);
    }
    if (!pcapng_begin(s_capture.fd, PCAPNG_USER0, FRAME_MAX + HEAD_MAX, "monitor_tool", "/tmp/odm/ipc")) {
        s_capture.fault = errno;
    }
}

static void write_packet(packet_kind_t kind, const exchange_t *exchange, const frame_t *frame, const char *comment)
{
    uint8_t head[HEAD_MAX];
    size_t head_len = make_head(head, kind, exchange);
    begin();
    if (s_capture.fault != 0) {
        return;
    }
    off_t before = lseek(s_capture.fd, 0, SEEK_CUR);
    uint64_t when = s_capture.start_clock + (frame->uptime - s_capture.start_uptime);
    if (!pcapng_packet(s_capture.fd, when, head, head_len, frame->bytes, frame->kept, head_len + frame->len, comment)) {
        take_back(before);
        return;
    }
    s_capture.packets++;
}

static void write_request(const exchange_t *exchange)
{
    write_packet(PACKET_REQUEST, exchange, &exchange->request, nullptr);
    s_capture.exchanges++;
}

static void write_response(const exchange_t *exchange)
{
    write_packet(PACKET_RESPONSE, exchange, &exchange->response, nullptr);
}

/* What came of the request, if it has not been written yet, and of the response, and why there is no more. */
static void write_end(const exchange_t *exchange)
{
    if (!exchange->request.whole) {
        write_request(exchange);
    }
    write_packet(PACKET_END, exchange, &exchange->response, exchange_fault(exchange->fault));
}

static bool is_over()
{
    return s_capture.fault != 0;
}

static void open_file(const char *path)
{
    s_capture.path = strcmp(path, "-") == 0 ? "standard output" : path;
    if (s_capture.path == path) {
        s_capture.fd = open(path, O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
        if (s_capture.fd < 0) {
            device_fail(DEVICE_EXIT_FAILURE, "cannot write %s: %s", path, strerror(errno));
        }
    } else {
        s_capture.fd = STDOUT_FILENO;
        if (isatty(STDOUT_FILENO)) {
            device_fail(DEVICE_EXIT_USAGE, "a capture is nothing for a terminal: give a file, or pipe it to another "
                                           "program");
        }
    }
    struct stat file;
    s_capture.regular = fstat(s_capture.fd, &file) == 0 && S_ISREG(file.st_mode);
}

int capture_run(int argc, char **argv)
{
    open_file(argv[0]);
    s_capture.start_clock = device_clock(CLOCK_REALTIME);
    s_capture.start_uptime = device_clock(CLOCK_MONOTONIC);
    const exchange_observer_t observer = {write_request, write_response, write_end,
                                          begin,         is_over,        s_capture.regular ? -1 : s_capture.fd};
    exchange_count_t count = exchange_watch(argc - 1, argv + 1, FRAME_MAX, &observer);
    uint64_t now = s_capture.start_clock + (device_clock(CLOCK_MONOTONIC) - s_capture.start_uptime);
    if (s_capture.fault == 0 && !pcapng_end(s_capture.fd, now, s_capture.exchanges, count.lost)) {
        s_capture.fault = errno;
    }
    if (s_capture.fault != 0 && s_capture.fault != EPIPE) { /* a reader that has left has got what it wanted */
        device_fail(DEVICE_EXIT_FAILURE, "cannot write %s: %s; it has %llu packets", s_capture.path,
                    strerror(s_capture.fault), static_cast<unsigned long long>(s_capture.packets));
    }
    fprintf(stderr, "%s: %llu packets in %s", program_invocation_short_name,
            static_cast<unsigned long long>(s_capture.packets), s_capture.path);
    if (count.lost > 0) {
        fprintf(stderr, ", %llu requests not captured: they came faster than they were written",
                static_cast<unsigned long long>(count.lost));
    }
    fputc('\n', stderr);
    return 0;
}
