/* SPDX-FileCopyrightText: 2026 the libfrwk authors */
/* SPDX-License-Identifier: MIT */

/*
 * Trace levels, the trace line and its two sinks, assertions.
 */
#include "frwk_bounded.h"
#include "frwk_common_module.h"
#include "frwk_guard.h"
#include "frwk_trace.h"

#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <strings.h>
#include <syslog.h>
#include <time.h>

enum {
    LINE_SIZE = 1024, /* one line or assertion text with its terminator */
    SINK_SYSLOG_1 = 1,
    SINK_SYSLOG_2 = 2,
    SINK_CONSOLE = 3
};

static const char *level_name(int level)
{
    switch (level) {
    case FRWK_TRACE_ERROR:
        return "error";
    case FRWK_TRACE_WARNING:
        return "warning";
    case FRWK_TRACE_INFO:
        return "info";
    case FRWK_TRACE_DEBUG:
        return "debug";
    default:
        return "null";
    }
}

static int level_priority(int level)
{
    static const int priorities[] = {LOG_ERR, LOG_WARNING, LOG_INFO, LOG_INFO, LOG_INFO, LOG_INFO, LOG_INFO, LOG_DEBUG};
    unsigned int index = static_cast<unsigned int>(level) - 1U;
    return index < sizeof priorities / sizeof priorities[0] ? priorities[index] : LOG_INFO;
}

/* --- the line ---------------------------------------------------------------------------------------------------- */

/* A line in the making. What does not fit is cut; the last byte is kept for a terminator. */
struct line_t {
    char text[LINE_SIZE];
    size_t len;
};

static void append(line_t *line, const char *text, size_t len)
{
    size_t room = sizeof line->text - 1 - line->len;
    size_t fit = len < room ? len : room;
    memcpy_s(line->text + line->len, room, text, fit);
    line->len += fit;
}

static void append_text(line_t *line, const char *text)
{
    append(line, text, strlen(text));
}

static void append_number(line_t *line, int number)
{
    char digits[12];
    char *first = digits + sizeof digits;
    unsigned int left = number < 0 ? 0U - static_cast<unsigned int>(number) : static_cast<unsigned int>(number);
    do {
        *--first = static_cast<char>('0' + left % 10);
        left /= 10;
    } while (left > 0);
    if (number < 0) {
        *--first = '-';
    }
    append(line, first, static_cast<size_t>(digits + sizeof digits - first));
}

/* "level|file|function|line::" */
static void append_origin(line_t *line, int level, const char *file, const char *func, int number)
{
    append_text(line, level_name(level));
    append(line, "|", 1);
    append_text(line, frwk_get_filename(file));
    append(line, "|", 1);
    append_text(line, func != nullptr ? func : "(null)");
    append(line, "|", 1);
    append_number(line, number);
    append(line, "::", 2);
}

static void append_message(line_t *line, const char *fmt, va_list args)
{
    size_t room = sizeof line->text - line->len;
    line->len += static_cast<size_t>(vsprintf_s(line->text + line->len, room, fmt, args));
    line->text[line->len] = '\0'; /* where the format could not be converted */
}

/* --- the date ---------------------------------------------------------------------------------------------------- */

/* What localtime_r() converts by. It changes when the program sets another zone. */
struct zone_t {
    long offset;
    int daylight;
    const char *names[2];
};

/* The date last rendered by a thread, good for the second and the zone that it was rendered for. */
struct date_t {
    time_t second;
    zone_t zone;
    size_t len;
    char text[64];
};

static thread_local date_t last_date;

static bool same_zone(const zone_t &a, const zone_t &b)
{
    return a.offset == b.offset && a.daylight == b.daylight && a.names[0] == b.names[0] && a.names[1] == b.names[1];
}

static zone_t current_zone()
{
    return {timezone, daylight, {tzname[0], tzname[1]}};
}

static void render_date(date_t *date, time_t now)
{
    struct tm tm = {};
    localtime_r(&now, &tm);
    int len = sprintf_s(date->text, sizeof date->text, "%04d-%02d-%02d %02d:%02d:%02d|", tm.tm_year + 1900,
                        tm.tm_mon + 1, tm.tm_mday, tm.tm_hour, tm.tm_min, tm.tm_sec);
    date->len = static_cast<size_t>(len);
    date->second = now;
    date->zone = current_zone();
}

/* "YYYY-MM-DD HH:MM:SS|" */
static void append_date(line_t *line)
{
    time_t now = time(nullptr);
    if (last_date.len == 0 || last_date.second != now || !same_zone(last_date.zone, current_zone())) {
        render_date(&last_date, now);
    }
    append(line, last_date.text, last_date.len);
}

/* --- the sinks --------------------------------------------------------------------------------------------------- */

static void trace_syslog(int level, line_t *line)
{
    syslog(level_priority(level), "%s", line->text);
}

static void trace_console(line_t *line)
{
    /* A cut line gives up its last character, so that every line ends in a newline. */
    size_t end = line->len < LINE_SIZE - 2 ? line->len : LINE_SIZE - 2;
    line->text[end] = '\n';
    line->text[end + 1] = '\0';
    fputs(line->text, stdout);
}

/*
 * Puts the line together and hands it to its sink. Apart from frwk_trace_print(), which so has nothing to save and
 * restore for a line that is suppressed.
 */
__attribute__((noinline)) static void print_line(const char *file, const char *func, int line, int level,
                                                 const char *fmt, va_list args)
{
    int mode = g_s_module_ctx.debug_mode.load(std::memory_order_relaxed);
    if (mode < SINK_SYSLOG_1 || mode > SINK_CONSOLE) {
        return;
    }
    /* Lines are traced from the middle of things: a thread must not end there with a lock or memory in hand. */
    cancel_guard no_cancel;
    int saved_errno = errno;

    line_t text;
    text.len = 0;
    if (mode == SINK_CONSOLE) {
        append(&text, "[", 1);
        append_text(&text, frwk_module_label(frwk_module_own_id()));
        append(&text, "]", 1);
        append_date(&text);
    }
    append_origin(&text, level, file, func, line);
    errno = saved_errno; /* for %m */
    append_message(&text, fmt, args);

    if (mode == SINK_CONSOLE) {
        trace_console(&text);
    } else {
        trace_syslog(level, &text);
    }
    errno = saved_errno;
}

void frwk_trace_print(const char *file, const char *func, int line, int level, const char *fmt, ...)
{
    if (g_s_module_ctx.level.load(std::memory_order_relaxed) < level) {
        return;
    }
    va_list args;
    va_start(args, fmt);
    print_line(file, func, line, level, fmt, args);
    va_end(args);
}

/* --- levels by name ---------------------------------------------------------------------------------------------- */

int frwk_level_match(const char *name)
{
    static const struct {
        const char *name;
        int level;
    } levels[] = {
        {"", FRWK_TRACE_NULL},     {"null", FRWK_TRACE_NULL},       {"debug", FRWK_TRACE_DEBUG},
        {"info", FRWK_TRACE_INFO}, {"warning", FRWK_TRACE_WARNING}, {"error", FRWK_TRACE_ERROR},
    };
    if (name == nullptr) {
        printf("trace level is null!\n");
        return -1;
    }
    for (const auto &entry : levels) {
        if (strcasecmp(name, entry.name) == 0) {
            return entry.level;
        }
    }
    printf("Unsupported trace level(%s)\n", name);
    return -1;
}

int frwk_trace_set(const char *name)
{
    int level = frwk_level_match(name);
    if (level < 0) {
        return name == nullptr ? FRWK_ERROR_INVALID_PARAM : FRWK_ERROR_UNSUPPORTED;
    }
    g_s_module_ctx.level.store(level, std::memory_order_relaxed);
    return FRWK_ERROR_SUCCESS;
}

const char *frwk_get_filename(const char *path)
{
    if (path == nullptr) {
        return "";
    }
    const char *separator = strrchr(path, '/');
    const char *base = separator != nullptr ? separator + 1 : path;
    separator = strrchr(base, '\\');
    return separator != nullptr ? separator + 1 : base;
}

void frwk_assert_debug(int cond, const char *expr, const char *file, const char *func, unsigned int line)
{
    if (cond != 0) {
        return;
    }
    cancel_guard uncancelled; /* or a thread that was cancelled would end here alone, and the process go on */
    char text[LINE_SIZE];
    sprintf_s(text, sizeof text, "[%s]ASSERT(%s|%s|%u), %s\n", frwk_module_label(frwk_module_own_id()),
              frwk_get_filename(file), func, line, expr);
    if ((frwk_module_flags(frwk_module_own_id()) & FRWK_MODULE_FLAG_SYSLOG) != 0) {
        syslog(LOG_CRIT, "%s", text);
        closelog();
    }
    fputs(text, stderr);
    abort();
}
