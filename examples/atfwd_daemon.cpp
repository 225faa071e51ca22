/*
 * atfwd_daemon [TERMINAL]: answers command lines such as "AT+LOAD?" by asking the other modules. It reads them from a
 * terminal, which it opens again whenever the other end has hung up, or from its standard input, until that ends.
 *
 * The last line of an answer is "OK", "ERROR" for a command line that it does not know, or "+CME ERROR: n" with a
 * result code of the library.
 */
#include <errno.h>
#include <fcntl.h>
#include <stdarg.h>
#include <stdlib.h>
#include <string.h>
#include <strings.h>
#include <unistd.h>

#include "device.h"

enum { TIMEOUT = 3, REOPEN_PAUSE = 1000 }; /* seconds that a module may take to be ready; milliseconds */
enum { MISUSE = -1 };                      /* result of a command whose argument is wrong */

static pthread_mutex_t s_lock; /* guards s_out and keeps the lines of several threads apart */
static int s_out = -1;
static const char *s_line_end = "\n";

FRWK_PRINTF_FORMAT(1, 2) static void say(const char *fmt, ...)
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

static int figures_of_machine(figures_t *figures)
{
    int32_t result = 0;
    int rc = frwk_ipc_msg_get(FRWK_MODULE_QMUXD, QMUX_MSG_FIGURES, figures, sizeof *figures, TIMEOUT, &result);
    return rc != FRWK_ERROR_SUCCESS ? rc : result;
}

static int nothing(const char *)
{
    return FRWK_ERROR_SUCCESS;
}

static int identify(const char *)
{
    say("libfrwk example device, module %d", frwk_get_module_id());
    return FRWK_ERROR_SUCCESS;
}

static int tell_clock(const char *)
{
    frwk_systime_t now;
    frwk_get_systime(&now);
    say("+CCLK: \"%02d/%02d/%02d,%02d:%02d:%02d\"", now.year % 100, now.mon, now.mday, now.hour, now.min, now.sec);
    return FRWK_ERROR_SUCCESS;
}

static int tell_load(const char *)
{
    figures_t figures;
    int rc = figures_of_machine(&figures);
    if (rc == FRWK_ERROR_SUCCESS) {
        say("+LOAD: %u.%02u", figures.load / 100, figures.load % 100);
    }
    return rc;
}

static int tell_memory(const char *)
{
    figures_t figures;
    int rc = figures_of_machine(&figures);
    if (rc == FRWK_ERROR_SUCCESS) {
        say("+MEM: %u,%u", figures.mem_total, figures.mem_available);
    }
    return rc;
}

static int tell_uptime(const char *)
{
    figures_t figures;
    int rc = figures_of_machine(&figures);
    if (rc == FRWK_ERROR_SUCCESS) {
        say("+UPTIME: %u", figures.uptime);
    }
    return rc;
}

/* Asynchronous: qmuxd takes the request, and "+MEASURED: ..." follows when it has the figures. */
static int measure(const char *)
{
    int rc = frwk_ipc_send_async(FRWK_MODULE_QMUXD, QMUX_MSG_MEASURE, nullptr, 0, TIMEOUT);
    return rc == FRWK_ERROR_ASYNC ? FRWK_ERROR_SUCCESS : rc;
}

static int sample_now(const char *)
{
    int rc = frwk_ipc_msg_notify(FRWK_MODULE_QMUXD, FRWK_MSG_SYS_CTRL0, nullptr, 0);
    return rc == FRWK_ERROR_ASYNC ? FRWK_ERROR_SUCCESS : rc;
}

static int set_period(const char *arg)
{
    int32_t result = 0;
    int32_t period = atoi(arg);
    int rc = frwk_ipc_msg_set(FRWK_MODULE_QMUXD, QMUX_MSG_PERIOD, &period, sizeof period, TIMEOUT, &result);
    return rc != FRWK_ERROR_SUCCESS ? rc : result;
}

static int report(const char *)
{
    frwk_ipc_msg_broadcast(DEVICE_MSG_REPORT); /* to the supervised modules */
    return FRWK_ERROR_SUCCESS;
}

static int mark(const char *arg)
{
    frwk_ipc_msg_broadcast_data(DEVICE_MSG_MARK, arg, static_cast<int32_t>(strlen(arg))); /* to all */
    return FRWK_ERROR_SUCCESS;
}

static int tell_status(const char *arg)
{
    uint32_t id = frwk_module_id(arg);
    if (id == FRWK_MODULE_MAX) {
        return MISUSE;
    }
    uint32_t status = frwk_get_module_status(id);
    if (status == 0) { /* or the module could not be asked */
        int rc = frwk_ipc_msg_get(id, FRWK_MSG_SYS_PING, nullptr, 0, TIMEOUT, nullptr);
        if (rc != FRWK_ERROR_SUCCESS) {
            return rc;
        }
    }
    say("+STATUS: %s,%u", arg, status);
    return FRWK_ERROR_SUCCESS;
}

/* MODULE,MODE,LEVEL: until the module's next start; logtool changes what is stored as well. */
static int set_trace(const char *arg)
{
    char name[32];
    char mode[8];
    const char *level = strrchr(arg, ',');
    if (!frwk_str_pick(arg, nullptr, ",", name, sizeof name) || !frwk_str_pick(arg, ",", ",", mode, sizeof mode) ||
        frwk_module_id(name) == FRWK_MODULE_MAX || device_level(level + 1) < 0) {
        return MISUSE;
    }
    int32_t result = 0;
    int32_t settings[2] = {atoi(mode), device_level(level + 1)};
    int rc = frwk_ipc_msg_set(frwk_module_id(name), FRWK_MSG_SYS_LOG, settings, sizeof settings, TIMEOUT, &result);
    return rc != FRWK_ERROR_SUCCESS ? rc : result;
}

/* A name that ends in '=' is followed by an argument. */
static const struct {
    const char *name;
    int (*run)(const char *arg);
} COMMANDS[] = {
    {"AT", nothing},          {"ATI", identify},         {"AT+CCLK?", tell_clock},
    {"AT+LOAD?", tell_load},  {"AT+MEM?", tell_memory},  {"AT+UPTIME?", tell_uptime},
    {"AT+MEASURE", measure},  {"AT+SAMPLE", sample_now}, {"AT+PERIOD=", set_period},
    {"AT+REPORT", report},    {"AT+MARK=", mark},        {"AT+STATUS=", tell_status},
    {"AT+TRACE=", set_trace},
};

static void run_line(char *line)
{
    FRWK_INFO("command '%s'", line);
    int rc = MISUSE;
    for (const auto &command : COMMANDS) {
        size_t len = strlen(command.name);
        bool with_arg = command.name[len - 1] == '=';
        if (strncasecmp(line, command.name, len) == 0 && (with_arg ? line[len] != '\0' : line[len] == '\0')) {
            rc = command.run(line + len);
        }
    }
    if (rc == FRWK_ERROR_SUCCESS) {
        say("OK");
    } else if (rc == MISUSE) {
        say("ERROR");
    } else {
        say("+CME ERROR: %d", rc);
    }
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
            say("ERROR"); /* too long */
            len = 0;
        } else if (len > 0) {
            line[len] = '\0';
            run_line(line);
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
            device_raw(fd);
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
    case DEVICE_MSG_MEASURED:
        if (req == nullptr || req_len != sizeof figures) {
            return FRWK_ERROR_INVALID_PARAM;
        }
        memcpy(&figures, req, sizeof figures);
        say("+MEASURED: %u.%02u", figures.busy / 100, figures.busy % 100);
        return FRWK_ERROR_SUCCESS;
    case DEVICE_MSG_REPORT:
        FRWK_INFO("report: ready for commands");
        return FRWK_ERROR_SUCCESS;
    case DEVICE_MSG_MARK:
        device_mark(from, req, req_len);
        return FRWK_ERROR_SUCCESS;
    default:
        return FRWK_ERROR_UNSUPPORTED;
    }
}

int main(int argc, char **argv)
{
    if (argc > 2) {
        device_fail(2, "usage: atfwd_daemon [TERMINAL]");
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
