/* SPDX-FileCopyrightText: 2026 the libfrwk authors */
/* SPDX-License-Identifier: MIT */

// What the fuzz targets share. Each is one source and includes this once.
#ifndef FRWK_FUZZ_H
#define FRWK_FUZZ_H

#include "check.h"
#include <frwk.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

// A save syncs all file systems, which would cost milliseconds each.
extern "C" void sync() noexcept
{
}

extern "C" const char *__asan_default_options();
extern "C" const char *__asan_default_options()
{
    return "allocator_may_return_null=1:max_allocation_size_mb=64:detect_stack_use_after_return=1";
}

// All trace lines are made and written, but not seen: hostile text goes through them too.
inline void trace_all()
{
    frwk_debug_enable(3);
    frwk_trace_set("debug");
}

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    CHECK(freopen("/dev/null", "w", stdout) != nullptr);
    trace_all();
    return 0;
}

#endif
