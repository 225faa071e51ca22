// What the tests of XML share: trees as text.
#ifndef XML_TEST_H
#define XML_TEST_H

#include <memory>
#include <thread>

#include "text_test.h"

namespace xml_test {

using namespace text_test;

struct FreeDoc {
    void operator()(frwk_xml_doc_t *doc) const
    {
        frwk_xml_free_doc(doc);
    }
};
using Doc = std::unique_ptr<frwk_xml_doc_t, FreeDoc>;

// The nodes below `parent`: "name[attribute=value]'text'(children)" with "?", "!" and "#" before declarations,
// directives and comments. Looks on its way that every node holds together.
inline std::string below(const frwk_xml_node_t *parent)
{
    std::string text;
    frwk_list_for_each (link, &parent->children) {
        const frwk_xml_node_t *node = frwk_list_entry(link, frwk_xml_node_t, list);
        EXPECT_TRUE(node->parent == parent && node->depth == parent->depth + 1 && node->type < 4);
        EXPECT_EQ(node->value != nullptr ? strlen(node->value) : 0, node->len);
        text += (text.empty() ? "" : " ") + std::string(node->type != 0 ? 1 : 0, " #?!"[node->type & 3]);
        text += node->name != nullptr ? node->name : "";
        frwk_list_for_each (attr_link, &node->attrs) {
            const frwk_xml_attr_t *attr = frwk_list_entry(attr_link, frwk_xml_attr_t, list);
            text += std::string("[") + attr->name + "=" + attr->value + "]";
        }
        text += node->value != nullptr ? std::string("'") + node->value + "'" : "";
        text += frwk_list_empty(&node->children) ? "" : "(" + below(node) + ")";
    }
    return text;
}

// Runs `body` where recursion along 100,000 levels would not fit.
inline void on_small_stack(const std::function<void()> &body)
{
#if defined(__SANITIZE_THREAD__)
    const size_t size = 1024 * 1024; // its own records of the thread stand on the stack
#else
    const size_t size = 256 * 1024;
#endif
    pthread_attr_t attr;
    pthread_attr_init(&attr);
    pthread_attr_setstacksize(&attr, size);
    EXPECT_EQ(0, pthread_setattr_default_np(&attr));
    std::thread(body).join();
}

} // namespace xml_test

#endif
