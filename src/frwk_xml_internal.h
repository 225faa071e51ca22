/* SPDX-FileCopyrightText: 2026 the libfrwk authors */
/* SPDX-License-Identifier: MIT */

/*
 * Between the files of XML; and what the configuration files need of them beyond the public calls, which comes first.
 *
 * Nothing of XML recurses along the nesting of elements, so that neither a file nor a program can exhaust a thread's
 * stack by depth.
 */
#ifndef FRWK_XML_INTERNAL_H
#define FRWK_XML_INTERNAL_H

#include "frwk_string.h"
#include "frwk_trace.h"
#include "frwk_xml.h"

#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>

/* What reading a file came to. */
enum frwk_xml_outcome {
    FRWK_XML_WHOLE,   /* its root element was closed, by its own end tag or as an empty-element tag */
    FRWK_XML_PIECE,   /* read to its end, and not whole; a piece may well parse */
    FRWK_XML_MISSING, /* there is no such file */
    FRWK_XML_UNKNOWN  /* it cannot be opened or read now, or memory is short: it may be whole all the same */
};

struct frwk_xml_read_t {
    frwk_xml_outcome outcome;
    frwk_xml_doc_t *doc; /* the caller's; null unless it parsed */
    uint32_t failure;    /* why it did not, for frwk_xml_trace_failure() */
    int32_t status;
    uint32_t error;
    uint32_t line;
};

/* As frwk_xml_file_parse(), without its messages. */
frwk_xml_read_t frwk_xml_file_read(const char *path);

/* The messages of frwk_xml_file_parse() on what was read; none where it parsed. */
void frwk_xml_trace_failure(const frwk_xml_read_t &read, const char *path);

/* Where a file goes that is put in place in one step. */
struct frwk_xml_place_t {
    const char *path;
    const char *fresh;     /* what it is called until then */
    const char *directory; /* of both */
};

/*
 * Saves the document like frwk_xml_file_save(), with its messages and results, but in one step: there is no instant
 * without a whole file under the path, no backup, and a failure leaves what was there.
 */
int frwk_xml_file_place(const frwk_xml_doc_t *doc, const frwk_xml_place_t &place);

/* ----------------------------------------- Traces ----------------------------------------- */

/*
 * Logs know XML by this file name, whichever of its files a message comes from; and by the public call that failed, in
 * whose name its helpers report.
 */
#define XML_ERR_AS(func, ...) frwk_trace_print("frwk_xml.cpp", func, __LINE__, FRWK_TRACE_ERROR, __VA_ARGS__)
#define XML_ERR(...) XML_ERR_AS(__func__, __VA_ARGS__)

/* ------------------------------------- The document --------------------------------------- */

static inline frwk_xml_node_t *node_of(frwk_list_t *link)
{
    return frwk_list_entry(link, frwk_xml_node_t, list);
}

static inline frwk_xml_attr_t *attr_of(frwk_list_t *link)
{
    return frwk_list_entry(link, frwk_xml_attr_t, list);
}

/* A new string in place of an owned one. */
static inline void replace_text(char **owned, char *text)
{
    free(*owned);
    *owned = text;
}

/*
 * A copy of n bytes as a string; null when memory is short or the length does not fit the word of a node. Not inline:
 * where the compiler sees that n is small, it copies by string instructions, which are slow to start.
 */
char *frwk_xml_copy_text(const char *text, size_t n);

/* Sets a node's value and its length to n bytes; false, and nothing changed, when memory is short. */
bool frwk_xml_copy_value(frwk_xml_node_t *node, const char *text, size_t n);

/* ----------------------------------------- A parse ---------------------------------------- */

enum frwk_xml_error : uint32_t {
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

enum parse_status : int32_t { STATUS_OK = 0, STATUS_TEXT_AGAIN = 1, STATUS_SYNTAX = 4, STATUS_NO_MEMORY = -1 };

/* No bit that the parser knows: references are decoded. */
enum { FLAGS_DECODE = 1 };

/*
 * Reads the content of `top` up to its closing tag, an error, or the end of the text, which closes what is open.
 * Returns whether every element met in it was closed by the text itself.
 */
bool frwk_xml_read_content(frwk_xml_doc_t *doc, frwk_xml_node_t *top, uint32_t flags);

/* ------------------------------------------ Files ----------------------------------------- */

/* fopen(), made again when a signal interrupts it. */
FILE *frwk_xml_open_file(const char *path, const char *mode);

/*
 * Reads up to size bytes and ends them; false when the disk fails: a piece of the file may well parse, and must not
 * pass for it.
 */
bool frwk_xml_read_stream(FILE *fp, char *text, size_t size);

enum frwk_xml_save_outcome { FRWK_XML_SAVED, FRWK_XML_NOT_CREATED, FRWK_XML_NOT_WRITTEN };

/* Writes the file anew, with the old one as its backup meanwhile. */
frwk_xml_save_outcome frwk_xml_replace_file(const char *path, const char *backup, const frwk_buffer_t *text);

/* Puts a new file in place in one step. */
frwk_xml_save_outcome frwk_xml_place_file(const frwk_xml_place_t &place, const frwk_buffer_t *text);

#endif
