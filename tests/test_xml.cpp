/* SPDX-FileCopyrightText: 2026 the libfrwk authors */
/* SPDX-License-Identifier: MIT */

// Documents from files and into files.
#include "frwk_test.h"
#include "xml_checks.h"

namespace {

TEST(Xml, FilesHaveOneRoot)
{
    const std::string no_root = "Can't found valid xml root!", path = "/tmp/a.xml";
    const std::pair<std::string, std::string> rows[] = {
        {"", ""},
        {std::string("\0<a/>", 5), "xml stream is null!"},
        {"<a/><b/>", no_root},
        {" \n<!-- a -->", no_root},
        {"<a>\n<b></c>", "Error: line:2,status:4,cause:Opening and ending tag mismatch!"},
        {"<a>x<b/>y</a>", "Error: line:1,status:1,cause:Malformed attribute definition!"},
    };
    const int fds = count_fds(getpid());
    for (const auto &[text, message] : rows) {
        write_file(path, text);
        const Texts expected = {"frwk_xml_cache_parse: " + message,
                                "frwk_xml_file_parse: parse xml '/tmp/a.xml' failed!"};
        EXPECT_EQ(message.empty() ? Texts{"frwk_xml_file_parse: invalid xml '/tmp/a.xml'!"} : expected,
                  said([&] { EXPECT_EQ(nullptr, frwk_xml_file_parse(path.c_str())); }));
    }
    EXPECT_EQ((Texts{"frwk_xml_file_parse: xml file is null!", "frwk_xml_file_parse: invalid xml '/tmp/none.xml'!"}),
              said([] { EXPECT_TRUE(!frwk_xml_file_parse(nullptr) && !frwk_xml_file_parse("/tmp/none.xml")); }));
    EXPECT_TRUE(frwk_xml_file_parse("/tmp") == nullptr && frwk_xml_cache_parse(nullptr) == nullptr);
    write_file(path, "<?xml?><!D><!---->\n<a>x</a><!---->" + std::string("\0<b>", 4)); // a 0 ends the text
    Doc doc(frwk_xml_file_parse(path.c_str()));
    EXPECT_EQ("?xml'' !D'' #'' a'x' #''", below(doc->root));
    EXPECT_TRUE(doc->line == 2 && doc->node_count == 5 && doc->file_name == path);
    EXPECT_EQ(fds, count_fds(getpid()));
}

// Texts of every length up to 300, which fills the buffer at every offset and grows it often.
TEST(Xml, ReplacesTheFile)
{
    const std::string path = "/tmp/dir/a.xml";
    std::string text = "<r>";
    for (size_t i = 0; i < 300; i++) {
        text += "<a b='" + std::string(i, 'x') + "&quot;'>" + std::string(i, 'y') + "&lt;\n</a>";
    }
    Doc doc(frwk_xml_cache_parse((text += "</r>").data()));
    write_file(path + ".bak", "left over");
    EXPECT_EQ(0, frwk_xml_file_save(doc.get(), path.c_str()));
    EXPECT_EQ(0, frwk_xml_file_save(doc.get(), doc->file_name));
    write_file(path, "old content");
    EXPECT_EQ(0, frwk_xml_file_save(doc.get(), nullptr));
    EXPECT_FALSE(exists(path + ".bak"));
    EXPECT_EQ(streamed(doc->root, FRWK_XML_INDENT_SPACES), read_file(path));
    EXPECT_EQ(below(doc->root), below(Doc(frwk_xml_file_parse(path.c_str()))->root));
}

TEST(Xml, FailuresLeaveTheOldFile)
{
    const std::string path = "/tmp/" + std::string(497, '/') + "a.xml", too_long = path + "/"; // 507 and 508
    Doc doc(frwk_xml_alloc_doc());
    EXPECT_EQ((Texts{"frwk_xml_file_save: xml file name is null!", "frwk_xml_file_save: xml doc is null!",
                     "frwk_xml_file_save: xml file name '" + too_long + "' is too long!",
                     "frwk_xml_file_save: write xml '" + path + "' failed!",
                     "frwk_xml_file_save: write xml '/tmp/new.xml' failed!"}),
              said([&] {
                  EXPECT_EQ(FRWK_ERROR_INVALID_PARAM, frwk_xml_file_save(doc.get(), nullptr));
                  EXPECT_EQ(FRWK_ERROR_INVALID_PARAM, frwk_xml_file_save(nullptr, "/tmp/a.xml"));
                  EXPECT_EQ(FRWK_ERROR_INVALID_PARAM, frwk_xml_file_save(doc.get(), too_long.c_str()));
                  EXPECT_EQ(0, frwk_xml_file_save(doc.get(), path.c_str()));
                  frwk_xml_node_append(doc->root, "r", "x");
                  fault_after(1, {"fwrite", ENOSPC}, true);
                  EXPECT_EQ(FRWK_ERROR_FILE_CREATE, frwk_xml_file_save(doc.get(), nullptr));
                  EXPECT_EQ(FRWK_ERROR_FILE_CREATE, frwk_xml_file_save(doc.get(), "/tmp/new.xml"));
              }));
    EXPECT_TRUE(no_more_faults());
    EXPECT_TRUE(exists(path) && read_file(path).empty() && !exists("/tmp/a.xml.bak"));
    EXPECT_FALSE(exists("/tmp/new.xml")); // where there was none, no piece of one either
}

} // namespace
