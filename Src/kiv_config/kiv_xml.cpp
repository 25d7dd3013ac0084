// XML documents of the application's own.

#include <libxml/parser.h>
#include <libxml/tree.h>

#include <cstdarg>
#include <cstdio>

#include "common/text.h"
#include "xml_tree.h"
#include "zol/kiv_config.h"
#include "zol/kiv_debug.h"
#include "zol/kiv_status.h"

using kiv::shown;
using kiv::xml::text_of;

namespace
{

// Blank text stays in the tree; nothing is fetched from a network.
constexpr int parser_options = XML_PARSE_RECOVER | XML_PARSE_NONET;

// Finds the element that a scan is about.
int32_t find_element(xmlDoc *doc, const char *name, xmlNode *&element)
{
    xmlNode *const root = doc != nullptr ? xmlDocGetRootElement(doc) : nullptr;
    KIV_ASSERT(root != nullptr && name != nullptr);
    if (root == nullptr || name == nullptr) {
        return KIV_ERR_INVALID_PARAM;
    }
    element = _kiv_config_getElement(root, name, "");
    return element != nullptr ? KIV_OK : KIV_ERR_NOT_FOUND;
}

bool has_text(xmlNode *node)
{
    return xmlIsBlankNode(node) == 0 && node->content != nullptr;
}

const char *element_text(const xmlNode *element)
{
    for (xmlNode *child = element->children; child != nullptr; child = child->next) {
        if (has_text(child)) {
            KIV_LOG_PRNT(" element %s=%s\n", shown(text_of(child->name)), text_of(child->content));
            return text_of(child->content);
        }
    }
    return "";
}

const xmlChar *value_of(const xmlAttr *attribute)
{
    return attribute->children != nullptr ? attribute->children->content : nullptr;
}

const char *attribute_text(const xmlNode *element, const char *name)
{
    // Only elements have the list of attributes: other nodes end before it.
    const xmlAttr *attribute = element->type == XML_ELEMENT_NODE ? element->properties : nullptr;
    for (; attribute != nullptr; attribute = attribute->next) {
        const xmlChar *const value = value_of(attribute);
        if (value != nullptr && xmlStrcmp(attribute->name, kiv::xml::to_xml(name)) == 0) {
            KIV_LOG_PRNT(" found attribute %s.%s = \"%s\"\n", text_of(element->name), name, text_of(value));
            return text_of(value);
        }
    }
    return "";
}

} // namespace

struct _xmlDoc *kiv_xml_allocateFromFile(const char *path)
{
    const kiv::xml::parse_report report(shown(path));
    xmlDoc *const doc = path != nullptr ? xmlReadFile(path, nullptr, parser_options) : nullptr;
    KIV_ASSERT(doc != nullptr);
    return doc;
}

struct _xmlDoc *kiv_xml_allocate(const char *buffer, int size)
{
    const kiv::xml::parse_report report("memory");
    xmlDoc *const doc =
        buffer != nullptr ? xmlReadMemory(buffer, size, nullptr, nullptr, parser_options) : nullptr;
    KIV_ASSERT(doc != nullptr);
    return doc;
}

int32_t kiv_xml_delete(struct _xmlDoc *doc)
{
    xmlFreeDoc(doc);
    return KIV_OK;
}

int32_t kiv_xml_scanElementContent(struct _xmlDoc *doc, const char *element, const char *format, ...)
{
    xmlNode *node = nullptr;
    KIV_ASSERT(format != nullptr);
    const int32_t status = format != nullptr ? find_element(doc, element, node) : KIV_ERR_INVALID_PARAM;
    if (status != KIV_OK) {
        return status;
    }
    KIV_LOG_INF1("element (%s) content(%s)\n", text_of(node->name), shown(text_of(node->content)));
    const char *const text = element_text(node);
    va_list arguments;
    va_start(arguments, format);
    std::vsscanf(text, format, arguments);
    va_end(arguments);
    return KIV_OK;
}

int32_t kiv_xml_scanAttribute(struct _xmlDoc *doc, const char *element, const char *attribute,
                              const char *format, ...)
{
    xmlNode *node = nullptr;
    const bool complete = attribute != nullptr && format != nullptr;
    KIV_ASSERT(complete);
    const int32_t status = complete ? find_element(doc, element, node) : KIV_ERR_INVALID_PARAM;
    if (status != KIV_OK) {
        return status;
    }
    const char *const text = attribute_text(node, attribute);
    va_list arguments;
    va_start(arguments, format);
    std::vsscanf(text, format, arguments);
    va_end(arguments);
    return KIV_OK;
}
