#include "xml_tree.h"

#include <libxml/dict.h>
#include <libxml/globals.h>

#include <cstring>

#include "zol/kiv_debug.h"

namespace kiv::xml
{

parse_report::parse_report(const char *document_name, kiv::call_site site) noexcept
    : document_name_(document_name), site_(site), former_handler_(xmlStructuredError),
      former_context_(xmlStructuredErrorContext)
{
    xmlSetStructuredErrorFunc(this, note);
}

parse_report::~parse_report()
{
    xmlSetStructuredErrorFunc(former_context_, former_handler_);
}

xmlDoc *parse_report::complete(xmlDoc *doc) const noexcept
{
    if (!is_out_of_memory_) {
        return doc;
    }
    xmlFreeDoc(doc);
    return nullptr;
}

void parse_report::take(const xmlError &error) noexcept
{
    const char *const message = error.message != nullptr ? error.message : "unknown error";
    const int length = static_cast<int>(std::strcspn(message, "\n"));
    if (error.level <= XML_ERR_WARNING) {
        KIV_LOG_AT(site_, INF1, "XML warning in %s, line %d: %.*s\n", document_name_, error.line, length,
                   message);
        return;
    }
    is_out_of_memory_ = is_out_of_memory_ || error.code == XML_ERR_NO_MEMORY;
    if (!has_error_) {
        KIV_LOG_AT(site_, ERRR, "XML error in %s, line %d: %.*s\n", document_name_, error.line, length,
                   message);
        has_error_ = true;
    }
}

} // namespace kiv::xml

namespace
{

// The children of an entity reference belong to the document's declarations. They are not part of the
// element, and nested declarations would be walked an exponential number of times.
xmlNode *first_child(const xmlNode *node) noexcept
{
    return node->type == XML_ENTITY_REF_NODE ? nullptr : node->children;
}

// The parser keeps one copy of each name in the document's dictionary. So elements are told apart by the addresses
// of their names, in a third of the time that it takes to compare texts. Nodes of other kinds have names of their own,
// such as "text" and "comment". A name with a prefix that is not declared is in the dictionary too, but not found
// there by its text.
class wanted_name
{
public:
    wanted_name(const xmlDoc *doc, const char *name) noexcept
        : text_(name), dictionary_(doc != nullptr && std::strchr(name, ':') == nullptr ? doc->dict : nullptr),
          interned_(dictionary_ != nullptr ? xmlDictExists(dictionary_, kiv::xml::to_xml(name), -1)
                                           : nullptr),
          is_of_texts_(std::strcmp(name, "text") == 0)
    {
    }

    [[nodiscard]] bool is_name_of(const xmlNode &node) const noexcept
    {
        if (dictionary_ != nullptr && node.type == XML_ELEMENT_NODE) {
            return node.name == interned_;
        }
        return node.name != nullptr && std::strcmp(kiv::xml::text_of(node.name), text_) == 0;
    }

    // Most elements hold one text and nothing else. A walk that steps over these texts has no need to wait until
    // their records are in the cache.
    [[nodiscard]] bool may_be_at(const xmlNode &first_child) const noexcept
    {
        return first_child.type != XML_TEXT_NODE || first_child.next != nullptr || is_of_texts_;
    }

private:
    const char *text_;
    xmlDict *dictionary_;
    const xmlChar *interned_; // null: no element has the name
    bool is_of_texts_;
};

// The next node in document order that is not above the level on which the search began. Without recursion:
// how deep a file nests must not decide how much stack is used.
xmlNode *next_in_search(xmlNode *node, const xmlNode *above, const wanted_name &wanted) noexcept
{
    if (xmlNode *const child = first_child(node); child != nullptr && wanted.may_be_at(*child)) {
        return child;
    }
    while (node->next == nullptr) {
        node = node->parent;
        if (node == nullptr || node == above) {
            return nullptr;
        }
    }
    return node->next;
}

} // namespace

xmlNode *_kiv_config_getElement(xmlNode *node, const char *name, const char * /*id*/,
                                kiv::xml::tree kind) noexcept
{
    if (node == nullptr || name == nullptr) {
        return nullptr;
    }
    const wanted_name wanted(kind == kiv::xml::tree::as_parsed ? node->doc : nullptr, name);
    const xmlNode *const above = node->parent;
    while (node != nullptr && !wanted.is_name_of(*node)) {
        node = next_in_search(node, above, wanted);
    }
    return node;
}
