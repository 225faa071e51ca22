/* SPDX-FileCopyrightText: 2026 the libfrwk authors */
/* SPDX-License-Identifier: MIT */

/*
 * The relay's process: how it comes into the world, what it waits for, when it ends.
 */
#include "relay.h"

#include "device.h"
#include "relay_parts.h"
#include "stand_in.h"

#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/epoll.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

enum { EVENTS = 64 };

static int s_epoll;

/* --- what its parts share ---------------------------------------------------------------------------------------- */

static bool control(int operation, source_t *source, uint32_t events)
{
    epoll_event event = {};
    event.events = events;
    event.data.ptr = source;
    return epoll_ctl(s_epoll, operation, source->fd, &event) == 0;
}

bool source_watch(source_t *source, int fd, uint32_t events, void (*serve)(source_t *source, uint32_t events))
{
    source->fd = fd;
    source->serve = serve;
    return control(EPOLL_CTL_ADD, source, events);
}

void source_change(source_t *source, uint32_t events)
{
    control(EPOLL_CTL_MOD, source, events);
}

void source_close(source_t *source)
{
    if (source->fd >= 0) {
        close(source->fd); /* which takes it out of epoll */
        source->fd = -1;
    }
}

int64_t relay_now()
{
    return static_cast<int64_t>(device_clock(CLOCK_MONOTONIC) / 1000000);
}

int relay_sooner(int one, int other)
{
    return one < 0 || (other >= 0 && other < one) ? other : one;
}

bool bytes_append(bytes_t *bytes, const void *data, size_t len)
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

void bytes_drop_front(bytes_t *bytes, size_t len)
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

/* --- the process ------------------------------------------------------------------------------------------------- */

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

/* Signals are read as what else is waited for: while there is always something to do, none would be delivered. */
static int catch_termination()
{
    signal(SIGINT, SIG_IGN);
    signal(SIGHUP, SIG_IGN);
    sigset_t termination;
    sigemptyset(&termination);
    sigaddset(&termination, SIGTERM);
    sigprocmask(SIG_SETMASK, &termination, nullptr);
    return signalfd(-1, &termination, SFD_CLOEXEC | SFD_NONBLOCK);
}

static void serve_termination(source_t *source, uint32_t)
{
    signalfd_siginfo news;
    while (read(source->fd, &news, sizeof news) > 0) {
    }
    places_give_back();
}

/*
 * Out of the reach of what ends the program that started it: a session of its own, another name, nothing of what the
 * program had open.
 */
static int detach(int tool)
{
    setsid();
    rename_process();
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

static void run()
{
    for (;;) {
        int wait = relay_sooner(places_look(), connections_look());
        news_flush();
        if (places_left() && connections_done() && news_told()) {
            return;
        }
        epoll_event events[EVENTS];
        int count = epoll_wait(s_epoll, events, EVENTS, wait);
        for (int i = 0; i < count; i++) {
            source_t *source = static_cast<source_t *>(events[i].data.ptr);
            if (source->fd >= 0) { /* else it was closed in this turn */
                source->serve(source, events[i].events);
            }
        }
    }
}

[[noreturn]] static void relay_main(int tool, uint32_t modules, size_t snap)
{
    static source_t termination;
    tool = detach(tool);
    s_epoll = epoll_create1(EPOLL_CLOEXEC);
    if (s_epoll < 0 || !source_watch(&termination, catch_termination(), EPOLLIN, serve_termination) ||
        !news_open(tool, places_give_back)) {
        _exit(1);
    }
    connections_open(snap);
    places_open(modules);
    run();
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
