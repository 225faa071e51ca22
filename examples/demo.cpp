/* SPDX-FileCopyrightText: 2026 the libfrwk authors */
/* SPDX-License-Identifier: MIT */

#include "demo.h"

#include <termios.h>

void demo_mark(uint32_t from, const uint8_t *text, int32_t len)
{
    FRWK_INFO("mark of module %u: %.*s", from, len > 0 ? len : 0, reinterpret_cast<const char *>(text));
}

void demo_raw(int fd)
{
    termios settings;
    if (tcgetattr(fd, &settings) == 0) {
        cfmakeraw(&settings);
        tcsetattr(fd, TCSANOW, &settings);
    }
}
