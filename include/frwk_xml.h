/**
 * @file frwk_xml.h
 * A small XML model, parser and writer: elements, attributes, text, comments, declarations, directives, and the five
 * predefined entities. No DTD, CDATA, namespaces, character references or encodings: text is bytes.
 *
 * No function takes a lock; a document is used by one thread at a time, different documents by different threads.
 */
#ifndef FRWK_XML_H
#define FRWK_XML_H

#include <stdint.h>
#include <stdio.h>

#include "frwk_defs.h"
#include "frwk_list.h"
#include "frwk_string.h"

FRWK_BEGIN_DECLS

/** Node types. */
enum {
    FRWK_XML_NODE_ELEMENT = 0,
    FRWK_XML_NODE_COMMENT = 1,
    FRWK_XML_NODE_DECLARATION = 2,
    FRWK_XML_NODE_DIRECTIVE = 3,
    FRWK_XML_NODE_DOCUMENT = 4
};

/** Bits of the `flags` of the parser's steps and of the writers. */
enum {
    FRWK_XML_INDENT_TAB = 2,    /**< Writers: one tab a level; wins over FRWK_XML_INDENT_SPACES. */
    FRWK_XML_INDENT_SPACES = 4, /**< Writers: three spaces a level; with neither bit one space. */
    FRWK_XML_RAW = 8            /**< Entities are neither decoded nor written. */
};

/** A node. All strings are its own, from malloc(). */
typedef struct frwk_xml_node {
    char *name;                   /**< Element name, declaration target or directive keyword; null for others. */
    uint32_t len;                 /**< Length of `value` in bytes. */
    char *value;                  /**< Text; may be null. */
    uint32_t type;                /**< FRWK_XML_NODE_. */
    int32_t depth;                /**< 0 for the document node, else the parent's plus 1; the writers indent by it. */
    frwk_list_t list;             /**< Link in the parent's `children`. */
    frwk_list_t attrs;            /**< Attributes, in document order. */
    frwk_list_t children;         /**< Child nodes, in document order. */
    struct frwk_xml_node *parent; /**< Null for the document node. */
} frwk_xml_node_t;

/** An attribute of an element. */
typedef struct {
    char *name;       /**< Its own, from malloc(), as is the value. */
    char *value;      /**< Decoded. */
    frwk_list_t list; /**< Link in the element's `attrs`. */
} frwk_xml_attr_t;

/** A document. */
typedef struct {
    char *file_name;       /**< Path it was read from or last saved to; null for none. */
    char *cursor;          /**< Read position during a parse. */
    frwk_xml_node_t *root; /**< The document node; its children are the top-level nodes. */
    int32_t status;        /**< 0; 4 after a syntax error, -1 when memory was short, 1 for a second text run. */
    uint32_t error;        /**< Error code 0 to 15, see frwk_xml_strerror(). */
    uint32_t node_count;   /**< Nodes that the parser attached. */
    uint32_t line;         /**< Current line of the parse, from 1 on. */
} frwk_xml_doc_t;

/** Context of the stream writer. */
typedef struct {
    int32_t result; /**< Returned unchanged by frwk_xml_write_node(). */
    int32_t unused; /**< The caller's. */
    FILE *fp;       /**< Where everything is written; neither flushed nor closed. */
} frwk_xml_writer_t;

/** @return the constant message of a parse error code, "Unkown error" above 15. */
FRWK_API const char *frwk_xml_strerror(uint32_t code);

/** @return a new attribute, to be ended with frwk_xml_free_attr() or linked to a node; null when memory is short. */
FRWK_API frwk_xml_attr_t *frwk_xml_alloc_attr(void);
/** @return a new element, to be ended with frwk_xml_free_node() or linked to a parent; null when memory is short. */
FRWK_API frwk_xml_node_t *frwk_xml_alloc_node(void);
/** @return a new empty document, to be ended with frwk_xml_free_doc(); null when memory is short. */
FRWK_API frwk_xml_doc_t *frwk_xml_alloc_doc(void);
/** Frees an attribute, unlinked before by the caller; null is harmless. */
FRWK_API void frwk_xml_free_attr(frwk_xml_attr_t *attr);
/** Frees a node, unlinked before by the caller, and all below it, without recursing; null is harmless. */
FRWK_API void frwk_xml_free_node(frwk_xml_node_t *node);
/** Frees a document and its tree; null is harmless. */
FRWK_API void frwk_xml_free_doc(frwk_xml_doc_t *doc);

/** @return the first top-level element; null, traced, when there is none. */
FRWK_API frwk_xml_node_t *frwk_xml_get_doc_root(frwk_xml_doc_t *doc);
/** @return the first element among the children with exactly that name, or null. */
FRWK_API frwk_xml_node_t *frwk_xml_get_child_node(frwk_xml_node_t *parent, const char *name);
/** @return the value of the first attribute of that name, owned by the attribute; "" when there is none. */
FRWK_API const char *frwk_xml_get_attr_value(frwk_xml_node_t *node, const char *name);
/** Takes the value out of a node. @return the string, now the caller's to free(); null when there is none. */
FRWK_API char *frwk_xml_get_node_value(frwk_xml_node_t *node);

/**
 * Replaces a node's text by a copy of `value` ("" for null), which may be the node's own.
 * @return FRWK_ERROR_SUCCESS; FRWK_ERROR_INVALID_PARAM for a null node; FRWK_ERROR_NO_MEMORY, the node unchanged
 */
FRWK_API int frwk_xml_set_node_value(frwk_xml_node_t *node, const char *value);
/**
 * Appends an element to `parent`, not null, with copies of `name` and `value` ("" for null).
 * @return FRWK_ERROR_SUCCESS, or FRWK_ERROR_NO_MEMORY, the tree unchanged
 */
FRWK_API int frwk_xml_node_append(frwk_xml_node_t *parent, const char *name, const char *value);
/**
 * Sets the text of the first child element called `name`; appends one when there is none.
 * @return FRWK_ERROR_SUCCESS; FRWK_ERROR_INVALID_PARAM for a null parent or name; FRWK_ERROR_NO_MEMORY, the tree
 *         unchanged
 */
FRWK_API int frwk_xml_set_node_append(frwk_xml_node_t *parent, const char *name, const char *value);

/**
 * Parses a whole document.
 * @param text  text, changed by the parse; it stays the caller's and is not needed afterwards
 * @return the document, the caller's; null, traced with line and cause, when it is no document with exactly one root
 */
FRWK_API frwk_xml_doc_t *frwk_xml_cache_parse(char *text);
/** Parses a file. @return as frwk_xml_cache_parse(); `file_name` is a copy of `path`. */
FRWK_API frwk_xml_doc_t *frwk_xml_file_parse(const char *path);

/**
 * @name Steps of the parser
 * Each reads at the document's `cursor` and moves it past what it consumes, counts lines in `line`, and on an error
 * sets `status` and `error` and returns at once. Nesting does not recurse.
 * @{
 */
/** Reads the content of `parent` up to its closing tag or the end of the text. @return the document's status. */
FRWK_API int frwk_xml_read_node(frwk_xml_doc_t *doc, frwk_xml_node_t *parent, uint32_t flags);
/** Reads an element, from its name to the end of its content. */
FRWK_API void frwk_xml_read_tag(frwk_xml_doc_t *doc, frwk_xml_node_t *node, uint32_t flags);
/** Reads a name into `node->name`. @return 0 or 4. */
FRWK_API int frwk_xml_read_name(frwk_xml_doc_t *doc, frwk_xml_node_t *node);
/** Reads all attributes of a start tag. @return the document's status. */
FRWK_API int frwk_xml_read_attrs(frwk_xml_doc_t *doc, frwk_xml_node_t *node, uint32_t flags);
/** Reads one attribute. @return it, the caller's; null at the end of the attributes and on an error. */
FRWK_API frwk_xml_attr_t *frwk_xml_read_attr(frwk_xml_doc_t *doc, uint32_t flags);
/** Reads a text run into `node->value`. */
FRWK_API void frwk_xml_read_data(frwk_xml_doc_t *doc, frwk_xml_node_t *node, uint32_t flags);
/** Reads a comment behind its opening. */
FRWK_API void frwk_xml_read_comment(frwk_xml_doc_t *doc, frwk_xml_node_t *node);
/** Reads a declaration behind its opening. */
FRWK_API void frwk_xml_read_header(frwk_xml_doc_t *doc, frwk_xml_node_t *node);
/** Reads a directive behind its opening. */
FRWK_API void frwk_xml_read_dir(frwk_xml_doc_t *doc, frwk_xml_node_t *node);
/** Reads a closing tag behind its opening and compares it with the name of `node`. */
FRWK_API void frwk_xml_read_closing(frwk_xml_doc_t *doc, frwk_xml_node_t *node);
/** @} */

/**
 * @name Stream writer
 * Writes to `w->fp`; its errors are the stream's.
 * @{
 */
/** Writes the indentation of a node of that depth. */
FRWK_API void frwk_xml_write_fmt(frwk_xml_writer_t *w, int depth, uint32_t flags);
/** Writes text with the five entities. */
FRWK_API void frwk_xml_write_esc(frwk_xml_writer_t *w, const char *text);
/** Writes a node's attributes. */
FRWK_API void frwk_xml_write_attrs(frwk_xml_writer_t *w, frwk_xml_node_t *node, uint32_t flags);
/** Writes a node and all below it. @return `w->result`. */
FRWK_API int frwk_xml_write_node(frwk_xml_writer_t *w, frwk_xml_node_t *node, uint32_t flags);
/** @} */

/**
 * @name Buffer writer
 * Appends to an initialised buffer, without a terminator; a buffer that cannot grow ends the process by an assertion.
 * @{
 */
/** Appends the indentation of a node of that depth. */
FRWK_API void frwk_xml_cache_write_fmt(frwk_buffer_t *b, int depth, uint32_t flags);
/** Appends text with the five entities. */
FRWK_API void frwk_xml_cache_write_esc(frwk_buffer_t *b, const char *text);
/** Appends a node's attributes. */
FRWK_API void frwk_xml_cache_write_attrs(frwk_buffer_t *b, frwk_xml_node_t *node, uint32_t flags);
/** Appends a node and all below it. @return 0. */
FRWK_API int frwk_xml_cache_save(frwk_buffer_t *b, frwk_xml_node_t *node, uint32_t flags);
/** @} */

/**
 * Saves a document so that the old content stays on disk, under its name or with ".bak" behind it, until the new one
 * has been written and synced.
 *
 * @param doc   document
 * @param path  file to write and to remember in `file_name`; null for `file_name`
 * @return FRWK_ERROR_SUCCESS; FRWK_ERROR_NO_MEMORY and FRWK_ERROR_INVALID_PARAM (no name, or one too long for its
 *         backup), nothing touched; FRWK_ERROR_FILE_CREATE when the file cannot be created or written whole, the old
 *         one back in place
 *
 * Blocks for sync() of all file systems.
 */
FRWK_API int frwk_xml_file_save(frwk_xml_doc_t *doc, const char *path);

FRWK_END_DECLS

#endif
