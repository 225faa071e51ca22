/* SPDX-FileCopyrightText: 2026 the libfrwk authors */
/* SPDX-License-Identifier: MIT */

#include "empty_call.h"

void bench_empty_call(const char *, const char *, int, int, const char *, ...)
{
}
