/* SPDX-FileCopyrightText: 2026 the libfrwk authors */
/* SPDX-License-Identifier: MIT */

/*
 * Programs as child processes.
 */
#ifndef PROCESS_H
#define PROCESS_H

#include <sys/types.h>

/*
 * Runs a program with the arguments that `args` holds, parted by blanks (null for none). It starts with the signals as
 * a program expects them and nothing on its standard input. Called from the main thread only: a child that asks for a
 * signal at its parent's death gets it when the thread that forked it ends.
 *
 * @return its process id, or -1
 */
pid_t process_start(const char *path, const char *args);

/* Whether a child has ended; it is then reaped and `status` is set. */
bool process_ended(pid_t pid, int *status);

/* Ends a child by SIGTERM, and by SIGKILL after `grace` milliseconds. */
void process_stop(pid_t pid, int grace);

#endif
