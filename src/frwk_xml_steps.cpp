/* SPDX-FileCopyrightText: 2026 the libfrwk authors */
/* SPDX-License-Identifier: MIT */

/*
 * XML: the steps of the parser, which trace nothing.
 */
#include "frwk_string.h"
#include "frwk_xml_internal.h"

#include <ctype.h>
#include <limits.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>

/*
 * The state of a parse is the document: `cursor`, `line`, `status`, `error`, `node_count`. Runs of text are found with
 * the C library's searches and copied whole. On an error the cursor stays at the character that raised it, and `line`
 * counts the line feeds before it.
 */

enum { TAG_NAME_MAX = 127, ATTR_NAME_MAX = 128, ATTR_VALUE_MAX = 512 };

static void fail(frwk_xml_doc_t *doc, frwk_xml_error error)
{
    doc->status = STATUS_SYNTAX;
    doc->error = error;
}

static void fail_memory(frwk_xml_doc_t *doc)
{
    doc->status = STATUS_NO_MEMORY;
    doc->error = ERROR_MEMORY;
}

enum char_class : uint8_t { LETTER = 1, NAME_CHAR = 2, BLANK = 4, LOCALE = 8, NAME_END = 16 };

/* Bytes below 128 are classed alike in every locale; only the others are worth a call of the C library. */
struct char_classes {
    uint8_t of[256] = {};

    constexpr char_classes()
    {
        for (int c = 0; c < 256; c++) {
            bool letter = (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z');
            bool name_char = letter || (c >= '0' && c <= '9') || c == '_' || c == '-' || c == ':';
            bool blank = c == ' ' || c == '\n' || c == '\t' || c == '\r';
            bool name_end = blank || c == '/' || c == '>' || c == '?';
            of[c] = static_cast<uint8_t>((letter ? LETTER : 0) | (name_char ? NAME_CHAR : 0) | (blank ? BLANK : 0) |
                                         (c >= 0x80 ? LOCALE : 0) | (name_end ? NAME_END : 0));
        }
    }
};

static constexpr char_classes classes;

static uint8_t class_of(char c)
{
    return classes.of[static_cast<unsigned char>(c)];
}

static bool is_blank(char c)
{
    return (class_of(c) & BLANK) != 0;
}

/* Apart and not inline, so that the loops over names stay short. */
__attribute__((noinline)) static bool is_locale_letter(char c)
{
    return isalpha(static_cast<unsigned char>(c)) != 0;
}

__attribute__((noinline)) static bool is_locale_name_char(char c)
{
    return isalnum(static_cast<unsigned char>(c)) != 0;
}

static bool is_letter(char c)
{
    uint8_t known = class_of(c);
    return (known & LETTER) != 0 || ((known & LOCALE) != 0 && is_locale_letter(c));
}

static bool is_name_char(char c)
{
    uint8_t known = class_of(c);
    return (known & NAME_CHAR) != 0 || ((known & LOCALE) != 0 && is_locale_name_char(c));
}

static uint32_t count_lines(const char *text, size_t n)
{
    constexpr size_t HALF = 240; /* fits the counters, and vector registers; two at a time keep the processor busy */
    uint32_t lines = 0;
    for (; n >= 2 * HALF; n -= 2 * HALF, text += 2 * HALF) {
        uint8_t first = 0;
        uint8_t second = 0;
        for (size_t i = 0; i < HALF; i++) {
            first = static_cast<uint8_t>(first + (text[i] == '\n' ? 1 : 0));
            second = static_cast<uint8_t>(second + (text[i + HALF] == '\n' ? 1 : 0));
        }
        lines += static_cast<uint32_t>(first) + second;
    }
    for (const char *end = text + n; (text = static_cast<const char *>(memchr(text, '\n', n))) != nullptr; lines++) {
        text++;
        n = static_cast<size_t>(end - text);
    }
    return lines;
}

static void pass_blanks(frwk_xml_doc_t *doc)
{
    char *text = doc->cursor;
    uint32_t lines = 0;
    for (; is_blank(*text); text++) {
        lines += *text == '\n' ? 1 : 0;
    }
    doc->cursor = text;
    doc->line += lines;
}

/* ----------------------------------- Entity references ------------------------------------ */

/* Only the first n characters of a reference's name are compared, and with as many of the entity's. */
static char entity_char(const char *name, size_t n)
{
    static const struct {
        char name[5];
        char c;
    } entities[] = {{"amp", '&'}, {"lt", '<'}, {"gt", '>'}, {"quot", '"'}, {"apos", '\''}};

    for (const auto &entity : entities) {
        if (strncmp(name, entity.name, n) == 0) {
            return entity.c;
        }
    }
    return '\0';
}

/*
 * Closes the reference whose "&" was stored at `amp`, whose name follows it up to `out`, and whose ";" stands in the
 * text. A known one is replaced by its character, which the ";" in the text becomes too. The last character of the name
 * is not compared. Returns the new end of the output, null for a name that is too short.
 */
static char *close_reference(char *amp, char *out, char *semicolon)
{
    size_t n = static_cast<size_t>(out - amp) - 1;
    if (n < 2) {
        return nullptr;
    }
    char c = entity_char(amp + 1, n - 1);
    if (c == '\0') {
        *out = ';';
        return out + 1;
    }
    *amp = c;
    *semicolon = c;
    return amp + 1;
}

/* ----------------------------------------- Names ------------------------------------------ */

static size_t name_length(const char *text)
{
    const char *end = text;
    while ((class_of(*end) & NAME_CHAR) != 0) {
        end++;
    }
    while (is_name_char(*end)) { /* behind a character above 127 */
        end++;
    }
    return static_cast<size_t>(end - text);
}

int frwk_xml_read_name(frwk_xml_doc_t *doc, frwk_xml_node_t *node)
{
    char *name = doc->cursor;
    if (!is_letter(*name)) {
        fail(doc, ERROR_TAG_NAME);
        return STATUS_SYNTAX;
    }
    size_t n = name_length(name);
    doc->cursor = name + (n > TAG_NAME_MAX ? TAG_NAME_MAX + 1 : n);
    if (n > TAG_NAME_MAX || name[n] == '\0') {
        fail(doc, ERROR_TAG_LONG);
        return STATUS_SYNTAX;
    }
    if ((class_of(name[n]) & NAME_END) == 0) {
        fail(doc, ERROR_TAG_NAME);
        return STATUS_SYNTAX;
    }
    char *copy = frwk_xml_copy_text(name, n);
    if (copy == nullptr) {
        fail_memory(doc);
        return STATUS_SYNTAX;
    }
    replace_text(&node->name, copy);
    return STATUS_OK;
}

/* --------------------------------------- Attributes --------------------------------------- */

/*
 * A part of an attribute is read up to the character behind it; false after an error. The limits are tested before that
 * character is looked at, whatever it is.
 */

static bool fail_attr(frwk_xml_doc_t *doc, frwk_xml_error error)
{
    fail(doc, error);
    return false;
}

/* Blanks, the given mark or the other one, and the mark itself. */
static bool pass_mark(frwk_xml_doc_t *doc, char mark, char other)
{
    pass_blanks(doc);
    if (*doc->cursor != mark && *doc->cursor != other) {
        return fail_attr(doc, ERROR_ATTR);
    }
    doc->cursor++;
    return true;
}

static bool read_attr_name(frwk_xml_doc_t *doc, size_t *len)
{
    if (!is_letter(*doc->cursor)) {
        return fail_attr(doc, *doc->cursor == '\0' ? ERROR_ATTR : ERROR_ATTR_NAME);
    }
    *len = name_length(doc->cursor);
    if (*len > ATTR_NAME_MAX) {
        doc->cursor += ATTR_NAME_MAX + 1;
        return fail_attr(doc, ERROR_ATTR_NAME_LONG);
    }
    doc->cursor += *len;
    return true;
}

/* Decodes up to the quote, which is passed over; `value` has room for ATTR_VALUE_MAX + 1 characters. */
static bool read_attr_value(frwk_xml_doc_t *doc, char quote, bool decode, char *value, size_t *len)
{
    char *end = value;
    char *amp = nullptr; /* where the "&" of an open reference is held */
    for (;; doc->cursor++) {
        char c = *doc->cursor;
        if (end - value > ATTR_VALUE_MAX) {
            return fail_attr(doc, ERROR_ATTR_VALUE_LONG);
        }
        if (c == '\0') {
            return fail_attr(doc, ERROR_ATTR);
        }
        if (c == quote) {
            doc->cursor++;
            *len = static_cast<size_t>(end - value);
            return true;
        }
        if (amp != nullptr && c == ';') {
            end = close_reference(amp, end, doc->cursor);
            if (end == nullptr) {
                return fail_attr(doc, ERROR_ENTITY);
            }
            amp = nullptr;
            continue;
        }
        if (amp != nullptr && !is_letter(c)) {
            return fail_attr(doc, ERROR_ENTITY);
        }
        if (c == '&' && decode) {
            amp = end;
        }
        *end++ = c;
        doc->line += c == '\n' ? 1 : 0;
    }
}

static frwk_xml_attr_t *make_attr(frwk_xml_doc_t *doc, const char *name, size_t name_len, const char *value, size_t len)
{
    frwk_xml_attr_t *attr = frwk_xml_alloc_attr();
    if (attr != nullptr) {
        attr->name = frwk_xml_copy_text(name, name_len);
        attr->value = frwk_xml_copy_text(value, len);
    }
    if (attr == nullptr || attr->name == nullptr || attr->value == nullptr) {
        frwk_xml_free_attr(attr);
        fail_memory(doc);
        return nullptr;
    }
    return attr;
}

frwk_xml_attr_t *frwk_xml_read_attr(frwk_xml_doc_t *doc, uint32_t flags)
{
    pass_blanks(doc);
    const char *name = doc->cursor;
    if (*name == '/' || *name == '>') {
        return nullptr;
    }
    char value[ATTR_VALUE_MAX + 1];
    size_t name_len;
    size_t len;
    if (!read_attr_name(doc, &name_len) || !pass_mark(doc, '=', '=') || !pass_mark(doc, '"', '\'') ||
        !read_attr_value(doc, doc->cursor[-1], (flags & FRWK_XML_RAW) == 0, value, &len)) {
        return nullptr;
    }
    return make_attr(doc, name, name_len, value, len);
}

int frwk_xml_read_attrs(frwk_xml_doc_t *doc, frwk_xml_node_t *node, uint32_t flags)
{
    while (*doc->cursor != '>') { /* where most end */
        frwk_xml_attr_t *attr = frwk_xml_read_attr(doc, flags);
        if (attr == nullptr) {
            break;
        }
        frwk_list_add(&node->attrs, &attr->list);
    }
    return doc->status;
}

/* ------------------------------------------ Text ------------------------------------------ */

/* What is searched, copied and counted at a time, so that all but the first of these find it in the nearest cache. */
static constexpr size_t PIECE = 4096;

/* Copies the text from the cursor to `end` to `out`; the cursor moves there. Returns the end of the copy. */
static char *copy_run(frwk_xml_doc_t *doc, const char *end, char *out)
{
    size_t left = static_cast<size_t>(end - doc->cursor);
    while (left > 0) {
        size_t n = left < PIECE ? left : PIECE;
        memmove(out, doc->cursor, n); /* memcpy() of a bounded size may become string instructions, slow to start */
        doc->line += count_lines(doc->cursor, n);
        doc->cursor += n;
        out += n;
        left -= n;
    }
    return out;
}

/*
 * Decodes the text from the cursor to `end` into `out`, which has room for it undecoded; the cursor moves to `end`.
 * Returns the end of what was stored, null on an error. A reference is open from its "&" up to a ";"; one that is still
 * open at the end stays.
 */
static char *decode_text(frwk_xml_doc_t *doc, const char *end, char *out)
{
    while (doc->cursor < end) {
        size_t left = static_cast<size_t>(end - doc->cursor);
        size_t n = left < PIECE ? left : PIECE;
        char *amp = static_cast<char *>(memchr(doc->cursor, '&', n));
        if (amp == nullptr) {
            out = copy_run(doc, doc->cursor + n, out);
            continue;
        }
        out = copy_run(doc, amp, out);
        amp = out;
        do { /* character by character, since the name is short as a rule */
            doc->line += *doc->cursor == '\n' ? 1 : 0;
            *out++ = *doc->cursor++;
        } while (doc->cursor < end && *doc->cursor != ';' && *doc->cursor != '&');
        if (doc->cursor == end) {
            return out;
        }
        out = *doc->cursor == ';' ? close_reference(amp, out, doc->cursor) : nullptr;
        if (out == nullptr) {
            fail(doc, ERROR_ENTITY);
            return nullptr;
        }
        doc->cursor++;
    }
    return out;
}

/* Gives back what decoding saved, unless it is little. */
static char *shrink(char *value, size_t saved, size_t len)
{
    enum { SPARE_MAX = 64 };
    char *shrunk = saved > SPARE_MAX ? static_cast<char *>(realloc(value, len + 1)) : nullptr;
    return shrunk != nullptr ? shrunk : value;
}

/* The text from the cursor to `end`, decoded or not, becomes the node's value; the cursor moves there. False on an
 * error. */
static bool take_value(frwk_xml_doc_t *doc, frwk_xml_node_t *node, char *end, bool decode)
{
    size_t n = static_cast<size_t>(end - doc->cursor);
    char *value = n < UINT32_MAX ? static_cast<char *>(malloc(n + 1)) : nullptr;
    if (value == nullptr) {
        fail_memory(doc);
        return false;
    }
    char *value_end = decode ? decode_text(doc, end, value) : copy_run(doc, end, value);
    if (value_end == nullptr) {
        free(value);
        return false;
    }
    *value_end = '\0';
    size_t len = static_cast<size_t>(value_end - value);
    replace_text(&node->value, shrink(value, n - len, len));
    node->len = static_cast<uint32_t>(len);
    return true;
}

void frwk_xml_read_data(frwk_xml_doc_t *doc, frwk_xml_node_t *node, uint32_t flags)
{
    if (node->value != nullptr) {
        doc->status = STATUS_TEXT_AGAIN;
        doc->error = ERROR_ATTR;
        return;
    }
    bool taken = take_value(doc, node, strchrnul(doc->cursor, '<'), (flags & FRWK_XML_RAW) == 0);
    if (taken && *doc->cursor == '\0') {
        free(frwk_xml_get_node_value(node));
        fail(doc, ERROR_ENTITY_OPEN);
    }
}

/* -------------------- Comments, declarations, directives, closing tags -------------------- */

/* The text from the cursor up to the first `mark`, which ends in ">", becomes the node's value. */
static void read_until(frwk_xml_doc_t *doc, frwk_xml_node_t *node, const char *mark, frwk_xml_error if_missing)
{
    size_t n = strlen(mark);
    char *end = strchrnul(doc->cursor, '>');
    for (; *end != '\0'; end = strchrnul(end, '>')) {
        end++;
        if (static_cast<size_t>(end - doc->cursor) >= n && memcmp(end - n, mark, n) == 0) {
            take_value(doc, node, end - n, false);
            doc->cursor += n;
            return;
        }
    }
    doc->line += count_lines(doc->cursor, static_cast<size_t>(end - doc->cursor));
    doc->cursor = end;
    fail(doc, if_missing);
}

void frwk_xml_read_comment(frwk_xml_doc_t *doc, frwk_xml_node_t *node)
{
    node->type = FRWK_XML_NODE_COMMENT;
    read_until(doc, node, "-->", ERROR_COMMENT_END);
}

void frwk_xml_read_header(frwk_xml_doc_t *doc, frwk_xml_node_t *node)
{
    if (doc->line != 1) {
        fail(doc, ERROR_DECLARATION_PLACE);
        return;
    }
    node->type = FRWK_XML_NODE_DECLARATION;
    if (frwk_xml_read_name(doc, node) == STATUS_OK) {
        doc->cursor = frwk_skip_space(doc->cursor);
        read_until(doc, node, "?>", ERROR_TAG_MISMATCH);
    }
}

void frwk_xml_read_dir(frwk_xml_doc_t *doc, frwk_xml_node_t *node)
{
    node->type = FRWK_XML_NODE_DIRECTIVE;
    if (frwk_xml_read_name(doc, node) == STATUS_OK) {
        pass_blanks(doc);
        read_until(doc, node, ">", ERROR_TAG_NAME);
    }
}

void frwk_xml_read_closing(frwk_xml_doc_t *doc, frwk_xml_node_t *node)
{
    const char *text = doc->cursor;
    const char *name = node->name != nullptr ? node->name : "";
    bool same = node->name != nullptr;
    uint32_t lines = 0;
    size_t n = 0;
    while (n <= TAG_NAME_MAX && text[n] == name[n] && (class_of(text[n]) & NAME_CHAR) != 0) {
        n++; /* all of it, as a rule */
    }
    for (; n <= TAG_NAME_MAX && text[n] != '>' && text[n] != '\0'; n++) {
        lines += text[n] == '\n' ? 1 : 0;
        same = same && text[n] == name[n];
    }
    doc->cursor += n;
    doc->line += lines;
    if (n > TAG_NAME_MAX) {
        fail(doc, ERROR_TAG_LONG);
        return;
    }
    if (*doc->cursor == '\0') {
        fail(doc, ERROR_TAG_MISMATCH);
        return;
    }
    doc->cursor++;
    if (!same || name[n] != '\0') {
        fail(doc, ERROR_TAG_MISMATCH);
    }
}

/* ---------------------------------- Elements and content ---------------------------------- */

/* Reads a start tag behind its "<"; returns whether content follows: no error, and not an empty-element tag. */
static bool read_start_tag(frwk_xml_doc_t *doc, frwk_xml_node_t *node, uint32_t flags)
{
    node->type = FRWK_XML_NODE_ELEMENT;
    if (frwk_xml_read_name(doc, node) != STATUS_OK || frwk_xml_read_attrs(doc, node, flags) != STATUS_OK) {
        return false;
    }
    bool empty = false;
    for (;; pass_blanks(doc)) {
        switch (*doc->cursor) {
        case '>':
            doc->cursor++;
            return !empty;
        case '/':
            doc->cursor++;
            empty = true;
            break;
        case '\0':
            fail(doc, ERROR_ENTITY_OPEN);
            return false;
        default:
            if (!is_blank(*doc->cursor)) {
                fail(doc, ERROR_ATTR);
                return false;
            }
        }
    }
}

/*
 * A child in the making hangs on its parent only by `parent`; it is attached when it is complete.
 */
static frwk_xml_node_t *begin_child(frwk_xml_doc_t *doc, frwk_xml_node_t *parent)
{
    frwk_xml_node_t *child = frwk_xml_alloc_node();
    if (child == nullptr) {
        fail_memory(doc);
        return nullptr;
    }
    child->depth = parent->depth + 1;
    child->parent = parent;
    return child;
}

static void ensure_value(frwk_xml_doc_t *doc, frwk_xml_node_t *node)
{
    if (node->type == FRWK_XML_NODE_ELEMENT && node->value == nullptr && !frwk_xml_copy_value(node, "", 0)) {
        fail_memory(doc);
    }
}

/* Attaches a child, or frees it after an error; returns its parent. */
static frwk_xml_node_t *end_child(frwk_xml_doc_t *doc, frwk_xml_node_t *child)
{
    frwk_xml_node_t *parent = child->parent;
    if (doc->status == STATUS_OK) {
        ensure_value(doc, child);
    }
    if (doc->status != STATUS_OK) {
        frwk_xml_free_node(child);
        return parent;
    }
    frwk_list_add(&parent->children, &child->list);
    doc->node_count++;
    return parent;
}

/* A child without content of its own, read by the given step. */
static void read_leaf(frwk_xml_doc_t *doc, frwk_xml_node_t *parent, void (*read)(frwk_xml_doc_t *, frwk_xml_node_t *))
{
    frwk_xml_node_t *child = begin_child(doc, parent);
    if (child != nullptr) {
        read(doc, child);
        end_child(doc, child);
    }
}

/* Reads the start tag of a child; returns the element whose content comes next: the child, or the parent. */
static frwk_xml_node_t *read_child(frwk_xml_doc_t *doc, frwk_xml_node_t *parent, uint32_t flags)
{
    frwk_xml_node_t *child = begin_child(doc, parent);
    if (child == nullptr) {
        return parent;
    }
    return read_start_tag(doc, child, flags) ? child : end_child(doc, child);
}

/*
 * Reads what stands behind "<!" in the content of an element. An end of the text here is left to the caller, as in the
 * two functions below: it is no error.
 */
static void read_bang(frwk_xml_doc_t *doc, frwk_xml_node_t *open)
{
    if (is_letter(*doc->cursor)) {
        read_leaf(doc, open, frwk_xml_read_dir);
        return;
    }
    if (*doc->cursor == '-') {
        doc->cursor++;
        if (*doc->cursor == '-') {
            doc->cursor++;
            read_leaf(doc, open, frwk_xml_read_comment);
            return;
        }
    }
    if (*doc->cursor != '\0') {
        fail(doc, ERROR_TAG_NAME);
    }
}

/* Passes over the closing tag of an element with a name that was parsed, and so holds no ">" and no line feed. */
static bool pass_closing(frwk_xml_doc_t *doc, const frwk_xml_node_t *node)
{
    size_t n = strlen(node->name);
    if (strncmp(doc->cursor, node->name, n) != 0 || doc->cursor[n] != '>') {
        return false;
    }
    doc->cursor += n + 1;
    return true;
}

/* Reads the closing tag of an element behind its "</"; returns the element that it stood in, null for `top`. */
static frwk_xml_node_t *close_element(frwk_xml_doc_t *doc, frwk_xml_node_t *open, const frwk_xml_node_t *top)
{
    if (open == top) {
        ensure_value(doc, open);
        if (doc->status == STATUS_OK) {
            frwk_xml_read_closing(doc, open);
        }
        return nullptr;
    }
    if (!pass_closing(doc, open)) {
        frwk_xml_read_closing(doc, open);
    }
    return end_child(doc, open);
}

/* Reads what stands behind "<" in the content of an element; returns the element whose content comes next, or null. */
static frwk_xml_node_t *read_markup(frwk_xml_doc_t *doc, frwk_xml_node_t *open, const frwk_xml_node_t *top,
                                    uint32_t flags)
{
    if (is_blank(*doc->cursor)) {
        pass_blanks(doc);
    }
    if (is_letter(*doc->cursor)) {
        return read_child(doc, open, flags);
    }
    switch (*doc->cursor) {
    case '/':
        doc->cursor++;
        return close_element(doc, open, top);
    case '!':
        doc->cursor++;
        read_bang(doc, open);
        return open;
    case '?':
        doc->cursor++;
        read_leaf(doc, open, frwk_xml_read_header);
        return open;
    case '\0':
        return open;
    default:
        fail(doc, ERROR_TAG_NAME);
        return open;
    }
}

/* `open` is the element being read: nesting moves it down and up again. */
bool frwk_xml_read_content(frwk_xml_doc_t *doc, frwk_xml_node_t *top, uint32_t flags)
{
    frwk_xml_node_t *open = top;
    while (doc->status == STATUS_OK) {
        if (is_blank(*doc->cursor)) {
            pass_blanks(doc);
        }
        if (*doc->cursor == '<') {
            doc->cursor++;
            open = read_markup(doc, open, top, flags);
            if (open == nullptr) {
                return true;
            }
        } else if (*doc->cursor != '\0') {
            frwk_xml_read_data(doc, open, flags);
        } else {
            break;
        }
    }

    bool closed = open == top;
    while (open != top) {
        open = end_child(doc, open);
    }
    return closed;
}

int frwk_xml_read_node(frwk_xml_doc_t *doc, frwk_xml_node_t *parent, uint32_t flags)
{
    frwk_xml_read_content(doc, parent, flags);
    return doc->status;
}

void frwk_xml_read_tag(frwk_xml_doc_t *doc, frwk_xml_node_t *node, uint32_t flags)
{
    if (read_start_tag(doc, node, flags)) {
        frwk_xml_read_content(doc, node, flags);
    }
}
