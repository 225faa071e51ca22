/*
 * What the configuration files need of the XML files beyond the public calls.
 */
#ifndef FRWK_XML_INTERNAL_H
#define FRWK_XML_INTERNAL_H

#include "frwk_xml.h"

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

#endif
