// Whole documents: what parses has a sound tree, both writers agree on it, and what they write parses to the same tree.
#include "fuzz.h"

#include <algorithm>
#include <vector>

#include "../tests/support/xml_tree.h"

namespace {

// In a block of just that size, so that reading past the end of the text shows.
std::vector<char> text_of(const uint8_t *data, size_t size)
{
    std::vector<char> text(size + 1);
    std::copy_n(data, size, text.data());
    return text;
}

std::string streamed(frwk_xml_node_t *node, uint32_t flags)
{
    char *text = nullptr;
    size_t size = 0;
    FILE *fp = open_memstream(&text, &size);
    frwk_xml_writer_t writer = {7, 0, fp};
    CHECK(frwk_xml_write_node(&writer, node, flags) == 7);
    fclose(fp);
    const std::string copy(text, size);
    free(text);
    return copy;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    Doc doc(frwk_xml_cache_parse(text_of(data, size).data()));
    if (doc == nullptr) {
        return 0;
    }
    const std::string tree = below(doc->root, true);
    CHECK(tree.find("<broken>") == std::string::npos);
    for (uint32_t flags : {FRWK_XML_INDENT_TAB, FRWK_XML_INDENT_SPACES, FRWK_XML_RAW}) {
        frwk_buffer_t written;
        CHECK(frwk_buffer_init(&written) == 1 && frwk_xml_cache_save(&written, doc->root, flags) == 0);
        CHECK(written.len < written.size);
        std::vector<char> text = text_of(written.bp, static_cast<size_t>(written.len));
        frwk_buffer_free(&written);
        const std::string stream = streamed(doc->root, flags); // which differs in empty comments only
        CHECK(stream == std::string(text.data(), text.size() - 1) || stream.find("<!---->") != std::string::npos);

        // Each node is written on a line of its own, but declarations are read on the first only (3); and the limit of
        // an attribute's value counts an entity that is still being read (12).
        Doc again(frwk_xml_alloc_doc());
        again->cursor = text.data();
        if (flags != FRWK_XML_RAW && frwk_xml_read_node(again.get(), again->root, 0) == 0) {
            CHECK(below(again->root, true) == tree);
        }
        CHECK(again->status == 0 || (again->status == 4 && (again->error == 3 || again->error == 12)));
    }
    return 0;
}
