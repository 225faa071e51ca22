/* SPDX-FileCopyrightText: 2026 the libfrwk authors */
/* SPDX-License-Identifier: MIT */

/*
 * The commands of monitor_tool that look at requests as they pass.
 */
#ifndef WATCH_H
#define WATCH_H

#include "options.h"

/* `watch [MODULE]...`: shows each request. */
int watch_run(int argc, char **argv);
extern const device_option_t WATCH_OPTIONS[];

/* `capture FILE [MODULE]...`: writes them to a file for Wireshark. */
int capture_run(int argc, char **argv);
extern const device_option_t CAPTURE_OPTIONS[];

#endif
