/*
 * What the programs of the device share: a request with a deadline, and the reading of the tools' command lines.
 */
#ifndef DEVICE_H
#define DEVICE_H

#include <frwk.h>

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

/* The way out of a failure: one line on standard error, exit with `status`, 1 for a failure and 2 for misuse. */
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
