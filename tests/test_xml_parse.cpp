#include <ctime>

#include "xml_test.h"

using namespace xml_test;
using text_test::on_thread;
using text_test::said;

namespace {

constexpr size_t SMALL_STACK = 256 * 1024;

std::string times(size_t n, const std::string &text)
{
    std::string all;
    while (n-- > 0) {
        all += text;
    }
    return all;
}

const std::string A127(127, 'a');

struct Case {
    std::string text;
    std::string result;
};

void check(const std::vector<Case> &cases, uint32_t flags = 0)
{
    for (const Case &c : cases) {
        EXPECT_EQ(c.result, parsed(c.text, flags)) << c.text;
    }
}

TEST(XmlParse, Elements)
{
    check({
        {"<a/>", "a''"},
        {"<a></a>", "a''"},
        {"<a / \n/\t></a>", "status 4 error 13 line 2"}, // closed before its end tag
        {"<\r\n\ta><b\n>< / b></a>", "status 4 error 13 line 3"},
        {"<\na><b><\t/b>< /a>", "a''(b'')"},
        {"<a_-:9:/>", "a_-:9:''"},
        {"<" + A127 + "/>", "" + A127 + "''"},
        {"<" + A127 + "></" + A127 + ">", A127 + "''"},
        {"<" + A127 + "a/>", "status 4 error 10 line 1"},
        {"<" + A127 + "aaaaa=", "status 4 error 10 line 1"},
        {"<a>\n</" + A127 + "a>", "status 4 error 10 line 2"},
        {"<a></" + times(64, "\nb"), "status 4 error 10 line 65"},
        {"<a></" + times(63, "\nb") + ">", "status 4 error 13 line 64"},
        {"<a\n", "status 4 error 8 line 2"},
        {"<a></b>", "status 4 error 13 line 1"},
        {"<a></ab>", "status 4 error 13 line 1"},
        {"<ab></a>", "status 4 error 13 line 1"},
        {"<a></a >", "status 4 error 13 line 1"},
        {"<a></ a>", "status 4 error 13 line 1"},
        {"</a>", "status 4 error 13 line 1"},
        {"</>", "status 4 error 13 line 1"},
        {"<a=b/>", "status 4 error 6 line 1"},
        {"<a<", "status 4 error 6 line 1"},
        {"<1/>", "status 4 error 6 line 1"},
        {"<_a/>", "status 4 error 6 line 1"},
        {"<\xe4/>", "status 4 error 6 line 1"},
        {"<\v", "status 4 error 6 line 1"},
        {"<a?", "status 4 error 7 line 1"},
        {"<a/b>", "status 4 error 8 line 1"},
        {"<a b='c' / d='e'>", "status 4 error 8 line 1"},
    });
}

TEST(XmlParse, EndOfText)
{
    check({
        {"<a><b>", "a''(b'')"},
        {"<a><b/><", "a''(b'')"},
        {"<a><!", "a''"},
        {"<a><!-", "a''"},
        {"<a>x<b>y<c>z</c>\n", "a'x'(b'y'(c'z'))"},
        {"<a", "status 4 error 10 line 1"},
        {"<a b", "status 4 error 8 line 1"},
        {"<a ", "status 4 error 8 line 1"},
        {"<a b=", "status 4 error 8 line 1"},
        {"<a b='\nc", "status 4 error 8 line 2"},
        {"<a/", "status 4 error 14 line 1"},
        {"<a\n/\n", "status 4 error 14 line 3"},
        {"<a></a", "status 4 error 13 line 1"},
        {"<a></", "status 4 error 13 line 1"},
        {"<a>te\nxt\n", "status 4 error 14 line 3"},
        {"<a>te\n&xt\n", "status 4 error 14 line 3"},
        {"<?", "status 4 error 6 line 1"},
        {"\n<?", "status 4 error 3 line 2"},
        {"<?xml", "status 4 error 10 line 1"},
        {"<?xml a\n?", "status 4 error 13 line 2"},
        {"<!D", "status 4 error 10 line 1"},
        {"<!D a\n", "status 4 error 6 line 2"},
        {"<!--a\n--", "status 4 error 4 line 2"},
        {"<!-->", "status 4 error 4 line 1"},
    });
}

TEST(XmlParse, Texts)
{
    check({
        {"<a>  hello world \n</a>", "a'hello world \n'"},
        {"<a> \t\r\n \v\f</a>", "a'\v\f'"},
        {"<a>x<b/>y</a>", "status 1 error 8 line 1"},
        {"<a>\nx<b/> \n y</a>", "status 1 error 8 line 3"},
        {"<a><b/>y</a>", "a'y'(b'')"},
        {"<a>x<b/></a>", "a'x'(b'')"},
        {"<a><b/>x<c/></a>", "a'x'(b'' c'')"},
        {"<a/>junk", "status 4 error 14 line 1"},
        {"junk<a/>", "a''"},
        {"junk<a/>junk<", "status 1 error 8 line 1"},
        {"<a>" + times(1000, "1234567890") + "</a>", "a'" + times(1000, "1234567890") + "'"},
    });
}

TEST(XmlParse, References)
{
    check({
        {"<a>x &amp; y &lt;z&gt;</a>", "a'x & y <z>'"},
        {"<a>&quot;&apos;&amp;amp;</a>", "a'\"'&amp;'"},
        {"<a>&am;&ampx;&lx;&gx;&quoX;&apox;&ap;</a>", "a'&&<>\"'&'"}, // the last character is not compared
        {"<a>&foo;&amxx;&ampxx;&Amp;&#60;</a>", "a'&foo;&amxx;&ampxx;&Amp;&#60;'"},
        {"<a>&</a>", "a'&'"},
        {"<a>x;&y z<b/></a>", "a'x;&y z'(b'')"},
        {"<a>&a\nb;;</a>", "a'&a\nb;;'"},
        {"<a>\n&;</a>", "status 4 error 15 line 2"},
        {"<a>&a;\n</a>", "status 4 error 15 line 1"},
        {"<a>x\n&&\n</a>", "status 4 error 15 line 2"},
        {"<a>& b\n\n&amp;\n</a>", "status 4 error 15 line 3"},
        {"<a>&&", "status 4 error 15 line 1"},
    });
    check({{"<a b='&;&&'>&;&&amp;</a>", "a[b=&;&&]'&;&&amp;'"}}, FRWK_XML_RAW);

    std::string text = "<a b='&amp;&x'>&lt;&foo;</a>";
    frwk_xml_free_doc(frwk_xml_cache_parse(text.data()));
    EXPECT_STREQ("<a b='&amp&&x'>&lt<&foo;</a>", text.c_str()); // the text shows what was decoded
}

TEST(XmlParse, Attributes)
{
    const std::string a128(128, 'a'), v512(512, 'v');
    check({
        {"<a v=\"1 &quot;2&quot;\"/>", "a[v=1 \"2\"]''"},
        {"<a v='x\"y' w=\"'\"/>", "a[v=x\"y][w=']''"},
        {"<a b='1'c=''b='2'>x</a>", "a[b=1][c=][b=2]'x'"},
        {"<a\nb\n=\n'\n<>\t'\n/>\n<1", "status 4 error 6 line 7"},
        {"<a b='&am;&x&'/>", "status 4 error 15 line 1"},
        {"<a b='&amp' c='&'/>", "a[b=&amp][c=&]''"},
        {"<a b='&foo;;&lt;'/>", "a[b=&foo;;<]''"},
        {"<a b='&x;'/>", "status 4 error 15 line 1"},
        {"<a b='&#60;'/>", "status 4 error 15 line 1"},
        {"<a b='\n&x\n;'/>", "status 4 error 15 line 2"},
        {"<a b=1/>", "status 4 error 8 line 1"},
        {"<a b/>", "status 4 error 8 line 1"},
        {"<a b c='1'/>", "status 4 error 8 line 1"},
        {"<a b.c='1'/>", "status 4 error 8 line 1"},
        {"<a 1='x'/>", "status 4 error 7 line 1"},
        {"<a =''/>", "status 4 error 7 line 1"},
        {"<a b='" + v512 + "'/>", "a[b=" + v512 + "]''"},
        {"<a b='" + v512 + "v'/>", "status 4 error 12 line 1"},
        {"<a b='" + times(513, "\n") + "\n'/>", "status 4 error 12 line 514"},
        {"<a b='" + times(512, "&amp;") + "'/>", "status 4 error 12 line 1"}, // the last is held undecoded
        {"<a b='" + times(508, "&amp;") + "&lt;'/>", "a[b=" + times(508, "&") + "<]''"},
        {"<a " + a128 + "='1'/>", "a[" + a128 + "=1]''"},
        {"<a " + a128 + "a='1'/>", "status 4 error 11 line 1"},
    });
}

TEST(XmlParse, DeclarationsDirectivesComments)
{
    check({
        {"<?xml version=\"1.0\" encoding=\"UTF-8\"?><a/>", "?xml'version=\"1.0\" encoding=\"UTF-8\"' a''"},
        {"<a><?b?></a><?c \t d\n?>", "a''(?b'') ?c'd\n'"},
        {"<?xml a=\"?b\"?><?x \n?\?>", "?xml'a=\"?b\"' ?x'\n?'"},
        {"<?x ? ?>", "?x'? '"},
        {"<?x/>?>", "?x'/>'"},
        {"\n<?xml?>", "status 4 error 3 line 2"},
        {"<? xml?>", "status 4 error 6 line 1"},
        {"<?x&?>", "status 4 error 6 line 1"},
        {"<?" + A127 + "?>", "?" + A127 + "''"},
        {"<?" + A127 + "a?>", "status 4 error 10 line 1"},
        {"<!DOCTYPE note><a/>", "!DOCTYPE'note' a''"},
        {"<!D><!E \n\t e 'f' \n><!F?<>", "!D'' !E'e 'f' \n' !F'?<'"},
        {"<![CDATA[x]]>", "status 4 error 6 line 1"},
        {"<! D>", "status 4 error 6 line 1"},
        {"<!-x", "status 4 error 6 line 1"},
        {"<!-- hi --><a><!----></a>", "#' hi ' a''(#'')"},
        {"<!-- a--b -\n->- --->", "#' a--b -\n->- -'"},
        {"<!--->-->", "#'->'"},
    });
}

// Each step from where the content loop calls it: what it yields, and what it leaves unread.
TEST(XmlParse, StepsAlone)
{
    using Step = void (*)(frwk_xml_doc_t *, frwk_xml_node_t *, uint32_t);
    const Step node = [](frwk_xml_doc_t *d, frwk_xml_node_t *n, uint32_t f) {
        EXPECT_EQ(frwk_xml_read_node(d, n, f), d->status);
    };
    const Step name = [](frwk_xml_doc_t *d, frwk_xml_node_t *n, uint32_t) {
        EXPECT_EQ(frwk_xml_read_name(d, n), d->status);
    };
    const Step attrs = [](frwk_xml_doc_t *d, frwk_xml_node_t *n, uint32_t f) {
        EXPECT_EQ(frwk_xml_read_attrs(d, n, f), d->status);
    };
    const Step comment = [](frwk_xml_doc_t *d, frwk_xml_node_t *n, uint32_t) { frwk_xml_read_comment(d, n); };
    const Step header = [](frwk_xml_doc_t *d, frwk_xml_node_t *n, uint32_t) { frwk_xml_read_header(d, n); };
    const Step dir = [](frwk_xml_doc_t *d, frwk_xml_node_t *n, uint32_t) { frwk_xml_read_dir(d, n); };
    const Step closing = [](frwk_xml_doc_t *d, frwk_xml_node_t *n, uint32_t) { frwk_xml_read_closing(d, n); };
    const Step named_closing = [](frwk_xml_doc_t *d, frwk_xml_node_t *n, uint32_t) {
        n->name = frwk_strdup("a\nb");
        frwk_xml_read_closing(d, n);
    };
    const struct {
        Step step;
        uint32_t flags;
        const char *text;
        const char *result; // the node, or the error
        const char *rest;   // null: not looked at
    } cases[] = {
        {node, 0, "<b/>x</", "status 4 error 13 line 1", nullptr},
        {frwk_xml_read_tag, 0, "a b='1'>x<c/></a>y", "a[b=1]'x'(c'')", "y"},
        {frwk_xml_read_tag, 0, "a></a>y", "a''", "y"},
        {frwk_xml_read_tag, 0, "a/>y", "a", "y"}, // its value is given by the content loop
        {frwk_xml_read_tag, 0, "a>", "a", ""},
        {frwk_xml_read_tag, 0, "a b/>", "status 4 error 8 line 1", nullptr},
        {name, 0, "ab/", "ab", "/"},
        {name, 0, "", "status 4 error 6 line 1", ""},
        {attrs, 0, " b='1' c='2'\n/>", "[b=1][c=2]", "/>"},
        {attrs, 0, ">", "", ">"},
        {frwk_xml_read_data, 0, " &lt; x <", "' < x '", "<"},
        {frwk_xml_read_data, FRWK_XML_RAW, "&lt;&&<", "'&lt;&&'", "<"},
        {frwk_xml_read_data, 0, "<", "''", "<"},
        {comment, 0, "-->x", "#''", "x"},
        {header, 0, "x y?>z", "?x'y'", "z"},
        {dir, 0, "D>z", "!D''", "z"},
        {closing, 0, ">", "status 4 error 13 line 1", ""},
        {named_closing, 0, "a\nb>x", "a\nb", "x"},
        {named_closing, 0, "a\nc>x", "status 4 error 13 line 2", "x"},
    };
    for (const auto &c : cases) {
        std::string text = c.text;
        Doc doc = reading(text);
        frwk_xml_node_t *child = frwk_xml_alloc_node();
        child->depth = 1;
        child->parent = doc->root;
        frwk_list_add(&doc->root->children, &child->list);
        c.step(doc.get(), child, c.flags);
        EXPECT_EQ(c.result, doc->status == 0 ? below(doc->root) : state_of(doc.get())) << c.text;
        if (c.rest != nullptr) {
            EXPECT_STREQ(c.rest, doc->cursor) << c.text;
        }
    }

    std::string text = " b='1'/";
    Doc doc = reading(text);
    frwk_xml_attr_t *attr = frwk_xml_read_attr(doc.get(), 0);
    ASSERT_NE(nullptr, attr);
    EXPECT_STREQ("1", attr->value);
    frwk_xml_free_attr(attr);
    EXPECT_EQ(nullptr, frwk_xml_read_attr(doc.get(), 0));
    EXPECT_EQ("status 0 error 0 line 1", state_of(doc.get()));
}

TEST(XmlParse, DocumentsHaveOneRoot)
{
    const std::string no_root = "frwk_xml_cache_parse: Can't found valid xml root!";
    const struct {
        const char *text;
        Texts said;
    } cases[] = {
        {"  \n<a>x</a>\n", {}},
        {"<?xml?><!D><!---->\n<a/><!---->", {}},
        {"", {"frwk_xml_cache_parse: xml stream is null!"}},
        {"<a/><b/>", {no_root}},
        {"<!-- a -->", {no_root}},
        {" \n", {no_root}},
        {"<a>\n<b></c>", {"frwk_xml_cache_parse: Error: line:2,status:4,cause:Opening and ending tag mismatch!"}},
        {"<a>x<b/>y</a>", {"frwk_xml_cache_parse: Error: line:1,status:1,cause:Malformed attribute definition!"}},
        {"<a>&&</a>", {"frwk_xml_cache_parse: Error: line:1,status:4,cause:Escape/entity '&;' found!"}},
    };
    for (const auto &c : cases) {
        std::string text = c.text;
        EXPECT_EQ(c.said, said([&] {
                      Doc doc(frwk_xml_cache_parse(text.data()));
                      EXPECT_EQ(c.said.empty(), doc != nullptr);
                      EXPECT_TRUE(doc == nullptr || doc->file_name == nullptr);
                  }));
    }
    EXPECT_EQ(Texts{"frwk_xml_cache_parse: xml stream is null!"},
              said([] { EXPECT_EQ(nullptr, frwk_xml_cache_parse(nullptr)); }));

    std::string text = "  \n<a>x<b><!----></b></a>\n";
    Doc doc(frwk_xml_cache_parse(text.data()));
    EXPECT_EQ(3u, doc->line);
    EXPECT_EQ(3u, doc->node_count);
}

TEST(XmlParse, Files)
{
    const std::string path = "/tmp/a.xml";
    frwk_test::write_file(path, std::string("<a>x</a>\0<b>", 12)); // a 0 ends the text
    int fds = frwk_test::count_fds(getpid());
    EXPECT_EQ(Texts{}, said([&] {
                  Doc doc(frwk_xml_file_parse(path.c_str()));
                  ASSERT_NE(nullptr, doc);
                  EXPECT_EQ("a'x'", below(doc->root));
                  EXPECT_EQ(path, doc->file_name);
              }));
    EXPECT_TRUE(on_thread(1 << 20, true, [&] { Doc doc(frwk_xml_file_parse(path.c_str())); }));

    frwk_test::write_file("/tmp/empty.xml", "");
    frwk_test::write_file("/tmp/bad.xml", "<a>\n<1>");
    frwk_test::write_file("/tmp/zero.xml", std::string(3, '\0'));
    EXPECT_EQ(
        (Texts{"frwk_xml_file_parse: xml file is null!", "frwk_xml_file_parse: invalid xml '/tmp/none.xml'!",
               "frwk_xml_file_parse: invalid xml '/tmp/empty.xml'!",
               "frwk_xml_cache_parse: Error: line:2,status:4,cause:Invalid character as tag name!",
               "frwk_xml_file_parse: parse xml '/tmp/bad.xml' failed!", "frwk_xml_cache_parse: xml stream is null!",
               "frwk_xml_file_parse: parse xml '/tmp/zero.xml' failed!"}),
        said([] {
            for (const char *bad : {static_cast<const char *>(nullptr), "/tmp/none.xml", "/tmp/empty.xml",
                                    "/tmp/bad.xml", "/tmp/zero.xml"}) {
                EXPECT_EQ(nullptr, frwk_xml_file_parse(bad));
            }
        }));
    EXPECT_NE(Texts{}, said([] { EXPECT_EQ(nullptr, frwk_xml_file_parse("/tmp")); })); // the size of a directory varies
    EXPECT_EQ(fds, frwk_test::count_fds(getpid()));
}

// The first, the second, ... allocation of a parse fails: it is reported, and everything is freed.
TEST(XmlParse, ShortMemoryIsReported)
{
    if (SANITIZED) {
        GTEST_SKIP() << "the sanitizers have an allocator of their own";
    }
    const std::string error = "frwk_xml_cache_parse: Error: line:1,status:-1,cause:Not enough memory!";
    bool parsed_whole = false;
    int refused = 0;
    for (; !parsed_whole && refused < 100; refused++) {
        std::string text = "<?x y?><!D e><!--c--><a b='1'>x&amp;y<c><d>z</d></c></a>";
        Texts lines = said([&] {
            allocations_left = refused + 1;
            Doc doc(frwk_xml_cache_parse(text.data()));
            allocations_left = INT_MAX;
            parsed_whole = doc != nullptr;
            EXPECT_TRUE(!parsed_whole || below(doc->root) == "?x'y' !D'e' #'c' a[b=1]'x&y'(c''(d'z'))");
        });
        EXPECT_EQ(parsed_whole, lines.empty());
        EXPECT_TRUE(parsed_whole || refused < 2 || lines.back() == error) << lines.back();
    }
    EXPECT_GT(refused, 20);

    for (bool of_value : {false, true}) {
        std::string text = "name";
        Doc doc = reading(text += of_value ? "='1'" : "/");
        allocations_left = of_value ? 3 : 1;
        if (of_value) {
            EXPECT_EQ(nullptr, frwk_xml_read_attr(doc.get(), 0));
        } else {
            EXPECT_EQ(4, frwk_xml_read_name(doc.get(), doc->root));
        }
        allocations_left = INT_MAX;
        EXPECT_EQ("status -1 error 2 line 1", state_of(doc.get()));
    }
}

TEST(XmlParse, DepthIsLimitedByMemoryAlone)
{
    for (size_t depth : {size_t{100000}, size_t{SANITIZED ? 1000 : 1000000}}) {
        const std::string down = times(depth, "<a>"), up = times(depth, "</a>");
        EXPECT_TRUE(on_thread(SMALL_STACK, false, [&] {
            for (const std::string &end : {std::string(), up, std::string("x<b/>y"), std::string("</b>")}) {
                std::string text = down + end;
                Doc doc = reading(text);
                bool whole = end.empty() || end == up;
                EXPECT_EQ(whole ? 0 : end[0] == 'x' ? 1 : 4, frwk_xml_read_node(doc.get(), doc->root, 0));
                EXPECT_EQ(whole ? depth : end[0] == 'x' ? 1 : 0, doc->node_count);
                EXPECT_EQ(whole ? 0 : 1, frwk_list_empty(&doc->root->children));
            }
        }));
    }
}

double cpu_seconds()
{
    timespec now;
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
}

// A hundred times the text takes about a hundred times the work, not ten thousand times; a run of text asks for few
// blocks, however long it is.
TEST(XmlParse, WorkIsLinear)
{
    if (SANITIZED) {
        GTEST_SKIP() << "their checked searches measure the rest of the text every time";
    }
    const struct {
        const char *begin, *unit, *end;
        bool one_run;
    } cases[] = {{"<r>", "<a b='1'>x</a>\n", "</r>", false}, {"<r>", "0123456789\n", "</r>", true},
                 {"<r>", "&amp;12345", "</r>", true},        {"<r><!--", "-- ->\n", "--></r>", true},
                 {"<r><!D ", "0123456789\n", "></r>", true}, {"<?x ", "? 12345\n", "?><r/>", true},
                 {"<r>", "        \n", "</r>", true},        {"<r>", "<a>", "", false},
                 {"<r>&", "          ", "</r>", true},       {"<r>", "<!---->\n", "</r>", false}};
    for (const auto &c : cases) {
        double seconds[2];
        for (int large = 0; large < 2; large++) {
            size_t size = large ? 1000000 : 10000;
            std::string text = c.begin + times(size / strlen(c.unit), c.unit) + c.end;
            allocations_made = bytes_asked_for = 0;
            double start = cpu_seconds();
            Doc doc(frwk_xml_cache_parse(text.data()));
            seconds[large] = cpu_seconds() - start;
            ASSERT_NE(nullptr, doc) << c.unit;
            if (c.one_run) {
                EXPECT_LE(allocations_made, 12u) << c.unit;
                EXPECT_LE(bytes_asked_for, 3 * size) << c.unit;
            }
        }
        EXPECT_LT(seconds[1], seconds[0] * 1500) << c.unit;
    }
}

} // namespace
