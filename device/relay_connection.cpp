/* SPDX-FileCopyrightText: 2026 the libfrwk authors */
/* SPDX-License-Identifier: MIT */

/*
 * Connections that are passed on: what comes from one side goes to the other, and so does its end.
 */
#include "relay_parts.h"
#include "stand_in.h"
#include <frwk.h>

#include <errno.h>
#include <poll.h>
#include <stdlib.h>
#include <string.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

/* Milliseconds. */
enum {
    FRAME_PATIENCE = 20, /* for the rest of a request before the module is connected */
    RETRY_PERIOD = 1     /* while the module's queue of connections is full */
};

constexpr size_t CHUNK = size_t{1} << 18;    /* read at once */
constexpr size_t HELD_MAX = size_t{1} << 20; /* of a request that is not whole, before the module is connected */

enum side_name_t { CLIENT, MODULE };

/*
 * One end of a connection, and what was read there. Where a frame is whole, its last byte stays in the socket: when the
 * other end resets the connection, closing with an unread byte resets it here as well. It is taken before an end in
 * order. Not sooner: the kernel counts a block of which one byte is left as a whole, and whoever has more to send might
 * wait for room for ever.
 */
struct side_t {
    source_t source;
    struct connection_t *connection;
    bytes_t unsent;                          /* read here, not yet taken by the other side */
    uint64_t seen;                           /* bytes read here */
    uint8_t head[sizeof(frwk_ipc_reqhdr_t)]; /* the first of them */
    bool byte_left;
    bool ended;      /* sends no more */
    bool gone;       /* has closed */
    bool reset;      /* has closed with bytes unread */
    bool passed_end; /* the other side knows that this one has ended */
    bool wants_room; /* waits until it can be written to */
};

struct connection_t {
    frwk_list_t node;
    uint64_t number;
    uint32_t place;
    bool told;  /* what it brings is told */
    bool known; /* something of it was */
    int64_t opened;
    int to_module; /* until it is connected */
    side_t side[2];
};

static frwk_list_t s_relayed;
static frwk_list_t s_waiting; /* those whose module is not connected */
static frwk_list_t s_finished;
static uint64_t s_numbered;
static size_t s_snap;
static uint8_t s_chunk[CHUNK];

static side_name_t name_of(const side_t *side)
{
    return side == &side->connection->side[CLIENT] ? CLIENT : MODULE;
}

static side_t *other_side(side_t *side)
{
    return &side->connection->side[name_of(side) == CLIENT ? MODULE : CLIENT];
}

static bool is_finished(const connection_t *connection)
{
    return connection->side[CLIENT].source.fd < 0;
}

/* What a connection brings is told from its begin on or not at all. What cannot be told to its end is said to be so. */
static void tell_bytes(connection_t *connection, side_name_t from, const uint8_t *bytes, size_t len)
{
    side_t *side = &connection->side[from];
    size_t kept = side->seen >= s_snap ? 0 : s_snap - static_cast<size_t>(side->seen);
    side->seen += len;
    kept = kept < len ? kept : len;
    if (!connection->told) {
        return;
    }
    connection->told = (connection->known || !news_are_late()) &&
                       news_add(from == CLIENT ? RELAY_REQUEST : RELAY_RESPONSE, connection->place, connection->number,
                                static_cast<uint32_t>(len), bytes, kept);
    connection->known = connection->known || connection->told;
    if (!connection->known) {
        news_lost();
    }
}

/* Closes both sides, in order unless the other one was reset. */
static void finish(connection_t *connection, relay_end_t end)
{
    for (side_t &side : connection->side) {
        if (side.source.fd >= 0 && side.byte_left && !other_side(&side)->reset && end != RELAY_MODULE_AWAY) {
            uint8_t last;
            (void)!recv(side.source.fd, &last, 1, MSG_DONTWAIT);
        }
    }
    if (connection->to_module >= 0) {
        close(connection->to_module);
    }
    for (side_t &side : connection->side) {
        source_close(&side.source);
        free(side.unsent.data);
        side.unsent = {};
    }
    if (connection->known) {
        news_add(RELAY_CLOSE, connection->place, connection->number, connection->told ? end : RELAY_UNTOLD, nullptr, 0);
    }
    frwk_list_del(&connection->node);
    frwk_list_add(&s_finished, &connection->node); /* an event of this turn may still name it */
}

/* Events come once, since what cannot be passed on now must not wake the relay again and again. */
static uint32_t events_of(bool room)
{
    return EPOLLIN | EPOLLRDHUP | EPOLLET | (room ? uint32_t{EPOLLOUT} : 0u);
}

static void want_room(side_t *side, bool wanted)
{
    if (side->wants_room != wanted) {
        source_change(&side->source, events_of(wanted));
        side->wants_room = wanted;
    }
}

/* Writes to one side what the other has sent; the number of bytes that it took or that it will never take. */
static size_t write_to(side_t *side, const uint8_t *bytes, size_t len)
{
    size_t sent = 0;
    while (sent < len) {
        ssize_t taken = send(side->source.fd, bytes + sent, len - sent, MSG_NOSIGNAL | MSG_DONTWAIT);
        if (taken > 0) {
            sent += static_cast<size_t>(taken);
        } else if (errno == EAGAIN) {
            return sent;
        } else if (errno != EINTR) {
            shutdown(other_side(side)->source.fd, SHUT_RD); /* nobody reads: its next write fails as well */
            return len;
        }
    }
    return sent;
}

/* Passes on what was read on a side and what has become of it. */
static void pass_on(side_t *side)
{
    connection_t *connection = side->connection;
    side_t *other = other_side(side);
    if (side->unsent.len > 0) {
        bytes_drop_front(&side->unsent, write_to(other, side->unsent.data, side->unsent.len));
    }
    want_room(other, side->unsent.len > 0);
    if (side->unsent.len > 0 && !other->gone) {
        return;
    }
    if (side->ended && !side->passed_end && !side->reset) { /* a reset must not look like an end first */
        side->passed_end = true;
        shutdown(other->source.fd, SHUT_WR);
    }
    if (side->gone || (side->passed_end && other->passed_end)) {
        finish(connection, name_of(side) == CLIENT ? RELAY_CLIENT_CLOSED : RELAY_MODULE_CLOSED);
    }
}

/* The length of the frame that is read on a side; 0 until its header is there. */
static uint64_t frame_len(const side_t *side)
{
    const bool asks = name_of(side) == CLIENT;
    const size_t size = asks ? sizeof(frwk_ipc_reqhdr_t) : sizeof(frwk_ipc_rsphdr_t);
    int32_t body;
    memcpy(&body, side->head + (asks ? offsetof(frwk_ipc_reqhdr_t, msg_len) : offsetof(frwk_ipc_rsphdr_t, msg_len)),
           sizeof body);
    return side->seen < size ? 0 : size + static_cast<uint64_t>(body > 0 ? body : 0);
}

/* Whether the client has sent its request, or so much of it that the module must take some. */
static bool is_whole(const side_t *client)
{
    uint64_t len = frame_len(client);
    return client->ended || client->unsent.len >= HELD_MAX || (len > 0 && client->seen >= len);
}

static void read_on(side_t *side);
static void serve_side(source_t *source, uint32_t events);

/*
 * Connects the module once the request is whole, so that it finds the request as if it came from the client itself, or
 * when the client takes its time. `false`: to be tried again.
 */
static bool connect_module(connection_t *connection, int64_t now)
{
    side_t *client = &connection->side[CLIENT];
    side_t *module = &connection->side[MODULE];
    if (!is_whole(client) && now - connection->opened < FRAME_PATIENCE) {
        return false;
    }
    if (!stand_in_connect(connection->to_module, place_module_path(connection->place))) {
        if (errno == EAGAIN) {
            return false;
        }
        finish(connection, RELAY_MODULE_AWAY);
        place_is_dead(connection->place);
        return true;
    }
    frwk_list_del(&connection->node);
    frwk_list_add(&s_relayed, &connection->node);
    bool watched = source_watch(&module->source, connection->to_module, events_of(false), serve_side);
    connection->to_module = -1;
    if (!watched) {
        finish(connection, RELAY_MODULE_AWAY);
        return true;
    }
    bool more = client->unsent.len >= HELD_MAX;
    pass_on(client);
    if (more) {
        read_on(client);
    }
    return true;
}

/* Whether a side's bytes can be taken now: none are waiting, or the module is not connected yet. */
static bool can_read(const connection_t *connection, const side_t *side)
{
    return connection->side[MODULE].source.fd < 0 ? side->unsent.len < HELD_MAX : side->unsent.len == 0;
}

/* One read from a side, handed to the other; false when there was nothing. */
static bool read_once(connection_t *connection, side_t *side)
{
    side_t *other = other_side(side);
    ssize_t got = recv(side->source.fd, s_chunk, CHUNK, MSG_PEEK | MSG_DONTWAIT);
    if (got < 0) {
        if (errno == ECONNRESET) {
            side->ended = side->gone = side->reset = true;
        }
        return false;
    }
    size_t known = side->byte_left ? 1 : 0;
    size_t len = static_cast<size_t>(got) - (got > 0 ? known : 0);
    if (len == 0) {
        side->ended = side->ended || got == 0;
        return false;
    }
    const uint8_t *bytes = s_chunk + known;
    for (size_t i = 0; i < len && side->seen + i < sizeof side->head; i++) {
        side->head[side->seen + i] = bytes[i];
    }
    tell_bytes(connection, name_of(side), bytes, len);
    side->byte_left = side->seen == frame_len(side);
    size_t taken = static_cast<size_t>(got) - (side->byte_left ? 1 : 0);
    if (taken > 0) {
        (void)!recv(side->source.fd, s_chunk, taken, MSG_DONTWAIT); /* the same bytes again */
    }
    size_t sent = other->source.fd < 0 || side->unsent.len > 0 ? 0 : write_to(other, bytes, len);
    if (sent < len && !bytes_append(&side->unsent, bytes + sent, len - sent)) {
        side->ended = side->gone = side->reset = true; /* out of memory: better an end than a gap */
        return false;
    }
    return true;
}

/* Reads a side until there is no more, which is true, or the other side does not keep up. */
static bool read_side(side_t *side, uint32_t events)
{
    connection_t *connection = side->connection;
    if ((events & EPOLLERR) != 0) {
        int cause = 0;
        socklen_t size = sizeof cause;
        getsockopt(side->source.fd, SOL_SOCKET, SO_ERROR, &cause, &size);
        side->reset = side->reset || cause == ECONNRESET;
    }
    bool empty = false;
    while (!empty && can_read(connection, side)) {
        empty = !read_once(connection, side);
    }
    /* The byte that is left hides the end of the stream: epoll tells of it. What is still to be read comes first. */
    if (empty && (events & (EPOLLRDHUP | EPOLLHUP)) != 0) {
        side->ended = true;
        side->gone = side->gone || (events & EPOLLHUP) != 0;
    }
    return empty;
}

/* Reads a side and passes on what came. Events come once: it goes on until one of the two sides has to be waited for.
 */
static void relay_side(side_t *side, uint32_t events)
{
    bool empty = false;
    while (!empty && !is_finished(side->connection) && side->unsent.len == 0) {
        empty = read_side(side, events);
        pass_on(side);
    }
}

/* Reads what came while the other side did not keep up. Events that told of it are gone, so the socket is asked. */
static void read_on(side_t *side)
{
    if (!is_finished(side->connection) && side->unsent.len == 0) {
        struct pollfd state = {side->source.fd, POLLIN | POLLRDHUP, 0};
        poll(&state, 1, 0);
        relay_side(side, static_cast<uint32_t>(state.revents));
    }
}

static void serve_side(source_t *source, uint32_t events)
{
    side_t *side = frwk_list_entry(source, side_t, source);
    connection_t *connection = side->connection;
    side_t *other = other_side(side);
    if (connection->side[MODULE].source.fd < 0) {
        read_side(side, events);
        connect_module(connection, relay_now());
        return;
    }
    if ((events & EPOLLOUT) != 0 && other->unsent.len > 0) {
        pass_on(other);
        read_on(other);
    }
    relay_side(side, events);
}

/* --- all of them ------------------------------------------------------------------------------------------------ */

void connections_open(size_t snap)
{
    s_snap = snap;
    frwk_list_init(&s_relayed);
    frwk_list_init(&s_waiting);
    frwk_list_init(&s_finished);
}

void connection_accept(uint32_t id, int client, int module)
{
    connection_t *connection = static_cast<connection_t *>(calloc(1, sizeof *connection));
    if (connection == nullptr) {
        close(client);
        close(module);
        return;
    }
    connection->to_module = module;
    connection->number = ++s_numbered;
    connection->place = id;
    connection->told = true;
    connection->opened = relay_now();
    for (side_t &side : connection->side) {
        side.connection = connection;
        side.source.fd = -1;
    }
    frwk_list_add(&s_waiting, &connection->node);
    if (!source_watch(&connection->side[CLIENT].source, client, events_of(false), serve_side)) {
        finish(connection, RELAY_MODULE_AWAY); /* the kernel lacks memory */
    }
}

int connections_look()
{
    int wait = -1;
    int64_t now = relay_now();
    frwk_list_for_each_safe (node, &s_waiting) {
        connection_t *connection = frwk_list_entry(node, connection_t, node);
        if (!connect_module(connection, now)) {
            int64_t patience = connection->opened + FRAME_PATIENCE - now;
            bool due = is_whole(&connection->side[CLIENT]) || patience <= 0;
            wait = relay_sooner(wait, due ? int{RETRY_PERIOD} : static_cast<int>(patience));
        }
    }
    frwk_list_for_each_safe (finished, &s_finished) {
        frwk_list_del(finished);
        free(frwk_list_entry(finished, connection_t, node));
    }
    return wait;
}

bool connections_done()
{
    return frwk_list_empty(&s_relayed) && frwk_list_empty(&s_waiting);
}
