/* SPDX-FileCopyrightText: 2026 the libfrwk authors */
/* SPDX-License-Identifier: MIT */

/*
 * atfwd_daemon [TERMINAL]: answers command lines such as "AT+LOAD?" by asking the other modules. It reads them from a
 * terminal, which it opens again whenever the other end has hung up, or from its standard input, until that ends.
 */
#include "at_commands.h"
#include "demo.h"

#include <errno.h>
#include <fcntl.h>
#include <stdarg.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

enum { REOPEN_PAUSE = 1000 }; /* milliseconds */

static pthread_mutex_t s_lock; /* guards s_out and keeps the lines of several threads apart */
static int s_out = -1;
static const char *s_line_end = "\n";

void at_say(const char *fmt, ...)
{
    char line[512];
    va_list args;
    va_start(args, fmt);
    int room = static_cast<int>(sizeof line - 2);
    int len = vsnprintf(line, static_cast<size_t>(room), fmt, args);
    va_end(args);
    len = len < room ? len : room - 1;
    len += snprintf(line + len, sizeof line - static_cast<size_t>(len), "%s", s_line_end);
    frwk_mutex_lock(&s_lock);
    for (int done = 0; done < len;) {
        ssize_t n = write(s_out, line + done, static_cast<size_t>(len - done));
        if (n < 0 && errno != EINTR) {
            break; /* nobody there: the reader finds out and opens the terminal again */
        }
        done += n > 0 ? static_cast<int>(n) : 0;
    }
    frwk_mutex_unlock(&s_lock);
}

/* Serves `fd` until its end; CR, LF or both end a line. @return whether there was any byte */
static bool serve(int fd)
{
    char line[256];
    size_t len = 0;
    bool any = false;
    char byte;
    ssize_t n;
    while ((n = read(fd, &byte, 1)) > 0 || (n < 0 && errno == EINTR)) {
        if (n < 0) {
            continue;
        }
        any = true;
        if (byte != '\r' && byte != '\n') {
            len += len < sizeof line ? 1 : 0;
            line[len - 1] = byte;
        } else if (len == sizeof line) {
            at_say("ERROR"); /* too long */
            len = 0;
        } else if (len > 0) {
            line[len] = '\0';
            FRWK_INFO("command '%s'", line);
            at_run(line);
            len = 0;
        }
    }
    return any;
}

static void serve_terminal(const char *path)
{
    s_line_end = "\r\n";
    bool said = false;
    for (;;) {
        int fd = open(path, O_RDWR | O_NOCTTY | O_CLOEXEC);
        if (fd < 0 && !said) {
            FRWK_WARN("cannot open %s: %s", path, strerror(errno));
        }
        said = fd < 0;
        if (fd >= 0) {
            demo_raw(fd);
            frwk_mutex_lock(&s_lock);
            s_out = fd;
            frwk_mutex_unlock(&s_lock);
            frwk_set_module_status(1);
            serve(fd);
            frwk_set_module_status(0);
            frwk_mutex_lock(&s_lock);
            s_out = -1;
            frwk_mutex_unlock(&s_lock);
            close(fd);
        }
        frwk_sleep(REOPEN_PAUSE);
    }
}

static int32_t handle(uint32_t from, uint32_t msg, const uint8_t *req, int32_t req_len, uint8_t *, int32_t, uint32_t)
{
    figures_t figures;
    switch (msg) {
    case DEMO_MSG_MEASURED:
        if (req == nullptr || req_len != sizeof figures) {
            return FRWK_ERROR_INVALID_PARAM;
        }
        memcpy(&figures, req, sizeof figures);
        at_say("+MEASURED: %u.%02u", figures.busy / 100, figures.busy % 100);
        return FRWK_ERROR_SUCCESS;
    case DEMO_MSG_REPORT:
        FRWK_INFO("report: ready for commands");
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
    if (argc > 2) {
        fputs("usage: atfwd_daemon [TERMINAL]\n", stderr);
        return 2;
    }
    frwk_mutex_create(&s_lock);
    if (frwk_module_init(FRWK_MODULE_ATFWD_DAEMON, nullptr) != FRWK_ERROR_SUCCESS) {
        return 1;
    }
    frwk_ipc_init(handle);
    if (argc == 2) {
        serve_terminal(argv[1]);
    }
    s_out = STDOUT_FILENO;
    if (!serve(STDIN_FILENO)) {
        frwk_keep_running(); /* started without an input, as by the monitor: still a module that others may ask */
    }
    return 0;
}
