/*
 * What the programs of the example device share: the messages they exchange, a request with a deadline, and the checks
 * of the tools' arguments.
 */
#ifndef DEVICE_H
#define DEVICE_H

#include <frwk.h>

/* Messages to qmuxd. */
enum {
    QMUX_MSG_FIGURES = FRWK_MSG_USER, /* answered with figures_t */
    QMUX_MSG_PERIOD,                  /* body: one word, milliseconds between two samples */
    QMUX_MSG_MEASURE                  /* asynchronous; the sender gets DEVICE_MSG_MEASURED after the next sample */
};

/* Message to serial_bridge. */
enum { BRIDGE_MSG_COUNTS = FRWK_MSG_USER }; /* answered with bridge_counts_t */

/* Messages that any module of the device may get. */
enum {
    DEVICE_MSG_REPORT = 100, /* say in the log how you are */
    DEVICE_MSG_MARK,         /* body: a text to put into the log */
    DEVICE_MSG_MEASURED      /* body: figures_t */
};

/* The machine's figures, as qmuxd has last sampled them. */
struct figures_t {
    uint32_t uptime;        /* seconds */
    uint32_t load;          /* hundredths of a process that wants to run, over the last minute */
    uint32_t busy;          /* hundredths of a percent of the processor time since the sample before */
    uint32_t mem_total;     /* KiB */
    uint32_t mem_available; /* KiB */
    uint32_t samples;       /* samples taken so far */
};

/* Bytes that serial_bridge has passed on. */
struct bridge_counts_t {
    uint64_t to_right;
    uint64_t to_left;
};

/* Result of device_request() beside the library's: no answer came in time. */
enum { DEVICE_ERROR_TIMEOUT = 100 };

/*
 * frwk_ipc_send_sync() with a deadline of `ms` milliseconds, for peers that may hang. `rsp` is filled and `result` set
 * only with FRWK_ERROR_SUCCESS or FRWK_ERROR_FAILED.
 */
int device_request(uint32_t to, uint32_t msg, const void *req, int32_t req_len, void *rsp, int32_t rsp_size, int ms,
                   int32_t *result);

/* Whether a module answers: FRWK_ERROR_SUCCESS, FRWK_ERROR_NO_MODULE when it does not run, or another failure. */
int device_ping(uint32_t id, int ms);

/* What a result of device_request() says about the module that was asked, such as "is not running". */
const char *device_error(int rc);

/* Puts the body of DEVICE_MSG_MARK into the log. */
void device_mark(uint32_t from, const uint8_t *text, int32_t len);

/* Lets bytes pass through a terminal unchanged; other files are left alone. */
void device_raw(int fd);

/* @return the level of that name; -1 for an unknown one. Unlike frwk_level_match(), it prints nothing. */
int device_level(const char *name);

/* The tools' way out of a failure: one line on standard error, exit with `status`, 1 for a failure and 2 for misuse. */
[[noreturn]] void device_fail(int status, const char *fmt, ...) FRWK_PRINTF_FORMAT(2, 3);

/* A command of a tool, with the number of arguments that it takes and the function that gets them. */
struct device_command_t {
    const char *name;
    int min_args;
    int max_args;
    int (*run)(int argc, char **argv);
};

/* Runs the command that the tool's own arguments name. @return its result; `usage` is printed for --help */
int device_run(const device_command_t *commands, size_t count, const char *usage, int argc, char **argv);

/* The tools' arguments; what is no module or no number from `min` to `max` is misuse. */
uint32_t device_module_arg(const char *text);
long device_number_arg(const char *what, const char *text, long min, long max);

#endif
