/* SPDX-FileCopyrightText: 2026 the libfrwk authors */
/* SPDX-License-Identifier: MIT */

/*
 * Bounds-checking copies: each takes the size of its destination and never writes past it.
 */
#ifndef FRWK_BOUNDED_H
#define FRWK_BOUNDED_H

#include <stdarg.h>
#include <stddef.h>
#include <stdio.h>
#include <string.h>

/* Copies n bytes, or as many as fit. The areas must not overlap. */
static inline void memcpy_s(void *dest, size_t dest_size, const void *src, size_t n)
{
    size_t fit = n < dest_size ? n : dest_size;
    if (fit > 0) {
        memcpy(dest, src, fit);
    }
}

/* Sets n bytes, or as many as fit, to value. */
static inline void memset_s(void *dest, size_t dest_size, int value, size_t n)
{
    size_t fit = n < dest_size ? n : dest_size;
    if (fit > 0) {
        memset(dest, value, fit);
    }
}

/* Copies a string, cut where it does not fit, and terminates it; an empty destination stays untouched. */
static inline void strcpy_s(char *dest, size_t dest_size, const char *src)
{
    if (dest_size > 0) {
        size_t len = strnlen(src, dest_size - 1);
        memcpy(dest, src, len);
        dest[len] = '\0';
    }
}

/* Formats like vsnprintf(), but returns the number of characters written, without the terminator. */
static inline int vsprintf_s(char *dest, size_t dest_size, const char *fmt, va_list args)
{
    int len = vsnprintf(dest, dest_size, fmt, args);
    if (len < 0 || dest_size == 0) {
        return 0;
    }
    return static_cast<size_t>(len) < dest_size ? len : static_cast<int>(dest_size - 1);
}

/* Formats like snprintf(), but returns the number of characters written, without the terminator. */
__attribute__((format(printf, 3, 4))) static inline int sprintf_s(char *dest, size_t dest_size, const char *fmt, ...)
{
    va_list args;
    va_start(args, fmt);
    int len = vsprintf_s(dest, dest_size, fmt, args);
    va_end(args);
    return len;
}

#endif
