// Whole documents: what parses has a sound tree, both writers agree on it, and what they write parses to the same tree.
#include "fuzz.h"

namespace {

// What keeps a document from being read back as it was, by the parser's and the writers' own rules.
struct Limits {
    bool late_declaration = false; // each node is written on a line of its own, declarations are read on the first only
    bool long_value = false;       // the limit of attribute values counts an entity that is still being read
    bool empty_comment = false;    // the two writers differ
};

Limits check_tree(frwk_xml_node_t *node, bool first)
{
    Limits limits;
    CHECK(node->len == (node->value != nullptr ? strlen(node->value) : 0));
    CHECK(node->type <= FRWK_XML_NODE_DOCUMENT);
    CHECK((node->name == nullptr) == (node->type == FRWK_XML_NODE_COMMENT || node->type == FRWK_XML_NODE_DOCUMENT));
    CHECK(node->value != nullptr || node->type == FRWK_XML_NODE_DOCUMENT);
    limits.late_declaration = node->type == FRWK_XML_NODE_DECLARATION && !first;
    limits.empty_comment = node->type == FRWK_XML_NODE_COMMENT && node->len == 0;
    frwk_list_for_each (link, &node->attrs) {
        frwk_xml_attr_t *attr = attr_at(link);
        CHECK(attr->name != nullptr && strlen(attr->name) <= 128 && attr->value != nullptr &&
              strlen(attr->value) <= 512);
        limits.long_value |= strlen(attr->value) > 507;
    }
    frwk_list_for_each (link, &node->children) {
        frwk_xml_node_t *child = node_at(link);
        CHECK(child->parent == node && child->depth == node->depth + 1 && child->list.next->prev == &child->list);
        Limits below = check_tree(child, node->type == FRWK_XML_NODE_DOCUMENT && link == node->children.next);
        limits.late_declaration |= below.late_declaration;
        limits.long_value |= below.long_value;
        limits.empty_comment |= below.empty_comment;
    }
    return limits;
}

std::string trimmed(const char *value)
{
    std::string text = value != nullptr ? value : "";
    text.erase(0, text.find_first_not_of(" \t\r\n"));
    text.erase(text.find_last_not_of(" \t\r\n") + 1);
    return text;
}

// Comments gain blanks on both sides, text behind children gains the indentation of the end tag, and a body the blank
// before it.
void check_same(frwk_xml_node_t *a, frwk_xml_node_t *b)
{
    CHECK(a->type == b->type && a->depth == b->depth);
    CHECK((a->name == nullptr) == (b->name == nullptr) && (a->name == nullptr || strcmp(a->name, b->name) == 0));
    if (a->type == FRWK_XML_NODE_ELEMENT && frwk_list_empty(&a->children)) {
        CHECK(strcmp(a->value, b->value) == 0);
    } else if (a->type != FRWK_XML_NODE_DOCUMENT) {
        CHECK(trimmed(a->value) == trimmed(b->value));
    }
    CHECK(frwk_list_cont(&a->attrs) == frwk_list_cont(&b->attrs));
    for (frwk_list_t *x = a->attrs.next, *y = b->attrs.next; x != &a->attrs; x = x->next, y = y->next) {
        CHECK(strcmp(attr_at(x)->name, attr_at(y)->name) == 0 && strcmp(attr_at(x)->value, attr_at(y)->value) == 0);
    }
    CHECK(frwk_list_cont(&a->children) == frwk_list_cont(&b->children));
    for (frwk_list_t *x = a->children.next, *y = b->children.next; x != &a->children; x = x->next, y = y->next) {
        check_same(node_at(x), node_at(y));
    }
}

void check_streamed(frwk_xml_node_t *node, uint32_t flags, const frwk_buffer_t &written)
{
    char *text = nullptr;
    size_t size = 0;
    FILE *fp = open_memstream(&text, &size);
    frwk_xml_writer_t writer = {7, 0, fp};
    CHECK(frwk_xml_write_node(&writer, node, flags) == 7);
    fclose(fp);
    CHECK(size == static_cast<size_t>(written.len) && memcmp(text, written.bp, size) == 0);
    free(text);
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    trace_to_nothing();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    char *text = text_of(data, size);
    frwk_xml_doc_t *doc = frwk_xml_cache_parse(text);
    free(text);
    if (doc == nullptr) {
        return 0;
    }
    Limits limits = check_tree(doc->root, false);
    for (uint32_t flags : {FRWK_XML_INDENT_TAB, FRWK_XML_INDENT_SPACES, FRWK_XML_RAW}) {
        frwk_buffer_t written;
        CHECK(frwk_buffer_init(&written) == 1 && frwk_xml_cache_save(&written, doc->root, flags) == 0);
        CHECK(written.len < written.size);
        if (!limits.empty_comment) {
            check_streamed(doc->root, flags, written);
        }
        if (flags != FRWK_XML_RAW && !limits.late_declaration && !limits.long_value) {
            text = text_of(written.bp, static_cast<size_t>(written.len));
            frwk_xml_doc_t *again = frwk_xml_cache_parse(text);
            free(text);
            CHECK(again != nullptr);
            check_same(doc->root, again->root);
            frwk_xml_free_doc(again);
        }
        frwk_buffer_free(&written);
    }
    frwk_xml_free_doc(doc);
    return 0;
}
