/* SPDX-FileCopyrightText: 2026 the libfrwk authors */
/* SPDX-License-Identifier: MIT */

/*
 * Start-up of a module, and the lock that keeps it single.
 */
#include "frwk_bounded.h"
#include "frwk_common_conf.h"
#include "frwk_common_ipc.h"
#include "frwk_common_module.h"
#include "frwk_guard.h"
#include "frwk_start_conf.h"
#include "frwk_time.h"
#include "frwk_trace.h"

#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/prctl.h>
#include <syslog.h>
#include <unistd.h>

enum {
    LOCK_PATH_SIZE = 256,
    CONSOLE_MODE = 3, /* debug mode of tools */
    DAEMON_FLAGS = FRWK_MODULE_FLAG_SYSLOG | FRWK_MODULE_FLAG_IPC | FRWK_MODULE_FLAG_MONITOR_SERVICE
};

static char *frwk_lock_path(uint32_t id, char *path)
{
    sprintf_s(path, LOCK_PATH_SIZE, "/tmp/odm/lock/%s", frwk_module_label(id));
    return path;
}

/* Takes the write lock over the whole file without waiting; 0, or the cause. */
static int lock_file(int fd)
{
    struct flock lock = {};
    lock.l_type = F_WRLCK;
    lock.l_whence = SEEK_SET;
    return fcntl(fd, F_SETLK, &lock) == 0 ? 0 : errno;
}

static void write_pid(int fd)
{
    char text[LOCK_PATH_SIZE];
    int len = sprintf_s(text, sizeof text, "%ld", static_cast<long>(getpid()));
    /* The lock is what counts; the number is for people, and a full disk keeps no daemon from running. */
    (void)!ftruncate(fd, 0);
    (void)!write(fd, text, static_cast<size_t>(len));
}

/* The id when this process may run as that module, -1 when not. */
static int32_t frwk_module_lock(uint32_t id)
{
    if (access("/tmp/odm/lock", F_OK) != 0) {
        (void)!system("mkdir -p /tmp/odm/lock"); /* the open reports a missing directory */
        sync();
    }
    if ((frwk_module_flags(id) & DAEMON_FLAGS) == 0) {
        return static_cast<int32_t>(id);
    }
    char path[LOCK_PATH_SIZE] = {};
    unique_fd fd(open(frwk_lock_path(id, path), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0644));
    if (fd.get() < 0) {
        fprintf(stderr, "can't open %s\n", path);
        return -1;
    }
    int cause = lock_file(fd.get());
    if (cause == EAGAIN || cause == EACCES) {
        fprintf(stderr, "the '%s' is already running!\n", frwk_module_label(id));
        return -1;
    }
    if (cause != 0) {
        fprintf(stderr, "can't lock %s\n", path);
        return -1;
    }
    write_pid(fd.get());
    fd.release(); /* stays open as long as the process lives: a close would drop the lock */
    return static_cast<int32_t>(id);
}

/* A write to a connection that its peer closed must fail, not kill; threads started later inherit the mask. */
static void ignore_broken_pipes()
{
    signal(SIGPIPE, SIG_IGN);
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGPIPE);
    pthread_sigmask(SIG_BLOCK, &set, nullptr);
}

int frwk_module_init(uint32_t id, frwk_module_cb_t cb)
{
    if (!frwk_module_valid(id)) {
        fprintf(stderr, "Invalid module id=%d\n", static_cast<int>(id));
        return -1;
    }
    int32_t locked = frwk_module_lock(id);
    g_s_module_ctx.id.store(locked, std::memory_order_relaxed);
    if (locked != static_cast<int32_t>(id)) {
        return -1;
    }
    prctl(PR_SET_PDEATHSIG, SIGHUP);
    ignore_broken_pipes();
    frwk_module_reset(cb);
    if (id == FRWK_MODULE_MONITOR) {
        frwk_init_app_start_cfg();
    }
    frwk_log_conf_load(id);

    const frwk_module_info_t *row = frwk_module_row(id);
    if (row->flags == 0) {
        frwk_debug_enable(CONSOLE_MODE);
    }
    if ((row->flags & FRWK_MODULE_FLAG_SYSLOG) != 0) {
        openlog(row->name, LOG_PID | LOG_CONS, LOG_LOCAL7);
    }
    if ((row->flags & FRWK_MODULE_FLAG_IPC) != 0) {
        FRWK_ASSERT(FRWK_ERROR_SUCCESS == frwk_ipc_run());
    }
    if (row->delay > 0) {
        frwk_sleep(row->delay);
    }
    return FRWK_ERROR_SUCCESS;
}
