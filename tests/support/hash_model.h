/* SPDX-FileCopyrightText: 2026 the libfrwk authors */
/* SPDX-License-Identifier: MIT */

// Random operations on hash tables and on the plainest equals of them, for the tests and the fuzz targets.
#ifndef HASH_MODEL_H
#define HASH_MODEL_H

#include "check.h"
#include <frwk.h>

#include <algorithm>
#include <functional>
#include <map>
#include <string>
#include <vector>

struct Table {
    uint32_t bucket_count = 0; // while there is no such table
    // Those that were ever used: keys in the order in which they were first entered, and their values as texts.
    std::map<uint32_t, std::vector<std::pair<std::string, std::string>>> buckets;
};

inline std::string shown(const frwk_hash_value_t &value)
{
    return value.type == FRWK_HASH_TYPE_STRING ? reinterpret_cast<const char *>(value.data)
                                               : std::to_string(value.data);
}

inline uint32_t bucket_count(int size)
{
    for (int d = 2; size > 2 && d < size; d++) {
        if (size % d == 0) { // no prime: try the next smaller one
            size--;
            d = 1;
        }
    }
    return static_cast<uint32_t>(size > 2 ? size : 31);
}

inline void check_contents(int handle, const Table &table)
{
    const frwk_hash_entry_t *entry = frwk_hash_first(handle);
    for (const auto &[number, bucket] : table.buckets) {
        for (const auto &[key, value] : bucket) {
            CHECK(entry != nullptr && static_cast<uint32_t>(entry->bucket) == number && shown(entry->key) == key &&
                  shown(entry->value) == value);
            entry = frwk_hash_next(handle, entry);
        }
    }
    CHECK(entry == nullptr);
}

// A chance gives numbers below its argument, and decides by that how large a thing becomes too.
using Chance = std::function<unsigned(unsigned)>;

inline void use_table(int handle, Table *table, const Chance &chance)
{
    std::string key;
    uint32_t sum = 0;
    for (unsigned left = chance(4) != 0 ? chance(4) : chance(53); left > 0; left--) {
        const unsigned byte = 1 + chance(chance(3) != 0 ? 2 : 255);
        sum += byte << (7 * key.size() % 24);
        key += static_cast<char>(byte);
    }
    auto &bucket = table->buckets[sum % table->bucket_count];
    const auto found = std::find_if(bucket.begin(), bucket.end(), [&](auto &pair) { return pair.first == key; });
    const bool present = found != bucket.end();
    const unsigned action = chance(8);
    if (action < 4) {
        const frwk_hash_value_t value = action == 0   ? frwk_hash_value_integer(static_cast<int>(chance(200)) - 100)
                                        : action == 1 ? frwk_hash_value_string("of the caller, who keeps it", 0)
                                                      : frwk_hash_value_string((key + key).c_str(), 1);
        const std::string text = shown(value);
        CHECK(frwk_hash_enter(handle, key.c_str(), value) != nullptr);
        (present ? *found : bucket.emplace_back(key, "")).second = text;
    } else if (action < 6) {
        CHECK(frwk_hash_delete(handle, key.c_str()) == (present ? 0 : -1));
        bucket.erase(found, present ? found + 1 : found);
    } else {
        const frwk_hash_entry_t *entry = frwk_hash_lookup(handle, key.c_str());
        CHECK((entry != nullptr) == (present && !key.empty()));
        CHECK(entry == nullptr || shown(entry->value) == found->second);
        CHECK(frwk_hash_lookup_symbol(handle, key.c_str()) ==
              (entry != nullptr ? reinterpret_cast<void *>(entry->value.data) : nullptr));
    }
}

// On up to 40 tables, more than two steps of the handle array.
inline void use_tables(const Chance &chance, const std::function<bool()> &goes_on)
{
    std::vector<Table> tables(40); // by handle
    const auto is_free = [](const Table &table) { return table.bucket_count == 0; };
    while (goes_on()) {
        const unsigned chosen = chance(40);
        if (is_free(tables[chosen])) {
            const int size = static_cast<int>(chance(74)) - 3;
            const auto lowest = std::find_if(tables.begin(), tables.end(), is_free);
            CHECK(frwk_hash_create(size) == lowest - tables.begin());
            lowest->bucket_count = bucket_count(size);
        } else if (chance(50) != 0) {
            use_table(static_cast<int>(chosen), &tables[chosen], chance);
        } else {
            check_contents(static_cast<int>(chosen), tables[chosen]);
            frwk_hash_free(static_cast<int>(chosen));
            tables[chosen] = {};
        }
    }
    for (int handle = 0; handle < 40; handle++) {
        if (!is_free(tables[static_cast<size_t>(handle)])) {
            check_contents(handle, tables[static_cast<size_t>(handle)]);
            frwk_hash_free(handle);
        }
    }
}

#endif
