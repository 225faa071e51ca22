/* SPDX-FileCopyrightText: 2026 the libfrwk authors */
/* SPDX-License-Identifier: MIT */

// What holds for any text that the parser is given, for the fuzz targets; trees as texts, for the tests too.
#ifndef XML_CHECKS_H
#define XML_CHECKS_H

#include "check.h"
#include <frwk.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

// Frees what it holds.
using Doc = std::unique_ptr<frwk_xml_doc_t, std::integral_constant<decltype(&frwk_xml_free_doc), frwk_xml_free_doc>>;

// The nodes below `parent`: "name[attribute=value]'text'(children)" with "?", "!" and "#" before declarations,
// directives and comments; a 0, which no text holds, for one that does not hold together. Loosely without the blanks
// around a text that a writer may add.
inline std::string below(const frwk_xml_node_t *parent, bool loosely = false)
{
    static const char signs[] = " #?!", blanks[] = " \t\r\n";
    std::string text;
    frwk_list_for_each (link, &parent->children) {
        const frwk_xml_node_t *node = frwk_list_entry(link, frwk_xml_node_t, list);
        if (node->parent != parent || node->depth != parent->depth + 1 || node->type > 3 || link->next->prev != link ||
            node->len != (node->value != nullptr ? strlen(node->value) : 0)) {
            return text + '\0';
        }
        text += (text.empty() ? "" : " ") + std::string(node->type != 0, signs[node->type]) +
                (node->name != nullptr ? node->name : "");
        frwk_list_for_each (attr_link, &node->attrs) {
            const frwk_xml_attr_t *attr = frwk_list_entry(attr_link, frwk_xml_attr_t, list);
            text += std::string("[") + attr->name + "=" + attr->value + "]";
        }
        std::string value = node->value != nullptr ? node->value : "";
        if (loosely && (node->type != FRWK_XML_NODE_ELEMENT || !frwk_list_empty(&node->children))) {
            value.erase(0, value.find_first_not_of(blanks));
            value.erase(value.find_last_not_of(blanks) + 1);
        }
        text += node->value != nullptr ? "'" + value + "'" : "";
        text += frwk_list_empty(&node->children) ? "" : "(" + below(node, loosely) + ")";
    }
    return text;
}

// In a block of just that size, so that reading past the end of the text shows.
inline std::vector<char> text_of(const uint8_t *data, size_t size)
{
    std::vector<char> text(size + 1);
    std::copy_n(data, size, text.data());
    return text;
}

inline std::string streamed(frwk_xml_node_t *node, uint32_t flags)
{
    char *text = nullptr;
    size_t size = 0;
    FILE *fp = open_memstream(&text, &size);
    frwk_xml_writer_t writer = {7, 0, fp};
    CHECK(frwk_xml_write_node(&writer, node, flags) == 7);
    fclose(fp);
    const std::string copy(text, size);
    free(text);
    return copy;
}

// What parses has a sound tree, both writers agree on it, and what they write parses to the same tree.
inline void check_document(const uint8_t *data, size_t size)
{
    Doc doc(frwk_xml_cache_parse(text_of(data, size).data()));
    if (doc == nullptr) {
        return;
    }
    const std::string tree = below(doc->root, true);
    CHECK(tree.find('\0') == std::string::npos);
    for (uint32_t flags : {FRWK_XML_INDENT_TAB, FRWK_XML_INDENT_SPACES, FRWK_XML_RAW}) {
        frwk_buffer_t written;
        CHECK(frwk_buffer_init(&written) == 1 && frwk_xml_cache_save(&written, doc->root, flags) == 0);
        CHECK(written.len < written.size);
        std::vector<char> text = text_of(written.bp, static_cast<size_t>(written.len));
        frwk_buffer_free(&written);
        const std::string stream = streamed(doc->root, flags); // which differs in empty comments only
        CHECK(stream == std::string(text.data(), text.size() - 1) || stream.find("<!---->") != std::string::npos);

        // Each node is written on a line of its own, but declarations are read on the first only (3); and the limit of
        // an attribute's value counts an entity that is still being read (12).
        Doc again(frwk_xml_alloc_doc());
        again->cursor = text.data();
        if (flags != FRWK_XML_RAW && frwk_xml_read_node(again.get(), again->root, 0) == 0) {
            CHECK(below(again->root, true) == tree);
        }
        CHECK(again->status == 0 || (again->status == 4 && (again->error == 3 || again->error == 12)));
    }
}

// Each step of the parser from an entry state of its own: the first byte names the step, the second its flags and the
// line it starts on.
inline void check_step(const uint8_t *data, size_t size)
{
    using Step = void (*)(frwk_xml_doc_t *, frwk_xml_node_t *, uint32_t);
    static const Step steps[] = {
        [](auto *doc, auto *node, auto flags) { frwk_xml_read_node(doc, node, flags); },
        frwk_xml_read_tag,
        [](auto *doc, auto *node, auto) { frwk_xml_read_name(doc, node); },
        [](auto *doc, auto *node, auto flags) { frwk_xml_read_attrs(doc, node, flags); },
        [](auto *doc, auto *, auto flags) { frwk_xml_free_attr(frwk_xml_read_attr(doc, flags)); },
        frwk_xml_read_data,
        [](auto *doc, auto *node, auto) { frwk_xml_read_comment(doc, node); },
        [](auto *doc, auto *node, auto) { frwk_xml_read_header(doc, node); },
        [](auto *doc, auto *node, auto) { frwk_xml_read_dir(doc, node); },
        [](auto *doc, auto *node, auto) { frwk_xml_read_closing(doc, node); },
    };
    const size_t chosen = data[0] % std::size(steps);
    const uint32_t first_line = 1 + data[1] / 128U;
    std::vector<char> text = text_of(data + 2, size - 2);
    Doc holder(frwk_xml_alloc_doc()), owner(frwk_xml_alloc_doc());
    frwk_xml_doc_t *doc = owner.get();
    frwk_xml_node_t *node = holder->root;
    doc->line = first_line;
    doc->cursor = text.data();
    node->name = chosen == 0 || chosen == 9 ? strdup("a") : nullptr; // of the element that is open
    steps[chosen](doc, node, data[1] % 16);
    CHECK(node->name == nullptr || strlen(node->name) <= 127);
    const uint32_t passed = static_cast<uint32_t>(std::count(text.data(), doc->cursor, '\n'));
    CHECK(doc->cursor < text.data() + text.size() && (doc->status != 0 || doc->line == first_line + passed));
    CHECK(doc->status == 0 || (doc->status == 4 && doc->error <= 15) || (doc->status == 1 && doc->error == 8));
    CHECK(below(node).find('\0') == std::string::npos);
}

#endif
