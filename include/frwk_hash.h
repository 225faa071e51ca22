/* SPDX-FileCopyrightText: 2026 the libfrwk authors */
/* SPDX-License-Identifier: MIT */

/**
 * @file frwk_hash.h
 * Tables with string keys and typed values, named by small integer handles.
 *
 * The number of buckets is fixed at creation. No function takes a lock: a module uses its tables from one thread at a
 * time or guards every call, creation included, with one mutex of its own. A handle that names no table is traced and
 * fails the call; one that was freed may name a newer table.
 */
#ifndef FRWK_HASH_H
#define FRWK_HASH_H

#include "frwk_defs.h"

#include <stdint.h>

FRWK_BEGIN_DECLS

/** Types of a value. */
enum {
    FRWK_HASH_TYPE_INTEGER = 6, /**< An integer. */
    FRWK_HASH_TYPE_STRING = 12, /**< A text, the caller's or a copy. */
    FRWK_HASH_TYPE_SYMBOL = 18  /**< A pointer of the caller's. */
};

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
    frwk_hash_value_t key;        /**< The table's copy of the key, part of the entry; not to be changed or freed. */
    frwk_hash_value_t value;      /**< As it was entered. */
    int32_t bucket;               /**< Index of the bucket. */
} frwk_hash_entry_t;

/**
 * Creates a table.
 * @param size  wanted number of buckets; the largest prime not above it is used, 31 for 2 and below
 * @return a handle, the lowest that is free, from 0 on; -1, traced, when memory is short
 */
FRWK_API int frwk_hash_create(int size);

/**
 * Frees a table with its entries, keys, and the values that it owns; the handle may be handed out again.
 * @param handle  table
 */
FRWK_API void frwk_hash_free(int handle);

/**
 * Makes a value of an integer.
 * @param integer  the integer
 * @return the value
 */
FRWK_API frwk_hash_value_t frwk_hash_value_integer(int integer);

/**
 * Makes a value of a pointer.
 * @param symbol  the caller's, and never freed by a table; valid as long as an entry holds it. May be null.
 * @return the value
 */
FRWK_API frwk_hash_value_t frwk_hash_value_symbol(void *symbol);

/**
 * Makes a value of a text.
 * @param text  text; may be null, which stands for "" when it is copied
 * @param copy  not 0: the value holds a copy, which a table owns once it is entered, and which the caller ends with
 *              free() otherwise; 0: it holds `text` itself, the caller's, valid as long as an entry holds it
 * @return the value; its `data` is 0 when the copy could not be made
 */
FRWK_API frwk_hash_value_t frwk_hash_value_string(const char *text, int copy);

/**
 * Stores a value under a key. The value that was there is released, and pointers to a text that the table owned end
 * with it; its entry and the entry's place stay.
 * @param handle  table
 * @param key     text, copied; may be ""
 * @param value   the table's on success; one with `need_free` may be in one entry only
 * @return the entry, valid until its key is deleted or its table freed; null, traced, when memory is short, the handle
 *         is invalid or the key null: the value then stays the caller's
 */
FRWK_API frwk_hash_entry_t *frwk_hash_enter(int handle, const char *key, frwk_hash_value_t value);

/**
 * Looks up a key.
 * @param handle  table
 * @param key     text; "" is never found, although it can be entered
 * @return the entry, valid until its key is deleted or its table freed; null for an absent key, and, traced, for a null
 *         or empty one and an invalid handle
 */
FRWK_API frwk_hash_entry_t *frwk_hash_lookup(int handle, const char *key);

/**
 * Looks up the value of a key.
 * @param handle  table
 * @param key     text; not ""
 * @return the entry's `data` as a pointer, whatever its type; null when that is 0, and, traced, when
 *         frwk_hash_lookup() finds no entry
 */
FRWK_API void *frwk_hash_lookup_symbol(int handle, const char *key);

/**
 * Removes a key with its entry, and the value if the table owns it.
 * @param handle  table
 * @param key     text
 * @return 0; -1, traced, when the key is absent or null or the handle invalid
 */
FRWK_API int frwk_hash_delete(int handle, const char *key);

/**
 * Begins a walk over the entries: buckets ascending, each in the order in which its keys were entered.
 * @param handle  table
 * @return the first entry; null for none, and, traced, for an invalid handle
 */
FRWK_API frwk_hash_entry_t *frwk_hash_first(int handle);

/**
 * Goes on with a walk. Take the next entry before deleting the one in hand.
 * @param handle  table
 * @param entry   an entry of that table; null for the first
 * @return the entry after `entry`; null at the end, and, traced, for an invalid handle
 */
FRWK_API frwk_hash_entry_t *frwk_hash_next(int handle, const frwk_hash_entry_t *entry);

FRWK_END_DECLS

#endif
