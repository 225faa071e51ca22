/* SPDX-FileCopyrightText: 2026 the libfrwk authors */
/* SPDX-License-Identifier: MIT */

/*
 * String-keyed tables with separate chaining, named by small integer handles.
 */
#include "frwk_hash.h"

#include "frwk_bounded.h"
#include "frwk_guard.h"
#include "frwk_string.h"
#include "frwk_trace.h"

#include <stddef.h>
#include <stdlib.h>
#include <string.h>

enum { HANDLE_STEP = 16, SMALLEST_REQUEST = 3, DEFAULT_BUCKETS = 31 };

/*
 * What one allocation holds: the sum of the key, the entry that callers see, and behind it the text of the key. The
 * sum spares most comparisons; it stands beside the entry's link, so that passing over an entry takes one line of the
 * cache.
 */
struct hash_node {
    uint32_t sum;
    frwk_hash_entry_t entry;
};

/*
 * Each bucket has a byte of marks, one bit for an eighth of the sums that lead to it, set when a key of that eighth is
 * entered and never cleared. So most keys that are not there are known by that byte alone, and buckets that were never
 * used are passed over a word of marks at a time.
 */
struct hash_table {
    uint32_t count;      /* buckets */
    uint32_t reciprocal; /* of count, see slot_of() */
    frwk_hash_entry_t **buckets;
    uint8_t *marks; /* behind the buckets in the same block, with zeros up to a whole word */
};

using marks_word = size_t;
static_assert(sizeof(marks_word) == sizeof(frwk_hash_entry_t *));

/* Maps handles to tables; all zero while no table exists. */
static struct {
    uint32_t capacity;
    uint32_t in_use;
    hash_table **slots;
} handles;

/* The records of the library's edge: the same bytes for every program built against it. */
static_assert(offsetof(frwk_hash_value_t, type) == sizeof(void *) &&
              offsetof(frwk_hash_value_t, need_free) == sizeof(void *) + 8);
static_assert(offsetof(frwk_hash_entry_t, key) == sizeof(void *) &&
              offsetof(frwk_hash_entry_t, value) == sizeof(void *) + sizeof(frwk_hash_value_t) &&
              offsetof(frwk_hash_entry_t, bucket) == sizeof(void *) + 2 * sizeof(frwk_hash_value_t));

struct key_sum {
    uint32_t sum;
    size_t len;
};

/*
 * Adds up the bytes of a key, each shifted by 7 bits more than the one before it, modulo 24. Written out over one
 * period of the shifts, which is several times as fast as computing them.
 */
static key_sum sum_key(const char *key)
{
    const unsigned char *p = reinterpret_cast<const unsigned char *>(key);
    uint32_t sum = 0;
    for (;;) {
#define ADD(shift)                                                                                                     \
    if (*p == 0) {                                                                                                     \
        break;                                                                                                         \
    }                                                                                                                  \
    sum += static_cast<uint32_t>(*p++) << (shift);
        /* clang-format off */
        ADD(0) ADD(7) ADD(14) ADD(21) ADD(4) ADD(11) ADD(18) ADD(1)
        ADD(8) ADD(15) ADD(22) ADD(5) ADD(12) ADD(19) ADD(2) ADD(9)
        ADD(16) ADD(23) ADD(6) ADD(13) ADD(20) ADD(3) ADD(10) ADD(17)
        /* clang-format on */
#undef ADD
    }
    return {sum, static_cast<size_t>(p - reinterpret_cast<const unsigned char *>(key))};
}

/* Where the keys of a sum are, and the bit that tells of them. */
struct hash_slot {
    uint32_t bucket;
    uint8_t mark;
};

/* The bucket is sum modulo count: the quotient from the rounded-down reciprocal is exact or one too small. */
static hash_slot slot_of(const hash_table *table, uint32_t sum)
{
    uint32_t quotient = static_cast<uint32_t>(static_cast<uint64_t>(sum) * table->reciprocal >> 32);
    uint32_t rest = sum - quotient * table->count;
    if (rest >= table->count) {
        rest -= table->count;
        quotient++;
    }
    return {rest, static_cast<uint8_t>(1U << (quotient % 8))};
}

static bool is_prime(uint32_t n)
{
    if (n % 2 == 0) {
        return n == 2;
    }
    for (uint32_t d = 3; d * d <= n; d += 2) { /* n has 31 bits, so that d * d fits */
        if (n % d == 0) {
            return false;
        }
    }
    return true;
}

/* The largest prime not above the wanted size. */
static uint32_t bucket_count(int size)
{
    if (size < SMALLEST_REQUEST) {
        return DEFAULT_BUCKETS;
    }
    uint32_t count = static_cast<uint32_t>(size);
    while (!is_prime(count)) {
        count--;
    }
    return count;
}

/* The table of a handle; null, and a trace in the caller's name, when there is none. */
static inline hash_table *find_table(int handle, const char *caller, int line)
{
    uint32_t slot = static_cast<uint32_t>(handle);
    hash_table *table = slot < handles.capacity ? handles.slots[slot] : nullptr;
    if (__builtin_expect(table == nullptr, 0)) {
        frwk_trace_print(__FILE__, caller, line, FRWK_TRACE_ERROR, "parameter is null!");
    }
    return table;
}

static bool grow_handles()
{
    uint32_t capacity = handles.capacity + HANDLE_STEP;
    void *slots = realloc(handles.slots, capacity * sizeof(hash_table *));
    if (slots == nullptr) {
        return false;
    }
    handles.slots = static_cast<hash_table **>(slots);
    memset(handles.slots + handles.capacity, 0, HANDLE_STEP * sizeof(hash_table *));
    handles.capacity = capacity;
    return true;
}

/* The lowest free handle, or -1. */
static int frwk_hash_alloc_handle()
{
    if (handles.in_use == handles.capacity && !grow_handles()) {
        FRWK_ERR("alloc error!");
        return -1;
    }
    int handle = 0;
    while (handles.slots[handle] != nullptr) {
        handle++;
    }
    handles.in_use++;
    return handle;
}

static void release_handle(int handle)
{
    handles.slots[handle] = nullptr;
    handles.in_use--;
    if (handles.in_use == 0) {
        free(handles.slots);
        handles = {};
    }
}

int frwk_hash_create(int size)
{
    int handle = frwk_hash_alloc_handle();
    if (handle < 0) {
        FRWK_ERR("alloc hash id error!");
        return -1;
    }
    heap_ptr<hash_table> table(static_cast<hash_table *>(malloc(sizeof(hash_table))));
    if (!table) {
        FRWK_ERR("alloc hash table error!");
        release_handle(handle);
        return -1;
    }
    table->count = bucket_count(size);
    table->reciprocal = UINT32_MAX / table->count; /* without the division of 64 bits that ARM lacks */
    size_t words = size_t{table->count} + table->count / sizeof(frwk_hash_entry_t *) + 1;
    table->buckets = static_cast<frwk_hash_entry_t **>(calloc(words, sizeof(frwk_hash_entry_t *)));
    if (table->buckets == nullptr) {
        FRWK_ERR("alloc error!");
        release_handle(handle);
        return -1;
    }
    table->marks = reinterpret_cast<uint8_t *>(table->buckets + table->count);
    handles.slots[handle] = table.release();
    return handle;
}

static void release_value(frwk_hash_value_t *value)
{
    if (value->valid != 0 && value->need_free != 0) {
        free(reinterpret_cast<void *>(value->data));
    }
}

static hash_node *node_of(frwk_hash_entry_t *entry)
{
    return reinterpret_cast<hash_node *>(reinterpret_cast<char *>(entry) - offsetof(hash_node, entry));
}

/* Ends an entry that no chain holds any more, and with it its key. */
static void free_entry(frwk_hash_entry_t *entry)
{
    release_value(&entry->value);
    free(node_of(entry));
}

/* Begins to load both ends of an entry into the cache. Inline, since compilers take a call that only does so for dead.
 */
__attribute__((always_inline)) static inline void prefetch(const frwk_hash_entry_t *entry)
{
    if (entry != nullptr) {
        __builtin_prefetch(entry);
        __builtin_prefetch(&entry->bucket);
    }
}

/*
 * What a walk over the entries comes to soon: the first entry of a bucket, and when that has arrived the second. One
 * miss of the cache would wait for the other, since each entry leads to the next.
 */
__attribute__((always_inline)) static inline void prefetch_behind(const hash_table *table, uint32_t bucket)
{
    constexpr uint32_t AHEAD = 12;
    if (bucket + 2 * AHEAD < table->count) {
        prefetch(table->buckets[bucket + 2 * AHEAD]);
        const frwk_hash_entry_t *first = table->buckets[bucket + AHEAD];
        prefetch(first != nullptr ? first->next : nullptr);
    }
}

/* The first bucket from there on that is not empty, or count. */
static uint32_t used_bucket(const hash_table *table, uint32_t bucket)
{
    while (bucket < table->count) {
        marks_word word;
        if (bucket % sizeof word == 0 && (memcpy(&word, table->marks + bucket, sizeof word), word == 0)) {
            bucket += sizeof word;
            continue;
        }
        prefetch_behind(table, bucket);
        if (table->buckets[bucket] != nullptr) {
            return bucket;
        }
        bucket++;
    }
    return table->count;
}

void frwk_hash_free(int handle)
{
    hash_table *table = find_table(handle, __func__, __LINE__);
    if (table == nullptr) {
        return;
    }
    for (uint32_t i = used_bucket(table, 0); i < table->count; i = used_bucket(table, i + 1)) {
        for (frwk_hash_entry_t *entry = table->buckets[i], *next; entry != nullptr; entry = next) {
            next = entry->next;
            free_entry(entry);
        }
    }
    free(table->buckets);
    free(table);
    release_handle(handle);
}

frwk_hash_value_t frwk_hash_value_integer(int integer)
{
    return {integer, FRWK_HASH_TYPE_INTEGER, 1, 0};
}

frwk_hash_value_t frwk_hash_value_symbol(void *symbol)
{
    return {reinterpret_cast<intptr_t>(symbol), FRWK_HASH_TYPE_SYMBOL, 1, 0};
}

frwk_hash_value_t frwk_hash_value_string(const char *text, int copy)
{
    const char *held = copy != 0 ? frwk_strdup(text) : text;
    return {reinterpret_cast<intptr_t>(held), FRWK_HASH_TYPE_STRING, 1, copy != 0 ? 1 : 0};
}

/*
 * The link that leads to the entry with the key: the bucket, or `next` of the entry before it. When there is none, the
 * link at the chain's tail, which holds null.
 */
static inline frwk_hash_entry_t **find_link(frwk_hash_entry_t **link, const char *key, uint32_t sum)
{
    for (; *link != nullptr; link = &(*link)->next) {
        const hash_node *node = node_of(*link);
        if (node->sum == sum && strcmp(reinterpret_cast<const char *>(node->entry.key.data), key) == 0) {
            break;
        }
    }
    return link;
}

/* An entry with its own copy of the key; null when memory is short. */
static frwk_hash_entry_t *new_entry(const char *key, key_sum sum)
{
    size_t key_size = sum.len + 1;
    hash_node *node = static_cast<hash_node *>(malloc(sizeof(hash_node) + key_size));
    if (node == nullptr) {
        return nullptr;
    }
    char *text = reinterpret_cast<char *>(node + 1);
    memcpy_s(text, key_size, key, key_size);
    node->sum = sum.sum;
    node->entry.next = nullptr;
    node->entry.key = {reinterpret_cast<intptr_t>(text), FRWK_HASH_TYPE_STRING, 1, 1};
    return &node->entry;
}

/* A value entered again over itself stays the table's. */
static void replace_value(frwk_hash_entry_t *entry, const frwk_hash_value_t *value)
{
    if (value->data != entry->value.data || value->need_free == 0) {
        release_value(&entry->value);
    }
    entry->value = *value;
}

frwk_hash_entry_t *frwk_hash_enter(int handle, const char *key, frwk_hash_value_t value)
{
    hash_table *table = find_table(handle, __func__, __LINE__);
    if (table == nullptr) {
        return nullptr;
    }
    if (key == nullptr) {
        FRWK_ERR("parameter is null!");
        return nullptr;
    }
    key_sum sum = sum_key(key);
    hash_slot slot = slot_of(table, sum.sum);
    frwk_hash_entry_t **link = find_link(&table->buckets[slot.bucket], key, sum.sum);
    frwk_hash_entry_t *entry = *link;
    if (entry != nullptr) {
        replace_value(entry, &value);
        return entry;
    }
    entry = new_entry(key, sum);
    if (entry == nullptr) {
        FRWK_ERR("alloc error!");
        return nullptr;
    }
    entry->value = value;
    entry->bucket = static_cast<int32_t>(slot.bucket);
    *link = entry;
    table->marks[slot.bucket] |= slot.mark;
    return entry;
}

frwk_hash_entry_t *frwk_hash_lookup(int handle, const char *key)
{
    if (key == nullptr || key[0] == '\0') {
        FRWK_ERR("parameter is null!");
        return nullptr;
    }
    hash_table *table = find_table(handle, __func__, __LINE__);
    if (table == nullptr) {
        return nullptr;
    }
    uint32_t sum = sum_key(key).sum;
    hash_slot slot = slot_of(table, sum);
    return (table->marks[slot.bucket] & slot.mark) != 0 ? *find_link(&table->buckets[slot.bucket], key, sum) : nullptr;
}

void *frwk_hash_lookup_symbol(int handle, const char *key)
{
    frwk_hash_entry_t *entry = frwk_hash_lookup(handle, key);
    if (entry == nullptr) {
        FRWK_ERR("hash lookup(%s) error!", key != nullptr ? key : "(null)");
        return nullptr;
    }
    return reinterpret_cast<void *>(entry->value.data);
}

int frwk_hash_delete(int handle, const char *key)
{
    hash_table *table = find_table(handle, __func__, __LINE__);
    if (table == nullptr) {
        return -1;
    }
    if (key == nullptr) {
        FRWK_ERR("parameter is null!");
        return -1;
    }
    uint32_t sum = sum_key(key).sum;
    frwk_hash_entry_t **link = find_link(&table->buckets[slot_of(table, sum).bucket], key, sum);
    frwk_hash_entry_t *entry = *link;
    if (entry == nullptr) {
        FRWK_WARN("hash(%s) not found!", key);
        return -1;
    }
    *link = entry->next;
    free_entry(entry);
    return 0;
}

static frwk_hash_entry_t *first_from(const hash_table *table, uint32_t bucket)
{
    bucket = used_bucket(table, bucket);
    return bucket < table->count ? table->buckets[bucket] : nullptr;
}

frwk_hash_entry_t *frwk_hash_first(int handle)
{
    hash_table *table = find_table(handle, __func__, __LINE__);
    return table != nullptr ? first_from(table, 0) : nullptr;
}

frwk_hash_entry_t *frwk_hash_next(int handle, const frwk_hash_entry_t *entry)
{
    hash_table *table = find_table(handle, __func__, __LINE__);
    if (table == nullptr) {
        return nullptr;
    }
    if (entry == nullptr) {
        return first_from(table, 0);
    }
    return entry->next != nullptr ? entry->next : first_from(table, static_cast<uint32_t>(entry->bucket) + 1);
}
