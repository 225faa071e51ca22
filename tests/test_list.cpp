// Intrusive lists.
#include <gtest/gtest.h>

#include <cstddef>
#include <vector>

#include "frwk.h"

namespace {

static_assert(offsetof(frwk_list_t, next) == 0 && offsetof(frwk_list_t, prev) == sizeof(void *) &&
                  sizeof(frwk_list_t) == 2 * sizeof(void *),
              "a node");

using Nodes = std::vector<const frwk_list_t *>;

// The elements from first to last; also checks that the way back, the count and the emptiness agree.
Nodes elements(const frwk_list_t &head)
{
    Nodes nodes;
    for (const frwk_list_t *node = head.next; node != &head; node = node->next) {
        EXPECT_EQ(node, node->next->prev);
        nodes.push_back(node);
    }
    EXPECT_EQ(&head, head.next->prev);
    EXPECT_EQ(static_cast<int>(nodes.size()), frwk_list_cont(&head));
    EXPECT_EQ(nodes.empty() ? 1 : 0, frwk_list_empty(&head));
    return nodes;
}

TEST(List, Order)
{
    frwk_list_t head, n[4];
    frwk_list_init(&head);
    EXPECT_EQ(&head, head.next);
    EXPECT_EQ(&head, head.prev);
    EXPECT_EQ(Nodes(), elements(head));

    frwk_list_add(&head, &n[0]);
    EXPECT_EQ(Nodes({&n[0]}), elements(head));
    frwk_list_add(&head, &n[1]);
    frwk_list_add(&head, &n[2]);
    EXPECT_EQ(Nodes({&n[0], &n[1], &n[2]}), elements(head)) << "adding at the head appends";
    frwk_list_add(&n[1], &n[3]);
    EXPECT_EQ(Nodes({&n[0], &n[3], &n[1], &n[2]}), elements(head)) << "adding at an element inserts before it";

    const struct {
        int node;
        Nodes left;
    } deletions[] = {{3, {&n[0], &n[1], &n[2]}}, {0, {&n[1], &n[2]}}, {2, {&n[1]}}, {1, {}}};
    for (const auto &deletion : deletions) {
        frwk_list_del(&n[deletion.node]);
        EXPECT_EQ(deletion.left, elements(head));
        EXPECT_EQ(nullptr, n[deletion.node].next);
        EXPECT_EQ(nullptr, n[deletion.node].prev);
    }

    for (frwk_list_t &node : n) {
        frwk_list_insert(&head, &node);
    }
    EXPECT_EQ(Nodes({&n[3], &n[2], &n[1], &n[0]}), elements(head)) << "inserting at the head puts first";
    frwk_list_del(&n[2]);
    frwk_list_insert(&n[1], &n[2]);
    EXPECT_EQ(Nodes({&n[3], &n[1], &n[2], &n[0]}), elements(head)) << "inserting at an element puts behind it";
}

TEST(List, Macros)
{
    struct Record {
        int number;
        frwk_list_t node;
    } records[3] = {{1, {}}, {2, {}}, {3, {}}};
    frwk_list_t head;
    frwk_list_init(&head);
    for (Record &record : records) {
        frwk_list_add(&head, &record.node);
    }
    std::vector<int> numbers;
    frwk_list_for_each (pos, &head) {
        numbers.push_back(frwk_list_entry(pos, Record, node)->number);
    }
    EXPECT_EQ(std::vector<int>({1, 2, 3}), numbers);
    frwk_list_for_each_safe (pos, &head) {
        frwk_list_del(pos);
    }
    EXPECT_EQ(1, frwk_list_empty(&head));
}

} // namespace
