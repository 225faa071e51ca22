/* SPDX-FileCopyrightText: 2026 the libfrwk authors */
/* SPDX-License-Identifier: MIT */

#include "frwk_test.h"
#include "hash_model.h"

#include <random>

namespace {

TEST(hash, refusals)
{
    frwk_hash_create(7);
    const auto refused = [](const std::string &call) { return "frwk_hash_" + call + ": parameter is null!"; };
    EXPECT_EQ(Texts({refused("enter"), refused("lookup"), "frwk_hash_lookup_symbol: hash lookup(absent) error!",
                     refused("delete"), "warning frwk_hash_delete: hash(absent) not found!"}),
              said([] {
                  EXPECT_EQ(nullptr, frwk_hash_enter(0, nullptr, {}));
                  EXPECT_EQ(nullptr, frwk_hash_lookup(0, nullptr));
                  EXPECT_EQ(nullptr, frwk_hash_lookup_symbol(0, "absent"));
                  EXPECT_EQ(-1, frwk_hash_delete(0, nullptr));
                  EXPECT_EQ(-1, frwk_hash_delete(0, "absent"));
              }));
    for (int bad : {-1, 1, 16, INT_MIN, 0}) {
        if (bad == 0) { // at last no table is left
            frwk_hash_free(0);
        }
        EXPECT_EQ(Texts({refused("enter"), refused("lookup"), refused("delete"), refused("first"), refused("next"),
                         refused("free")}),
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

TEST(hash, values)
{
    const int handle = frwk_hash_create(3);
    frwk_hash_entry_t *entry = frwk_hash_enter(handle, "k", frwk_hash_value_string(nullptr, 1));
    EXPECT_EQ(entry, frwk_hash_enter(handle, shown(entry->key).c_str(), entry->value)); // over itself
    EXPECT_EQ("", shown(entry->value));
    EXPECT_TRUE(frwk_hash_next(handle, nullptr) == entry && frwk_hash_next(handle, entry) == nullptr);
    const auto fields = [](const frwk_hash_value_t &v) { return v.type * 100 + v.valid * 10 + v.need_free; };
    EXPECT_TRUE(fields(entry->key) == 1211 && fields(entry->value) == 1211);
    EXPECT_EQ(1210, fields(frwk_hash_value_string("", 0)));
    EXPECT_EQ(1810, fields(frwk_hash_value_symbol(nullptr)));
    EXPECT_EQ(610, fields(frwk_hash_value_integer(INT_MIN)));
    frwk_hash_free(handle);
}

TEST(hash, behaves_like_a_plain_model)
{
    std::mt19937 random(20240229);
    frwk_trace_set("null");
    for (int round = 0; round < 2; round++) { // the second time after the last table has gone
        int step = 0;
        use_tables([&](unsigned n) { return static_cast<unsigned>(random() % n); },
                   [&] { return step++ < 100000 && !HasFailure(); });
    }
}

} // namespace
