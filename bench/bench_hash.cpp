/* SPDX-FileCopyrightText: 2026 the libfrwk authors */
/* SPDX-License-Identifier: MIT */

// The hash table against its plain form, GLib's, the C++ library's and uthash. All own their keys.
#define HASH_NONFATAL_OOM 0
#include "growth.h"
#include <frwk_hash.h>

#include <glib.h>
#include <uthash.h>

#include <cstring>
#include <random>
#include <unordered_map>

namespace {

constexpr size_t KEYS = 1000, MANY_KEYS = 100000;
constexpr int BUCKETS = 1009, MANY_BUCKETS = 100003;

// The described table, written directly: a byte at a time, a division, and a comparison for every entry of the chain.
struct Plain {
    struct Table {
        uint32_t count;
        frwk_hash_entry_t **buckets;
    };
    std::vector<Table *> tables;

    __attribute__((noinline)) static uint32_t index(const Table *table, const char *key)
    {
        uint32_t sum = 0;
        unsigned shift = 0;
        for (; *key != 0; key++) {
            sum += static_cast<uint32_t>(static_cast<unsigned char>(*key)) << shift;
            shift = (shift + 7) % 24;
        }
        return sum % table->count;
    }
    __attribute__((noinline)) int create(int count)
    {
        Table *table = static_cast<Table *>(malloc(sizeof(Table)));
        *table = {static_cast<uint32_t>(count),
                  static_cast<frwk_hash_entry_t **>(calloc(static_cast<size_t>(count), sizeof(void *)))};
        tables.push_back(table);
        return static_cast<int>(tables.size() - 1);
    }
    static const char *text(const frwk_hash_entry_t *entry)
    {
        return reinterpret_cast<const char *>(entry->key.data);
    }
    __attribute__((noinline)) frwk_hash_entry_t *enter(int handle, const char *key, frwk_hash_value_t value)
    {
        Table *table = tables[static_cast<size_t>(handle)];
        uint32_t bucket = index(table, key);
        frwk_hash_entry_t *last = nullptr;
        for (frwk_hash_entry_t *entry = table->buckets[bucket]; entry != nullptr; entry = entry->next) {
            if (strcmp(text(entry), key) == 0) {
                entry->value = value;
                return entry;
            }
            last = entry;
        }
        frwk_hash_entry_t *entry = static_cast<frwk_hash_entry_t *>(malloc(sizeof *entry));
        entry->next = nullptr;
        entry->key = {reinterpret_cast<intptr_t>(strdup(key)), FRWK_HASH_TYPE_STRING, 1, 1};
        entry->value = value;
        entry->bucket = static_cast<int32_t>(bucket);
        (last != nullptr ? last->next : table->buckets[bucket]) = entry;
        return entry;
    }
    __attribute__((noinline)) frwk_hash_entry_t *lookup(int handle, const char *key)
    {
        Table *table = tables[static_cast<size_t>(handle)];
        frwk_hash_entry_t *entry = table->buckets[index(table, key)];
        while (entry != nullptr && strcmp(text(entry), key) != 0) {
            entry = entry->next;
        }
        return entry;
    }
    static void release(frwk_hash_value_t *value)
    {
        if (value->valid != 0 && value->need_free != 0) {
            free(reinterpret_cast<void *>(value->data));
        }
        *value = {};
    }
    static void drop(frwk_hash_entry_t *entry)
    {
        release(&entry->key);
        release(&entry->value);
        free(entry);
    }
    __attribute__((noinline)) int remove(int handle, const char *key)
    {
        Table *table = tables[static_cast<size_t>(handle)];
        uint32_t bucket = index(table, key);
        frwk_hash_entry_t *last = nullptr;
        for (frwk_hash_entry_t *entry = table->buckets[bucket]; entry != nullptr; entry = entry->next) {
            if (strcmp(text(entry), key) == 0) {
                (last != nullptr ? last->next : table->buckets[bucket]) = entry->next;
                drop(entry);
                return 0;
            }
            last = entry;
        }
        return -1;
    }
    void destroy(int handle)
    {
        Table *table = tables[static_cast<size_t>(handle)];
        for (uint32_t i = 0; i < table->count; i++) {
            for (frwk_hash_entry_t *entry = table->buckets[i], *next; entry != nullptr; entry = next) {
                next = entry->next;
                drop(entry);
            }
        }
        free(table->buckets);
        free(table);
        tables.pop_back();
    }
};
Plain plain;

// What the benchmarks drive: enter, look up (the value, or -1), remove, all by key; and the sum of all values.
struct FloorTable {
    int handle;
    explicit FloorTable(int size) : handle(plain.create(size))
    {
    }
    ~FloorTable()
    {
        plain.destroy(handle);
    }
    FloorTable(const FloorTable &) = delete;
    FloorTable &operator=(const FloorTable &) = delete;
    void enter(const char *key, int value)
    {
        plain.enter(handle, key, frwk_hash_value_integer(value));
    }
    intptr_t lookup(const char *key)
    {
        frwk_hash_entry_t *entry = plain.lookup(handle, key);
        return entry != nullptr ? entry->value.data : -1;
    }
    bool remove(const char *key)
    {
        return plain.remove(handle, key) == 0;
    }
    intptr_t sum() const
    {
        intptr_t sum = 0;
        const Plain::Table *table = plain.tables[static_cast<size_t>(handle)];
        for (uint32_t i = 0; i < table->count; i++) {
            for (frwk_hash_entry_t *entry = table->buckets[i]; entry != nullptr; entry = entry->next) {
                sum += entry->value.data;
            }
        }
        return sum;
    }
};

struct OurTable {
    int handle;
    explicit OurTable(int size) : handle(frwk_hash_create(size))
    {
    }
    ~OurTable()
    {
        frwk_hash_free(handle);
    }
    OurTable(const OurTable &) = delete;
    OurTable &operator=(const OurTable &) = delete;
    void enter(const char *key, int value)
    {
        frwk_hash_enter(handle, key, frwk_hash_value_integer(value));
    }
    intptr_t lookup(const char *key)
    {
        frwk_hash_entry_t *entry = frwk_hash_lookup(handle, key);
        return entry != nullptr ? entry->value.data : -1;
    }
    bool remove(const char *key)
    {
        return frwk_hash_delete(handle, key) == 0;
    }
    intptr_t sum() const
    {
        intptr_t sum = 0;
        for (frwk_hash_entry_t *entry = frwk_hash_first(handle); entry != nullptr;
             entry = frwk_hash_next(handle, entry)) {
            sum += entry->value.data;
        }
        return sum;
    }
};

struct GlibTable {
    GHashTable *table;
    explicit GlibTable(int) : table(g_hash_table_new_full(g_str_hash, g_str_equal, g_free, nullptr))
    {
    }
    ~GlibTable()
    {
        g_hash_table_destroy(table);
    }
    GlibTable(const GlibTable &) = delete;
    GlibTable &operator=(const GlibTable &) = delete;
    void enter(const char *key, int value)
    {
        g_hash_table_insert(table, g_strdup(key), GINT_TO_POINTER(value));
    }
    intptr_t lookup(const char *key)
    {
        gpointer value;
        return g_hash_table_lookup_extended(table, key, nullptr, &value) ? reinterpret_cast<intptr_t>(value) : -1;
    }
    bool remove(const char *key)
    {
        return g_hash_table_remove(table, key);
    }
    intptr_t sum() const
    {
        intptr_t sum = 0;
        GHashTableIter iter;
        gpointer key, value;
        for (g_hash_table_iter_init(&iter, table); g_hash_table_iter_next(&iter, &key, &value);) {
            sum += reinterpret_cast<intptr_t>(value);
        }
        return sum;
    }
};

struct StdTable {
    std::unordered_map<std::string, intptr_t> map;
    explicit StdTable(int size) : map(static_cast<size_t>(size))
    {
    }
    void enter(const char *key, int value)
    {
        map[key] = value;
    }
    intptr_t lookup(const char *key)
    {
        auto found = map.find(key);
        return found != map.end() ? found->second : -1;
    }
    bool remove(const char *key)
    {
        return map.erase(key) == 1;
    }
    intptr_t sum() const
    {
        intptr_t sum = 0;
        for (const auto &[key, value] : map) {
            sum += value;
        }
        return sum;
    }
};

struct UtTable {
    struct Node {
        char *key;
        intptr_t value;
        UT_hash_handle hh;
    };
    Node *nodes = nullptr;
    explicit UtTable(int)
    {
    }
    ~UtTable()
    {
        Node *node, *next;
        HASH_ITER(hh, nodes, node, next)
        {
            drop(node);
        }
    }
    UtTable(const UtTable &) = delete;
    UtTable &operator=(const UtTable &) = delete;
    void drop(Node *node)
    {
        HASH_DEL(nodes, node);
        free(node->key);
        free(node);
    }
    void enter(const char *key, int value)
    {
        Node *node;
        HASH_FIND_STR(nodes, key, node);
        if (node == nullptr) {
            node = static_cast<Node *>(malloc(sizeof *node));
            node->key = strdup(key);
            HASH_ADD_KEYPTR(hh, nodes, node->key, strlen(node->key), node);
        }
        node->value = value;
    }
    intptr_t lookup(const char *key)
    {
        Node *node;
        HASH_FIND_STR(nodes, key, node);
        return node != nullptr ? node->value : -1;
    }
    bool remove(const char *key)
    {
        Node *node;
        HASH_FIND_STR(nodes, key, node);
        if (node == nullptr) {
            return false;
        }
        drop(node);
        return true;
    }
    intptr_t sum() const
    {
        intptr_t sum = 0;
        for (const Node *node = nodes; node != nullptr; node = static_cast<const Node *>(node->hh.next)) {
            sum += node->value;
        }
        return sum;
    }
};

// Names of settings, 13 to 26 characters, in an order of their own.
std::vector<std::string> make_keys(size_t count, const char *last)
{
    const char *areas[] = {"network", "modem", "serial", "location", "power"};
    const char *names[] = {"profile", "timeout", "address", "retries"};
    std::vector<std::string> keys;
    for (size_t i = 0; i < count; i++) {
        keys.push_back(std::string(areas[i % 5]) + "." + names[i / 5 % 4] + "." + std::to_string(i) + last);
    }
    std::shuffle(keys.begin(), keys.end(), std::mt19937(1));
    return keys;
}

const std::vector<std::string> keys = make_keys(KEYS, "");
const std::vector<std::string> absent = make_keys(KEYS, "x");

template <typename Table> void fill(Table &table, const std::vector<std::string> &with)
{
    for (size_t i = 0; i < with.size(); i++) {
        table.enter(with[i].c_str(), static_cast<int>(i));
    }
}

// A batch: as many times the whole table; only what `part` does with it is timed.
template <typename Table, typename Part> double each_table(size_t n, bool filled, Part part)
{
    double spent = 0;
    for (size_t done = 0; done < n; done += KEYS) {
        Table table(BUCKETS);
        if (filled) {
            fill(table, keys);
        }
        double start = bench::now_ns();
        part(table);
        spent += bench::now_ns() - start;
    }
    return spent;
}

template <typename Table> double enter_batch(size_t n)
{
    return each_table<Table>(n, false, [](Table &table) { fill(table, keys); });
}
template <typename Table> double delete_batch(size_t n)
{
    return each_table<Table>(n, true, [](Table &table) {
        size_t gone = 0;
        for (const std::string &key : keys) {
            gone += table.remove(key.c_str());
        }
        CHECK(gone == KEYS && table.lookup(keys[0].c_str()) == -1);
    });
}
template <typename Table> double hit_batch(size_t n)
{
    return each_table<Table>(KEYS, true, [n](Table &table) {
        for (size_t done = 0; done < n; done += KEYS) {
            intptr_t sum = 0;
            for (const std::string &key : keys) {
                sum += table.lookup(key.c_str());
            }
            CHECK(sum == KEYS * (KEYS - 1) / 2);
        }
    });
}
template <typename Table> double miss_batch(size_t n)
{
    return each_table<Table>(KEYS, true, [n](Table &table) {
        for (size_t done = 0; done < n; done += KEYS) {
            intptr_t sum = 0;
            for (const std::string &key : absent) {
                sum += table.lookup(key.c_str());
            }
            CHECK(sum == -static_cast<intptr_t>(KEYS));
        }
    });
}

// A large table, filled once: most of what an operation touches lies outside the nearest caches.
template <typename Table> struct Large {
    static const Large &instance()
    {
        static const Large large;
        return large;
    }
    Large() : table(MANY_BUCKETS), absent(make_keys(MANY_KEYS, "x"))
    {
        fill(table, make_keys(MANY_KEYS, ""));
    }
    mutable Table table;
    std::vector<std::string> absent;
};

template <typename Table> double large_miss_batch(size_t n)
{
    const Large<Table> &large = Large<Table>::instance();
    double start = bench::now_ns();
    for (size_t done = 0; done < n; done++) {
        CHECK(large.table.lookup(large.absent[done % MANY_KEYS].c_str()) == -1);
    }
    return bench::now_ns() - start;
}
template <typename Table> double iterate_batch(size_t n)
{
    const Large<Table> &large = Large<Table>::instance();
    double start = bench::now_ns();
    for (size_t done = 0; done < n; done += MANY_KEYS) {
        CHECK(large.table.sum() == static_cast<intptr_t>(MANY_KEYS * (MANY_KEYS - 1) / 2));
    }
    return bench::now_ns() - start;
}
template <typename Table> double create_batch(size_t n)
{
    double start = bench::now_ns();
    for (size_t done = 0; done < n; done++) {
        Table table(MANY_BUCKETS);
        CHECK(table.lookup("a") == -1);
    }
    return bench::now_ns() - start;
}

#define OPERATION(name, most, batch, step)                                                                             \
    bench::run({name,                                                                                                  \
                {bench::floor_of(batch<FloorTable>),                                                                   \
                 bench::ours_of(batch<OurTable>),                                                                      \
                 {"GLib GHashTable", batch<GlibTable>},                                                                \
                 {"std::unordered_map", batch<StdTable>},                                                              \
                 {"uthash", batch<UtTable>}},                                                                          \
                most,                                                                                                  \
                0,                                                                                                     \
                "",                                                                                                    \
                0,                                                                                                     \
                step})

// A table of as many buckets as keys, filled, asked for every key, and freed.
template <typename Table> void life(benchmark::State &state)
{
    size_t count = static_cast<size_t>(state.range(0));
    const std::vector<std::string> all = make_keys(count, "");
    double lookups = 0;
    for (auto _ : state) {
        Table table(static_cast<int>(count));
        fill(table, all);
        double start = bench::now_ns();
        for (const std::string &key : all) {
            CHECK(table.lookup(key.c_str()) >= 0);
        }
        lookups += bench::now_ns() - start;
    }
    state.counters["ns a lookup"] = lookups / static_cast<double>(count * state.iterations());
}
BENCHMARK_TEMPLATE(life, OurTable)->Name("fill, look up, free")->RangeMultiplier(10)->Range(10, 1000000)->MinTime(0.1);
BENCHMARK_TEMPLATE(life, FloorTable)
    ->Name("the floor, the same")
    ->RangeMultiplier(10)
    ->Range(10, 1000000)
    ->MinTime(0.1);

} // namespace

int main()
{
    bench::use_cores(1);
    bench::measuring_clock = CLOCK_THREAD_CPUTIME_ID;
    bench::print_header("### Hash table: 1,000 keys in 1,009 buckets, one core");
    OPERATION("enter", 0.9, enter_batch, KEYS);
    OPERATION("look up, there", 0.75, hit_batch, KEYS);
    OPERATION("look up, absent", 0.55, miss_batch, KEYS);
    OPERATION("delete", 0.9, delete_batch, KEYS);
    bench::print_header("### Hash table: 100,000 keys in 100,003 buckets, one core");
    OPERATION("look up, absent", 0.35, large_miss_batch, 1);
    OPERATION("iterate, an entry", 0, iterate_batch, MANY_KEYS);
    bench::run({"create and free, empty",
                {bench::floor_of(create_batch<FloorTable>), bench::ours_of(create_batch<OurTable>)},
                1.5});
    bench::run_growth();
    return 0;
}
