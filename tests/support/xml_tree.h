// Trees as text, for the tests and the fuzz targets.
#ifndef XML_TREE_H
#define XML_TREE_H

#include <cstring>
#include <memory>
#include <string>

#include "frwk.h"

struct FreeDoc {
    void operator()(frwk_xml_doc_t *doc) const
    {
        frwk_xml_free_doc(doc);
    }
};
using Doc = std::unique_ptr<frwk_xml_doc_t, FreeDoc>;

// The nodes below `parent`: "name[attribute=value]'text'(children)" with "?", "!" and "#" before declarations,
// directives and comments; "<broken>" for one that does not hold together. Loosely without the blanks around a text
// that a writer may add.
inline std::string below(const frwk_xml_node_t *parent, bool loosely = false)
{
    static const char signs[] = " #?!", blanks[] = " \t\r\n";
    std::string text;
    frwk_list_for_each (link, &parent->children) {
        const frwk_xml_node_t *node = frwk_list_entry(link, frwk_xml_node_t, list);
        if (node->parent != parent || node->depth != parent->depth + 1 || node->type > 3 || link->next->prev != link ||
            node->len != (node->value != nullptr ? strlen(node->value) : 0)) {
            return text + "<broken>";
        }
        text += (text.empty() ? "" : " ") + std::string(node->type != 0, signs[node->type]) +
                (node->name != nullptr ? node->name : "");
        frwk_list_for_each (attr_link, &node->attrs) {
            const frwk_xml_attr_t *attr = frwk_list_entry(attr_link, frwk_xml_attr_t, list);
            text += std::string("[") + attr->name + "=" + attr->value + "]";
        }
        std::string value = node->value != nullptr ? node->value : "";
        if (loosely && (node->type != FRWK_XML_NODE_ELEMENT || !frwk_list_empty(&node->children))) {
            value.erase(0, value.find_first_not_of(blanks));
            value.erase(value.find_last_not_of(blanks) + 1);
        }
        text += node->value != nullptr ? "'" + value + "'" : "";
        text += frwk_list_empty(&node->children) ? "" : "(" + below(node, loosely) + ")";
    }
    return text;
}

#endif
