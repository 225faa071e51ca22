/**
 * @file frwk_list.h
 * Intrusive, circular, doubly linked lists.
 *
 * The head is a node that is no element; an element embeds a node. No function allocates, locks or fails; the owner of
 * a list guards it where several threads reach it.
 */
#ifndef FRWK_LIST_H
#define FRWK_LIST_H

#include <stddef.h>

#include "frwk_defs.h"

FRWK_BEGIN_DECLS

/** A list head, or the link inside an element. */
typedef struct frwk_list {
    struct frwk_list *next; /**< Of a head the first element, of the last element the head. */
    struct frwk_list *prev; /**< Of a head the last element, of the first element the head. */
} frwk_list_t;

/** Makes `head` an empty list. */
FRWK_API void frwk_list_init(frwk_list_t *head);

/** Links `node` immediately after `pos`, an element or the head (then it becomes the first). */
FRWK_API void frwk_list_insert(frwk_list_t *pos, frwk_list_t *node);

/** Links `node` immediately before `head`: as the last element of a head's list, or before an element. */
FRWK_API void frwk_list_add(frwk_list_t *head, frwk_list_t *node);

/** Unlinks `node`, a linked element, and sets both its members to null. Frees nothing. */
FRWK_API void frwk_list_del(frwk_list_t *node);

/** @return 1 when the list is empty, else 0. */
FRWK_API int frwk_list_empty(const frwk_list_t *head);

/** @return the number of elements; walks the whole list. */
FRWK_API int frwk_list_cont(const frwk_list_t *head);

/** The record of type `type` that embeds `node` as its member `member`. */
#define frwk_list_entry(node, type, member) ((type *)(void *)((char *)(node)-offsetof(type, member)))

/** Walks the links of a list; the body must not unlink `pos`. */
#define frwk_list_for_each(pos, head) for (frwk_list_t *pos = (head)->next; pos != (head); pos = pos->next)

/** Walks the links of a list; the body may unlink and free `pos`. */
#define frwk_list_for_each_safe(pos, head)                                                                             \
    for (frwk_list_t *pos = (head)->next, *pos##_next = pos->next; pos != (head);                                      \
         pos = pos##_next, pos##_next = pos->next)

FRWK_END_DECLS

#endif
