/* SPDX-FileCopyrightText: 2026 the libfrwk authors */
/* SPDX-License-Identifier: MIT */

/*
 * XML: texts and files, the save.
 */
#include "frwk_bounded.h"
#include "frwk_guard.h"
#include "frwk_module.h"
#include "frwk_xml_internal.h"

#include <errno.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>

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

static void trace_text_failure(const frwk_xml_read_t &read)
{
    static const char func[] = "frwk_xml_cache_parse";

    if (read.failure == FAILED_NO_TEXT) {
        XML_ERR_AS(func, "xml stream is null!");
    } else if (read.failure == FAILED_NO_DOCUMENT) {
        XML_ERR_AS(func, "alloc for xml doc failed!");
    } else if (read.failure == FAILED_SYNTAX) {
        XML_ERR_AS(func, "Error: line:%d,status:%d,cause:%s!", static_cast<int>(read.line), read.status,
                   frwk_xml_strerror(read.error));
    } else {
        XML_ERR_AS(func, "Can't found valid xml root!");
    }
}

void frwk_xml_trace_failure(const frwk_xml_read_t &read, const char *path)
{
    static const char func[] = "frwk_xml_file_parse";

    switch (read.failure) {
    case FAILED_NOT:
        break;
    case FAILED_NO_PATH:
        XML_ERR_AS(func, "xml file is null!");
        break;
    case FAILED_NO_SIZE:
        XML_ERR_AS(func, "invalid xml '%s'!", path);
        break;
    case FAILED_NO_BUFFER:
    case FAILED_NO_NAME:
        XML_ERR_AS(func, "alloc for xml '%s' failed!", path);
        break;
    case FAILED_NOT_OPENED:
        XML_ERR_AS(func, "%s, errno=%d, cause: %s", "open xml file error", read.status, strerror(read.status));
        break;
    default:
        trace_text_failure(read);
        XML_ERR_AS(func, "parse xml '%s' failed!", path);
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
        XML_ERR_AS(func, "create xml '%s' failed!", path);
    } else if (outcome == FRWK_XML_NOT_WRITTEN) {
        XML_ERR_AS(func, "write xml '%s' failed!", path);
    }
    return outcome == FRWK_XML_SAVED ? FRWK_ERROR_SUCCESS : FRWK_ERROR_FILE_CREATE;
}

/* The text of a document in a buffer that the caller frees; false, reported, when there is none to be had. */
static bool make_text(const frwk_xml_doc_t *doc, const char *path, frwk_buffer_t *text)
{
    if (frwk_buffer_init(text) == 0) {
        XML_ERR_AS("frwk_xml_file_save", "init xml '%s' cache failed!", path);
        return false;
    }
    frwk_xml_cache_save(text, doc->root, FRWK_XML_INDENT_SPACES);
    return true;
}

int frwk_xml_file_save(frwk_xml_doc_t *doc, const char *path)
{
    cancel_guard uncancelled;
    if (doc == nullptr || doc->root == nullptr) {
        XML_ERR("xml doc is null!");
        return FRWK_ERROR_INVALID_PARAM;
    }
    const char *name = path != nullptr ? path : doc->file_name;
    if (name == nullptr) {
        XML_ERR("xml file name is null!");
        return FRWK_ERROR_INVALID_PARAM;
    }
    char backup[BACKUP_PATH_SIZE];
    if (strlen(name) + sizeof backup_suffix > sizeof backup) {
        XML_ERR("xml file name '%s' is too long!", name);
        return FRWK_ERROR_INVALID_PARAM;
    }
    if (path != nullptr) {
        char *copy = frwk_strdup(path);
        if (copy == nullptr) {
            XML_ERR("alloc for xml '%s' failed!", path);
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
