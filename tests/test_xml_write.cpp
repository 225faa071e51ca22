#include <sys/resource.h>

#include "xml_test.h"

using namespace xml_test;
using namespace frwk_test;

namespace {

constexpr uint32_t TAB = FRWK_XML_INDENT_TAB, SPACES = FRWK_XML_INDENT_SPACES, RAW = FRWK_XML_RAW;

// What a function of the stream writer writes.
std::string streamed(const std::function<void(frwk_xml_writer_t *)> &write)
{
    Capture file;
    frwk_xml_writer_t w = {42, 43, stdout};
    write(&w);
    return file.text();
}

// What a function of the buffer writer appends.
std::string appended(const std::function<void(frwk_buffer_t *)> &append, int size = 0)
{
    frwk_buffer_t b;
    EXPECT_EQ(1, frwk_buffer_init(&b));
    append(&b);
    EXPECT_TRUE(b.len < b.size && (size == 0 || b.size == size)) << b.size;
    std::string text(reinterpret_cast<char *>(b.bp), static_cast<size_t>(b.len));
    frwk_buffer_free(&b);
    return text;
}

// What both write for a node.
std::string written(frwk_xml_node_t *node, uint32_t flags)
{
    std::string text = appended([&](frwk_buffer_t *b) { EXPECT_EQ(0, frwk_xml_cache_save(b, node, flags)); });
    EXPECT_EQ(text, streamed([&](frwk_xml_writer_t *w) { EXPECT_EQ(42, frwk_xml_write_node(w, node, flags)); }));
    return text;
}

TEST(XmlWrite, Layout)
{
    static const struct {
        const char *text;
        uint32_t flags;
        const char *written;
    } cases[] = {
        {"<a></a>", SPACES, "<a/>\n"},
        {"<a><m><s>0</s><c/></m></a>", SPACES, "<a>\n   <m>\n      <s>0</s>\n      <c/>\n   </m>\n</a>\n"},
        {"<a><b><c/></b></a>", TAB | SPACES, "<a>\n\t<b>\n\t\t<c/>\n\t</b>\n</a>\n"},
        {"<r><a>x<b/></a></r>", SPACES, "<r>\n   <a>\n      <b/>\n      x   </a>\n</r>\n"},
        {"<a b='\"&apos;&lt;'>&amp;\"&gt;'</a>", 0, "<a b=\"&quot;&apos;&lt;\">&amp;&quot;&gt;&apos;</a>\n"},
        {"<a b='\"&apos;&lt;'>&amp;\"&gt;'<b/></a>", RAW, "<a b=\"\"'<\">\n <b/>\n &\">'</a>\n"},
        {"<?xml v='&'?><?x?><!D <e><!E>top<a/>", 0, "<?xml v='&'?>\n<?x?>\n<!D <e>\n<!E>\n<a/>\n"},
        {"<!-- hi --><a><!--&--></a>", TAB, "<!--  hi  -->\n<a>\n\t<!-- & -->\n</a>\n"},
    };
    for (const auto &c : cases) {
        std::string text = c.text;
        Doc doc(frwk_xml_cache_parse(text.data()));
        EXPECT_EQ(c.written, written(doc->root, c.flags));
    }

    std::string text = "<a b='&lt;' c=''><!----></a>";
    Doc doc(frwk_xml_cache_parse(text.data()));
    frwk_xml_node_t *a = frwk_xml_get_doc_root(doc.get());
    frwk_xml_node_t *comment = frwk_list_entry(a->children.next, frwk_xml_node_t, list);
    comment->depth = 0;
    EXPECT_EQ("<!---->\n", streamed([&](frwk_xml_writer_t *w) { frwk_xml_write_node(w, comment, 0); }));
    EXPECT_EQ("<!--  -->\n", appended([&](frwk_buffer_t *b) { frwk_xml_cache_save(b, comment, 0); }));
    EXPECT_EQ(" b=\"&lt;\" c=\"\"", streamed([&](frwk_xml_writer_t *w) { frwk_xml_write_attrs(w, a, 0); }));
    EXPECT_EQ(" b=\"<\" c=\"\"", appended([&](frwk_buffer_t *b) { frwk_xml_cache_write_attrs(b, a, RAW); }));
    a->type = 7; // unknown types leave their indentation only
    a->depth = 3;
    EXPECT_EQ("  ", written(a, 0));
}

TEST(XmlWrite, PartsAlone)
{
    // clang-format off
    static const struct { int depth; uint32_t flags; size_t n; char unit; int size; } indents[] = {
        {0, SPACES, 0, ' ', 4096}, {1, TAB, 0, ' ', 4096}, {-5, TAB, 0, ' ', 4096}, {3, 0, 2, ' ', 4096},
        {3, SPACES, 6, ' ', 4096}, {1024, TAB | SPACES, 1023, '\t', 12288}, // the buffer is asked for 4 bytes a level
    };
    // clang-format on
    for (const auto &c : indents) {
        const std::string blanks(c.n, c.unit);
        EXPECT_EQ(blanks, streamed([&](frwk_xml_writer_t *w) { frwk_xml_write_fmt(w, c.depth, c.flags); }));
        EXPECT_EQ(blanks, appended([&](frwk_buffer_t *b) { frwk_xml_cache_write_fmt(b, c.depth, c.flags); }, c.size));
    }
    const std::string y4080(4080, 'y'), y9000(9000, 'y');
    const std::tuple<std::string, std::string, int> texts[] = {
        {"", "", 4096}, {y4080, y4080, 4096}, {y9000, y9000, 12288}, {"\"&'<>;", "&quot;&amp;&apos;&lt;&gt;;", 4096}};
    for (const auto &[source, escaped, size] : texts) {
        const char *text = source.empty() ? nullptr : source.c_str();
        EXPECT_EQ(escaped, streamed([&](frwk_xml_writer_t *w) { frwk_xml_write_esc(w, text); }));
        EXPECT_EQ(escaped, appended([&](frwk_buffer_t *b) { frwk_xml_cache_write_esc(b, text); }, size));
    }
}

TEST(XmlWrite, UsesDepthAndChildrenAsTheyAre)
{
    std::string text = "<a><b><c>x</c></b><d/></a>";
    Doc doc(frwk_xml_cache_parse(text.data()));
    frwk_xml_node_t *a = frwk_xml_get_doc_root(doc.get()), *b = frwk_xml_get_child_node(a, "b");
    for (frwk_xml_node_t *parent : {static_cast<frwk_xml_node_t *>(nullptr), doc->root, b}) {
        b->parent = parent; // as a module may have left it
        b->depth = 3;
        EXPECT_EQ("<a>\n  <b>\n  <c>x</c>\n  </b>\n <d/>\n</a>\n", written(doc->root, 0));
    }
    on_small_stack([] { // 100,000 levels, without the blanks that these would take
        Doc deep(frwk_xml_alloc_doc());
        std::string down, up;
        for (frwk_xml_node_t *node = deep->root; down.size() < 400000; node = frwk_xml_get_child_node(node, "a")) {
            node->depth = -1;
            frwk_xml_node_append(node, "a", nullptr);
            down += "<a>\n";
            up += "</a>\n";
        }
        EXPECT_TRUE(written(deep->root, 0) == down.replace(down.size() - 2, 2, "/>\n") + up.substr(5));
    });
}

// Texts of every length up to 500 in texts and attributes, which fills the buffer at every offset and grows it often.
TEST(XmlWrite, WhatIsSavedIsReadBack)
{
    static const char *const ends[] = {"&quot;&apos;", "&lt;a&gt; \n", "&amp;lt;"};
    std::string text = "<?x y?><!D e><r>";
    for (size_t i = 0; i < 500; i++) {
        const std::string value = std::string(i, 'x') + ends[i % 3];
        text += "<a b=\"" + value + "\" c='" + value + "'><d>" + value + "</d></a>";
    }
    Doc doc(frwk_xml_cache_parse((text += "</r>").data()));
    ASSERT_EQ(0, frwk_xml_file_save(doc.get(), "/tmp/back.xml"));
    EXPECT_EQ(written(doc->root, SPACES), read_file("/tmp/back.xml"));
    Doc again(frwk_xml_file_parse("/tmp/back.xml"));
    EXPECT_EQ(below(doc->root), below(again->root));
    std::string full = "<a>" + std::string(4088, 'x') + "</a>"; // just fills the first block of the buffer
    EXPECT_EQ(full + "\n", written(Doc(frwk_xml_cache_parse(full.data()))->root, RAW));
}

// ---- save

Doc saved_doc(const std::string &value)
{
    Doc doc(frwk_xml_alloc_doc());
    frwk_xml_set_node_append(doc->root, "r", value.c_str());
    return doc;
}

TEST(XmlSave, ReplacesTheFile)
{
    const std::string path = "/tmp/dir/a.xml", backup = path + ".bak";
    write_file(backup, "left over");
    Doc doc = saved_doc("1");
    EXPECT_EQ(Texts{}, said([&] {
                  EXPECT_EQ(0, frwk_xml_file_save(doc.get(), path.c_str()));
                  EXPECT_EQ("<r>1</r>\n", read_file(path));
                  EXPECT_FALSE(exists(backup));
                  frwk_xml_set_node_append(doc->root, "r", "2");
                  EXPECT_EQ(0, frwk_xml_file_save(doc.get(), nullptr));
                  EXPECT_EQ("<r>2</r>\n", read_file(path));
                  EXPECT_EQ(0, frwk_xml_file_save(doc.get(), doc->file_name));
              }));
    EXPECT_EQ(path, doc->file_name);
    EXPECT_FALSE(exists(backup));
}

// Saves to the path while there is no more of a resource; what was said.
Texts save_short_of(decltype(RLIMIT_FSIZE) what, rlim_t most, const Doc &doc, const char *path)
{
    rlimit before;
    getrlimit(what, &before);
    const rlimit limit = {most, before.rlim_max};
    return said([&] {
        setrlimit(what, &limit);
        EXPECT_EQ(FRWK_ERROR_FILE_CREATE, frwk_xml_file_save(doc.get(), path));
        setrlimit(what, &before);
    });
}

TEST(XmlSave, FailuresLeaveTheOldFile)
{
    const std::string path = "/tmp/a.xml", long_name = "/tmp/" + std::string(497, '/') + "a.xml";
    signal(SIGXFSZ, SIG_IGN);
    int fds = count_fds(getpid());
    Doc doc = saved_doc("1"), large = saved_doc(std::string(20000, 'x'));
    EXPECT_EQ((Texts{"frwk_xml_file_save: xml file name is null!", "frwk_xml_file_save: xml doc is null!",
                     "frwk_xml_file_save: xml file name '" + long_name + "/' is too long!",
                     "frwk_xml_file_save: create xml '/tmp/none/a.xml' failed!"}),
              said([&] {
                  EXPECT_EQ(FRWK_ERROR_INVALID_PARAM, frwk_xml_file_save(doc.get(), nullptr));
                  EXPECT_EQ(FRWK_ERROR_INVALID_PARAM, frwk_xml_file_save(nullptr, path.c_str()));
                  EXPECT_EQ(FRWK_ERROR_INVALID_PARAM, frwk_xml_file_save(doc.get(), (long_name + "/").c_str()));
                  EXPECT_EQ(nullptr, doc->file_name);
                  EXPECT_EQ(FRWK_ERROR_FILE_CREATE, frwk_xml_file_save(doc.get(), "/tmp/none/a.xml"));
              }));
    const Texts not_written = {"frwk_xml_file_save: write xml '/tmp/a.xml' failed!"};
    EXPECT_EQ(not_written, save_short_of(RLIMIT_FSIZE, 10000, large, path.c_str()));
    EXPECT_FALSE(exists(path));                                     // there was none, so no piece of one either
    EXPECT_EQ(0, frwk_xml_file_save(doc.get(), long_name.c_str())); // 507 characters
    EXPECT_EQ(not_written, save_short_of(RLIMIT_FSIZE, 10000, large, path.c_str()));
    EXPECT_EQ(Texts{"frwk_xml_file_save: create xml '/tmp/a.xml' failed!"},
              save_short_of(RLIMIT_NOFILE, 0, large, path.c_str()));
    EXPECT_EQ("<r>1</r>\n", read_file(path));
    EXPECT_FALSE(exists(path + ".bak"));
    EXPECT_EQ(fds, count_fds(getpid()));
#if !SANITIZED
    EXPECT_EQ(
        (Texts{"frwk_xml_file_save: alloc for xml '/tmp/b.xml' failed!", "frwk_buffer_init: init buffer[4096] failed!",
               "frwk_xml_file_save: init xml '/tmp/b.xml' cache failed!"}),
        said([&] {
            for (int refused : {1, 2}) {
                allocations_left = refused;
                EXPECT_EQ(FRWK_ERROR_NO_MEMORY, frwk_xml_file_save(doc.get(), "/tmp/b.xml"));
            }
        }));
    EXPECT_FALSE(exists("/tmp/b.xml"));
#endif
}

} // namespace
