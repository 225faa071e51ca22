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

/* Where a line comes from and what it says. */
struct trace_t {
    const char *file;
    const char *func;
    int line;
    int level;
    const char *fmt;
};

static void trace_syslog(const trace_t &trace, va_list args)
{
    char text[LINE_SIZE];
    int len = sprintf_s(text, sizeof text, "%s|%s|%s|%d::", level_name(trace.level), frwk_get_filename(trace.file),
                        trace.func, trace.line);
    vsprintf_s(text + len, sizeof text - static_cast<size_t>(len), trace.fmt, args);
    syslog(level_priority(trace.level), "%s", text);
}

static void trace_console(const trace_t &trace, va_list args)
{
    time_t now = time(nullptr);
    struct tm tm = {};
    localtime_r(&now, &tm);

    char text[LINE_SIZE];
    int len = sprintf_s(text, sizeof text, "[%s]%04d-%02d-%02d %02d:%02d:%02d|%s|%s|%s|%d::",
                        frwk_module_label(frwk_module_own_id()), tm.tm_year + 1900, tm.tm_mon + 1, tm.tm_mday,
                        tm.tm_hour, tm.tm_min, tm.tm_sec, level_name(trace.level), frwk_get_filename(trace.file),
                        trace.func, trace.line);
    len += vsprintf_s(text + len, sizeof text - static_cast<size_t>(len), trace.fmt, args);
    /* A cut line gives up its last character, so that every line ends in a newline. */
    int end = len < LINE_SIZE - 2 ? len : LINE_SIZE - 2;
    text[end] = '\n';
    text[end + 1] = '\0';
    fputs(text, stdout);
}

void frwk_trace_print(const char *file, const char *func, int line, int level, const char *fmt, ...)
{
    if (g_s_module_ctx.level.load(std::memory_order_relaxed) < level) {
        return;
    }
    int mode = g_s_module_ctx.debug_mode.load(std::memory_order_relaxed);
    if (mode < SINK_SYSLOG_1 || mode > SINK_CONSOLE) {
        return;
    }
    /* Lines are traced from the middle of things: a thread must not end there with a lock or memory in hand. */
    cancel_guard no_cancel;
    int saved_errno = errno;
    trace_t trace = {file, func, line, level, fmt};
    va_list args;
    va_start(args, fmt);
    if (mode == SINK_CONSOLE) {
        trace_console(trace, args);
    } else {
        trace_syslog(trace, args);
    }
    va_end(args);
    errno = saved_errno;
}

int frwk_level_match(const char *name)
{
    static const struct {
        const char *name;
        int level;
    } levels[] = {
        {"", FRWK_TRACE_NULL},       {"null", FRWK_TRACE_NULL},       {"debug", FRWK_TRACE_DEBUG},
        {"info", FRWK_TRACE_INFO},   {"warning", FRWK_TRACE_WARNING}, {"error", FRWK_TRACE_ERROR},
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
    const char *base = path;
    for (const char *c = path; *c != '\0'; c++) {
        if (*c == '/' || *c == '\\') {
            base = c + 1;
        }
    }
    return base;
}

void frwk_assert_debug(int cond, const char *expr, const char *file, const char *func, unsigned int line)
{
    if (cond != 0) {
        return;
    }
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
