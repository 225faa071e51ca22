/*
 * XML: the layout, and the writers to a stream and to a buffer, which trace nothing.
 */
#include "frwk_string.h"
#include "frwk_xml_internal.h"

#include <limits.h>
#include <stdio.h>
#include <string.h>

/*
 * The layout of a node stands once; the two writers differ in where the text goes and in two details of a node.
 */

struct xml_sink {
    void (*put)(void *out, const char *text, size_t n);
    void (*indent)(void *out, int depth, uint32_t flags);
    void (*escape)(void *out, const char *text);
    bool (*has_text)(const frwk_xml_node_t *node);
    bool blanks_in_empty_comment;
};

/* What a byte is written as; null for one that is written as itself. */
static const char *entity_of(char c)
{
    switch (c) {
    case '"':
        return "&quot;";
    case '&':
        return "&amp;";
    case '\'':
        return "&apos;";
    case '<':
        return "&lt;";
    case '>':
        return "&gt;";
    default:
        return nullptr;
    }
}

/* The number of bytes before the next one that has an entity, or the text's end. */
static size_t plain_length(const char *text)
{
    return strcspn(text, "\"&'<>");
}

static const char *indent_unit(uint32_t flags)
{
    return (flags & FRWK_XML_INDENT_TAB) != 0 ? "\t" : (flags & FRWK_XML_INDENT_SPACES) != 0 ? "   " : " ";
}

static void put_string(const xml_sink *sink, void *out, const char *text)
{
    sink->put(out, text, strlen(text));
}

/* Names and values may be null in nodes that a module made. */
static void put_nullable(const xml_sink *sink, void *out, const char *text)
{
    put_string(sink, out, text != nullptr ? text : "");
}

static void put_text(const xml_sink *sink, void *out, const char *text, uint32_t flags)
{
    if ((flags & FRWK_XML_RAW) != 0) {
        put_nullable(sink, out, text);
    } else {
        sink->escape(out, text);
    }
}

static void put_attrs(const xml_sink *sink, void *out, frwk_xml_node_t *node, uint32_t flags)
{
    frwk_list_for_each (link, &node->attrs) {
        const frwk_xml_attr_t *attr = attr_of(link);
        put_string(sink, out, " ");
        put_nullable(sink, out, attr->name);
        put_string(sink, out, "=\"");
        put_text(sink, out, attr->value, flags);
        put_string(sink, out, "\"");
    }
}

static void put_end_tag(const xml_sink *sink, void *out, const frwk_xml_node_t *node)
{
    put_string(sink, out, "</");
    put_nullable(sink, out, node->name);
    put_string(sink, out, ">\n");
}

/* A declaration or a directive. */
static void put_marked(const xml_sink *sink, void *out, const char *begin, const frwk_xml_node_t *node, const char *end)
{
    put_string(sink, out, begin);
    put_nullable(sink, out, node->name);
    if (node->len != 0) {
        put_string(sink, out, " ");
        put_nullable(sink, out, node->value);
    }
    put_string(sink, out, end);
}

static void put_comment(const xml_sink *sink, void *out, const frwk_xml_node_t *node)
{
    put_string(sink, out, "<!--");
    if (node->len != 0 || sink->blanks_in_empty_comment) {
        put_string(sink, out, " ");
        put_nullable(sink, out, node->value);
        put_string(sink, out, " ");
    }
    put_string(sink, out, "-->\n");
}

/* Returns whether children follow, and after them the end. */
static bool put_element(const xml_sink *sink, void *out, frwk_xml_node_t *node, uint32_t flags)
{
    bool children = frwk_list_empty(&node->children) == 0;
    put_string(sink, out, "<");
    put_nullable(sink, out, node->name);
    put_attrs(sink, out, node, flags);
    if (children) {
        put_string(sink, out, ">\n");
        return true;
    }
    if (sink->has_text(node)) {
        put_string(sink, out, ">");
        put_text(sink, out, node->value, flags);
        put_end_tag(sink, out, node);
    } else {
        put_string(sink, out, "/>\n");
    }
    return false;
}

/* All of a node that stands before its children; returns whether they follow, and after them the end. */
static bool put_begin(const xml_sink *sink, void *out, frwk_xml_node_t *node, uint32_t flags)
{
    sink->indent(out, node->depth, flags);
    switch (node->type) {
    case FRWK_XML_NODE_ELEMENT:
        return put_element(sink, out, node, flags);
    case FRWK_XML_NODE_COMMENT:
        put_comment(sink, out, node);
        return false;
    case FRWK_XML_NODE_DECLARATION:
        put_marked(sink, out, "<?", node, "?>\n");
        return false;
    case FRWK_XML_NODE_DIRECTIVE:
        put_marked(sink, out, "<!", node, ">\n");
        return false;
    case FRWK_XML_NODE_DOCUMENT:
        return true;
    default:
        return false;
    }
}

/* What stands behind the children of an element or of the document. */
static void put_end(const xml_sink *sink, void *out, frwk_xml_node_t *node, uint32_t flags)
{
    if (node->type != FRWK_XML_NODE_ELEMENT) {
        return;
    }
    if (sink->has_text(node)) {
        sink->indent(out, node->depth < INT_MAX ? node->depth + 1 : INT_MAX, flags);
        put_text(sink, out, node->value, flags);
    }
    sink->indent(out, node->depth, flags);
    put_end_tag(sink, out, node);
}

/*
 * Writes a node and all below it. `parent` leads back up, so it is only followed where it names the node whose child
 * was entered; a child that a module linked with another parent takes a call of its own.
 */
static void put_tree(const xml_sink *sink, void *out, frwk_xml_node_t *top, uint32_t flags)
{
    if (!put_begin(sink, out, top, flags)) {
        return;
    }
    frwk_xml_node_t *node = top;
    frwk_list_t *next = top->children.next;
    for (;;) {
        if (next == &node->children) {
            put_end(sink, out, node, flags);
            if (node == top) {
                return;
            }
            next = node->list.next;
            node = node->parent;
            continue;
        }
        frwk_xml_node_t *child = node_of(next);
        if (child->parent != node) {
            put_tree(sink, out, child, flags);
        } else if (put_begin(sink, out, child, flags)) {
            node = child;
            next = child->children.next;
            continue;
        }
        next = next->next;
    }
}

/* ------------------------------------- Stream writer -------------------------------------- */

static FILE *stream_of(void *out)
{
    return static_cast<frwk_xml_writer_t *>(out)->fp;
}

static void stream_put(void *out, const char *text, size_t n)
{
    fwrite(text, 1, n, stream_of(out));
}

static void stream_indent(void *out, int depth, uint32_t flags)
{
    for (int i = 1; i < depth; i++) {
        fputs(indent_unit(flags), stream_of(out));
    }
}

static void stream_escape(void *out, const char *text)
{
    if (text == nullptr) {
        return;
    }
    for (;;) {
        size_t n = plain_length(text);
        stream_put(out, text, n);
        text += n;
        const char *entity = entity_of(*text++);
        if (entity == nullptr) { /* the end of the text */
            return;
        }
        fputs(entity, stream_of(out));
    }
}

static bool stream_has_text(const frwk_xml_node_t *node)
{
    return node->value != nullptr && *node->value != '\0';
}

static const xml_sink stream_sink = {stream_put, stream_indent, stream_escape, stream_has_text, false};

void frwk_xml_write_fmt(frwk_xml_writer_t *w, int depth, uint32_t flags)
{
    stream_indent(w, depth, flags);
}

void frwk_xml_write_esc(frwk_xml_writer_t *w, const char *text)
{
    stream_escape(w, text);
}

void frwk_xml_write_attrs(frwk_xml_writer_t *w, frwk_xml_node_t *node, uint32_t flags)
{
    put_attrs(&stream_sink, w, node, flags);
}

int frwk_xml_write_node(frwk_xml_writer_t *w, frwk_xml_node_t *node, uint32_t flags)
{
    put_tree(&stream_sink, w, node, flags);
    return w->result;
}

/* ------------------------------------- Buffer writer -------------------------------------- */

enum { ESCAPE_ROOM = 8, INDENT_ROOM = 4 };

static frwk_buffer_t *buffer_of(void *out)
{
    return static_cast<frwk_buffer_t *>(out);
}

/* Appends bytes for which there is room. */
static void append(frwk_buffer_t *b, const char *text, size_t n)
{
    memcpy(b->bp + b->len, text, n);
    b->len += static_cast<int32_t>(n);
}

static void buffer_put(void *out, const char *text, size_t n)
{
    frwk_buffer_t *b = buffer_of(out);
    if (static_cast<size_t>(b->size - b->len) <= n) {
        frwk_buffer_grow(b, n < INT_MAX ? static_cast<int>(n) : INT_MAX);
    }
    append(b, text, n);
}

static void buffer_indent(void *out, int depth, uint32_t flags)
{
    frwk_buffer_t *b = buffer_of(out);
    frwk_buffer_grow(b, depth < INT_MAX / INDENT_ROOM ? INDENT_ROOM * (depth > 0 ? depth : 0) : INT_MAX);
    const char *unit = indent_unit(flags);
    size_t n = strlen(unit);
    for (int i = 1; i < depth; i++) {
        append(b, unit, n);
    }
}

/* Every byte asks for room of its own, which grows the buffer by one step at a time however long the text is. */
static void buffer_put_stepwise(frwk_buffer_t *b, const char *text, size_t n)
{
    while (n > 0) {
        frwk_buffer_grow(b, ESCAPE_ROOM);
        size_t room = static_cast<size_t>(b->size - b->len) - ESCAPE_ROOM;
        size_t fit = n < room ? n : room;
        append(b, text, fit);
        text += fit;
        n -= fit;
    }
}

static void buffer_escape(void *out, const char *text)
{
    frwk_buffer_t *b = buffer_of(out);
    if (text == nullptr) {
        return;
    }
    for (;;) {
        size_t n = plain_length(text);
        buffer_put_stepwise(b, text, n);
        text += n;
        const char *entity = entity_of(*text++);
        if (entity == nullptr) { /* the end of the text */
            return;
        }
        frwk_buffer_grow(b, ESCAPE_ROOM);
        append(b, entity, strlen(entity));
    }
}

static bool buffer_has_text(const frwk_xml_node_t *node)
{
    return node->len != 0;
}

static const xml_sink buffer_sink = {buffer_put, buffer_indent, buffer_escape, buffer_has_text, true};

void frwk_xml_cache_write_fmt(frwk_buffer_t *b, int depth, uint32_t flags)
{
    buffer_indent(b, depth, flags);
}

void frwk_xml_cache_write_esc(frwk_buffer_t *b, const char *text)
{
    buffer_escape(b, text);
}

void frwk_xml_cache_write_attrs(frwk_buffer_t *b, frwk_xml_node_t *node, uint32_t flags)
{
    put_attrs(&buffer_sink, b, node, flags);
}

int frwk_xml_cache_save(frwk_buffer_t *b, frwk_xml_node_t *node, uint32_t flags)
{
    put_tree(&buffer_sink, b, node, flags);
    return 0;
}
