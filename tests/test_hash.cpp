#include "frwk_test.h"

#include <algorithm>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <random>

using frwk_test::Capture;

#if defined(__has_feature)
#define HAS_FEATURE(name) __has_feature(name)
#else
#define HAS_FEATURE(name) 0
#endif
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__) && !HAS_FEATURE(address_sanitizer) &&                  \
    !HAS_FEATURE(thread_sanitizer)
#define CAN_FAIL_ALLOCATIONS 1
#endif

// Refuses the allocation that this counts down to; the sanitizers have an allocator of their own.
static int allocations_left = INT_MAX;
#ifdef CAN_FAIL_ALLOCATIONS
extern "C" {
void *__libc_malloc(size_t size);
void *__libc_calloc(size_t count, size_t size);
void *__libc_realloc(void *block, size_t size);
void *malloc(size_t size) {
    return --allocations_left == 0 ? nullptr : __libc_malloc(size);
}
void *calloc(size_t count, size_t size) {
    return --allocations_left == 0 ? nullptr : __libc_calloc(count, size);
}
void *realloc(void *block, size_t size) {
    return --allocations_left == 0 ? nullptr : __libc_realloc(block, size);
}
}
#endif

namespace {

std::vector<std::string> traced(const std::function<void()> &body) {
    frwk_debug_enable(3);
    frwk_trace_set("debug");
    Capture capture;
    frwk_trace_print("warm.cpp", "up", 1, FRWK_TRACE_ERROR, "the stream has its buffer now");
    body();
    allocations_left = INT_MAX;
    std::vector<std::string> lines;
    for (const frwk_test::TraceLine &trace : capture.traces()) {
        lines.push_back(trace.brief());
    }
    lines.erase(lines.begin());
    return lines;
}

using Lines = std::vector<std::string>;

uint32_t sum_of(const std::string &key) {
    uint32_t sum = 0;
    for (size_t i = 0; i < key.size(); i++) {
        sum += static_cast<uint32_t>(static_cast<unsigned char>(key[i])) << (7 * i % 24);
    }
    return sum;
}

std::string text_of(const frwk_hash_value_t &value) {
    return reinterpret_cast<const char *>(value.data);
}

TEST(hash, values) {
    char text[] = "text";
    frwk_hash_value_t copy = frwk_hash_value_string(text, 2), none = frwk_hash_value_string(nullptr, 1);
    struct {
        frwk_hash_value_t value;
        intptr_t data;
        int type, need_free;
    } cases[] = {
        {frwk_hash_value_integer(INT_MIN), INT_MIN, 6, 0},
        {frwk_hash_value_symbol(text), reinterpret_cast<intptr_t>(text), 18, 0},
        {frwk_hash_value_string(text, 0), reinterpret_cast<intptr_t>(text), 12, 0},
        {copy, copy.data, 12, 1},
        {none, none.data, 12, 1},
    };
    for (const auto &c : cases) {
        EXPECT_EQ(c.data, c.value.data);
        EXPECT_EQ(c.type, c.value.type);
        EXPECT_EQ(1, c.value.valid);
        EXPECT_EQ(c.need_free, c.value.need_free);
    }
    EXPECT_NE(reinterpret_cast<intptr_t>(text), copy.data);
    EXPECT_EQ("text", text_of(copy));
    EXPECT_EQ("", text_of(none));
    free(reinterpret_cast<void *>(copy.data));
    free(reinterpret_cast<void *>(none.data));
}

TEST(hash, bucket_counts_and_sums) {
    const struct {
        int size;
        uint32_t count;
    } cases[] = {{-7, 31}, {0, 31},     {2, 31},        {3, 3},         {4, 3},        {9, 7},          {25, 23},
                 {31, 31}, {32, 31},    {100, 97},      {121, 113},     {1000, 997},   {1009, 1009},    {INT_MIN, 31},
                 {1, 31},  {5041, 5039}, {65536, 65521}, {1000000, 999983}};
    for (const auto &c : cases) {
        int handle = frwk_hash_create(c.size);
        for (const std::string &key : {std::string(), std::string("a"), std::string("ab"), std::string(60, '\xff'),
                                       std::string("network.profile.3"), std::string(25, '\x7f')}) {
            frwk_hash_entry_t *entry = frwk_hash_enter(handle, key.c_str(), frwk_hash_value_integer(1));
            ASSERT_NE(nullptr, entry);
            EXPECT_EQ(sum_of(key) % c.count, static_cast<uint32_t>(entry->bucket)) << c.size << " " << key;
        }
        frwk_hash_free(handle);
    }
    int handle = frwk_hash_create(0);
    EXPECT_EQ(4, frwk_hash_enter(handle, "a", frwk_hash_value_integer(1))->bucket);
    EXPECT_EQ(24, frwk_hash_enter(handle, "ab", frwk_hash_value_integer(1))->bucket);
    frwk_hash_free(handle);
}

TEST(hash, handles_are_the_lowest_free) {
    for (int round = 0; round < 2; round++) { // the second time after the last table has gone
        for (int i = 0; i < 40; i++) {
            EXPECT_EQ(i, frwk_hash_create(3));
            frwk_hash_enter(i, "own", frwk_hash_value_integer(i));
        }
        for (int freed : {17, 0, 39, 3}) {
            frwk_hash_free(freed);
        }
        for (int again : {0, 3, 17, 39, 40}) {
            EXPECT_EQ(again, frwk_hash_create(3));
            EXPECT_EQ(nullptr, frwk_hash_first(again));
        }
        for (int i = 0; i <= 40; i++) {
            frwk_hash_entry_t *entry = frwk_hash_lookup(i, "own");
            EXPECT_EQ(i == 0 || i == 3 || i == 17 || i >= 39, entry == nullptr);
            EXPECT_TRUE(entry == nullptr || entry->value.data == i);
            frwk_hash_free(i);
        }
    }
}

TEST(hash, refusals) {
    int handle = frwk_hash_create(7);
    const Lines null_line = {"error|frwk_hash.cpp|frwk_hash_lookup::parameter is null!"};
    EXPECT_EQ(null_line, traced([&] { EXPECT_EQ(nullptr, frwk_hash_lookup(handle, nullptr)); }));
    EXPECT_EQ(null_line, traced([&] { EXPECT_EQ(nullptr, frwk_hash_lookup(handle, "")); }));
    EXPECT_EQ(Lines(), traced([&] { EXPECT_EQ(nullptr, frwk_hash_lookup(handle, "absent")); }));
    EXPECT_EQ(Lines{"error|frwk_hash.cpp|frwk_hash_lookup_symbol::hash lookup(absent) error!"},
              traced([&] { EXPECT_EQ(nullptr, frwk_hash_lookup_symbol(handle, "absent")); }));
    EXPECT_EQ((Lines{null_line[0], "error|frwk_hash.cpp|frwk_hash_lookup_symbol::hash lookup() error!"}),
              traced([&] { EXPECT_EQ(nullptr, frwk_hash_lookup_symbol(handle, "")); }));
    EXPECT_EQ(Lines{"warning|frwk_hash.cpp|frwk_hash_delete::hash(absent) not found!"},
              traced([&] { EXPECT_EQ(-1, frwk_hash_delete(handle, "absent")); }));
    EXPECT_EQ(Lines{"error|frwk_hash.cpp|frwk_hash_enter::parameter is null!"},
              traced([&] { EXPECT_EQ(nullptr, frwk_hash_enter(handle, nullptr, {})); }));
    EXPECT_EQ(Lines{"error|frwk_hash.cpp|frwk_hash_delete::parameter is null!"},
              traced([&] { EXPECT_EQ(-1, frwk_hash_delete(handle, nullptr)); }));
    for (int bad : {-1, 1, 16, INT_MAX, INT_MIN}) {
        Lines lines = traced([&] {
            EXPECT_EQ(nullptr, frwk_hash_enter(bad, "k", {}));
            EXPECT_EQ(nullptr, frwk_hash_lookup(bad, "k"));
            EXPECT_EQ(-1, frwk_hash_delete(bad, "k"));
            EXPECT_EQ(nullptr, frwk_hash_first(bad));
            EXPECT_EQ(nullptr, frwk_hash_next(bad, nullptr));
            frwk_hash_free(bad);
        });
        ASSERT_EQ(6u, lines.size());
        for (const std::string &line : lines) {
            EXPECT_TRUE(frwk_test::contains(line, "::parameter is null!")) << line;
        }
    }
    frwk_hash_free(handle);
    EXPECT_EQ(1u, traced([&] { EXPECT_EQ(nullptr, frwk_hash_first(handle)); }).size()) << "no table at all";
}

TEST(hash, ownership) { // the leak checker sees what is not freed, and the allocator what is freed twice
    int handle = frwk_hash_create(3);
    char mine[] = "mine";
    frwk_hash_entry_t *entry = frwk_hash_enter(handle, "k", frwk_hash_value_string("first", 1));
    EXPECT_EQ(1, entry->key.need_free);
    EXPECT_EQ(FRWK_HASH_TYPE_STRING, entry->key.type);
    EXPECT_EQ("k", text_of(entry->key));
    EXPECT_EQ(entry, frwk_hash_enter(handle, "k", frwk_hash_value_string("second", 1)));
    EXPECT_EQ(entry, frwk_hash_enter(handle, text_of(entry->key).c_str(), entry->value)); // over itself
    EXPECT_EQ("second", text_of(entry->value));
    EXPECT_EQ(entry, frwk_hash_enter(handle, "k", frwk_hash_value_string(mine, 0)));
    EXPECT_EQ(mine, frwk_hash_lookup_symbol(handle, "k"));
    frwk_hash_enter(handle, "owned", frwk_hash_value_string("dropped with its entry", 1));
    frwk_hash_value_t unbuilt = {reinterpret_cast<intptr_t>(mine), FRWK_HASH_TYPE_STRING, 0, 1};
    frwk_hash_enter(handle, "unbuilt", unbuilt); // not valid: never freed
    frwk_hash_enter(handle, "left", frwk_hash_value_string("freed with the table", 1));
    for (const char *key : {"unbuilt", "k", "owned"}) {
        EXPECT_EQ(0, frwk_hash_delete(handle, key));
    }
    frwk_hash_free(handle);
    EXPECT_STREQ("mine", mine);
}

TEST(hash, short_memory) {
#ifndef CAN_FAIL_ALLOCATIONS
    GTEST_SKIP() << "the allocator is the sanitizer's";
#endif
    const std::string alloc = "error|frwk_hash.cpp|frwk_hash_alloc_handle::alloc error!";
    const std::string create = "error|frwk_hash.cpp|frwk_hash_create::";
    const std::vector<Lines> failures = {
        {alloc, create + "alloc hash id error!"}, {create + "alloc hash table error!"}, {create + "alloc error!"}};
    auto create_with = [](int allocations, int expected) {
        return traced([=] {
            allocations_left = allocations;
            EXPECT_EQ(expected, frwk_hash_create(7));
        });
    };
    for (int i = 0; i < 3; i++) {
        EXPECT_EQ(failures[static_cast<size_t>(i)], create_with(i + 1, -1));
    }
    for (int i = 0; i < 16; i++) {
        EXPECT_EQ(Lines(), create_with(INT_MAX, i)); // every failure gave its handle back
    }
    EXPECT_EQ(failures[0], create_with(1, -1)); // the array stays as it was
    frwk_hash_value_t value = frwk_hash_value_string("still mine", 1);
    frwk_hash_entry_t *entry = nullptr;
    for (int allocations = 1; entry == nullptr; allocations++) {
        Lines lines = traced([&] {
            allocations_left = allocations;
            entry = frwk_hash_enter(15, "key", value);
        });
        EXPECT_EQ(entry != nullptr ? Lines() : Lines{"error|frwk_hash.cpp|frwk_hash_enter::alloc error!"}, lines);
        EXPECT_EQ(entry, frwk_hash_first(15));
        EXPECT_EQ("still mine", text_of(value));
        ASSERT_LT(allocations, 10);
    }
    for (int i = 0; i < 16; i++) {
        frwk_hash_free(i);
    }
}

struct Model { // each bucket holds its keys in the order in which they were first entered
    int handle;
    std::vector<std::vector<std::pair<std::string, std::string>>> buckets;
};

void expect_same(const Model &model) {
    const frwk_hash_entry_t *entry = nullptr;
    for (size_t bucket = 0; bucket < model.buckets.size(); bucket++) {
        for (const auto &[key, value] : model.buckets[bucket]) {
            entry = frwk_hash_next(model.handle, entry);
            ASSERT_NE(nullptr, entry);
            ASSERT_EQ(key, text_of(entry->key));
            ASSERT_EQ(value, text_of(entry->value));
            ASSERT_EQ(bucket, static_cast<size_t>(entry->bucket));
        }
    }
    ASSERT_EQ(nullptr, entry == nullptr ? frwk_hash_first(model.handle) : frwk_hash_next(model.handle, entry));
}

TEST(hash, behaves_like_a_plain_model) {
    std::mt19937 random(20240229);
    std::vector<std::string> keys; // all lengths around the period of the shifts, all byte values
    for (size_t i = 0; i < 400; i++) {
        std::string key(i % 53, ' ');
        for (char &c : key) {
            c = static_cast<char>(1 + random() % (i % 3 == 0 ? 3 : 255));
        }
        keys.push_back(key);
    }
    frwk_trace_set("null");
    const struct {
        int size;
        size_t count;
    } sizes[] = {{3, 3}, {1, 31}, {500, 499}};
    std::vector<Model> models;
    for (int i = 0; i < 3; i++) {
        models.push_back({frwk_hash_create(sizes[i].size), {}});
        models.back().buckets.resize(sizes[i].count);
    }
    std::vector<std::string> texts(1000); // values that stay the test's
    for (int step = 0; step < 60000; step++) {
        Model &model = models[random() % 3];
        const std::string &key = keys[random() % keys.size()];
        auto &bucket = model.buckets[sum_of(key) % model.buckets.size()];
        auto found = std::find_if(bucket.begin(), bucket.end(), [&](const auto &pair) { return pair.first == key; });
        unsigned action = random() % 8;
        if (action < 3) {
            std::string &text = texts[static_cast<size_t>(step) % texts.size()];
            bool copy = action < 2 || !text.empty();
            text = copy ? text : "kept " + std::to_string(step);
            std::string value = copy ? std::to_string(step) : text;
            frwk_hash_value_t given = frwk_hash_value_string(copy ? value.c_str() : text.c_str(), copy);
            ASSERT_NE(nullptr, frwk_hash_enter(model.handle, key.c_str(), given));
            if (found != bucket.end()) {
                found->second = value;
            } else {
                bucket.emplace_back(key, value);
            }
        } else if (action < 5) {
            ASSERT_EQ(found != bucket.end() ? 0 : -1, frwk_hash_delete(model.handle, key.c_str()));
            if (found != bucket.end()) {
                bucket.erase(found);
            }
        } else {
            frwk_hash_entry_t *entry = frwk_hash_lookup(model.handle, key.c_str());
            ASSERT_EQ(found != bucket.end() && !key.empty(), entry != nullptr);
            ASSERT_TRUE(entry == nullptr || text_of(entry->value) == found->second);
        }
        if (step % 1000 == 0) {
            ASSERT_NO_FATAL_FAILURE(expect_same(model));
        }
        if (step % 10000 == 9999) { // a table ends full and comes back empty under its handle
            int handle = model.handle;
            size_t count = model.buckets.size();
            frwk_hash_free(handle);
            ASSERT_EQ(handle, frwk_hash_create(static_cast<int>(count)));
            model.buckets.assign(count, {});
        }
    }
    for (const Model &model : models) {
        expect_same(model);
        frwk_hash_free(model.handle);
    }
}

} // namespace
