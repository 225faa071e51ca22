#include <climits>
#include <cstdlib>
#include <random>

#include "frwk_test.h"

#define CHECK(cond) ASSERT_TRUE(cond)
#include "hash_model.h"

namespace {

// What a call says, all traces on: "level|file|function::message" of each line, each behind a blank.
std::string said(const std::function<void()> &body)
{
    frwk_debug_enable(3);
    frwk_trace_set("debug");
    frwk_test::Capture capture;
    body();
    std::string text;
    for (const frwk_test::TraceLine &trace : capture.traces()) {
        text += " " + trace.brief();
    }
    return text;
}

TEST(hash, refusals)
{
    frwk_hash_create(7);
    const std::string from = " error|frwk_hash.cpp|frwk_hash_", null = "::parameter is null!";
    EXPECT_EQ(from + "enter" + null + from + "lookup" + null + from + "lookup_symbol::hash lookup(absent) error!" +
                  from + "lookup" + null + from + "lookup_symbol::hash lookup() error!" + from + "delete" + null +
                  " warning|frwk_hash.cpp|frwk_hash_delete::hash(absent) not found!",
              said([] {
                  EXPECT_EQ(nullptr, frwk_hash_enter(0, nullptr, {}));
                  EXPECT_EQ(nullptr, frwk_hash_lookup(0, nullptr));
                  EXPECT_EQ(nullptr, frwk_hash_lookup(0, "absent"));
                  EXPECT_EQ(nullptr, frwk_hash_lookup_symbol(0, "absent"));
                  EXPECT_EQ(nullptr, frwk_hash_lookup_symbol(0, ""));
                  EXPECT_EQ(-1, frwk_hash_delete(0, nullptr));
                  EXPECT_EQ(-1, frwk_hash_delete(0, "absent"));
              }));
    for (int bad : {-1, 1, 16, INT_MAX, INT_MIN, 0}) {
        if (bad == 0) { // at last no table is left
            frwk_hash_free(0);
        }
        EXPECT_EQ(from + "enter" + null + from + "lookup" + null + from + "delete" + null + from + "first" + null +
                      from + "next" + null + from + "free" + null,
                  said([=] {
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
    frwk_hash_entry_t *entry = frwk_hash_enter(handle, "k", frwk_hash_value_string(nullptr, 1));
    const intptr_t copy = entry->value.data;
    EXPECT_TRUE(entry->key.type == 12 && entry->key.need_free == 1 && entry->value.type == 12);
    EXPECT_TRUE(entry->value.valid == 1 && entry->value.need_free == 1 && *reinterpret_cast<char *>(copy) == '\0');
    EXPECT_EQ(entry, frwk_hash_enter(handle, shown(entry->key).c_str(), entry->value)); // over itself
    EXPECT_EQ(copy, entry->value.data);
    EXPECT_EQ(entry, frwk_hash_enter(handle, "k", frwk_hash_value_string(mine, 1)));
    EXPECT_TRUE(shown(entry->value) == mine && entry->value.data != reinterpret_cast<intptr_t>(mine));
    EXPECT_EQ(entry, frwk_hash_enter(handle, "k", frwk_hash_value_string(mine, 0)));
    EXPECT_EQ(mine, frwk_hash_lookup_symbol(handle, "k"));
    EXPECT_EQ(entry, frwk_hash_enter(handle, "k", frwk_hash_value_symbol(mine)));
    EXPECT_TRUE(entry->value.type == 18 && entry->value.valid == 1 && entry->value.need_free == 0);
    EXPECT_EQ(entry, frwk_hash_enter(handle, "k", frwk_hash_value_integer(INT_MIN)));
    EXPECT_TRUE(entry->value.type == 6 && entry->value.valid == 1 && entry->value.data == INT_MIN);
    frwk_hash_enter(handle, "owned", frwk_hash_value_string("dropped with its entry", 1));
    frwk_hash_enter(handle, "unbuilt", {reinterpret_cast<intptr_t>(mine), FRWK_HASH_TYPE_STRING, 0, 1}); // never freed
    frwk_hash_enter(handle, "left", frwk_hash_value_string("freed with the table", 1));
    for (const char *key : {"unbuilt", "k", "owned"}) {
        EXPECT_EQ(0, frwk_hash_delete(handle, key));
    }
    frwk_hash_free(handle);
    EXPECT_STREQ("mine", mine);
}

TEST(hash, behaves_like_a_plain_model)
{
    std::mt19937 random(20240229);
    frwk_trace_set("null");
    for (int round = 0; round < 2; round++) { // the second time after the last table has gone
        int step = 0;
        use_tables([&](unsigned n) { return static_cast<unsigned>(random() % n); },
                   [&] { return step++ < 100000 && !HasFatalFailure(); });
    }
}

} // namespace
