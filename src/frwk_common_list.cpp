/* SPDX-FileCopyrightText: 2026 the libfrwk authors */
/* SPDX-License-Identifier: MIT */

/*
 * Intrusive circular lists.
 */
#include "frwk_list.h"

static_assert(offsetof(frwk_list_t, prev) == sizeof(void *) && sizeof(frwk_list_t) == 2 * sizeof(void *));

void frwk_list_init(frwk_list_t *head)
{
    head->next = head;
    head->prev = head;
}

void frwk_list_insert(frwk_list_t *pos, frwk_list_t *node)
{
    node->next = pos->next;
    node->prev = pos;
    pos->next->prev = node;
    pos->next = node;
}

void frwk_list_add(frwk_list_t *head, frwk_list_t *node)
{
    frwk_list_insert(head->prev, node);
}

void frwk_list_del(frwk_list_t *node)
{
    node->next->prev = node->prev;
    node->prev->next = node->next;
    node->next = nullptr;
    node->prev = nullptr;
}

int frwk_list_empty(const frwk_list_t *head)
{
    return head->next == head ? 1 : 0;
}

int frwk_list_cont(const frwk_list_t *head)
{
    int count = 0;
    for (const frwk_list_t *node = head->next; node != head; node = node->next) {
        count++;
    }
    return count;
}
