/*
 * XML: the document model, texts and files, the save. What traces is here, since the traces name this file; the
 * parser's steps, the writers and the work on files have files of their own.
 *
 * Nothing of XML recurses along the nesting of elements, so that neither a file nor a program can exhaust a thread's
 * stack by depth.
 */
#include "frwk_xml.h"

#include "frwk_bounded.h"
#include "frwk_guard.h"
#include "frwk_module.h"
#include "frwk_trace.h"
#include "frwk_xml_internal.h"

#include <errno.h>
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

/* ======================================= The model ======================================== */

static const char *const error_texts[ERROR_COUNT] = {
    "No error",
    "Input/output error",
    "Not enough memory",
    "XML declaration allowed only at the start of the document",
    "Comment not terminated",
    "Character outside tags",
    "Invalid character as tag name",
    "Invalid character as attribute name",
    "Malformed attribute definition",
    "Invalid character",
    "Name of tag too long",
    "Name of attribute too long",
    "Value of attribute too long",
    "Opening and ending tag mismatch",
    "Unbalanced entity opening",
    "Escape/entity '&;' found",
};

const char *frwk_xml_strerror(uint32_t code)
{
    return code < ERROR_COUNT ? error_texts[code] : "Unkown error";
}

frwk_xml_attr_t *frwk_xml_alloc_attr(void)
{
    frwk_xml_attr_t *attr = static_cast<frwk_xml_attr_t *>(malloc(sizeof(frwk_xml_attr_t)));
    if (attr == nullptr) {
        FRWK_ERR("alloc for xml node atrribute failed!");
        return nullptr;
    }
    *attr = {};
    return attr;
}

frwk_xml_node_t *frwk_xml_alloc_node(void)
{
    frwk_xml_node_t *node = static_cast<frwk_xml_node_t *>(malloc(sizeof(frwk_xml_node_t)));
    if (node == nullptr) {
        FRWK_ERR("alloc for xml node failed!");
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
        FRWK_ERR("alloc for xml doc failed!");
        return nullptr;
    }
    *doc = {};
    doc->line = 1;
    doc->root = frwk_xml_alloc_node();
    if (doc->root == nullptr) {
        FRWK_ERR("alloc for xml root node failed!");
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
        FRWK_ERR("xml doc is null!");
        return nullptr;
    }
    if (doc->root == nullptr) {
        FRWK_ERR("xml doc root node is null!");
        return nullptr;
    }
    frwk_list_for_each (link, &doc->root->children) {
        if (node_of(link)->type == FRWK_XML_NODE_ELEMENT) {
            return node_of(link);
        }
    }
    FRWK_ERR("can't found root node from xml doc!");
    return nullptr;
}

frwk_xml_node_t *frwk_xml_get_child_node(frwk_xml_node_t *parent, const char *name)
{
    if (parent == nullptr) {
        FRWK_ERR("parent node is null!");
        return nullptr;
    }
    if (name == nullptr) {
        FRWK_ERR("child node name is null!");
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
        FRWK_ERR("xml node is null!");
        return FRWK_ERROR_INVALID_PARAM;
    }
    if (!frwk_xml_copy_value(node, value, length_of(value))) {
        FRWK_ERR("alloc for xml node value failed!");
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
        FRWK_ERR("append node failed!");
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
        FRWK_ERR("Parameter is null!");
        return FRWK_ERROR_INVALID_PARAM;
    }
    frwk_xml_node_t *node = frwk_xml_get_child_node(parent, name);
    return node != nullptr ? frwk_xml_set_node_value(node, value) : frwk_xml_node_append(parent, name, value);
}

/* ------------------------------------ Texts and files ------------------------------------- */

/* Why a text or a file gave no document. */
enum xml_failure : uint32_t {
    FAILED_NOT,
    FAILED_NO_PATH,
    FAILED_NO_SIZE,
    FAILED_NO_BUFFER,
    FAILED_NOT_OPENED,
    FAILED_NO_NAME,
    FAILED_NO_TEXT,
    FAILED_NO_DOCUMENT,
    FAILED_SYNTAX,
    FAILED_NO_ROOT
};

/* Reports it in the name of the public call that the failure belongs to. */
#define TRACE_AS(func, ...) frwk_trace_print(__FILE__, func, __LINE__, FRWK_TRACE_ERROR, __VA_ARGS__)

static void trace_text_failure(const frwk_xml_read_t &read)
{
    static const char func[] = "frwk_xml_cache_parse";

    if (read.failure == FAILED_NO_TEXT) {
        TRACE_AS(func, "xml stream is null!");
    } else if (read.failure == FAILED_NO_DOCUMENT) {
        TRACE_AS(func, "alloc for xml doc failed!");
    } else if (read.failure == FAILED_SYNTAX) {
        TRACE_AS(func, "Error: line:%d,status:%d,cause:%s!", static_cast<int>(read.line), read.status,
                 frwk_xml_strerror(read.error));
    } else {
        TRACE_AS(func, "Can't found valid xml root!");
    }
}

void frwk_xml_trace_failure(const frwk_xml_read_t &read, const char *path)
{
    static const char func[] = "frwk_xml_file_parse";

    switch (read.failure) {
    case FAILED_NOT:
        break;
    case FAILED_NO_PATH:
        TRACE_AS(func, "xml file is null!");
        break;
    case FAILED_NO_SIZE:
        TRACE_AS(func, "invalid xml '%s'!", path);
        break;
    case FAILED_NO_BUFFER:
    case FAILED_NO_NAME:
        TRACE_AS(func, "alloc for xml '%s' failed!", path);
        break;
    case FAILED_NOT_OPENED:
        TRACE_AS(func, "%s, errno=%d, cause: %s", "open xml file error", read.status, strerror(read.status));
        break;
    default:
        trace_text_failure(read);
        TRACE_AS(func, "parse xml '%s' failed!", path);
        break;
    }
}

static bool has_one_root(const frwk_xml_doc_t *doc)
{
    int elements = 0;
    frwk_list_for_each (link, &doc->root->children) {
        elements += node_of(link)->type == FRWK_XML_NODE_ELEMENT ? 1 : 0;
    }
    return elements == 1;
}

/* A document that did not come about, given up. */
static frwk_xml_read_t give_up(frwk_xml_doc_t *doc, frwk_xml_outcome outcome, xml_failure failure)
{
    frwk_xml_read_t read = {outcome, nullptr, failure, 0, 0, 0};
    if (doc != nullptr) {
        read.status = doc->status;
        read.error = doc->error;
        read.line = doc->line;
        frwk_xml_free_doc(doc);
    }
    return read;
}

static frwk_xml_read_t parse_text(char *text)
{
    if (text == nullptr || *text == '\0') {
        return give_up(nullptr, FRWK_XML_PIECE, FAILED_NO_TEXT);
    }
    frwk_xml_doc_t *doc = frwk_xml_alloc_doc();
    if (doc == nullptr) {
        return give_up(nullptr, FRWK_XML_UNKNOWN, FAILED_NO_DOCUMENT);
    }
    doc->cursor = text;
    bool closed = frwk_xml_read_content(doc, doc->root, FLAGS_DECODE);
    doc->cursor = nullptr;
    if (doc->status != STATUS_OK) {
        return give_up(doc, doc->error == ERROR_MEMORY ? FRWK_XML_UNKNOWN : FRWK_XML_PIECE, FAILED_SYNTAX);
    }
    if (!has_one_root(doc)) {
        return give_up(doc, FRWK_XML_PIECE, FAILED_NO_ROOT);
    }
    return {closed ? FRWK_XML_WHOLE : FRWK_XML_PIECE, doc, FAILED_NOT, 0, 0, 0};
}

/* What a file is that could not be opened. */
static frwk_xml_outcome outcome_of(int error)
{
    return error == ENOENT || error == ENOTDIR ? FRWK_XML_MISSING : FRWK_XML_UNKNOWN;
}

static frwk_xml_read_t parse_file(const char *path)
{
    errno = 0;
    long size = frwk_file_size(path); /* leaves errno alone where the file can be opened */
    if (size <= 0) {
        frwk_xml_outcome empty = size == 0 ? FRWK_XML_PIECE : FRWK_XML_UNKNOWN;
        return give_up(nullptr, errno == 0 ? empty : outcome_of(errno), FAILED_NO_SIZE);
    }
    heap_ptr<char> text(static_cast<char *>(malloc(static_cast<size_t>(size) + 1)));
    if (text == nullptr) {
        return give_up(nullptr, FRWK_XML_UNKNOWN, FAILED_NO_BUFFER);
    }
    FILE *fp = frwk_xml_open_file(path, "re");
    if (fp == nullptr) {
        frwk_xml_read_t read = give_up(nullptr, outcome_of(errno), FAILED_NOT_OPENED);
        read.status = errno;
        return read;
    }
    bool complete = frwk_xml_read_stream(fp, text.get(), static_cast<size_t>(size));
    fclose(fp);
    return complete ? parse_text(text.get()) : give_up(nullptr, FRWK_XML_UNKNOWN, FAILED_NO_TEXT);
}

frwk_xml_read_t frwk_xml_file_read(const char *path)
{
    cancel_guard uncancelled;
    if (path == nullptr) {
        return give_up(nullptr, FRWK_XML_UNKNOWN, FAILED_NO_PATH);
    }
    frwk_xml_read_t read = parse_file(path);
    if (read.doc != nullptr) {
        read.doc->file_name = frwk_strdup(path);
        if (read.doc->file_name == nullptr) {
            return give_up(read.doc, FRWK_XML_UNKNOWN, FAILED_NO_NAME);
        }
    }
    return read;
}

frwk_xml_doc_t *frwk_xml_cache_parse(char *text)
{
    frwk_xml_read_t read = parse_text(text);
    if (read.doc == nullptr) {
        trace_text_failure(read);
    }
    return read.doc;
}

frwk_xml_doc_t *frwk_xml_file_parse(const char *path)
{
    frwk_xml_read_t read = frwk_xml_file_read(path);
    frwk_xml_trace_failure(read, path);
    return read.doc;
}

/* ------------------------------------------ Save ------------------------------------------ */

enum { BACKUP_PATH_SIZE = 512 };

static const char backup_suffix[] = ".bak";

/* Both ways of saving report as the public one. */
static int report_save(frwk_xml_save_outcome outcome, const char *path)
{
    static const char func[] = "frwk_xml_file_save";

    if (outcome == FRWK_XML_NOT_CREATED) {
        TRACE_AS(func, "create xml '%s' failed!", path);
    } else if (outcome == FRWK_XML_NOT_WRITTEN) {
        TRACE_AS(func, "write xml '%s' failed!", path);
    }
    return outcome == FRWK_XML_SAVED ? FRWK_ERROR_SUCCESS : FRWK_ERROR_FILE_CREATE;
}

/* The text of a document in a buffer that the caller frees; false, reported, when there is none to be had. */
static bool make_text(const frwk_xml_doc_t *doc, const char *path, frwk_buffer_t *text)
{
    if (frwk_buffer_init(text) == 0) {
        TRACE_AS("frwk_xml_file_save", "init xml '%s' cache failed!", path);
        return false;
    }
    frwk_xml_cache_save(text, doc->root, FRWK_XML_INDENT_SPACES);
    return true;
}

int frwk_xml_file_save(frwk_xml_doc_t *doc, const char *path)
{
    cancel_guard uncancelled;
    if (doc == nullptr || doc->root == nullptr) {
        FRWK_ERR("xml doc is null!");
        return FRWK_ERROR_INVALID_PARAM;
    }
    const char *name = path != nullptr ? path : doc->file_name;
    if (name == nullptr) {
        FRWK_ERR("xml file name is null!");
        return FRWK_ERROR_INVALID_PARAM;
    }
    char backup[BACKUP_PATH_SIZE];
    if (strlen(name) + sizeof backup_suffix > sizeof backup) {
        FRWK_ERR("xml file name '%s' is too long!", name);
        return FRWK_ERROR_INVALID_PARAM;
    }
    if (path != nullptr) {
        char *copy = frwk_strdup(path);
        if (copy == nullptr) {
            FRWK_ERR("alloc for xml '%s' failed!", path);
            return FRWK_ERROR_NO_MEMORY;
        }
        replace_text(&doc->file_name, copy);
    }
    frwk_buffer_t text;
    if (!make_text(doc, doc->file_name, &text)) {
        return FRWK_ERROR_NO_MEMORY;
    }
    sprintf_s(backup, sizeof backup, "%s%s", doc->file_name, backup_suffix);
    frwk_xml_save_outcome outcome = frwk_xml_replace_file(doc->file_name, backup, &text);
    frwk_buffer_free(&text);
    return report_save(outcome, doc->file_name);
}

int frwk_xml_file_place(const frwk_xml_doc_t *doc, const frwk_xml_place_t &place)
{
    cancel_guard uncancelled;
    frwk_buffer_t text;
    if (!make_text(doc, place.path, &text)) {
        return FRWK_ERROR_NO_MEMORY;
    }
    frwk_xml_save_outcome outcome = frwk_xml_place_file(place, &text);
    frwk_buffer_free(&text);
    return report_save(outcome, place.path);
}
