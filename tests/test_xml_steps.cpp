/* SPDX-FileCopyrightText: 2026 the libfrwk authors */
/* SPDX-License-Identifier: MIT */

#include "frwk_test.h"
#include "xml_checks.h"

#include <ctime>
#include <thread>

namespace {

std::string times(size_t n, const std::string &text)
{
    return n == 0 ? "" : n % 2 == 0 ? times(n / 2, text + text) : text + times(n - 1, text);
}

const std::string A127(127, 'a'), A128(128, 'a'), V512(512, 'v');

// What has become of a parse: the tree, or "status/error@line".
std::string result_of(const Doc &doc)
{
    return doc->status == 0
               ? below(doc->root)
               : std::to_string(doc->status) + "/" + std::to_string(doc->error) + "@" + std::to_string(doc->line);
}

// clang-format off
TEST(XmlSteps, Content)
{
    const struct {
        std::string result;
        Texts texts; // which end alike
        uint32_t flags = 0;
    } rows[] = {
        // elements
        {"a''", {"<a/>", "<a></a>", "<\r\n\ta\n/ \n//\t>", "<a>", "<a><!-", "junk<a/>", "<a> \t\r\n </a>"}},
        {"a''(b'')", {"<\na><b><\t/b>< /a>", "<a><b\n/><"}},
        {"a_-:9:'' " + A127 + "''", {"<a_-:9:/><" + A127 + "></" + A127 + ">"}},
        {"4/6@1", {"<a=b/>", "<a<", "<1/>", "<_a/>", "<\xe4/>", "<\v", "<![CDATA[x]]>", "<! D>", "<!-x", "<? x?>", "<?"}},
        {"4/7@1", {"<a?", "<a 1='x'/>", "<a =''/>"}},
        {"4/8@1", {"<a/b>", "<a ", "<a b=1/>", "<a b/>", "<a b c='1'/>", "<a b.c='1'/>", "<a b", "<a b="}},
        {"4/10@1", {"<a", "<" + A127 + "a/>", "<" + A127 + "aaaaa=", "<?" + A128 + "?>", "<!D", "<a></" + A128 + ">"}},
        {"4/13@1", {"<a></b>", "<a></ab>", "<ab></a>", "<a></a >", "<a></ a>", "</a>", "</>", "<a></a", "<a></"}},
        {"4/13@2", {"<a / \n/\t></a>", "<?xml a\n?"}}, // closed before its end tag
        {"4/14@3", {"<a\n/\n", "<a>te\nxt\n", "<a>te\n&xt\n"}},
        // texts
        {"a'hello world \n\v\f'", {"<a>  hello world \n\v\f</a>"}},
        {"a'x'(b'' c'')", {"<a><b/>x<c/></a>", "<a>x<b/><c/></a>", "<a><b/><c/>x</a>"}},
        {"1/8@3", {"<a>\nx<b/> \n y</a>"}},
        {"a'x & y <z>\"'&amp;'", {"<a>x &amp; y &lt;z&gt;&quot;&apos;&amp;amp;</a>"}},
        {"a'x;&foo;&Amp;&#60;'", {"<a>x;&foo;&Amp;&#60;</a>"}},
        {"a'&&<>\"'&'", {"<a>&am;&ampx;&lx;&gx;&quoX;&apox;&ap;</a>"}}, // the last character is not compared
        {"4/15@2", {"<a>\n&;</a>", "<a>x\n&&\n</a>", "<a>\n&a;\n</a>", "<a b='\n&x\n;'/>"}},
        {"a[b=&;&&]'&;&&amp;'", {"<a b='&;&&'>&;&&amp;</a>"}, FRWK_XML_RAW},
        // attributes
        {"a[b=\n<>\t][c=][c=']'x'", {"<a\nb\n=\r'\n<>\t'\tc=\"\"c=\"'\"\n>x</a>"}},
        {"a[" + A128 + "=" + V512 + "][d=" + times(508, "&") + "<]''", {"<a " + A128 + "='" + V512 + "' d='" + times(508, "&amp;") + "&lt;'/>"}},
        {"4/6@7", {"<a\nb\n=\n'\n<>\t'\n/>\n<1"}}, // lines are counted everywhere
        {"4/11@1", {"<a " + A128 + "a='1'/>"}},
        {"4/12@1", {"<a b='" + V512 + "v'/>", "<a b='" + times(512, "&amp;") + "'/>"}}, // the last is held undecoded
        {"4/8@2", {"<a\n", "<a b='\nc"}},
        {"4/15@1", {"<a b='&am;&x&'/>", "<a b='&x;'/>", "<a b='&#60;'/>"}},
        // declarations, directives, comments
        {"?xml'a=\"?b\"?' ?x'? ' ?x'/>' a''(?b'') ?c'd\n'", {"<?xml a=\"?b\"?\?><?x ? ?><?x/>?><a><?b?></a><?c \t d\n?>"}},
        {"!DOCTYPE'note' !D'' !E'e 'f' \n' !F'?<'", {"<!DOCTYPE note><!D><!E \n\t e 'f' \n><!F?<>"}},
        {"#' hi ' a''(#'') #' a--b -\n->- -' #'->'", {"<!-- hi --><a><!----></a><!-- a--b -\n->- ---><!--->-->"}},
        {"4/3@2", {"\n<?xml?>", "\n<?"}},
        {"4/4@2", {"\n<!-->", "<!--a\n--"}},
    };
    for (const auto &row : rows) {
        for (std::string text : row.texts) {
            SCOPED_TRACE(text);
            Doc doc(frwk_xml_alloc_doc());
            doc->cursor = text.data();
            EXPECT_EQ(frwk_xml_read_node(doc.get(), doc->root, row.flags), doc->status);
            EXPECT_EQ(row.result, result_of(doc));
        }
    }
    std::string text = "<a b='&amp;&x'>&lt;&foo;</a>";
    frwk_xml_free_doc(frwk_xml_cache_parse(text.data()));
    EXPECT_STREQ("<a b='&amp&&x'>&lt<&foo;</a>", text.c_str()); // the text shows what was decoded
    std::string tag = "a b='1'>x</a>rest";
    Doc doc(frwk_xml_alloc_doc());
    doc->cursor = tag.data();
    frwk_xml_read_tag(doc.get(), doc->root, 0);
    EXPECT_STREQ("rest", doc->cursor);
    EXPECT_TRUE(doc->status == 0 && std::string("a") == doc->root->name && std::string("x") == doc->root->value);
}

// clang-format on

// Reads, writes and frees 100,000 levels on a stack that a call for each would exhaust.
TEST(XmlSteps, DepthIsLimitedByMemoryAlone)
{
    const size_t depth = 100000;
    pthread_attr_t attr;
    pthread_attr_init(&attr);
    pthread_attr_setstacksize(&attr, 1024 * 1024);
    EXPECT_EQ(0, pthread_setattr_default_np(&attr));
    std::thread([] {
        std::string text = times(depth, "<a>");
        Doc doc(frwk_xml_cache_parse(text.data()));
        for (frwk_xml_node_t *node = doc->root; node != nullptr; node = frwk_xml_get_child_node(node, "a")) {
            node->depth = -1; // without the blanks that these would take
        }
        frwk_buffer_t written;
        frwk_buffer_init(&written);
        frwk_xml_cache_save(&written, doc->root, 0);
        EXPECT_TRUE(times(depth - 1, "<a>\n") + "<a/>\n" + times(depth - 1, "</a>\n") ==
                    std::string(reinterpret_cast<char *>(written.bp), static_cast<size_t>(written.len)));
        frwk_buffer_free(&written);
    }).join();
}

// A hundred times the text takes about a hundred times the work, not ten thousand times.
TEST(XmlSteps, WorkIsLinear)
{
    if (SANITIZED) {
        GTEST_SKIP() << "their checked searches measure the rest of the text every time";
    }
    for (const char *unit : {"<a b='1'>x</a>", "<a><!---->\n", "&amp;12345\n", "<!-- -- ->\n-->", "<?a ? ?>"}) {
        clock_t spent[2];
        for (size_t size : {size_t{10000}, size_t{1000000}}) {
            std::string text = "<r>" + times(size / strlen(unit), unit) + "<a/>";
            const clock_t start = clock();
            EXPECT_TRUE(Doc(frwk_xml_cache_parse(text.data())) != nullptr);
            spent[size > 10000] = clock() - start;
        }
        EXPECT_LT(spent[1], (spent[0] + 1) * 1500) << unit;
    }
}

} // namespace
