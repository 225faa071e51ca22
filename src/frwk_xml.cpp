/*
 * XML: the document model, the parser, and the writers with the safe save.
 *
 * Nothing here recurses along the nesting of elements, so that neither a file nor a program can exhaust a thread's
 * stack by depth.
 */
#include "frwk_xml.h"

#include "frwk_bounded.h"
#include "frwk_guard.h"
#include "frwk_module.h"
#include "frwk_trace.h"
#include "frwk_xml_internal.h"

#include <ctype.h>
#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

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

static frwk_xml_node_t *node_of(frwk_list_t *link)
{
    return frwk_list_entry(link, frwk_xml_node_t, list);
}

static frwk_xml_attr_t *attr_of(frwk_list_t *link)
{
    return frwk_list_entry(link, frwk_xml_attr_t, list);
}

/*
 * A copy of n bytes as a string; null when memory is short or the length does not fit the word of a node. Not inline:
 * where the compiler sees that n is small, it copies by string instructions, which are slow to start.
 */
__attribute__((noinline)) static char *copy_text(const char *text, size_t n)
{
    char *copy = n < UINT32_MAX ? static_cast<char *>(malloc(n + 1)) : nullptr;
    if (copy != nullptr) {
        memcpy_s(copy, n + 1, text, n);
        copy[n] = '\0';
    }
    return copy;
}

/* A new string in place of an owned one. */
static void replace_text(char **owned, char *text)
{
    free(*owned);
    *owned = text;
}

/* ======================================= The model ======================================== */

enum xml_error : uint32_t {
    ERROR_NONE,
    ERROR_IO,
    ERROR_MEMORY,
    ERROR_DECLARATION_PLACE,
    ERROR_COMMENT_END,
    ERROR_OUTSIDE_TAGS,
    ERROR_TAG_NAME,
    ERROR_ATTR_NAME,
    ERROR_ATTR,
    ERROR_CHARACTER,
    ERROR_TAG_LONG,
    ERROR_ATTR_NAME_LONG,
    ERROR_ATTR_VALUE_LONG,
    ERROR_TAG_MISMATCH,
    ERROR_ENTITY_OPEN,
    ERROR_ENTITY,
    ERROR_COUNT
};

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
static bool copy_value(frwk_xml_node_t *node, const char *text, size_t n)
{
    char *copy = copy_text(text, n);
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
    if (!copy_value(node, value, length_of(value))) {
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
    if (node == nullptr || node->name == nullptr || !copy_value(node, value, length_of(value))) {
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

/* ======================================= The parser ======================================= */

/*
 * The state of a parse is the document: `cursor`, `line`, `status`, `error`, `node_count`. Runs of text are found with
 * the C library's searches and copied whole. On an error the cursor stays at the character that raised it, and `line`
 * counts the line feeds before it.
 */

enum parse_status : int32_t { STATUS_OK = 0, STATUS_TEXT_AGAIN = 1, STATUS_SYNTAX = 4, STATUS_NO_MEMORY = -1 };

enum { TAG_NAME_MAX = 127, ATTR_NAME_MAX = 128, ATTR_VALUE_MAX = 512 };

/* No bit that the parser knows: references are decoded. */
enum { FLAGS_DECODE = 1 };

static void fail(frwk_xml_doc_t *doc, xml_error error)
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
    char *copy = copy_text(name, n);
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

static bool fail_attr(frwk_xml_doc_t *doc, xml_error error)
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
        attr->name = copy_text(name, name_len);
        attr->value = copy_text(value, len);
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
static void read_until(frwk_xml_doc_t *doc, frwk_xml_node_t *node, const char *mark, xml_error if_missing)
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
    if (node->type == FRWK_XML_NODE_ELEMENT && node->value == nullptr && !copy_value(node, "", 0)) {
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

/*
 * Reads the content of `top` up to its closing tag, an error, or the end of the text, which closes what is open.
 * Returns whether every element met in it was closed by the text itself. `open` is the element being read: nesting
 * moves it down and up again.
 */
static bool read_content(frwk_xml_doc_t *doc, frwk_xml_node_t *top, uint32_t flags)
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
    read_content(doc, parent, flags);
    return doc->status;
}

void frwk_xml_read_tag(frwk_xml_doc_t *doc, frwk_xml_node_t *node, uint32_t flags)
{
    if (read_start_tag(doc, node, flags)) {
        read_content(doc, node, flags);
    }
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
    bool closed = read_content(doc, doc->root, FLAGS_DECODE);
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

static FILE *open_file(const char *path, const char *mode)
{
    FILE *fp;
    do {
        fp = fopen(path, mode);
    } while (fp == nullptr && errno == EINTR);
    return fp;
}

/* Reads up to size bytes; false when the disk fails: a piece of the file may well parse, and must not pass for it. */
static bool read_stream(FILE *fp, char *text, size_t size)
{
    size_t done = 0;
    bool interrupted = true;
    while (interrupted) {
        clearerr(fp);
        errno = 0;
        done += fread(text + done, 1, size - done, fp);
        interrupted = ferror(fp) != 0 && errno == EINTR;
    }
    text[done] = '\0';
    return ferror(fp) == 0;
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
    FILE *fp = open_file(path, "re");
    if (fp == nullptr) {
        frwk_xml_read_t read = give_up(nullptr, outcome_of(errno), FAILED_NOT_OPENED);
        read.status = errno;
        return read;
    }
    bool complete = read_stream(fp, text.get(), static_cast<size_t>(size));
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

/* ====================================== The writers ======================================= */

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

/* ------------------------------------------ Save ------------------------------------------ */

enum { BACKUP_PATH_SIZE = 512, FILE_MODE = 0666 };

static const char backup_suffix[] = ".bak";

/* Unbuffered, so that a write that a signal broke off goes on where it stopped: a failed flush would drop its bytes. */
static bool write_stream(FILE *fp, const frwk_buffer_t *text)
{
    setvbuf(fp, nullptr, _IONBF, 0);
    size_t done = 0;
    size_t size = static_cast<size_t>(text->len);
    while (done < size) {
        errno = 0;
        done += fwrite(text->bp + done, 1, size - done, fp);
        if (done < size && errno != EINTR) {
            return false;
        }
        clearerr(fp);
    }
    return fflush(fp) == 0;
}

/* Which file it is that has a name: names move on when another process saves too. */
struct file_id {
    bool known;
    dev_t device;
    ino_t inode;
};

static file_id id_of(int rc, const struct stat &status)
{
    return {rc == 0, status.st_dev, status.st_ino};
}

static file_id id_of_name(const char *path)
{
    struct stat status = {};
    return id_of(lstat(path, &status), status);
}

static file_id id_of_open(int fd)
{
    struct stat status = {};
    return id_of(fstat(fd, &status), status);
}

static bool is_named(const file_id &file, const char *path)
{
    file_id found = id_of_name(path);
    return file.known && found.known && file.device == found.device && file.inode == found.inode;
}

enum save_outcome { SAVED, NOT_CREATED, NOT_WRITTEN };

/* The file under way: where it goes, and what was there before. */
struct save_t {
    const char *path;
    const char *backup;
    file_id old_file; /* unknown where there was none */
    file_id new_file; /* unknown until it is created */
};

/* Moves the file to its backup's name. False when it is still in place: the only copy is never opened for writing. */
static bool move_aside(save_t *save)
{
    remove(save->backup);
    save->old_file = id_of_name(save->path);
    if (rename(save->path, save->backup) == 0) {
        return true;
    }
    save->old_file.known = false;
    return errno == ENOENT;
}

static bool write_and_close(FILE *fp, const frwk_buffer_t *text)
{
    bool written = write_stream(fp, text);
    bool closed = fclose(fp) == 0;
    return written && closed;
}

/* Puts the old content back, unless another writer has put something in place meanwhile. */
static void put_back(const save_t &save)
{
    bool in_place = is_named(save.new_file, save.path);
    if (is_named(save.old_file, save.backup) && (in_place || access(save.path, F_OK) != 0)) {
        rename(save.backup, save.path);
    } else if (in_place && !save.old_file.known) {
        remove(save.path);
    }
    sync();
}

/*
 * At every instant the old content is on the disk whole, under the file's name or the backup's, until the new content
 * is written and synced. Where two save at once, each removes only what it has put there, and succeeds only if its own
 * file is the one in place at the end.
 */
static save_outcome replace_file(const char *path, const char *backup, const frwk_buffer_t *text)
{
    save_t save = {path, backup, {}, {}};
    if (!move_aside(&save)) {
        return NOT_CREATED;
    }
    FILE *fp = open_file(path, "w+ex"); /* what is there by now was made by another writer */
    if (fp == nullptr) {
        put_back(save);
        return NOT_CREATED;
    }
    save.new_file = id_of_open(fileno(fp));
    unique_fd held(fcntl(fileno(fp), F_DUPFD_CLOEXEC, 0)); /* lest its inode be given to another file meanwhile */
    if (!write_and_close(fp, text)) {
        put_back(save);
        return NOT_WRITTEN;
    }
    sync();
    if (!is_named(save.new_file, path)) {
        return NOT_WRITTEN;
    }
    if (is_named(save.old_file, backup)) {
        remove(backup);
    }
    return SAVED;
}

/* Brings the content to the disk. */
static save_outcome write_synced(int fd, const frwk_buffer_t *text, file_id *id)
{
    *id = id_of_open(fd);
    size_t len = static_cast<size_t>(text->len);
    for (size_t done = 0; done < len;) {
        ssize_t n = TEMP_FAILURE_RETRY(write(fd, text->bp + done, len - done));
        if (n <= 0) {
            return NOT_WRITTEN;
        }
        done += static_cast<size_t>(n);
    }
    return fsync(fd) == 0 ? SAVED : NOT_WRITTEN;
}

/* Gives a name to a file that has none. */
static bool name_file(int fd, const char *path)
{
    char own_link[32];
    sprintf_s(own_link, sizeof own_link, "/proc/self/fd/%d", fd);
    remove(path);
    return linkat(AT_FDCWD, own_link, AT_FDCWD, path, AT_SYMLINK_FOLLOW) == 0;
}

/*
 * Makes a file with the content. It gets its name when it is whole and on the disk, so that no other writer can put a
 * piece of it in place; where the file system cannot do that, it has the name from the beginning.
 */
static save_outcome prepare_file(const frwk_xml_place_t &place, const frwk_buffer_t *text, file_id *id)
{
    unique_fd unnamed(
        static_cast<int>(TEMP_FAILURE_RETRY(open(place.directory, O_WRONLY | O_TMPFILE | O_CLOEXEC, FILE_MODE))));
    if (unnamed.get() >= 0) {
        save_outcome outcome = write_synced(unnamed.get(), text, id);
        if (outcome != SAVED || name_file(unnamed.get(), place.fresh)) {
            return outcome;
        }
    }
    remove(place.fresh); /* left by a writer that was cut off; or a link, which is not followed */
    unique_fd named(static_cast<int>(
        TEMP_FAILURE_RETRY(open(place.fresh, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, FILE_MODE))));
    return named.get() < 0 ? NOT_CREATED : write_synced(named.get(), text, id);
}

/* Puts a file in place in one step. */
static save_outcome place_file(const frwk_xml_place_t &place, const frwk_buffer_t *text)
{
    file_id id = {};
    save_outcome outcome = prepare_file(place, text, &id);
    if (outcome == SAVED && (!is_named(id, place.fresh) || rename(place.fresh, place.path) != 0)) {
        outcome = NOT_CREATED;
    }
    if (outcome != SAVED) {
        if (is_named(id, place.fresh)) {
            remove(place.fresh);
        }
        return outcome;
    }
    sync();
    return is_named(id, place.path) ? SAVED : NOT_WRITTEN;
}

/* Both ways of saving report as the public one. */
static int report_save(save_outcome outcome, const char *path)
{
    static const char func[] = "frwk_xml_file_save";

    if (outcome == NOT_CREATED) {
        TRACE_AS(func, "create xml '%s' failed!", path);
    } else if (outcome == NOT_WRITTEN) {
        TRACE_AS(func, "write xml '%s' failed!", path);
    }
    return outcome == SAVED ? FRWK_ERROR_SUCCESS : FRWK_ERROR_FILE_CREATE;
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
    save_outcome outcome = replace_file(doc->file_name, backup, &text);
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
    save_outcome outcome = place_file(place, &text);
    frwk_buffer_free(&text);
    return report_save(outcome, place.path);
}
