// Each step of the parser from an entry state of its own: the first byte names the step, the second its flags and the
// line it starts on.
#include "fuzz.h"

namespace {

void check_below(frwk_xml_node_t *node)
{
    CHECK(node->len == (node->value != nullptr ? strlen(node->value) : 0));
    frwk_list_for_each (link, &node->attrs) {
        CHECK(attr_at(link)->name != nullptr && attr_at(link)->value != nullptr);
    }
    frwk_list_for_each (link, &node->children) {
        CHECK(node_at(link)->parent == node && node_at(link)->depth == node->depth + 1);
        check_below(node_at(link));
    }
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    trace_to_nothing();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size < 2) {
        return 0;
    }
    const uint8_t step = data[0] % 10;
    const uint32_t flags = data[1] % 16;
    char *text = text_of(data + 2, size - 2);
    frwk_xml_doc_t *doc = frwk_xml_alloc_doc();
    frwk_xml_node_t *node = frwk_xml_alloc_node();
    CHECK(doc != nullptr && node != nullptr);
    const uint32_t first_line = 1 + data[1] / 128U;
    doc->line = first_line;
    doc->cursor = text;
    node->depth = 3;
    switch (step) {
    case 0:
        node->name = strdup("a");
        CHECK(frwk_xml_read_node(doc, node, flags) == doc->status);
        break;
    case 1:
        frwk_xml_read_tag(doc, node, flags);
        CHECK(doc->status != 0 || node->name != nullptr);
        break;
    case 2:
        CHECK(frwk_xml_read_name(doc, node) == doc->status || doc->status == -1);
        CHECK(doc->status != 0 || strlen(node->name) <= 127);
        break;
    case 3:
        CHECK(frwk_xml_read_attrs(doc, node, flags) == doc->status);
        break;
    case 4: {
        frwk_xml_attr_t *attr = frwk_xml_read_attr(doc, flags);
        CHECK(attr == nullptr || doc->status == 0);
        frwk_xml_free_attr(attr);
        break;
    }
    case 5:
        frwk_xml_read_data(doc, node, flags);
        CHECK(doc->status != 0 || *doc->cursor == '<');
        if (doc->status == 0) {
            const char *before = doc->cursor;
            frwk_xml_read_data(doc, node, flags); // a second run
            CHECK(doc->status == 1 && doc->error == 8 && doc->cursor == before);
        }
        break;
    case 6:
        frwk_xml_read_comment(doc, node);
        CHECK(doc->status != 0 || strstr(node->value, "-->") == nullptr);
        break;
    case 7:
        frwk_xml_read_header(doc, node);
        CHECK(doc->status != 0 || (first_line == 1 && node->name != nullptr && node->value != nullptr));
        break;
    case 8:
        frwk_xml_read_dir(doc, node);
        CHECK(doc->status != 0 || strchr(node->value, '>') == nullptr);
        break;
    default:
        node->name = strdup("a");
        frwk_xml_read_closing(doc, node);
        CHECK((doc->status == 0) == (strncmp(text, "a>", 2) == 0));
        break;
    }
    CHECK(doc->status == 0 || (doc->status == 4 && doc->error <= 15) || (doc->status == 1 && doc->error == 8));
    CHECK(doc->cursor >= text && doc->cursor <= text + strlen(text));
    if (doc->status == 0) {
        uint32_t newlines = 0;
        for (const char *c = text; c < doc->cursor; c++) {
            newlines += *c == '\n';
        }
        CHECK(doc->line == first_line + newlines);
    }
    check_below(node);
    frwk_xml_free_node(node);
    frwk_xml_free_doc(doc);
    free(text);
    return 0;
}
