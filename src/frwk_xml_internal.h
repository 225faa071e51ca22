/*
 * What the configuration files need of the XML parser beyond its public calls.
 */
#ifndef FRWK_XML_INTERNAL_H
#define FRWK_XML_INTERNAL_H

#include "frwk_xml.h"

/*
 * As frwk_xml_file_parse() but without its messages, for a file that may rightly be missing or broken. *whole tells
 * whether the root element was closed by its own end tag or is an empty-element tag: false for a file that was cut off,
 * although such a piece may well parse, and false for a null result.
 */
frwk_xml_doc_t *frwk_xml_file_parse_quiet(const char *path, bool *whole);

#endif
