#include "xml_test.h"

using namespace xml_test;

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
    EXPECT_EQ(5u, doc->node_count); // those of the parser

    frwk_xml_node_t *b = frwk_xml_get_child_node(root, "b");
    EXPECT_STREQ("1", frwk_xml_get_attr_value(b, "x"));
    EXPECT_STREQ("", frwk_xml_get_attr_value(b, "X"));
    EXPECT_TRUE(*frwk_xml_get_attr_value(nullptr, "x") == '\0' && *frwk_xml_get_attr_value(b, nullptr) == '\0');
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
    Doc doc(frwk_xml_alloc_doc()), broken(frwk_xml_alloc_doc());
    frwk_xml_free_node(broken->root);
    broken->root = nullptr;
    EXPECT_EQ((Texts{"frwk_xml_get_doc_root: xml doc is null!", "frwk_xml_get_doc_root: xml doc root node is null!",
                     "frwk_xml_get_doc_root: can't found root node from xml doc!",
                     "frwk_xml_get_child_node: parent node is null!",
                     "frwk_xml_get_child_node: child node name is null!", "frwk_xml_set_node_value: xml node is null!",
                     "frwk_xml_set_node_append: Parameter is null!", "frwk_xml_set_node_append: Parameter is null!"}),
              said([&] {
                  for (frwk_xml_doc_t *rootless : {static_cast<frwk_xml_doc_t *>(nullptr), broken.get(), doc.get()}) {
                      EXPECT_EQ(nullptr, frwk_xml_get_doc_root(rootless));
                  }
                  EXPECT_EQ(nullptr, frwk_xml_get_child_node(nullptr, nullptr));
                  EXPECT_EQ(nullptr, frwk_xml_get_child_node(doc->root, nullptr));
                  EXPECT_EQ(3, frwk_xml_set_node_value(nullptr, "x"));
                  EXPECT_EQ(3, frwk_xml_set_node_append(nullptr, "a", "x"));
                  EXPECT_EQ(3, frwk_xml_set_node_append(doc->root, nullptr, "x"));
              }));
    frwk_xml_free_node(nullptr), frwk_xml_free_attr(nullptr), frwk_xml_free_doc(nullptr);
}

#if !SANITIZED
// Every allocation of each call fails in turn: the call says so, and the tree stays as it was.
TEST(XmlModel, ShortMemoryChangesNothing)
{
    Doc doc(frwk_xml_alloc_doc());
    ASSERT_EQ(0, frwk_xml_node_append(doc->root, "a", "old"));
    const auto set = [&](int refused, const char *name) {
        allocations_left = refused;
        EXPECT_EQ(FRWK_ERROR_NO_MEMORY, frwk_xml_set_node_append(doc->root, name, "x"));
        EXPECT_EQ("a'old'", below(doc->root));
    };
    const std::string no_node = "frwk_xml_alloc_node: alloc for xml node failed!";
    const std::string no_append = "frwk_xml_node_append: append node failed!";
    EXPECT_EQ((Texts{"frwk_xml_set_node_value: alloc for xml node value failed!", no_node, no_append, no_append,
                     no_append, "frwk_xml_alloc_doc: alloc for xml doc failed!", no_node,
                     "frwk_xml_alloc_doc: alloc for xml root node failed!",
                     "frwk_xml_alloc_attr: alloc for xml node atrribute failed!"}),
              said([&] {
                  set(1, "a"), set(1, "b"), set(2, "b"), set(3, "b");
                  for (int refused : {1, 2}) {
                      allocations_left = refused;
                      EXPECT_EQ(nullptr, frwk_xml_alloc_doc());
                  }
                  allocations_left = 1;
                  EXPECT_EQ(nullptr, frwk_xml_alloc_attr());
              }));
}
#endif

} // namespace
