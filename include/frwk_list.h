/* SPDX-FileCopyrightText: 2026 the libfrwk authors */
/* SPDX-License-Identifier: MIT */

/**
 * @file frwk_list.h
 * Intrusive, circular, doubly linked lists.
 *
 * The head is a node that is no element; an element embeds a node, and is in one list at a time through it. No function
 * allocates, locks or fails; the owner of a list guards it, readers included, where several threads reach it.
 */
#ifndef FRWK_LIST_H
#define FRWK_LIST_H

#include "frwk_defs.h"

#include <stddef.h>

FRWK_BEGIN_DECLS

/** A list head, or the link inside an element. */
typedef struct frwk_list {
    struct frwk_list *next; /**< Of a head the first element, of the last element the head. */
    struct frwk_list *prev; /**< Of a head the last element, of the first element the head. */
} frwk_list_t;

/**
 * Makes an empty list.
 * @param head  storage of the head; elements of an earlier list are not unlinked
 */
FRWK_API void frwk_list_init(frwk_list_t *head);

/**
 * Links a node immediately after another.
 * @param pos   a linked element, or the head: the node then becomes the first element
 * @param node  a node that is in no list
 */
FRWK_API void frwk_list_insert(frwk_list_t *pos, frwk_list_t *node);

/**
 * Links a node immediately before another.
 * @param head  the head: the node then becomes the last element; or a linked element
 * @param node  a node that is in no list
 */
FRWK_API void frwk_list_add(frwk_list_t *head, frwk_list_t *node);

/**
 * Unlinks an element and sets both members of its node to null. Frees nothing.
 * @param node  a linked element; neither a head nor a node that was unlinked before
 */
FRWK_API void frwk_list_del(frwk_list_t *node);

/**
 * Tells whether a list is empty.
 * @param head  the head
 * @return 1 when it is, else 0
 */
FRWK_API int frwk_list_empty(const frwk_list_t *head);

/**
 * Counts the elements, by walking the whole list.
 * @param head  the head
 * @return their number
 */
FRWK_API int frwk_list_cont(const frwk_list_t *head);

/**
 * The record that embeds a node.
 * @param node    the node, not null
 * @param type    type of the record
 * @param member  its member that is the node
 */
#define frwk_list_entry(node, type, member) ((type *)(void *)((char *)(node)-offsetof(type, member)))

/**
 * Walks the nodes of a list; the body must not unlink `pos`.
 * @param pos   name of the variable, declared here, that points to each node in turn
 * @param head  the head, evaluated once for every node
 */
#define frwk_list_for_each(pos, head) for (frwk_list_t *pos = (head)->next; pos != (head); pos = pos->next)

/**
 * Walks the nodes of a list; the body may unlink and free `pos`, but not the node after it.
 * @param pos   name of the variable, declared here, that points to each node in turn
 * @param head  the head, evaluated once for every node
 */
#define frwk_list_for_each_safe(pos, head)                                                                             \
    for (frwk_list_t *pos = (head)->next, *pos##_next = pos->next; pos != (head);                                      \
         pos = pos##_next, pos##_next = pos->next)

FRWK_END_DECLS

#endif
