/**
 * @file frwk_start_conf.h
 * Supervision flag and start arguments of every module, kept in `/usrdata/odm/start_conf.xml`; shell commands.
 */
#ifndef FRWK_START_CONF_H
#define FRWK_START_CONF_H

#include <stdint.h>

#include "frwk_defs.h"

FRWK_BEGIN_DECLS

/**
 * Loads the file into this process's #g_s_modules_info. The monitor's frwk_module_init() does this; no other module
 * needs it. Without a file, and for entries that are missing, the rows stay as they are. Not for two threads at once.
 */
FRWK_API void frwk_init_app_start_cfg(void);

/**
 * @param module_id  1 to 9
 * @return 1 when the file says that the module is supervised (where the file does not say, when this process's table
 *         does), else 0; 0 for an invalid id
 */
FRWK_API int frwk_get_app_monitor_conf(uint32_t module_id);

/**
 * Writes the default file from this process's table over whatever is there.
 *
 * @return FRWK_ERROR_SUCCESS; -1 when the document cannot be built or saved (the old file is then in place);
 *         FRWK_ERROR_CONFIG_FILE, FRWK_ERROR_NOT_FOUND when the document built lacks an element
 *
 * Blocks for the disk, and up to 3 seconds for another process that is changing the settings.
 */
FRWK_API int frwk_init_app_start_cfg_file(void);

/**
 * Stores a module's start arguments; they take effect when the monitor starts next. Creates the file when missing.
 *
 * @param module_id  1 to 9
 * @param cmd        start arguments of any length, copied; null stores the empty text
 * @return FRWK_ERROR_SUCCESS; FRWK_ERROR_INVALID_PARAM for an id outside 1 to 9; FRWK_ERROR_CONFIG_FILE for a file
 *         that cannot be parsed; -1 when the file cannot be changed or saved (the old settings are then in place);
 *         the result of frwk_init_app_start_cfg_file() when the file could not be created
 *
 * Blocks for the disk, and up to 3 seconds for another process that is changing the settings.
 */
FRWK_API int frwk_set_app_start_cmd(uint32_t module_id, const char *cmd);

/**
 * Stores whether the monitor supervises a module, then tells the running monitor.
 *
 * @param module_id  1 to 9
 * @param value      1 for supervised, any other value for not
 * @return as frwk_set_app_start_cmd(); also -1 when the monitor did not answer with success: the file then holds the
 *         new value all the same
 *
 * Blocks as frwk_set_app_start_cmd(), and then until the monitor answers.
 */
FRWK_API int frwk_set_app_monitor_conf(uint32_t module_id, int value);

/**
 * Runs a shell command and waits for its end, however long it takes.
 * @return 1 when it ran and exited with status 0, else 0 (also for null and the empty command)
 */
FRWK_API int frwk_system(const char *cmd);

FRWK_END_DECLS

#endif
