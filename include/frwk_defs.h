/* SPDX-FileCopyrightText: 2026 the libfrwk authors */
/* SPDX-License-Identifier: MIT */

/**
 * @file frwk_defs.h
 * Export, attribute and C/C++ macros shared by the public headers.
 */
#ifndef FRWK_DEFS_H
#define FRWK_DEFS_H

#ifdef __cplusplus
#define FRWK_BEGIN_DECLS extern "C" { /**< Begins declarations with C linkage. */
#define FRWK_END_DECLS }              /**< Ends them. */
#else
#define FRWK_BEGIN_DECLS
#define FRWK_END_DECLS
#endif

#if defined(__GNUC__)
/** Marks what the shared library exports; everything else in it is hidden. */
#define FRWK_API __attribute__((visibility("default")))
/**
 * Lets the compiler check a printf format against its arguments.
 * @param fmt    which argument is the format, counted from 1
 * @param first  which is the first that it formats
 */
#define FRWK_PRINTF_FORMAT(fmt, first) __attribute__((format(printf, fmt, first)))
#else
#define FRWK_API
#define FRWK_PRINTF_FORMAT(fmt, first)
#endif

/**
 * @def FRWK_NO_PLT
 * For what stands behind every trace line: called straight through its address, which saves a jump.
 */
#if defined(__x86_64__) && defined(__has_attribute)
#if __has_attribute(noplt)
#define FRWK_NO_PLT __attribute__((noplt))
#endif
#endif
#ifndef FRWK_NO_PLT
#define FRWK_NO_PLT
#endif

#endif
