/* SPDX-FileCopyrightText: 2026 the libfrwk authors */
/* SPDX-License-Identifier: MIT */

/* idle ID: a module that does nothing of its own. */
#include <frwk.h>

#include <stdlib.h>

int main(int argc, char **argv)
{
    if (argc != 2 || frwk_module_init((uint32_t)atoi(argv[1]), NULL) != FRWK_ERROR_SUCCESS) {
        return 1;
    }
    frwk_keep_running();
    return 0;
}
