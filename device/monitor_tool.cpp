/* SPDX-FileCopyrightText: 2026 the libfrwk authors */
/* SPDX-License-Identifier: MIT */

/*
 * monitor_tool: how the device's modules are, and what the monitor does with them.
 */
#include "device.h"
#include "json.h"
#include "options.h"
#include "watch.h"

#include <ctype.h>
#include <errno.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

/* Milliseconds, but for WAIT_DEFAULT and WAIT_MAX: seconds. */
enum { DEADLINE = 1000, SEND_DEADLINE = 10000, WAIT_PERIOD = 50, WAIT_DEFAULT = 30, WAIT_MAX = 86400 };
enum { RSP_MAX = 1 << 20 };

static bool s_json;
static size_t s_rsp_size;

struct state_t {
    const frwk_module_info_t *row;
    const char *running; /* "yes", "silent" when it has its lock but does not answer, "no" */
    pid_t pid;           /* 0 for none */
    bool answered;
    uint32_t status;
};

static state_t state_of(uint32_t id)
{
    state_t state = {};
    state.row = &g_s_modules_info[id];
    state.pid = device_lock_holder(id);
    state.answered = device_request(id, FRWK_MSG_SYS_STATUS, nullptr, 0, &state.status, sizeof state.status, DEADLINE,
                                    nullptr) == FRWK_ERROR_SUCCESS;
    state.running = state.answered ? "yes" : state.pid > 0 ? "silent" : "no";
    return state;
}

static bool is_monitored(const frwk_module_info_t *row)
{
    return (row->flags & FRWK_MODULE_FLAG_MONITOR_SERVICE) != 0;
}

static void show_row(const state_t *state)
{
    char pid[16] = "-";
    char status[16] = "-";
    if (state->pid > 0) {
        snprintf(pid, sizeof pid, "%d", state->pid);
    }
    if (state->answered) {
        snprintf(status, sizeof status, "0x%08x", state->status);
    }
    printf("%-14s %-8s %7s  %-10s  %-9s  %s\n", state->row->name, state->running, pid, status,
           is_monitored(state->row) ? "yes" : "no", state->row->start_cmd ? state->row->start_cmd : "");
}

static void show_object(const state_t *state)
{
    fputs("{\"module\": ", stdout);
    json_text(state->row->name);
    fputs(", \"running\": ", stdout);
    json_text(state->running);
    fputs(", \"pid\": ", stdout);
    state->pid > 0 ? printf("%d", state->pid) : printf("null");
    fputs(", \"status\": ", stdout);
    state->answered ? printf("%u", state->status) : printf("null");
    printf(", \"monitored\": %s, \"start_arguments\": ", is_monitored(state->row) ? "true" : "false");
    json_text(state->row->start_cmd);
    putchar('}');
}

static int show_status(int, char **)
{
    frwk_init_app_start_cfg(); /* this process's table now says what a monitor that starts now would read */
    if (!s_json) {
        printf("%-14s %-8s %7s  %-10s  %-9s  %s\n", "module", "running", "pid", "status", "monitored",
               "start arguments");
    }
    const char *before = "[";
    for (uint32_t id = 1; id < FRWK_MODULE_MAX; id++) {
        if ((g_s_modules_info[id].flags & FRWK_MODULE_FLAG_IPC) == 0) {
            continue; /* a tool: any number of them may run, and none can be asked */
        }
        state_t state = state_of(id);
        if (s_json) {
            fputs(before, stdout);
            show_object(&state);
            before = ",\n ";
        } else {
            show_row(&state);
        }
    }
    fputs(s_json ? "]\n" : "", stdout);
    return 0;
}

/* The calls below wait for the monitor without a limit, so it is asked for a sign of life before. */
static int ping_monitor()
{
    int rc = device_ping(FRWK_MODULE_MONITOR, DEADLINE);
    if (rc != FRWK_ERROR_SUCCESS && rc != FRWK_ERROR_NO_MODULE) {
        device_fail(DEVICE_EXIT_FAILURE, "the monitor %s", device_error(rc));
    }
    return rc;
}

static int set_service(int, char **argv)
{
    uint32_t id = device_module_arg(argv[0]);
    bool on = strcmp(argv[1], "on") == 0;
    if (!on && strcmp(argv[1], "off") != 0) {
        device_fail(DEVICE_EXIT_USAGE, "'%s' is neither on nor off", argv[1]);
    }
    if ((g_s_modules_info[id].flags & FRWK_MODULE_FLAG_IPC) == 0 || id == FRWK_MODULE_MONITOR) {
        device_fail(DEVICE_EXIT_USAGE, "%s is no module that the monitor runs", argv[0]);
    }
    bool monitor_runs = ping_monitor() == FRWK_ERROR_SUCCESS;
    if (frwk_set_app_monitor_conf(id, on) == FRWK_ERROR_SUCCESS) {
        return 0;
    }
    if (frwk_get_app_monitor_conf(id) != on) {
        device_fail(DEVICE_EXIT_FAILURE, "the start configuration cannot be changed");
    }
    device_fail(DEVICE_EXIT_FAILURE, "stored, but the monitor %s", monitor_runs ? "refused it" : "is not running");
}

static int set_start_cmd(int, char **argv)
{
    int rc = frwk_set_app_start_cmd(device_module_arg(argv[0]), argv[1]);
    if (rc != FRWK_ERROR_SUCCESS) {
        device_fail(DEVICE_EXIT_FAILURE, "the start configuration cannot be changed, result %d", rc);
    }
    return 0;
}

/* Appends the bytes that a text of hexadecimal digits stands for; blanks may part them. */
static void parse_hex(const char *text, frwk_buffer_t *body)
{
    frwk_buffer_grow(body, static_cast<int>(strlen(text)));
    for (const char *at = frwk_skip_space(text); *at != '\0'; at = frwk_skip_space(at + 2)) {
        char digits[3] = {at[0], at[1], '\0'};
        if (!isxdigit(static_cast<unsigned char>(at[0])) || !isxdigit(static_cast<unsigned char>(at[1]))) {
            device_fail(DEVICE_EXIT_USAGE, "'%s' is no body: pairs of hexadecimal digits", text);
        }
        body->bp[body->len++] = static_cast<uint8_t>(strtoul(digits, nullptr, 16));
    }
}

static void show_bytes(const uint8_t *bytes, size_t size)
{
    for (size_t row = 0; row < size; row += 16) {
        size_t count = size - row < 16 ? size - row : 16;
        printf("%06zx ", row);
        for (size_t i = 0; i < 16; i++) {
            i < count ? printf(" %02x", bytes[row + i]) : printf("   ");
        }
        printf("  |");
        for (size_t i = 0; i < count; i++) {
            putchar(isprint(bytes[row + i]) ? bytes[row + i] : '.');
        }
        printf("|\n");
    }
}

static int send_message(int argc, char **argv)
{
    uint32_t id = device_module_arg(argv[0]);
    uint32_t msg = static_cast<uint32_t>(device_number_arg("message id", argv[1], 0, INT32_MAX));
    frwk_buffer_t body;
    frwk_buffer_init(&body);
    body.len = 0;
    for (int i = 2; i < argc; i++) {
        parse_hex(argv[i], &body);
    }
    uint8_t *rsp = static_cast<uint8_t *>(calloc(1, s_rsp_size + 1));
    frwk_uptime_t start;
    frwk_uptime_t end;
    int32_t result = 0;
    frwk_get_uptime(&start);
    int rc = rsp == nullptr ? FRWK_ERROR_NO_MEMORY
                            : device_request(id, msg, body.bp, body.len, rsp, static_cast<int32_t>(s_rsp_size),
                                             SEND_DEADLINE, &result);
    frwk_get_uptime(&end);
    frwk_buffer_free(&body);
    if (rc != FRWK_ERROR_SUCCESS && rc != FRWK_ERROR_FAILED) {
        free(rsp);
        device_fail(DEVICE_EXIT_FAILURE, "%s %s", argv[0], device_error(rc));
    }
    double ms = (end.sec - start.sec) * 1000.0 + (end.usec - start.usec) / 1000.0;
    if (s_json) {
        printf("{\"result\": %d, \"ms\": %.3f, \"response\": \"", result, ms);
        for (size_t i = 0; i < s_rsp_size; i++) {
            printf("%02x", rsp[i]);
        }
        printf("\"}\n");
    } else {
        printf("result %d, %zu bytes, %.3f ms\n", result, s_rsp_size, ms);
        show_bytes(rsp, s_rsp_size);
    }
    free(rsp);
    return result == 0 ? 0 : 1;
}

static int wait_for(int argc, char **argv)
{
    uint32_t id = device_module_arg(argv[0]);
    long limit = argc > 1 ? device_number_arg("number of seconds", argv[1], 0, WAIT_MAX) : long{WAIT_DEFAULT};
    frwk_uptime_t end;
    frwk_simple_timer_start(&end, static_cast<int>(limit) * 1000);
    int rc;
    while ((rc = device_ping(id, DEADLINE)) != FRWK_ERROR_SUCCESS) {
        if (frwk_simple_timer_timeout(&end)) {
            device_fail(DEVICE_EXIT_FAILURE, "%s %s after %ld seconds", argv[0], device_error(rc), limit);
        }
        frwk_sleep(WAIT_PERIOD);
    }
    return 0;
}

static int tell_monitor(int (*request)(uint32_t))
{
    if (ping_monitor() != FRWK_ERROR_SUCCESS || !request(0)) {
        device_fail(DEVICE_EXIT_FAILURE, "the monitor is not running");
    }
    return 0;
}

static int reboot_device(int, char **)
{
    return tell_monitor(frwk_system_reboot);
}

static int reset_services(int, char **)
{
    return tell_monitor(frwk_system_reset);
}

static void take_json(const char *)
{
    s_json = true;
}

static void take_rsp(const char *text)
{
    s_rsp_size = static_cast<size_t>(device_number_arg("response size", text, 0, RSP_MAX));
}

static const device_option_t STATUS_OPTIONS[] = {
    {"json", 'j', nullptr, "prints an array of objects instead of a table", take_json},
    {},
};

static const device_option_t SEND_OPTIONS[] = {
    {"rsp", 0, "BYTES", "asks for so many bytes of answer, by default none", take_rsp},
    {"json", 'j', nullptr, "prints an object; the answer is in it as hexadecimal digits", take_json},
    {},
};

static const device_command_t COMMANDS[] = {
    {"status", "",
     "shows every module: whether it runs (silent: it does, but does not answer), its process, its status word, "
     "whether "
     "the monitor keeps it running, and with which arguments",
     0, 0, show_status, STATUS_OPTIONS, false},
    {"service", "MODULE on|off", "sets whether the monitor keeps a module running, at once and for good", 2, 2,
     set_service, nullptr, false},
    {"start-cmd", "MODULE TEXT", "sets a module's start arguments, from the monitor's next start on", 2, 2,
     set_start_cmd, nullptr, true},
    {"send", "MODULE MSG [HEX]...", "sends a message with a body; shows the result, the answer, and how long it took",
     2, 5, send_message, SEND_OPTIONS, false},
    {"wait", "MODULE [SECONDS]", "waits until a module answers, by default 30 seconds", 1, 2, wait_for, nullptr, false},
    {"watch", "[MODULE]...",
     "shows each request as it passes: who to whom, which message, how large, with which result, how long it took; "
     "ends with a summary when interrupted. Without a module, all are watched",
     0, FRWK_MODULE_MAX, watch_run, WATCH_OPTIONS, false},
    {"capture", "FILE [MODULE]...",
     "writes each request and each response to a pcapng file for Wireshark until interrupted; - is standard output", 1,
     FRWK_MODULE_MAX, capture_run, CAPTURE_OPTIONS, false},
    {"reboot", "", "has the monitor stop all modules and start all over, itself included", 0, 0, reboot_device, nullptr,
     false},
    {"reset", "", "has the monitor start each module anew, one after the other", 0, 0, reset_services, nullptr, false},
    {},
};

static const device_note_t ARGUMENTS[] = {
    {"MODULE", nullptr},
    {"TEXT", "words parted by blanks; empty for none"},
    {"MSG", "a message's number, decimal or 0x and hexadecimal"},
    {"HEX", "bytes as pairs of hexadecimal digits, with or without blanks between them"},
    {},
};

static const device_note_t FILES[] = {
    {"/usrdata/odm/start_conf.xml", "what the monitor starts, and with which arguments; read when it starts"},
    {"/tmp/odm/ipc", "the modules' sockets"},
    {"/tmp/odm/ipc/.watch.MODULE", "has a module's own socket while it is being watched"},
    {"/tmp/odm/lock", "their lock files, each with a process id"},
    {},
};

static const device_note_t EXAMPLES[] = {
    {"monitor_tool send dial_test 7 68 69 --rsp 2", "sends message 7 with two bytes, and shows two bytes of answer"},
    {"monitor_tool start-cmd serial_bridge '-l /dev/ttyS1 -r /dev/ttyGS0'", "a text that begins with a dash is no "
                                                                            "option here"},
    {"monitor_tool watch --json qmuxd | jq 'select(.milliseconds > 100)'", "shows what takes qmuxd longer than 100 ms"},
    {"ssh device monitor_tool capture - | wireshark -k -i -", "looks into a device from a desk"},
    {"monitor_tool status --json | jq '.[] | select(.running == \"silent\").pid'", "names the processes that hang"},
    {},
};

static const device_program_t MONITOR_TOOL = {
    "shows how the modules are, and tells the monitor what to do with them",
    "The monitor keeps modules running. Most commands reach the modules themselves, and work without it.\n"
    "watch and capture stand in between: a socket of their own takes the place of the module's, and a process "
    "frwk-relay "
    "passes everything on. However they end, by Ctrl-C or by SIGKILL, the modules get their sockets back, and no "
    "request "
    "is lost or handled twice. Only when frwk-relay itself is killed do requests that it has in hand end without an "
    "answer. When both are killed at once, watch puts it right when it is started again.",
    FRWK_MODULE_MONITOR_TOOL,
    COMMANDS,
    nullptr,
    nullptr,
    ARGUMENTS,
    FILES,
    EXAMPLES,
    "a module does not run or does not answer, a module cannot be watched, the result of 'send' is not 0, or a setting "
    "or a capture cannot be written",
};

int main(int argc, char **argv)
{
    return device_run(&MONITOR_TOOL, argc, argv);
}
