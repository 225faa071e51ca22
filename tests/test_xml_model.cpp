/* SPDX-FileCopyrightText: 2026 the libfrwk authors */
/* SPDX-License-Identifier: MIT */

#include "frwk_test.h"
#include "xml_checks.h"

#include <set>

namespace {

TEST(XmlModel, ErrorTexts)
{
    std::string texts;
    for (uint32_t code = 0; code <= 16; code++) {
        texts += std::string(frwk_xml_strerror(code)) + "|";
    }
    EXPECT_EQ("No error|Input/output error|Not enough memory|XML declaration allowed only at the start of the "
              "document|Comment not terminated|Character outside tags|Invalid character as tag name|Invalid character "
              "as attribute name|Malformed attribute definition|Invalid character|Name of tag too long|Name of "
              "attribute too long|Value of attribute too long|Opening and ending tag mismatch|Unbalanced entity "
              "opening|Escape/entity '&;' found|Unkown error|",
              texts);
}

TEST(XmlModel, SetsAndFindsElements)
{
    std::string text = "<!-- b --><r><!--b--><b x='1' y='2' x='3'/><b>second</b></r>";
    Doc doc(frwk_xml_cache_parse(text.data()));
    frwk_xml_node_t *root = frwk_xml_get_doc_root(doc.get());
    EXPECT_EQ(0, frwk_xml_set_node_append(root, "b", "new"));
    EXPECT_EQ(0, frwk_xml_set_node_append(root, "B", "<&>"));
    EXPECT_EQ(0, frwk_xml_set_node_append(root, "B", nullptr));
    EXPECT_EQ(0, frwk_xml_node_append(root, "b", nullptr));
    EXPECT_EQ(Texts{}, said([&] { EXPECT_EQ(nullptr, frwk_xml_get_child_node(root, "c")); }));
    EXPECT_EQ("#' b ' r''(#'b' b[x=1][y=2][x=3]'new' b'second' B'' b'')", below(doc->root));

    frwk_xml_node_t *b = frwk_xml_get_child_node(root, "b");
    EXPECT_STREQ("1", frwk_xml_get_attr_value(b, "x"));
    EXPECT_STREQ("", frwk_xml_get_attr_value(b, "X"));
    EXPECT_EQ(0, frwk_xml_set_node_append(root, "b", b->value + 1));
    char *value = frwk_xml_get_node_value(b);
    EXPECT_STREQ("ew", value);
    free(value);
    EXPECT_TRUE(b->value == nullptr && b->len == 0 && frwk_xml_get_node_value(b) == nullptr);
}

TEST(XmlModel, RefusalsAreTraced)
{
    Doc doc(frwk_xml_alloc_doc());
    frwk_xml_doc_t bare = {};
    EXPECT_EQ(
        (Texts{"frwk_xml_get_doc_root: xml doc is null!", "frwk_xml_get_doc_root: can't found root node from xml doc!",
               "frwk_xml_get_doc_root: xml doc root node is null!", "frwk_xml_get_child_node: parent node is null!",
               "frwk_xml_get_child_node: child node name is null!", "frwk_xml_set_node_value: xml node is null!",
               "frwk_xml_set_node_append: Parameter is null!"}),
        said([&] {
            EXPECT_TRUE(!frwk_xml_get_doc_root(nullptr) && !frwk_xml_get_doc_root(doc.get()));
            EXPECT_TRUE(!frwk_xml_get_doc_root(&bare) && !frwk_xml_get_node_value(nullptr));
            EXPECT_STREQ("", frwk_xml_get_attr_value(nullptr, "x"));
            EXPECT_EQ(nullptr, frwk_xml_get_child_node(nullptr, nullptr));
            EXPECT_EQ(nullptr, frwk_xml_get_child_node(doc->root, nullptr));
            EXPECT_EQ(3, frwk_xml_set_node_value(nullptr, "x"));
            EXPECT_EQ(3, frwk_xml_set_node_append(doc->root, nullptr, "x"));
        }));
}

// Every allocation of a parse, two changes and a save fails in turn.
TEST(XmlModel, ShortMemoryIsTold)
{
    write_file("/tmp/a.xml", "<a b='1'>x</a>");
    std::set<std::string> messages;
    for (int refused = 1, reached = true; reached; refused++) {
        bool done = false;
        const Texts lines = said([&] {
            fault_after(refused, {"malloc fopen", ENOMEM});
            Doc doc(frwk_xml_file_parse("/tmp/a.xml"));
            done = doc != nullptr && frwk_xml_set_node_append(doc->root, "a", "y") == 0 &&
                   frwk_xml_set_node_append(doc->root, "b", "z") == 0 &&
                   frwk_xml_file_save(doc.get(), "/tmp/b.xml") == 0;
            reached = no_more_faults();
        });
        EXPECT_EQ(lines.empty(), done);
        messages.insert(lines.begin(), lines.end());
    }
    for (const char *text : {"buffer_init: init buffer[4096]", "xml_alloc_attr: alloc for xml node atrribute",
                             "xml_alloc_doc: alloc for xml doc", "xml_alloc_doc: alloc for xml root node",
                             "xml_alloc_node: alloc for xml node", "xml_cache_parse: alloc for xml doc",
                             "xml_file_parse: alloc for xml '/tmp/a.xml'", "xml_file_parse: parse xml '/tmp/a.xml'",
                             "xml_file_save: alloc for xml '/tmp/b.xml'", "xml_file_save: create xml '/tmp/b.xml'",
                             "xml_file_save: init xml '/tmp/b.xml' cache", "xml_node_append: append node",
                             "xml_set_node_value: alloc for xml node value"}) {
        EXPECT_EQ(1u, messages.count(std::string("frwk_") + text + " failed!")) << text;
    }
    EXPECT_EQ(1u, messages.count("frwk_xml_cache_parse: Error: line:1,status:-1,cause:Not enough memory!"));
}

} // namespace
