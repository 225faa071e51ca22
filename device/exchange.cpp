/* SPDX-FileCopyrightText: 2026 the libfrwk authors */
/* SPDX-License-Identifier: MIT */

#include "exchange.h"

#include "messages.h"
#include "options.h"
#include "relay.h"

#include <errno.h>
#include <poll.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <unistd.h>

enum { BUCKETS = 4096, LAST_ANSWERS = 200 /* milliseconds for answers that are under way at the end */ };
constexpr size_t NEWS_ROOM = size_t{1} << 20;

static struct {
    int relay;
    int signals; /* -1 when one has come: the next ones change nothing */
    uint32_t modules;
    const exchange_observer_t *observer;
    int out;
    bool unread; /* whoever read what was written there has left */
    exchange_t *buckets[BUCKETS];
    exchange_count_t count;
    size_t open;
    bool named;
    uint8_t *news; /* records that have come, the last one perhaps in part */
    size_t news_len;
    size_t news_room;
    bool restored;
} s_watch;

const char *exchange_fault(exchange_fault_t fault)
{
    switch (fault) {
    case EXCHANGE_NO_REQUEST:
        return "request cut short";
    case EXCHANGE_NO_RESPONSE:
        return "no answer";
    case EXCHANGE_GIVEN_UP:
        return "given up";
    case EXCHANGE_NO_MODULE:
        return "module is gone";
    case EXCHANGE_SOUND:
        break;
    }
    return nullptr;
}

size_t exchange_body(const frame_t *frame, size_t header)
{
    return frame->len > header ? frame->len - header : 0;
}

/* --- frames --------------------------------------------------------------------------------------------------------
 */

static exchange_t **find_exchange(uint64_t connection)
{
    exchange_t **at = &s_watch.buckets[connection % BUCKETS];
    while (*at != nullptr && (*at)->connection != connection) {
        at = &(*at)->next;
    }
    return at;
}

static void drop_exchange(exchange_t **at)
{
    exchange_t *exchange = *at;
    *at = exchange->next;
    s_watch.open--;
    free(exchange->request.bytes);
    free(exchange->response.bytes);
    free(exchange);
}

[[noreturn]] static void out_of_memory()
{
    device_fail(DEVICE_EXIT_FAILURE, "memory is short");
}

static exchange_t *open_exchange(const relay_record_t *record)
{
    exchange_t **at = find_exchange(record->connection);
    if (*at == nullptr) {
        *at = static_cast<exchange_t *>(calloc(1, sizeof **at));
        if (*at == nullptr) {
            out_of_memory();
        }
        s_watch.open++;
        (*at)->connection = record->connection;
        (*at)->to = record->module;
    }
    return *at;
}

/* Adds what has passed; more than the frame announces is no part of it. */
static void add_bytes(frame_t *frame, const relay_record_t *record, const uint8_t *bytes)
{
    if (record->kept > 0) {
        uint8_t *grown = static_cast<uint8_t *>(realloc(frame->bytes, frame->kept + record->kept));
        if (grown == nullptr) {
            out_of_memory();
        }
        memcpy(grown + frame->kept, bytes, record->kept);
        frame->bytes = grown;
        frame->kept += record->kept;
    }
    frame->len += record->len;
    frame->uptime = record->uptime;
    frame->clock = record->clock;
}

/* Whether all has come that a header of `size` bytes announces. */
static bool is_whole(const frame_t *frame, size_t size, int32_t announced)
{
    return frame->len >= size && frame->len - size >= static_cast<size_t>(announced > 0 ? announced : 0);
}

static void cut_to(frame_t *frame, size_t len)
{
    frame->whole = true;
    frame->len = len;
    frame->kept = frame->kept < len ? frame->kept : len;
}

static void take_request(exchange_t *exchange, const relay_record_t *record, const uint8_t *bytes)
{
    const size_t size = sizeof exchange->asked;
    frame_t *frame = &exchange->request;
    if (frame->whole) {
        return;
    }
    add_bytes(frame, record, bytes);
    if (frame->kept >= size) {
        memcpy(&exchange->asked, frame->bytes, size);
    }
    if (is_whole(frame, size, exchange->asked.msg_len)) {
        cut_to(frame, size + static_cast<size_t>(exchange->asked.msg_len > 0 ? exchange->asked.msg_len : 0));
        if (s_watch.observer->request != nullptr) {
            s_watch.observer->request(exchange);
        }
    }
}

static void take_response(exchange_t *exchange, const relay_record_t *record, const uint8_t *bytes)
{
    const size_t size = sizeof exchange->answered;
    frame_t *frame = &exchange->response;
    if (frame->whole) {
        return;
    }
    add_bytes(frame, record, bytes);
    if (frame->kept >= size) {
        memcpy(&exchange->answered, frame->bytes, size);
    }
    if (is_whole(frame, size, exchange->answered.msg_len) && exchange->request.whole) {
        cut_to(frame, size + static_cast<size_t>(exchange->answered.msg_len > 0 ? exchange->answered.msg_len : 0));
        if (s_watch.observer->response != nullptr) {
            s_watch.observer->response(exchange);
        }
    }
}

static void take_end(const relay_record_t *record)
{
    exchange_t **at = find_exchange(record->connection);
    exchange_t *exchange = *at;
    if (exchange == nullptr) {
        return;
    }
    if (!exchange->response.whole && record->len == RELAY_UNTOLD) {
        s_watch.count.lost++;
    } else if (!exchange->response.whole) {
        exchange->fault = record->len == RELAY_MODULE_AWAY     ? EXCHANGE_NO_MODULE
                          : !exchange->request.whole           ? EXCHANGE_NO_REQUEST
                          : record->len == RELAY_CLIENT_CLOSED ? EXCHANGE_GIVEN_UP
                                                               : EXCHANGE_NO_RESPONSE;
        exchange->response.uptime = record->uptime;
        exchange->response.clock = record->clock;
        if (s_watch.observer->failed != nullptr) {
            s_watch.observer->failed(exchange);
        }
    }
    drop_exchange(at);
}

/* --- records -------------------------------------------------------------------------------------------------------
 */

static void say(const char *module, const char *text)
{
    fflush(stdout);
    fprintf(stderr, "%s: %s %s\n", program_invocation_short_name, module, text);
}

static bool is_stopped()
{
    return s_watch.unread || (s_watch.observer->stopped != nullptr && s_watch.observer->stopped());
}

static void take_record(const relay_record_t *record, const uint8_t *bytes)
{
    if (record->connection != 0 && is_stopped()) {
        return; /* whoever wanted to see it has left */
    }
    switch (record->kind) {
    case RELAY_REQUEST:
        take_request(open_exchange(record), record, bytes);
        break;
    case RELAY_RESPONSE:
        take_response(open_exchange(record), record, bytes);
        break;
    case RELAY_CLOSE:
        take_end(record);
        break;
    case RELAY_WATCHING:
        say(message_module(record->module), "is being watched");
        break;
    case RELAY_WAITING:
        if (s_watch.named) {
            say(message_module(record->module), "is not running: it will be watched when it does");
        }
        break;
    case RELAY_LEFT:
        say(message_module(record->module), "has ended: it will be watched when it starts anew");
        break;
    case RELAY_LOST:
        s_watch.count.lost += record->len;
        break;
    case RELAY_FAILED:
        device_fail(DEVICE_EXIT_FAILURE, "%s cannot be watched: %.*s",
                    record->module != 0 ? message_module(record->module) : "modules", static_cast<int>(record->kept),
                    reinterpret_cast<const char *>(bytes));
    case RELAY_RESTORED:
        s_watch.restored = true;
        break;
    default:
        break;
    }
}

/* Takes the records that are whole. */
static void take_news()
{
    size_t at = 0;
    relay_record_t record;
    while (s_watch.news_len - at >= sizeof record) {
        memcpy(&record, s_watch.news + at, sizeof record);
        if (s_watch.news_len - at - sizeof record < record.kept) {
            break;
        }
        take_record(&record, s_watch.news + at + sizeof record);
        at += sizeof record + record.kept;
    }
    s_watch.news_len -= at;
    memmove(s_watch.news, s_watch.news + at, s_watch.news_len);
}

/* The relay tells no more, although it had not said that all is as it was. */
[[noreturn]] static void repair_and_fail()
{
    relay_repair(s_watch.modules);
    device_fail(DEVICE_EXIT_FAILURE, "the relay was killed: the modules have their sockets back, but the requests that "
                                     "it had in hand are lost");
}

/* Takes what has come; waits for it up to `ms` milliseconds, -1 for no limit. False when nothing came. */
static bool wait_for_news(int ms)
{
    pollfd sources[] = {{s_watch.relay, POLLIN, 0}, {s_watch.signals, POLLIN, 0}, {s_watch.out, 0, 0}};
    if (poll(sources, sizeof sources / sizeof *sources, ms) <= 0) {
        return false;
    }
    if (sources[1].revents != 0) {
        close(s_watch.signals);
        s_watch.signals = -1;
    }
    if ((sources[2].revents & POLLERR) != 0) {
        s_watch.out = -1;
        s_watch.unread = true;
    }
    if (sources[0].revents == 0) {
        return false;
    }
    if (s_watch.news_room - s_watch.news_len < NEWS_ROOM) {
        s_watch.news_room = s_watch.news_len + 2 * NEWS_ROOM;
        s_watch.news = static_cast<uint8_t *>(realloc(s_watch.news, s_watch.news_room));
        if (s_watch.news == nullptr) {
            out_of_memory();
        }
    }
    ssize_t got = recv(s_watch.relay, s_watch.news + s_watch.news_len, NEWS_ROOM, MSG_DONTWAIT);
    if (got == 0 || (got < 0 && errno != EAGAIN && errno != EINTR)) {
        if (!s_watch.restored) {
            repair_and_fail();
        }
        return false;
    }
    s_watch.news_len += got > 0 ? static_cast<size_t>(got) : 0;
    take_news();
    if (s_watch.observer->turn != nullptr) {
        s_watch.observer->turn();
    }
    return true;
}

/* --- the whole -----------------------------------------------------------------------------------------------------
 */

/* They are read as what the relay tells: while it tells without a pause, none would be delivered. */
static int catch_signals()
{
    sigset_t caught;
    sigemptyset(&caught);
    static const int ENDING[] = {SIGINT, SIGTERM, SIGHUP};
    for (int number : ENDING) {
        sigaddset(&caught, number);
    }
    sigprocmask(SIG_BLOCK, &caught, nullptr);
    return signalfd(-1, &caught, SFD_CLOEXEC);
}

static uint32_t chosen_modules(int count, char **names)
{
    uint32_t modules = 0;
    for (int i = 0; i < count; i++) {
        uint32_t id = device_module_arg(names[i]);
        if ((g_s_modules_info[id].flags & FRWK_MODULE_FLAG_IPC) == 0) {
            device_fail(DEVICE_EXIT_USAGE, "%s is a tool: it gets no requests", names[i]);
        }
        modules |= 1u << id;
    }
    for (uint32_t id = 1; id < FRWK_MODULE_MAX && count == 0; id++) {
        modules |= (g_s_modules_info[id].flags & FRWK_MODULE_FLAG_IPC) != 0 ? 1u << id : 0u;
    }
    return modules;
}

static void drop_all()
{
    for (exchange_t *&bucket : s_watch.buckets) {
        while (bucket != nullptr) {
            s_watch.count.open += bucket->request.whole && !bucket->response.whole;
            drop_exchange(&bucket);
        }
    }
    free(s_watch.news);
}

exchange_count_t exchange_watch(int count, char **names, size_t snap, const exchange_observer_t *observer)
{
    s_watch.observer = observer;
    s_watch.out = observer->out;
    s_watch.modules = chosen_modules(count, names);
    s_watch.named = count > 0;
    s_watch.signals = catch_signals();
    s_watch.relay = relay_start(s_watch.modules, snap);
    if (s_watch.relay < 0) {
        device_fail(DEVICE_EXIT_FAILURE, "cannot start the relay: %s", strerror(errno));
    }
    while (s_watch.signals >= 0 && !s_watch.restored && !is_stopped()) {
        wait_for_news(-1);
    }
    shutdown(s_watch.relay, SHUT_WR);
    while (!s_watch.restored) {
        wait_for_news(-1);
    }
    frwk_uptime_t end;
    frwk_simple_timer_start(&end, LAST_ANSWERS);
    while (s_watch.open > 0 && !frwk_simple_timer_timeout(&end) && wait_for_news(frwk_simple_timer_remain(&end))) {
    }
    close(s_watch.relay);
    drop_all();
    return s_watch.count;
}
