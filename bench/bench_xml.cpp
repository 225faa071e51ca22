/* SPDX-FileCopyrightText: 2026 the libfrwk authors */
/* SPDX-License-Identifier: MIT */

// Parsing and writing XML, against the bare making of the model and the bare copying of the text.
#include "growth.h"
#include <frwk.h>

#include <expat.h>
#include <libxml/parser.h>
#include <libxml/tree.h>
#include <pugixml.hpp>
#include <tinyxml2.h>

#include <cstring>
#include <memory>

namespace {

// ---- documents

// The shape of the configuration files: an element a module, a child element a setting.
std::string modules_document(size_t modules)
{
    const char *names[] = {"monitor",      "atfwd_daemon", "dial_test", "logtool", "serial_bridge",
                           "monitor_tool", "mbimd",        "qti",       "qmuxd"};
    std::string text = "<?xml version=\"1.0\" encoding=\"utf-8\"?>\n<modules>\n";
    for (size_t i = 0; i < modules; i++) {
        std::string name = names[i % 9];
        text += "\t<" + name + " id=\"" + std::to_string(i) + "\">\n\t\t<monitor_service>1</monitor_service>\n" +
                "\t\t<start_cmd>-l /dev/smd" + std::to_string(i) + " -r /dev/ttyHSL1 &amp; wait</start_cmd>\n\t</" +
                name + ">\n";
    }
    return text + "</modules>\n";
}

std::string long_values_document()
{
    std::string text = "<certificates>\n";
    for (int i = 0; i < 16; i++) {
        std::string value;
        while (value.size() < 64 * 1024) {
            value += "MIIDdzCCAl+gAwIBAgIEAgAAuTANBgkqhkiG9w0BAQUFADBaMQswCQYDVQQGEwJJ\n";
        }
        text += "\t<pem>" + value + "</pem>\n";
    }
    return text + "</certificates>\n";
}

struct Facts { // what a parse must have found
    size_t elements = 0;
    size_t text = 0; // bytes of element text without the blanks around it
    bool operator==(const Facts &other) const
    {
        return elements == other.elements && text == other.text;
    }
};

void add_text(Facts &facts, const char *text)
{
    if (text != nullptr) {
        const char *end = text + strlen(text);
        while (end > text && strchr(" \t\n", end[-1]) != nullptr) {
            end--;
        }
        while (text < end && strchr(" \t\n", *text) != nullptr) {
            text++;
        }
        facts.text += static_cast<size_t>(end - text);
    }
}

// ---- the floor of a parse: the blocks of the model, filled by copies from where they lie

struct Recipe { // a node or an attribute
    enum Kind { NODE, ATTR, END } kind;
    uint32_t type;
    std::string name, value;
    bool has_name, has_value;
};

void write_recipe(const frwk_xml_node_t *parent, std::vector<Recipe> &steps)
{
    auto text = [](const char *s) { return std::string(s != nullptr ? s : ""); };
    frwk_list_for_each (link, &parent->children) {
        const frwk_xml_node_t *node = frwk_list_entry(link, frwk_xml_node_t, list);
        steps.push_back({Recipe::NODE, node->type, text(node->name), text(node->value), node->name != nullptr,
                         node->value != nullptr});
        frwk_list_for_each (attr_link, &node->attrs) {
            const frwk_xml_attr_t *attr = frwk_list_entry(attr_link, frwk_xml_attr_t, list);
            steps.push_back(
                {Recipe::ATTR, 0, text(attr->name), text(attr->value), attr->name != nullptr, attr->value != nullptr});
        }
        write_recipe(node, steps);
        steps.push_back({Recipe::END, 0, "", "", false, false});
    }
}

char *copy_of(const std::string &text)
{
    char *copy = static_cast<char *>(malloc(text.size() + 1));
    memcpy(copy, text.data(), text.size() + 1);
    return copy;
}

void link_last(frwk_list_t *head, frwk_list_t *node)
{
    node->next = head;
    node->prev = head->prev;
    head->prev->next = node;
    head->prev = node;
}

frwk_xml_node_t *floor_node()
{
    frwk_xml_node_t *node = static_cast<frwk_xml_node_t *>(calloc(1, sizeof *node));
    node->attrs = {&node->attrs, &node->attrs};
    node->children = {&node->children, &node->children};
    return node;
}

__attribute__((noinline)) frwk_xml_node_t *follow_recipe(const std::vector<Recipe> &steps)
{
    frwk_xml_node_t *root = floor_node(), *parent = root;
    root->type = FRWK_XML_NODE_DOCUMENT;
    for (const Recipe &step : steps) {
        if (step.kind == Recipe::NODE) {
            frwk_xml_node_t *node = floor_node();
            node->type = step.type;
            node->name = step.has_name ? copy_of(step.name) : nullptr;
            node->value = step.has_value ? copy_of(step.value) : nullptr;
            node->len = static_cast<uint32_t>(step.value.size());
            node->depth = parent->depth + 1;
            node->parent = parent;
            link_last(&parent->children, &node->list);
            parent = node;
        } else if (step.kind == Recipe::ATTR) {
            frwk_xml_attr_t *attr = static_cast<frwk_xml_attr_t *>(calloc(1, sizeof *attr));
            attr->name = copy_of(step.name);
            attr->value = copy_of(step.value);
            link_last(&parent->attrs, &attr->list);
        } else {
            parent = parent->parent;
        }
    }
    return root;
}

// ---- parsers: each turns a text, which it may change, into something that frees itself and can be counted

struct FloorParser {
    static const std::vector<Recipe> *steps;
    frwk_xml_node_t *root;
    explicit FloorParser(std::string &) : root(follow_recipe(*steps))
    {
    }
    ~FloorParser()
    {
        frwk_xml_free_node(root);
    }
    FloorParser(const FloorParser &) = delete;
    FloorParser &operator=(const FloorParser &) = delete;
    static void count(const frwk_xml_node_t *parent, Facts &facts)
    {
        frwk_list_for_each (link, &parent->children) {
            const frwk_xml_node_t *node = frwk_list_entry(link, frwk_xml_node_t, list);
            if (node->type == FRWK_XML_NODE_ELEMENT) {
                facts.elements++;
                add_text(facts, node->value);
                count(node, facts);
            }
        }
    }
    void facts(Facts &facts) const
    {
        count(root, facts);
    }
};
const std::vector<Recipe> *FloorParser::steps;

struct OurParser {
    frwk_xml_doc_t *doc;
    explicit OurParser(std::string &text) : doc(frwk_xml_cache_parse(&text[0]))
    {
        CHECK(doc != nullptr);
    }
    ~OurParser()
    {
        frwk_xml_free_doc(doc);
    }
    OurParser(const OurParser &) = delete;
    OurParser &operator=(const OurParser &) = delete;
    void facts(Facts &facts) const
    {
        FloorParser::count(doc->root, facts);
    }
};

struct TinyParser {
    tinyxml2::XMLDocument doc;
    explicit TinyParser(std::string &text)
    {
        CHECK(doc.Parse(text.data(), text.size()) == tinyxml2::XML_SUCCESS);
    }
    static void count(const tinyxml2::XMLNode *parent, Facts &facts)
    {
        for (auto node = parent->FirstChildElement(); node != nullptr; node = node->NextSiblingElement()) {
            facts.elements++;
            add_text(facts, node->GetText());
            count(node, facts);
        }
    }
    void facts(Facts &facts) const
    {
        count(&doc, facts);
    }
};

struct PugiParser {
    pugi::xml_document doc;
    explicit PugiParser(std::string &text)
    {
        CHECK(doc.load_buffer_inplace(&text[0], text.size()));
    }
    static void count(const pugi::xml_node &parent, Facts &facts)
    {
        for (pugi::xml_node node : parent.children()) {
            if (node.type() == pugi::node_element) {
                facts.elements++;
                add_text(facts, node.child_value());
                count(node, facts);
            }
        }
    }
    void facts(Facts &facts) const
    {
        count(doc, facts);
    }
};

struct LibxmlParser {
    xmlDocPtr doc;
    explicit LibxmlParser(std::string &text)
        : doc(xmlReadMemory(text.data(), static_cast<int>(text.size()), nullptr, nullptr, XML_PARSE_NOBLANKS))
    {
        CHECK(doc != nullptr);
    }
    ~LibxmlParser()
    {
        xmlFreeDoc(doc);
    }
    LibxmlParser(const LibxmlParser &) = delete;
    LibxmlParser &operator=(const LibxmlParser &) = delete;
    static void count(const xmlNode *first, Facts &facts)
    {
        for (const xmlNode *node = first; node != nullptr; node = node->next) {
            if (node->type == XML_ELEMENT_NODE) {
                facts.elements++;
                count(node->children, facts);
            } else if (node->type == XML_TEXT_NODE) {
                add_text(facts, reinterpret_cast<const char *>(node->content));
            }
        }
    }
    void facts(Facts &facts) const
    {
        count(doc->children, facts);
    }
};

struct ExpatParser { // events only, no tree
    Facts found;
    std::string run;
    static void close_run(void *data)
    {
        ExpatParser *self = static_cast<ExpatParser *>(data);
        add_text(self->found, self->run.c_str());
        self->run.clear();
    }
    explicit ExpatParser(std::string &text)
    {
        XML_Parser parser = XML_ParserCreate(nullptr);
        XML_SetUserData(parser, this);
        XML_SetElementHandler(
            parser,
            [](void *data, const XML_Char *, const XML_Char **) {
                close_run(data);
                static_cast<ExpatParser *>(data)->found.elements++;
            },
            [](void *data, const XML_Char *) { close_run(data); });
        XML_SetCharacterDataHandler(parser, [](void *data, const XML_Char *piece, int size) {
            static_cast<ExpatParser *>(data)->run.append(piece, static_cast<size_t>(size));
        });
        CHECK(XML_Parse(parser, text.data(), static_cast<int>(text.size()), 1) == XML_STATUS_OK);
        XML_ParserFree(parser);
    }
    void facts(Facts &facts) const
    {
        facts = found;
    }
};

// Times all that a document costs: its text set up, parsed, and what came of it freed. One of a batch is looked at.
template <typename Parser> std::function<double(size_t)> parse_batch(const std::string &document, Facts expected)
{
    auto text = std::make_shared<std::string>(document);
    return bench::timed([text, &document, expected](size_t n) {
        for (size_t i = 0; i < n; i++) {
            memcpy(&(*text)[0], document.data(), document.size());
            Parser parser(*text);
            if (i == 0) {
                Facts facts;
                parser.facts(facts);
                CHECK(facts == expected);
            }
        }
    });
}

void run_parse(const char *name, const std::string &document, double most)
{
    std::string text = document;
    OurParser reference(text);
    std::vector<Recipe> steps;
    write_recipe(reference.doc->root, steps);
    FloorParser::steps = &steps;
    Facts facts;
    reference.facts(facts);
    CHECK(facts.elements > 1 && facts.text > 100);
    bench::run({name,
                {bench::floor_of(parse_batch<FloorParser>(document, facts)),
                 bench::ours_of(parse_batch<OurParser>(document, facts)),
                 {"tinyxml2", parse_batch<TinyParser>(document, facts)},
                 {"libxml2", parse_batch<LibxmlParser>(document, facts)},
                 {"pugixml (in place)", parse_batch<PugiParser>(document, facts)},
                 {"expat (no tree)", parse_batch<ExpatParser>(document, facts)}},
                most});
}

// ---- writing

// The floor of writing: the pieces of the text, copied one by one into a buffer that grows as the library's does.
std::vector<std::string> cut_into_pieces(const std::string &text)
{
    std::vector<std::string> pieces(1);
    bool in_tag = false;
    for (char c : text) {
        bool mark = strchr("<>/=\"?", c) != nullptr;
        if (c == '<' || (in_tag && mark)) {
            pieces.emplace_back();
        }
        pieces.back() += c;
        if (c == '<' || (in_tag && mark)) {
            pieces.emplace_back();
        }
        in_tag = c == '<' || (in_tag && c != '>');
    }
    pieces.erase(std::remove(pieces.begin(), pieces.end(), ""), pieces.end());
    return pieces;
}

__attribute__((noinline)) frwk_buffer_t copy_pieces(const std::vector<std::string> &pieces)
{
    frwk_buffer_t buffer = {4096, 0, static_cast<uint8_t *>(malloc(4096))};
    for (const std::string &piece : pieces) {
        int size = static_cast<int>(piece.size());
        if (buffer.size - buffer.len <= size) {
            buffer.size += size < 4096 ? 4096 : (size - 4096) / 4096 * 4096 + 8192;
            buffer.bp = static_cast<uint8_t *>(realloc(buffer.bp, static_cast<size_t>(buffer.size)));
        }
        memcpy(buffer.bp + buffer.len, piece.data(), piece.size());
        buffer.len += size;
    }
    return buffer;
}

std::string write_ours(frwk_xml_doc_t *doc)
{
    frwk_buffer_t buffer;
    CHECK(frwk_buffer_init(&buffer) == 1);
    CHECK(frwk_xml_cache_save(&buffer, doc->root, FRWK_XML_INDENT_TAB) == 0);
    std::string text(reinterpret_cast<char *>(buffer.bp), static_cast<size_t>(buffer.len));
    frwk_buffer_free(&buffer);
    return text;
}

struct PugiWriter : pugi::xml_writer {
    std::string text;
    void write(const void *data, size_t size) override
    {
        text.append(static_cast<const char *>(data), size);
    }
};

// What a contender writes must read back as the document; after that, every time as many bytes.
struct WriteCheck {
    Facts expected;
    size_t size = 0;
    void operator()(const void *text, size_t length)
    {
        if (size == 0) {
            std::string copy(static_cast<const char *>(text), length);
            Facts facts;
            OurParser(copy).facts(facts);
            CHECK(facts == expected);
            size = length;
        }
        CHECK(length == size);
    }
};

// Times the writing of a document, from an empty buffer to the whole text in memory and free again.
template <typename Write> std::function<double(size_t)> write_batch(const Facts &facts, Write write)
{
    return bench::timed([check = WriteCheck{facts}, write](size_t n) mutable {
        for (size_t i = 0; i < n; i++) {
            write(check);
        }
    });
}

void run_write(const char *name, const std::string &document, double most)
{
    std::string text = document, tiny_text = document, pugi_text = document, libxml_text = document;
    OurParser ours(text);
    TinyParser tiny(tiny_text);
    PugiParser pugi(pugi_text);
    LibxmlParser libxml(libxml_text);
    Facts facts;
    ours.facts(facts);
    const std::vector<std::string> pieces = cut_into_pieces(write_ours(ours.doc));

    auto floor_write = [&](WriteCheck &check) {
        frwk_buffer_t buffer = copy_pieces(pieces);
        check(buffer.bp, static_cast<size_t>(buffer.len));
        free(buffer.bp);
    };
    auto our_write = [&](WriteCheck &check) {
        frwk_buffer_t buffer;
        frwk_buffer_init(&buffer);
        frwk_xml_cache_save(&buffer, ours.doc->root, FRWK_XML_INDENT_TAB);
        check(buffer.bp, static_cast<size_t>(buffer.len));
        frwk_buffer_free(&buffer);
    };
    static char stream_buffer[BUFSIZ];
    FILE *nowhere = fopen("/dev/null", "w");
    CHECK(nowhere != nullptr && setvbuf(nowhere, stream_buffer, _IOFBF, sizeof stream_buffer) == 0);
    auto our_stream_write = [&](WriteCheck &) {
        frwk_xml_writer_t writer = {0, 0, nowhere};
        CHECK(frwk_xml_write_node(&writer, ours.doc->root, FRWK_XML_INDENT_TAB) == 0 && ferror(nowhere) == 0);
    };
    auto tiny_write = [&](WriteCheck &check) {
        tinyxml2::XMLPrinter printer;
        tiny.doc.Print(&printer);
        check(printer.CStr(), static_cast<size_t>(printer.CStrSize()) - 1);
    };
    auto libxml_write = [&](WriteCheck &check) {
        xmlChar *out;
        int size;
        xmlDocDumpFormatMemory(libxml.doc, &out, &size, 1);
        check(out, static_cast<size_t>(size));
        xmlFree(out);
    };
    auto pugi_write = [&](WriteCheck &check) {
        PugiWriter writer;
        pugi.doc.save(writer);
        check(writer.text.data(), writer.text.size());
    };
    bench::run({name,
                {bench::floor_of(write_batch(facts, floor_write)),
                 bench::ours_of(write_batch(facts, our_write)),
                 bench::ours_of(write_batch(facts, our_stream_write), "to a stream"),
                 {"tinyxml2", write_batch(facts, tiny_write)},
                 {"libxml2", write_batch(facts, libxml_write)},
                 {"pugixml", write_batch(facts, pugi_write)}},
                most});
    fclose(nowhere);
}

void parse_growth(benchmark::State &state)
{
    size_t size = static_cast<size_t>(state.range(0));
    const std::string document = modules_document(size / (modules_document(1000).size() / 1000));
    std::string text;
    double spent = 0;
    for (auto _ : state) {
        text = document;
        double start = bench::now_ns();
        OurParser parser(text);
        spent += bench::now_ns() - start;
    }
    state.counters["ns a byte of parsing alone"] = spent / static_cast<double>(state.iterations() * document.size());
}
BENCHMARK(parse_growth)->Name("copy, parse, free (bytes)")->RangeMultiplier(10)->Range(1000, 10000000)->MinTime(0.2);

void write_growth(benchmark::State &state)
{
    size_t size = static_cast<size_t>(state.range(0));
    std::string text = modules_document(size / (modules_document(1000).size() / 1000));
    OurParser parser(text);
    for (auto _ : state) {
        frwk_buffer_t buffer;
        CHECK(frwk_buffer_init(&buffer) == 1);
        frwk_xml_cache_save(&buffer, parser.doc->root, FRWK_XML_INDENT_TAB);
        frwk_buffer_free(&buffer);
    }
}
BENCHMARK(write_growth)->Name("write (bytes)")->RangeMultiplier(10)->Range(1000, 10000000)->MinTime(0.2);

} // namespace

int main()
{
    bench::use_cores(1);
    bench::measuring_clock = CLOCK_THREAD_CPUTIME_ID;
    const std::string small = modules_document(9), large = modules_document(7300), values = long_values_document();
    CHECK(large.size() > 1000000 && large.size() < 1200000 && values.size() > 1000000);

    bench::print_header("### XML, one core");
    run_parse("parse, 9 modules", small, 1.8);
    run_parse("parse, 1 MB", large, 1.8);
    run_parse("parse, values of 64 KB", values, 2);
    run_write("write, 9 modules", small, 2.8);
    run_write("write, 1 MB", large, 2.8);
    run_write("write, values of 64 KB", values, 2.8);
    bench::run_growth();
    return 0;
}
