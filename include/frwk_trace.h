/* SPDX-FileCopyrightText: 2026 the libfrwk authors */
/* SPDX-License-Identifier: MIT */

/**
 * @file frwk_trace.h
 * Trace lines, assertions, and the trace settings kept in `/usrdata/odm/log_conf.xml`.
 *
 * A line is printed when the process's threshold is at least the line's level. The process's debug mode says where: to
 * the system log, or with the module's name, the time, and a newline to standard output, which is not flushed:
 * @verbatim
level|file|function|line::message
[module]YYYY-MM-DD HH:MM:SS|level|file|function|line::message
   @endverbatim
 * Lines are cut at 1,023 characters.
 */
#ifndef FRWK_TRACE_H
#define FRWK_TRACE_H

#include "frwk_defs.h"
#include "frwk_module.h"

#include <stdint.h>

FRWK_BEGIN_DECLS

/** Trace levels. Ordered thresholds, not a mask. */
enum {
    FRWK_TRACE_NULL = 0,    /**< "null": as a threshold, nothing is printed. */
    FRWK_TRACE_ERROR = 1,   /**< "error": failures. */
    FRWK_TRACE_WARNING = 2, /**< "warning": time-outs and missing entries. */
    FRWK_TRACE_INFO = 4,    /**< "info": events. */
    FRWK_TRACE_DEBUG = 8    /**< "debug": successes and details. */
};

/**
 * Prints one trace line, or nothing when `level` lies above the process's threshold. Never allocates, and leaves
 * `errno` as it is.
 *
 * Blocks as long as the sink does: a log daemon that stops reading `/dev/log` stops every thread that traces.
 *
 * @param file   source file of the caller, or null; its base name is printed
 * @param func   name of the calling function, or null
 * @param line   source line of the caller
 * @param level  FRWK_TRACE_ level; any other value is labelled "null"
 * @param fmt    printf format, followed by its arguments
 */
FRWK_API FRWK_NO_PLT void frwk_trace_print(const char *file, const char *func, int line, int level, const char *fmt,
                                           ...) FRWK_PRINTF_FORMAT(5, 6);

/**
 * Traces a line from here, by frwk_trace_print(). The format and its arguments are not evaluated when the threshold
 * suppresses the line.
 * @param level  FRWK_TRACE_ level; evaluated twice
 * @param ...    printf format and its arguments
 */
#define FRWK_TRACE(level, ...)                                                                                         \
    do {                                                                                                               \
        if (frwk_get_module_level() >= (level)) {                                                                      \
            frwk_trace_print(__FILE__, __func__, __LINE__, (level), __VA_ARGS__);                                      \
        }                                                                                                              \
    } while (0)

/**
 * Traces a failure.
 * @param ...  printf format and its arguments
 */
#define FRWK_ERR(...) FRWK_TRACE(FRWK_TRACE_ERROR, __VA_ARGS__)
/**
 * Traces a time-out or a missing entry.
 * @param ...  printf format and its arguments
 */
#define FRWK_WARN(...) FRWK_TRACE(FRWK_TRACE_WARNING, __VA_ARGS__)
/**
 * Traces an event.
 * @param ...  printf format and its arguments
 */
#define FRWK_INFO(...) FRWK_TRACE(FRWK_TRACE_INFO, __VA_ARGS__)
/**
 * Traces a success or a detail.
 * @param ...  printf format and its arguments
 */
#define FRWK_DBG(...) FRWK_TRACE(FRWK_TRACE_DEBUG, __VA_ARGS__)

/**
 * Finds a trace level by its name. A cancellation point where it prints.
 * @param name  "null", "error", "warning", "info" or "debug" in any letter case; "" for level 0; may be null
 * @return the level, or -1 after a line on standard output when the name is null or unknown
 */
FRWK_API int frwk_level_match(const char *name);

/**
 * Sets the process's trace threshold by name, from the next line on. Nothing is stored on disk.
 * @param name  as for frwk_level_match()
 * @return FRWK_ERROR_SUCCESS; FRWK_ERROR_INVALID_PARAM for null and FRWK_ERROR_UNSUPPORTED for an unknown name, the
 *         threshold unchanged and a line on standard output, as from frwk_level_match()
 */
FRWK_API int frwk_trace_set(const char *name);

/**
 * Finds the base name of a path.
 * @param path  file path; slash and backslash separate; may be null
 * @return the base name, a pointer into `path`; an empty string for null, an empty path or one that ends in a separator
 */
FRWK_API const char *frwk_get_filename(const char *path);

/**
 * Returns when `cond` is not 0; otherwise writes "[module]ASSERT(file|function|line), expression" to the system log
 * (modules with FRWK_MODULE_FLAG_SYSLOG) and to standard error, whatever the trace settings, and aborts the process.
 * That the thread is cancelled does not keep the process from ending.
 *
 * @param cond  truth value of the asserted expression
 * @param expr  its source text
 * @param file  source file, or null; its base name is printed
 * @param func  name of the function
 * @param line  source line
 */
FRWK_API void frwk_assert_debug(int cond, const char *expr, const char *file, const char *func, unsigned int line);

/**
 * Ends the process by frwk_assert_debug() when an expression is false. Always compiled in.
 * @param expr  the expression, evaluated once
 */
#define FRWK_ASSERT(expr) frwk_assert_debug((expr) ? 1 : 0, #expr, __FILE__, __func__, __LINE__)

/**
 * Puts the default `/usrdata/odm/log_conf.xml` in place of whatever is there: every module silent.
 *
 * The file is written, synced, named `log_conf.xml.new`, and renamed. Blocks for sync() of all file systems, and up to
 * 3 seconds for another writer, as frwk_set_trace_info().
 *
 * @return FRWK_ERROR_SUCCESS; -1, FRWK_ERROR_CONFIG_FILE or FRWK_ERROR_NOT_FOUND when the document cannot be built;
 *         FRWK_ERROR_NOT_FOUND also when the file cannot be saved. After a failure what was there is untouched, and no
 *         ".new" is left.
 */
FRWK_API int frwk_init_log_cfg_info(void);

/**
 * Stores the trace settings that a module takes at its next start; writes the default file first when there is none. A
 * running module takes new settings only from the message FRWK_MSG_SYS_LOG.
 *
 * When a save was cut off, `log_conf.xml.bak` holds the settings, and is put back first. The file is saved by
 * frwk_xml_file_save(), which blocks for sync() of all file systems. Writers take an advisory lock on `/usrdata/odm`:
 * after 3 seconds a warning is traced and the call goes on without it, and saves as frwk_init_log_cfg_info() does.
 *
 * @param module_id  1 to 9, a module with FRWK_MODULE_FLAG_SYSLOG
 * @param mode       debug mode, see frwk_debug_enable(); -999 to 9,999, since other numbers are not read back
 * @param level      level name, stored unchecked: a name that is none counts as level 0; null stores the empty text,
 *                   which is level 0
 * @return FRWK_ERROR_SUCCESS;
 *         FRWK_ERROR_INVALID_PARAM: an id outside 1 to 9;
 *         FRWK_ERROR_CONFIG_FILE: a module without trace settings; or a file that cannot be parsed, cannot be opened or
 *         read now, whose ".bak" is needed and cannot be put back, or that is missing and cannot be created; nothing is
 *         touched;
 *         -1: memory is short, or the save failed as frwk_xml_file_save() has it
 */
FRWK_API int frwk_set_trace_info(uint32_t module_id, int mode, const char *level);

/**
 * As frwk_set_trace_info() for every module with FRWK_MODULE_FLAG_SYSLOG, all in one save.
 *
 * @param mode   as there
 * @param level  as there
 * @return FRWK_ERROR_SUCCESS; FRWK_ERROR_CONFIG_FILE for the file as there; -1 when memory is short;
 *         FRWK_ERROR_NOT_FOUND when the save failed
 */
FRWK_API int frwk_all_set_trace_info(int mode, const char *level);

FRWK_END_DECLS

#endif
