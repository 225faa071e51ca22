/* SPDX-FileCopyrightText: 2026 the libfrwk authors */
/* SPDX-License-Identifier: MIT */

// What the tests of strings, XML and hash tables share. Included by one source of a test program only, since it takes
// the place of the C library's allocator.
#ifndef TEXT_TEST_H
#define TEXT_TEST_H

#include "frwk_test.h"

#include <climits>
#include <cstring>

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define SANITIZED 1 // with an allocator of its own
#else
#define SANITIZED 0
#endif

inline thread_local int allocations_left = INT_MAX; // the allocation that this counts down to is refused

#if !SANITIZED
extern "C" {
void *__libc_malloc(size_t size);
void *__libc_realloc(void *block, size_t size);
void *malloc(size_t size)
{
    return --allocations_left == 0 ? nullptr : __libc_malloc(size);
}
void *realloc(void *block, size_t size)
{
    return --allocations_left == 0 ? nullptr : __libc_realloc(block, size);
}
}
#endif

using Texts = std::vector<std::string>;

// Runs `body` with all traces on; "function: message" of each, with its level in front where it is no error.
inline Texts said(const std::function<void()> &body)
{
    frwk_debug_enable(3);
    frwk_trace_set("debug");
    frwk_test::Capture capture;
    frwk_trace_print("up.cpp", "up", 1, FRWK_TRACE_ERROR, "the stream has its buffer now");
    body();
    allocations_left = INT_MAX;
    Texts lines;
    for (const frwk_test::TraceLine &trace : capture.traces()) {
        lines.push_back((trace.level == "error" ? "" : trace.level + " ") + trace.func + ": " + trace.msg);
    }
    lines.erase(lines.begin());
    return lines;
}

#endif
