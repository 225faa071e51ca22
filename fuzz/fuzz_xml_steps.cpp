// Each step of the parser from an entry state of its own: the first byte names the step, the second its flags and the
// line it starts on.
#include "fuzz.h"

#include <algorithm>
#include <vector>

#include "../tests/support/xml_tree.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size < 2) {
        return 0;
    }
    const uint32_t flags = data[1] % 16, first_line = 1 + data[1] / 128U;
    std::vector<char> text(size - 1); // just as long, so that reading past its end shows
    std::copy(data + 2, data + size, text.data());
    Doc doc(frwk_xml_alloc_doc()), holder(frwk_xml_alloc_doc());
    frwk_xml_node_t *node = holder->root;
    doc->line = first_line;
    doc->cursor = text.data();
    const auto fails_or = [&](bool expected) { CHECK(doc->status != 0 || expected); };
    switch (data[0] % 10) {
    case 0:
        node->name = strdup("a");
        CHECK(frwk_xml_read_node(doc.get(), node, flags) == doc->status);
        break;
    case 1:
        frwk_xml_read_tag(doc.get(), node, flags);
        fails_or(node->name != nullptr);
        break;
    case 2:
        CHECK(frwk_xml_read_name(doc.get(), node) == doc->status);
        fails_or(node->name != nullptr && strlen(node->name) <= 127);
        break;
    case 3:
        CHECK(frwk_xml_read_attrs(doc.get(), node, flags) == doc->status);
        break;
    case 4: {
        frwk_xml_attr_t *attr = frwk_xml_read_attr(doc.get(), flags);
        CHECK(attr == nullptr || (doc->status == 0 && strlen(attr->name) <= 128 && strlen(attr->value) <= 512));
        frwk_xml_free_attr(attr);
        break;
    }
    case 5:
        frwk_xml_read_data(doc.get(), node, flags);
        fails_or(*doc->cursor == '<');
        if (doc->status == 0) {
            const char *before = doc->cursor;
            frwk_xml_read_data(doc.get(), node, flags); // a second run
            CHECK(doc->status == 1 && doc->error == 8 && doc->cursor == before);
        }
        break;
    case 6:
        frwk_xml_read_comment(doc.get(), node);
        fails_or(node->value != nullptr && strstr(node->value, "-->") == nullptr);
        break;
    case 7:
        frwk_xml_read_header(doc.get(), node);
        fails_or(first_line == 1 && node->name != nullptr && node->value != nullptr);
        break;
    case 8:
        frwk_xml_read_dir(doc.get(), node);
        fails_or(node->value != nullptr && strchr(node->value, '>') == nullptr);
        break;
    default:
        node->name = strdup("a");
        frwk_xml_read_closing(doc.get(), node);
        CHECK((doc->status == 0) == (strncmp(text.data(), "a>", 2) == 0));
        break;
    }
    const uint32_t passed = static_cast<uint32_t>(std::count(text.data(), doc->cursor, '\n'));
    CHECK(doc->cursor < text.data() + text.size() && (doc->status != 0 || doc->line == first_line + passed));
    CHECK(doc->status == 0 || (doc->status == 4 && doc->error <= 15) || (doc->status == 1 && doc->error == 8));
    CHECK(node->len == (node->value != nullptr ? strlen(node->value) : 0));
    CHECK(below(node).find("<broken>") == std::string::npos);
    return 0;
}
