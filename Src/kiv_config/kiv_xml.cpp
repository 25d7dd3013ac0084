// XML documents of the application's own.

#include <libxml/parser.h>
#include <libxml/tree.h>

#include <cstdarg>
#include <cstdio>

#include "common/text.h"
#include "kiv_debug/log_as.h"
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

int32_t find_element(xmlDoc *doc, const char *name, xmlNode *&element, kiv::call_site site)
{
    xmlNode *const root = doc != nullptr ? xmlDocGetRootElement(doc) : nullptr;
    if (!KIV_HOLDS_AT(site, root != nullptr && name != nullptr)) {
        KIV_LOG_AT(site, ERRR, "no element %s: %s\n", shown(name),
                   doc == nullptr    ? "no document"
                   : root == nullptr ? "no root element"
                                     : "no name");
        return KIV_ERR_INVALID_PARAM;
    }
    element = _kiv_config_getElement(root, name, "", kiv::xml::tree::changed);
    return element != nullptr ? KIV_OK : KIV_ERR_NOT_FOUND;
}

bool has_text(xmlNode *node)
{
    return xmlIsBlankNode(node) == 0 && node->content != nullptr;
}

const char *element_text(const xmlNode *element, kiv::call_site site)
{
    for (xmlNode *child = element->children; child != nullptr; child = child->next) {
        if (has_text(child)) {
            KIV_LOG_AT(site, PRNT, " element %s=%s\n", shown(text_of(child->name)), text_of(child->content));
            return text_of(child->content);
        }
    }
    return "";
}

const xmlChar *value_of(const xmlAttr *attribute)
{
    return attribute->children != nullptr ? attribute->children->content : nullptr;
}

const char *attribute_text(const xmlNode *element, const char *name, kiv::call_site site)
{
    // Only elements have the list of attributes: other nodes end before it.
    const xmlAttr *attribute = element->type == XML_ELEMENT_NODE ? element->properties : nullptr;
    for (; attribute != nullptr; attribute = attribute->next) {
        const xmlChar *const value = value_of(attribute);
        if (value != nullptr && xmlStrcmp(attribute->name, kiv::xml::to_xml(name)) == 0) {
            KIV_LOG_AT(site, PRNT, " found attribute %s.%s = \"%s\"\n", text_of(element->name), name,
                       text_of(value));
            return text_of(value);
        }
    }
    return "";
}

} // namespace

struct _xmlDoc *kiv_xml_allocateFromFile(const char *path)
{
    const kiv::xml::parse_report report(shown(path), kiv::call_site::here());
    xmlDoc *const doc =
        path != nullptr ? report.complete(xmlReadFile(path, nullptr, parser_options)) : nullptr;
    if (!KIV_HOLDS(doc != nullptr)) {
        KIV_LOG_ERRR("no XML document from file %s\n", shown(path));
    }
    return doc;
}

struct _xmlDoc *kiv_xml_allocate(const char *buffer, int size)
{
    const kiv::xml::parse_report report("memory", kiv::call_site::here());
    xmlDoc *const doc = buffer != nullptr
                            ? report.complete(xmlReadMemory(buffer, size, nullptr, nullptr, parser_options))
                            : nullptr;
    if (!KIV_HOLDS(doc != nullptr)) {
        KIV_LOG_ERRR("no XML document from %d bytes of memory\n", size);
    }
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
    if (!KIV_GIVEN(format != nullptr, "no format")) {
        return KIV_ERR_INVALID_PARAM;
    }
    const int32_t status = find_element(doc, element, node, kiv::call_site::here());
    if (status != KIV_OK) {
        return status;
    }
    KIV_LOG_INF1("element (%s) content(%s)\n", text_of(node->name), shown(text_of(node->content)));
    const char *const text = element_text(node, kiv::call_site::here());
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
    if (!KIV_GIVEN(attribute != nullptr && format != nullptr, "no attribute name, or no format")) {
        return KIV_ERR_INVALID_PARAM;
    }
    const int32_t status = find_element(doc, element, node, kiv::call_site::here());
    if (status != KIV_OK) {
        return status;
    }
    const char *const text = attribute_text(node, attribute, kiv::call_site::here());
    va_list arguments;
    va_start(arguments, format);
    std::vsscanf(text, format, arguments);
    va_end(arguments);
    return KIV_OK;
}
