/* SPDX-FileCopyrightText: 2026 the libfrwk authors */
/* SPDX-License-Identifier: MIT */

/*
 * Strings, growable buffers, and files that hold one value.
 */
#include "frwk_bounded.h"
#include "frwk_guard.h"
#include "frwk_string.h"
#include "frwk_trace.h"

#include <errno.h>
#include <fcntl.h>
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

static_assert(offsetof(frwk_buffer_t, size) == 0 && offsetof(frwk_buffer_t, len) == 4 &&
              offsetof(frwk_buffer_t, bp) == 8 && sizeof(frwk_buffer_t) == 8 + sizeof(void *));

enum { BUFFER_STEP = 4096 };

static bool is_space(char c)
{
    return c == ' ' || c == '\t';
}

char *frwk_skip_end_crlf(char *s, int n)
{
    if (s == nullptr || n <= 0) {
        return nullptr;
    }
    while (n > 0 && (s[n - 1] == '\r' || s[n - 1] == '\n')) {
        s[--n] = '\0';
    }
    return s;
}

char *frwk_skip_space(const char *s)
{
    if (s == nullptr) {
        return nullptr;
    }
    while (is_space(*s)) {
        s++;
    }
    return const_cast<char *>(s);
}

char *frwk_skip_next_space(const char *s)
{
    if (s == nullptr) {
        return nullptr;
    }
    s += strcspn(s, " \t");
    return *s == '\0' ? nullptr : frwk_skip_space(s);
}

int frwk_str_pick(const char *src, const char *start, const char *end, char *out, int size)
{
    size_t room = size > 0 ? static_cast<size_t>(size) : 0;
    if (room > 0) {
        out[0] = '\0';
    }

    const char *from = src;
    if (start != nullptr && *start != '\0') {
        from = strstr(src, start);
        if (from == nullptr) {
            return 0;
        }
        from += strlen(start);
    }

    size_t n = 0;
    if (end != nullptr && *end != '\0') {
        const char *to = strstr(from, end);
        if (to == nullptr) {
            return 0;
        }
        n = static_cast<size_t>(to - from);
    } else {
        n = strlen(from);
    }

    if (n >= room) {
        FRWK_ERR("buffer not big enough(%d/%d)!", size, static_cast<int>(n));
        return 0;
    }
    memcpy_s(out, room, from, n);
    out[n] = '\0';
    return 1;
}

char *frwk_strdup(const char *s)
{
    size_t n = s != nullptr ? strlen(s) : 0;
    char *copy = static_cast<char *>(malloc(n + 1));
    if (copy != nullptr) {
        memcpy_s(copy, n + 1, s, n);
        copy[n] = '\0';
    }
    return copy;
}

int frwk_buffer_init(frwk_buffer_t *bf)
{
    bf->size = BUFFER_STEP;
    bf->len = 0;
    bf->bp = static_cast<uint8_t *>(malloc(BUFFER_STEP));
    if (bf->bp == nullptr) {
        FRWK_ERR("init buffer[%d] failed!", bf->size);
        bf->size = 0;
        return 0;
    }
    return 1;
}

/*
 * Enlarges the storage by the smallest multiple of the step above n. Leaves a null `bp` when memory is short or the
 * size would not fit its word; the callers end the process then.
 */
static void enlarge(frwk_buffer_t *bf, int n)
{
    int64_t size = int64_t{bf->size} + (n < 0 ? 0 : int64_t{n} / BUFFER_STEP * BUFFER_STEP) + BUFFER_STEP;
    if (size > INT32_MAX) {
        bf->bp = nullptr;
        return;
    }
    bf->size = static_cast<int32_t>(size);
    bf->bp = static_cast<uint8_t *>(realloc(bf->bp, static_cast<size_t>(size)));
}

int frwk_buffer_grow(frwk_buffer_t *bf, int n)
{
    if (int64_t{bf->size} - bf->len > n) {
        return 1;
    }
    enlarge(bf, n);
    FRWK_ASSERT(NULL != bf->bp);
    return 1;
}

int frwk_buffer_grow_ex(frwk_buffer_t *bf, int n)
{
    int32_t old_size = bf->size;
    enlarge(bf, n);
    FRWK_ASSERT(NULL != bf->bp);
    size_t added = static_cast<size_t>(bf->size - old_size);
    memset_s(bf->bp + old_size, added, 0, added);
    return 1;
}

void frwk_buffer_free(frwk_buffer_t *bf)
{
    if (bf == nullptr) {
        return;
    }
    bf->len = 0;
    if (bf->size > 0) {
        bf->size = 0;
        free(bf->bp);
    }
    bf->bp = nullptr;
}

/* Leaves errno as it is where the file can be opened. */
long frwk_file_size(const char *path)
{
    cancel_guard uncancelled;
    int saved_errno = errno;
    FILE *fp;
    do {
        fp = fopen(path, "re");
    } while (fp == nullptr && errno == EINTR);
    if (fp == nullptr) {
        return 0;
    }
    fseek(fp, 0, SEEK_END);
    long size = ftell(fp);
    fclose(fp);
    errno = saved_errno;
    return size;
}

int frwk_set_file_value(const char *path, const void *bytes, int len)
{
    cancel_guard uncancelled;
    unique_fd fd(static_cast<int>(TEMP_FAILURE_RETRY(open(path, O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0666))));
    if (fd.get() <= 0) {
        FRWK_ERR("open %s fialed!", path);
        return -1;
    }
    long ret = TEMP_FAILURE_RETRY(write(fd.get(), bytes, static_cast<size_t>(len)));
    if (ret < 0 || ret != len) {
        FRWK_ERR("write %s fialed! ret is %d, value len is %d, errno is %d", path, static_cast<int>(ret), len, errno);
        return -1;
    }
    return 0;
}

/* One read, in which a thread may be cancelled: a FIFO or a terminal can keep it waiting for good. */
static long read_cancellable(int fd, void *out, size_t len, int cancel_state)
{
    long ret;
    pthread_cleanup_push(close_uncancelled, &fd);
    pthread_setcancelstate(cancel_state, nullptr);
    ret = TEMP_FAILURE_RETRY(read(fd, out, len));
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr);
    pthread_cleanup_pop(0);
    return ret;
}

int frwk_get_file_value(const char *path, void *out, int len)
{
    cancel_guard uncancelled;
    unique_fd fd(static_cast<int>(TEMP_FAILURE_RETRY(open(path, O_RDWR | O_CLOEXEC))));
    if (fd.get() <= 0) {
        FRWK_ERR("open %s fialed!", path);
        return -1;
    }
    long ret = read_cancellable(fd.get(), out, static_cast<size_t>(len), uncancelled.outer_state());
    if (ret <= 0) {
        FRWK_ERR("read %s fialed! ret is %d, errno is %d", path, static_cast<int>(ret), errno);
        return -1;
    }
    return 0;
}
