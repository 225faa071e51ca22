/* SPDX-FileCopyrightText: 2026 the libfrwk authors */
/* SPDX-License-Identifier: MIT */

// Single steps of the parser.
#include "fuzz.h"
#include "xml_checks.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size >= 2) {
        check_step(data, size);
    }
    return 0;
}
