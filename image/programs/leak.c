/* SPDX-FileCopyrightText: 2026 the libfrwk authors */
/* SPDX-License-Identifier: MIT */

/*
 * leak MIB SECONDS: takes so much memory, a quarter of a MiB at a time, and holds it for so long. It is among the modules,
 * whose memory is limited together, and does not return what it took before it ends or is killed.
 */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

enum { PIECE = 256 * 1024 };

int main(int argc, char **argv)
{
    if (argc != 3) {
        fputs("usage: leak MIB SECONDS\n", stderr);
        return 2;
    }
    for (int i = 0; i < atoi(argv[1]) * 4; i++) {
        char *piece = malloc(PIECE);
        if (piece == NULL) {
            break;
        }
        memset(piece, 1, PIECE);
        usleep(50000);
    }
    sleep((unsigned int)atoi(argv[2]));
    return 0;
}
