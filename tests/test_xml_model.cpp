#include <set>

#include "text_test.h"
#include "xml_checks.h"

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
    EXPECT_EQ(0, frwk_xml_set_node_append(root, "b", b->value + 1));
    char *value = frwk_xml_get_node_value(b);
    EXPECT_STREQ("ew", value);
    free(value);
    EXPECT_TRUE(b->value == nullptr && b->len == 0 && frwk_xml_get_node_value(b) == nullptr);
    EXPECT_EQ(nullptr, frwk_xml_get_node_value(nullptr));
}

TEST(XmlModel, RefusalsAreTraced)
{
    Doc doc(frwk_xml_alloc_doc()), rootless(frwk_xml_alloc_doc());
    frwk_xml_free_node(rootless->root);
    rootless->root = nullptr;
    frwk_xml_node_t *none = nullptr;
    EXPECT_EQ((Texts{"frwk_xml_get_doc_root: xml doc is null!", "frwk_xml_get_doc_root: xml doc root node is null!",
                     "frwk_xml_get_doc_root: can't found root node from xml doc!",
                     "frwk_xml_get_child_node: parent node is null!",
                     "frwk_xml_get_child_node: child node name is null!", "frwk_xml_set_node_value: xml node is null!",
                     "frwk_xml_set_node_append: Parameter is null!", "frwk_xml_set_node_append: Parameter is null!"}),
              said([&] {
                  for (frwk_xml_doc_t *bad : {static_cast<frwk_xml_doc_t *>(nullptr), rootless.get(), doc.get()}) {
                      EXPECT_EQ(none, frwk_xml_get_doc_root(bad));
                  }
                  EXPECT_EQ(none, frwk_xml_get_child_node(nullptr, nullptr));
                  EXPECT_EQ(none, frwk_xml_get_child_node(doc->root, nullptr));
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
    frwk_test::write_file("/tmp/a.xml", "<?x y?><!D e><!--c--><a b='1'>x&amp;y<c><d>z</d></c></a>");
    const std::function<bool(Doc &)> calls[] = {
        [](Doc &doc) { return doc.reset(frwk_xml_file_parse("/tmp/a.xml")), doc != nullptr; },
        [](Doc &doc) { return frwk_xml_set_node_append(doc->root, "a", "x") == 0; },
        [](Doc &doc) { return frwk_xml_set_node_append(doc->root, "b", "x") == 0; },
        [](Doc &doc) { return frwk_xml_file_save(doc.get(), "/tmp/b.xml") == 0; },
    };
    std::set<std::string> messages;
    for (const auto &call : calls) {
        for (int refused = 1, left = 0; left <= 0; refused++) {
            Doc doc(frwk_xml_file_parse("/tmp/a.xml"));
            const std::string before = below(doc->root);
            bool done = false;
            const Texts lines = said([&] {
                allocations_left = refused;
                done = call(doc);
                left = allocations_left;
            });
            messages.insert(lines.begin(), lines.end());
            EXPECT_TRUE(done == lines.empty() && (done || doc == nullptr || below(doc->root) == before));
        }
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
#endif

} // namespace
