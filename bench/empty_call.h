/* SPDX-FileCopyrightText: 2026 the libfrwk authors */
/* SPDX-License-Identifier: MIT */

// A variadic function in a shared library that does nothing: the least that a suppressed trace call can cost.
#ifndef BENCH_EMPTY_CALL_H
#define BENCH_EMPTY_CALL_H

extern "C" void bench_empty_call(const char *file, const char *func, int line, int level, const char *fmt, ...);

#endif
