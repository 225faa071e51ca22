// Random operations on hash tables and on the plainest equals of them, for the tests and the fuzz targets. CHECK is
// theirs.
#ifndef HASH_MODEL_H
#define HASH_MODEL_H

#include <algorithm>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "frwk.h"

// Each bucket holds its keys in the order in which they were first entered, and their values as texts.
using Buckets = std::vector<std::vector<std::pair<std::string, std::string>>>;

inline std::string shown(const frwk_hash_value_t &value)
{
    return value.type == FRWK_HASH_TYPE_STRING ? reinterpret_cast<const char *>(value.data)
                                               : std::to_string(value.data);
}

inline size_t bucket_count(int size)
{
    for (int d = 2; size > 2 && d < size; d++) {
        if (size % d == 0) { // no prime: try the next smaller one
            size--;
            d = 1;
        }
    }
    return static_cast<size_t>(size > 2 ? size : 31);
}

inline void check_contents(int handle, const Buckets &buckets)
{
    std::string expected, found;
    for (size_t i = 0; i < buckets.size(); i++) {
        for (const auto &[key, value] : buckets[i]) {
            expected += std::to_string(i) + " " + key + "=" + value + "\n";
        }
    }
    const frwk_hash_entry_t *entry = frwk_hash_first(handle);
    for (; entry != nullptr; entry = frwk_hash_next(handle, entry)) {
        found += std::to_string(entry->bucket) + " " + shown(entry->key) + "=" + shown(entry->value) + "\n";
    }
    CHECK(expected == found);
}

// A chance gives numbers below its argument, and decides by that how large a thing becomes too.
using Chance = std::function<unsigned(unsigned)>;

inline void use_table(int handle, Buckets *buckets, const Chance &chance)
{
    std::string key;
    uint32_t sum = 0;
    for (unsigned left = chance(4) != 0 ? chance(4) : chance(53); left > 0; left--) {
        const unsigned byte = 1 + chance(chance(3) != 0 ? 2 : 255);
        sum += byte << (7 * key.size() % 24);
        key += static_cast<char>(byte);
    }
    auto &bucket = (*buckets)[sum % buckets->size()];
    const auto found = std::find_if(bucket.begin(), bucket.end(), [&](auto &pair) { return pair.first == key; });
    const bool present = found != bucket.end();
    const unsigned action = chance(8);
    if (action < 4) {
        static const char own[] = "of the caller, who keeps it";
        const frwk_hash_value_t value = action == 0   ? frwk_hash_value_integer(static_cast<int>(chance(200)) - 100)
                                        : action == 1 ? frwk_hash_value_string(own, 0)
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
    std::map<int, Buckets> tables; // by handle
    while (goes_on()) {
        const int handle = static_cast<int>(chance(40));
        const unsigned rare = chance(100);
        if (tables.count(handle) == 0) {
            const int size = (static_cast<int>(chance(74)) - 3) * (rare < 3 ? 20 : 1);
            int lowest = 0;
            while (tables.count(lowest) != 0) {
                lowest++;
            }
            CHECK(frwk_hash_create(size) == lowest);
            tables[lowest].resize(bucket_count(size));
        } else if (rare > 1) {
            use_table(handle, &tables[handle], chance);
        } else {
            check_contents(handle, tables[handle]);
            frwk_hash_free(handle);
            tables.erase(handle);
        }
    }
    for (const auto &[handle, buckets] : tables) {
        check_contents(handle, buckets);
        frwk_hash_free(handle);
    }
}

#endif
