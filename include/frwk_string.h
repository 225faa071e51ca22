/* SPDX-FileCopyrightText: 2026 the libfrwk authors */
/* SPDX-License-Identifier: MIT */

/**
 * @file frwk_string.h
 * Blanks and line ends, growable buffers, and files that hold one value.
 *
 * Nothing here takes a lock: a text, a buffer and a value file have one user at a time.
 */
#ifndef FRWK_STRING_H
#define FRWK_STRING_H

#include "frwk_defs.h"

#include <stdint.h>

FRWK_BEGIN_DECLS

/**
 * Overwrites the CR and LF at the end of a text with 0.
 * @param s  text, changed in place; may be null
 * @param n  its length without the terminator
 * @return `s`; null when it is null or `n` is 0 or below
 */
FRWK_API char *frwk_skip_end_crlf(char *s, int n);

/**
 * Skips spaces and tabs.
 * @param s  text; may be null
 * @return the first character of `s` that is neither, possibly its terminator; null for null
 */
FRWK_API char *frwk_skip_space(const char *s);

/**
 * Skips a word and the spaces and tabs behind it.
 * @param s  text; may be null
 * @return the start of the next word, or the terminator when only blanks follow the first; null when no blank follows
 *         it or `s` is null
 */
FRWK_API char *frwk_skip_next_space(const char *s);

/**
 * Copies the text between the first `start` in `src` and the first `end` behind it, without the markers.
 *
 * @param src    text to look in
 * @param start  marker; null or empty for the beginning of `src`
 * @param end    marker; null or empty for the end of `src`
 * @param out    receives the text and its terminator; empty when nothing was picked. Must not overlap the others.
 * @param size   bytes in `out`; below 1 nothing fits, and nothing is written
 * @return 1; 0 when a marker is missing, or, traced, when the text does not fit
 */
FRWK_API int frwk_str_pick(const char *src, const char *start, const char *end, char *out, int size);

/**
 * Copies a text.
 * @param s  text; null stands for ""
 * @return the copy, which the caller ends with free(); null when memory is short
 */
FRWK_API char *frwk_strdup(const char *s);

/** A growable byte buffer. Its user keeps `len` below `size`. Growing may move the storage. */
typedef struct {
    int32_t size; /**< Bytes allocated; 0 when there are none. */
    int32_t len;  /**< Bytes in use; the user advances it after writing at `bp + len`. */
    uint8_t *bp;  /**< Storage, owned by the buffer. */
} frwk_buffer_t;

/**
 * Gives a buffer its first 4,096 bytes, not cleared.
 * @param bf  buffer, of any content: storage that it holds is not freed
 * @return 1, or 0 when memory is short: it then holds none
 */
FRWK_API int frwk_buffer_init(frwk_buffer_t *bf);

/**
 * Makes room for `n` more bytes and a terminator; new bytes are not cleared. A buffer that cannot grow, because memory
 * is short or it would pass 2,147,483,647 bytes, ends the process by an assertion.
 * @param bf  an initialised or freed buffer
 * @param n   bytes about to be added
 * @return 1
 */
FRWK_API int frwk_buffer_grow(frwk_buffer_t *bf, int n);

/**
 * Adds the smallest multiple of 4,096 bytes larger than `n`, cleared, whatever room there is. A buffer that cannot
 * grow ends the process as in frwk_buffer_grow().
 * @param bf  an initialised or freed buffer
 * @param n   least number of bytes; below 0 stands for 0
 * @return 1
 */
FRWK_API int frwk_buffer_grow_ex(frwk_buffer_t *bf, int n);

/**
 * Frees the storage; the buffer may be initialised again.
 * @param bf  an initialised or freed buffer, or null
 */
FRWK_API void frwk_buffer_free(frwk_buffer_t *bf);

/**
 * Sizes a file. Opens it for that, which for a FIFO blocks until somebody opens it for writing.
 * @param path  its path
 * @return its size; 0 also when it cannot be opened (in 32-bit programs from 2 GiB on) and for files of /proc; negative
 *         for what has no size, such as a FIFO or a terminal. Of a directory it means nothing.
 */
FRWK_API long frwk_file_size(const char *path);

/**
 * Replaces the content of a file, created when missing, in one write. Not safe against a power cut. Blocks as that
 * write does: on a terminal or a full FIFO, until somebody reads.
 *
 * @param path   its path
 * @param bytes  the content; may be null when `len` is 0
 * @param len    its size, 0 to 2,147,479,552, which is the most that one write takes
 * @return 0; -1, traced, when the file cannot be opened, also in a process that closed its standard input (descriptor 0
 *         counts as a failure), or is not written whole: it is then empty or holds a part
 */
FRWK_API int frwk_set_file_value(const char *path, const void *bytes, int len);

/**
 * Reads the beginning of a file, which must be writable too, in one read. Neither adds a terminator nor tells how much
 * it read: for a text, clear `out` before and keep its last byte. Blocks as that read does, on a FIFO or a terminal
 * until somebody writes; the read is a cancellation point.
 *
 * @param path  its path
 * @param out   receives up to `len` bytes
 * @param len   bytes in `out`, 1 or above; at most 2,147,479,552 are read
 * @return 0; -1, traced, when the file cannot be opened, also in a process that closed its standard input (descriptor 0
 *         counts as a failure), is empty, or cannot be read
 */
FRWK_API int frwk_get_file_value(const char *path, void *out, int len);

FRWK_END_DECLS

#endif
