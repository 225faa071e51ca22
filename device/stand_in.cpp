/* SPDX-FileCopyrightText: 2026 the libfrwk authors */
/* SPDX-License-Identifier: MIT */

#include "stand_in.h"

#include <frwk.h>

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <stdio.h>
#include <string.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

enum { BACKLOG = 4096, LOCK_PERIOD = 10, PROBE_PATIENCE = 200 }; /* milliseconds but for the first */

static bool find(const char *path, struct stat *file)
{
    return lstat(path, file) == 0;
}

/* Whether the stand-in's file has that name. */
static bool is_own(const stand_in_t *place, const char *path)
{
    struct stat file;
    return place->listener >= 0 && find(path, &file) && file.st_dev == place->dev && file.st_ino == place->ino;
}

static bool exchange(const stand_in_t *place)
{
    return renameat2(AT_FDCWD, place->aside, AT_FDCWD, place->own, RENAME_EXCHANGE) == 0;
}

static struct sockaddr_un address_of(const char *path)
{
    struct sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    snprintf(address.sun_path, sizeof address.sun_path, "%s", path);
    return address;
}

int stand_in_socket()
{
    return socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
}

bool stand_in_connect(int fd, const char *path)
{
    struct sockaddr_un address = address_of(path);
    return connect(fd, reinterpret_cast<struct sockaddr *>(&address), sizeof address) == 0;
}

/*
 * Whether a socket is listened on. There is no way to see that but to connect, and a module traces an error for a
 * connection without a request: so it gets a ping, which it answers without a word.
 */
static bool is_listening(const char *path, int *probe)
{
    *probe = stand_in_socket();
    if (*probe < 0) {
        return false;
    }
    if (!stand_in_connect(*probe, path)) {
        bool full = errno == EAGAIN;
        close(*probe);
        *probe = -1;
        return full;
    }
    frwk_ipc_reqhdr_t ping = {FRWK_MODULE_MONITOR_TOOL, FRWK_MSG_SYS_PING, 0, 0, 0, 0};
    (void)!send(*probe, &ping, sizeof ping, MSG_NOSIGNAL | MSG_DONTWAIT);
    return true;
}

static bool is_alive(const char *path)
{
    int probe;
    bool alive = is_listening(path, &probe);
    if (probe >= 0) {
        pollfd answer = {probe, POLLIN, 0};
        poll(&answer, 1, PROBE_PATIENCE);
        close(probe);
    }
    return alive;
}

/* The directory, made when it is missing; its owner may take it away at any time, so the name is looked at again. */
static int open_directory(const stand_in_t *place)
{
    if (mkdir(place->dir, 0700) != 0 && errno != EEXIST) {
        return -1;
    }
    return open(place->dir, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
}

static bool is_directory(const stand_in_t *place, int fd)
{
    struct stat named;
    struct stat opened;
    return find(place->dir, &named) && fstat(fd, &opened) == 0 && named.st_dev == opened.st_dev &&
           named.st_ino == opened.st_ino;
}

static const char *take_lock(stand_in_t *place, int patience)
{
    frwk_uptime_t end;
    frwk_simple_timer_start(&end, patience);
    for (;;) {
        int expired = frwk_simple_timer_timeout(&end);
        int fd = open_directory(place);
        if (fd < 0 && errno != ENOENT) {
            return strerror(errno);
        }
        if (fd < 0 && access("/tmp/odm/ipc", F_OK) != 0) {
            return "no module has run yet: there is no /tmp/odm/ipc";
        }
        if (fd >= 0 && flock(fd, LOCK_EX | LOCK_NB) == 0 && is_directory(place, fd)) {
            place->lock = fd;
            return nullptr;
        }
        if (fd >= 0) {
            close(fd);
        }
        if (expired) {
            return "is being watched already";
        }
        frwk_sleep(LOCK_PERIOD);
    }
}

/*
 * What a process that was killed has left: its own socket in the module's place, on which nobody listens, and the
 * module's beside it. Where the module listens at its own name, what is beside it is of no use.
 */
static void repair(const stand_in_t *place)
{
    struct stat file;
    if (!find(place->aside, &file)) {
        return;
    }
    if (is_alive(place->aside) && (!find(place->own, &file) || !is_alive(place->own))) {
        if (!exchange(place) && renameat2(AT_FDCWD, place->aside, AT_FDCWD, place->own, RENAME_NOREPLACE) != 0) {
            return;
        }
    }
    unlink(place->aside);
}

const char *stand_in_open(stand_in_t *place, uint32_t id, int patience)
{
    *place = {};
    place->id = id;
    place->lock = -1;
    place->listener = -1;
    const char *name = frwk_module_name(id);
    snprintf(place->own, sizeof place->own, "/tmp/odm/ipc/%s", name);
    snprintf(place->dir, sizeof place->dir, "/tmp/odm/ipc/.watch.%s", name);
    snprintf(place->aside, sizeof place->aside, "/tmp/odm/ipc/.watch.%s/socket", name);
    const char *fault = take_lock(place, patience);
    if (fault == nullptr) {
        repair(place);
    }
    return fault;
}

void stand_in_close(stand_in_t *place)
{
    if (place->lock < 0) {
        return;
    }
    stand_in_leave(place);
    unlink(place->aside);
    rmdir(place->dir);
    close(place->lock);
    place->lock = -1;
}

/* Makes the stand-in, beside the module's place. */
static const char *make_listener(stand_in_t *place)
{
    int fd = stand_in_socket();
    if (fd < 0) {
        return strerror(errno);
    }
    struct sockaddr_un address = address_of(place->aside);
    struct stat file;
    unlink(place->aside);
    if (bind(fd, reinterpret_cast<struct sockaddr *>(&address), sizeof address) != 0 || listen(fd, BACKLOG) != 0 ||
        !find(place->aside, &file)) {
        int cause = errno;
        close(fd);
        return strerror(cause);
    }
    if (place->listener >= 0) {
        close(place->listener);
    }
    place->listener = fd;
    place->dev = file.st_dev;
    place->ino = file.st_ino;
    return nullptr;
}

/* Whoever may connect to the module may connect to the stand-in, and nobody else. */
static bool take_rights(const stand_in_t *place, const struct stat *module)
{
    struct stat file;
    if (!find(place->aside, &file)) {
        return false;
    }
    bool same = file.st_uid == module->st_uid && file.st_gid == module->st_gid;
    return (same || lchown(place->aside, module->st_uid, module->st_gid) == 0) &&
           chmod(place->aside, module->st_mode & 07777) == 0;
}

const char *stand_in_enter(stand_in_t *place, int *probe)
{
    *probe = -1;
    struct stat module;
    if (place->standing || !find(place->own, &module) || !S_ISSOCK(module.st_mode) ||
        !is_listening(place->own, probe)) {
        return nullptr;
    }
    if (!is_own(place, place->aside)) {
        const char *fault = make_listener(place);
        if (fault != nullptr) {
            return fault;
        }
    }
    if (!take_rights(place, &module)) {
        return strerror(errno);
    }
    if (exchange(place)) {
        place->standing = true;
        return nullptr;
    }
    return errno == ENOENT   ? nullptr /* it has just ended, or starts anew */
           : errno == EINVAL ? "the file system of /tmp/odm/ipc cannot exchange names"
                             : strerror(errno);
}

void stand_in_leave(stand_in_t *place)
{
    if (!place->standing) {
        return;
    }
    place->standing = false;
    struct stat file;
    if (is_own(place, place->own)) {
        if (exchange(place) && !is_own(place, place->aside)) {
            exchange(place); /* the module started anew in between: what was beside it is the old one */
        }
    } else if (!find(place->own, &file) && is_alive(place->aside)) {
        /* Somebody removed the file in the module's place. Not where it starts anew: it could not bind then. */
        renameat2(AT_FDCWD, place->aside, AT_FDCWD, place->own, RENAME_NOREPLACE);
    }
    if (!is_own(place, place->aside)) {
        unlink(place->aside);
    }
}

stand_in_place_t stand_in_check(stand_in_t *place)
{
    struct stat file;
    if (!place->standing) {
        return STAND_IN_OUTSIDE;
    }
    if (is_own(place, place->own) || !find(place->own, &file)) {
        return STAND_IN_KEPT;
    }
    place->listener = -1;
    place->standing = false;
    unlink(place->aside);
    return STAND_IN_TAKEN;
}

const char *stand_in_module_path(const stand_in_t *place)
{
    return place->standing ? place->aside : place->own;
}
