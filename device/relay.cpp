/* SPDX-FileCopyrightText: 2026 the libfrwk authors */
/* SPDX-License-Identifier: MIT */

#include "relay.h"

#include "device.h"
#include "stand_in.h"

#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <poll.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/epoll.h>
#include <sys/inotify.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

/* Milliseconds. */
enum {
    LOCK_PATIENCE = 3000, /* for another relay that leaves */
    FRAME_PATIENCE = 20,  /* for the rest of a request before the module is connected */
    RETRY_PERIOD = 1,     /* while the module's queue of connections is full */
    LATE_CLIENTS = 2000,  /* for clients that found the stand-in just before it left */
    NO_DESCRIPTOR_PAUSE = 10,
    LOOK_PERIOD = 20,       /* for a socket that is there but not listened on, while something has just changed */
    LOOK_PERIOD_IDLE = 500, /* the same later on */
    LOOK_OFTEN = 2000,      /* how long that is */
    HOUSEKEEPING = 50
};
enum { EVENTS = 64, OLD_LISTENERS = 16, TOLD_ROOM = 1024 * 1024 /* in the socket */ };

constexpr size_t CHUNK = 256 * 1024;          /* read at once */
constexpr size_t HELD_MAX = 1024 * 1024;      /* of a request that is not whole, before the module is connected */
constexpr size_t TOLD_MAX = 32 * 1024 * 1024; /* untold records */

/* --- what epoll watches --------------------------------------------------------------------------------------------
 */

enum source_kind_t { FROM_TOOL, FROM_DIRECTORY, FROM_LISTENER, FROM_PROCESS, FROM_PROBE, FROM_PEER };

struct source_t {
    source_kind_t kind;
    int fd;
};

enum side_name_t { CLIENT, MODULE };

struct bytes_t {
    uint8_t *data;
    size_t len;
    size_t room;
};

/*
 * One end of a connection, and what was read there. The last byte that was read stays in the socket: when the
 * other end resets the connection, closing with an unread byte resets it here as well. It is taken before an end in
 * order.
 */
struct side_t {
    source_t source;
    struct connection_t *connection;
    bytes_t unsent; /* read here, not yet taken by the other side */
    uint64_t seen;  /* bytes read here */
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
    side_t side[2];
};

struct place_t {
    stand_in_t at;
    source_t listener;
    source_t process;
    bool told_waiting;
    bool used;
};

struct old_listener_t {
    source_t source;
    uint32_t place;
    int64_t until;
};

static struct {
    int epoll;
    source_t tool;
    source_t directory;
    place_t places[FRWK_MODULE_MAX];
    old_listener_t old[OLD_LISTENERS];
    frwk_list_t connections;
    frwk_list_t waiting; /* connections whose module is not connected */
    frwk_list_t finished;
    uint64_t numbered;
    size_t snap;
    bytes_t untold;
    size_t untold_sent; /* of these */
    bool tool_full;     /* it does not take more right now */
    bool tool_gone;
    uint32_t lost;
    int64_t changed; /* when something last happened in the directory */
    int64_t ending;  /* when the places were given back; 0 before */
} s_relay;

static uint8_t s_chunk[CHUNK];
static volatile sig_atomic_t s_terminated;

static uint64_t read_clock(clockid_t clock)
{
    timespec now;
    clock_gettime(clock, &now);
    return static_cast<uint64_t>(now.tv_sec) * 1000000000u + static_cast<uint64_t>(now.tv_nsec);
}

static int64_t now_ms()
{
    return static_cast<int64_t>(read_clock(CLOCK_MONOTONIC) / 1000000);
}

static bool watch(source_t *source, source_kind_t kind, int fd, uint32_t events)
{
    epoll_event event = {};
    event.events = events;
    event.data.ptr = source;
    source->kind = kind;
    source->fd = fd;
    return epoll_ctl(s_relay.epoll, EPOLL_CTL_ADD, fd, &event) == 0;
}

static void forget(source_t *source)
{
    if (source->fd >= 0) {
        close(source->fd); /* which takes it out of epoll */
        source->fd = -1;
    }
}

static bool append(bytes_t *bytes, const void *data, size_t len)
{
    if (len > bytes->room - bytes->len) {
        size_t room = bytes->room * 2 > bytes->len + len ? bytes->room * 2 : bytes->len + len;
        uint8_t *grown = static_cast<uint8_t *>(realloc(bytes->data, room));
        if (grown == nullptr) {
            return false;
        }
        bytes->data = grown;
        bytes->room = room;
    }
    memcpy(bytes->data + bytes->len, data, len);
    bytes->len += len;
    return true;
}

static void drop_front(bytes_t *bytes, size_t len)
{
    enum { ROOM_KEPT = 65536 };
    bytes->len -= len;
    if (bytes->len > 0 && len > 0) {
        memmove(bytes->data, bytes->data + len, bytes->len);
    } else if (bytes->len == 0 && bytes->room > ROOM_KEPT) {
        free(bytes->data);
        *bytes = {};
    }
}

/* --- telling -------------------------------------------------------------------------------------------------------
 */

static bool tell(relay_kind_t kind, uint32_t module, uint64_t connection, uint32_t len, const void *kept,
                 size_t kept_len)
{
    if (s_relay.tool_gone) {
        return true;
    }
    relay_record_t record = {kind,
                             module,
                             connection,
                             read_clock(CLOCK_MONOTONIC),
                             read_clock(CLOCK_REALTIME),
                             len,
                             static_cast<uint32_t>(kept_len)};
    bytes_t *untold = &s_relay.untold;
    size_t before = untold->len;
    if (!append(untold, &record, sizeof record)) {
        return false;
    }
    if (kept_len > 0 && !append(untold, kept, kept_len)) {
        untold->len = before;
        return false;
    }
    return true;
}

/* What a connection brings is told from its begin to its end or not at all; its end is told in any case. */
static void tell_bytes(connection_t *connection, side_name_t from, const uint8_t *bytes, size_t len)
{
    side_t *side = &connection->side[from];
    size_t kept = side->seen >= s_relay.snap ? 0 : s_relay.snap - static_cast<size_t>(side->seen);
    side->seen += len;
    if (!connection->told) {
        return;
    }
    kept = kept < len ? kept : len;
    if (s_relay.untold.len - s_relay.untold_sent > TOLD_MAX ||
        !tell(from == CLIENT ? RELAY_REQUEST : RELAY_RESPONSE, connection->place, connection->number,
              static_cast<uint32_t>(len), bytes, kept)) {
        connection->told = false;
        s_relay.lost++;
        return;
    }
    connection->known = true;
}

static void give_places_back();

static void nobody_reads()
{
    s_relay.tool_gone = true;
    free(s_relay.untold.data);
    s_relay.untold = {};
    s_relay.untold_sent = 0;
    give_places_back();
}

/* Asks epoll for news of the tool, and for room when it has none. */
static void watch_tool(uint32_t events)
{
    epoll_event event = {};
    event.events = events;
    event.data.ptr = &s_relay.tool;
    epoll_ctl(s_relay.epoll, EPOLL_CTL_MOD, s_relay.tool.fd, &event);
}

/* Hands on what is to be told, as far as somebody reads; what cannot be taken now waits for the next turn. */
static void flush_told()
{
    bytes_t *untold = &s_relay.untold;
    if (s_relay.lost > 0 && untold->len - s_relay.untold_sent < TOLD_MAX / 2 &&
        tell(RELAY_LOST, 0, 0, s_relay.lost, nullptr, 0)) {
        s_relay.lost = 0;
    }
    bool full = false;
    while (s_relay.untold_sent < untold->len && !full) {
        ssize_t taken = send(s_relay.tool.fd, untold->data + s_relay.untold_sent, untold->len - s_relay.untold_sent,
                             MSG_NOSIGNAL | MSG_DONTWAIT);
        full = taken < 0 && errno == EAGAIN;
        if (taken < 0 && errno != EAGAIN && errno != EINTR) {
            nobody_reads();
            return;
        }
        s_relay.untold_sent += taken > 0 ? static_cast<size_t>(taken) : 0;
    }
    if (s_relay.untold_sent >= untold->len - s_relay.untold_sent) { /* not sooner: what is left is moved */
        drop_front(untold, s_relay.untold_sent);
        s_relay.untold_sent = 0;
    }
    if (full != s_relay.tool_full) {
        watch_tool((s_relay.ending == 0 ? uint32_t{EPOLLIN} : 0u) | (full ? uint32_t{EPOLLOUT} : 0u));
        s_relay.tool_full = full;
    }
}

/* --- connections ---------------------------------------------------------------------------------------------------
 */

static void finish(connection_t *connection, relay_end_t end)
{
    for (side_t &side : connection->side) {
        if (side.source.fd >= 0 && side.byte_left) {
            side_t *other = &connection->side[&side == &connection->side[CLIENT] ? MODULE : CLIENT];
            if (!other->reset && end != RELAY_MODULE_AWAY) {
                uint8_t last;
                (void)!recv(side.source.fd, &last, 1, MSG_DONTWAIT);
            }
        }
    }
    for (side_t &side : connection->side) {
        forget(&side.source);
        free(side.unsent.data);
        side.unsent = {};
    }
    if (connection->known) {
        tell(RELAY_CLOSE, connection->place, connection->number, end, nullptr, 0);
    }
    frwk_list_del(&connection->node);
    frwk_list_add(&s_relay.finished, &connection->node); /* an event of this turn may still name it */
}

static bool is_finished(const connection_t *connection)
{
    return connection->side[CLIENT].source.fd < 0;
}

static side_t *other_side(side_t *side)
{
    side_t *sides = side->connection->side;
    return side == &sides[CLIENT] ? &sides[MODULE] : &sides[CLIENT];
}

static side_name_t name_of(const side_t *side)
{
    return side == &side->connection->side[CLIENT] ? CLIENT : MODULE;
}

static void want_room(side_t *side, bool wanted)
{
    if (side->wants_room != wanted) {
        epoll_event event = {};
        event.events = EPOLLIN | EPOLLRDHUP | EPOLLET | (wanted ? uint32_t{EPOLLOUT} : 0u);
        event.data.ptr = &side->source;
        epoll_ctl(s_relay.epoll, EPOLL_CTL_MOD, side->source.fd, &event);
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
        drop_front(&side->unsent, write_to(other, side->unsent.data, side->unsent.len));
    }
    want_room(other, side->unsent.len > 0);
    if (side->unsent.len > 0 && !other->gone) {
        return;
    }
    if (side->ended && !side->passed_end) {
        side->passed_end = true;
        shutdown(other->source.fd, SHUT_WR);
    }
    if (side->gone || (side->passed_end && other->passed_end)) {
        finish(connection, name_of(side) == CLIENT ? RELAY_CLIENT_CLOSED : RELAY_MODULE_CLOSED);
    }
}

/* Whether the client has sent its request as far as its header tells of it. */
static bool is_whole(const side_t *client)
{
    frwk_ipc_reqhdr_t header;
    if (client->ended || client->unsent.len >= HELD_MAX) {
        return true;
    }
    if (client->unsent.len < sizeof header) {
        return false;
    }
    memcpy(&header, client->unsent.data, sizeof header);
    return header.msg_len <= 0 || client->unsent.len - sizeof header >= static_cast<size_t>(header.msg_len);
}

static void leave_place(uint32_t id);
static void read_on(side_t *side);

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
    int fd = stand_in_connect(stand_in_module_path(&s_relay.places[connection->place].at));
    if (fd < 0 && (errno == EAGAIN || errno == EMFILE || errno == ENFILE || errno == ENOBUFS || errno == ENOMEM)) {
        return false;
    }
    if (fd < 0) {
        finish(connection, RELAY_MODULE_AWAY);
        leave_place(connection->place);
        return true;
    }
    frwk_list_del(&connection->node);
    frwk_list_add(&s_relay.connections, &connection->node);
    watch(&module->source, FROM_PEER, fd, EPOLLIN | EPOLLRDHUP | EPOLLET);
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
    if (got > 1) {
        (void)!recv(side->source.fd, s_chunk, static_cast<size_t>(got) - 1, MSG_DONTWAIT); /* the same bytes again */
    }
    side->byte_left = true;
    tell_bytes(connection, name_of(side), bytes, len);
    size_t sent = other->source.fd < 0 || side->unsent.len > 0 ? 0 : write_to(other, bytes, len);
    if (sent < len && !append(&side->unsent, bytes + sent, len - sent)) {
        side->ended = side->gone = side->reset = true; /* out of memory: better an end than a gap */
        return false;
    }
    return true;
}

/* Reads a side until there is no more, or the other side does not keep up. */
static void read_side(side_t *side, uint32_t events)
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
}

/* Reads what came while the other side did not keep up. Events that told of it are gone, so the socket is asked. */
static void read_on(side_t *side)
{
    if (is_finished(side->connection) || side->unsent.len > 0) {
        return;
    }
    struct pollfd state = {side->source.fd, POLLIN | POLLRDHUP, 0};
    poll(&state, 1, 0);
    read_side(side, static_cast<uint32_t>(state.revents));
    pass_on(side);
}

static void serve_side(side_t *side, uint32_t events)
{
    connection_t *connection = side->connection;
    side_t *other = other_side(side);
    if (is_finished(connection)) {
        return;
    }
    if ((events & EPOLLOUT) != 0 && other->unsent.len > 0) {
        pass_on(other);
        read_on(other);
    }
    if (is_finished(connection)) {
        return;
    }
    read_side(side, events);
    if (connection->side[MODULE].source.fd >= 0) {
        pass_on(side);
    } else {
        connect_module(connection, now_ms());
    }
}

/* --- clients -------------------------------------------------------------------------------------------------------
 */

static void open_connection(uint32_t id, int fd)
{
    connection_t *connection = static_cast<connection_t *>(calloc(1, sizeof *connection));
    if (connection == nullptr) {
        close(fd);
        return;
    }
    connection->number = ++s_relay.numbered;
    connection->place = id;
    connection->told = true;
    connection->opened = now_ms();
    for (side_t &side : connection->side) {
        side.connection = connection;
        side.source = {FROM_PEER, -1};
    }
    side_t *client = &connection->side[CLIENT];
    frwk_list_add(&s_relay.waiting, &connection->node);
    watch(&client->source, FROM_PEER, fd, EPOLLIN | EPOLLRDHUP | EPOLLET);
}

static void accept_clients(uint32_t id, int listener)
{
    for (;;) {
        int fd = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
        if (fd >= 0) {
            open_connection(id, fd);
        } else if (errno == EMFILE || errno == ENFILE) {
            frwk_sleep(NO_DESCRIPTOR_PAUSE); /* they stay queued: do not spin on them */
            return;
        } else if (errno != EINTR && errno != ECONNABORTED) {
            return;
        }
    }
}

/* --- places --------------------------------------------------------------------------------------------------------
 */

/* Keeps a listener that has no name any more for those who found it before. */
static void keep_old_listener(uint32_t id, int fd)
{
    old_listener_t *oldest = &s_relay.old[0];
    for (old_listener_t &old : s_relay.old) {
        if (old.until < oldest->until) {
            oldest = &old;
        }
    }
    if (oldest->until != 0) {
        accept_clients(oldest->place, oldest->source.fd);
        forget(&oldest->source);
    }
    accept_clients(id, fd);
    oldest->place = id;
    oldest->until = now_ms() + LATE_CLIENTS;
    oldest->source = {FROM_LISTENER, fd};
    epoll_event event = {};
    event.events = EPOLLIN;
    event.data.ptr = &oldest->source;
    epoll_ctl(s_relay.epoll, EPOLL_CTL_MOD, fd, &event);
}

static void close_old_listeners(int64_t now)
{
    for (old_listener_t &old : s_relay.old) {
        if (old.until != 0 && now >= old.until) {
            accept_clients(old.place, old.source.fd);
            forget(&old.source);
            old.until = 0;
        }
    }
}

/* A module that ends takes its connections with it; the relay must not answer in its name. */
static void watch_process(place_t *place)
{
    pid_t pid = device_lock_holder(place->at.id);
    int fd = pid > 0 ? static_cast<int>(syscall(SYS_pidfd_open, pid, 0)) : -1;
    if (fd >= 0) {
        watch(&place->process, FROM_PROCESS, fd, EPOLLIN);
    } else if (pid > 0 && errno == ESRCH) {
        leave_place(place->at.id);
    }
}

/* Ends the relay: something makes it impossible to stand in. */
static void fail(uint32_t id, const char *fault)
{
    tell(RELAY_FAILED, id, 0, 0, fault, strlen(fault));
    give_places_back();
}

static void enter_place(uint32_t id)
{
    place_t *place = &s_relay.places[id];
    static source_t probes[FRWK_MODULE_MAX];
    int probe;
    int listener = place->listener.fd;
    const char *fault = stand_in_enter(&place->at, &probe);
    if (probe >= 0) {
        forget(&probes[id]);
        watch(&probes[id], FROM_PROBE, probe, EPOLLIN);
    }
    if (fault != nullptr) {
        fail(id, fault);
    } else if (place->at.standing) {
        if (listener != place->at.listener) {
            watch(&place->listener, FROM_LISTENER, place->at.listener, EPOLLIN);
        }
        tell(RELAY_WATCHING, id, 0, 0, nullptr, 0);
        watch_process(place);
    } else if (!place->told_waiting) {
        tell(RELAY_WAITING, id, 0, 0, nullptr, 0);
    }
    place->told_waiting = true;
}

/* The name of the module's socket shows another file: it has started anew. */
static void lose_place(uint32_t id, int listener)
{
    place_t *place = &s_relay.places[id];
    place->listener.fd = -1;
    forget(&place->process);
    keep_old_listener(id, listener);
    tell(RELAY_LEFT, id, 0, 0, nullptr, 0);
}

static void leave_place(uint32_t id)
{
    place_t *place = &s_relay.places[id];
    int old_listener;
    s_relay.changed = now_ms();
    if (stand_in_check(&place->at, &old_listener) == STAND_IN_TAKEN) {
        lose_place(id, old_listener);
    } else if (place->at.standing) {
        stand_in_leave(&place->at);
        forget(&place->process);
        tell(RELAY_LEFT, id, 0, 0, nullptr, 0);
    }
}

/* Looks which places are lost, and which can be taken. */
static void check_places()
{
    for (uint32_t id = 1; id < FRWK_MODULE_MAX && s_relay.ending == 0; id++) {
        place_t *place = &s_relay.places[id];
        int old_listener;
        if (!place->used) {
            continue;
        }
        if (stand_in_check(&place->at, &old_listener) == STAND_IN_TAKEN) {
            lose_place(id, old_listener);
        }
        if (!place->at.standing) {
            enter_place(id);
        }
    }
}

/*
 * When to look again, since nothing tells when a module begins to listen on the socket that it has made; -1 while all
 * places are taken.
 */
static int look_again(int64_t now)
{
    for (const place_t &place : s_relay.places) {
        if (place.used && !place.at.standing && s_relay.ending == 0) {
            return now - s_relay.changed < LOOK_OFTEN ? LOOK_PERIOD : LOOK_PERIOD_IDLE;
        }
    }
    return -1;
}

static void give_places_back()
{
    if (s_relay.ending != 0) {
        return;
    }
    s_relay.ending = now_ms();
    watch_tool(s_relay.tool_full ? uint32_t{EPOLLOUT} : 0u);
    for (place_t &place : s_relay.places) {
        if (place.used) {
            stand_in_close(&place.at);
            forget(&place.process);
        }
    }
    tell(RELAY_RESTORED, 0, 0, 0, nullptr, 0);
}

/* --- the process ---------------------------------------------------------------------------------------------------
 */

static void serve(source_t *source, uint32_t events)
{
    char news[4096];
    switch (source->kind) {
    case FROM_TOOL:
        if ((events & EPOLLIN) != 0 && recv(source->fd, news, sizeof news, MSG_DONTWAIT) == 0) {
            give_places_back();
        }
        break;
    case FROM_DIRECTORY:
        while (read(source->fd, news, sizeof news) > 0) {
        }
        s_relay.changed = now_ms();
        check_places();
        break;
    case FROM_LISTENER:
        for (uint32_t id = 1; id < FRWK_MODULE_MAX; id++) {
            if (source == &s_relay.places[id].listener) {
                accept_clients(id, source->fd);
            }
        }
        for (const old_listener_t &old : s_relay.old) {
            if (source == &old.source) {
                accept_clients(old.place, source->fd);
            }
        }
        break;
    case FROM_PROCESS:
        for (uint32_t id = 1; id < FRWK_MODULE_MAX; id++) {
            if (source == &s_relay.places[id].process) {
                leave_place(id);
            }
        }
        break;
    case FROM_PROBE:
        forget(source);
        break;
    case FROM_PEER:
        serve_side(frwk_list_entry(source, side_t, source), events);
        break;
    }
}

/* Connects those modules whose time has come. @return milliseconds until the next; -1 for none */
static int connect_waiting()
{
    int wait = -1;
    int64_t now = now_ms();
    frwk_list_for_each_safe (node, &s_relay.waiting) {
        connection_t *connection = frwk_list_entry(node, connection_t, node);
        if (!connect_module(connection, now)) {
            bool full = is_whole(&connection->side[CLIENT]) || now - connection->opened >= FRAME_PATIENCE;
            int due = full ? int{RETRY_PERIOD} : static_cast<int>(connection->opened + FRAME_PATIENCE - now);
            wait = wait < 0 || due < wait ? due : wait;
        }
    }
    return wait;
}

static void free_finished()
{
    frwk_list_for_each_safe (node, &s_relay.finished) {
        frwk_list_del(node);
        free(frwk_list_entry(node, connection_t, node));
    }
}

static bool has_old_listeners()
{
    for (const old_listener_t &old : s_relay.old) {
        if (old.until != 0) {
            return true;
        }
    }
    return false;
}

static bool has_listeners()
{
    for (const place_t &place : s_relay.places) {
        if (place.listener.fd >= 0) {
            return true;
        }
    }
    return has_old_listeners();
}

/* After the end, when no late client can come any more. */
static void close_listeners(int64_t now)
{
    for (place_t &place : s_relay.places) {
        if (place.listener.fd >= 0 && s_relay.ending != 0 && now >= s_relay.ending + LATE_CLIENTS) {
            accept_clients(place.at.id, place.listener.fd);
            forget(&place.listener);
        }
    }
}

static bool is_done()
{
    return s_relay.ending != 0 && !has_listeners() && frwk_list_empty(&s_relay.connections) &&
           frwk_list_empty(&s_relay.waiting);
}

static int sooner(int one, int other)
{
    return one < 0 || (other >= 0 && other < one) ? other : one;
}

static void run_relay()
{
    sigset_t none;
    sigemptyset(&none);
    int64_t looked = now_ms();
    while (!is_done()) {
        int64_t now = now_ms();
        if (s_terminated) {
            give_places_back();
        }
        int look = look_again(now);
        if (look >= 0 && now - looked >= look) {
            looked = now;
            check_places();
        }
        close_old_listeners(now);
        close_listeners(now);
        int wait = sooner(connect_waiting(), look);
        free_finished();
        flush_told();
        epoll_event events[EVENTS];
        int count = epoll_pwait(s_relay.epoll, events, EVENTS,
                                has_old_listeners() || s_relay.ending != 0 ? sooner(wait, HOUSEKEEPING) : wait, &none);
        for (int i = 0; i < count; i++) {
            serve(static_cast<source_t *>(events[i].data.ptr), events[i].events);
        }
    }
    flush_told();
}

static void note_termination(int)
{
    s_terminated = 1;
}

/* Another command line as well: what ends processes by that of the program must not find the relay. */
static void rename_process()
{
    static const char NAME[] = "frwk-relay";
    char line[4096];
    prctl(PR_SET_NAME, NAME);
    int fd = open("/proc/self/cmdline", O_RDONLY | O_CLOEXEC);
    ssize_t len = fd >= 0 ? read(fd, line, sizeof line) : 0;
    close(fd);
    for (ssize_t i = 0; i < len; i++) {
        if (program_invocation_name[i] != line[i]) {
            return; /* not the place where the kernel looks */
        }
    }
    if (len >= static_cast<ssize_t>(sizeof NAME)) {
        memset(program_invocation_name, 0, static_cast<size_t>(len));
        memcpy(program_invocation_name, NAME, sizeof NAME);
    }
}

/*
 * Out of the reach of what ends the program that started it: a session of its own, another name, nothing of what the
 * program had open.
 */
static int detach(int tool)
{
    setsid();
    rename_process();
    struct sigaction action = {};
    action.sa_handler = SIG_IGN;
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGHUP, &action, nullptr);
    action.sa_handler = note_termination;
    sigaction(SIGTERM, &action, nullptr);
    sigset_t waiting; /* for the loop, which lets it come while it waits */
    sigemptyset(&waiting);
    sigaddset(&waiting, SIGTERM);
    sigprocmask(SIG_SETMASK, &waiting, nullptr);
    int null = open("/dev/null", O_RDWR | O_CLOEXEC);
    for (int fd = STDIN_FILENO; fd <= STDERR_FILENO; fd++) {
        dup2(null, fd);
    }
    tool = dup2(tool, STDERR_FILENO + 1);
    fcntl(tool, F_SETFD, FD_CLOEXEC);
    syscall(SYS_close_range, tool + 1, UINT_MAX, 0);
    (void)!chdir("/");
    rlimit files;
    if (getrlimit(RLIMIT_NOFILE, &files) == 0) {
        files.rlim_cur = files.rlim_max;
        setrlimit(RLIMIT_NOFILE, &files);
    }
    return tool;
}

/* Takes all locks or none. */
static bool open_places(uint32_t modules)
{
    for (uint32_t id = 1; id < FRWK_MODULE_MAX; id++) {
        place_t *place = &s_relay.places[id];
        if ((modules & 1u << id) != 0) {
            const char *fault = stand_in_open(&place->at, id, LOCK_PATIENCE);
            if (fault != nullptr) {
                fail(id, fault);
                return false;
            }
            place->used = true;
        }
    }
    return true;
}

[[noreturn]] static void relay_main(int tool, uint32_t modules, size_t snap)
{
    s_relay.snap = snap;
    for (place_t &place : s_relay.places) {
        place.listener.fd = place.process.fd = -1;
        place.at.lock = -1;
    }
    frwk_list_init(&s_relay.connections);
    frwk_list_init(&s_relay.waiting);
    frwk_list_init(&s_relay.finished);
    tool = detach(tool);
    int room = TOLD_ROOM;
    setsockopt(tool, SOL_SOCKET, SO_SNDBUF, &room, sizeof room);
    s_relay.epoll = epoll_create1(EPOLL_CLOEXEC);
    int directory = inotify_init1(IN_CLOEXEC | IN_NONBLOCK);
    if (s_relay.epoll < 0 || directory < 0 || !watch(&s_relay.tool, FROM_TOOL, tool, EPOLLIN) ||
        !watch(&s_relay.directory, FROM_DIRECTORY, directory, EPOLLIN)) {
        _exit(1);
    }
    if (open_places(modules)) {
        /* Watched before it is looked at: nothing that happens in between is missed. */
        inotify_add_watch(directory, "/tmp/odm/ipc", IN_CREATE | IN_MOVED_TO | IN_DELETE);
        check_places();
    }
    run_relay();
    _exit(0);
}

int relay_start(uint32_t modules, size_t snap)
{
    int ends[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0) {
        return -1;
    }
    /* A signal must find the child out of the reach of the terminal. */
    sigset_t all;
    sigset_t before;
    sigfillset(&all);
    sigprocmask(SIG_SETMASK, &all, &before);
    fflush(nullptr);
    pid_t pid = fork();
    if (pid == 0) {
        close(ends[0]);
        relay_main(ends[1], modules, snap);
    }
    int cause = errno;
    sigprocmask(SIG_SETMASK, &before, nullptr);
    close(ends[1]);
    if (pid < 0) {
        close(ends[0]);
        errno = cause;
        return -1;
    }
    return ends[0];
}

void relay_repair(uint32_t modules)
{
    for (uint32_t id = 1; id < FRWK_MODULE_MAX; id++) {
        stand_in_t place;
        if ((modules & 1u << id) != 0 && stand_in_open(&place, id, 0) == nullptr) {
            stand_in_close(&place);
        }
    }
}
