/* SPDX-FileCopyrightText: 2026 the libfrwk authors */
/* SPDX-License-Identifier: MIT */

/**
 * @file frwk_module.h
 * Modules: the table of the device's modules, the result codes that all families share, the identity of the calling
 * process, and start-up.
 */
#ifndef FRWK_MODULE_H
#define FRWK_MODULE_H

#include "frwk_defs.h"

#include <stdint.h>

FRWK_BEGIN_DECLS

/** Module ids: indices of #g_s_modules_info. Valid ids are 1 to 9. */
enum {
    FRWK_MODULE_MONITOR = 1,       /**< "monitor": supervises the others. */
    FRWK_MODULE_ATFWD_DAEMON = 2,  /**< "atfwd_daemon", supervised. */
    FRWK_MODULE_DIAL_TEST = 3,     /**< "dial_test". */
    FRWK_MODULE_LOGTOOL = 4,       /**< "logtool", a tool. */
    FRWK_MODULE_SERIAL_BRIDGE = 5, /**< "serial_bridge", supervised. */
    FRWK_MODULE_MONITOR_TOOL = 6,  /**< "monitor_tool", a tool. */
    FRWK_MODULE_MBIMD = 7,         /**< "mbimd", supervised. */
    FRWK_MODULE_QTI = 8,           /**< "qti", supervised. */
    FRWK_MODULE_QMUXD = 9,         /**< "qmuxd", supervised. */
    FRWK_MODULE_MAX = 10           /**< No module: one past the last valid id. */
};

/**
 * Bits of a row's `flags`. A row with none of them is a tool: it takes no lock, may run in several copies, and traces
 * to its console.
 */
enum {
    FRWK_MODULE_FLAG_SYSLOG = 0x1,         /**< Start-up opens the system log; the module has trace settings on disk. */
    FRWK_MODULE_FLAG_IPC = 0x2,            /**< Start-up runs the module's IPC service. */
    FRWK_MODULE_FLAG_MONITOR_SERVICE = 0x4 /**< The monitor supervises the module; broadcasts without data reach it. */
};

/** Result codes. A call that reports only success or failure gives 0 or -1. */
enum {
    FRWK_ERROR_SUCCESS = 0,       /**< Success. */
    FRWK_ERROR_NO_MODULE = 1,     /**< Target id outside 1 to 9, or its socket cannot be connected. */
    FRWK_ERROR_FAILED = 2,        /**< A handler's failure result. */
    FRWK_ERROR_INVALID_PARAM = 3, /**< Missing or inconsistent argument. */
    FRWK_ERROR_CONFIG_FILE = 4,   /**< A settings file cannot be read or parsed, or has no entry for the module. */
    FRWK_ERROR_NO_MEMORY = 5,     /**< An allocation failed. */
    FRWK_ERROR_NOT_FOUND = 7,     /**< A needed element or submodule does not exist. */
    FRWK_ERROR_UNSUPPORTED = 8,   /**< Unknown trace level name. */
    FRWK_ERROR_SOCKET = 11,       /**< The IPC service's socket cannot be created. */
    FRWK_ERROR_FILE_CREATE = 12,  /**< A file cannot be written: see frwk_xml_file_save(). */
    FRWK_ERROR_NO_HANDLER = 13,   /**< No IPC handler was registered before the request's wait ran out. */
    FRWK_ERROR_THREAD = 14,       /**< A thread cannot be started. */
    FRWK_ERROR_ASYNC = 15,        /**< An asynchronous request was taken: its normal outcome, not a failure. */
    FRWK_ERROR_SEND = 18,         /**< A request could not be written to the peer. */
    FRWK_ERROR_RECV = 19          /**< A response could not be read from the peer. */
};

/** One row of the module table. */
typedef struct {
    const char *name; /**< The module's name: of its socket, lock file, log identity and configuration sections. */
    int32_t flags;    /**< FRWK_MODULE_FLAG_ bits. */
    int32_t delay;    /**< Milliseconds that frwk_module_init() sleeps at its end when above 0. */
    char *start_cmd;  /**< Start arguments, or null. Only frwk_init_app_start_cfg() replaces it. */
} frwk_module_info_t;

/**
 * The module table, one row per id from 0 to FRWK_MODULE_MAX; the first and the last row are empty.
 *
 * Constant in every process but the monitor, whose start-up loads the supervision flag and the start arguments of the
 * rows 1 to 9 from `/usrdata/odm/start_conf.xml`.
 */
extern FRWK_API frwk_module_info_t g_s_modules_info[FRWK_MODULE_MAX + 1];

/**
 * Control callback of a module: gets the ids of the messages 0 to 2 as they arrive.
 *
 * Runs where the handler would (see frwk_ipc_handler_t): on the library's threads, several at once, with no lock held.
 * @param msg  message id, 0 to 2
 */
typedef void (*frwk_module_cb_t)(uint32_t msg);

/**
 * Makes the calling process a module. Called once, from the main thread, before it starts threads of its own.
 *
 * In order: takes the module's lock file (not for tools), asks for `SIGHUP` at the parent's death, ignores and blocks
 * `SIGPIPE`, resets the module context (trace settings, status word, handler, submodules), loads the start
 * configuration (monitor only) and the trace settings, opens the system log, starts the IPC service, sleeps the row's
 * delay. Ends the process by an assertion when the IPC service cannot start.
 *
 * Blocks for the disk, for the row's delay, and while `mkdir` and `sync` run when the directories do not exist yet. The
 * thread must not be cancelled meanwhile.
 *
 * @param id  module id, 1 to 9
 * @param cb  control callback for the messages 0 to 2; may be null
 * @return FRWK_ERROR_SUCCESS, or -1 when the id is invalid, the lock file cannot be opened or locked, or another copy
 *         of the module runs (a line on standard error says which): the process is then no module
 */
FRWK_API int frwk_module_init(uint32_t id, frwk_module_cb_t cb);

/**
 * Tells which module this process is.
 * @return its id; 0 before start-up, -1 after a start-up refused by the lock
 */
FRWK_API int32_t frwk_get_module_id(void);

/**
 * Tells where this process's trace lines go.
 * @return 1 or 2: the system log; 3: the console; any other value: nowhere
 */
FRWK_API int32_t frwk_get_module_debug_mode(void);

/**
 * Tells this process's trace threshold.
 * @return the level up to which lines are printed, any number
 */
FRWK_API FRWK_NO_PLT int32_t frwk_get_module_level(void);

/**
 * Sets where this process's trace lines go, from the next line on. Nothing is stored on disk.
 * @param mode  1 or 2: the system log; 3: the console, which is standard output; any other value: nowhere
 */
FRWK_API void frwk_debug_enable(int32_t mode);

/**
 * Gives the name of a module.
 * @param id  module id
 * @return its name, which belongs to the table and stays; null for an id outside 1 to 9
 */
FRWK_API const char *frwk_module_name(uint32_t id);

/**
 * Finds a module by its name.
 * @param name  module name; case matters
 * @return its id, or FRWK_MODULE_MAX when there is none
 */
FRWK_API uint32_t frwk_module_id(const char *name);

/**
 * Sets the status word that other modules read with frwk_get_module_status(). It is 0 after frwk_module_init().
 * @param status  any value; its meaning is the module's own. Readers cannot tell 0 from no answer.
 */
FRWK_API void frwk_set_module_status(uint32_t status);

FRWK_END_DECLS

#endif
