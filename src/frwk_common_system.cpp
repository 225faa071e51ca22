/* SPDX-FileCopyrightText: 2026 the libfrwk authors */
/* SPDX-License-Identifier: MIT */

/*
 * Shell commands.
 */
#include "frwk_start_conf.h"
#include "frwk_trace.h"

#include <stdlib.h>

int frwk_system(const char *cmd)
{
    if (cmd == nullptr || cmd[0] == '\0') {
        FRWK_ERR("shell cmd is null!");
        return 0;
    }
    int status = system(cmd);
    if (status == -1) {
        FRWK_ERR("exec cmd %s error!", cmd);
        return 0;
    }
    if (status != 0) {
        int code = (status >> 8) & 0xff; /* 0 for a child that a signal ended */
        FRWK_ERR("exec cmd '%s' errno=%d", cmd, code);
        return 0;
    }
    FRWK_DBG("exec cmd '%s' success!", cmd);
    return 1;
}
