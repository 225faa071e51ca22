#include <sys/stat.h>

#include <filesystem>
#include <random>

#include "xml_test.h"

using namespace xml_test;
using frwk_test::exists;
using frwk_test::read_file;
using text_test::on_thread;
using text_test::said;

namespace {

std::string by_buffer(frwk_xml_node_t *node, uint32_t flags)
{
    frwk_buffer_t b;
    EXPECT_EQ(1, frwk_buffer_init(&b));
    memset(b.bp, '~', 4096);
    EXPECT_EQ(0, frwk_xml_cache_save(&b, node, flags));
    EXPECT_TRUE(b.len < b.size && b.size % 4096 == 0);
    std::string text(reinterpret_cast<char *>(b.bp), static_cast<size_t>(b.len));
    frwk_buffer_free(&b);
    return text;
}

// What a function of the stream writer writes.
std::string streamed(const std::function<void(frwk_xml_writer_t *)> &write)
{
    char *text = nullptr;
    size_t size = 0;
    FILE *fp = open_memstream(&text, &size);
    frwk_xml_writer_t w = {42, 43, fp};
    write(&w);
    fclose(fp);
    std::string written(text, size);
    free(text);
    return written;
}

std::string by_stream(frwk_xml_node_t *node, uint32_t flags)
{
    return streamed([&](frwk_xml_writer_t *w) { EXPECT_EQ(42, frwk_xml_write_node(w, node, flags)); });
}

std::string appended(const std::function<void(frwk_buffer_t *)> &append)
{
    frwk_buffer_t b;
    frwk_buffer_init(&b);
    append(&b);
    std::string text = std::to_string(b.size) + ":" + std::string(reinterpret_cast<char *>(b.bp), size_t(b.len));
    frwk_buffer_free(&b);
    return text;
}

constexpr uint32_t TAB = FRWK_XML_INDENT_TAB, SPACES = FRWK_XML_INDENT_SPACES, RAW = FRWK_XML_RAW;

TEST(XmlWrite, Layout)
{
    static const struct {
        const char *text;
        uint32_t flags;
        const char *written;
        const char *streamed; // null: the same
    } cases[] = {
        {"<a></a>", SPACES, "<a/>\n", nullptr},
        {"<a><m><s>0</s><c/></m></a>", SPACES, "<a>\n   <m>\n      <s>0</s>\n      <c/>\n   </m>\n</a>\n", nullptr},
        {"<a><b><c/></b></a>", TAB | SPACES, "<a>\n\t<b>\n\t\t<c/>\n\t</b>\n</a>\n", nullptr},
        {"<a><b/></a>", 0, "<a>\n <b/>\n</a>\n", nullptr},
        {"<r><a>x<b/></a></r>", SPACES, "<r>\n   <a>\n      <b/>\n      x   </a>\n</r>\n", nullptr},
        {"<a b='\"&apos;&lt;'>&amp;\"&gt;'</a>", 0, "<a b=\"&quot;&apos;&lt;\">&amp;&quot;&gt;&apos;</a>\n", nullptr},
        {"<a b='\"&apos;&lt;'>&amp;\"&gt;'<b/></a>", RAW, "<a b=\"\"'<\">\n <b/>\n &\">'</a>\n", nullptr},
        {"<?xml v='&'?><?x?><!D <e><!E><a/>", 0, "<?xml v='&'?>\n<?x?>\n<!D <e>\n<!E>\n<a/>\n", nullptr},
        {"<!-- hi --><a><!--&--></a>", TAB, "<!--  hi  -->\n<a>\n\t<!-- & -->\n</a>\n", nullptr},
        {"<a/><!---->", 0, "<a/>\n<!--  -->\n", "<a/>\n<!---->\n"},
        {"top<a/>", 0, "<a/>\n", nullptr}, // the document's own text is not written
    };
    for (const auto &c : cases) {
        std::string text = c.text;
        Doc doc = reading(text);
        ASSERT_EQ(0, frwk_xml_read_node(doc.get(), doc->root, 0));
        EXPECT_EQ(c.written, by_buffer(doc->root, c.flags));
        EXPECT_EQ(c.streamed != nullptr ? c.streamed : c.written, by_stream(doc->root, c.flags));
    }
}

TEST(XmlWrite, PartsAlone)
{
    static const struct {
        int depth;
        uint32_t flags;
        const char *written;
        const char *size; // of the buffer, which is asked for 4 bytes a level
    } indents[] = {{0, SPACES, "", "4096:"}, {1, TAB, "", "4096:"},          {-5, TAB, "", "4096:"},
                   {3, 0, "  ", "4096:"},    {3, SPACES, "      ", "4096:"}, {3, TAB | SPACES, "\t\t", "4096:"}};
    for (const auto &c : indents) {
        EXPECT_EQ(c.written, streamed([&](frwk_xml_writer_t *w) { frwk_xml_write_fmt(w, c.depth, c.flags); }));
        EXPECT_EQ(c.size + std::string(c.written),
                  appended([&](frwk_buffer_t *b) { frwk_xml_cache_write_fmt(b, c.depth, c.flags); }));
    }
    EXPECT_EQ("12288:" + std::string(1023, '\t'),
              appended([](frwk_buffer_t *b) { frwk_xml_cache_write_fmt(b, 1024, TAB); }));

    const std::string y4080(4080, 'y'), y9000(9000, 'y');
    const struct {
        const char *text;
        std::string written, sized;
    } texts[] = {{nullptr, "", "4096:"},
                 {"", "", "4096:"},
                 {"\"&'<>;", "&quot;&amp;&apos;&lt;&gt;;", "4096:&quot;&amp;&apos;&lt;&gt;;"},
                 {y4080.c_str(), y4080, "4096:" + y4080},
                 {y9000.c_str(), y9000, "12288:" + y9000}};
    for (const auto &c : texts) {
        EXPECT_EQ(c.written, streamed([&](frwk_xml_writer_t *w) { frwk_xml_write_esc(w, c.text); }));
        EXPECT_EQ(c.sized, appended([&](frwk_buffer_t *b) { frwk_xml_cache_write_esc(b, c.text); }));
    }

    std::string text = "<a b='&lt;' c=''/>";
    Doc doc(frwk_xml_cache_parse(text.data()));
    frwk_xml_node_t *a = frwk_xml_get_doc_root(doc.get());
    EXPECT_EQ(" b=\"&lt;\" c=\"\"", streamed([&](frwk_xml_writer_t *w) { frwk_xml_write_attrs(w, a, 0); }));
    EXPECT_EQ("4096: b=\"<\" c=\"\"", appended([&](frwk_buffer_t *b) { frwk_xml_cache_write_attrs(b, a, RAW); }));
    a->type = 7; // unknown types leave their indentation only
    a->depth = 3;
    EXPECT_EQ("  ", by_buffer(a, 0));
    EXPECT_EQ("  ", by_stream(a, 0));
}

TEST(XmlWrite, UsesDepthAndChildrenAsTheyAre)
{
    Doc doc(frwk_xml_alloc_doc());
    frwk_xml_node_append(doc->root, "a", nullptr);
    frwk_xml_node_t *a = frwk_xml_get_doc_root(doc.get());
    frwk_xml_node_append(a, "b", nullptr);
    frwk_xml_node_t *b = first_child(a);
    frwk_xml_node_append(b, "c", "x");
    frwk_xml_node_append(a, "d", nullptr);
    for (frwk_xml_node_t *parent : {a, static_cast<frwk_xml_node_t *>(nullptr), doc->root, b}) {
        b->parent = parent; // as a module may have left it
        b->depth = 3;
        EXPECT_EQ("<a>\n  <b>\n  <c>x</c>\n  </b>\n <d/>\n</a>\n", by_buffer(doc->root, 0));
        EXPECT_EQ("<a>\n  <b>\n  <c>x</c>\n  </b>\n <d/>\n</a>\n", by_stream(doc->root, 0));
    }

    EXPECT_TRUE(on_thread(256 * 1024, false, [] { // 100,000 levels, without the blanks that these would take
        Doc deep(frwk_xml_alloc_doc());
        frwk_xml_node_t *node = deep->root;
        std::string down, up;
        for (int i = 0; i < 100000; i++) {
            frwk_xml_node_append(node, "a", nullptr);
            node = first_child(node);
            node->depth = 0;
            down += i < 99999 ? "<a>\n" : "<a/>\n";
            up += i < 99999 ? "</a>\n" : "";
        }
        EXPECT_TRUE(by_buffer(deep->root, 0) == down + up);
        EXPECT_TRUE(by_stream(deep->root, 0) == down + up);
    }));
}

// A random tree below `parent`, with text that needs escaping.
void grow(frwk_xml_node_t *parent, std::mt19937 &random, int levels)
{
    static const char *const texts[] = {"", "x", "a & b; <c>", "\"'", "&amp;", "line\nline ", "&lt", "\xc3\xa4\x01;"};
    auto below = [&](uint32_t n) { return static_cast<uint32_t>(random() % n); };
    for (uint32_t i = below(4) + (levels > 4 ? 1 : 0); i > 0; i--) {
        std::string name = "n" + std::to_string(below(100));
        ASSERT_EQ(0, frwk_xml_node_append(parent, name.c_str(), texts[below(8)]));
        frwk_xml_node_t *node = frwk_list_entry(parent->children.prev, frwk_xml_node_t, list);
        for (uint32_t j = below(3); j > 0; j--) {
            frwk_xml_attr_t *attr = frwk_xml_alloc_attr();
            attr->name = frwk_strdup(name.c_str());
            attr->value = frwk_strdup(texts[below(8)]);
            frwk_list_add(&node->attrs, &attr->list);
        }
        if (levels > 0) {
            grow(node, random, levels - 1);
        }
    }
}

// Where an element has children and text, the writer puts blanks behind the text, which a parse keeps: the second
// reading adds them once more, so these elements lose their text here.
void drop_mixed_text(frwk_xml_node_t *node)
{
    if (!frwk_list_empty(&node->children)) {
        frwk_xml_set_node_value(node, nullptr);
    }
    frwk_list_for_each (link, &node->children) {
        drop_mixed_text(frwk_list_entry(link, frwk_xml_node_t, list));
    }
}

TEST(XmlWrite, WhatIsWrittenIsReadBack)
{
    for (unsigned seed = 0; seed < 200; seed++) {
        std::mt19937 random(seed);
        Doc doc(frwk_xml_alloc_doc());
        frwk_xml_node_append(doc->root, "root", nullptr);
        grow(frwk_xml_get_doc_root(doc.get()), random, 5);
        for (uint32_t flags : {0u, TAB, SPACES, RAW}) {
            EXPECT_EQ(by_stream(doc->root, flags), by_buffer(doc->root, flags));
        }
        drop_mixed_text(frwk_xml_get_doc_root(doc.get()));

        ASSERT_EQ(0, frwk_xml_file_save(doc.get(), "/tmp/a.xml"));
        EXPECT_EQ(by_buffer(doc->root, SPACES), read_file("/tmp/a.xml"));
        Doc again(frwk_xml_file_parse("/tmp/a.xml"));
        ASSERT_NE(nullptr, again) << seed;
        EXPECT_EQ(below(doc->root), below(again->root)) << seed;
    }
}

// ---- save

Doc saved_doc(const char *value)
{
    Doc doc(frwk_xml_alloc_doc());
    frwk_xml_set_node_append(doc->root, "r", value);
    return doc;
}

TEST(XmlSave, ReplacesTheFile)
{
    const std::string path = "/tmp/dir/a.xml", backup = path + ".bak";
    frwk_test::write_file(backup, "left over");
    int fds = frwk_test::count_fds(getpid());
    umask(022);
    Doc doc = saved_doc("1");
    EXPECT_EQ(Texts{}, said([&] {
                  EXPECT_EQ(0, frwk_xml_file_save(doc.get(), path.c_str()));
                  EXPECT_EQ("<r>1</r>\n", read_file(path));
                  EXPECT_FALSE(exists(backup));
                  EXPECT_EQ(path, doc->file_name);
                  frwk_xml_set_node_append(doc->root, "r", "2");
                  EXPECT_EQ(0, frwk_xml_file_save(doc.get(), nullptr));
                  EXPECT_EQ("<r>2</r>\n", read_file(path));
                  frwk_xml_set_node_append(doc->root, "r", "3");
                  EXPECT_EQ(0, frwk_xml_file_save(doc.get(), doc->file_name));
              }));
    EXPECT_EQ(path, doc->file_name);
    EXPECT_TRUE(on_thread(1 << 20, true, [&] { EXPECT_EQ(0, frwk_xml_file_save(doc.get(), nullptr)); }));
    EXPECT_EQ("<r>3</r>\n", read_file(path));
    EXPECT_FALSE(exists(backup));
    EXPECT_EQ(fds, frwk_test::count_fds(getpid()));
    struct stat info;
    ASSERT_EQ(0, stat(path.c_str(), &info));
    EXPECT_EQ(0644u, info.st_mode & 07777);
}

TEST(XmlSave, FullDiskLeavesTheOldFile)
{
    const std::string path = "/tmp/a.xml", failed = "frwk_xml_file_save: write xml '/tmp/a.xml' failed!";
    int fds = frwk_test::count_fds(getpid());
    Doc doc = saved_doc(std::string(20000, 'x').c_str());
    auto save = [&] {
        text_test::FileLimit full(10000);
        EXPECT_EQ(FRWK_ERROR_FILE_CREATE, frwk_xml_file_save(doc.get(), path.c_str()));
    };
    EXPECT_EQ(Texts{failed}, said(save));
    EXPECT_FALSE(exists(path)); // there was none, so no piece of one either

    frwk_test::write_file(path, "<old/>");
    EXPECT_EQ(Texts{failed}, said(save));
    EXPECT_EQ("<old/>", read_file(path));
    EXPECT_FALSE(exists(path + ".bak"));
    EXPECT_EQ(fds, frwk_test::count_fds(getpid()));
}

TEST(XmlSave, FailuresTouchNothing)
{
    const std::string path = "/tmp/a.xml", long_name = "/tmp/" + std::string(497, '/') + "a.xml";
    Doc doc = saved_doc("1");
    EXPECT_EQ((Texts{"frwk_xml_file_save: xml file name is null!", "frwk_xml_file_save: xml doc is null!",
                     "frwk_xml_file_save: xml file name '" + long_name + "/' is too long!",
                     "frwk_xml_file_save: create xml '/tmp/none/a.xml' failed!"}),
              said([&] {
                  EXPECT_EQ(FRWK_ERROR_INVALID_PARAM, frwk_xml_file_save(doc.get(), nullptr));
                  EXPECT_EQ(FRWK_ERROR_INVALID_PARAM, frwk_xml_file_save(nullptr, path.c_str()));
                  EXPECT_EQ(FRWK_ERROR_INVALID_PARAM, frwk_xml_file_save(doc.get(), (long_name + "/").c_str()));
                  EXPECT_EQ(nullptr, doc->file_name);
                  EXPECT_EQ(FRWK_ERROR_FILE_CREATE, frwk_xml_file_save(doc.get(), "/tmp/none/a.xml"));
                  EXPECT_STREQ("/tmp/none/a.xml", doc->file_name);
              }));
    EXPECT_FALSE(exists(path));
    EXPECT_EQ(0, frwk_xml_file_save(doc.get(), long_name.c_str())); // 507 characters
    EXPECT_EQ("<r>1</r>\n", read_file(path));

    // no descriptor is left
    rlimit before, none = {0, 0};
    getrlimit(RLIMIT_NOFILE, &before);
    none.rlim_max = before.rlim_max;
    EXPECT_EQ(Texts{"frwk_xml_file_save: create xml '/tmp/a.xml' failed!"}, said([&] {
                  setrlimit(RLIMIT_NOFILE, &none);
                  EXPECT_EQ(FRWK_ERROR_FILE_CREATE, frwk_xml_file_save(doc.get(), path.c_str()));
                  setrlimit(RLIMIT_NOFILE, &before);
              }));
    EXPECT_EQ("<r>1</r>\n", read_file(path));

    if (!SANITIZED) {
        EXPECT_EQ((Texts{"frwk_xml_file_save: alloc for xml '/tmp/b.xml' failed!",
                         "frwk_buffer_init: init buffer[4096] failed!",
                         "frwk_xml_file_save: init xml '/tmp/b.xml' cache failed!"}),
                  said([&] {
                      allocations_left = 1;
                      EXPECT_EQ(FRWK_ERROR_NO_MEMORY, frwk_xml_file_save(doc.get(), "/tmp/b.xml"));
                      EXPECT_EQ(path, doc->file_name);
                      allocations_left = 2;
                      EXPECT_EQ(FRWK_ERROR_NO_MEMORY, frwk_xml_file_save(doc.get(), "/tmp/b.xml"));
                  }));
        EXPECT_STREQ("/tmp/b.xml", doc->file_name);
        EXPECT_FALSE(exists("/tmp/b.xml"));
    }
}

} // namespace
