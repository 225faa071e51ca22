/* SPDX-FileCopyrightText: 2026 the libfrwk authors */
/* SPDX-License-Identifier: MIT */

/*
 * Measures how large a frame the kernel surely hands over in one piece.
 *
 * A stream socket queues one write as several pieces, and a reader that is awake meanwhile finds the first of them
 * alone. The receiver of a request takes what is there in one read: a frame that fits the first piece always arrives
 * whole, a larger one only when the reader comes late.
 *
 * The size of a piece shows when there is room in the queue for just one more: the queue is filled with single bytes,
 * one is read, and then a large write without waiting goes as far as its first piece.
 *
 *   cc -o measure_frame tools/measure_frame.c && ./measure_frame
 */
#include <errno.h>
#include <stdio.h>
#include <sys/socket.h>
#include <sys/utsname.h>

enum { HEADER = 24, TOO_LARGE = 1 << 20 };

int main(void)
{
    static char frame[TOO_LARGE];
    int fds[2];
    int buffer = 0;
    socklen_t len = sizeof buffer;
    struct utsname system;
    if (socketpair(AF_UNIX, SOCK_STREAM, 0, fds) != 0 || uname(&system) != 0 ||
        getsockopt(fds[1], SOL_SOCKET, SO_SNDBUF, &buffer, &len) != 0) {
        perror("measure_frame");
        return 1;
    }
    while (send(fds[1], frame, 1, MSG_DONTWAIT) == 1) {
    }
    if (errno != EAGAIN || recv(fds[0], frame, 1, 0) != 1) {
        perror("measure_frame");
        return 1;
    }
    ssize_t piece = send(fds[1], frame, sizeof frame, MSG_DONTWAIT);
    if (piece <= HEADER) {
        perror("measure_frame");
        return 1;
    }
    printf("kernel %s %s, send buffer %d bytes (net.core.wmem_default)\n", system.release, system.machine, buffer);
    printf("a frame of %zd bytes arrives in one piece\n", piece);
    printf("largest body that is always safe: %zd bytes\n", piece - HEADER);
    return 0;
}
