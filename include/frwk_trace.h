/**
 * @file frwk_trace.h
 * Trace lines, assertions, and the trace settings kept in `/usrdata/odm/log_conf.xml`.
 *
 * A line is printed when the process's threshold is at least the line's level. It goes to the system log, or
 * with the module's name, the time, and a newline to standard output:
 * @verbatim
level|file|function|line::message
[module]YYYY-MM-DD HH:MM:SS|level|file|function|line::message
   @endverbatim
 * Lines are cut at 1,023 characters.
 */
#ifndef FRWK_TRACE_H
#define FRWK_TRACE_H

#include <stdint.h>

#include "frwk_defs.h"
#include "frwk_module.h"

FRWK_BEGIN_DECLS

/** Trace levels. Ordered thresholds, not a mask. */
enum { FRWK_TRACE_NULL = 0, FRWK_TRACE_ERROR = 1, FRWK_TRACE_WARNING = 2, FRWK_TRACE_INFO = 4, FRWK_TRACE_DEBUG = 8 };

/**
 * Prints one trace line, or nothing when `level` lies above the process's threshold. Never allocates.
 *
 * Blocks as long as the sink does: a log daemon that stops reading `/dev/log` stops every thread that traces. Not a
 * cancellation point.
 *
 * @param file   source file of the caller; its base name is printed
 * @param func   name of the calling function
 * @param line   source line of the caller
 * @param level  FRWK_TRACE_ level; any other value is labelled "null"
 * @param fmt    printf format and its arguments
 */
FRWK_API FRWK_NO_PLT void frwk_trace_print(const char *file, const char *func, int line, int level, const char *fmt,
                                           ...) FRWK_PRINTF_FORMAT(5, 6);

/** Traces a line of the given level from here. The arguments are not evaluated when the line is suppressed. */
#define FRWK_TRACE(level, ...)                                                                                         \
    do {                                                                                                               \
        if (frwk_get_module_level() >= (level)) {                                                                      \
            frwk_trace_print(__FILE__, __func__, __LINE__, (level), __VA_ARGS__);                                      \
        }                                                                                                              \
    } while (0)

#define FRWK_ERR(...) FRWK_TRACE(FRWK_TRACE_ERROR, __VA_ARGS__)    /**< Traces a failure. */
#define FRWK_WARN(...) FRWK_TRACE(FRWK_TRACE_WARNING, __VA_ARGS__) /**< Traces a time-out or a missing entry. */
#define FRWK_INFO(...) FRWK_TRACE(FRWK_TRACE_INFO, __VA_ARGS__)    /**< Traces an event. */
#define FRWK_DBG(...) FRWK_TRACE(FRWK_TRACE_DEBUG, __VA_ARGS__)    /**< Traces a success or a detail. */

/**
 * @param name  level name in any letter case, "" for level 0
 * @return the level, or -1 after a line on standard output when the name is null or unknown
 */
FRWK_API int frwk_level_match(const char *name);

/**
 * Sets the process's trace threshold by name.
 * @param name  as for frwk_level_match()
 * @return FRWK_ERROR_SUCCESS; FRWK_ERROR_INVALID_PARAM for null and FRWK_ERROR_UNSUPPORTED for an unknown name, the
 *         threshold unchanged and a line on standard output
 */
FRWK_API int frwk_trace_set(const char *name);

/**
 * @param path  file path; slash and backslash separate
 * @return the base name, a pointer into `path`; an empty string for null, an empty path or one that ends in a separator
 */
FRWK_API const char *frwk_get_filename(const char *path);

/**
 * Returns when `cond` is not 0; otherwise writes "[module]ASSERT(file|function|line), expression" to the system log
 * (modules with FRWK_MODULE_FLAG_SYSLOG) and to standard error, whatever the trace settings, and aborts the process.
 *
 * @param cond  truth value of the asserted expression
 * @param expr  its source text
 * @param file,func,line  where it stands
 */
FRWK_API void frwk_assert_debug(int cond, const char *expr, const char *file, const char *func, unsigned int line);

/** Ends the process with an assertion line when `expr` is false. Always compiled in. */
#define FRWK_ASSERT(expr) frwk_assert_debug((expr) ? 1 : 0, #expr, __FILE__, __func__, __LINE__)

/**
 * Writes the default `/usrdata/odm/log_conf.xml` over whatever is there: every module silent.
 *
 * @return FRWK_ERROR_SUCCESS; -1 when the document cannot be built; FRWK_ERROR_CONFIG_FILE without a root element;
 *         FRWK_ERROR_NOT_FOUND when the file cannot be saved (the old one is then in place)
 *
 * Blocks for the disk, and up to 3 seconds for another process that is changing the settings.
 */
FRWK_API int frwk_init_log_cfg_info(void);

/**
 * Stores the trace settings that a module takes at its next start; creates the file when it is missing. A running
 * module takes new settings only from the message FRWK_MSG_SYS_LOG.
 *
 * @param module_id  1 to 9, a module with FRWK_MODULE_FLAG_SYSLOG
 * @param mode       debug mode, see frwk_debug_enable(); at most 4 characters in decimal to be read back
 * @param level      level name, stored unchanged; null stores the empty text, which is level 0
 * @return FRWK_ERROR_SUCCESS; FRWK_ERROR_INVALID_PARAM for an id outside 1 to 9; FRWK_ERROR_CONFIG_FILE for a module
 *         without trace settings or a file that cannot be parsed; -1 when the file cannot be changed or saved (the old
 *         settings are then in place)
 *
 * Blocks for the disk, and up to 3 seconds for another process that is changing the settings.
 */
FRWK_API int frwk_set_trace_info(uint32_t module_id, int mode, const char *level);

/**
 * As frwk_set_trace_info() for every module with FRWK_MODULE_FLAG_SYSLOG, all in one save.
 *
 * @return as frwk_set_trace_info(), but FRWK_ERROR_NOT_FOUND when the file cannot be saved
 */
FRWK_API int frwk_all_set_trace_info(int mode, const char *level);

FRWK_END_DECLS

#endif
