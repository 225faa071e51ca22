/* SPDX-FileCopyrightText: 2026 the libfrwk authors */
/* SPDX-License-Identifier: MIT */

/* What a process costs that links nothing but the C library and does nothing. */
#include <unistd.h>

int main(void)
{
    pause();
    return 0;
}
