#include <algorithm>
#include <climits>
#include <cstdlib>
#include <random>

#include "frwk_test.h"

using frwk_test::Capture;

namespace {

// What a call says, all traces on: "level|file|function::message" of each line, each behind a blank.
std::string said(const std::function<void()> &body)
{
    frwk_debug_enable(3);
    frwk_trace_set("debug");
    Capture capture;
    body();
    std::string text;
    for (const frwk_test::TraceLine &trace : capture.traces()) {
        text += " " + trace.brief();
    }
    return text;
}

uint32_t sum_of(const std::string &key)
{
    uint32_t sum = 0;
    for (size_t i = 0; i < key.size(); i++) {
        sum += static_cast<uint32_t>(static_cast<unsigned char>(key[i])) << (7 * i % 24);
    }
    return sum;
}

std::string text_of(const frwk_hash_value_t &value)
{
    return reinterpret_cast<const char *>(value.data);
}

TEST(hash, values)
{
    char text[] = "text";
    const frwk_hash_value_t copy = frwk_hash_value_string(text, 2), none = frwk_hash_value_string(nullptr, 1);
    const auto is = [](const frwk_hash_value_t &value, intptr_t data, int type, int need_free) {
        return value.data == data && value.type == type && value.valid == 1 && value.need_free == need_free;
    };
    EXPECT_TRUE(is(frwk_hash_value_integer(INT_MIN), INT_MIN, 6, 0));
    EXPECT_TRUE(is(frwk_hash_value_symbol(text), reinterpret_cast<intptr_t>(text), 18, 0));
    EXPECT_TRUE(is(frwk_hash_value_string(text, 0), reinterpret_cast<intptr_t>(text), 12, 0));
    EXPECT_TRUE(is(copy, copy.data, 12, 1) && is(none, none.data, 12, 1));
    EXPECT_NE(reinterpret_cast<intptr_t>(text), copy.data);
    EXPECT_EQ("text", text_of(copy) + text_of(none));
    free(reinterpret_cast<void *>(copy.data));
    free(reinterpret_cast<void *>(none.data));
}

TEST(hash, bucket_counts)
{
    const std::pair<int, uint32_t> rows[] = {{INT_MIN, 31}, {2, 31},      {3, 3},       {9, 7},           {25, 23},
                                             {32, 31},      {1009, 1009}, {5041, 5039}, {1000000, 999983}};
    for (const auto &[size, count] : rows) {
        const int handle = frwk_hash_create(size);
        for (const std::string &key : {std::string(), std::string("ab"), std::string(60, '\xff')}) {
            EXPECT_EQ(sum_of(key) % count, static_cast<uint32_t>(frwk_hash_enter(handle, key.c_str(), {})->bucket))
                << size << " " << key;
        }
        frwk_hash_free(handle);
    }
}

TEST(hash, handles_are_the_lowest_free)
{
    for (int round = 0; round < 2; round++) { // the second time after the last table has gone
        for (int i = 0; i < 40; i++) {
            EXPECT_EQ(i, frwk_hash_create(3));
            frwk_hash_enter(i, "own", frwk_hash_value_integer(i));
        }
        for (int freed : {17, 0, 39}) {
            frwk_hash_free(freed);
        }
        for (int again : {0, 17, 39, 40}) {
            EXPECT_EQ(again, frwk_hash_create(3));
        }
        for (int i = 0; i <= 40; i++) {
            const frwk_hash_entry_t *entry = frwk_hash_first(i);
            EXPECT_EQ(i == 0 || i == 17 || i >= 39, entry == nullptr);
            EXPECT_TRUE(entry == nullptr || entry->value.data == i);
            frwk_hash_free(i);
        }
    }
}

TEST(hash, refusals)
{
    frwk_hash_create(7);
    const std::string from = " error|frwk_hash.cpp|frwk_hash_", null = "::parameter is null!";
    const std::pair<std::function<bool()>, std::string> rows[] = {
        // clang-format off
        {[] { return frwk_hash_enter(0, nullptr, {}) == nullptr; }, from + "enter" + null},
        {[] { return frwk_hash_lookup(0, nullptr) == nullptr; }, from + "lookup" + null},
        {[] { return frwk_hash_lookup(0, "absent") == nullptr; }, ""},
        {[] { return frwk_hash_lookup_symbol(0, "absent") == nullptr; },
         from + "lookup_symbol::hash lookup(absent) error!"},
        {[] { return frwk_hash_lookup_symbol(0, "") == nullptr; },
         from + "lookup" + null + from + "lookup_symbol::hash lookup() error!"},
        {[] { return frwk_hash_delete(0, nullptr) == -1; }, from + "delete" + null},
        {[] { return frwk_hash_delete(0, "absent") == -1; },
         " warning|frwk_hash.cpp|frwk_hash_delete::hash(absent) not found!"},
        // clang-format on
    };
    for (const auto &[refused, message] : rows) {
        EXPECT_EQ(message, said([&, &call = refused] { EXPECT_TRUE(call()); }));
    }
    const std::string all = from + "enter" + null + from + "lookup" + null + from + "delete" + null + from + "first" +
                            null + from + "next" + null + from + "free" + null;
    for (int bad : {-1, 1, 16, INT_MAX, INT_MIN, 0}) {
        if (bad == 0) { // at last no table is left
            frwk_hash_free(0);
        }
        EXPECT_EQ(all, said([=] {
                      EXPECT_EQ(nullptr, frwk_hash_enter(bad, "k", {}));
                      EXPECT_EQ(nullptr, frwk_hash_lookup(bad, "k"));
                      EXPECT_EQ(-1, frwk_hash_delete(bad, "k"));
                      EXPECT_EQ(nullptr, frwk_hash_first(bad));
                      EXPECT_EQ(nullptr, frwk_hash_next(bad, nullptr));
                      frwk_hash_free(bad);
                  }));
    }
}

TEST(hash, ownership) // the leak checker sees what is not freed, and the allocator what is freed twice
{
    const int handle = frwk_hash_create(3);
    char mine[] = "mine";
    frwk_hash_entry_t *entry = frwk_hash_enter(handle, "k", frwk_hash_value_string("first", 1));
    EXPECT_EQ(1, entry->key.need_free);
    EXPECT_EQ(FRWK_HASH_TYPE_STRING, entry->key.type);
    EXPECT_EQ(entry, frwk_hash_enter(handle, "k", frwk_hash_value_string("second", 1)));
    EXPECT_EQ(entry, frwk_hash_enter(handle, text_of(entry->key).c_str(), entry->value)); // over itself
    EXPECT_EQ("second", text_of(entry->value));
    EXPECT_EQ(entry, frwk_hash_enter(handle, "k", frwk_hash_value_string(mine, 0)));
    EXPECT_EQ(mine, frwk_hash_lookup_symbol(handle, "k"));
    frwk_hash_enter(handle, "owned", frwk_hash_value_string("dropped with its entry", 1));
    frwk_hash_enter(handle, "unbuilt", {reinterpret_cast<intptr_t>(mine), FRWK_HASH_TYPE_STRING, 0, 1}); // never freed
    frwk_hash_enter(handle, "left", frwk_hash_value_string("freed with the table", 1));
    for (const char *key : {"unbuilt", "k", "owned"}) {
        EXPECT_EQ(0, frwk_hash_delete(handle, key));
    }
    frwk_hash_free(handle);
    EXPECT_STREQ("mine", mine);
}

// Each bucket holds its keys in the order in which they were first entered.
using Buckets = std::vector<std::vector<std::pair<std::string, std::string>>>;

void expect_same(int handle, const Buckets &buckets)
{
    const frwk_hash_entry_t *entry = frwk_hash_first(handle);
    for (size_t i = 0; i < buckets.size(); i++) {
        for (const auto &[key, value] : buckets[i]) {
            ASSERT_NE(nullptr, entry);
            ASSERT_TRUE(key == text_of(entry->key) && value == text_of(entry->value)) << key;
            ASSERT_EQ(i, static_cast<size_t>(entry->bucket));
            entry = frwk_hash_next(handle, entry);
        }
    }
    ASSERT_EQ(nullptr, entry);
}

TEST(hash, behaves_like_a_plain_model)
{
    std::mt19937 random(20240229);
    std::vector<std::string> keys; // all lengths around the period of the shifts, all byte values
    for (size_t i = 0; i < 400; i++) {
        keys.emplace_back(i % 53, ' ');
        for (char &c : keys.back()) {
            c = static_cast<char>(1 + random() % (i % 3 == 0 ? 3 : 255));
        }
    }
    frwk_trace_set("null");
    const int counts[] = {3, 31, 499};
    Buckets models[3];
    for (int i = 0; i < 3; i++) {
        ASSERT_EQ(i, frwk_hash_create(counts[i]));
        models[i].resize(static_cast<size_t>(counts[i]));
    }
    for (int step = 0; step < 60000; step++) {
        const int handle = static_cast<int>(random() % 3);
        Buckets &model = models[handle];
        const std::string &key = keys[random() % keys.size()];
        auto &bucket = model[sum_of(key) % model.size()];
        const auto found = std::find_if(bucket.begin(), bucket.end(), [&](auto &pair) { return pair.first == key; });
        const bool present = found != bucket.end();
        const unsigned action = random() % 8;
        if (action < 3) { // the value is a copy, or one of the keys, which stay the test's
            const std::string value = action < 2 ? std::to_string(step) : key;
            ASSERT_NE(nullptr, frwk_hash_enter(handle, key.c_str(),
                                               frwk_hash_value_string((action < 2 ? value : key).c_str(), action < 2)));
            (present ? *found : bucket.emplace_back(key, "")).second = value;
        } else if (action < 5) {
            ASSERT_EQ(present ? 0 : -1, frwk_hash_delete(handle, key.c_str()));
            bucket.erase(found, present ? found + 1 : found);
        } else {
            const frwk_hash_entry_t *entry = frwk_hash_lookup(handle, key.c_str());
            ASSERT_EQ(present && !key.empty(), entry != nullptr);
            ASSERT_TRUE(entry == nullptr || text_of(entry->value) == found->second);
        }
        ASSERT_NO_FATAL_FAILURE(step % 1000 == 0 ? expect_same(handle, model) : void());
        if (step % 10000 == 9999) { // a table ends full and comes back empty under its handle
            frwk_hash_free(handle);
            ASSERT_EQ(handle, frwk_hash_create(counts[handle]));
            model.assign(model.size(), {});
        }
    }
    for (int i = 0; i < 3; i++) {
        expect_same(i, models[i]);
        frwk_hash_free(i);
    }
}

} // namespace
