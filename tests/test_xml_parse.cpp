#include <ctime>

#include "xml_test.h"

using namespace xml_test;

namespace {

std::string times(size_t n, const std::string &text)
{
    return n == 0 ? "" : n % 2 == 0 ? times(n / 2, text + text) : text + times(n - 1, text);
}

const std::string A127(127, 'a'), A128(128, 'a'), V512(512, 'v');

// A fresh document whose cursor stands at the text.
Doc reading(std::string &text)
{
    Doc doc(frwk_xml_alloc_doc());
    doc->cursor = text.data();
    return doc;
}

// What has become of a parse: the tree, or "status/error@line".
std::string result_of(const Doc &doc)
{
    return doc->status == 0
               ? below(doc->root)
               : std::to_string(doc->status) + "/" + std::to_string(doc->error) + "@" + std::to_string(doc->line);
}

// Texts that end alike as the content of a document.
struct Case {
    std::string result;
    std::vector<std::string> texts;
};

void check(const std::vector<Case> &cases, uint32_t flags = 0)
{
    for (const Case &c : cases) {
        for (std::string text : c.texts) {
            SCOPED_TRACE(text);
            Doc doc = reading(text);
            EXPECT_EQ(frwk_xml_read_node(doc.get(), doc->root, flags), doc->status);
            EXPECT_EQ(c.result, result_of(doc));
        }
    }
}

// clang-format off
TEST(XmlParse, Elements)
{
    check({
        {"a''", {"<a/>", "<a></a>", "<\r\n\ta\n/ \n//\t>", "<a>", "<a><", "<a>< !", "<a><!-", "junk<a/>"}},
        {"a''(b'')", {"<\na><b><\t/b>< /a>", "<a><b>", "<a><b\n/><"}},
        {"a_-:9:''", {"<a_-:9:/>"}},
        {A127 + "''", {"<" + A127 + "/>", "<" + A127 + "></" + A127 + ">"}},
        {"a'x'(b'y'(c'z'))", {"<a>x<b>y<c>z</c>\n"}},
        {"4/6@1", {"<a=b/>", "<a<", "<1/>", "<_a/>", "<\xe4/>", "<\v", "<![CDATA[x]]>", "<! D>", "<!-x"}},
        {"4/7@1", {"<a?"}},
        {"4/8@1", {"<a/b>", "<a b='c' / d='e'>", "<a "}},
        {"4/8@2", {"<a\n"}},
        {"4/10@1", {"<a", "<" + A127 + "a/>", "<" + A127 + "aaaaa="}},
        {"4/10@2", {"<a>\n</" + A127 + "a>"}},
        {"4/10@65", {"<a></" + times(64, "\nb")}},
        {"4/13@64", {"<a></" + times(63, "\nb") + ">"}},
        {"4/13@1", {"<a></b>", "<a></ab>", "<ab></a>", "<a></a >", "<a></ a>", "</a>", "</>", "<a></a", "<a></"}},
        {"4/13@2", {"<a / \n/\t></a>"}}, // closed before its end tag
        {"4/13@3", {"<\r\n\ta><b\n>< / b></a>"}},
        {"4/14@1", {"<a/"}},
        {"4/14@3", {"<a\n/\n"}},
    });
}

TEST(XmlParse, TextsAndReferences)
{
    check({
        {"a'hello world \n'", {"<a>  hello world \n</a>"}},
        {"a'\v\f'", {"<a> \t\r\n \v\f</a>"}},
        {"a'x'(b'' c'')", {"<a><b/>x<c/></a>", "<a>x<b/><c/></a>", "<a><b/><c/>x</a>"}},
        {"1/8@1", {"<a>x<b/>y</a>", "junk<a/>junk<"}},
        {"1/8@3", {"<a>\nx<b/> \n y</a>"}},
        {"4/14@1", {"<a/>junk", "<a>te&xt"}},
        {"4/14@3", {"<a>te\nxt\n", "<a>te\n&xt\n"}},
        {"a'x & y <z>\"'&amp;'", {"<a>x &amp; y &lt;z&gt;&quot;&apos;&amp;amp;</a>"}},
        {"a'&&<>\"'&'", {"<a>&am;&ampx;&lx;&gx;&quoX;&apox;&ap;</a>"}}, // the last character is not compared
        {"a'&foo;&amxx;&ampxx;&Amp;&#60;'", {"<a>&foo;&amxx;&ampxx;&Amp;&#60;</a>"}},
        {"a'x;&y z'(b'&a\nb;;' c'&')", {"<a>x;&y z<b>&a\nb;;</b><c>&</c></a>"}},
        {"4/15@1", {"<a>&&", "<a>&a;\n</a>"}},
        {"4/15@2", {"<a>\n&;</a>", "<a>x\n&&\n</a>"}},
        {"4/15@3", {"<a>& b\n\n&amp;\n</a>"}},
    });
    check({{"a[b=&;&&]'&;&&amp;'", {"<a b='&;&&'>&;&&amp;</a>"}}}, FRWK_XML_RAW);

    std::string text = "<a b='&amp;&x'>&lt;&foo;</a>";
    frwk_xml_free_doc(frwk_xml_cache_parse(text.data()));
    EXPECT_STREQ("<a b='&amp&&x'>&lt<&foo;</a>", text.c_str()); // the text shows what was decoded
}

TEST(XmlParse, Attributes)
{
    check({
        {"a[v=1 \"2\"][v=x\"y][w=']''", {"<a v=\"1 &quot;2&quot;\"v='x\"y' w=\"'\"/>"}},
        {"a[b=][c=]'x'", {"<a b=''\tc=''>x</a>"}},
        {"a[b=\n<>\t]''", {"<a\nb\n=\r'\n<>\t'\n/>"}},
        {"a[b=&amp][c=&][d=&foo;;<]''", {"<a b='&amp' c='&' d='&foo;;&lt;'/>"}},
        {"a[b=" + V512 + "]''", {"<a b='" + V512 + "'/>"}},
        {"a[b=" + times(508, "&") + "<]''", {"<a b='" + times(508, "&amp;") + "&lt;'/>"}},
        {"a[" + A128 + "=1]''", {"<a " + A128 + "='1'/>"}},
        {"4/6@7", {"<a\nb\n=\n'\n<>\t'\n/>\n<1"}}, // lines are counted everywhere
        {"4/7@1", {"<a 1='x'/>", "<a =''/>"}},
        {"4/8@1", {"<a b=1/>", "<a b/>", "<a b c='1'/>", "<a b.c='1'/>", "<a b", "<a b="}},
        {"4/8@2", {"<a b='\nc"}},
        {"4/11@1", {"<a " + A128 + "a='1'/>"}},
        {"4/12@1", {"<a b='" + V512 + "v'/>", "<a b='" + times(512, "&amp;") + "'/>"}}, // the last is held undecoded
        {"4/12@514", {"<a b='" + times(514, "\n") + "'/>"}},
        {"4/15@1", {"<a b='&am;&x&'/>", "<a b='&x;'/>", "<a b='&#60;'/>"}},
        {"4/15@2", {"<a b='\n&x\n;'/>"}},
    });
}

TEST(XmlParse, DeclarationsDirectivesComments)
{
    check({
        {"?xml'version=\"1.0\" encoding=\"UTF-8\"' a''", {"<?xml version=\"1.0\" encoding=\"UTF-8\"?><a/>"}},
        {"a''(?b'') ?c'd\n'", {"<a><?b?></a><?c \t d\n?>"}},
        {"?xml'a=\"?b\"?' ?x'? ' ?x'/>'", {"<?xml a=\"?b\"?\?><?x ? ?><?x/>?>"}},
        {"!DOCTYPE'note' !D'' !E'e 'f' \n' !F'?<'", {"<!DOCTYPE note><!D><!E \n\t e 'f' \n><!F?<>"}},
        {"#' hi ' a''(#'') #' a--b -\n->- -' #'->'", {"<!-- hi --><a><!----></a><!-- a--b -\n->- ---><!--->-->"}},
        {"4/3@2", {"\n<?xml?>", "\n<?"}},
        {"4/4@1", {"<!-->"}},
        {"4/4@2", {"<!--a\n--"}},
        {"4/6@1", {"<? xml?>", "<?x&?>", "<?"}},
        {"4/6@2", {"<!D a\n"}},
        {"4/10@1", {"<?" + A128 + "?>", "<?xml", "<!D"}},
        {"4/13@2", {"<?xml a\n?"}},
    });
}

// Each step from where the content loop calls it: what it yields, and what it leaves unread.
TEST(XmlParse, StepsAlone)
{
    struct At { frwk_xml_doc_t *doc; frwk_xml_node_t *node; };
    const struct { std::function<void(At)> step; const char *text, *result, *rest; } cases[] = {
        {[](At a) { frwk_xml_read_node(a.doc, a.node, 0); }, "<b/>x</", "4/13@1", ""},
        {[](At a) { frwk_xml_read_tag(a.doc, a.node, 0); }, "a b='1'>x<c/></a>y", "a[b=1]'x'(c'')", "y"},
        {[](At a) { frwk_xml_read_tag(a.doc, a.node, 0); }, "a/>y", "a", "y"}, // the content loop gives it a value
        {[](At a) { EXPECT_EQ(0, frwk_xml_read_name(a.doc, a.node)); }, "ab/", "ab", "/"},
        {[](At a) { EXPECT_EQ(4, frwk_xml_read_name(a.doc, a.node)); }, "", "4/6@1", ""},
        {[](At a) { EXPECT_EQ(0, frwk_xml_read_attrs(a.doc, a.node, 0)); }, " b='1' c='2'\n/>", "[b=1][c=2]", "/>"},
        {[](At a) { EXPECT_EQ(4, frwk_xml_read_attrs(a.doc, a.node, 0)); }, "b?", "4/8@1", "?"},
        {[](At a) { EXPECT_EQ(nullptr, frwk_xml_read_attr(a.doc, 0)); }, "\n/>", "", "/>"},
        {[](At a) { frwk_xml_read_data(a.doc, a.node, 0); }, " &lt; x <", "' < x '", "<"},
        {[](At a) { frwk_xml_read_data(a.doc, a.node, FRWK_XML_RAW); }, "&lt;&&<", "'&lt;&&'", "<"},
        {[](At a) { frwk_xml_read_comment(a.doc, a.node); }, "-->x", "#''", "x"},
        {[](At a) { frwk_xml_read_header(a.doc, a.node); }, "x y?>z", "?x'y'", "z"},
        {[](At a) { frwk_xml_read_dir(a.doc, a.node); }, "D>z", "!D''", "z"},
        {[](At a) { a.node->name = frwk_strdup("a\nb"); frwk_xml_read_closing(a.doc, a.node); }, "a\nb>x", "a\nb", "x"},
    };
    // clang-format on
    for (const auto &c : cases) {
        std::string text = c.text;
        Doc doc = reading(text);
        frwk_xml_node_t *child = frwk_xml_alloc_node();
        child->depth = 1;
        child->parent = doc->root;
        frwk_list_add(&doc->root->children, &child->list);
        c.step({doc.get(), child});
        EXPECT_EQ(c.result, result_of(doc)) << c.text;
        EXPECT_STREQ(c.rest, doc->cursor) << c.text;
    }
}

TEST(XmlParse, DocumentsHaveOneRoot)
{
    const char *no_root = "Can't found valid xml root!";
    const std::pair<const char *, const char *> cases[] = {
        {"<?xml?><!D><!---->\n<a/><!---->", ""},
        {nullptr, "xml stream is null!"},
        {"", "xml stream is null!"},
        {"<a/><b/>", no_root},
        {"<!-- a -->", no_root},
        {" \n", no_root},
        {"<a>\n<b></c>", "Error: line:2,status:4,cause:Opening and ending tag mismatch!"},
        {"<a>x<b/>y</a>", "Error: line:1,status:1,cause:Malformed attribute definition!"},
    };
    for (const auto &[source, message] : cases) {
        std::string text = source != nullptr ? source : "";
        char *start = source != nullptr ? text.data() : nullptr;
        Texts lines = said([=] { Doc(frwk_xml_cache_parse(start)); });
        EXPECT_EQ(Texts(*message != '\0' ? 1 : 0, std::string("frwk_xml_cache_parse: ") + message), lines);
    }
    std::string text = "  \n<a>x<b><!----></b></a>\n";
    Doc doc(frwk_xml_cache_parse(text.data()));
    EXPECT_TRUE(doc->line == 3 && doc->node_count == 3 && doc->file_name == nullptr);
}

TEST(XmlParse, Files)
{
    frwk_test::write_file("/tmp/a.xml", std::string("<a>x</a>\0<b>", 12)); // a 0 ends the text
    frwk_test::write_file("/tmp/empty.xml", "");
    frwk_test::write_file("/tmp/bad.xml", "<a>\n<1>");
    int fds = frwk_test::count_fds(getpid());
    Doc doc;
    EXPECT_EQ((Texts{"frwk_xml_file_parse: xml file is null!", "frwk_xml_file_parse: invalid xml '/tmp/none.xml'!",
                     "frwk_xml_file_parse: invalid xml '/tmp/empty.xml'!",
                     "frwk_xml_cache_parse: Error: line:2,status:4,cause:Invalid character as tag name!",
                     "frwk_xml_file_parse: parse xml '/tmp/bad.xml' failed!"}),
              said([&] {
                  for (const char *path : {"", "/tmp/none.xml", "/tmp/empty.xml", "/tmp/bad.xml"}) {
                      EXPECT_EQ(nullptr, frwk_xml_file_parse(*path != '\0' ? path : nullptr));
                  }
                  doc.reset(frwk_xml_file_parse("/tmp/a.xml"));
              }));
    EXPECT_EQ("a'x'", below(doc->root));
    EXPECT_STREQ("/tmp/a.xml", doc->file_name);
    EXPECT_EQ(nullptr, frwk_xml_file_parse("/tmp")); // whose size varies
    EXPECT_EQ(fds, frwk_test::count_fds(getpid()));
}

// The first, the second, ... allocation of a parse fails: it is reported, and everything is freed.
TEST(XmlParse, ShortMemoryIsReported)
{
    int refused = 0;
    for (bool whole = SANITIZED; !whole; refused++) {
        std::string text = "<?x y?><!D e><!--c--><a b='1'>x&amp;y<c><d>z</d></c></a>";
        Texts lines = said([&] {
            allocations_left = refused + 1;
            Doc doc(frwk_xml_cache_parse(text.data()));
            allocations_left = INT_MAX;
            whole = doc != nullptr;
            EXPECT_TRUE(!whole || below(doc->root) == "?x'y' !D'e' #'c' a[b=1]'x&y'(c''(d'z'))");
        });
        EXPECT_EQ(whole, lines.empty());
        EXPECT_TRUE(whole || refused < 2 || frwk_test::contains(lines.back(), "line:1,status:-1,cause:Not enough"));
    }
    EXPECT_TRUE(SANITIZED || refused > 20);
}

TEST(XmlParse, DepthIsLimitedByMemoryAlone)
{
    on_small_stack([] {
        const size_t depth = 100000;
        for (std::string end : {"", "x<b/>y", "</b>"}) {
            std::string text = times(depth, "<a>") + end;
            Doc doc = reading(text);
            EXPECT_EQ(end.empty() ? 0 : end[0] == 'x' ? 1 : 4, frwk_xml_read_node(doc.get(), doc->root, 0));
            EXPECT_EQ(end.empty() ? depth : end[0] == 'x' ? 1 : 0, doc->node_count);
            EXPECT_EQ(end.empty() ? 0 : 1, frwk_list_empty(&doc->root->children));
        }
        std::string text = times(depth, "<a>") + times(depth, "</a>");
        EXPECT_NE(nullptr, Doc(frwk_xml_cache_parse(text.data())));
    });
}

// A hundred times the text takes about a hundred times the work, not ten thousand times; a run of text asks for few
// blocks, however long it is.
TEST(XmlParse, WorkIsLinear)
{
    if (SANITIZED) {
        GTEST_SKIP() << "their checked searches measure the rest of the text every time";
    }
    // clang-format off
    const struct { const char *begin, *unit, *end; int blocks; /* at most */ } cases[] = {
        {"<r>", "<a b='1'>x</a>\n", "</r>", INT_MAX}, {"<r>", "0123456789\n", "</r>", 12},
        {"<r>", "&amp;12345", "</r>", 12}, {"<r><!--", "-- ->\n", "--></r>", 12},
        {"<r><!D ", "0123456789\n", "></r>", 12}, {"<?x ", "? 12345\n", "?><r/>", 12},
        {"<r>", "        \n", "</r>", 12}, {"<r>", "<a>", "", INT_MAX},
        {"<r>&", "          ", "</r>", 12}, {"<r>", "<!---->\n", "</r>", INT_MAX},
    };
    // clang-format on
    for (const auto &c : cases) {
        clock_t spent[2];
        for (size_t size : {size_t{10000}, size_t{1000000}}) {
            std::string text = c.begin + times(size / strlen(c.unit), c.unit) + c.end;
            allocations_left = INT_MAX;
            clock_t start = clock();
            Doc doc(frwk_xml_cache_parse(text.data()));
            spent[size > 10000] = clock() - start;
            EXPECT_TRUE(doc != nullptr && INT_MAX - allocations_left <= c.blocks) << c.unit;
        }
        EXPECT_LT(spent[1], (spent[0] + 1) * 1500) << c.unit;
    }
}

} // namespace
