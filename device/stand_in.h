/* SPDX-FileCopyrightText: 2026 the libfrwk authors */
/* SPDX-License-Identifier: MIT */

/*
 * Standing in for a module: a socket of one's own takes the place of the module's under its name, in one step, so that
 * at no instant there is none. The module's socket listens on, since a socket is found by its file whatever that is
 * called, and waits in a directory of its own:
 *
 *   /tmp/odm/ipc/qmuxd                 the stand-in
 *   /tmp/odm/ipc/.watch.qmuxd/         locked by whoever stands in
 *   /tmp/odm/ipc/.watch.qmuxd/socket   the module's own
 */
#ifndef STAND_IN_H
#define STAND_IN_H

#include <stdint.h>
#include <sys/types.h>

struct stand_in_t {
    uint32_t id;
    int lock;      /* the directory, locked; -1 */
    int listener;  /* the stand-in; -1 before it is first needed */
    bool standing; /* in the module's place */
    dev_t dev;     /* the stand-in's file */
    ino_t ino;
    char own[64];
    char dir[64];
    char aside[64];
};

/* What a look at a module's place finds. */
enum stand_in_place_t {
    STAND_IN_KEPT,   /* the stand-in is there, or nothing is */
    STAND_IN_TAKEN,  /* the module has started anew, and has put its new socket there */
    STAND_IN_OUTSIDE /* it does not stand in */
};

/*
 * Takes the lock, waiting up to `patience` milliseconds for another process that is leaving, and puts right what one
 * that was killed has left.
 * @return null, or what is in the way
 */
const char *stand_in_open(stand_in_t *place, uint32_t id, int patience);

/* Leaves the place and gives up the lock. What was accepted goes on; the listener is the caller's to close. */
void stand_in_close(stand_in_t *place);

/*
 * Takes the place of a module that listens; nothing happens where none does. `probe` is set to a connection on which
 * the module was asked for a sign of life, or to -1: it is to be closed when it has been answered.
 * @return null, or why it cannot be
 */
const char *stand_in_enter(stand_in_t *place, int *probe);

/* Gives the module its place back. */
void stand_in_leave(stand_in_t *place);

/*
 * Looks whether the place was taken. If so, the old socket of the module is gone, and the listener, which has no name
 * any more, is the caller's: to be closed when nobody can be left who found it.
 */
stand_in_place_t stand_in_check(stand_in_t *place);

/* The name by which the module can be reached now. */
const char *stand_in_module_path(const stand_in_t *place);

/* A socket for stand_in_connect(); -1 with errno. */
int stand_in_socket();

/* Connects a socket at once; false with errno, EAGAIN when the module has a full queue: to be tried again. */
bool stand_in_connect(int fd, const char *path);

#endif
