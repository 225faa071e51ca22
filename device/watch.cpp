/* SPDX-FileCopyrightText: 2026 the libfrwk authors */
/* SPDX-License-Identifier: MIT */

/*
 * monitor_tool watch: each request on a line, and their figures at the end.
 */
#include "watch.h"

#include "exchange.h"
#include "json.h"
#include "messages.h"
#include "summary.h"

#include <ctype.h>
#include <errno.h>
#include <stdio.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

enum { BYTES_SHOWN = 65536 };

static bool s_json;
static bool s_bytes;
static bool s_coloured;

const device_option_t WATCH_OPTIONS[] = {
    {"hex", 'x', nullptr, "shows the bytes of bodies and answers as well, of each the first 65,536",
     [](const char *) { s_bytes = true; }},
    {"json", 'j', nullptr, "prints one JSON object a line", [](const char *) { s_json = true; }},
    {"names", 'n', "FILE", "names messages: each line has a module or *, a message's number and its name",
     message_read_names},
    {},
};

/* --- what is shown of a request ------------------------------------------------------------------------------------
 */

static int64_t duration_of(const exchange_t *exchange)
{
    return exchange->response.whole ? static_cast<int64_t>(exchange->response.uptime - exchange->request.uptime) : -1;
}

/* An asynchronous one is answered when it is taken; what comes of it nobody learns. */
static bool is_failure(const exchange_t *exchange)
{
    return exchange->fault != EXCHANGE_SOUND || (exchange->asked.async == 0 && exchange->answered.rc != 0);
}

static void result_text(const exchange_t *exchange, char *text, size_t size)
{
    const char *name = message_result(exchange->answered.rc);
    if (exchange->fault != EXCHANGE_SOUND) {
        snprintf(text, size, "%s", exchange_fault(exchange->fault));
    } else if (exchange->asked.async != 0) {
        snprintf(text, size, "taken");
    } else if (name != nullptr) {
        snprintf(text, size, "%s", name);
    } else {
        snprintf(text, size, "%d", exchange->answered.rc);
    }
}

static void show_bytes(const char *mark, const frame_t *frame, size_t header)
{
    for (size_t row = header; row < frame->kept; row += 16) {
        size_t count = frame->kept - row < 16 ? frame->kept - row : 16;
        printf("    %s %06zx ", mark, row - header);
        for (size_t i = 0; i < 16; i++) {
            i < count ? printf(" %02x", frame->bytes[row + i]) : printf("   ");
        }
        printf("  |");
        for (size_t i = 0; i < count; i++) {
            putchar(isprint(frame->bytes[row + i]) ? frame->bytes[row + i] : '.');
        }
        printf("|\n");
    }
    if (frame->kept < frame->len) {
        printf("    %s %zu bytes more\n", mark, frame->len - frame->kept);
    }
}

/* Not before the first line: what is said of a wrong command line comes alone. */
static void show_head()
{
    static bool shown;
    if (shown) {
        return;
    }
    shown = true;
    printf("%-15s  %-13s    %-13s %-20s %-5s %7s %7s  %-13s %10s\n", "time", "sender", "receiver", "message", "kind",
           "request", "answer", "result", "ms");
}

static void show_time(uint64_t clock)
{
    time_t seconds = static_cast<time_t>(clock / 1000000000u);
    tm local;
    char text[16] = "";
    localtime_r(&seconds, &local);
    strftime(text, sizeof text, "%H:%M:%S", &local);
    printf("%s.%06u", text, static_cast<unsigned>(clock % 1000000000u / 1000u));
}

static void message_text(uint32_t to, uint32_t msg, char *text, size_t size)
{
    const char *name = message_name(to, msg);
    snprintf(text, size, name != nullptr ? "%u %s" : "%u", msg, name);
}

static void show_line(const exchange_t *exchange)
{
    bool known = exchange->request.kept >= sizeof exchange->asked;
    bool answered = exchange->response.whole;
    char message[64] = "-";
    char result[32];
    char took[32] = "-";
    char answer[16] = "-";
    if (known) {
        message_text(exchange->to, exchange->asked.msg, message, sizeof message);
    }
    result_text(exchange, result, sizeof result);
    if (answered) {
        snprintf(took, sizeof took, "%.3f", static_cast<double>(duration_of(exchange)) / 1e6);
        snprintf(answer, sizeof answer, "%zu", exchange_body(&exchange->response, sizeof exchange->answered));
    }
    show_head();
    bool painted = s_coloured && is_failure(exchange);
    fputs(painted ? "\033[31m" : "", stdout);
    show_time(exchange->request.clock);
    printf("  %-13s -> %-13s %-20s %-5s %7zu %7s  %-13s %10s%s\n", message_module(exchange->asked.from),
           message_module(exchange->to), message,
           !known                       ? "-"
           : exchange->asked.async != 0 ? "async"
                                        : "sync",
           exchange_body(&exchange->request, sizeof exchange->asked), answer, result, took, painted ? "\033[0m" : "");
    if (s_bytes) {
        show_bytes(">", &exchange->request, sizeof exchange->asked);
        show_bytes("<", &exchange->response, sizeof exchange->answered);
    }
}

static void put_json_bytes(const char *key, const frame_t *frame, size_t header)
{
    printf(", \"%s\": \"", key);
    for (size_t i = header; i < frame->kept; i++) {
        printf("%02x", frame->bytes[i]);
    }
    putchar('"');
}

static void put_json_module(const char *key, uint32_t id)
{
    const char *name = message_module(id);
    printf(", \"%s\": ", key);
    json_text(*name != '?' ? name : nullptr);
    printf(", \"%s_id\": %u", key, id);
}

static void put_json_message(uint32_t to, uint32_t msg)
{
    printf(", \"message\": %u, \"message_name\": ", msg);
    json_text(message_name(to, msg));
}

static void show_object(const exchange_t *exchange)
{
    time_t seconds = static_cast<time_t>(exchange->request.clock / 1000000000u);
    tm utc;
    char text[32] = "";
    gmtime_r(&seconds, &utc);
    strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%S", &utc);
    printf("{\"time\": \"%s.%09uZ\"", text, static_cast<unsigned>(exchange->request.clock % 1000000000u));
    put_json_module("sender", exchange->asked.from);
    put_json_module("receiver", exchange->to);
    put_json_message(exchange->to, exchange->asked.msg);
    bool answered = exchange->response.whole && exchange->asked.async == 0;
    printf(", \"kind\": \"%s\", \"timeout\": %u, \"request_bytes\": %zu, \"answer_room\": %d, \"answer_bytes\": %zu",
           exchange->asked.async != 0 ? "async" : "sync", exchange->asked.timeout,
           exchange_body(&exchange->request, sizeof exchange->asked), exchange->asked.rsp_size,
           exchange_body(&exchange->response, sizeof exchange->answered));
    fputs(", \"result\": ", stdout);
    answered ? printf("%d", exchange->answered.rc) : printf("null");
    fputs(", \"result_name\": ", stdout);
    json_text(answered ? message_result(exchange->answered.rc) : nullptr);
    fputs(", \"fault\": ", stdout);
    json_text(exchange_fault(exchange->fault));
    fputs(", \"milliseconds\": ", stdout);
    exchange->response.whole ? printf("%.6f", static_cast<double>(duration_of(exchange)) / 1e6) : printf("null");
    if (s_bytes) {
        put_json_bytes("request_hex", &exchange->request, sizeof exchange->asked);
        put_json_bytes("answer_hex", &exchange->response, sizeof exchange->answered);
    }
    puts("}");
}

static void show(const exchange_t *exchange)
{
    s_json ? show_object(exchange) : show_line(exchange);
    summary_add(exchange->to, exchange->asked.msg, is_failure(exchange), duration_of(exchange));
}

/* --- the end -------------------------------------------------------------------------------------------------------
 */

static void show_summary_line(const summary_row_t *row)
{
    char message[64];
    char median[32] = "-";
    char slow[32] = "-";
    message_text(row->to, row->msg, message, sizeof message);
    if (row->answers > 0) {
        snprintf(median, sizeof median, "%.3f", summary_quantile(row, 0.5) / 1e6);
        snprintf(slow, sizeof slow, "%.3f", summary_quantile(row, 0.99) / 1e6);
    }
    printf("%-13s %-20s %9llu %9llu %10s %10s\n", message_module(row->to), message,
           static_cast<unsigned long long>(row->count), static_cast<unsigned long long>(row->failures), median, slow);
}

static void show_summary_object(const summary_row_t *row)
{
    printf("{\"summary\": true");
    put_json_module("receiver", row->to);
    put_json_message(row->to, row->msg);
    printf(", \"count\": %llu, \"failures\": %llu", static_cast<unsigned long long>(row->count),
           static_cast<unsigned long long>(row->failures));
    if (row->answers > 0) {
        printf(", \"median_ms\": %.6f, \"p99_ms\": %.6f}\n", summary_quantile(row, 0.5) / 1e6,
               summary_quantile(row, 0.99) / 1e6);
    } else {
        puts(", \"median_ms\": null, \"p99_ms\": null}");
    }
}

static void flush_turn()
{
    fflush(stdout);
}

/* Whoever read the lines has left, such as head. */
static bool is_unread()
{
    return ferror(stdout) != 0;
}

int watch_run(int argc, char **argv)
{
    s_coloured = device_terminal() && !s_json;
    const exchange_observer_t observer = {nullptr, show, show, flush_turn, is_unread, STDOUT_FILENO};
    exchange_count_t count =
        exchange_watch(argc, argv, s_bytes ? size_t{BYTES_SHOWN} : sizeof(frwk_ipc_reqhdr_t), &observer);
    if (!s_json) {
        printf("\n%-13s %-20s %9s %9s %10s %10s\n", "receiver", "message", "requests", "failures", "median ms",
               "99% ms");
    }
    summary_each(s_json ? show_summary_object : show_summary_line);
    if (!s_json && count.open > 0) {
        printf("%llu without an answer when this ended\n", static_cast<unsigned long long>(count.open));
    }
    if (count.lost > 0) {
        fflush(stdout);
        fprintf(stderr, "%s: %llu requests passed that could not be shown: they came faster than they were read\n",
                program_invocation_short_name, static_cast<unsigned long long>(count.lost));
    }
    return 0;
}
