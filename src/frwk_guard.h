/* SPDX-FileCopyrightText: 2026 the libfrwk authors */
/* SPDX-License-Identifier: MIT */

/*
 * Ownership inside a function: a descriptor, a block from malloc(), a locked mutex, a stretch without cancellation.
 *
 * Thread cancellation runs no destructors (the library is built without exceptions): where a thread can be cancelled
 * while it holds something, use pthread_cleanup_push() or cancel_guard as well.
 */
#ifndef FRWK_GUARD_H
#define FRWK_GUARD_H

#include <pthread.h>
#include <stdlib.h>
#include <unistd.h>

#include <memory>

struct heap_free {
    void operator()(void *block) const
    {
        free(block);
    }
};

/* Owns a block from malloc(). */
template <class T> using heap_ptr = std::unique_ptr<T, heap_free>;

/* Holds off cancellation of the calling thread. */
class cancel_guard {
public:
    cancel_guard()
    {
        pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &state_);
    }
    ~cancel_guard()
    {
        pthread_setcancelstate(state_, nullptr);
    }
    cancel_guard(const cancel_guard &) = delete;
    cancel_guard &operator=(const cancel_guard &) = delete;

    /* As it was before. */
    int outer_state() const
    {
        return state_;
    }

private:
    int state_ = PTHREAD_CANCEL_ENABLE;
};

/* Closes *fd, an int: a thread that is cancelled in close() may leave the descriptor open. A cleanup handler, too. */
static inline void close_uncancelled(void *fd)
{
    cancel_guard uncancelled;
    close(*static_cast<int *>(fd));
}

/* Owns a file descriptor. */
class unique_fd {
public:
    explicit unique_fd(int fd) : fd_(fd)
    {
    }
    ~unique_fd()
    {
        if (fd_ >= 0) {
            close_uncancelled(&fd_);
        }
    }
    unique_fd(const unique_fd &) = delete;
    unique_fd &operator=(const unique_fd &) = delete;

    int get() const
    {
        return fd_;
    }
    int release()
    {
        int fd = fd_;
        fd_ = -1;
        return fd;
    }

private:
    int fd_;
};

/* Holds a mutex. */
class mutex_guard {
public:
    explicit mutex_guard(pthread_mutex_t *mutex) : mutex_(mutex)
    {
        pthread_mutex_lock(mutex_);
    }
    ~mutex_guard()
    {
        pthread_mutex_unlock(mutex_);
    }
    mutex_guard(const mutex_guard &) = delete;
    mutex_guard &operator=(const mutex_guard &) = delete;

private:
    pthread_mutex_t *mutex_;
};

#endif
