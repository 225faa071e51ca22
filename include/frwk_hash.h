/**
 * @file frwk_hash.h
 * Tables with string keys and typed values, named by small integer handles.
 *
 * The number of buckets is fixed at creation. No function takes a lock: a module uses its tables from one thread at a
 * time or guards every call, creation included, with one mutex of its own.
 */
#ifndef FRWK_HASH_H
#define FRWK_HASH_H

#include <stdint.h>

#include "frwk_defs.h"

FRWK_BEGIN_DECLS

/** Types of a value. */
enum { FRWK_HASH_TYPE_INTEGER = 6, FRWK_HASH_TYPE_STRING = 12, FRWK_HASH_TYPE_SYMBOL = 18 };

/** A typed value. */
typedef struct {
    intptr_t data;     /**< The integer, or the pointer. */
    int32_t type;      /**< FRWK_HASH_TYPE_; for the caller, the table never looks at it. */
    int32_t valid;     /**< 1 in a value built by one of the constructors. */
    int32_t need_free; /**< 1 when the table owns `data` and ends it with free(). */
} frwk_hash_value_t;

/** An entry, owned by its table. */
typedef struct frwk_hash_entry {
    struct frwk_hash_entry *next; /**< Next entry of the bucket. */
    frwk_hash_value_t key;        /**< The table's copy of the key. */
    frwk_hash_value_t value;      /**< As it was entered. */
    int32_t bucket;               /**< Index of the bucket. */
} frwk_hash_entry_t;

/**
 * Creates a table.
 * @param size  wanted number of buckets; the largest prime not above it is used, 31 for 2 and below
 * @return a handle, the lowest that is free, from 0 on; -1 when memory is short
 */
FRWK_API int frwk_hash_create(int size);

/** Frees a table with its entries, keys, and the values that it owns; the handle may be handed out again. */
FRWK_API void frwk_hash_free(int handle);

/** @return a value that holds an integer. */
FRWK_API frwk_hash_value_t frwk_hash_value_integer(int integer);

/** @return a value that holds the caller's pointer; the table never frees it. */
FRWK_API frwk_hash_value_t frwk_hash_value_symbol(void *symbol);

/**
 * @param text  text; null stands for "" when it is copied
 * @param copy  not 0: the value holds a copy, which the table owns once it is entered; 0: it holds `text` itself
 * @return a value that holds a string; its `data` is 0 when the copy could not be made
 */
FRWK_API frwk_hash_value_t frwk_hash_value_string(const char *text, int copy);

/**
 * Stores a value under a key; an older value is released, the entry and its place stay.
 * @param handle  table
 * @param key     text, not null, copied
 * @param value   taken over by the table on success
 * @return the entry; null when memory is short or the handle is invalid, the value then stays the caller's
 */
FRWK_API frwk_hash_entry_t *frwk_hash_enter(int handle, const char *key, frwk_hash_value_t value);

/** @return the entry, valid until its key is deleted or its table freed; null for an absent, null or empty key. */
FRWK_API frwk_hash_entry_t *frwk_hash_lookup(int handle, const char *key);

/** @return the entry's `data` as a pointer, whatever its type; null when there is no such key. */
FRWK_API void *frwk_hash_lookup_symbol(int handle, const char *key);

/** @return 0 when the key was removed, -1 when it was not there. */
FRWK_API int frwk_hash_delete(int handle, const char *key);

/** @return the first entry: buckets ascending, each in the order in which its keys were entered; null for none. */
FRWK_API frwk_hash_entry_t *frwk_hash_first(int handle);

/** @return the entry after `entry` (the first for null); null at the end. Take it before deleting `entry`. */
FRWK_API frwk_hash_entry_t *frwk_hash_next(int handle, const frwk_hash_entry_t *entry);

FRWK_END_DECLS

#endif
