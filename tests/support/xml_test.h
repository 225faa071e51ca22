// What the tests of XML share: trees as text.
#ifndef XML_TEST_H
#define XML_TEST_H

#include "text_test.h"

namespace xml_test {

using text_test::Texts;

struct FreeDoc {
    void operator()(frwk_xml_doc_t *doc) const
    {
        frwk_xml_free_doc(doc);
    }
};
using Doc = std::unique_ptr<frwk_xml_doc_t, FreeDoc>;

// The nodes below `parent`: "name[attribute=value]'text'(children)" with "?", "!" and "#" before declarations,
// directives and comments. Looks on its way that every node holds together.
inline std::string below(const frwk_xml_node_t *parent)
{
    static const std::string marks[] = {"", "#", "?", "!", "*"};
    std::string text;
    frwk_list_for_each (link, &parent->children) {
        const frwk_xml_node_t *node = frwk_list_entry(link, frwk_xml_node_t, list);
        EXPECT_EQ(parent, node->parent);
        EXPECT_EQ(parent->depth + 1, node->depth);
        EXPECT_LE(node->type, 4u);
        EXPECT_EQ(node->value != nullptr ? strlen(node->value) : 0, node->len);
        text += (text.empty() ? "" : " ") + marks[node->type] + (node->name != nullptr ? node->name : "");
        frwk_list_for_each (attr_link, &node->attrs) {
            const frwk_xml_attr_t *attr = frwk_list_entry(attr_link, frwk_xml_attr_t, list);
            text += std::string("[") + attr->name + "=" + attr->value + "]";
        }
        text += node->value != nullptr ? std::string("'") + node->value + "'" : "";
        text += frwk_list_empty(&node->children) ? "" : "(" + below(node) + ")";
    }
    return text;
}

// A fresh document whose cursor stands at the text.
inline Doc reading(std::string &text)
{
    Doc doc(frwk_xml_alloc_doc());
    doc->cursor = text.data();
    return doc;
}

inline std::string state_of(const frwk_xml_doc_t *doc)
{
    return "status " + std::to_string(doc->status) + " error " + std::to_string(doc->error) + " line " +
           std::to_string(doc->line);
}

// What becomes of a text that is the content of a document: its tree, or the state in which the parse stopped.
inline std::string parsed(std::string text, uint32_t flags = 0)
{
    Doc doc = reading(text);
    int status = frwk_xml_read_node(doc.get(), doc->root, flags);
    EXPECT_EQ(status, doc->status);
    return status == 0 ? below(doc->root) : state_of(doc.get());
}

inline frwk_xml_node_t *first_child(const frwk_xml_node_t *node)
{
    return frwk_list_entry(node->children.next, frwk_xml_node_t, list);
}

} // namespace xml_test

#endif
