/* SPDX-FileCopyrightText: 2026 the libfrwk authors */
/* SPDX-License-Identifier: MIT */

// Intrusive lists, beside a vector.
#include <frwk.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <random>

namespace {

struct Record {
    char number;
    frwk_list_t node;
};

TEST(List, DoesWhatAVectorDoes)
{
    std::minstd_rand random(1);
    frwk_list_t head;
    frwk_list_init(&head);
    Record records[8] = {};
    std::vector<frwk_list_t *> model = {&head};
    for (int round = 0; round < 3000; round++) {
        frwk_list_t *node = &records[random() % 8].node;
        const auto found = std::find(model.begin(), model.end(), node);
        const auto at = model.begin() + static_cast<long>(random() % model.size());
        if (found != model.end()) {
            frwk_list_del(node);
            model.erase(found);
            EXPECT_TRUE(node->next == nullptr && node->prev == nullptr);
        } else if (random() % 2 == 0) {
            frwk_list_insert(*at, node); // behind it, at the head in front of all
            model.insert(at + 1, node);
        } else {
            frwk_list_add(*at, node); // in front of it, at the head behind all
            model.insert(at == model.begin() ? model.end() : at, node);
        }
        std::vector<frwk_list_t *> forward = {&head};
        frwk_list_for_each (pos, &head) {
            forward.push_back(&frwk_list_entry(pos, Record, node)->node);
            EXPECT_EQ(pos, pos->next->prev);
        }
        ASSERT_EQ(model, forward);
        EXPECT_EQ(static_cast<int>(model.size()) - 1, frwk_list_cont(&head));
        EXPECT_EQ(model.size() == 1 ? 1 : 0, frwk_list_empty(&head));
    }
}

} // namespace
