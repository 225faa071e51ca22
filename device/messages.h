/* SPDX-FileCopyrightText: 2026 the libfrwk authors */
/* SPDX-License-Identifier: MIT */

/*
 * Names for people: of modules, messages and results.
 */
#ifndef MESSAGES_H
#define MESSAGES_H

#include <stdint.h>

/* The module's name; "?" for an id that is none's. */
const char *message_module(uint32_t id);

/* The message's name, that of the library or of a file of names; null for none. */
const char *message_name(uint32_t module, uint32_t msg);

/* FRWK_ERROR_ names without that prefix; null for a result that has none. */
const char *message_result(int32_t result);

/*
 * Reads a file of names. Each line is a module ("*" for all), a message's number and its name, parted by blanks; "#"
 * begins a comment. What is wrong ends the program.
 */
void message_read_names(const char *path);

#endif
