/*
 * monitor_tool: how the device's modules are, and what the monitor does with them.
 */
#include "device.h"

#include <ctype.h>
#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

/* Milliseconds, but for WAIT_DEFAULT and WAIT_MAX: seconds. */
enum { DEADLINE = 1000, SEND_DEADLINE = 10000, WAIT_PERIOD = 50, WAIT_DEFAULT = 30, WAIT_MAX = 86400 };
enum { RSP_MAX = 1 << 20 };

static const char USAGE[] =
    "usage: monitor_tool status                     shows every module\n"
    "       monitor_tool service MODULE on|off      sets whether the monitor keeps a module running, at once\n"
    "       monitor_tool start-cmd MODULE TEXT      sets its start arguments, from the monitor's next start on\n"
    "       monitor_tool send MODULE MSG [HEX] [--rsp N]\n"
    "                                               sends a message with a body, asks for N bytes of answer\n"
    "       monitor_tool wait MODULE [SECONDS]      waits until a module answers, 30 seconds if not told\n"
    "       monitor_tool reboot | reset             has the monitor start all over | each module anew\n";

/* The process that holds a module's lock; 0 when it does not run. */
static pid_t lock_holder(uint32_t id)
{
    char path[64];
    snprintf(path, sizeof path, "/tmp/odm/lock/%s", frwk_module_name(id));
    int fd = open(path, O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        return 0;
    }
    struct flock lock = {};
    lock.l_type = F_WRLCK;
    lock.l_whence = SEEK_SET;
    bool held = fcntl(fd, F_GETLK, &lock) == 0 && lock.l_type != F_UNLCK;
    close(fd);
    return held ? lock.l_pid : 0;
}

static int show_status(int, char **)
{
    frwk_init_app_start_cfg(); /* this process's table now says what a monitor that starts now would read */
    printf("%-14s %-8s %7s  %-10s  %-9s  %s\n", "module", "running", "pid", "status", "monitored", "start arguments");
    for (uint32_t id = 1; id < FRWK_MODULE_MAX; id++) {
        const frwk_module_info_t *row = &g_s_modules_info[id];
        if ((row->flags & FRWK_MODULE_FLAG_IPC) == 0) {
            continue; /* a tool: any number of them may run, and none can be asked */
        }
        char pid[16] = "-";
        char status[16] = "-";
        uint32_t word = 0;
        pid_t holder = lock_holder(id);
        int rc = device_request(id, FRWK_MSG_SYS_STATUS, nullptr, 0, &word, sizeof word, DEADLINE, nullptr);
        if (holder > 0) {
            snprintf(pid, sizeof pid, "%d", holder);
        }
        if (rc == FRWK_ERROR_SUCCESS) {
            snprintf(status, sizeof status, "0x%08x", word);
        }
        printf("%-14s %-8s %7s  %-10s  %-9s  %s\n", row->name,
               rc == FRWK_ERROR_SUCCESS ? "yes"
               : holder > 0             ? "silent"
                                        : "no",
               pid, status, (row->flags & FRWK_MODULE_FLAG_MONITOR_SERVICE) ? "yes" : "no",
               row->start_cmd ? row->start_cmd : "");
    }
    return 0;
}

/* The calls below wait for the monitor without a limit, so it is asked for a sign of life before. */
static int ping_monitor()
{
    int rc = device_ping(FRWK_MODULE_MONITOR, DEADLINE);
    if (rc != FRWK_ERROR_SUCCESS && rc != FRWK_ERROR_NO_MODULE) {
        device_fail(1, "the monitor %s", device_error(rc));
    }
    return rc;
}

static int set_service(int, char **argv)
{
    uint32_t id = device_module_arg(argv[0]);
    bool on = strcmp(argv[1], "on") == 0;
    if (!on && strcmp(argv[1], "off") != 0) {
        device_fail(2, "'%s' is neither on nor off", argv[1]);
    }
    if ((g_s_modules_info[id].flags & FRWK_MODULE_FLAG_IPC) == 0 || id == FRWK_MODULE_MONITOR) {
        device_fail(2, "%s is no module that the monitor runs", argv[0]);
    }
    bool monitor_runs = ping_monitor() == FRWK_ERROR_SUCCESS;
    if (frwk_set_app_monitor_conf(id, on) == FRWK_ERROR_SUCCESS) {
        return 0;
    }
    if (frwk_get_app_monitor_conf(id) != on) {
        device_fail(1, "the start configuration cannot be changed");
    }
    device_fail(1, "stored, but the monitor %s", monitor_runs ? "refused it" : "is not running");
}

static int set_start_cmd(int, char **argv)
{
    int rc = frwk_set_app_start_cmd(device_module_arg(argv[0]), argv[1]);
    if (rc != FRWK_ERROR_SUCCESS) {
        device_fail(1, "the start configuration cannot be changed, result %d", rc);
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
            device_fail(2, "'%s' is no body: pairs of hexadecimal digits", text);
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
    size_t rsp_size = 0;
    frwk_buffer_t body;
    frwk_buffer_init(&body);
    body.len = 0;
    for (int i = 2; i < argc; i++) {
        if (strcmp(argv[i], "--rsp") != 0) {
            parse_hex(argv[i], &body);
        } else if (i + 1 < argc) {
            rsp_size = static_cast<size_t>(device_number_arg("response size", argv[++i], 0, RSP_MAX));
        } else {
            device_fail(2, "'--rsp' lacks its number");
        }
    }
    uint8_t *rsp = static_cast<uint8_t *>(calloc(1, rsp_size + 1));
    frwk_uptime_t start;
    frwk_uptime_t end;
    int32_t result = 0;
    frwk_get_uptime(&start);
    int rc = rsp == nullptr ? FRWK_ERROR_NO_MEMORY
                            : device_request(id, msg, body.bp, body.len, rsp, static_cast<int32_t>(rsp_size),
                                             SEND_DEADLINE, &result);
    frwk_get_uptime(&end);
    frwk_buffer_free(&body);
    if (rc != FRWK_ERROR_SUCCESS && rc != FRWK_ERROR_FAILED) {
        free(rsp);
        device_fail(1, "%s %s", argv[0], device_error(rc));
    }
    printf("result %d, %zu bytes, %.3f ms\n", result, rsp_size,
           (end.sec - start.sec) * 1000.0 + (end.usec - start.usec) / 1000.0);
    show_bytes(rsp, rsp_size);
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
            device_fail(1, "%s %s after %ld seconds", argv[0], device_error(rc), limit);
        }
        frwk_sleep(WAIT_PERIOD);
    }
    return 0;
}

static int tell_monitor(int (*request)(uint32_t))
{
    if (ping_monitor() != FRWK_ERROR_SUCCESS || !request(0)) {
        device_fail(1, "the monitor is not running");
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

static const device_command_t COMMANDS[] = {
    {"status", 0, 0, show_status},   {"service", 2, 2, set_service}, {"start-cmd", 2, 2, set_start_cmd},
    {"send", 2, 5, send_message},    {"wait", 1, 2, wait_for},       {"reboot", 0, 0, reboot_device},
    {"reset", 0, 0, reset_services},
};

int main(int argc, char **argv)
{
    if (frwk_module_init(FRWK_MODULE_MONITOR_TOOL, nullptr) != FRWK_ERROR_SUCCESS) {
        return 1;
    }
    return device_run(COMMANDS, sizeof COMMANDS / sizeof *COMMANDS, USAGE, argc, argv);
}
