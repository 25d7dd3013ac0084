#include "xml_tree.h"

#include <libxml/globals.h>

#include <cstring>

#include "zol/kiv_debug.h"

namespace kiv::xml
{

parse_report::parse_report(const char *document_name) noexcept
    : document_name_(document_name), former_handler_(xmlStructuredError),
      former_context_(xmlStructuredErrorContext)
{
    xmlSetStructuredErrorFunc(this, note);
}

parse_report::~parse_report()
{
    xmlSetStructuredErrorFunc(former_context_, former_handler_);
}

void parse_report::note(void *report, xmlError *error) noexcept
{
    auto *const self = static_cast<parse_report *>(report);
    if (self->noted_) {
        return;
    }
    self->noted_ = true;
    const char *const message = error->message != nullptr ? error->message : "unknown error";
    const int length = static_cast<int>(std::strcspn(message, "\n"));
    KIV_LOG_ERRR("XML error in %s, line %d: %.*s\n", self->document_name_, error->line, length, message);
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

// The next node in document order that is not above the level on which the search began. Without recursion:
// how deep a file nests must not decide how much stack is used.
xmlNode *next_in_search(xmlNode *node, const xmlNode *above) noexcept
{
    if (xmlNode *const child = first_child(node); child != nullptr) {
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

bool is_named(const xmlNode *node, const char *name) noexcept
{
    return node->name != nullptr && std::strcmp(kiv::xml::text_of(node->name), name) == 0;
}

} // namespace

xmlNode *_kiv_config_getElement(xmlNode *node, const char *name, const char * /*id*/) noexcept
{
    if (node == nullptr || name == nullptr) {
        return nullptr;
    }
    const xmlNode *const above = node->parent;
    while (node != nullptr && !is_named(node, name)) {
        node = next_in_search(node, above);
    }
    return node;
}
