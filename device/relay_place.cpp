/* SPDX-FileCopyrightText: 2026 the libfrwk authors */
/* SPDX-License-Identifier: MIT */

/*
 * The places of modules: taken while a module listens, given back when it has ended or the relay ends.
 */
#include "device.h"
#include "relay_parts.h"
#include "stand_in.h"

#include <errno.h>
#include <string.h>
#include <sys/epoll.h>
#include <sys/inotify.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

/* Milliseconds. */
enum {
    LOCK_PATIENCE = 3000, /* for another relay that leaves */
    LATE_CLIENTS = 1000,  /* for clients that found a stand-in just before it left */
    NO_DESCRIPTOR_PAUSE = 10,
    LOOK_PERIOD = 20,       /* for a socket that is there but not listened on, while something has just changed */
    LOOK_PERIOD_IDLE = 500, /* the same later on */
    LOOK_OFTEN = 2000,      /* how long that is */
    LATE_PERIOD = 50        /* for the end of LATE_CLIENTS */
};
enum { LATE_MAX = 16 };

struct listener_t {
    source_t source;
    uint32_t id;
    int64_t until; /* when nobody can come any more; 0 while it has a name */
};

struct place_t {
    stand_in_t at;
    listener_t listener;
    source_t process; /* the module's */
    source_t probe;   /* asks it for a sign of life */
    bool used;
    bool told_waiting;
};

static struct {
    place_t places[FRWK_MODULE_MAX];
    listener_t late[LATE_MAX]; /* without a name */
    source_t directory;
    int spare;       /* a socket for the next client's module; -1 */
    int64_t changed; /* when something last happened there */
    int64_t looked;
    int64_t left; /* when the places were given back; 0 before */
} s_here;

const char *place_module_path(uint32_t id)
{
    return stand_in_module_path(&s_here.places[id].at);
}

/* --- listeners ------------------------------------------------------------------------------------------------- */

/*
 * Every client needs a second descriptor, for the module. It is had first: clients that are taken with the last ones
 * would wait for each other.
 */
static void accept_all(const listener_t *listener)
{
    for (;;) {
        if (s_here.spare < 0) {
            s_here.spare = stand_in_socket();
        }
        int client =
            s_here.spare >= 0 ? accept4(listener->source.fd, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK) : -1;
        if (client >= 0) {
            connection_accept(listener->id, client, s_here.spare);
            s_here.spare = -1;
        } else if (errno == EMFILE || errno == ENFILE) {
            frwk_sleep(NO_DESCRIPTOR_PAUSE); /* they stay queued: do not spin on them */
            return;
        } else if (errno != EINTR && errno != ECONNABORTED) {
            return;
        }
    }
}

static void serve_listener(source_t *source, uint32_t)
{
    accept_all(frwk_list_entry(source, listener_t, source));
}

static void close_listener(listener_t *listener)
{
    if (listener->source.fd >= 0) {
        accept_all(listener);
        source_close(&listener->source);
    }
}

/* Keeps the listener of a place that is lost for those who found it before. */
static void keep_listener(place_t *place)
{
    listener_t *oldest = &s_here.late[0];
    for (listener_t &late : s_here.late) {
        if (late.source.fd < 0 || (oldest->source.fd >= 0 && late.until < oldest->until)) {
            oldest = &late;
        }
    }
    close_listener(oldest);
    *oldest = place->listener;
    oldest->until = relay_now() + LATE_CLIENTS;
    place->listener.source.fd = -1;
    source_change(&oldest->source, EPOLLIN);
}

/* --- one place ------------------------------------------------------------------------------------------------- */

static void tell(relay_kind_t kind, uint32_t id)
{
    news_add(kind, id, 0, 0, nullptr, 0);
}

/* Ends the relay: something makes it impossible to stand in. */
static void fail(uint32_t id, const char *fault)
{
    news_add(RELAY_FAILED, id, 0, 0, fault, strlen(fault));
    places_give_back();
}

/* The name of the module's socket shows another file: it has started anew. */
static void lose_place(place_t *place)
{
    source_close(&place->process);
    keep_listener(place);
    tell(RELAY_LEFT, place->at.id);
}

static void leave_place(place_t *place)
{
    s_here.changed = relay_now();
    if (stand_in_check(&place->at) == STAND_IN_TAKEN) {
        lose_place(place);
    } else if (place->at.standing) {
        stand_in_leave(&place->at);
        source_close(&place->process);
        tell(RELAY_LEFT, place->at.id);
    }
}

void place_is_dead(uint32_t id)
{
    leave_place(&s_here.places[id]);
}

static void serve_process(source_t *source, uint32_t)
{
    leave_place(frwk_list_entry(source, place_t, process));
}

static void serve_probe(source_t *source, uint32_t)
{
    source_close(source);
}

/* A module that ends takes its connections with it; the relay must not answer in its name. */
static void watch_process(place_t *place)
{
    pid_t pid = device_lock_holder(place->at.id);
    int fd = pid > 0 ? static_cast<int>(syscall(SYS_pidfd_open, pid, 0)) : -1;
    if (fd >= 0) {
        source_watch(&place->process, fd, EPOLLIN, serve_process);
    } else if (pid > 0 && errno == ESRCH) {
        leave_place(place);
    }
}

static void enter_place(place_t *place)
{
    uint32_t id = place->at.id;
    int probe;
    const char *fault = stand_in_enter(&place->at, &probe);
    if (probe >= 0) {
        source_close(&place->probe);
        source_watch(&place->probe, probe, EPOLLIN, serve_probe);
    }
    if (fault != nullptr) {
        fail(id, fault);
        return;
    }
    if (place->at.standing) {
        if (place->listener.source.fd != place->at.listener) {
            place->listener.id = id;
            source_watch(&place->listener.source, place->at.listener, EPOLLIN, serve_listener);
        }
        tell(RELAY_WATCHING, id);
        watch_process(place);
    } else if (!place->told_waiting) {
        tell(RELAY_WAITING, id);
    }
    place->told_waiting = true;
}

/* --- all of them ----------------------------------------------------------------------------------------------- */

/* Looks which places are lost, and which can be taken. */
static void check_places()
{
    for (place_t &place : s_here.places) {
        if (!place.used || s_here.left != 0) {
            continue;
        }
        if (stand_in_check(&place.at) == STAND_IN_TAKEN) {
            lose_place(&place);
        }
        if (!place.at.standing) {
            enter_place(&place);
        }
    }
}

static void serve_directory(source_t *source, uint32_t)
{
    char news[4096];
    while (read(source->fd, news, sizeof news) > 0) {
    }
    s_here.changed = relay_now();
    check_places();
}

void places_open(uint32_t modules)
{
    for (place_t &place : s_here.places) {
        place.listener.source.fd = place.process.fd = place.probe.fd = place.at.lock = -1;
    }
    for (listener_t &late : s_here.late) {
        late.source.fd = -1;
    }
    s_here.spare = -1;
    for (uint32_t id = 1; id < FRWK_MODULE_MAX; id++) {
        place_t *place = &s_here.places[id];
        if ((modules & 1u << id) != 0) {
            const char *fault = stand_in_open(&place->at, id, LOCK_PATIENCE);
            if (fault != nullptr) {
                fail(id, fault);
                return;
            }
            place->used = true;
        }
    }
    /* Watched before it is looked at: nothing that happens in between is missed. */
    int directory = inotify_init1(IN_CLOEXEC | IN_NONBLOCK);
    if (directory < 0 || inotify_add_watch(directory, "/tmp/odm/ipc", IN_CREATE | IN_MOVED_TO | IN_DELETE) < 0 ||
        !source_watch(&s_here.directory, directory, EPOLLIN, serve_directory)) {
        fail(0, strerror(errno));
        return;
    }
    check_places();
}

/*
 * When to look again, since nothing tells when a module begins to listen on the socket that it has made; -1 while all
 * places are taken.
 */
static int look_period(int64_t now)
{
    for (const place_t &place : s_here.places) {
        if (place.used && !place.at.standing && s_here.left == 0) {
            return now - s_here.changed < LOOK_OFTEN ? LOOK_PERIOD : LOOK_PERIOD_IDLE;
        }
    }
    return -1;
}

int places_look()
{
    int64_t now = relay_now();
    int period = look_period(now);
    if (period >= 0 && now - s_here.looked >= period) {
        s_here.looked = now;
        check_places();
    }
    bool late_left = false;
    for (listener_t &late : s_here.late) {
        if (now >= late.until) {
            close_listener(&late);
        }
        late_left = late_left || late.source.fd >= 0;
    }
    for (place_t &place : s_here.places) {
        if (s_here.left != 0 && now >= s_here.left + LATE_CLIENTS) {
            close_listener(&place.listener);
        }
    }
    return relay_sooner(period, late_left || s_here.left != 0 ? int{LATE_PERIOD} : -1);
}

void places_give_back()
{
    if (s_here.left != 0) {
        return;
    }
    s_here.left = relay_now();
    for (place_t &place : s_here.places) {
        if (place.used) {
            stand_in_close(&place.at);
            source_close(&place.process);
        }
    }
    tell(RELAY_RESTORED, 0);
}

bool places_left()
{
    for (const place_t &place : s_here.places) {
        if (place.listener.source.fd >= 0) {
            return false;
        }
    }
    for (const listener_t &late : s_here.late) {
        if (late.source.fd >= 0) {
            return false;
        }
    }
    return s_here.left != 0;
}
