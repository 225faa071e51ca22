/* SPDX-FileCopyrightText: 2026 the libfrwk authors */
/* SPDX-License-Identifier: MIT */

// Operations on hash tables, chosen by the bytes of the input.
#include "fuzz.h"
#include "hash_model.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const uint8_t *end = data + size;
    use_tables([&](unsigned n) { return data < end ? *data++ % n : 0; }, [&] { return data < end; });
    return 0;
}
