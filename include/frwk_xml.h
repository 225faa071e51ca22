/* SPDX-FileCopyrightText: 2026 the libfrwk authors */
/* SPDX-License-Identifier: MIT */

/**
 * @file frwk_xml.h
 * A small XML model, parser and writer: elements, attributes, text, comments, declarations, directives, and the five
 * predefined entities. No DTD, CDATA, namespaces, character references or encodings: text is bytes, up to the first 0.
 *
 * The parser takes one run of text in an element, before, between or after its children, and drops blanks and line ends
 * at its beginning; and names of elements up to 127 characters, names of attributes up to 128 and their values up to
 * 512.
 *
 * No function takes a lock; a document is used by one thread at a time, different documents by different threads.
 */
#ifndef FRWK_XML_H
#define FRWK_XML_H

#include "frwk_defs.h"
#include "frwk_list.h"
#include "frwk_string.h"

#include <stdint.h>
#include <stdio.h>

FRWK_BEGIN_DECLS

/** Node types. */
enum {
    FRWK_XML_NODE_ELEMENT = 0,     /**< An element. */
    FRWK_XML_NODE_COMMENT = 1,     /**< A comment. */
    FRWK_XML_NODE_DECLARATION = 2, /**< A declaration, such as that of the version. */
    FRWK_XML_NODE_DIRECTIVE = 3,   /**< A directive, such as DOCTYPE. */
    FRWK_XML_NODE_DOCUMENT = 4     /**< The document node, one in a document. */
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

/**
 * Gives the message of a parse error.
 * @param code  error code, 0 to 15
 * @return its message, a constant; "Unkown error" above 15
 */
FRWK_API const char *frwk_xml_strerror(uint32_t code);

/**
 * Makes an attribute without name and value.
 * @return the attribute, to be ended with frwk_xml_free_attr() or linked to a node; null, traced, when memory is short
 */
FRWK_API frwk_xml_attr_t *frwk_xml_alloc_attr(void);
/**
 * Makes an element without name and value, of depth 0.
 * @return the element, to be ended with frwk_xml_free_node() or linked to a parent; null, traced, when memory is short
 */
FRWK_API frwk_xml_node_t *frwk_xml_alloc_node(void);
/**
 * Makes an empty document, with a document node.
 * @return the document, to be ended with frwk_xml_free_doc(); null, traced, when memory is short
 */
FRWK_API frwk_xml_doc_t *frwk_xml_alloc_doc(void);
/**
 * Frees an attribute.
 * @param attr  attribute that is in no list, or null
 */
FRWK_API void frwk_xml_free_attr(frwk_xml_attr_t *attr);
/**
 * Frees a node and all below it, without recursing.
 * @param node  node that is in no list, or null
 */
FRWK_API void frwk_xml_free_node(frwk_xml_node_t *node);
/**
 * Frees a document and its tree.
 * @param doc  document, or null
 */
FRWK_API void frwk_xml_free_doc(frwk_xml_doc_t *doc);

/**
 * Finds the root element.
 * @param doc  document, or null
 * @return the first top-level element, which lives as long as the document; null, traced, when there is none
 */
FRWK_API frwk_xml_node_t *frwk_xml_get_doc_root(frwk_xml_doc_t *doc);
/**
 * Finds a child element.
 * @param parent  node, or null
 * @param name    its name, compared exactly; may be null
 * @return the first element among the children with that name, owned by `parent`; null when there is none, and, traced,
 *         for a null argument
 */
FRWK_API frwk_xml_node_t *frwk_xml_get_child_node(frwk_xml_node_t *parent, const char *name);
/**
 * Finds the value of an attribute.
 * @param node  node, or null
 * @param name  name of the attribute, compared exactly; may be null
 * @return the value of the first attribute of that name, owned by the attribute; "" when there is none or an argument
 *         is null
 */
FRWK_API const char *frwk_xml_get_attr_value(frwk_xml_node_t *node, const char *name);
/**
 * Takes the value out of a node, which has none then.
 * @param node  node, or null
 * @return the string, now the caller's to free(); null when there is none
 */
FRWK_API char *frwk_xml_get_node_value(frwk_xml_node_t *node);

/**
 * Replaces a node's text by a copy. Pointers to the old text end with it.
 * @param node   node, or null
 * @param value  the new text, which may be the node's own; null stands for ""
 * @return FRWK_ERROR_SUCCESS; otherwise, traced and the node unchanged: FRWK_ERROR_INVALID_PARAM for a null node,
 *         FRWK_ERROR_NO_MEMORY
 */
FRWK_API int frwk_xml_set_node_value(frwk_xml_node_t *node, const char *value);
/**
 * Appends an element to a node's children.
 * @param parent  node
 * @param name    the element's name, copied unchecked; null stands for ""
 * @param value   its text, copied; null stands for ""
 * @return FRWK_ERROR_SUCCESS; or, traced and the tree unchanged, FRWK_ERROR_NO_MEMORY
 */
FRWK_API int frwk_xml_node_append(frwk_xml_node_t *parent, const char *name, const char *value);
/**
 * Sets the text of the first child element of a name; appends one when there is none.
 * @param parent  node, or null
 * @param name    name of the element, or null
 * @param value   its text, copied; null stands for ""
 * @return FRWK_ERROR_SUCCESS; otherwise, traced and the tree unchanged: FRWK_ERROR_INVALID_PARAM for a null parent or
 *         name, FRWK_ERROR_NO_MEMORY
 */
FRWK_API int frwk_xml_set_node_append(frwk_xml_node_t *parent, const char *name, const char *value);

/**
 * Parses a whole document. Elements that are still open at the end of the text are closed there, so that a text that
 * was cut off may parse.
 * @param text  text, which the parse may change; it stays the caller's and is not needed afterwards; may be null
 * @return the document, to be ended with frwk_xml_free_doc(); null, traced with line and cause, when it is no document
 *         with exactly one root, when it is null or "", and when memory is short
 */
FRWK_API frwk_xml_doc_t *frwk_xml_cache_parse(char *text);
/**
 * Parses a file as frwk_xml_cache_parse() does a text. Blocks for the disk.
 * @param path  its path, of which the document keeps a copy as `file_name`; may be null
 * @return as from frwk_xml_cache_parse(); null, traced, also when the file is missing, empty or cannot be read
 */
FRWK_API frwk_xml_doc_t *frwk_xml_file_parse(const char *path);

/**
 * @name Steps of the parser
 * For a program that parses a part of a text: it makes a document, points its `cursor` to a text that the step may
 * change, and gives the nodes. Each step reads at `cursor` and moves it past what it consumes, counts lines in `line`,
 * and on an error sets `status` and `error`, traces nothing, and returns at once. Nesting does not recurse. Strings
 * that a node had are freed when a step replaces them. `flags` is FRWK_XML_RAW or 0.
 * @{
 */
/**
 * Reads the content of an element, or of the document node, up to its closing tag or the end of the text. After an
 * error the children read before stay attached.
 * @param doc     document, its `cursor` behind the start tag
 * @param parent  node that takes the content
 * @param flags   FRWK_XML_RAW or 0
 * @return the document's status
 */
FRWK_API int frwk_xml_read_node(frwk_xml_doc_t *doc, frwk_xml_node_t *parent, uint32_t flags);
/**
 * Reads an element, from its name to the end of its content.
 * @param doc    document, its `cursor` behind `<`
 * @param node   becomes the element
 * @param flags  FRWK_XML_RAW or 0
 */
FRWK_API void frwk_xml_read_tag(frwk_xml_doc_t *doc, frwk_xml_node_t *node, uint32_t flags);
/**
 * Reads a name.
 * @param doc   document, its `cursor` at the name
 * @param node  its `name` becomes a copy
 * @return 0; 4 on an error, also when memory is short (the document's status is then -1)
 */
FRWK_API int frwk_xml_read_name(frwk_xml_doc_t *doc, frwk_xml_node_t *node);
/**
 * Reads all attributes of a start tag. After an error those read before stay attached.
 * @param doc    document, its `cursor` behind the element's name
 * @param node   its `attrs` take them
 * @param flags  FRWK_XML_RAW or 0
 * @return the document's status
 */
FRWK_API int frwk_xml_read_attrs(frwk_xml_doc_t *doc, frwk_xml_node_t *node, uint32_t flags);
/**
 * Reads one attribute.
 * @param doc    document, its `cursor` where an attribute may begin
 * @param flags  FRWK_XML_RAW or 0
 * @return the attribute, the caller's; null at the end of the attributes, and on an error: the document's status tells
 */
FRWK_API frwk_xml_attr_t *frwk_xml_read_attr(frwk_xml_doc_t *doc, uint32_t flags);
/**
 * Reads a text run, up to the next `<`.
 * @param doc    document, its `cursor` at the text
 * @param node   its `value` and `len` take it; with a `value` already the status becomes 1
 * @param flags  FRWK_XML_RAW or 0
 */
FRWK_API void frwk_xml_read_data(frwk_xml_doc_t *doc, frwk_xml_node_t *node, uint32_t flags);
/**
 * Reads a comment.
 * @param doc   document, its `cursor` behind `<!--`
 * @param node  becomes the comment
 */
FRWK_API void frwk_xml_read_comment(frwk_xml_doc_t *doc, frwk_xml_node_t *node);
/**
 * Reads a declaration, which is an error on any line but 1.
 * @param doc   document, its `cursor` behind `<?`
 * @param node  becomes the declaration
 */
FRWK_API void frwk_xml_read_header(frwk_xml_doc_t *doc, frwk_xml_node_t *node);
/**
 * Reads a directive.
 * @param doc   document, its `cursor` behind `<!`
 * @param node  becomes the directive
 */
FRWK_API void frwk_xml_read_dir(frwk_xml_doc_t *doc, frwk_xml_node_t *node);
/**
 * Reads a closing tag.
 * @param doc   document, its `cursor` behind `</`
 * @param node  element that it must name
 */
FRWK_API void frwk_xml_read_closing(frwk_xml_doc_t *doc, frwk_xml_node_t *node);
/** @} */

/**
 * @name Stream writer
 * Writes to `w->fp`. Errors are the stream's, as ferror() tells; blocking and cancellation are the stream's, too.
 *
 * Nodes need not come from the parser; a null name or value is written as "". An element with neither text nor children
 * becomes an empty-element tag. Only text and values of attributes are escaped. A comment gets a blank on either side,
 * which the parser keeps: each time that it is read and written adds one.
 * @{
 */
/**
 * Writes the indentation of a node: one step less than its depth.
 * @param w      writer
 * @param depth  depth of the node; 1 and below give none
 * @param flags  FRWK_XML_INDENT_ bits
 */
FRWK_API void frwk_xml_write_fmt(frwk_xml_writer_t *w, int depth, uint32_t flags);
/**
 * Writes a text with the five entities.
 * @param w     writer
 * @param text  text; null writes nothing
 */
FRWK_API void frwk_xml_write_esc(frwk_xml_writer_t *w, const char *text);
/**
 * Writes a node's attributes.
 * @param w      writer
 * @param node   node
 * @param flags  FRWK_XML_RAW or 0
 */
FRWK_API void frwk_xml_write_attrs(frwk_xml_writer_t *w, frwk_xml_node_t *node, uint32_t flags);
/**
 * Writes a node and all below it, children on lines of their own.
 * @param w      writer
 * @param node   node
 * @param flags  FRWK_XML_INDENT_ bits and FRWK_XML_RAW
 * @return `w->result`
 */
FRWK_API int frwk_xml_write_node(frwk_xml_writer_t *w, frwk_xml_node_t *node, uint32_t flags);
/** @} */

/**
 * @name Buffer writer
 * Appends to an initialised buffer, without a terminator; a buffer that cannot grow ends the process by an assertion.
 * Otherwise as the stream writer, but an empty comment gets two blanks.
 * @{
 */
/**
 * Appends the indentation of a node: one step less than its depth.
 * @param b      buffer
 * @param depth  depth of the node; 1 and below give none
 * @param flags  FRWK_XML_INDENT_ bits
 */
FRWK_API void frwk_xml_cache_write_fmt(frwk_buffer_t *b, int depth, uint32_t flags);
/**
 * Appends a text with the five entities.
 * @param b     buffer
 * @param text  text; null appends nothing
 */
FRWK_API void frwk_xml_cache_write_esc(frwk_buffer_t *b, const char *text);
/**
 * Appends a node's attributes.
 * @param b      buffer
 * @param node   node
 * @param flags  FRWK_XML_RAW or 0
 */
FRWK_API void frwk_xml_cache_write_attrs(frwk_buffer_t *b, frwk_xml_node_t *node, uint32_t flags);
/**
 * Appends a node and all below it, children on lines of their own.
 * @param b      buffer
 * @param node   node
 * @param flags  FRWK_XML_INDENT_ bits and FRWK_XML_RAW
 * @return 0
 */
FRWK_API int frwk_xml_cache_save(frwk_buffer_t *b, frwk_xml_node_t *node, uint32_t flags);
/** @} */

/**
 * Saves a document so that the old content stays on disk, under its name or with ".bak" behind it, until the new one
 * has been written and synced. Blocks for sync() of all file systems.
 *
 * The file is moved to its ".bak", over any that is there, and written anew, with the mode 0666 less the umask; a link
 * is replaced by a file. The ".bak" is removed at the end if it is still the file that was moved there. Of two who save
 * the same file at once, the one whose file is in place at the end succeeds.
 *
 * @param doc   document; null fails
 * @param path  file to write, up to 507 characters, copied to `file_name`, where it stays after a failure to write,
 *              too; null for `file_name`
 * @return FRWK_ERROR_SUCCESS: the file in place is the one that was written;
 *         FRWK_ERROR_INVALID_PARAM: no document, no name, or one that is too long; nothing is changed;
 *         FRWK_ERROR_NO_MEMORY: the disk is untouched (where memory is short for more than 4,096 bytes of text, the
 *         process ends by an assertion, as in frwk_buffer_grow());
 *         FRWK_ERROR_FILE_CREATE: the old file could not be moved aside, and is untouched; or the new one could not be
 *         created, written or closed, and the old one was put back; or another writer's is in place
 */
FRWK_API int frwk_xml_file_save(frwk_xml_doc_t *doc, const char *path);

FRWK_END_DECLS

#endif
