/* SPDX-FileCopyrightText: 2026 the libfrwk authors */
/* SPDX-License-Identifier: MIT */

/*
 * Texts in what the tools print as JSON.
 */
#ifndef JSON_H
#define JSON_H

#include <stddef.h>

/* Prints a text in quotes, or null. Bytes that are no UTF-8, which JSON cannot hold, become U+FFFD. */
void json_text(const char *text);

#endif
