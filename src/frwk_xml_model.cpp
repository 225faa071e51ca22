/* SPDX-FileCopyrightText: 2026 the libfrwk authors */
/* SPDX-License-Identifier: MIT */

/*
 * XML: the document model: records, their allocation and release, access to them.
 */
#include "frwk_bounded.h"
#include "frwk_guard.h"
#include "frwk_xml_internal.h"

#include <stddef.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>

/* The records of the library's edge, in units of a pointer: where two 32-bit words share one, the widths differ. */
static constexpr size_t WORD = sizeof(void *);
static constexpr size_t PAIR = 8;

static_assert(offsetof(frwk_xml_doc_t, cursor) == WORD && offsetof(frwk_xml_doc_t, root) == 2 * WORD &&
              offsetof(frwk_xml_doc_t, status) == 3 * WORD && offsetof(frwk_xml_doc_t, error) == 3 * WORD + 4 &&
              offsetof(frwk_xml_doc_t, node_count) == 3 * WORD + 8 && offsetof(frwk_xml_doc_t, line) == 3 * WORD + 12 &&
              sizeof(frwk_xml_doc_t) == 3 * WORD + 16);
static_assert(offsetof(frwk_xml_node_t, len) == WORD && offsetof(frwk_xml_node_t, value) == 2 * WORD &&
              offsetof(frwk_xml_node_t, type) == 3 * WORD && offsetof(frwk_xml_node_t, depth) == 3 * WORD + 4 &&
              offsetof(frwk_xml_node_t, list) == 3 * WORD + PAIR &&
              offsetof(frwk_xml_node_t, attrs) == 5 * WORD + PAIR &&
              offsetof(frwk_xml_node_t, children) == 7 * WORD + PAIR &&
              offsetof(frwk_xml_node_t, parent) == 9 * WORD + PAIR && sizeof(frwk_xml_node_t) == 10 * WORD + PAIR);
static_assert(offsetof(frwk_xml_attr_t, value) == WORD && offsetof(frwk_xml_attr_t, list) == 2 * WORD &&
              sizeof(frwk_xml_attr_t) == 4 * WORD);
static_assert(offsetof(frwk_xml_writer_t, fp) == PAIR && sizeof(frwk_xml_writer_t) == PAIR + WORD);

char *frwk_xml_copy_text(const char *text, size_t n)
{
    char *copy = n < UINT32_MAX ? static_cast<char *>(malloc(n + 1)) : nullptr;
    if (copy != nullptr) {
        memcpy_s(copy, n + 1, text, n);
        copy[n] = '\0';
    }
    return copy;
}

frwk_xml_attr_t *frwk_xml_alloc_attr(void)
{
    frwk_xml_attr_t *attr = static_cast<frwk_xml_attr_t *>(malloc(sizeof(frwk_xml_attr_t)));
    if (attr == nullptr) {
        XML_ERR("alloc for xml node atrribute failed!");
        return nullptr;
    }
    *attr = {};
    return attr;
}

frwk_xml_node_t *frwk_xml_alloc_node(void)
{
    frwk_xml_node_t *node = static_cast<frwk_xml_node_t *>(malloc(sizeof(frwk_xml_node_t)));
    if (node == nullptr) {
        XML_ERR("alloc for xml node failed!");
        return nullptr;
    }
    /* Member by member, which compilers turn into a few stores; clearing the whole record starts a slow loop. */
    node->name = nullptr;
    node->len = 0;
    node->value = nullptr;
    node->type = 0;
    node->depth = 0;
    node->list = {nullptr, nullptr};
    node->attrs = {&node->attrs, &node->attrs};
    node->children = {&node->children, &node->children};
    node->parent = nullptr;
    return node;
}

frwk_xml_doc_t *frwk_xml_alloc_doc(void)
{
    heap_ptr<frwk_xml_doc_t> doc(static_cast<frwk_xml_doc_t *>(malloc(sizeof(frwk_xml_doc_t))));
    if (doc == nullptr) {
        XML_ERR("alloc for xml doc failed!");
        return nullptr;
    }
    *doc = {};
    doc->line = 1;
    doc->root = frwk_xml_alloc_node();
    if (doc->root == nullptr) {
        XML_ERR("alloc for xml root node failed!");
        return nullptr;
    }
    doc->root->type = FRWK_XML_NODE_DOCUMENT;
    return doc.release();
}

void frwk_xml_free_attr(frwk_xml_attr_t *attr)
{
    if (attr != nullptr) {
        free(attr->name);
        free(attr->value);
        free(attr);
    }
}

/* Moves all members of a list to the front of another. */
static void splice_list(frwk_list_t *to, frwk_list_t *from)
{
    if (from->next == from) {
        return;
    }
    from->next->prev = to;
    from->prev->next = to->next;
    to->next->prev = from->prev;
    to->next = from->next;
    *from = {from, from};
}

/*
 * Frees depth first with a list of what is left in place of a call per level. Does not look at `parent`, which a module
 * may have left unset in nodes that it linked itself.
 */
void frwk_xml_free_node(frwk_xml_node_t *node)
{
    if (node == nullptr) {
        return;
    }
    frwk_list_t pending = {&pending, &pending};
    for (;;) {
        free(node->name);
        free(node->value);
        frwk_list_for_each_safe (link, &node->attrs) {
            frwk_list_del(link);
            frwk_xml_free_attr(attr_of(link));
        }
        splice_list(&pending, &node->children);
        free(node);
        if (pending.next == &pending) {
            return;
        }
        node = node_of(pending.next);
        pending.next = node->list.next;
        pending.next->prev = &pending;
    }
}

void frwk_xml_free_doc(frwk_xml_doc_t *doc)
{
    if (doc != nullptr) {
        free(doc->file_name);
        frwk_xml_free_node(doc->root);
        free(doc);
    }
}

frwk_xml_node_t *frwk_xml_get_doc_root(frwk_xml_doc_t *doc)
{
    if (doc == nullptr) {
        XML_ERR("xml doc is null!");
        return nullptr;
    }
    if (doc->root == nullptr) {
        XML_ERR("xml doc root node is null!");
        return nullptr;
    }
    frwk_list_for_each (link, &doc->root->children) {
        if (node_of(link)->type == FRWK_XML_NODE_ELEMENT) {
            return node_of(link);
        }
    }
    XML_ERR("can't found root node from xml doc!");
    return nullptr;
}

frwk_xml_node_t *frwk_xml_get_child_node(frwk_xml_node_t *parent, const char *name)
{
    if (parent == nullptr) {
        XML_ERR("parent node is null!");
        return nullptr;
    }
    if (name == nullptr) {
        XML_ERR("child node name is null!");
        return nullptr;
    }
    frwk_list_for_each (link, &parent->children) {
        frwk_xml_node_t *child = node_of(link);
        if (child->type == FRWK_XML_NODE_ELEMENT && child->name != nullptr && strcmp(child->name, name) == 0) {
            return child;
        }
    }
    return nullptr;
}

const char *frwk_xml_get_attr_value(frwk_xml_node_t *node, const char *name)
{
    if (node == nullptr || name == nullptr) {
        return "";
    }
    frwk_list_for_each (link, &node->attrs) {
        const frwk_xml_attr_t *attr = attr_of(link);
        if (attr->name != nullptr && strcmp(attr->name, name) == 0) {
            return attr->value != nullptr ? attr->value : "";
        }
    }
    return "";
}

char *frwk_xml_get_node_value(frwk_xml_node_t *node)
{
    if (node == nullptr) {
        return nullptr;
    }
    char *value = node->value;
    node->value = nullptr;
    node->len = 0;
    return value;
}

/* Gives the node a copy of the n bytes, which may be its own; false, the node unchanged, when memory is short. */
bool frwk_xml_copy_value(frwk_xml_node_t *node, const char *text, size_t n)
{
    char *copy = frwk_xml_copy_text(text, n);
    if (copy == nullptr) {
        return false;
    }
    replace_text(&node->value, copy);
    node->len = static_cast<uint32_t>(n);
    return true;
}

static size_t length_of(const char *text)
{
    return text != nullptr ? strlen(text) : 0;
}

int frwk_xml_set_node_value(frwk_xml_node_t *node, const char *value)
{
    if (node == nullptr) {
        XML_ERR("xml node is null!");
        return FRWK_ERROR_INVALID_PARAM;
    }
    if (!frwk_xml_copy_value(node, value, length_of(value))) {
        XML_ERR("alloc for xml node value failed!");
        return FRWK_ERROR_NO_MEMORY;
    }
    return FRWK_ERROR_SUCCESS;
}

int frwk_xml_node_append(frwk_xml_node_t *parent, const char *name, const char *value)
{
    frwk_xml_node_t *node = frwk_xml_alloc_node();
    if (node != nullptr) {
        node->name = frwk_strdup(name);
    }
    if (node == nullptr || node->name == nullptr || !frwk_xml_copy_value(node, value, length_of(value))) {
        XML_ERR("append node failed!");
        frwk_xml_free_node(node);
        return FRWK_ERROR_NO_MEMORY;
    }
    node->depth = parent->depth + 1;
    node->parent = parent;
    frwk_list_add(&parent->children, &node->list);
    return FRWK_ERROR_SUCCESS;
}

int frwk_xml_set_node_append(frwk_xml_node_t *parent, const char *name, const char *value)
{
    if (parent == nullptr || name == nullptr) {
        XML_ERR("Parameter is null!");
        return FRWK_ERROR_INVALID_PARAM;
    }
    frwk_xml_node_t *node = frwk_xml_get_child_node(parent, name);
    return node != nullptr ? frwk_xml_set_node_value(node, value) : frwk_xml_node_append(parent, name, value);
}
