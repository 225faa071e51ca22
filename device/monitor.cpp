/* SPDX-FileCopyrightText: 2026 the libfrwk authors */
/* SPDX-License-Identifier: MIT */

/*
 * monitor: runs the other modules of the device. It starts every supervised module whose program lies beside its own,
 * asks each for a sign of life, and starts anew what has died or fallen silent.
 *
 * What it takes:
 *   501 reboot        stops all modules, then starts all over, itself and its settings included
 *   502 reset         starts one module after the other anew; the settings stay those of the monitor's start
 *   503 monitor conf  starts or stops a module as its supervision flag says
 *   SIGTERM, SIGHUP, SIGINT  stops all modules and ends
 *
 * Status word: how many modules it has running.
 */
#include "device.h"
#include "options.h"
#include "process.h"

#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <poll.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

/* Milliseconds. */
enum {
    TICK = 200,
    PING_PERIOD = 1000,
    PING_DEADLINE = 1000,
    STOP_GRACE = 3000,    /* a module that has not ended by then is killed */
    RESTART_GRACE = 3000, /* how long a reset waits for a module before it goes on with the next */
    BACKOFF_MIN = 500,
    BACKOFF_MAX = 30000
};

/* Pings. */
enum {
    MISSES_MAX = 3,     /* unanswered in a row: the module hangs */
    MISSES_START = 10,  /* that many more before its first answer, while it starts */
    ANSWERS_STEADY = 10 /* answered in a row: its next death is the first again */
};

struct child_t {
    uint32_t id;
    pid_t pid;         /* 0 while it does not run */
    int backoff;       /* pause before the next start if it dies now; doubles with each death soon after a start */
    int misses;        /* pings in a row without an answer */
    int answers;       /* pings in a row with one */
    frwk_uptime_t due; /* its next ping; while it does not run, its next start */
};

/* What a request leaves to the main thread. */
struct order_t {
    uint32_t msg;
    uint32_t id;
    int32_t value;
};

static int s_children; /* hash table: names of the modules that are kept running, each with its child_t */
/* Requests arrive on threads that end soon, but only the main thread starts programs: the pipe brings the orders there.
 */
static int s_orders[2];
static char s_program[PATH_MAX];
static volatile sig_atomic_t s_end;

static child_t *child_of(uint32_t id)
{
    frwk_hash_entry_t *entry = frwk_hash_lookup(s_children, frwk_module_name(id));
    return entry != nullptr ? reinterpret_cast<child_t *>(entry->value.data) : nullptr;
}

static void program_path(uint32_t id, char *path, size_t size)
{
    int dir_len = static_cast<int>(frwk_get_filename(s_program) - s_program);
    snprintf(path, size, "%.*s%s", dir_len, s_program, frwk_module_name(id));
}

static void start(child_t *child)
{
    char path[PATH_MAX];
    program_path(child->id, path, sizeof path);
    pid_t pid = process_start(path, g_s_modules_info[child->id].start_cmd);
    if (pid < 0) {
        FRWK_ERR("cannot start %s: %s", path, strerror(errno));
        frwk_simple_timer_start(&child->due, child->backoff);
        return;
    }
    FRWK_INFO("started %s, pid %d", path, pid);
    child->pid = pid;
    child->misses = -MISSES_START;
    child->answers = 0;
    frwk_simple_timer_start(&child->due, PING_PERIOD);
}

static void stop(child_t *child)
{
    if (child->pid != 0) {
        process_stop(child->pid, STOP_GRACE);
        FRWK_INFO("stopped %s", frwk_module_name(child->id));
        child->pid = 0;
    }
}

/* Starts a module and keeps it running from now on. */
static void adopt(uint32_t id)
{
    char path[PATH_MAX];
    program_path(id, path, sizeof path);
    bool daemon = id != FRWK_MODULE_MONITOR && (g_s_modules_info[id].flags & FRWK_MODULE_FLAG_IPC) != 0;
    if (!daemon || child_of(id) != nullptr || access(path, X_OK) != 0) {
        return;
    }
    child_t *child = static_cast<child_t *>(calloc(1, sizeof *child));
    frwk_hash_value_t value = frwk_hash_value_symbol(child);
    value.need_free = 1; /* the table owns it */
    if (child == nullptr || frwk_hash_enter(s_children, frwk_module_name(id), value) == nullptr) {
        FRWK_ERR("no memory to run %s", path);
        free(child);
        return;
    }
    child->id = id;
    child->backoff = BACKOFF_MIN;
    start(child);
}

static void dismiss(uint32_t id)
{
    child_t *child = child_of(id);
    if (child != nullptr) {
        stop(child);
        frwk_hash_delete(s_children, frwk_module_name(id));
    }
}

static void start_all()
{
    for (uint32_t id = 1; id < FRWK_MODULE_MAX; id++) {
        if (g_s_modules_info[id].flags & FRWK_MODULE_FLAG_MONITOR_SERVICE) {
            adopt(id);
        }
    }
}

static void stop_all()
{
    for (uint32_t id = FRWK_MODULE_MAX - 1; id > 0; id--) {
        dismiss(id);
    }
}

/* Waits for a module that was just started to serve, so that never more than one is away. */
static void restart(child_t *child)
{
    stop(child);
    child->backoff = BACKOFF_MIN;
    start(child);
    frwk_uptime_t end;
    frwk_simple_timer_start(&end, RESTART_GRACE);
    do {
        frwk_sleep(100);
    } while (device_ping(child->id, PING_DEADLINE) != FRWK_ERROR_SUCCESS && !frwk_simple_timer_timeout(&end));
}

/* The death of a child, or its silence. */
static void supervise(child_t *child)
{
    int status;
    if (child->pid == 0) {
        if (frwk_simple_timer_timeout(&child->due)) {
            start(child);
        }
    } else if (process_ended(child->pid, &status)) {
        FRWK_ERR("%s died, status 0x%x; next start in %d ms", frwk_module_name(child->id), status, child->backoff);
        child->pid = 0;
        frwk_simple_timer_start(&child->due, child->backoff);
        child->backoff = child->backoff > BACKOFF_MAX / 2 ? BACKOFF_MAX : child->backoff * 2;
    } else if (frwk_simple_timer_timeout(&child->due)) {
        bool answers = device_ping(child->id, PING_DEADLINE) == FRWK_ERROR_SUCCESS;
        child->misses = answers ? 0 : child->misses + 1;
        child->answers = answers ? child->answers + 1 : 0;
        if (child->answers == ANSWERS_STEADY) {
            child->backoff = BACKOFF_MIN;
        }
        if (child->misses == MISSES_MAX) {
            FRWK_ERR("%s does not answer", frwk_module_name(child->id));
            kill(child->pid, SIGKILL); /* the next look finds it dead */
        }
        frwk_simple_timer_start(&child->due, PING_PERIOD);
    }
}

static void supervise_all()
{
    uint32_t running = 0;
    for (frwk_hash_entry_t *entry = frwk_hash_first(s_children); entry != nullptr;
         entry = frwk_hash_next(s_children, entry)) {
        child_t *child = reinterpret_cast<child_t *>(entry->value.data);
        supervise(child);
        running += child->pid != 0;
    }
    frwk_set_module_status(running);
}

static void obey(const order_t *order)
{
    int32_t *flags = &g_s_modules_info[order->id].flags;
    if (order->msg == FRWK_MSG_SYS_REBOOT) {
        char *argv[] = {s_program, nullptr};
        stop_all();
        execv(s_program, argv); /* frees the lock and reads everything anew, as after a power cycle */
        FRWK_ERR("exec of %s failed: %s", s_program, strerror(errno));
        start_all();
    } else if (order->msg == FRWK_MSG_SYS_RESET) {
        for (uint32_t id = 1; id < FRWK_MODULE_MAX; id++) {
            if (child_of(id) != nullptr) {
                restart(child_of(id));
            }
        }
    } else if (order->value == 1) {
        *flags |= FRWK_MODULE_FLAG_MONITOR_SERVICE;
        adopt(order->id);
    } else {
        *flags &= ~FRWK_MODULE_FLAG_MONITOR_SERVICE;
        dismiss(order->id);
    }
}

static int32_t handle(uint32_t, uint32_t msg, const uint8_t *req, int32_t req_len, uint8_t *, int32_t, uint32_t)
{
    order_t order = {msg, 0, 0};
    switch (msg) {
    case FRWK_MSG_SYS_REBOOT:
    case FRWK_MSG_SYS_RESET:
        break;
    case FRWK_MSG_SYS_MONITOR_CONF:
        if (req == nullptr || req_len != 8) {
            return FRWK_ERROR_INVALID_PARAM;
        }
        memcpy(&order.id, req, 4);
        memcpy(&order.value, req + 4, 4);
        if (order.id < 1 || order.id >= FRWK_MODULE_MAX) {
            return FRWK_ERROR_INVALID_PARAM;
        }
        break;
    default:
        return FRWK_ERROR_UNSUPPORTED;
    }
    return write(s_orders[1], &order, sizeof order) == sizeof order ? FRWK_ERROR_SUCCESS : FRWK_ERROR_FAILED;
}

static void note_signal(int)
{
    s_end = 1;
}

static int run(int, char **)
{
    struct sigaction action = {};
    action.sa_handler = note_signal;
    sigaction(SIGTERM, &action, nullptr);
    sigaction(SIGHUP, &action, nullptr);
    sigaction(SIGINT, &action, nullptr);
    s_children = frwk_hash_create(FRWK_MODULE_MAX);
    ssize_t len = readlink("/proc/self/exe", s_program, sizeof s_program - 1);
    if (len < 0 || s_children < 0 || pipe2(s_orders, O_CLOEXEC | O_NONBLOCK) != 0) {
        device_fail(DEVICE_EXIT_FAILURE, "cannot start: %s", strerror(errno));
    }
    if (frwk_module_init(FRWK_MODULE_MONITOR, nullptr) != FRWK_ERROR_SUCCESS) {
        return DEVICE_EXIT_FAILURE; /* it has said why on standard error */
    }
    frwk_ipc_init(handle);
    start_all();
    while (!s_end) {
        pollfd orders = {s_orders[0], POLLIN, 0};
        order_t order;
        if (poll(&orders, 1, TICK) > 0 && read(s_orders[0], &order, sizeof order) == sizeof order) {
            obey(&order);
        }
        supervise_all();
    }
    stop_all();
    frwk_hash_free(s_children);
    return 0;
}

static const device_note_t FILES[] = {
    {"/usrdata/odm/start_conf.xml", "which modules it starts, and with which arguments"},
    {"/usrdata/odm/log_conf.xml", "what it traces, like every module"},
    {},
};

static const device_program_t MONITOR = {
    "runs the modules of the device, and starts anew what has died or hangs",
    "It starts every supervised module whose program lies in the directory of its own, asks each for a sign of life "
    "once a second, and starts anew what has died or fallen silent; the pause before that doubles, up to 30 seconds, "
    "while a module keeps dying.\n"
    "It stays in the foreground. SIGTERM, SIGINT and SIGHUP stop all modules and end it. monitor_tool tells it what to "
    "do, logtool what to trace.",
    0,
    nullptr,
    run,
    nullptr,
    nullptr,
    FILES,
    nullptr,
    "it cannot start, or another copy runs",
};

int main(int argc, char **argv)
{
    return device_run(&MONITOR, argc, argv);
}
