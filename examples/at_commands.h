/* SPDX-FileCopyrightText: 2026 the libfrwk authors */
/* SPDX-License-Identifier: MIT */

/*
 * The command lines of atfwd_daemon.
 */
#ifndef AT_COMMANDS_H
#define AT_COMMANDS_H

#include <frwk_defs.h>

/*
 * Runs one command line and says its answer. The last line of that is "OK", "ERROR" for a line that is no command, or
 * "+CME ERROR: n" with a result code of the library.
 */
void at_run(const char *line);

/* Writes one line to the terminal; any thread. Provided by the daemon. */
void at_say(const char *fmt, ...) FRWK_PRINTF_FORMAT(1, 2);

#endif
