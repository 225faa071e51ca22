/* SPDX-FileCopyrightText: 2026 the libfrwk authors */
/* SPDX-License-Identifier: MIT */

/*
 * leak MIB: takes so much memory, a quarter of a MiB at a time. It is among the modules, whose memory is limited
 * together, and returns nothing before it ends or is killed.
 */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

enum { PIECE = 256 * 1024 };

int main(int argc, char **argv)
{
    if (argc != 2) {
        fputs("usage: leak MIB\n", stderr);
        return 2;
    }
    for (int i = 0; i < atoi(argv[1]) * 4; i++) {
        char *piece = malloc(PIECE);
        if (piece == NULL) {
            break;
        }
        memset(piece, 1, PIECE);
        usleep(10000);
    }
    return 0;
}
