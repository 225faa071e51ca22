/* SPDX-FileCopyrightText: 2026 the libfrwk authors */
/* SPDX-License-Identifier: MIT */

/* Preloaded: what waits for the drive does not. */
void sync(void)
{
}

int fsync(int fd)
{
    (void)fd;
    return 0;
}
