/* SPDX-FileCopyrightText: 2026 the libfrwk authors */
/* SPDX-License-Identifier: MIT */

// CHECK, for what the tests and the fuzz targets share: a test goes on after a failure, a fuzz target ends its run.
#ifndef FRWK_CHECK_H
#define FRWK_CHECK_H

#ifdef FRWK_FUZZ
#include <cstdio>
#include <cstdlib>
#define CHECK(cond)                                                                                                    \
    ((cond) ? static_cast<void>(0) : (fprintf(stderr, "%s:%d: %s does not hold\n", __FILE__, __LINE__, #cond), abort()))
#else
#include <gtest/gtest.h>
#define CHECK(cond) EXPECT_TRUE(cond)
#endif

#endif
