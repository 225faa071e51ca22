#include "xml_test.h"

using namespace xml_test;
using text_test::said;

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
    EXPECT_STREQ("Unkown error", frwk_xml_strerror(static_cast<uint32_t>(-1)));
}

TEST(XmlModel, SetsAndFindsElements)
{
    std::string text = "<!-- b --><r><!--b--><b x='1' y='2' x='3'/><b>second</b></r>";
    Doc doc(frwk_xml_cache_parse(text.data()));
    frwk_xml_node_t *root = frwk_xml_get_doc_root(doc.get());
    ASSERT_NE(nullptr, root);
    EXPECT_EQ(Texts{}, said([&] {
                  EXPECT_EQ(0, frwk_xml_set_node_append(root, "b", "new"));
                  EXPECT_EQ(0, frwk_xml_set_node_append(root, "B", "<&>"));
                  EXPECT_EQ(0, frwk_xml_set_node_append(root, "B", nullptr));
                  EXPECT_EQ(0, frwk_xml_node_append(root, "b", nullptr));
                  EXPECT_EQ(0, frwk_xml_node_append(root, nullptr, "unnamed"));
                  EXPECT_EQ(nullptr, frwk_xml_get_child_node(root, "c"));
              }));
    EXPECT_EQ("#' b ' r''(#'b' b[x=1][y=2][x=3]'new' b'second' B'' b'' 'unnamed')", below(doc->root));
    EXPECT_EQ(5u, doc->node_count); // those of the parser

    frwk_xml_node_t *b = frwk_xml_get_child_node(root, "b");
    EXPECT_STREQ("1", frwk_xml_get_attr_value(b, "x"));
    EXPECT_STREQ("", frwk_xml_get_attr_value(b, "X"));
    EXPECT_STREQ("", frwk_xml_get_attr_value(nullptr, "x"));
    EXPECT_STREQ("", frwk_xml_get_attr_value(b, nullptr));

    EXPECT_EQ(0, frwk_xml_set_node_value(b, b->value));
    EXPECT_EQ(0, frwk_xml_set_node_append(root, "b", b->value + 1));
    char *value = frwk_xml_get_node_value(b);
    EXPECT_STREQ("ew", value);
    free(value);
    EXPECT_TRUE(b->value == nullptr && b->len == 0 && frwk_xml_get_node_value(b) == nullptr);
    EXPECT_EQ(nullptr, frwk_xml_get_node_value(nullptr));
}

TEST(XmlModel, RefusalsAreTraced)
{
    Doc doc(frwk_xml_alloc_doc());
    frwk_xml_node_t *root = doc->root;
    doc->root = nullptr;
    EXPECT_EQ((Texts{"frwk_xml_get_doc_root: xml doc is null!", "frwk_xml_get_doc_root: xml doc root node is null!",
                     "frwk_xml_get_doc_root: can't found root node from xml doc!",
                     "frwk_xml_get_child_node: parent node is null!",
                     "frwk_xml_get_child_node: child node name is null!", "frwk_xml_set_node_value: xml node is null!",
                     "frwk_xml_set_node_append: Parameter is null!", "frwk_xml_set_node_append: Parameter is null!"}),
              said([&] {
                  EXPECT_EQ(nullptr, frwk_xml_get_doc_root(nullptr));
                  EXPECT_EQ(nullptr, frwk_xml_get_doc_root(doc.get()));
                  doc->root = root;
                  EXPECT_EQ(nullptr, frwk_xml_get_doc_root(doc.get()));
                  EXPECT_EQ(nullptr, frwk_xml_get_child_node(nullptr, nullptr));
                  EXPECT_EQ(nullptr, frwk_xml_get_child_node(root, nullptr));
                  EXPECT_EQ(FRWK_ERROR_INVALID_PARAM, frwk_xml_set_node_value(nullptr, "x"));
                  EXPECT_EQ(FRWK_ERROR_INVALID_PARAM, frwk_xml_set_node_append(nullptr, "a", "x"));
                  EXPECT_EQ(FRWK_ERROR_INVALID_PARAM, frwk_xml_set_node_append(root, nullptr, "x"));
              }));
}

// Every allocation of each call fails in turn: the call says so, and the tree stays as it was.
TEST(XmlModel, ShortMemoryChangesNothing)
{
    if (SANITIZED) {
        GTEST_SKIP() << "the sanitizers have an allocator of their own";
    }
    Doc doc(frwk_xml_alloc_doc());
    ASSERT_EQ(0, frwk_xml_node_append(doc->root, "a", "old"));
    frwk_xml_node_t *a = frwk_xml_get_doc_root(doc.get());
    const Texts value = {"frwk_xml_set_node_value: alloc for xml node value failed!"};
    const Texts copy = {"frwk_xml_node_append: append node failed!"};
    const Texts node = {"frwk_xml_alloc_node: alloc for xml node failed!", copy[0]};
    const struct {
        std::function<int()> call;
        std::vector<Texts> said;
    } cases[] = {
        {[&] { return frwk_xml_set_node_value(a, "new"); }, {value}},
        {[&] { return frwk_xml_set_node_append(doc->root, "a", nullptr); }, {value}},
        {[&] { return frwk_xml_set_node_append(doc->root, "b", "x"); }, {node, copy, copy}},
        {[&] { return frwk_xml_node_append(doc->root, "b", nullptr); }, {node, copy, copy}},
        {[&] { return Doc(frwk_xml_alloc_doc()) == nullptr ? 5 : 0; },
         {{"frwk_xml_alloc_doc: alloc for xml doc failed!"},
          {"frwk_xml_alloc_node: alloc for xml node failed!", "frwk_xml_alloc_doc: alloc for xml root node failed!"}}},
        {[] { return frwk_xml_alloc_attr() == nullptr ? 5 : 0; },
         {{"frwk_xml_alloc_attr: alloc for xml node atrribute failed!"}}},
    };
    for (const auto &c : cases) {
        for (size_t i = 0; i < c.said.size(); i++) {
            EXPECT_EQ(c.said[i], said([&] {
                          allocations_left = static_cast<int>(i) + 1;
                          EXPECT_EQ(FRWK_ERROR_NO_MEMORY, c.call());
                      }));
            EXPECT_EQ("a'old'", below(doc->root));
        }
    }
}

// Nodes that a module linked itself, with `parent` unset or wrong, are freed whole (the leak checker looks).
TEST(XmlModel, FreesTreesLinkedByHand)
{
    frwk_xml_node_t *top = frwk_xml_alloc_node();
    frwk_xml_node_t *node = top;
    for (int i = 0; i < 10; i++) {
        frwk_xml_node_t *child = frwk_xml_alloc_node();
        frwk_xml_attr_t *attr = frwk_xml_alloc_attr();
        attr->name = frwk_strdup("a");
        frwk_list_add(&child->attrs, &attr->list);
        child->parent = i % 2 != 0 ? top : nullptr;
        frwk_xml_node_append(child, "x", "y");
        frwk_list_add(&node->children, &child->list);
        node = i % 3 != 0 ? child : node;
    }
    frwk_xml_free_node(top);
    frwk_xml_free_node(nullptr);
    frwk_xml_free_attr(nullptr);
    frwk_xml_free_doc(nullptr);
}

} // namespace
