/* SPDX-FileCopyrightText: 2026 the libfrwk authors */
/* SPDX-License-Identifier: MIT */

// Whole documents.
#include "fuzz.h"
#include "xml_checks.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    check_document(data, size);
    return 0;
}
