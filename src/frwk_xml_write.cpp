/* SPDX-FileCopyrightText: 2026 the libfrwk authors */
/* SPDX-License-Identifier: MIT */

/*
 * XML: the layout, and the writers to a stream and to a buffer, which trace nothing.
 */
#include "frwk_string.h"
#include "frwk_xml_internal.h"

#include <limits.h>
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <string.h>

/* ----------------------------------------- Output ----------------------------------------- */

enum { CHUNK_SIZE = 1024 };

/*
 * Where text goes: the storage of a buffer, or a chunk that is handed to a stream when it is full. A piece that fits is
 * stored at once; the functions called *_beyond() make room first.
 *
 * What a buffer is asked for, and when, is seen in the size that it reaches: so many bytes before each piece, so many
 * before each byte that may become an entity.
 */
struct xml_output {
    char *at; /* where the next byte goes */
    char *end;
    frwk_buffer_t *buffer; /* null for a stream */
    FILE *fp;
    char *chunk;
};

static bool has_room(const xml_output *out, size_t n)
{
    return out->end - out->at > static_cast<ptrdiff_t>(n);
}

static void begin_at_buffer(xml_output *out, frwk_buffer_t *b)
{
    out->at = reinterpret_cast<char *>(b->bp) + b->len;
    out->end = reinterpret_cast<char *>(b->bp) + b->size;
}

static xml_output output_to(frwk_buffer_t *b)
{
    xml_output out = {nullptr, nullptr, b, nullptr, nullptr};
    begin_at_buffer(&out, b);
    return out;
}

static xml_output output_to(FILE *fp, char *chunk)
{
    return {chunk, chunk + CHUNK_SIZE, nullptr, fp, chunk};
}

/* Hands over what was stored: the buffer's length, or the chunk. */
static void hand_over(xml_output *out)
{
    if (out->buffer != nullptr) {
        out->buffer->len = static_cast<int32_t>(out->at - reinterpret_cast<char *>(out->buffer->bp));
    } else if (out->at != out->chunk) {
        fwrite(out->chunk, 1, static_cast<size_t>(out->at - out->chunk), out->fp);
        out->at = out->chunk;
    }
}

/* Room for n bytes and one: as much as is asked for in a buffer, at most all of the chunk. */
__attribute__((noinline)) static void make_room(xml_output *out, size_t n)
{
    hand_over(out);
    if (out->buffer != nullptr) {
        frwk_buffer_grow(out->buffer, n < INT_MAX ? static_cast<int>(n) : INT_MAX);
        begin_at_buffer(out, out->buffer);
    }
}

static void store(xml_output *out, const char *text, size_t n)
{
    memcpy(out->at, text, n);
    out->at += n;
}

__attribute__((noinline)) static void put_beyond(xml_output *out, const char *text, size_t n)
{
    make_room(out, n);
    if (out->buffer != nullptr || n < CHUNK_SIZE) {
        store(out, text, n);
    } else {
        fwrite(text, 1, n, out->fp);
    }
}

static void put(xml_output *out, const char *text, size_t n)
{
    if (has_room(out, n)) {
        store(out, text, n);
    } else {
        put_beyond(out, text, n);
    }
}

/* A constant, whose length the compiler knows. */
template <size_t SIZE> static void put(xml_output *out, const char (&text)[SIZE])
{
    put(out, text, SIZE - 1);
}

/* Names and values may be null in nodes that a module made. */
static const char *or_empty(const char *text)
{
    return text != nullptr ? text : "";
}

static void put_string(xml_output *out, const char *text)
{
    text = or_empty(text);
    put(out, text, strlen(text));
}

/* ------------------------------------- Indentation ---------------------------------------- */

/* What a buffer is asked for, for each level. */
enum { INDENT_ROOM = 4 };

static void put_blanks(xml_output *out, char blank, size_t n)
{
    while (n > 0) {
        size_t room = static_cast<size_t>(out->end - out->at);
        size_t fit = n < room ? n : room;
        memset(out->at, blank, fit);
        out->at += fit;
        n -= fit;
        if (n > 0) {
            make_room(out, n);
        }
    }
}

static void put_indent(xml_output *out, int depth, uint32_t flags)
{
    bool tabs = (flags & FRWK_XML_INDENT_TAB) != 0;
    size_t level = !tabs && (flags & FRWK_XML_INDENT_SPACES) != 0 ? 3 : 1;
    size_t levels = depth > 0 ? static_cast<size_t>(depth) : 0;
    size_t room = levels < INT_MAX / INDENT_ROOM ? INDENT_ROOM * levels : INT_MAX;
    size_t n = levels > 1 ? level * (levels - 1) : 0;
    if (!has_room(out, room)) {
        make_room(out, room);
    }
    put_blanks(out, tabs ? '\t' : ' ', n);
}

/* ---------------------------------------- Escaping ---------------------------------------- */

/* What a buffer is asked for before each byte: room for the longest entity. */
enum { ESCAPE_ROOM = 8 };

enum byte_kind : uint8_t { PLAIN, QUOTE, AMPERSAND, APOSTROPHE, LESS, GREATER, END };

struct entity {
    char text[ESCAPE_ROOM];
    size_t len;
};

static const entity entities[] = {{"", 0}, {"&quot;", 6}, {"&amp;", 5}, {"&apos;", 6}, {"&lt;", 4}, {"&gt;", 4}};

struct byte_kinds {
    uint8_t of[256] = {};

    constexpr void set(char c, byte_kind kind)
    {
        of[static_cast<unsigned char>(c)] = kind;
    }

    constexpr byte_kinds()
    {
        set('"', QUOTE);
        set('&', AMPERSAND);
        set('\'', APOSTROPHE);
        set('<', LESS);
        set('>', GREATER);
        set('\0', END);
    }
};

static constexpr byte_kinds kinds;

static uint8_t kind_of(char c)
{
    return kinds.of[static_cast<unsigned char>(c)];
}

/* Plain bytes. Each asks a buffer for room of its own, which grows it by one step at a time however many they are. */
static void put_plain(xml_output *out, const char *text, size_t n)
{
    if (out->buffer == nullptr) {
        put(out, text, n);
        return;
    }
    while (n > 0) {
        if (!has_room(out, ESCAPE_ROOM)) {
            make_room(out, ESCAPE_ROOM);
        }
        size_t room = static_cast<size_t>(out->end - out->at) - ESCAPE_ROOM;
        size_t fit = n < room ? n : room;
        store(out, text, fit);
        text += fit;
        n -= fit;
    }
}

/* Stores plain bytes while there is room, and not too many: a search pays only then. Returns the first not stored. */
static const char *put_short(xml_output *out, const char *text)
{
    constexpr ptrdiff_t SHORT = 32;
    ptrdiff_t room = out->end - out->at - ESCAPE_ROOM;
    char *at = out->at;
    const char *limit = at + (room < SHORT ? (room > 0 ? room : 0) : SHORT);
    while (at < limit && kind_of(*text) == PLAIN) {
        *at++ = *text++;
    }
    out->at = at;
    return text;
}

static void put_escaped(xml_output *out, const char *text)
{
    for (;;) {
        text = put_short(out, text);
        uint8_t kind = kind_of(*text);
        if (kind == END) {
            return;
        }
        if (kind == PLAIN) {
            size_t n = strcspn(text, "\"&'<>");
            put_plain(out, text, n);
            text += n;
            continue;
        }
        if (!has_room(out, ESCAPE_ROOM)) {
            make_room(out, ESCAPE_ROOM);
        }
        memcpy(out->at, entities[kind].text, ESCAPE_ROOM);
        out->at += entities[kind].len;
        text++;
    }
}

static void put_text(xml_output *out, const char *text, uint32_t flags)
{
    if ((flags & FRWK_XML_RAW) != 0) {
        put_string(out, text);
    } else {
        put_escaped(out, or_empty(text));
    }
}

/* ----------------------------------------- Layout ----------------------------------------- */

/* The writers differ in two details of a node: what tells that it has text, and how an empty comment looks. */
static bool has_text(const xml_output *out, const frwk_xml_node_t *node)
{
    return out->buffer != nullptr ? node->len != 0 : node->value != nullptr && *node->value != '\0';
}

static void put_attrs(xml_output *out, frwk_xml_node_t *node, uint32_t flags)
{
    frwk_list_for_each (link, &node->attrs) {
        const frwk_xml_attr_t *attr = attr_of(link);
        put(out, " ");
        put_string(out, attr->name);
        put(out, "=\"");
        put_text(out, attr->value, flags);
        put(out, "\"");
    }
}

static void put_end_tag(xml_output *out, const char *name, size_t n)
{
    put(out, "</");
    put(out, name, n);
    put(out, ">\n");
}

/* What stands behind the mark that begins a declaration or a directive. */
static void put_marked(xml_output *out, const frwk_xml_node_t *node)
{
    put_string(out, node->name);
    if (node->len != 0) {
        put(out, " ");
        put_string(out, node->value);
    }
}

static void put_comment(xml_output *out, const frwk_xml_node_t *node)
{
    put(out, "<!--");
    if (node->len != 0 || out->buffer != nullptr) {
        put(out, " ");
        put_string(out, node->value);
        put(out, " ");
    }
    put(out, "-->\n");
}

/* Returns whether children follow, and after them the end. */
static bool put_element(xml_output *out, frwk_xml_node_t *node, uint32_t flags)
{
    const char *name = or_empty(node->name);
    size_t n = strlen(name);
    put(out, "<");
    put(out, name, n);
    put_attrs(out, node, flags);
    if (frwk_list_empty(&node->children) == 0) {
        put(out, ">\n");
        return true;
    }
    if (has_text(out, node)) {
        put(out, ">");
        put_text(out, node->value, flags);
        put_end_tag(out, name, n);
    } else {
        put(out, "/>\n");
    }
    return false;
}

/* All of a node that stands before its children; returns whether they follow, and after them the end. */
static bool put_begin(xml_output *out, frwk_xml_node_t *node, uint32_t flags)
{
    put_indent(out, node->depth, flags);
    switch (node->type) {
    case FRWK_XML_NODE_ELEMENT:
        return put_element(out, node, flags);
    case FRWK_XML_NODE_COMMENT:
        put_comment(out, node);
        return false;
    case FRWK_XML_NODE_DECLARATION:
        put(out, "<?");
        put_marked(out, node);
        put(out, "?>\n");
        return false;
    case FRWK_XML_NODE_DIRECTIVE:
        put(out, "<!");
        put_marked(out, node);
        put(out, ">\n");
        return false;
    case FRWK_XML_NODE_DOCUMENT:
        return true;
    default:
        return false;
    }
}

/* What stands behind the children of an element or of the document. */
static void put_end(xml_output *out, frwk_xml_node_t *node, uint32_t flags)
{
    if (node->type != FRWK_XML_NODE_ELEMENT) {
        return;
    }
    if (has_text(out, node)) {
        put_indent(out, node->depth < INT_MAX ? node->depth + 1 : INT_MAX, flags);
        put_text(out, node->value, flags);
    }
    put_indent(out, node->depth, flags);
    const char *name = or_empty(node->name);
    put_end_tag(out, name, strlen(name));
}

/*
 * Writes a node and all below it. `parent` leads back up, so it is only followed where it names the node whose child
 * was entered; a child that a module linked with another parent takes a call of its own.
 */
static void put_tree(xml_output *out, frwk_xml_node_t *top, uint32_t flags)
{
    if (!put_begin(out, top, flags)) {
        return;
    }
    frwk_xml_node_t *node = top;
    frwk_list_t *next = top->children.next;
    for (;;) {
        if (next == &node->children) {
            put_end(out, node, flags);
            if (node == top) {
                return;
            }
            next = node->list.next;
            node = node->parent;
            continue;
        }
        frwk_xml_node_t *child = node_of(next);
        if (child->parent != node) {
            put_tree(out, child, flags);
        } else if (put_begin(out, child, flags)) {
            node = child;
            next = child->children.next;
            continue;
        }
        next = next->next;
    }
}

/* ------------------------------------- Stream writer -------------------------------------- */

void frwk_xml_write_fmt(frwk_xml_writer_t *w, int depth, uint32_t flags)
{
    char chunk[CHUNK_SIZE];
    xml_output out = output_to(w->fp, chunk);
    put_indent(&out, depth, flags);
    hand_over(&out);
}

void frwk_xml_write_esc(frwk_xml_writer_t *w, const char *text)
{
    char chunk[CHUNK_SIZE];
    xml_output out = output_to(w->fp, chunk);
    put_escaped(&out, or_empty(text));
    hand_over(&out);
}

void frwk_xml_write_attrs(frwk_xml_writer_t *w, frwk_xml_node_t *node, uint32_t flags)
{
    char chunk[CHUNK_SIZE];
    xml_output out = output_to(w->fp, chunk);
    put_attrs(&out, node, flags);
    hand_over(&out);
}

int frwk_xml_write_node(frwk_xml_writer_t *w, frwk_xml_node_t *node, uint32_t flags)
{
    char chunk[CHUNK_SIZE];
    xml_output out = output_to(w->fp, chunk);
    put_tree(&out, node, flags);
    hand_over(&out);
    return w->result;
}

/* ------------------------------------- Buffer writer -------------------------------------- */

void frwk_xml_cache_write_fmt(frwk_buffer_t *b, int depth, uint32_t flags)
{
    xml_output out = output_to(b);
    put_indent(&out, depth, flags);
    hand_over(&out);
}

void frwk_xml_cache_write_esc(frwk_buffer_t *b, const char *text)
{
    xml_output out = output_to(b);
    put_escaped(&out, or_empty(text));
    hand_over(&out);
}

void frwk_xml_cache_write_attrs(frwk_buffer_t *b, frwk_xml_node_t *node, uint32_t flags)
{
    xml_output out = output_to(b);
    put_attrs(&out, node, flags);
    hand_over(&out);
}

int frwk_xml_cache_save(frwk_buffer_t *b, frwk_xml_node_t *node, uint32_t flags)
{
    xml_output out = output_to(b);
    put_tree(&out, node, flags);
    hand_over(&out);
    return 0;
}
