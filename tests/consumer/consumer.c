/* SPDX-FileCopyrightText: 2026 the libfrwk authors */
/* SPDX-License-Identifier: MIT */

/* Starts as a module, and asks for its own status word. */
#include <frwk.h>

int main(void)
{
    if (frwk_module_init(FRWK_MODULE_QTI, 0) != FRWK_ERROR_SUCCESS) {
        return 1;
    }
    frwk_set_module_status(42);
    return frwk_get_module_status(FRWK_MODULE_QTI) == 42 ? 0 : 2;
}
