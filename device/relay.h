/* SPDX-FileCopyrightText: 2026 the libfrwk authors */
/* SPDX-License-Identifier: MIT */

/*
 * The relay: a process of its own that stands in for modules, passes every connection on in both directions as it is,
 * and tells what passes by. The program that started it can end in any way, SIGKILL included: the relay then gives the
 * modules their places back, passes on what has come to it, and ends.
 */
#ifndef RELAY_H
#define RELAY_H

#include <stddef.h>
#include <stdint.h>
#include <sys/types.h>

/* What the relay tells; `len` and the bytes that follow a record differ. */
enum relay_kind_t {
    RELAY_REQUEST,  /* `len` bytes from the client have come, of which `kept` follow */
    RELAY_RESPONSE, /* the same from the module */
    RELAY_CLOSE,    /* the connection has ended; `len` is one of relay_end_t */
    RELAY_WATCHING, /* the relay stands in for the module */
    RELAY_LEFT,     /* the module has ended, or has put a new socket in its place */
    RELAY_WAITING,  /* the module does not run yet */
    RELAY_LOST,     /* what `len` connections brought could not be told: nobody has read for too long */
    RELAY_FAILED,   /* the relay ends; the text that follows, `kept` bytes, says why */
    RELAY_RESTORED  /* all modules have their places back */
};

enum relay_end_t {
    RELAY_CLIENT_CLOSED,
    RELAY_MODULE_CLOSED,
    RELAY_MODULE_AWAY,
    RELAY_UNTOLD /* not all that the connection brought was told */
};

/* A record, in host byte order. */
struct relay_record_t {
    uint32_t kind;
    uint32_t module;
    uint64_t connection; /* numbered from 1 on */
    uint64_t uptime;     /* nanoseconds of the monotonic clock */
    uint64_t clock;      /* nanoseconds since 1970 */
    uint32_t len;
    uint32_t kept;
};

/*
 * Starts the relay for the modules whose bits are set (bit 1 for module 1). Of what a connection brings in one
 * direction, the first `snap` bytes are told.
 * @return the socket on which it tells, closed when it is to end; -1 with errno
 */
int relay_start(uint32_t modules, size_t snap);

/* Gives modules their places back whose relay was killed. */
void relay_repair(uint32_t modules);

#endif
