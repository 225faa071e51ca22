/* SPDX-FileCopyrightText: 2026 the libfrwk authors */
/* SPDX-License-Identifier: MIT */

/*
 * The parts of the relay: what it waits for (relay.cpp), what it tells (relay_news.cpp), the modules' places
 * (relay_place.cpp), and the connections that it passes on (relay_connection.cpp).
 */
#ifndef RELAY_PARTS_H
#define RELAY_PARTS_H

#include "relay.h"

#include <stddef.h>
#include <stdint.h>

/* --- what is waited for ---------------------------------------------------------------------------------------- */

struct source_t {
    int fd;                                           /* -1 for none */
    void (*serve)(source_t *source, uint32_t events); /* called with what epoll says */
};

/* Begins to wait for events of epoll(7) at a descriptor. */
bool source_watch(source_t *source, int fd, uint32_t events, void (*serve)(source_t *source, uint32_t events));
/* Waits for others. */
void source_change(source_t *source, uint32_t events);
/* Closes the descriptor, if there is one. */
void source_close(source_t *source);

/* Milliseconds of the monotonic clock. */
int64_t relay_now();

/* The sooner of two numbers of milliseconds to wait; negative ones are for ever. */
int relay_sooner(int one, int other);

/* --- bytes ----------------------------------------------------------------------------------------------------- */

struct bytes_t {
    uint8_t *data;
    size_t len;
    size_t room;
};

bool bytes_append(bytes_t *bytes, const void *data, size_t len);
void bytes_drop_front(bytes_t *bytes, size_t len);

/* --- what is told ---------------------------------------------------------------------------------------------- */

/* Begins to tell on a socket; false when it cannot. `gone` is called once, when the tool wants no more or has ended. */
bool news_open(int tool, void (*gone)());

/* Adds a record; false when memory is short or the tool has not read for too long. */
bool news_add(relay_kind_t kind, uint32_t module, uint64_t connection, uint32_t len, const void *kept, size_t kept_len);

/* Whether so much is untold that nothing new should be begun. */
bool news_are_late();

/* Whether all was told that is to be told, or nobody reads. */
bool news_told();

/* One connection more of which nothing can be told. */
void news_lost();

/* Hands on what is to be told, as far as somebody reads. */
void news_flush();

/* --- places ---------------------------------------------------------------------------------------------------- */

/* Takes the locks of the places of modules, all or none, and those places that can be taken. */
void places_open(uint32_t modules);

/* Takes, checks and leaves places as the time has come for it. @return milliseconds until the next; -1 for none */
int places_look();

/* Gives the modules their places back. */
void places_give_back();

/* Whether they are given back, and nobody can come any more who found a stand-in. */
bool places_left();

/* The name by which the module can be reached. */
const char *place_module_path(uint32_t id);

/* The module was found not to listen any more. */
void place_is_dead(uint32_t id);

/* --- connections ----------------------------------------------------------------------------------------------- */

/* Of what a connection brings in one direction, the first `snap` bytes are told. */
void connections_open(size_t snap);

/* Passes on a client's connection by a socket of stand_in_socket(). */
void connection_accept(uint32_t id, int client, int module);

/* Connects those modules whose time has come. @return milliseconds until the next; -1 for none */
int connections_look();

/* Whether none is left. */
bool connections_done();

#endif
