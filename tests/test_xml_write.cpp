/* SPDX-FileCopyrightText: 2026 the libfrwk authors */
/* SPDX-License-Identifier: MIT */

#include "frwk_test.h"
#include "xml_checks.h"

namespace {

constexpr uint32_t TAB = FRWK_XML_INDENT_TAB, SPACES = FRWK_XML_INDENT_SPACES, RAW = FRWK_XML_RAW;

// The text, and the size that the buffer reaches for it.
std::pair<std::string, int> buffered(frwk_xml_node_t *node, uint32_t flags)
{
    frwk_buffer_t b;
    EXPECT_EQ(1, frwk_buffer_init(&b));
    EXPECT_EQ(0, frwk_xml_cache_save(&b, node, flags));
    EXPECT_LT(b.len, b.size);
    std::string text(reinterpret_cast<char *>(b.bp), static_cast<size_t>(b.len));
    const int size = b.size;
    frwk_buffer_free(&b);
    return {text, size};
}

TEST(XmlWrite, Layout)
{
    const std::tuple<const char *, uint32_t, const char *> rows[] = {
        {"<a><m><s>0</s><c/></m></a>", SPACES, "<a>\n   <m>\n      <s>0</s>\n      <c/>\n   </m>\n</a>\n"},
        {"<r><a>x<b/></a></r>", SPACES, "<r>\n   <a>\n      <b/>\n      x   </a>\n</r>\n"},
        {"<a b='\"&apos;&lt;' c=''>&amp;\"&gt;'</a>", 0,
         "<a b=\"&quot;&apos;&lt;\" c=\"\">&amp;&quot;&gt;&apos;</a>\n"},
        {"<a b='\"&apos;&lt;'>&amp;\"&gt;'<b/></a>", RAW, "<a b=\"\"'<\">\n <b/>\n &\">'</a>\n"},
        {"<?xml v='&'?><?x?><!D <e><!E>top<a/>", 0, "<?xml v='&'?>\n<?x?>\n<!D <e>\n<!E>\n<a/>\n"},
        {"<!-- hi --><a><!--&--></a>", TAB | SPACES, "<!--  hi  -->\n<a>\n\t<!-- & -->\n</a>\n"},
    };
    for (auto [source, flags, result] : rows) {
        std::string text = source;
        Doc doc(frwk_xml_cache_parse(text.data()));
        EXPECT_EQ(result, buffered(doc->root, flags).first);
        EXPECT_EQ(result, streamed(doc->root, flags));
    }

    std::string text = "<a><b><c>x</c></b><!----></a>";
    Doc doc(frwk_xml_cache_parse(text.data()));
    frwk_xml_node_t *a = frwk_xml_get_doc_root(doc.get()), *b = frwk_xml_get_child_node(a, "b");
    frwk_xml_node_t *comment = frwk_list_entry(a->children.prev, frwk_xml_node_t, list);
    EXPECT_EQ(" <!---->\n", streamed(comment, 0));
    EXPECT_EQ(" <!--  -->\n", buffered(comment, 0).first);
    comment->type = 7;   // unknown types leave their indentation only
    b->parent = nullptr; // as a module may have left it
    b->depth = 3;
    EXPECT_EQ("<a>\n  <b>\n  <c>x</c>\n  </b>\n </a>\n", buffered(doc->root, 0).first);
    std::string full = "<a>" + std::string(4088, 'x') + "</a>"; // just fills the first block of the buffer
    EXPECT_EQ(full + "\n", buffered(Doc(frwk_xml_cache_parse(full.data()))->root, RAW).first);
}

TEST(XmlWrite, PartsAlone)
{
    std::string text = "<a b='&lt;'/>";
    Doc doc(frwk_xml_cache_parse(text.data()));
    frwk_xml_node_t *a = frwk_xml_get_doc_root(doc.get());
    Capture file;
    frwk_xml_writer_t w = {0, 0, stdout};
    frwk_xml_write_fmt(&w, 3, TAB);
    frwk_xml_write_esc(&w, "\"&");
    frwk_xml_write_esc(&w, nullptr);
    frwk_xml_write_attrs(&w, a, 0);
    EXPECT_EQ("\t\t&quot;&amp; b=\"&lt;\"", file.text());
    frwk_buffer_t b;
    EXPECT_EQ(1, frwk_buffer_init(&b));
    frwk_xml_cache_write_fmt(&b, 3, SPACES);
    frwk_xml_cache_write_esc(&b, "\"&");
    frwk_xml_cache_write_esc(&b, nullptr);
    frwk_xml_cache_write_attrs(&b, a, RAW);
    EXPECT_EQ("      &quot;&amp; b=\"<\"", std::string(reinterpret_cast<char *>(b.bp), static_cast<size_t>(b.len)));
    frwk_buffer_free(&b);
}

// The size that a buffer reaches is its user's memory: it grows by whole blocks before a piece of the text that would
// not fit. The rows stand on both sides of such limits.
TEST(XmlWrite, BufferGrowsPieceByPiece)
{
    using Row = std::tuple<size_t, size_t, int, int>; // lengths of the name and the values, depth, size reached
    const Row rows[] = {{2040, 0, 1, 4096},  {2041, 0, 1, 8192},  {4088, 0, 1, 8192},  {4089, 0, 1, 12288},
                        {6136, 0, 1, 12288}, {6137, 0, 1, 16384}, {6138, 0, 1, 20480}, {8191, 0, 1, 20480},
                        {8192, 0, 1, 28672}, {1, 1358, 1, 4096},  {1, 1359, 1, 8192},  {1, 2724, 1, 8192},
                        {1, 2725, 1, 12288}, {15, 1350, 1, 4096}, {16, 1350, 1, 8192}, {1, 0, 1023, 4096},
                        {1, 0, 1024, 12288}, {1, 0, 2047, 12288}, {1, 0, 2048, 16384}};
    for (const auto &[name, values, depth, size] : rows) {
        const std::string value(values, 'v');
        Doc doc(frwk_xml_alloc_doc());
        frwk_xml_node_append(doc->root, std::string(name, 'n').c_str(), (value + "<" + value).c_str());
        frwk_xml_node_t *node = frwk_xml_get_doc_root(doc.get());
        frwk_xml_attr_t *attr = frwk_xml_alloc_attr();
        attr->name = frwk_strdup("a");
        attr->value = frwk_strdup(value.c_str());
        frwk_list_add(&node->attrs, &attr->list);
        node->depth = depth;
        EXPECT_EQ(size, buffered(node, SPACES).second) << name << " " << values << " " << depth;
    }
}

} // namespace
