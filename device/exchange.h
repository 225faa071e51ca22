/* SPDX-FileCopyrightText: 2026 the libfrwk authors */
/* SPDX-License-Identifier: MIT */

/*
 * The requests that pass a module's socket and their responses, as the relay tells of them: bytes put together to
 * frames.
 *
 * A frame is a header of frwk_ipc.h and the bytes that it announces, in host byte order. A connection brings one
 * request and one response; an asynchronous request is acknowledged by a response of 8 zero bytes.
 */
#ifndef EXCHANGE_H
#define EXCHANGE_H

#include <frwk.h>

#include <stddef.h>

struct frame_t {
    uint8_t *bytes; /* the first of them */
    size_t kept;
    size_t len;      /* passed in all */
    uint64_t uptime; /* when the last byte passed: nanoseconds of the monotonic clock */
    uint64_t clock;  /* nanoseconds since 1970 */
    bool whole;
};

enum exchange_fault_t {
    EXCHANGE_SOUND,
    EXCHANGE_NO_REQUEST,  /* the connection ended before the request was whole */
    EXCHANGE_NO_RESPONSE, /* the module closed it without a whole response */
    EXCHANGE_GIVEN_UP,    /* the client closed it before the response was whole */
    EXCHANGE_NO_MODULE    /* the module could not be reached any more */
};

struct exchange_t {
    uint64_t connection;
    uint32_t to;
    frame_t request;
    frame_t response;
    frwk_ipc_reqhdr_t asked;    /* zero until the request's header has passed */
    frwk_ipc_rsphdr_t answered; /* the same */
    exchange_fault_t fault;
    exchange_t *next;
};

/* What happens meanwhile; any may be null. */
struct exchange_observer_t {
    void (*request)(const exchange_t *exchange);  /* the request is whole */
    void (*response)(const exchange_t *exchange); /* the response is whole */
    void (*failed)(const exchange_t *exchange);   /* it ended with a fault */
    void (*turn)();                               /* all that had come is told: a time to flush */
    bool (*stopped)();                            /* asked before each wait: whether to end */
    int out;                                      /* where it is written: ends when nobody reads; -1 for a file */
};

/* What came in all. */
struct exchange_count_t {
    uint64_t lost; /* exchanges that passed but could not be told */
    uint64_t open; /* without an answer at the end */
};

/* What a fault says about the exchange: "no answer"; null for none. */
const char *exchange_fault(exchange_fault_t fault);

/* Bytes behind the header that have passed. */
size_t exchange_body(const frame_t *frame, size_t header);

/*
 * Relays the modules' connections until SIGINT, SIGTERM or SIGHUP comes or the observer stops it, and tells of each;
 * what else happens is said on standard error. `names` are those of modules, all that can be asked when there are none.
 * Of each frame `snap` bytes are kept. Ends the program when it cannot be done.
 */
exchange_count_t exchange_watch(int count, char **names, size_t snap, const exchange_observer_t *observer);

#endif
