/**
 * @file frwk_string.h
 * Blanks and line ends, growable buffers, and files that hold one value.
 */
#ifndef FRWK_STRING_H
#define FRWK_STRING_H

#include <stdint.h>

#include "frwk_defs.h"

FRWK_BEGIN_DECLS

/**
 * Overwrites the CR and LF at the end of `s` with 0.
 * @param s  text, changed in place
 * @param n  its length without the terminator
 * @return `s`; null when it is null or `n` is 0 or below
 */
FRWK_API char *frwk_skip_end_crlf(char *s, int n);

/** @return the first character of `s` that is neither space nor tab, possibly its terminator; null for null. */
FRWK_API char *frwk_skip_space(const char *s);

/**
 * @return the start of the word after the one at `s` (words are parted by spaces and tabs), or the terminator when only
 *         blanks follow; null when no blank follows or `s` is null
 */
FRWK_API char *frwk_skip_next_space(const char *s);

/**
 * Copies the text between the first `start` in `src` and the first `end` behind it, without the markers.
 *
 * @param src    text to look in, not null
 * @param start  marker; null or empty for the beginning of `src`
 * @param end    marker; null or empty for the end of `src`
 * @param out    receives the text and its terminator; empty when nothing was picked
 * @param size   bytes in `out`; below 1 nothing fits, and nothing is written
 * @return 1; 0 when a marker is missing or the text does not fit
 */
FRWK_API int frwk_str_pick(const char *src, const char *start, const char *end, char *out, int size);

/** @return a copy of `s` (of "" for null) that the caller ends with free(); null when memory is short. */
FRWK_API char *frwk_strdup(const char *s);

/** A growable byte buffer. Its user keeps `len` below `size`. */
typedef struct {
    int32_t size; /**< Bytes allocated; 0 when there are none. */
    int32_t len;  /**< Bytes in use; the user advances it after writing at `bp + len`. */
    uint8_t *bp;  /**< Storage, owned by the buffer. */
} frwk_buffer_t;

/** Gives the buffer its first 4,096 bytes, not cleared. @return 1, or 0 when memory is short. */
FRWK_API int frwk_buffer_init(frwk_buffer_t *bf);

/**
 * Makes room for `n` more bytes and a terminator; new bytes are not cleared. A buffer that cannot grow ends the
 * process by an assertion.
 * @return 1
 */
FRWK_API int frwk_buffer_grow(frwk_buffer_t *bf, int n);

/**
 * Adds the smallest multiple of 4,096 bytes larger than `n`, cleared, whatever room there is. A buffer that cannot
 * grow ends the process by an assertion.
 * @return 1
 */
FRWK_API int frwk_buffer_grow_ex(frwk_buffer_t *bf, int n);

/** Frees the storage; the buffer may be initialised again. Null and a freed buffer are harmless. */
FRWK_API void frwk_buffer_free(frwk_buffer_t *bf);

/** @return the size of a file in bytes, 0 when it cannot be opened. */
FRWK_API long frwk_file_size(const char *path);

/**
 * Replaces the content of a file, created when missing, by `len` bytes in one write. Not safe against a power cut.
 * @return 0, or -1 when the file cannot be opened or written whole
 */
FRWK_API int frwk_set_file_value(const char *path, const void *bytes, int len);

/**
 * Reads up to `len` bytes of a file, which must be writable too, in one read. Adds no terminator.
 * @return 0, or -1 when the file cannot be opened, is empty, or cannot be read
 */
FRWK_API int frwk_get_file_value(const char *path, void *out, int len);

FRWK_END_DECLS

#endif
