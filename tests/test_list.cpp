// Intrusive lists.
#include <gtest/gtest.h>

#include "frwk.h"

namespace {

static_assert(offsetof(frwk_list_t, prev) == sizeof(void *) && sizeof(frwk_list_t) == 2 * sizeof(void *));

struct Record {
    char number;
    frwk_list_t node;
};

// The elements from first to last; also checks that the way back, the count and the emptiness agree.
std::string elements(const frwk_list_t &head)
{
    std::string numbers;
    frwk_list_for_each (node, const_cast<frwk_list_t *>(&head)) {
        EXPECT_EQ(node, node->next->prev);
        numbers += frwk_list_entry(node, Record, node)->number;
    }
    EXPECT_EQ(&head, head.next->prev);
    EXPECT_EQ(static_cast<int>(numbers.size()), frwk_list_cont(&head));
    EXPECT_EQ(numbers.empty() ? 1 : 0, frwk_list_empty(&head));
    return numbers;
}

TEST(List, Order)
{
    frwk_list_t head;
    Record r[4] = {{'0', {}}, {'1', {}}, {'2', {}}, {'3', {}}};
    frwk_list_init(&head);
    EXPECT_EQ("", elements(head));
    for (int i : {0, 1, 2}) {
        frwk_list_add(&head, &r[i].node);
    }
    EXPECT_EQ("012", elements(head)) << "adding at the head appends";
    frwk_list_add(&r[1].node, &r[3].node);
    EXPECT_EQ("0312", elements(head)) << "adding at an element inserts before it";
    const struct {
        int number;
        const char *left;
    } deletions[] = {{3, "012"}, {0, "12"}, {2, "1"}, {1, ""}};
    for (const auto &deletion : deletions) {
        frwk_list_del(&r[deletion.number].node);
        EXPECT_EQ(deletion.left, elements(head));
        EXPECT_EQ(nullptr, r[deletion.number].node.next);
        EXPECT_EQ(nullptr, r[deletion.number].node.prev);
    }
    for (int i : {0, 1, 3}) {
        frwk_list_insert(&head, &r[i].node);
    }
    EXPECT_EQ("310", elements(head)) << "inserting at the head puts first";
    frwk_list_insert(&r[1].node, &r[2].node);
    EXPECT_EQ("3120", elements(head)) << "inserting at an element puts behind it";
    frwk_list_for_each_safe (pos, &head) {
        frwk_list_del(pos);
    }
    EXPECT_EQ("", elements(head));
}

} // namespace
