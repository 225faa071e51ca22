/* SPDX-FileCopyrightText: 2026 the libfrwk authors */
/* SPDX-License-Identifier: MIT */

/* requests COUNT: so many requests of 64 bytes to dial_test, one after the other; then prints its context switches. */
#include <frwk.h>

#include <stdio.h>
#include <stdlib.h>
#include <sys/resource.h>

int main(int argc, char **argv)
{
    uint8_t body[64] = {0}, rsp[64];
    int32_t result = -1;
    frwk_module_init(FRWK_MODULE_LOGTOOL, NULL);
    for (int i = 0; argc > 1 && i < atoi(argv[1]); i++) {
        if (frwk_ipc_send_sync(FRWK_MODULE_DIAL_TEST, FRWK_MSG_USER, body, sizeof body, rsp, sizeof rsp, 3, &result) !=
            FRWK_ERROR_SUCCESS) {
            return 1;
        }
    }
    struct rusage usage;
    getrusage(RUSAGE_SELF, &usage);
    printf("%ld\n", usage.ru_nvcsw + usage.ru_nivcsw);
    return 0;
}
