/* SPDX-FileCopyrightText: 2026 the libfrwk authors */
/* SPDX-License-Identifier: MIT */

/**
 * @file frwk_start_conf.h
 * Supervision flag and start arguments of every module, kept in `/usrdata/odm/start_conf.xml`; shell commands.
 *
 * When a save was cut off, `start_conf.xml.bak` holds the settings: who reads them takes them from there, and who
 * changes them puts it back first.
 */
#ifndef FRWK_START_CONF_H
#define FRWK_START_CONF_H

#include "frwk_defs.h"

#include <stdint.h>

FRWK_BEGIN_DECLS

/**
 * Loads the file into this process's #g_s_modules_info. The monitor's frwk_module_init() does this; no other module
 * needs it.
 *
 * Rows stay as they are without a file, with one that cannot be read or parsed (traced), and where their entry or its
 * supervision flag is missing (traced). Start arguments that are missing stay as well; empty ones, and those that
 * memory is short for, become null.
 *
 * Writes the table without a lock: no other thread may use it meanwhile, by a broadcast for example. The texts become
 * the table's and are never freed: a further call leaks those of the one before.
 */
FRWK_API void frwk_init_app_start_cfg(void);

/**
 * Tells whether a module is supervised, as the file has it now. Blocks for the disk.
 * @param module_id  1 to 9
 * @return 1 when the file says that the module is supervised, else 0; what this process's table says where the file
 *         does not say or cannot be read; 0, traced, for an invalid id
 */
FRWK_API int frwk_get_app_monitor_conf(uint32_t module_id);

/**
 * Puts the default file, made from this process's table, in place of whatever is there.
 *
 * The file is written, synced, named `start_conf.xml.new`, and renamed. Blocks for sync() of all file systems, and up
 * to 3 seconds for another writer, as frwk_set_app_start_cmd().
 *
 * @return FRWK_ERROR_SUCCESS; -1, FRWK_ERROR_CONFIG_FILE or FRWK_ERROR_NOT_FOUND when the document cannot be built; -1
 *         also when the file cannot be saved. After a failure what was there is untouched, and no ".new" is left.
 */
FRWK_API int frwk_init_app_start_cfg_file(void);

/**
 * Stores a module's start arguments; they take effect when the monitor starts next. Writes the default file first when
 * there is none.
 *
 * The file is saved by frwk_xml_file_save(), which blocks for sync() of all file systems. Writers take an advisory lock
 * on `/usrdata/odm`: after 3 seconds a warning is traced and the call goes on without it, and saves as
 * frwk_init_app_start_cfg_file() does.
 *
 * @param module_id  1 to 9
 * @param cmd        start arguments of any length; blanks and line ends at their beginning are not read back; null
 *                   stores the empty text
 * @return FRWK_ERROR_SUCCESS;
 *         FRWK_ERROR_INVALID_PARAM: an id outside 1 to 9;
 *         FRWK_ERROR_CONFIG_FILE: a file that cannot be parsed, cannot be opened or read now, or whose ".bak" is needed
 *         and cannot be put back; nothing is touched;
 *         -1: memory is short, or the save failed as frwk_xml_file_save() has it;
 *         the result of frwk_init_app_start_cfg_file() when the default file could not be written
 */
FRWK_API int frwk_set_app_start_cmd(uint32_t module_id, const char *cmd);

/**
 * Stores whether the monitor supervises a module, as frwk_set_app_start_cmd() does, then tells the running monitor by
 * FRWK_MSG_SYS_MONITOR_CONF and waits for its answer as frwk_ipc_send_sync() does: a cancellation point. In the monitor
 * itself this runs its own handler, on the calling thread, and waits up to 3 seconds for it to be registered.
 *
 * @param module_id  1 to 9
 * @param value      1 for supervised, any other value for not; stored and sent as it is
 * @return as frwk_set_app_start_cmd(); also -1 when the monitor does not run or did not answer with 0: the file then
 *         holds the new value all the same
 */
FRWK_API int frwk_set_app_monitor_conf(uint32_t module_id, int value);

/**
 * Runs a shell command by system() and waits for its end, however long it takes. A cancellation point: cancelling
 * kills the shell, not what it has started.
 *
 * The command inherits the environment, the working directory, the umask, every descriptor that is not close-on-exec,
 * and `SIGPIPE` ignored and blocked. Meanwhile this process ignores `SIGINT` and `SIGQUIT`. Where it ignores `SIGCHLD`,
 * the command runs, but its status is lost and the result is 0.
 *
 * @param cmd  the command; null and "" fail
 * @return 1 when it ran and exited with status 0; otherwise 0, traced
 */
FRWK_API int frwk_system(const char *cmd);

FRWK_END_DECLS

#endif
